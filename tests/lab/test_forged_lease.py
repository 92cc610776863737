#!/usr/bin/env python3
"""A local user's forged leases on the simulated device: with veth1 holding its
lease from the real DHCP server, an unprivileged user (nobody) writes a lease
file of its own choosing, links the lease path to a lease-shaped file of root's,
and puts a FIFO there. None of it changes veth1's address or the default routes,
the daemon names each one in a warning, and the next real lease is still taken up."""
import re

from labtest import PEER1_ADDR, LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.inotify import IN_MOVED_FROM, IN_MOVED_TO
from tesselkit.waiting import wait_until

AS_NOBODY = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
LEASE_PATH = "/tmp/dhcp_veth1.txt"
LEASE_FILE = "dhcp_veth1.txt"
FORGED = "veth1 10.66.6.6 255.0.0.0\n10.66.6.1\n"
IGNORED = "Ignoring DHCP lease file " + LEASE_PATH + ": "


class ForgedLeaseTest(LabTestCase):
    def state(self):
        return self.lab.addresses("veth1"), self.lab.default_routes()

    def plant(self, why, *shell_lines, user=AS_NOBODY):
        """Plants an entry at the lease path on the device and waits for the daemon's warning."""
        count = self.lab.daemon_log().count(IGNORED + why)
        with self.lab.watch_tmp() as watch:
            self.lab.device(*(user + ["sh", "-c", "\n".join(shell_lines)]))
            wait_until(lambda: watch.events(IN_MOVED_FROM, LEASE_FILE), "the daemon to take the planted entry", 5)
        wait_until(lambda: self.lab.daemon_log().count(IGNORED + why) > count, "the warning: " + why, 5)
        self.lab.wait_for_cycles(1)

    def test_forged_leases_change_nothing_on_the_interfaces(self):
        self.lab.start(TWO_PORT_CONFIG)
        lease = self.lab.wait_for_lease()
        self.lab.wait_for_first_cycle()
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        before = self.state()
        mark = len(self.lab.daemon_log())

        self.plant("owned by user 65534", "printf '%s' '" + FORGED + "' > " + LEASE_PATH)
        self.assertEqual(before, self.state())

        # A lease-shaped file of root's, private to root, and a link to it by nobody.
        self.lab.device("sh", "-c", "printf '%s' '" + FORGED + "' > /tmp/roots-lease && chmod 600 /tmp/roots-lease")
        self.plant("a symbolic link", "ln -s /tmp/roots-lease " + LEASE_PATH)
        self.assertEqual(before, self.state())
        self.assertEqual(FORGED, self.lab.device_file("/tmp/roots-lease"))

        self.plant("a FIFO", "mkfifo " + LEASE_PATH)
        self.assertEqual(before, self.state())

        log = self.lab.daemon_log_since(mark)
        self.assertNotIn("10.66.6", log)
        self.assertNotIn("New DHCP lease", log)
        self.assertNotIn("No DHCP lease", log)
        warnings = re.findall(r" WARN \S+ CheckForNewDhcpAddress: (.*)", log)
        self.assertEqual([IGNORED + "owned by user 65534", IGNORED + "a symbolic link", IGNORED + "a FIFO"], warnings)

        # The real client's next lease file is still read: a renewal repeats the lease.
        client = str(list(self.lab.udhcpc_clients())[0])
        with self.lab.watch_tmp() as watch:
            self.lab.device("kill", "-USR1", client)
            wait_until(lambda: watch.events(IN_MOVED_TO, LEASE_FILE), "the script to report the renewal", 10)
            wait_until(lambda: watch.events(IN_MOVED_FROM, LEASE_FILE), "the daemon to take the renewal", 5)
        self.assertEqual(lease, self.lab.lease_address())
        self.assertEqual(before, self.state())


if __name__ == "__main__":
    main()
