#!/usr/bin/env python3
"""veth1 by DHCP on the simulated device, with BusyBox udhcpc, the repository's
script and dnsmasq: the first lease and its timing, a renewal, a release, a
restart of the daemon, and a change between static and DHCP addressing."""
import re
import subprocess
import time

from labtest import PEER1_ADDR, LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.inotify import IN_MOVED_FROM, IN_MOVED_TO
from tesselkit.waiting import wait_until

STATIC_CONFIG = TWO_PORT_CONFIG.replace("veth1 dhcp", "veth1 static 192.168.77.50 255.255.255.0 192.168.77.1")
LEASE_FILE = "dhcp_veth1.txt"


class DhcpClientTest(LabTestCase):
    def start_with_lease(self, config=TWO_PORT_CONFIG):
        self.lab.start(config)
        lease = self.lab.wait_for_lease()
        self.lab.wait_for_first_cycle()
        return lease

    def only_client(self):
        clients = self.lab.udhcpc_clients()
        self.assertEqual(1, len(clients), clients)
        pid, args = list(clients.items())[0]
        self.assertEqual(["-i", "veth1", "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script"], args)
        return pid

    def acks(self):
        return self.lab.dnsmasq_log().count("DHCPACK(peer1)")

    def address_monitor(self):
        monitor = subprocess.Popen(["ip", "-n", self.lab.dev, "-o", "monitor", "address"], stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(monitor.wait)
        self.addCleanup(monitor.terminate)
        return monitor

    def lease_file_to_address(self, watch, what):
        """Waits for veth1's lease, polling finely; returns the lease and the
        time from the script's last lease file before it to the address."""
        lease = wait_until(lambda: watch.events(IN_MOVED_TO, LEASE_FILE) and self.lab.lease_address(), what, 20, interval=0.02)
        seen = time.monotonic()
        written = [t for t in watch.events(IN_MOVED_TO, LEASE_FILE) if t <= seen][-1]
        return lease, written, seen

    def test_first_lease_and_its_timing(self):
        with self.lab.watch_tmp() as watch:
            started = time.monotonic()
            self.lab.start(TWO_PORT_CONFIG)
            # udhcpc writes a file on its start (no lease), then the lease's.
            lease, written, seen = self.lease_file_to_address(watch, "veth1's lease")
            # The daemon claims the file (renames it away) to read it, then deletes it.
            wait_until(lambda: watch.events(IN_MOVED_FROM, LEASE_FILE) and
                     watch.events(IN_MOVED_FROM, LEASE_FILE)[-1] >= written, "the daemon to take the lease file", 5)
        print("timing: daemon start to lease file %.2f s, lease file to address %.2f s" %
              (written - started, seen - written))
        self.assertLess(written - started, 15)
        # The daemon reads the file on its next cycle, one second at most.
        self.assertLess(seen - written, 2.0)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        self.assertEqual(1, self.lab.daemon_log().count("New DHCP lease for veth1"))
        self.only_client()
        self.assertIn(lease, self.lab.dnsmasq_log())

    def test_renewal_that_repeats_the_lease_changes_nothing(self):
        lease = self.start_with_lease()
        client = self.only_client()
        mark, acks = len(self.lab.daemon_log()), self.acks()
        monitor = self.address_monitor()
        with self.lab.watch_tmp() as watch:
            self.lab.device("kill", "-USR1", str(client))
            wait_until(lambda: self.acks() > acks, "the server to acknowledge the renewal", 10)
            wait_until(lambda: watch.events(IN_MOVED_TO, LEASE_FILE), "the script to report the renewal", 10)
            wait_until(lambda: watch.events(IN_MOVED_FROM, LEASE_FILE), "the daemon to read the renewal", 5)
        monitor.terminate()
        events = monitor.communicate(timeout=10)[0]
        self.assertEqual([], [line for line in events.splitlines() if "veth1" in line])
        # Nothing logged by the daemon (what udhcpc prints shares the file).
        entries = [line for line in self.lab.daemon_log_since(mark).splitlines() if re.match(r"\d{4}-\d\d-\d\d ", line)]
        self.assertEqual([], entries)
        self.assertEqual([lease + "/24"], self.lab.addresses("veth1"))
        self.assertEqual([(PEER1_ADDR, "veth1", 10)], self.lab.default_routes())
        self.assertEqual(client, self.only_client())

    def test_release_flushes_veth1_and_a_new_request_brings_the_lease_back(self):
        lease = self.start_with_lease()
        client = self.only_client()
        mark = len(self.lab.daemon_log())
        self.lab.device("kill", "-USR2", str(client))
        wait_until(lambda: self.lab.addresses("veth1") == [], "veth1 to be flushed", 5)
        self.lab.wait_for_routes([])
        self.assertIn("No DHCP lease for veth1", self.lab.daemon_log_since(mark))

        with self.lab.watch_tmp() as watch:
            self.lab.device("kill", "-USR1", str(client))
            again, written, seen = self.lease_file_to_address(watch, "the lease back on veth1")
        # The lease came while the daemon slept: it is put into effect on the next cycle.
        print("timing: lease file to address %.2f s (new request after a release)" % (seen - written))
        self.assertLess(seen - written, 2.0)
        self.assertEqual(lease, again)
        self.assertIn("New DHCP lease for veth1", self.lab.daemon_log_since(mark))
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])

    def test_restart_stops_the_old_client_and_the_address_comes_back(self):
        lease = self.start_with_lease()
        old = self.only_client()
        self.lab.stop()
        # A stopped daemon leaves its client and addresses as they are.
        self.assertIn("tessel-networkd exiting with code of 0", self.lab.daemon_log())
        self.assertEqual(old, self.only_client())
        self.assertEqual([lease + "/24"], self.lab.addresses("veth1"))

        mark = len(self.lab.daemon_log())
        self.lab.start(TWO_PORT_CONFIG)
        wait_until(lambda: "New DHCP lease for veth1" in self.lab.daemon_log_since(mark), "a new lease", 20)
        self.assertEqual(lease, self.lab.wait_for_lease())
        self.assertIn("Killing udhcpc pid %d for interface veth1" % old, self.lab.daemon_log_since(mark))
        wait_until(lambda: old not in self.lab.udhcpc_clients(), "the old client to end", 5)
        self.assertNotEqual(old, self.only_client())
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])

    def test_static_to_dhcp_and_back(self):
        self.lab.start(STATIC_CONFIG)
        wait_until(lambda: self.lab.addresses("veth1") == ["192.168.77.50/24"], "veth1's static address", 10)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        self.assertEqual({}, self.lab.udhcpc_clients())

        self.lab.config(TWO_PORT_CONFIG)
        wait_until(lambda: self.lab.lease_address() and len(self.lab.addresses("veth1")) == 1, "veth1's lease in place of the static address", 20)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        client = self.only_client()

        mark = len(self.lab.daemon_log())
        self.lab.config(STATIC_CONFIG)
        wait_until(lambda: self.lab.addresses("veth1") == ["192.168.77.50/24"], "veth1's static address again", 10)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        self.assertIn("Configuring interface veth1 for static IP", self.lab.daemon_log_since(mark))
        # The client is left running; its reports are no longer read.
        self.assertEqual(client, self.only_client())


if __name__ == "__main__":
    main()
