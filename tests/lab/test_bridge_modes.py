#!/usr/bin/env python3
"""The bridge modes on the simulated device: each one-port mode gives br0
exactly its ports, and a live change of the mode rebuilds the bridge and
restarts the DHCP client, whose lease comes back."""
import re
import time

from labtest import ISOLATION_RULES, LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR, config_text
from tesselkit.lab import run
from tesselkit.waiting import wait_until

# eth0 only: veth1 static on the eth0 side's network, reached through eth0.
ETH0_CONFIG = config_text("eth0", "copper", "static 10.253.254.10 255.255.255.0 0.0.0.0",
                          "static %s 255.255.255.0 0.0.0.0" % VETH3_ADDR)

# eth1 only: veth1 by DHCP from the server on eth1's side.
ETH1_CONFIG = config_text("eth1", "frame", "dhcp", "static %s 255.255.255.0 0.0.0.0" % VETH3_ADDR)


class BridgeModesTest(LabTestCase):
    def test_eth0_mode_bridges_eth0_and_veth0_only(self):
        self.lab.start(ETH0_CONFIG)
        wait_until(lambda: self.lab.bridge_ports() == ["eth0", "veth0"], "br0 with eth0 and veth0", 10)
        wait_until(lambda: self.lab.addresses("veth1") == ["10.253.254.10/24"], "veth1's static address", 10)
        # eth0's side reaches veth1 through the bridge; eth1 is no port.
        run(["ip", "netns", "exec", self.lab.net0, "busybox", "ping", "-c", "1", "-W", "2", "10.253.254.10"])
        self.assertEqual(["eth0", "veth0"], self.lab.bridge_ports())
        self.assertNotIn("master", self.lab.link("eth1"))
        self.assertEqual([], self.lab.arp_rules())
        self.assertEqual([], self.lab.ip_rules())

    def test_eth1_mode_bridges_eth1_and_veth0_only(self):
        self.lab.start(ETH1_CONFIG)
        wait_until(lambda: self.lab.bridge_ports() == ["eth1", "veth0"], "br0 with eth1 and veth0", 10)
        self.lab.wait_for_lease()
        self.assertEqual(["eth1", "veth0"], self.lab.bridge_ports())
        self.assertNotIn("master", self.lab.link("eth0"))
        self.assertEqual([], self.lab.arp_rules())

    def test_live_mode_change_rebuilds_the_bridge_and_the_lease_comes_back(self):
        self.lab.start(TWO_PORT_CONFIG)
        wait_until(lambda: self.lab.bridge_ports() == ["eth0", "eth1", "veth0", "veth2"], "br0 with both ports", 10)
        lease = self.lab.wait_for_lease()
        self.lab.wait_for_first_cycle()
        clients = self.lab.udhcpc_clients()
        self.assertEqual(1, len(clients), clients)
        old_client = list(clients)[0]
        mark = len(self.lab.daemon_log())

        changed = time.monotonic()
        self.lab.config(TWO_PORT_CONFIG.replace("bridge eth0eth1", "bridge eth1"))
        wait_until(lambda: self.lab.bridge_ports() == ["eth1", "veth0"], "br0 rebuilt with eth1 and veth0", 10)
        wait_until(lambda: "New DHCP lease for veth1" in self.lab.daemon_log_since(mark), "a new lease", 20)
        print("timing: mode change to new lease %.2f s" % (time.monotonic() - changed))
        self.assertEqual(lease, self.lab.wait_for_lease())
        log = self.lab.daemon_log_since(mark)
        self.assertIn("Setting up bridge for control network", log)
        self.assertRegex(log, r"Killing udhcpc pid %d for interface veth1" % old_client)
        self.assertIn("Starting DHCP for interface veth1", log)
        clients = self.lab.udhcpc_clients()
        self.assertEqual(1, len(clients), clients)
        self.assertNotIn(old_client, clients)
        self.lab.wait_for_routes([("192.168.77.1", "veth1", 10)])

        # And back: both ports, the second pair in the bridge again.
        mark = len(self.lab.daemon_log())
        self.lab.config(TWO_PORT_CONFIG)
        wait_until(lambda: self.lab.bridge_ports() == ["eth0", "eth1", "veth0", "veth2"], "br0 with both ports", 10)
        wait_until(lambda: "New DHCP lease for veth1" in self.lab.daemon_log_since(mark), "a new lease", 20)
        self.assertEqual(lease, self.lab.wait_for_lease())
        self.assertEqual(ISOLATION_RULES["ARP"], len(self.lab.arp_rules()))
        self.assertEqual(1, len(re.findall(r"Setting up bridge for control network", self.lab.daemon_log_since(mark))))


if __name__ == "__main__":
    main()
