#!/usr/bin/env python3
"""Both ports bridged with the example configuration, on the simulated device:
veth1 by DHCP from the server on eth1's side, veth3 static on the second
internal network, and the ARP/IP isolation between the two networks, checked
by what crosses the bridge ports (raw frames sent and captured on the lab's
interfaces) together with the counters of the rules that dropped them. The
link-layer rules (ebtables) come first in the bridge: a frame they drop never
reaches the ARP or IP rule meant for it too, so either counts
(test_isolation_link_layer has the frames only they can stop)."""
import re

from labtest import (DEVICE_MAC, ISOLATION_RULES, PEER0_ADDR, PEER0_MAC, PEER1_ADDR, TwoPortTestCase, lab_module,
                     main)
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR, VETH3_MAC
from tesselkit.frames import arp_frame, arp_match, icmp_echo_frame, marker_match
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

# The link-layer rules that see a frame before the ARP or IP rule named.
IN_FRONT = {
    "-j DROP -i eth0 -o veth0": ["-i eth0 -o veth0 -j DROP", "-s %s -o veth0 -j DROP" % PEER0_MAC],
    "-j DROP -i eth1 -o veth2": ["-i eth1 -o veth2 -j DROP"],
    "-j DROP -i eth1 -o * -d 10.253.254.253": ["-i eth1 -o veth2 -j DROP"],
    "-A FORWARD -d 10.253.254.253/32 -m physdev --physdev-in eth1 -j DROP": ["-d %s -i eth1 -j DROP" % VETH3_MAC,
                                                                            "-i eth1 -o veth2 -j DROP"],
    "-A FORWARD -d 10.253.254.254/32 -m physdev --physdev-in eth1 -j DROP": ["-d %s -i eth1 -j DROP" % PEER0_MAC],
    "-A FORWARD -s 10.253.254.254/32 -m physdev --physdev-out eth1 -j DROP": ["-s %s -o eth1 -j DROP" % PEER0_MAC],
    "-A FORWARD -s 10.253.254.253/32 -m physdev --physdev-out eth1 -j DROP": ["-s %s -o eth1 -j DROP" % VETH3_MAC,
                                                                             "-i veth2 -o eth1 -j DROP"],
}


class TwoPortTest(TwoPortTestCase):
    MODULE = MODULE

    def counters(self):
        """Packet counts of the ARP, IP and link-layer rules (their texts never clash)."""
        return dict(self.lab.arp_rules() + self.lab.ip_rules() + self.lab.ebtables_rules())

    def assertRuleDropped(self, before, after, rule):
        """`rule` is in force, and it or a link-layer rule in front of it dropped something."""
        self.assertIn(rule, after, "rule %r not in force" % rule)
        rules = [rule] + IN_FRONT.get(rule, [])
        self.assertGreater(sum(after.get(r, 0) - before.get(r, 0) for r in rules), 0, "%s dropped nothing" % rules)

    # --- addresses, routes, bridge, rules -----------------------------------------

    def test_veth1_has_the_servers_lease_and_default_route_with_metric_10(self):
        self.assertEqual([self.lease + "/24"], self.lab.addresses("veth1"))
        # dnsmasq handed this address to veth1's MAC (the kernel command line's mac=).
        with open(self.lab.state + "/dnsmasq.leases") as f:
            self.assertRegex(f.read(), r"(?m)^\d+ %s %s " % (DEVICE_MAC, re.escape(self.lease)))
        # veth3's configuration has no gateway, so veth1's route is the only one.
        self.assertEqual([(PEER1_ADDR, "veth1", 10)], self.lab.default_routes())
        self.assertIn("New DHCP lease for veth1", self.lab.daemon_log())

    def test_veth3_has_its_static_address(self):
        self.assertEqual([VETH3_ADDR + "/24"], self.lab.addresses("veth3"))
        self.assertEqual(VETH3_MAC, self.lab.link("veth3")["address"])

    def test_bridge_has_both_ports_and_both_pairs(self):
        self.assertEqual(["eth0", "eth1", "veth0", "veth2"], self.lab.bridge_ports())
        self.assertEqual(DEVICE_MAC, self.lab.link("veth1")["address"])

    def test_38_arp_and_12_ip_rules_in_force(self):
        self.assertEqual(ISOLATION_RULES["ARP"], len(self.lab.arp_rules()))
        self.assertEqual(ISOLATION_RULES["IP"], len(self.lab.ip_rules()))

    def learnt_on_eth1(self):
        fdb = run(["bridge", "-n", self.lab.dev, "fdb", "show", "br", "br0", "brport", "eth1"]).stdout
        return [line.split()[0] for line in fdb.splitlines() if "permanent" not in line]

    def test_eth1_learns_no_addresses(self):
        # What eth1 learnt in the moment between joining br0 and "learning off"
        # ages out by itself; forget it now, then let eth1's side talk.
        for mac in self.learnt_on_eth1():
            run(["bridge", "-n", self.lab.dev, "fdb", "del", mac, "dev", "eth1", "master"])
        run(["ip", "netns", "exec", self.lab.net1, "busybox", "ping", "-c", "1", "-W", "2", self.lease])
        self.assertEqual([], self.learnt_on_eth1())
        veth0 = run(["bridge", "-n", self.lab.dev, "fdb", "show", "br", "br0", "brport", "veth0"]).stdout
        self.assertIn(DEVICE_MAC + " ", veth0, "the other ports learn as usual")

    # --- ARP -----------------------------------------------------------------------

    def test_arp_from_eth0_side_never_reaches_veth1(self):
        veth1, veth3, peer0 = self.ports.open("veth1", "veth3", "peer0")
        before = self.counters()
        # The internal host asks for veth1's address; another host of that
        # network, outside the internal pair by address and MAC, asks for another.
        peer0.send(arp_frame(1, PEER0_MAC, PEER0_ADDR, self.lease))
        peer0.send(arp_frame(1, "02:00:00:00:fe:99", "10.253.254.99", "10.253.254.77"))
        # Both cross the bridge to veth2 (so they were sent and flooded) ...
        wait_until(lambda: veth3.arrived(arp_match(1, PEER0_ADDR, self.lease)), "ARP from eth0's side on veth3", 5)
        wait_until(lambda: veth3.arrived(arp_match(1, "10.253.254.99")), "ARP from eth0's side on veth3", 5)
        self.ports.settle()
        # ... but never to veth0.
        self.assertEqual([], veth1.arrived(arp_match(sender_ip=PEER0_ADDR)))
        self.assertEqual([], veth1.arrived(arp_match(sender_ip="10.253.254.99")))
        after = self.counters()
        self.assertRuleDropped(before, after, "-j DROP -i eth0 -o veth0")

    def test_arp_from_eth1_side_never_reaches_veth3(self):
        veth1, veth3, peer0, peer1 = self.ports.open("veth1", "veth3", "peer0", "peer1")
        before = self.counters()
        peer1.send(arp_frame(1, peer1.mac, PEER1_ADDR, "192.168.77.250"))
        peer1.send(arp_frame(1, peer1.mac, PEER1_ADDR, VETH3_ADDR))
        wait_until(lambda: veth1.arrived(arp_match(1, PEER1_ADDR, "192.168.77.250")), "ARP from eth1's side on veth1", 5)
        self.ports.settle()
        self.assertEqual([], veth3.arrived(arp_match(sender_ip=PEER1_ADDR)))
        # A question about the internal pair goes nowhere at all.
        for port in (veth1, peer0):
            self.assertEqual([], port.arrived(arp_match(target_ip=VETH3_ADDR)), port.ifname)
        after = self.counters()
        self.assertRuleDropped(before, after, "-j DROP -i eth1 -o veth2")
        self.assertRuleDropped(before, after, "-j DROP -i eth1 -o * -d 10.253.254.253")

    def test_eth1_side_gets_no_arp_answer_for_the_internal_pair(self):
        peer1 = self.ports.open("peer1")
        before = self.counters()
        for target in (self.lease, VETH3_ADDR, PEER0_ADDR):
            peer1.send(arp_frame(1, peer1.mac, PEER1_ADDR, target))
        # veth1 answers for itself (so questions and answers do cross) ...
        wait_until(lambda: peer1.arrived(arp_match(2, self.lease, PEER1_ADDR)), "veth1's ARP answer", 5)
        self.ports.settle()
        # ... nobody answers for the internal pair.
        self.assertEqual([], peer1.arrived(arp_match(2, VETH3_ADDR)))
        self.assertEqual([], peer1.arrived(arp_match(2, PEER0_ADDR)))
        after = self.counters()
        self.assertRuleDropped(before, after, "-j DROP -i eth1 -o * -d 10.253.254.253")
        self.assertRuleDropped(before, after, "-j DROP -i eth1 -o * -d 10.253.254.254")
        # The real tool agrees.
        for target in (VETH3_ADDR, PEER0_ADDR):
            arping = run(["ip", "netns", "exec", self.lab.net1, "busybox", "arping", "-f", "-c", "2", "-w", "2", "-I",
                          "peer1", target], check=False)
            self.assertNotEqual(0, arping.returncode, arping.stdout)

    # --- IP ------------------------------------------------------------------------

    def test_ip_to_and_from_the_internal_pair_is_dropped_on_eth1(self):
        veth1, veth3, peer0, peer1 = self.ports.open("veth1", "veth3", "peer0", "peer1")
        br0_mac = self.lab.link("br0")["address"]
        before = self.counters()

        # Controls: eth1's side reaches veth1 and is answered; eth0's side reaches veth3.
        peer1.send(icmp_echo_frame(peer1.mac, DEVICE_MAC, PEER1_ADDR, self.lease, b"control-veth1"))
        peer0.send(icmp_echo_frame(PEER0_MAC, VETH3_MAC, PEER0_ADDR, VETH3_ADDR, b"control-veth3"))
        wait_until(lambda: veth1.arrived(marker_match(b"control-veth1")), "the control packet on veth1", 5)
        wait_until(lambda: peer1.arrived(marker_match(b"control-veth1")), "veth1's echo reply on peer1", 5)
        wait_until(lambda: veth3.arrived(marker_match(b"control-veth3")), "the control packet on veth3", 5)

        # From eth1's side to the pair, by every way into the device.
        peer1.send(icmp_echo_frame(peer1.mac, DEVICE_MAC, PEER1_ADDR, VETH3_ADDR, b"via-veth1"))
        peer1.send(icmp_echo_frame(peer1.mac, VETH3_MAC, PEER1_ADDR, VETH3_ADDR, b"to-veth3"))
        peer1.send(icmp_echo_frame(peer1.mac, br0_mac, PEER1_ADDR, VETH3_ADDR, b"to-br0"))
        peer1.send(icmp_echo_frame(peer1.mac, PEER0_MAC, PEER1_ADDR, PEER0_ADDR, b"to-peer0"))
        # From eth1's side pretending to be the pair.
        peer1.send(icmp_echo_frame(peer1.mac, DEVICE_MAC, PEER0_ADDR, self.lease, b"spoofed"))
        # From the pair to eth1's side.
        peer0.send(icmp_echo_frame(PEER0_MAC, peer1.mac, PEER0_ADDR, PEER1_ADDR, b"from-peer0"))
        veth3.send(icmp_echo_frame(VETH3_MAC, peer1.mac, VETH3_ADDR, PEER1_ADDR, b"from-veth3"))
        self.ports.settle()

        for marker, ports in ((b"via-veth1", (veth1, veth3, peer1)), (b"to-veth3", (veth3, veth1, peer1)),
                              (b"to-br0", (peer1,)), (b"to-peer0", (peer0, peer1)), (b"spoofed", (veth1, peer1)),
                              (b"from-peer0", (peer1,)), (b"from-veth3", (peer1,))):
            for port in ports:
                self.assertEqual([], port.arrived(marker_match(marker)), "%s reached %s" % (marker, port.ifname))
        after = self.counters()
        for rule in ("-A FORWARD -d 10.253.254.253/32 -m physdev --physdev-in eth1 -j DROP",
                     "-A FORWARD -d 10.253.254.254/32 -m physdev --physdev-in eth1 -j DROP",
                     "-A INPUT -d 10.253.254.253/32 -m physdev --physdev-in eth1 -j DROP",
                     "-A FORWARD -s 10.253.254.254/32 -m physdev --physdev-in eth1 -j DROP",
                     "-A FORWARD -s 10.253.254.254/32 -m physdev --physdev-out eth1 -j DROP",
                     "-A FORWARD -s 10.253.254.253/32 -m physdev --physdev-out eth1 -j DROP"):
            self.assertRuleDropped(before, after, rule)

    def test_eth1_side_host_reaches_veth1_and_eth0_side_host_reaches_veth3(self):
        run(["ip", "netns", "exec", self.lab.net1, "busybox", "ping", "-c", "1", "-W", "2", self.lease])
        run(["ip", "netns", "exec", self.lab.net0, "busybox", "ping", "-c", "1", "-W", "2", VETH3_ADDR])


if __name__ == "__main__":
    main()
