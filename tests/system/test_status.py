"""The status document (/run/tessel-networkd/status.json in the daemon's private /run)
and tessel-networkctl's view of it after each event: start-up, static addressing, a
lease and its loss, eth0 down and back, an unusable file, a failed command and its
recovery, an isolation that cannot be looked at, and the daemon stopped. Cycles are
gated (Sandbox.use_config_pipe), so each check sees the document of a pass that is
over."""

import datetime
import json
import os
import re
import signal
import stat
import time

import harness
from expected_commands import (BRIDGE_ETH0ETH1, ETH1_BLOCK, ETH1_BLOCKED, ETH1_LIFT, ISOLATION_COMPLETE, VETH0_BLOCK,
                               VETH0_BLOCKED, VETH0_LIFT)
from tesselkit import namespaces
from tesselkit.namespaces import real_tool
from tesselkit.device import config_text

TWO_PORT_STATIC = config_text("eth0eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                              "static 10.1.0.2 255.255.255.0 0.0.0.0")

TWO_PORT_DHCP = config_text("eth0eth1", "frame", "dhcp", "static 10.1.0.2 255.255.255.0 0.0.0.0")

BAD_MASK = config_text("eth0eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1", "static 10.1.0.2 banana 0.0.0.0")

NO_VETH3 = """bridge eth0eth1
phy frame
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
"""

ONE_PORT_STATIC = config_text("eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                              "static 10.1.0.2 255.255.255.0 0.0.0.0")

ISO_TIME = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d$")
HEALTHY_WORK = {"failing": False, "failures": 0, "last_failure": None, "recovered_at": None, "outside_changes": 0,
                "last_outside_change": None}
NOT_REQUIRED = {"required": False, "in_force": False, "verified_at": None, "problem": None, "partial": None}
PHY_FILE = "/tmp/marvell-phy-0-port"
LISTING_REFUSED = "the link-layer rules cannot be listed (exit status 1)"


def widest(text):
    """The widest line of `text`, in characters."""
    return max((len(line) for line in text.split("\n")), default=0)


class StatusTest(harness.DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.sandbox.use_config_pipe()
        self.ip = real_tool("ip")

    # --- helpers ---------------------------------------------------------------------

    def start(self):
        """The daemon with a real eth0 that is up, its start-up done, and a plain file in its
        private /tmp standing in for the PHY driver's, so that the PHY mode is in force."""
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", PHY_FILE],
                                   interfaces=["eth0"], up=["eth0"])
        daemon.wait_for_config_read()
        return daemon

    def document(self):
        document = self.sandbox.status()
        self.assertIsNotNone(document, "no status document at " + self.sandbox.status_path())
        return document

    def interface(self, document, name):
        found = [iface for iface in document["interfaces"] if iface["name"] == name]
        self.assertEqual(len(found), 1, document["interfaces"])
        return found[0]

    def ctl_status(self, daemon, expected_exit):
        """`tessel-networkctl status` on the device: checks its exit status; returns the table."""
        result = daemon.ctl("status")
        self.assertEqual(result.returncode, expected_exit, result.stdout + result.stderr)
        self.assertNotIn("\033", result.stdout, "colour without a terminal")
        # A serial console's width, whatever the state.
        self.assertLessEqual(widest(result.stdout), 80, result.stdout)
        return result.stdout

    def ctl_json(self, daemon, expected_exit):
        """`tessel-networkctl status --json`: the document exactly as the daemon wrote it."""
        result = daemon.ctl("status", "--json")
        self.assertEqual(result.returncode, expected_exit, result.stderr)
        with open(self.sandbox.status_path()) as document:
            self.assertEqual(result.stdout, document.read())
        return json.loads(result.stdout)

    def namespace_pid(self, host_pid):
        with open("/proc/%d/status" % host_pid) as status:
            return int([line.split()[-1] for line in status if line.startswith("NSpid:")][0])

    def recent(self, document, field):
        """A time of the document: ISO 8601 with the zone, and within the last two minutes."""
        text = document[field]
        self.assertRegex(text, ISO_TIME)
        age = time.time() - datetime.datetime.fromisoformat(text).timestamp()
        self.assertTrue(-2 <= age <= 120, "%s is %g s old" % (text, age))
        return text

    def wait_for_eth0(self, daemon, running):
        def shown():
            line = daemon.ns_run([self.ip, "-o", "link", "show", "eth0"])
            return (" state UP " in line) == running

        harness.wait_until(shown, "eth0 to be %s" % ("running" if running else "down"))

    # --- the tests -------------------------------------------------------------------

    def test_start_up_and_static_addressing(self):
        daemon = self.start()
        # Written once the start-up commands ran, before the first read of the file.
        document = self.document()
        self.assertEqual(stat.S_IMODE(os.stat(self.sandbox.status_dir()).st_mode), 0o755)
        self.assertEqual(stat.S_IMODE(os.stat(self.sandbox.status_path()).st_mode), 0o644)
        self.assertEqual(document["schema"], 1)
        self.assertRegex(document["daemon"]["version"], r"^\d+\.\d+\.\d+$")
        self.assertEqual(document["daemon"]["pid"], self.namespace_pid(daemon.pid))
        self.recent(document["daemon"], "started")
        self.assertEqual(document["configuration"], {
            "path": self.sandbox.config_path, "read": False, "usable": False, "problems": [],
            "bridge_mode": None, "phy_mode": None, "last_usable_supervised": False})
        self.assertIsNone(document["bridge_mode"])
        self.assertEqual(document["isolation"], NOT_REQUIRED)
        self.assertEqual(self.interface(document, "veth1")["address"], None)
        table = self.ctl_status(daemon, 1)
        self.assertIn("veth1 has no address in force", table)

        daemon.run_cycle(TWO_PORT_STATIC)
        document = self.document()
        self.assertEqual(document["configuration"], {
            "path": self.sandbox.config_path, "read": True, "usable": True, "problems": [],
            "bridge_mode": "eth0eth1", "phy_mode": "frame", "last_usable_supervised": False})
        self.assertEqual((document["bridge_mode"], document["phy_mode"]), ("eth0eth1", "frame"))
        self.assertEqual(document["eth0"], {"used": True, "link": "up", "recoveries": 0, "last_recovery": None,
                                            "streak": None})
        isolation = document["isolation"]
        self.recent(isolation, "verified_at")
        self.assertEqual(isolation, {"required": True, "in_force": True, "verified_at": isolation["verified_at"],
                                     "problem": None, "partial": None})
        self.assertEqual(document["interfaces"], [
            {"name": "veth1", "addressing": "static",
             "requested": {"address": "10.0.0.2", "mask": "255.255.255.0", "gateway": "10.0.0.1"},
             "address": "10.0.0.2", "mask": "255.255.255.0", "gateway": "10.0.0.1", "metric": 10,
             "from_dhcp": False, "lease_at": None, "lease_server": None,
             "dhcp_client": {"pid": None, "starts": 0},
             "work": HEALTHY_WORK},
            {"name": "veth3", "addressing": "static",
             "requested": {"address": "10.1.0.2", "mask": "255.255.255.0", "gateway": None},
             "address": "10.1.0.2", "mask": "255.255.255.0", "gateway": None, "metric": 100,
             "from_dhcp": False, "lease_at": None, "lease_server": None,
             "dhcp_client": {"pid": None, "starts": 0},
             "work": HEALTHY_WORK},
        ])
        self.assertEqual(document["work"], {name: HEALTHY_WORK for name in
                                            ("startup", "bridge", "registers", "phy", "veth1", "veth3", "isolation",
                                             "links", "ports", "macs", "eth0_port")})
        table = self.ctl_status(daemon, 0)
        self.assertRegex(table, r"State: +healthy\n")
        self.assertIn("\nveth1:          static 10.0.0.2/24 via 10.0.0.1, metric 10\n"
                      "veth3:          static 10.1.0.2/24, no gateway, metric 100\n", table)
        self.assertEqual(self.ctl_json(daemon, 0), document)

        # Passes that change nothing leave the file alone: not even rewritten.
        before = os.stat(self.sandbox.status_path())
        daemon.run_cycle(TWO_PORT_STATIC, 3)
        after = os.stat(self.sandbox.status_path())
        self.assertEqual((before.st_ino, before.st_mtime_ns), (after.st_ino, after.st_mtime_ns))

    def test_a_lease_then_its_loss(self):
        # The client stays, as a real one does: the daemon finds it and keeps its pid.
        self.sandbox.set_linger("udhcpc")
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_DHCP)
        veth1 = self.interface(self.document(), "veth1")
        self.assertEqual((veth1["addressing"], veth1["requested"], veth1["address"], veth1["from_dhcp"]),
                         ("dhcp", None, None, False))
        self.assertEqual(veth1["dhcp_client"]["starts"], 1)

        # The client goes to the background a moment after its start; the daemon's
        # check for it, every few seconds, finds it if its start did not.
        def client_known():
            if self.interface(self.document(), "veth1")["dhcp_client"]["pid"] is None:
                daemon.run_cycle(TWO_PORT_DHCP)
                return None
            return True

        harness.wait_until(client_known, "the DHCP client's pid in the document", timeout=15)
        clients = [inside for _, inside, args in namespaces.without_forked_copies(
            [entry for entry in namespaces.processes_in_pid_namespace_of(daemon.pid)
             if entry[2][0] == "udhcpc" and "veth1" in entry[2]])]
        self.assertEqual(len(clients), 1, daemon.namespace_processes())
        self.assertEqual(self.interface(self.document(), "veth1")["dhcp_client"], {"pid": clients[0], "starts": 1})
        self.assertIn("veth1 has no address in force", self.ctl_status(daemon, 1))

        self.sandbox.write_lease("veth1", "veth1 192.168.5.20 255.255.255.0 192.168.5.254\n192.168.5.1\n")
        daemon.run_cycle(TWO_PORT_DHCP)
        veth1 = self.interface(self.document(), "veth1")
        self.assertEqual((veth1["address"], veth1["mask"], veth1["gateway"], veth1["metric"], veth1["from_dhcp"],
                          veth1["lease_server"]),
                         ("192.168.5.20", "255.255.255.0", "192.168.5.1", 10, True, "192.168.5.254"))
        self.recent(veth1, "lease_at")
        self.assertEqual(veth1["dhcp_client"]["starts"], 1)
        table = self.ctl_status(daemon, 0)
        self.assertRegex(table, r"\nveth1: +dhcp 192\.168\.5\.20/24 via 192\.168\.5\.1, metric 10\n +lease from 192\.168\.5\.254, taken "
                                + re.escape(veth1["lease_at"][11:19]) + r", \d+s old\n +DHCP client pid %d, 1 started\n"
                                % veth1["dhcp_client"]["pid"])

        self.sandbox.write_lease("veth1", "veth1 0.0.0.0 0.0.0.0\n")
        daemon.run_cycle(TWO_PORT_DHCP)
        veth1 = self.interface(self.document(), "veth1")
        self.assertEqual((veth1["address"], veth1["gateway"], veth1["from_dhcp"], veth1["lease_at"],
                          veth1["lease_server"]), (None, None, False, None, None))
        self.assertIn("veth1 has no address in force", self.ctl_status(daemon, 1))

    def test_eth0_down_and_back(self):
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC)
        daemon.ns_run([self.ip, "link", "set", "eth0", "down"])
        self.wait_for_eth0(daemon, False)
        daemon.run_cycle(TWO_PORT_STATIC)
        eth0 = self.document()["eth0"]
        self.assertEqual((eth0["used"], eth0["link"], eth0["recoveries"]), (True, "down", 1))
        self.recent(eth0, "last_recovery")
        self.assertEqual(eth0["streak"]["recoveries"], 1)
        self.recent(eth0["streak"], "since")
        table = self.ctl_status(daemon, 1)
        self.assertIn("eth0's link is down", table)
        self.assertRegex(table, r"eth0: +down, 1 recoveries, last ")

        # The daemon's bounce is a stand-in's: the link comes back from outside.
        daemon.ns_run([self.ip, "link", "set", "eth0", "up"])
        self.wait_for_eth0(daemon, True)
        daemon.run_cycle(TWO_PORT_STATIC)
        again = self.document()["eth0"]
        self.assertEqual(again, dict(eth0, link="up"))
        self.assertRegex(self.ctl_status(daemon, 0), r"eth0: +up, 1 recoveries, last ")

    def test_an_unusable_file_says_why_in_the_logs_words_and_keeps_what_is_in_force(self):
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC)
        logged = len(daemon.entries())
        daemon.run_cycle(BAD_MASK)
        errors = [entry.message for entry in daemon.entries()[logged:] if entry.level == "ERROR"]
        self.assertEqual(errors, ["Invalid static subnet mask veth3"])
        document = self.document()
        self.assertEqual(document["configuration"], {
            "path": self.sandbox.config_path, "read": True, "usable": False, "problems": errors,
            "bridge_mode": None, "phy_mode": None, "last_usable_supervised": True})
        self.assertEqual(document["bridge_mode"], "eth0eth1")
        self.assertEqual(self.interface(document, "veth3")["address"], "10.1.0.2")
        table = self.ctl_status(daemon, 1)
        self.assertRegex(table, r"\(not usable, keeping the last usable configuration, still\n +supervised\)\n")
        self.assertRegex(table, r"\n +Invalid static subnet mask veth3\n")

        # A missing line is not logged, but it is the reason.
        daemon.run_cycle(NO_VETH3)
        self.assertEqual(self.document()["configuration"]["problems"], ["No veth3 line in config file"])

        daemon.run_cycle(TWO_PORT_STATIC)
        self.assertEqual(self.document()["configuration"]["problems"], [])
        self.ctl_status(daemon, 0)

    def test_a_failed_command_and_its_recovery(self):
        self.sandbox.set_status("ip", 1)
        self.sandbox.set_only("ip", "link add name br0 type bridge")
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC)
        document = self.document()
        bridge = document["work"]["bridge"]
        self.assertEqual((bridge["failing"], bridge["failures"], bridge["recovered_at"]), (True, 1, None))
        self.assertEqual({key: bridge["last_failure"][key] for key in ("command", "outcome")},
                         {"command": "ip link add name br0 type bridge", "outcome": "exit status 1"})
        failed_at = self.recent(bridge["last_failure"], "at")
        self.assertIsNone(document["bridge_mode"])
        # Asked for and not built: required, and not in force.
        self.assertEqual(document["isolation"], {"required": True, "in_force": False, "verified_at": None,
                                                 "problem": "the bridge build stopped at: "
                                                            "ip link add name br0 type bridge", "partial": None})
        table = self.ctl_status(daemon, 1)
        self.assertRegex(table, r"\nFirst cause: +bridge build failing \(ip link add name br0 type bridge: exit\n"
                                r" +status 1\)\n")
        self.assertIn("bridge build failing (ip link add name br0 type bridge: exit status 1)\n",
                      daemon.ctl("status", "--full").stdout)
        # The last failure wrapped under its column.
        self.assertRegex(table, r"\nbridge +failing +1 +- +" + re.escape(failed_at[11:19]) +
                         r" ip link add name br0 type\s+bridge: exit status 1\n")

        self.sandbox.set_status("ip", 0)

        def recovered():
            daemon.run_cycle(TWO_PORT_STATIC)
            return not self.document()["work"]["bridge"]["failing"]

        # Tried again after 1, 2, 4 s: a few passes.
        harness.wait_until(recovered, "the bridge build to recover", timeout=30)
        document = self.document()
        bridge = document["work"]["bridge"]
        self.assertEqual(bridge["last_failure"]["command"], "ip link add name br0 type bridge")
        self.recent(bridge, "recovered_at")
        self.assertEqual(document["bridge_mode"], "eth0eth1")
        self.assertTrue(any(message.startswith("Recovered bridge setup after ") for message in daemon.messages()))
        table = self.ctl_status(daemon, 0)
        self.assertRegex(table, r"\nbridge +recovered +0 +" + re.escape(bridge["recovered_at"][11:19]) + " +" +
                         re.escape(bridge["last_failure"]["at"][11:19]) +
                         r" ip link add name br0 type\s+bridge: exit status 1\n")

    def test_an_isolation_that_cannot_be_looked_at_is_shown_not_in_force_and_eth1_stays_up(self):
        daemon = self.start()
        # One port first, so the PHY mode is in force and the two-port pass below
        # bounces nothing of eth1 itself.
        daemon.run_cycle(ONE_PORT_STATIC)
        self.assertEqual(self.document()["isolation"], NOT_REQUIRED)
        # The look's listing of the link-layer rules is refused; everything else works.
        self.sandbox.set_only("ebtables", "-L")
        self.sandbox.set_status("ebtables", 1)
        self.sandbox.clear_commands()
        logged = len(daemon.entries())
        daemon.run_cycle(TWO_PORT_STATIC)
        commands = self.sandbox.commands()
        # The build completes: every rule went in, and a listing that cannot run
        # is no reason to keep eth1 down or the blocks on.
        built = ETH1_BLOCK + VETH0_BLOCK + BRIDGE_ETH0ETH1 + ISOLATION_COMPLETE + VETH0_LIFT + ETH1_LIFT
        self.assertEqual(commands[:len(built)], built)
        self.assertNotIn("ip link set eth1 down", commands[len(built):])
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), [])
        entries = [(e.level, e.function, e.message) for e in daemon.entries()[logged:]]
        self.assertIn(("WARN", "NoteUnverified", "Isolation not looked at (" + LISTING_REFUSED + "); looking again in 1 s"),
                      entries)
        self.assertNotIn("Keeping eth1 down", " ".join(message for _, _, message in entries))
        self.assertNotIn("Isolation in force", " ".join(message for _, _, message in entries))

        # Not shown in force, as nothing found it so.
        document = self.document()
        self.assertEqual(document["isolation"], {"required": True, "in_force": False, "verified_at": None,
                                                 "problem": "not looked at yet: " + LISTING_REFUSED,
                                                 "partial": None})
        self.assertFalse(document["work"]["bridge"]["failing"])
        self.assertEqual(document["bridge_mode"], "eth0eth1")
        self.ctl_status(daemon, 1)

        # Once the listing works the next look finds the isolation in force.
        self.sandbox.set_only("ebtables", None)
        self.sandbox.set_status("ebtables", 0)

        def in_force():
            daemon.run_cycle(TWO_PORT_STATIC)
            return self.document()["isolation"]["in_force"]

        harness.wait_until(in_force, "the isolation in force again", timeout=30)
        isolation = self.document()["isolation"]
        self.recent(isolation, "verified_at")
        self.assertIsNone(isolation["problem"])
        # The build's own "ip link set eth1 down" alone.
        self.assertEqual(self.sandbox.commands().count("ip link set eth1 down"), 1)
        self.ctl_status(daemon, 0)

    def test_eth1s_link_follows_the_kernels_reports_of_it(self):
        # eth1's link is read for the document only after the kernel reported
        # an owned link: each change of it is shown all the same.
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", PHY_FILE],
                                   interfaces=["eth0", "eth1"], up=["eth0", "eth1"])
        daemon.wait_for_config_read()

        def shown_after(command, link):
            if command:
                daemon.ns_run([self.ip] + command)

            def after_a_pass():
                daemon.run_cycle(TWO_PORT_STATIC)
                return self.document()["eth1"] == {"link": link}

            harness.wait_until(after_a_pass, "eth1 shown as %s" % link, timeout=10)

        shown_after(None, "up")
        shown_after(["link", "set", "eth1", "down"], "down")
        shown_after(["link", "set", "eth1", "up"], "up")
        shown_after(["link", "del", "eth1"], None)

    def test_the_table_fits_a_console_healthy_and_degraded_and_full_shows_it_whole(self):
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC)
        healthy = self.ctl_status(daemon, 0)
        self.assertLessEqual(widest(healthy), 80, healthy)
        self.assertRegex(healthy, r"\neth1: +link (up|down|not known)\n")
        self.assertNotIn("First cause:", healthy)

        # Degraded twice over: eth0's link down, and then a file the daemon cannot use.
        daemon.ns_run([self.ip, "link", "set", "eth0", "down"])
        self.wait_for_eth0(daemon, False)
        daemon.run_cycle(TWO_PORT_STATIC)
        daemon.run_cycle(BAD_MASK)
        degraded = self.ctl_status(daemon, 1)
        self.assertLessEqual(widest(degraded), 80, degraded)
        # The file first, what to do about it, then the rest.
        self.assertRegex(degraded, r"\nState: +degraded, 2 causes\nFirst cause: +configuration file\n(?: {18}.*\n)*"
                                   r"What to do: +run tessel-networkctl check .*\nAlso: +eth0's link is down\n")
        full = daemon.ctl("status", "--full")
        self.assertEqual(full.returncode, 1, full.stderr)
        self.assertIn("First cause:    configuration file %s is not usable\n" % self.sandbox.config_path, full.stdout)
        self.assertIn("What to do:     run tessel-networkctl check %s and fix what it names\n"
                      % self.sandbox.config_path, full.stdout)

    def test_the_daemon_stopped(self):
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC)
        self.ctl_status(daemon, 0)
        daemon.send(signal.SIGTERM)
        daemon.feed_config(TWO_PORT_STATIC)  # the stop is taken in the pause after this pass
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        with open(self.sandbox.status_path()) as document:
            text = document.read()

        result = self.sandbox.ctl_after_the_daemon("status")
        self.assertEqual(result.returncode, 3, result.stdout + result.stderr)
        self.assertRegex(result.stdout, r"State: +not running \(what it last reported follows\)\n")
        self.assertIn("10.0.0.2", result.stdout)
        result = self.sandbox.ctl_after_the_daemon("status", "--json")
        self.assertEqual((result.returncode, result.stdout), (3, text))

        os.remove(self.sandbox.status_path())
        result = self.sandbox.ctl_after_the_daemon("status")
        self.assertEqual(result.returncode, 3)
        self.assertIn("tessel-networkd is not running: no status document at", result.stdout)
        result = self.sandbox.ctl_after_the_daemon("status", "--json")
        self.assertEqual((result.returncode, json.loads(result.stdout)), (3, None))

    def test_another_status_directory(self):
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "-s", "/run/elsewhere"])
        daemon.run_cycle(TWO_PORT_STATIC)
        self.assertIsNone(self.sandbox.status())
        with open(self.sandbox.path("run", "elsewhere", "status.json")) as document:
            self.assertEqual(json.load(document)["configuration"]["usable"], True)
        self.assertEqual(daemon.ctl("status", "--status-dir", "/run/elsewhere").returncode, 1)  # eth0 is missing
        self.assertEqual(daemon.ctl("status").returncode, 3)

    def test_a_status_directory_that_cannot_be_used_is_reported_once_and_the_cycle_goes_on(self):
        # Something else holds the name: every write fails.
        with open(self.sandbox.status_dir(), "w") as blocker:
            blocker.write("not a directory\n")
        daemon = self.start()
        daemon.run_cycle(TWO_PORT_STATIC, 3)
        warnings = [(entry.level, entry.message) for entry in daemon.entries() if "status file" in entry.message]
        self.assertEqual(warnings, [("WARN", "Unable to write status file /run/tessel-networkd/status.json: "
                                             "/run/tessel-networkd is not a directory")])
        self.assertIn("ip addr add 10.0.0.2/255.255.255.0 dev veth1", self.sandbox.commands())
        # Once the name is free the document comes, though nothing changed.
        os.remove(self.sandbox.status_dir())
        daemon.run_cycle(TWO_PORT_STATIC)
        self.assertEqual(self.document()["interfaces"][0]["address"], "10.0.0.2")
        self.assertIn("Status file /run/tessel-networkd/status.json written again", daemon.messages())

if __name__ == "__main__":
    harness.main()
