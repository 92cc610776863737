"""The harness itself: stand-ins, the daemon's private /tmp and /proc/cmdline, real
interfaces in its own network namespace. A shell script takes the daemon's place."""

import os
import signal
import subprocess
import tempfile
import time

import harness
from tesselkit.namespaces import real_tool

# Runs what a daemon would, through the stand-ins, and reports what it saw in /tmp.
PROBE = r"""#!/bin/sh
trap 'echo "probe stopped"; exit 5' TERM
ip link set dev lo up
bridge link
udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script
devmem 0xFF200088 32 0x3 > /tmp/devmem.out
cat /proc/cmdline > /tmp/cmdline.seen
/usr/sbin/ip -o link show > /tmp/links.seen 2>&1 || /sbin/ip -o link show > /tmp/links.seen 2>&1
echo "probe ready"
while :; do sleep 0.05; done
"""


# Reads its configuration file (its second argument) three times, as the daemon's cycles
# would, with a stand-in call after each read.
PIPE_PROBE = r"""#!/bin/sh
for n in 1 2 3; do
    cat "$2" > /tmp/read.$n
    ip link set dev read$n up
    sleep 0.2
done
while :; do sleep 0.05; done
"""


class ProbeTestCase(harness.DaemonTestCase):
    """A test whose sandbox starts a probe script in the daemon's place."""

    PROBE = PROBE

    def setUp(self):
        probe = tempfile.NamedTemporaryFile("w", dir="/var/tmp", prefix="tessel-probe-", delete=False)
        probe.write(self.PROBE)
        probe.close()
        os.chmod(probe.name, 0o755)
        self.addCleanup(os.remove, probe.name)
        harness_daemon = harness.DAEMON_PATH
        harness.DAEMON_PATH = probe.name
        # The probe is a script of this machine, even in a cross build's tests.
        self.addCleanup(setattr, harness, "EMULATOR", harness.EMULATOR)
        harness.EMULATOR = []
        try:
            super().setUp()
        finally:
            harness.DAEMON_PATH = harness_daemon


class HarnessTest(ProbeTestCase):
    def test_stand_ins_record_in_order_and_follow_their_control_files(self):
        self.sandbox.set_delay("bridge", 0.5, once=True)
        self.sandbox.set_output("devmem", "0x00000003\n")
        self.sandbox.set_linger("udhcpc")
        self.sandbox.record_times("devmem")
        started = time.time()
        probe = self.start_daemon(args=[], interfaces=["eth0", "eth1"])
        harness.wait_until(lambda: "probe ready" in probe.output(), "the probe; output:\n" + probe.output())
        self.assertGreaterEqual(time.time() - started, 0.5)
        [(stamp, command)] = self.sandbox.timed_commands()
        self.assertEqual(command, "devmem 0xFF200088 32 0x3")
        self.assertTrue(started + 0.5 <= stamp <= time.time(), (started, stamp))
        self.assertEqual(self.sandbox.commands(), [
            "ip link set dev lo up",
            "bridge link",
            "udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script",
            "devmem 0xFF200088 32 0x3",
        ])
        self.assertFalse(os.path.exists(self.sandbox.path("delay", "bridge.once")))  # used up
        with open(self.sandbox.tmp_path("devmem.out")) as out:
            self.assertEqual(out.read(), "0x00000003\n")
        with open(self.sandbox.tmp_path("cmdline.seen")) as cmdline:
            self.assertEqual(cmdline.read(), harness.CMDLINE)
        with open(self.sandbox.tmp_path("links.seen")) as links:
            names = sorted(line.split(":")[1].strip().split("@")[0] for line in links)
        self.assertEqual(names, ["eth0", "eth0-peer", "eth1", "eth1-peer", "lo"])

        # The lingering client runs under its bare name, found again as a DHCP client would be.
        def lingering():
            for pid in filter(str.isdigit, os.listdir("/proc")):
                try:
                    with open("/proc/%s/cmdline" % pid, "rb") as cmdline:
                        args = cmdline.read().split(b"\0")
                except OSError:
                    continue
                if args[0] == b"udhcpc" and self.sandbox.work.encode() in b" ".join(args):
                    return int(pid)
            return None

        client = harness.wait_until(lingering, "the lingering udhcpc stand-in")
        self.assertNotEqual(os.readlink("/proc/%d/ns/net" % client), os.readlink("/proc/self/ns/net"))
        os.kill(client, signal.SIGTERM)
        harness.wait_until(self.sandbox.signals, "the stand-in's record of SIGTERM")
        self.assertEqual(self.sandbox.signals(),
                         ["TERM udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script"])

        probe.send(signal.SIGTERM)
        self.assertEqual(probe.wait_exit(), 5, probe.output())

    def test_ns_run_reaches_the_daemons_interfaces_only(self):
        probe = self.start_daemon(args=[], interfaces=["eth0"])
        harness.wait_until(lambda: "probe ready" in probe.output(), "the probe")
        ip = real_tool("ip")
        probe.ns_run([ip, "link", "set", "eth0", "up"])
        self.assertIn("LOWER_UP", probe.ns_run([ip, "-o", "link", "show", "eth0"]))
        probe.ns_run([ip, "link", "set", "eth0-peer", "down"])
        self.assertIn("NO-CARRIER", probe.ns_run([ip, "-o", "link", "show", "eth0"]))
        ours = subprocess.run([ip, "-o", "link", "show"], stdout=subprocess.PIPE, text=True).stdout
        self.assertNotIn("eth0-peer", ours)
        probe.kill()
        self.assertEqual(probe.wait_exit(), -signal.SIGKILL)



class ConfigPipeTest(ProbeTestCase):
    PROBE = PIPE_PROBE

    def test_each_read_of_the_config_pipe_waits_for_its_text_and_ends_a_cycle(self):
        self.sandbox.use_config_pipe()
        probe = self.start_daemon()
        probe.run_cycle("first\n")
        self.assertEqual(self.sandbox.commands(), ["ip link set dev read1 up"])
        probe.feed_config("second\n")
        probe.feed_config("third\n")  # the last read: no fourth to wait for
        self.assertEqual(self.sandbox.wait_for_commands(3), [
            "ip link set dev read1 up",
            "ip link set dev read2 up",
            "ip link set dev read3 up",
        ])
        texts = []
        for n in (1, 2, 3):
            with open(self.sandbox.tmp_path("read.%d" % n)) as read:
                texts.append(read.read())
        self.assertEqual(texts, ["first\n", "second\n", "third\n"])

    def test_leftover_clients_have_exactly_the_command_line_of_the_daemons_own(self):
        probe = self.start_daemon(setup=self.sandbox.leftover_clients("veth1", "veth3"))
        harness.wait_until(lambda: len(self.sandbox.client_pids()) == 2, "the two clients")
        clients = sorted(args for args in probe.namespace_processes() if args[0] == "udhcpc")
        self.assertEqual(clients, [
            ["udhcpc", "-i", "veth1", "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script"],
            ["udhcpc", "-i", "veth3", "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script"],
        ])
        # Started before the daemon's stand-in, with their own pids in its namespace.
        pids = self.sandbox.client_pids()
        self.assertEqual(len(set(pids.values())), 2)
        self.assertTrue(all(1 < pid < probe.pid for pid in pids.values()))

if __name__ == "__main__":
    harness.main()
