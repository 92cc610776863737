"""What "tessel-networkctl plan FILE" prints, run as the operator runs it: against a
running daemon (from the configuration it reads), with no daemon (from nothing, its
first start), for the file in force (nothing to do), for an unusable or unreadable
file; and that it runs no command, signals nothing and leaves no file, wherever it
runs: its stand-ins on PATH record any call, and its TMPDIR stays empty."""

import os
import shutil
import stat
import subprocess
import tempfile
import unittest

import harness
from tesselkit.device import config_text

PHY_FILE = "/tmp/marvell-phy-0-port"
# eth1 alone: no eth0 to put back into br0 on every pass.
PREVIOUS = config_text("eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                       "static 10.1.0.2 255.255.255.0 0.0.0.0")
NEW = config_text("eth1", "frame", "static 10.9.0.2 255.255.255.0 10.9.0.1",
                  "static 10.1.0.2 255.255.255.0 0.0.0.0")
UNUSABLE = "bridge eth1\nphy frame\nveth1 static 10.9.0.2 banana 10.9.0.1\n"
TOOLS = ("ip", "bridge", "arptables", "iptables", "ebtables", "ebtables-restore", "devmem", "udhcpc", "rm", "cat",
         "awk", "sh", "kill")


def unwrapped(text):
    """The plan's lines whole: a line longer than 80 columns goes on, indented by four."""
    return text.replace("\n    ", " ")


class PlanWithDaemonTest(harness.DaemonTestCase):
    def new_file(self, text):
        path = self.sandbox.path("new.conf")
        with open(path, "w") as out:
            out.write(text)
        return path

    def start(self):
        with open(self.sandbox.tmp_path("marvell-phy-0-port"), "w"):
            pass
        self.sandbox.write_config(PREVIOUS)
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", PHY_FILE])
        harness.wait_until(lambda: (self.sandbox.status() or {}).get("configuration", {}).get("usable"),
                           "the first pass's status document")
        return daemon

    def test_plan_from_the_running_configuration(self):
        daemon = self.start()
        new = self.new_file(NEW)
        before = self.sandbox.commands()
        result = daemon.ctl("plan", new)
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(result.stderr, "")
        self.assertTrue(all(len(line) <= 80 for line in result.stdout.splitlines()), result.stdout)
        self.assertEqual(unwrapped(result.stdout), (
            "Plan from the configuration the running daemon reads, %s to %s (nothing run):\n"
            "$ ip route flush dev veth1\n"
            "$ ip addr flush dev veth1\n"
            "INFO SetupInterface: Configuring interface veth1 for static IP\n"
            "INFO SetAddrAndRouting: Configuring veth1 for 10.9.0.2/255.255.255.0\n"
            "$ ip addr add 10.9.0.2/255.255.255.0 dev veth1\n"
            "INFO SetAddrAndRouting: Adding default gateway 10.9.0.1 for veth1\n"
            "$ ip route add default via 10.9.0.1 dev veth1 metric 10\n") % (self.sandbox.config_path, new))
        # The daemon's configuration and the device are as they were.
        with open(self.sandbox.config_path) as config:
            self.assertEqual(config.read(), PREVIOUS)
        self.assertEqual(self.sandbox.commands(), before)
        self.assertTrue(daemon.running())

    def test_the_file_in_force_is_nothing_to_do(self):
        daemon = self.start()
        same = self.new_file(PREVIOUS)
        result = daemon.ctl("plan", same)
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(unwrapped(result.stdout), (
            "Plan from the configuration the running daemon reads, %s to %s (nothing run):\n"
            "Nothing to do: the daemon runs that shape already.\n") % (self.sandbox.config_path, same))


class PlanAnywhereTest(unittest.TestCase):
    """The built command run directly in this machine's namespaces: safe, as it runs
    nothing. Its PATH holds only stand-ins that note any call."""

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="tessel-plan-test-")
        self.addCleanup(shutil.rmtree, self.work)
        self.tools = os.path.join(self.work, "tools")
        self.scratch = os.path.join(self.work, "scratch")
        self.calls = os.path.join(self.work, "calls")
        os.mkdir(self.tools)
        os.mkdir(self.scratch)
        for tool in TOOLS:
            path = os.path.join(self.tools, tool)
            with open(path, "w") as out:
                out.write("#!/bin/sh\necho \"%s $*\" >> %s\n" % (tool, self.calls))
            os.chmod(path, stat.S_IRWXU)

    def write(self, name, text):
        path = os.path.join(self.work, name)
        with open(path, "w") as out:
            out.write(text)
        return path

    def plan(self, *args):
        env = dict(os.environ, PATH=self.tools, TMPDIR=self.scratch)
        env.pop("NOTIFY_SOCKET", None)
        return subprocess.run(harness.run_prefix() + [harness.CTL_PATH, "plan"] + list(args), capture_output=True,
                              text=True, timeout=60, env=env)

    def assert_nothing_touched(self):
        self.assertFalse(os.path.exists(self.calls), "a stand-in was called")
        self.assertEqual(os.listdir(self.scratch), [])

    def test_from_nothing_is_the_first_start(self):
        to = self.write("to.conf", config_text("eth0eth1", "frame", "dhcp", "static 10.1.0.2 255.255.255.0 0.0.0.0"))
        result = self.plan(to, "--status-dir", os.path.join(self.work, "no-daemon"))
        self.assertEqual(result.returncode, 0, result)
        lines = unwrapped(result.stdout).splitlines()
        self.assertEqual(lines[0], "Plan from nothing (no daemon runs: its first start) to %s (nothing run):" % to)
        self.assertEqual(lines[1:4], ["$ ip link set dev lo up", "$ ip link set dev eth1 down",
                                      "$ ip link set dev eth1 up"])
        for expected in ("$ ip link del name br0", "$ arptables -F", "$ iptables -F",
                         "$ udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script",
                         "$ ip addr add 10.1.0.2/255.255.255.0 dev veth3",
                         "INFO SetEthernetPhyMode: Using ETH PHY type 4, RGMII to SGMII"):
            self.assertIn(expected, lines)
        self.assertTrue(all(len(line) <= 80 for line in result.stdout.splitlines()), result.stdout)
        self.assert_nothing_touched()

    def test_from_a_named_configuration(self):
        before = self.write("from.conf", PREVIOUS)
        after = self.write("to.conf", NEW)
        result = self.plan(after, "--from", before)
        self.assertEqual(result.returncode, 0, result)
        lines = unwrapped(result.stdout).splitlines()
        self.assertEqual(lines[0], "Plan from the configuration %s to %s (nothing run):" % (before, after))
        self.assertIn("$ ip route add default via 10.9.0.1 dev veth1 metric 10", lines)
        self.assert_nothing_touched()

    def test_an_unusable_running_configuration_is_planned_from_nothing(self):
        before = self.write("from.conf", UNUSABLE)
        after = self.write("to.conf", NEW)
        result = self.plan(after, "--from", before)
        self.assertEqual(result.returncode, 0, result)
        lines = unwrapped(result.stdout).splitlines()
        self.assertEqual(lines[0], "Plan from the configuration %s (not usable: planned from nothing) to %s "
                                   "(nothing run):" % (before, after))
        self.assertEqual(lines[1], "$ ip link set dev lo up")
        self.assert_nothing_touched()

    def test_an_unusable_file_prints_the_check(self):
        path = self.write("bad.conf", UNUSABLE)
        result = self.plan(path, "--status-dir", self.work)
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("usable: no", result.stdout)
        self.assertNotIn("Plan from", result.stdout)
        self.assert_nothing_touched()

    def test_an_unreadable_file_and_a_wrong_command_line(self):
        result = self.plan(os.path.join(self.work, "missing.conf"))
        self.assertEqual(result.returncode, 2, result)
        self.assertIn("cannot read", result.stderr)
        for args in ([], ["--from"], ["a.conf", "b.conf"], ["a.conf", "--bogus"]):
            result = self.plan(*args)
            self.assertEqual(result.returncode, 2, (args, result))
            self.assertIn("Usage: tessel-networkctl", result.stderr)
        self.assert_nothing_touched()


if __name__ == "__main__":
    unittest.main()
