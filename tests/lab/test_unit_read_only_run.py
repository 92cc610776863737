#!/usr/bin/env python3
"""Both ports bridged on a device whose /run is read-only, as the shipped
systemd unit leaves it (ProtectSystem=strict), with the legacy iptables and
its default lock file /run/xtables.lock: the packaged tmpfiles entry has made
the lock file at boot, so every rule goes in and eth1 comes up. Without that
entry, iptables exits 4 ("can't open lock file /run/xtables.lock: Read-only
file system") and the build stops at "iptables -F" for good."""
import os

from labtest import ISOLATION_RULES, PEER1_ADDR, LabTestCase, main
from tesselkit import ROOT, isolation
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.waiting import wait_until

TMPFILES = os.path.join(ROOT, "dist", "tmpfiles.d", "tessel-networkd.conf")


class ReadOnlyRunTest(LabTestCase):
    IPTABLES = "unit"

    def test_two_port_build_with_the_legacy_iptables_under_a_read_only_run(self):
        # The device as the lab made it: the packaged entry's file is there, and
        # nothing else can be made in /run.
        with open(TMPFILES) as entries:
            self.assertIn("f /run/xtables.lock 0600 root root -", entries.read().splitlines())
        self.assertEqual("-rw------- /run/xtables.lock\n",
                         self.lab.device("stat", "-c", "%A %n", "/run/xtables.lock").stdout)
        refused = self.lab.device("sh", "-c", ": > /run/other.lock", check=False)
        self.assertNotEqual(0, refused.returncode)
        self.assertIn("Read-only file system", refused.stderr)
        self.assertEqual(os.path.realpath(self.lab.device("sh", "-c", "command -v iptables").stdout.strip()),
                         os.path.realpath(self.lab.device("sh", "-c", "command -v iptables-legacy").stdout.strip()))

        self.lab.start(TWO_PORT_CONFIG)
        mark = self.lab.start_mark
        self.lab.wait_for_log("INFO", "Done with bridge setup", mark, 30)
        log = self.lab.daemon_log_since(mark)
        self.assertNotIn("Command failed", log)
        self.assertNotIn("Keeping eth1 down", log)
        arp, ip = self.lab.arp_rules(), self.lab.ip_rules()
        self.assertEqual(ISOLATION_RULES["ARP"], len(arp))
        self.assertEqual(ISOLATION_RULES["IP"], len(ip))
        self.assertEqual(["eth0", "eth1", "veth0", "veth2"], self.lab.bridge_ports())
        wait_until(lambda: self.lab.link("eth1")["operstate"] == "UP", "eth1 to be up", 10)
        self.lab.wait_for_lease()
        wait_until(lambda: self.lab.addresses("veth3") == [VETH3_ADDR + "/24"], "veth3's static address", 10)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)], 10)
        # The status document went to the unit's runtime directory all the same.
        wait_until(lambda: self.lab.status_document(), "the status document", 10)
        self.assertEqual(0, isolation.check(self.lab), "isolation checks failed (see above)")


if __name__ == "__main__":
    main()
