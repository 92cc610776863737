#!/usr/bin/env python3
"""Both ports bridged with the example configuration: frames that no ARP or IP
rule ever looks at (a protocol of no one's, IPv6, VLAN-tagged frames) still
never cross between eth1's side and the second internal network, the internal
host's broadcasts stay on its own side, and the link-layer rules' counters
show which of them dropped each frame. Every test sends the same kind of frame
where it must arrive too, so a capture that sees nothing cannot pass it."""

from labtest import DEVICE_MAC, PEER0_MAC, TwoPortTestCase, lab_module, main
from tesselkit.device import TWO_PORT_CONFIG, VETH3_MAC
from tesselkit.frames import (broadcast_frame, ethertype_match, icmpv6_echo_frame, icmpv6_echo_match, link_local,
                              raw_frame, vlan_frame, vlan_match)
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

SENT = 5  # frames of each kind, each way
VLAN = 5
INTERNAL = {"peer0": PEER0_MAC, "veth3": VETH3_MAC}


# The 28 link-layer rules, as ebtables lists them: the port pairs that exchange
# nothing, the internal MACs kept off eth1 and veth0 both ways, and frames under
# two tags (or an 802.1ad one) to group addresses kept off eth1 both ways.
LINK_LAYER_RULES = sorted(
    ["-i %s -o %s -j DROP" % pair for a, b in (("veth0", "veth2"), ("veth2", "eth1"), ("veth0", "eth0"))
     for pair in ((a, b), (b, a))] +
    ["-%s %s -%s %s -j DROP" % (address, mac, way, port) for port in ("eth1", "veth0") for way in ("i", "o")
     for mac in INTERNAL.values() for address in ("s", "d")] +
    ["-p %s -d Multicast -%s eth1 %s-j DROP" % (protocol, way, encap) for way in ("i", "o")
     for protocol, encap in (("802_1Q", "--vlan-encap 8100 "), ("802_1Q", "--vlan-encap 88A8 "), ("S-TAG", ""))])


def to_eth1(mac):
    """The link-layer rules that drop what `mac` sends toward eth1's side."""
    return ["-s %s -o eth1 -j DROP" % mac, "-i veth2 -o eth1 -j DROP"]


def from_eth1(mac):
    """The link-layer rules that drop what eth1's side sends to `mac`."""
    return ["-d %s -i eth1 -j DROP" % mac, "-i eth1 -o veth2 -j DROP"]


class LinkLayerIsolationTest(TwoPortTestCase):
    MODULE = MODULE

    def open_ports(self):
        return self.ports.open("veth1", "veth3", "peer0", "peer1")

    def send(self, port, frame, count=SENT):
        for _ in range(count):
            port.send(frame)

    def counters(self):
        return dict(self.lab.ebtables_rules())

    def assertDroppedBy(self, before, after, rules, at_least):
        """The rules named dropped `at_least` frames between them: the frames
        did reach the bridge and were dropped at the link layer."""
        missing = [rule for rule in rules if rule not in after]
        self.assertEqual([], missing, "link-layer rules not in force")
        dropped = sum(after[rule] - before.get(rule, 0) for rule in rules)
        self.assertGreaterEqual(dropped, at_least, "dropped by %s" % rules)
        return dropped

    def assertNoneArrived(self, match, ports, what):
        for port in ports:
            self.assertEqual([], port.arrived(match), "%s reached %s" % (what, port.ifname))

    def test_28_link_layer_rules_in_force_and_eth1_not_blocked(self):
        self.assertEqual(LINK_LAYER_RULES, sorted(rule for rule, _ in self.lab.ebtables_rules()))
        for chain in ("PREROUTING", "POSTROUTING"):
            self.assertEqual([], self.lab.ebtables_rules("nat", chain), "eth1's block is lifted after the build")

    # --- a protocol that is neither IP nor ARP ----------------------------------------

    def test_frames_of_another_protocol_from_eth1_side_reach_no_internal_mac(self):
        veth1, veth3, peer0, peer1 = self.open_ports()
        before = self.counters()
        # Control: eth1's side reaches veth1 with the same protocol.
        self.send(peer1, raw_frame(peer1.mac, DEVICE_MAC, b"eth1-to-veth1"))
        for name, mac in INTERNAL.items():
            self.send(peer1, raw_frame(peer1.mac, mac, b"eth1-to-" + name.encode()))
        wait_until(lambda: len(veth1.arrived(ethertype_match(marker=b"eth1-to-veth1"))) == SENT,
                   "the control frames on veth1", 5)
        self.ports.settle()
        for name, mac in INTERNAL.items():
            self.assertNoneArrived(ethertype_match(marker=b"eth1-to-" + name.encode()), (veth1, veth3, peer0),
                                   "a frame to %s" % name)
        after = self.counters()
        for name, mac in INTERNAL.items():
            dropped = self.assertDroppedBy(before, after, from_eth1(mac), SENT)
            print("eth1's side to %s (%s): %d sent, 0 arrived, %d dropped at the link layer" %
                  (name, mac, SENT, dropped))
        print("control, eth1's side to veth1: %d sent, %d arrived" %
              (SENT, len(veth1.arrived(ethertype_match(marker=b"eth1-to-veth1")))))

    def test_frames_of_another_protocol_from_the_internal_macs_never_reach_eth1_side(self):
        veth1, veth3, peer0, peer1 = self.open_ports()
        before = self.counters()
        # Control: the device's own veth1 reaches eth1's side.
        self.send(veth1, raw_frame(DEVICE_MAC, peer1.mac, b"veth1-to-eth1"))
        self.send(peer0, raw_frame(PEER0_MAC, peer1.mac, b"peer0-to-eth1"))
        self.send(veth3, raw_frame(VETH3_MAC, peer1.mac, b"veth3-to-eth1"))
        wait_until(lambda: len(peer1.arrived(ethertype_match(marker=b"veth1-to-eth1"))) == SENT,
                   "the control frames on peer1", 5)
        self.ports.settle()
        for name in INTERNAL:
            self.assertNoneArrived(ethertype_match(marker=name.encode() + b"-to-eth1"), (peer1, veth1),
                                   "a frame from %s" % name)
        after = self.counters()
        for name, mac in INTERNAL.items():
            dropped = self.assertDroppedBy(before, after, to_eth1(mac), SENT)
            print("%s (%s) to eth1's side: %d sent, 0 arrived, %d dropped at the link layer" %
                  (name, mac, SENT, dropped))

    def test_broadcasts_of_the_internal_host_stay_on_its_side(self):
        veth1, veth3, peer0, peer1 = self.open_ports()
        before = self.counters()
        self.send(peer0, broadcast_frame(PEER0_MAC, b"peer0-broadcast"))
        # Control: the internal network gets them (veth3), so they were flooded.
        wait_until(lambda: len(veth3.arrived(ethertype_match(marker=b"peer0-broadcast"))) == SENT,
                   "the broadcasts on veth3", 5)
        self.ports.settle()
        self.assertNoneArrived(ethertype_match(marker=b"peer0-broadcast"), (peer1, veth1), "a broadcast of peer0")
        after = self.counters()
        to_peer1 = self.assertDroppedBy(before, after, ["-s %s -o eth1 -j DROP" % PEER0_MAC], SENT)
        to_veth1 = self.assertDroppedBy(before, after, ["-s %s -o veth0 -j DROP" % PEER0_MAC,
                                                        "-i eth0 -o veth0 -j DROP"], SENT)
        print("peer0's broadcasts: %d sent, %d on veth3, 0 on peer1 (%d dropped), 0 on veth1 (%d dropped)" %
              (SENT, len(veth3.arrived(ethertype_match(marker=b"peer0-broadcast"))), to_peer1, to_veth1))

    # --- IPv6 ------------------------------------------------------------------------

    def ping6(self, netns, address, ifname, count=SENT):
        return run(["ip", "netns", "exec", netns, "busybox", "ping", "-6", "-c", str(count), "-i", "0.2", "-W", "2",
                    "%s%%%s" % (address, ifname)], check=False)

    def device_link_local(self, ifname, address):
        """Gives a device interface a link-local address for the block: the
        daemon flushes every address of veth1 and veth3, IPv6 ones included."""
        run(["ip", "-n", self.lab.dev, "addr", "add", address + "/64", "dev", ifname, "nodad"])
        self.addCleanup(run, ["ip", "-n", self.lab.dev, "addr", "del", address + "/64", "dev", ifname], check=False)
        return address

    def test_ipv6_link_local_between_eth1_side_and_the_internal_host_gets_no_answer(self):
        veth1, veth3, peer0, peer1 = self.open_ports()
        peer0_ll, peer1_ll = link_local(PEER0_MAC), link_local(peer1.mac)
        # Controls: eth1's side talks IPv6 with veth1, the internal host with veth3.
        for netns, ifname, target in ((self.lab.net1, "peer1", self.device_link_local("veth1", "fe80::77:1")),
                                      (self.lab.net0, "peer0", self.device_link_local("veth3", "fe80::253"))):
            control = self.ping6(netns, target, ifname, 1)
            self.assertEqual(0, control.returncode, "control: %s to %s\n%s" % (ifname, target, control.stdout))
        before = self.counters()
        # The real tool, both ways (neighbour discovery included) ...
        for netns, ifname, target in ((self.lab.net1, "peer1", peer0_ll), (self.lab.net0, "peer0", peer1_ll)):
            ping = self.ping6(netns, target, ifname)
            self.assertNotEqual(0, ping.returncode, ping.stdout)
            self.assertIn("%d packets transmitted, 0 packets received" % SENT, ping.stdout)
        # ... and echo requests addressed straight to the MAC, no discovery needed.
        self.send(peer1, icmpv6_echo_frame(peer1.mac, PEER0_MAC, peer1_ll, peer0_ll, b"v6-eth1-to-peer0"))
        self.send(peer0, icmpv6_echo_frame(PEER0_MAC, peer1.mac, peer0_ll, peer1_ll, b"v6-peer0-to-eth1"))
        self.ports.settle()
        self.assertNoneArrived(icmpv6_echo_match(b"v6-eth1-to-peer0"), (peer0, veth3, veth1),
                               "an echo request to peer0")
        self.assertNoneArrived(icmpv6_echo_match(b"v6-eth1-to-peer0", reply=True), (peer1,), "peer0's echo reply")
        self.assertNoneArrived(icmpv6_echo_match(b"v6-peer0-to-eth1"), (peer1, veth1), "an echo request from peer0")
        after = self.counters()
        into = self.assertDroppedBy(before, after, ["-d %s -i eth1 -j DROP" % PEER0_MAC], SENT)
        out_of = self.assertDroppedBy(before, after, ["-s %s -o eth1 -j DROP" % PEER0_MAC], SENT)
        print("IPv6 %s <-> eth1's side: ping -6 -c %d each way, no answer; %d echo requests each way, 0 arrived "
              "(%d dropped coming in, %d going out)" % (peer0_ll, SENT, SENT, into, out_of))

    # --- VLAN ------------------------------------------------------------------------

    def test_vlan_tagged_frames_from_eth1_side_reach_no_internal_mac(self):
        veth1, veth3, peer0, peer1 = self.open_ports()
        before = self.counters()
        # Control: a tagged frame to veth1 crosses (the bridge filters no VLANs).
        self.send(peer1, vlan_frame(peer1.mac, DEVICE_MAC, VLAN, b"vlan-to-veth1"))
        for name, mac in INTERNAL.items():
            self.send(peer1, vlan_frame(peer1.mac, mac, VLAN, b"vlan-to-" + name.encode()))
        wait_until(lambda: len(veth1.arrived(vlan_match(b"vlan-to-veth1"))) == SENT,
                   "the tagged control frames on veth1", 5)
        self.ports.settle()
        for name, mac in INTERNAL.items():
            self.assertNoneArrived(vlan_match(b"vlan-to-" + name.encode()), (veth1, veth3, peer0),
                                   "a tagged frame to %s" % name)
        after = self.counters()
        for name, mac in INTERNAL.items():
            dropped = self.assertDroppedBy(before, after, from_eth1(mac), SENT)
            print("VLAN %d from eth1's side to %s: %d sent, 0 arrived, %d dropped" % (VLAN, name, SENT, dropped))


if __name__ == "__main__":
    main()
