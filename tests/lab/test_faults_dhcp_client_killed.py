#!/usr/bin/env python3
"""The DHCP client serving veth1 is killed (SIGKILL: no release, no script
call) on the simulated device: the daemon notices it is gone within its check
interval, logs it, starts a new client, and the new client's lease is put in
force with veth1's default route."""
import os
import signal
import time

from labtest import PEER1_ADDR, LabTestCase, main
from tesselkit.device import DHCP_CLIENT_ARGS, TWO_PORT_CONFIG
from tesselkit.namespaces import without_forked_copies

CLIENT_ARGS = ["-i", "veth1"] + DHCP_CLIENT_ARGS.split()


class DhcpClientKilledTest(LabTestCase):
    def clients(self):
        """{device pid: host pid} of the DHCP clients serving veth1 as the daemon starts them."""
        found = [entry for entry in self.lab.device_processes()
                 if entry[2][0] == "udhcpc" and entry[2][1:] == CLIENT_ARGS]
        return {inside: host for host, inside, _ in without_forked_copies(found)}

    def test_killed_client_is_replaced_and_the_lease_comes_back(self):
        self.lab.start(TWO_PORT_CONFIG)
        lease = self.lab.wait_for_lease()
        self.lab.wait_for_first_cycle()
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        old = self.clients()
        self.assertEqual(1, len(old), old)
        (old_inside, old_host), = old.items()

        mark = len(self.lab.daemon_log())
        killed = time.monotonic()
        os.kill(old_host, signal.SIGKILL)
        self.lab.wait_for_log("WARN", "DHCP client for veth1 is gone, starting a new one", mark, 15)
        noticed = time.monotonic()
        self.lab.wait_for_log("INFO", "Starting DHCP for interface veth1", mark, 5)
        self.lab.wait_for_log("INFO", "New DHCP lease for veth1", mark, 20)
        again = self.lab.wait_for_lease()
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        leased = time.monotonic()
        print("timing: client killed to noticed %.2f s, to lease and route back %.2f s" %
              (noticed - killed, leased - killed))

        self.assertEqual(lease, again)
        self.assertEqual([lease + "/24"], self.lab.addresses("veth1"))
        # One client, a new one (it goes to the background with its lease, under a pid of its own).
        new = self.clients()
        self.assertEqual(1, len(new), new)
        self.assertNotIn(old_inside, new)
        self.assertEqual(list(new), list(self.lab.udhcpc_clients()))
        # Noticed once, replaced once, and nothing failed on the way.
        self.assertEqual(1, self.lab.daemon_log_since(mark).count("is gone, starting a new one"))
        self.assertEqual([], [e for e in self.lab.log_entries_since(mark) if e.level == "ERROR"])


if __name__ == "__main__":
    main()
