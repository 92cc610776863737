#!/usr/bin/env python3
"""The udhcpc script with the real BusyBox udhcpc and dnsmasq, without the
daemon: the lease files it leaves on the device for a lease, a renewal and a
release, exactly as the daemon reads them."""
import re

from labtest import PEER1_ADDR, LabTestCase, main
from tesselkit.inotify import IN_MOVED_TO
from tesselkit.waiting import wait_until

LEASE = "/tmp/dhcp_eth1.txt"


class UdhcpcScriptTest(LabTestCase):
    def test_lease_renewal_and_release_as_lease_files(self):
        # The client straight on the device's eth1, which faces the server.
        self.lab.device("ip", "link", "set", "eth1", "up")
        with self.lab.watch_tmp() as watch:
            self.lab.device("udhcpc", "-i", "eth1", "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script")
            clients = self.lab.udhcpc_clients()
            self.assertEqual(1, len(clients), clients)
            client = str(list(clients)[0])
            # udhcpc -b returns once it has its first lease: start (no lease), then the lease.
            text = wait_until(lambda: self.lab.device_file(LEASE), "the lease file", 10)
            # The server, which is also the router, names itself.
            match = re.fullmatch(r"eth1 (192\.168\.77\.1\d\d) 255\.255\.255\.0 %s\n%s\n"
                                 % (re.escape(PEER1_ADDR), re.escape(PEER1_ADDR)), text)
            self.assertIsNotNone(match, text)
            self.assertEqual(2, len(watch.events(IN_MOVED_TO, "dhcp_eth1.txt")))

            self.lab.device("kill", "-USR1", client)
            wait_until(lambda: len(watch.events(IN_MOVED_TO, "dhcp_eth1.txt")) == 3, "the renewal's lease file", 10)
            self.assertEqual(text, self.lab.device_file(LEASE))

            self.lab.device("kill", "-USR2", client)
            wait_until(lambda: len(watch.events(IN_MOVED_TO, "dhcp_eth1.txt")) == 4, "the release's lease file", 10)
            self.assertEqual("eth1 0.0.0.0 0.0.0.0\n", self.lab.device_file(LEASE))
        # Files are renamed into place: no part of one is left behind.
        self.assertEqual(["dhcp_eth1.txt"], self.lab.device("ls", "-A", "/tmp").stdout.split())


if __name__ == "__main__":
    main()
