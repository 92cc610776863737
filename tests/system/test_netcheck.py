"""tessel-netcheck on real files: usable, unusable and unreadable ones, with its
exact output and exit status; and the messages it prints against those the
running daemon logs for the same file."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import harness

NETCHECK = os.environ.get("TESSEL_NETCHECK")


def netcheck(*args):
    result = subprocess.run(harness.run_prefix() + [NETCHECK] + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            timeout=10)
    return result.returncode, result.stdout, result.stderr


class NetcheckTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="tessel-netcheck-")
        self.addCleanup(shutil.rmtree, self.work)

    def check(self, text):
        path = os.path.join(self.work, "networkd.conf")
        with open(path, "w") as out:
            out.write(text)
        return netcheck(path)

    def test_usable_file_with_both_ports(self):
        status, out, err = self.check(
            "#network settings\n"
            "bridge eth0eth1\n"
            "phy frame\n"
            "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\n"
            "veth3 dhcp\n"
            "vrx0 dhcp\n"
            "vrx1 static 192.168.1.10 255.255.255.0 0.0.0.0\n")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, (
            "bridge  eth0eth1: eth0 and eth1 in br0, second pair veth2/veth3 with the isolation rules\n"
            "phy     frame: RGMII to SGMII\n"
            "veth1   static 10.0.0.2 mask 255.255.255.0, default route via 10.0.0.1, metric 10\n"
            "veth3   dhcp, metric 100\n"
            "vrx0    dhcp (checked, not programmed)\n"
            "vrx1    static 192.168.1.10 mask 255.255.255.0, no default route (checked, not programmed)\n"
            "usable: yes, the daemon applies these settings\n"))

    def test_usable_file_with_one_port_and_problems_the_daemon_passes_over(self):
        # A bad bridge line after a good one and a bad vrx0 line are logged, yet
        # the file is usable; without a phy line the daemon starts with copper.
        status, out, err = self.check(
            "bridge eth1\n"
            "bridge eth2\n"
            "veth1 dhcp\n"
            "veth3 static 10.0.1.2 255.255.255.0 0.0.0.0\n"
            "vrx0 DHCP\n")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, (
            "ERROR line 2: Invalid bridge mode entry, expected eth0|eth1|eth0eth1\n"
            "ERROR line 5: Invalid syntax or address mode for vrx0 expected dhcp|static\n"
            "bridge  eth1: eth1 in br0\n"
            "phy     no valid line: copper when the daemon starts, else the mode it has\n"
            "veth1   dhcp, metric 10\n"
            "veth3   static 10.0.1.2 mask 255.255.255.0, no default route, metric 100 "
            "(not used in this bridge mode)\n"
            "vrx0    no valid line (not needed)\n"
            "vrx1    no valid line (not needed)\n"
            "usable: yes, the daemon applies these settings\n"))

    def test_file_without_veth3_is_unusable_and_says_why(self):
        # The daemon logs nothing for a missing line; the checker names it.
        status, out, err = self.check("bridge eth0\nphy copper\nveth1 dhcp\n")
        self.assertEqual((status, err), (1, ""))
        self.assertEqual(out, (
            "bridge  eth0: eth0 in br0\n"
            "phy     copper: RGMII to copper\n"
            "veth1   dhcp, metric 10\n"
            "veth3   no valid line (not used in this bridge mode)\n"
            "vrx0    no valid line (not needed)\n"
            "vrx1    no valid line (not needed)\n"
            "usable: no (no valid veth3 line): the daemon ignores this file and keeps what it applied last\n"))

    def test_bad_lines_are_reported_in_file_order(self):
        status, out, err = self.check(
            "bridge\n"
            " #bridge eth1x\n"
            "phy\n"
            "veth1 static 10.0.0.300 255.255.255.0 10.0.0.1\n"
            "veth3 static 10.0.1.2 255.255.255.0\n"
            "vrx1 dhcp\n"
            "vrx1\n")
        self.assertEqual((status, err), (1, ""))
        self.assertEqual(out, (
            "ERROR line 1: Invalid bridge mode line in config file\n"
            "ERROR line 2: Invalid bridge mode entry, expected eth0|eth1|eth0eth1\n"
            "WARN line 2: unknown keyword \"#bridge\", the daemon takes it as a bridge line\n"
            "ERROR line 3: Invalid bridge mode line in config file\n"
            "ERROR line 4: Invalid static IP address veth1\n"
            "ERROR line 5: Invalid syntax or address mode for veth3 expected dhcp|static\n"
            "ERROR line 7: Invalid syntax for vrx1 entry in config file\n"
            "bridge  no valid line\n"
            "phy     no valid line: copper when the daemon starts, else the mode it has\n"
            "veth1   no valid line\n"
            "veth3   no valid line\n"
            "vrx0    no valid line (not needed)\n"
            "vrx1    the last line is not valid (not needed)\n"
            "usable: no (no valid bridge line, no valid veth1 line, no valid veth3 line): "
            "the daemon ignores this file and keeps what it applied last\n"))

    def test_bad_interface_line_after_a_good_one_makes_the_file_unusable(self):
        status, out, err = self.check(
            "bridge eth0eth1\n"
            "veth1 static 10.0.0.2 255.255.255.0 10.0.0.1\n"
            "veth3 dhcp\n"
            "veth1 bogus\n")
        self.assertEqual((status, err), (1, ""))
        self.assertEqual(out, (
            "ERROR line 4: Invalid syntax or address mode for veth1 expected dhcp|static\n"
            "bridge  eth0eth1: eth0 and eth1 in br0, second pair veth2/veth3 with the isolation rules\n"
            "phy     no valid line: copper when the daemon starts, else the mode it has\n"
            "veth1   static 10.0.0.2 mask 255.255.255.0, default route via 10.0.0.1, metric 10\n"
            "veth3   dhcp, metric 100\n"
            "vrx0    no valid line (not needed)\n"
            "vrx1    no valid line (not needed)\n"
            "usable: no (the last veth1 or veth3 line is not valid): "
            "the daemon ignores this file and keeps what it applied last\n"))

    def test_what_ip_refuses_makes_the_file_unusable_and_names_its_line(self):
        # A mask that is not contiguous and a gateway outside the subnet: the
        # parser takes both, ip refuses both. vrx0 and vrx1 are never applied:
        # warned about only, as veth3 outside the two-port mode.
        status, out, err = self.check(
            "bridge eth0eth1\n"
            "veth1 static 10.0.0.2 255.0.255.0 10.0.0.1\n"
            "veth3 static 10.253.254.253 255.255.255.0 10.253.1.1\n"
            "vrx0 static 192.168.1.10 255.255.255.0 192.168.1.255\n"
            "vrx1 static 192.168.2.10 255.255.255.254 192.168.2.11\n")
        self.assertEqual((status, err), (1, ""))
        self.assertEqual(out, (
            "ERROR line 2: veth1: mask 255.0.255.0 is not contiguous, ip refuses it\n"
            "ERROR line 3: veth3: gateway 10.253.1.1 is outside 10.253.254.253/24, ip refuses it\n"
            "WARN line 4: vrx0: gateway 192.168.1.255 is the broadcast address of 192.168.1.10/24, ip refuses it\n"
            "bridge  eth0eth1: eth0 and eth1 in br0, second pair veth2/veth3 with the isolation rules\n"
            "phy     no valid line: copper when the daemon starts, else the mode it has\n"
            "veth1   static 10.0.0.2 mask 255.0.255.0, default route via 10.0.0.1, metric 10\n"
            "veth3   static 10.253.254.253 mask 255.255.255.0, default route via 10.253.1.1, metric 100\n"
            "vrx0    static 192.168.1.10 mask 255.255.255.0, default route via 192.168.1.255 "
            "(checked, not programmed)\n"
            "vrx1    static 192.168.2.10 mask 255.255.255.254, default route via 192.168.2.11 "
            "(checked, not programmed)\n"
            "usable: no (veth1: mask 255.0.255.0 is not contiguous, veth3: gateway 10.253.1.1 is outside "
            "10.253.254.253/24): ip refuses it, and the daemon would retry it forever\n"))

    def test_ip_refuses_what_the_checker_refuses(self):
        # The checker's verdicts against ip's own, in a namespace of the test's.
        cases = [("10.0.0.2", "255.0.255.0", "0.0.0.0", False),
                 ("10.0.0.2", "255.255.255.0", "10.0.1.1", False),
                 ("10.0.0.2", "255.255.255.0", "10.0.0.255", False),
                 ("10.0.0.2", "255.255.255.0", "10.0.0.1", True),
                 ("10.0.0.2", "255.255.255.0", "10.0.0.0", True),
                 ("10.0.0.2", "255.255.255.254", "10.0.0.3", True),
                 ("10.0.0.2", "0.0.0.0", "0.0.0.0", True)]
        for address, mask, gateway, good in cases:
            with self.subTest(address=address, mask=mask, gateway=gateway):
                status, out, _ = self.check("bridge eth0\nveth1 static %s %s %s\nveth3 dhcp\n" %
                                            (address, mask, gateway))
                self.assertEqual(status, 0 if good else 1, out)
                script = ("ip link add d0 type veth peer name d1 && ip link set d0 up && ip link set d1 up && "
                          "ip addr add %s/%s dev d0 && { [ %s = 0.0.0.0 ] || ip route add default via %s dev d0; }"
                          % (address, mask, gateway, gateway))
                ip = subprocess.run(["unshare", "--net", "sh", "-c", script], stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT, text=True, timeout=10)
                self.assertEqual(ip.returncode == 0, good, ip.stdout)

    def test_unknown_keywords_are_warned_about_and_the_file_stays_usable(self):
        status, out, err = self.check(
            "bridge eth1\n"
            "vethl dhcp\n"
            "   \n"
            "gateway 10.0.0.1\n"
            "mybridge eth1\n"
            "veth1 dhcp\n"
            "veth3 dhcp\n")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.splitlines()[:3], [
            'WARN line 2: unknown keyword "vethl", the daemon ignores this line',
            'WARN line 4: unknown keyword "gateway", the daemon ignores this line',
            'WARN line 5: unknown keyword "mybridge", the daemon takes it as a bridge line'])
        self.assertTrue(out.endswith("usable: yes, the daemon applies these settings\n"), out)

    def test_a_line_longer_than_the_parsers_pieces_keeps_its_number(self):
        # 300 characters: two pieces of line 2, the second one a line of no kind.
        status, out, _ = self.check("veth1 dhcp\nbridge eth1" + " " * 272 + "gateway 10.0.0.1\nveth3 dhcp\nbridge eth5\n")
        self.assertEqual(status, 0, out)
        self.assertEqual(out.splitlines()[:2], [
            'WARN line 2: unknown keyword "gateway", the daemon ignores this line',
            "ERROR line 4: Invalid bridge mode entry, expected eth0|eth1|eth0eth1"])

    def test_empty_file_is_unusable(self):
        status, out, _ = self.check("")
        self.assertEqual(status, 1)
        self.assertTrue(out.endswith(
            "usable: no (no valid bridge line, no valid veth1 line, no valid veth3 line): "
            "the daemon ignores this file and keeps what it applied last\n"), out)

    def test_missing_file_and_directory_cannot_be_read(self):
        for path in (os.path.join(self.work, "missing.conf"), self.work):
            with self.subTest(path=path):
                status, out, err = netcheck(path)
                self.assertEqual((status, err), (2, ""))
                self.assertEqual(out, "ERROR Unable to read configuration file\n" + path + ": cannot be read\n")

    def test_wrong_command_line_prints_the_usage_with_status_2(self):
        for args in ([], ["a", "b"], ["--help"]):
            with self.subTest(args=args):
                status, out, err = netcheck(*args)
                self.assertEqual((status, out), (2, ""))
                self.assertTrue(err.startswith("Usage: tessel-netcheck FILE\n"), err)


class NetcheckAgainstDaemonTest(harness.DaemonTestCase):
    def test_messages_are_those_the_daemon_logs_for_the_same_file(self):
        text = ("bridge eth3\n"
                "phy\n"
                "veth1 static 10.0.0.2 255.255.0.300 10.0.0.1\n"
                "veth3 dhcp 1 2 3\n"
                "vrx0\n")
        self.sandbox.write_config(text)
        status, out, _ = netcheck(self.sandbox.config_path)
        self.assertEqual(status, 1, out)
        # The daemon's messages, without the line each names.
        checked = [re.sub(r" line [0-9]+:", "", line) for line in out.splitlines() if line.startswith("ERROR ")]

        daemon = self.start_daemon()
        # Two cycles: the first cycle's messages are complete once the second begins.
        daemon.wait_for_message("Invalid bridge mode entry, expected eth0|eth1|eth0eth1", count=2)
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        entries = [e for e in daemon.entries() if e.function in ("ParseConfigFile", "ParseInterfaceLine")]
        # The first cycle's messages: up to where the first one comes again.
        again = [e.message for e in entries].index(entries[0].message, 1)
        logged = ["%s %s" % (e.level, e.message) for e in entries[:again]]
        self.assertEqual(checked, logged)
        self.assertEqual(len(checked), 5)


if __name__ == "__main__":
    if not NETCHECK:
        sys.exit("no checker: TESSEL_NETCHECK is not set (CTest sets it; see README)")
    harness.main()
