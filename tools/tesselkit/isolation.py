"""Prints the isolation checks of a running lab with both ports bridged (as
tools/demo shows them, and the fault tests after a recovery): frames sent from
each side, where they arrived, and which rules dropped them. Exit status 1 when
a check fails.

    TESSEL_LAB=tessel-lab PYTHONPATH=tools /usr/bin/python3 -m tesselkit.isolation
"""
import os
import sys

from .device import VETH3_ADDR, VETH3_MAC
from .frames import (EXPERIMENTAL_ETHERTYPE, Port, arp_frame, arp_match, broadcast_frame, ethertype_match,
                     icmp_echo_frame, icmpv6_echo_frame, icmpv6_echo_match, link_local, marker_match, raw_frame, settle,
                     vlan_frame, vlan_match)
from .lab import Lab, run


def main():
    lab = Lab(os.environ.get("TESSEL_LAB", "tessel-lab"))
    try:
        return check(lab)
    finally:
        lab.close()


def check(lab):
    """Runs the checks on a lab and prints them; 0 when all passed, else 1."""
    peer0_addr, peer0_mac = lab.env["PEER0_ADDR"], lab.env["PEER0_MAC"]
    peer1_addr, device_mac = lab.env["PEER1_ADDR"], lab.env["DEVICE_MAC"]
    lease = lab.lease_address()
    if lease is None:
        print("veth1 has no lease: nothing to check")
        return 1
    ports = []
    try:
        for netns, ifname in ((lab.dev, "veth1"), (lab.dev, "veth3"), (lab.net0, "peer0"), (lab.net1, "peer1")):
            ports.append(Port(netns, ifname))
        return report(lab, lease, ports, peer0_addr, peer0_mac, peer1_addr, device_mac)
    finally:
        for port in ports:
            port.close()


def report(lab, lease, ports, peer0_addr, peer0_mac, peer1_addr, device_mac):
    failures = 0

    def check(ok, text):
        nonlocal failures
        failures += 0 if ok else 1
        print("  %s  %s" % ("PASS" if ok else "FAIL", text))

    def counters():
        """Packet counts of every rule in force, ARP, IP and link layer (their texts never clash)."""
        return dict(lab.arp_rules() + lab.ip_rules() + lab.ebtables_rules())

    def dropped(before, after, rules):
        """The rules that dropped something, with how much. The link-layer rules
        come first in the bridge, so a frame they drop is never counted by an
        ARP or IP rule meant for it as well."""
        return ", ".join("%d by [%s]" % (after[r] - before.get(r, 0), r) for r in rules
                         if after.get(r, 0) > before.get(r, 0)) or "by no rule"

    def ping(netns, address):
        return run(["ip", "netns", "exec", netns, "busybox", "ping", "-c", "1", "-W", "2", address],
                   check=False).returncode == 0

    check(ping(lab.net1, lease), "eth1's side (%s) reaches veth1 (%s)" % (peer1_addr, lease))
    check(ping(lab.net0, VETH3_ADDR), "eth0's side (%s) reaches veth3 (%s)" % (peer0_addr, VETH3_ADDR))

    veth1, veth3, peer0, peer1 = ports
    internal = (peer0_mac, VETH3_MAC)
    into_internal = ["-d %s -i eth1 -j DROP" % mac for mac in internal] + ["-i eth1 -o veth2 -j DROP"]
    out_of_internal = ["-s %s -o eth1 -j DROP" % mac for mac in internal] + ["-i veth2 -o eth1 -j DROP"]

    # ARP and IP, which the ARP and IP rules are for.
    before = counters()
    peer0.send(arp_frame(1, peer0_mac, peer0_addr, lease))
    peer1.send(arp_frame(1, peer1.mac, peer1_addr, "192.168.77.250"))
    for target in (VETH3_ADDR, peer0_addr):
        peer1.send(arp_frame(1, peer1.mac, peer1_addr, target))
    peer1.send(icmp_echo_frame(peer1.mac, device_mac, peer1_addr, VETH3_ADDR, b"eth1-to-veth3"))
    peer1.send(icmp_echo_frame(peer1.mac, peer0_mac, peer1_addr, peer0_addr, b"eth1-to-peer0"))
    peer0.send(icmp_echo_frame(peer0_mac, peer1.mac, peer0_addr, peer1_addr, b"peer0-to-eth1"))
    veth3.send(icmp_echo_frame(VETH3_MAC, peer1.mac, VETH3_ADDR, peer1_addr, b"veth3-to-eth1"))
    settle(ports)
    after = counters()

    check(veth3.arrived(arp_match(1, peer0_addr, lease)) and not veth1.arrived(arp_match(1, peer0_addr, lease)),
          "ARP from eth0's side reaches veth3, never veth1 (dropped %s)" % dropped(before, after, [
              "-j DROP -i eth0 -o veth0", "-i eth0 -o veth0 -j DROP", "-s %s -o veth0 -j DROP" % peer0_mac]))
    check(veth1.arrived(arp_match(1, peer1_addr, "192.168.77.250")) and not veth3.arrived(arp_match(1, peer1_addr)),
          "ARP from eth1's side reaches veth1, never veth3 (dropped %s)" % dropped(before, after, [
              "-j DROP -i eth1 -o veth2", "-i eth1 -o veth2 -j DROP"]))
    for target in (VETH3_ADDR, peer0_addr):
        check(not peer1.arrived(arp_match(2, target)) and not any(
            p.arrived(arp_match(1, peer1_addr, target)) for p in (veth1, veth3, peer0)),
            "eth1's side gets no ARP answer for %s (dropped %s)" % (target, dropped(before, after, [
                "-j DROP -i eth1 -o * -d " + target, "-i eth1 -o veth2 -j DROP"])))
    check(not any(p.arrived(marker_match(b"eth1-to-veth3")) for p in (veth1, veth3, peer1)) and not any(
        p.arrived(marker_match(b"eth1-to-peer0")) for p in (peer0, peer1)),
        "IP from eth1's side to %s and %s is dropped (%s)" % (VETH3_ADDR, peer0_addr, dropped(before, after, [
            "-A FORWARD -d %s/32 -m physdev --physdev-in eth1 -j DROP" % VETH3_ADDR,
            "-A FORWARD -d %s/32 -m physdev --physdev-in eth1 -j DROP" % peer0_addr] + into_internal)))
    check(not peer1.arrived(marker_match(b"peer0-to-eth1")) and not peer1.arrived(marker_match(b"veth3-to-eth1")),
          "IP from %s and %s to eth1's side is dropped (%s)" % (VETH3_ADDR, peer0_addr, dropped(before, after, [
              "-A FORWARD -s %s/32 -m physdev --physdev-out eth1 -j DROP" % peer0_addr,
              "-A FORWARD -s %s/32 -m physdev --physdev-out eth1 -j DROP" % VETH3_ADDR] + out_of_internal)))

    # Everything else, which only the link-layer rules see: a protocol of no
    # one's, broadcasts, IPv6, VLAN-tagged frames.
    peer1_ll, peer0_ll = link_local(peer1.mac), link_local(peer0_mac)
    before = counters()
    peer1.send(raw_frame(peer1.mac, device_mac, b"l2-eth1-to-veth1"))
    peer1.send(raw_frame(peer1.mac, peer0_mac, b"l2-eth1-to-peer0"))
    peer1.send(raw_frame(peer1.mac, VETH3_MAC, b"l2-eth1-to-veth3"))
    peer0.send(raw_frame(peer0_mac, peer1.mac, b"l2-peer0-to-eth1"))
    veth3.send(raw_frame(VETH3_MAC, peer1.mac, b"l2-veth3-to-eth1"))
    peer0.send(broadcast_frame(peer0_mac, b"l2-peer0-broadcast"))
    peer1.send(icmpv6_echo_frame(peer1.mac, peer0_mac, peer1_ll, peer0_ll, b"v6-eth1-to-peer0"))
    peer0.send(icmpv6_echo_frame(peer0_mac, peer1.mac, peer0_ll, peer1_ll, b"v6-peer0-to-eth1"))
    peer1.send(vlan_frame(peer1.mac, peer0_mac, 5, b"vlan-eth1-to-peer0"))
    peer1.send(vlan_frame(peer1.mac, VETH3_MAC, 5, b"vlan-eth1-to-veth3"))
    settle(ports)
    after = counters()

    check(veth1.arrived(ethertype_match(marker=b"l2-eth1-to-veth1")) and not any(
        p.arrived(marker_match(m)) for p in (peer0, veth3, veth1) for m in (b"l2-eth1-to-peer0", b"l2-eth1-to-veth3")),
        "Frames of EtherType 0x%04x from eth1's side reach veth1, never %s or %s (dropped %s)" % (
            (EXPERIMENTAL_ETHERTYPE,) + internal + (dropped(before, after, into_internal),)))
    check(not peer1.arrived(marker_match(b"l2-peer0-to-eth1")) and not peer1.arrived(marker_match(b"l2-veth3-to-eth1")),
          "Frames of EtherType 0x%04x from %s and %s never reach eth1's side (dropped %s)" % (
              (EXPERIMENTAL_ETHERTYPE,) + internal + (dropped(before, after, out_of_internal),)))
    check(veth3.arrived(marker_match(b"l2-peer0-broadcast")) and not peer1.arrived(marker_match(b"l2-peer0-broadcast"))
          and not veth1.arrived(marker_match(b"l2-peer0-broadcast")),
          "Broadcasts of %s reach veth3, never eth1's side or veth1 (dropped %s)" % (
              peer0_mac, dropped(before, after, ["-s %s -o eth1 -j DROP" % peer0_mac,
                                                 "-s %s -o veth0 -j DROP" % peer0_mac, "-i eth0 -o veth0 -j DROP"])))
    check(not peer0.arrived(icmpv6_echo_match(b"v6-eth1-to-peer0")) and
          not peer1.arrived(icmpv6_echo_match(b"v6-eth1-to-peer0", reply=True)) and
          not peer1.arrived(icmpv6_echo_match(b"v6-peer0-to-eth1")),
          "IPv6 between %s and eth1's side goes neither way (dropped %s)" % (peer0_ll, dropped(before, after, [
              "-d %s -i eth1 -j DROP" % peer0_mac, "-s %s -o eth1 -j DROP" % peer0_mac])))
    check(not any(p.arrived(vlan_match(m)) for p in (peer0, veth3, veth1)
                  for m in (b"vlan-eth1-to-peer0", b"vlan-eth1-to-veth3")),
          "VLAN-tagged frames from eth1's side to %s and %s are dropped (%s)" % (
              internal + (dropped(before, after, into_internal),)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
