"""Prints the isolation checks of a running lab with both ports bridged (as
tools/demo shows them, and the fault tests after a recovery): frames sent from
each side, where they arrived, and which rules dropped them. Exit status 1 when
a check fails.

    TESSEL_LAB=tessel-lab PYTHONPATH=tools /usr/bin/python3 -m tesselkit.isolation
"""
import os
import sys

from .device import VETH3_ADDR, VETH3_MAC
from .frames import Port, arp_frame, arp_match, icmp_echo_frame, marker_match, settle
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

    def dropped(before, after, rules):
        return ", ".join("%d by [%s]" % (after[r] - before[r], r) for r in rules if after.get(r, 0) > before.get(r, 0))

    def ping(netns, address):
        return run(["ip", "netns", "exec", netns, "busybox", "ping", "-c", "1", "-W", "2", address],
                   check=False).returncode == 0

    check(ping(lab.net1, lease), "eth1's side (%s) reaches veth1 (%s)" % (peer1_addr, lease))
    check(ping(lab.net0, VETH3_ADDR), "eth0's side (%s) reaches veth3 (%s)" % (peer0_addr, VETH3_ADDR))

    veth1, veth3, peer0, peer1 = ports
    arp_before, ip_before = dict(lab.arp_rules()), dict(lab.ip_rules())
    peer0.send(arp_frame(1, peer0_mac, peer0_addr, lease))
    peer1.send(arp_frame(1, peer1.mac, peer1_addr, "192.168.77.250"))
    for target in (VETH3_ADDR, peer0_addr):
        peer1.send(arp_frame(1, peer1.mac, peer1_addr, target))
    peer1.send(icmp_echo_frame(peer1.mac, device_mac, peer1_addr, VETH3_ADDR, b"eth1-to-veth3"))
    peer1.send(icmp_echo_frame(peer1.mac, peer0_mac, peer1_addr, peer0_addr, b"eth1-to-peer0"))
    peer0.send(icmp_echo_frame(peer0_mac, peer1.mac, peer0_addr, peer1_addr, b"peer0-to-eth1"))
    veth3.send(icmp_echo_frame(VETH3_MAC, peer1.mac, VETH3_ADDR, peer1_addr, b"veth3-to-eth1"))
    settle(ports)
    arp_after, ip_after = dict(lab.arp_rules()), dict(lab.ip_rules())

    check(veth3.arrived(arp_match(1, peer0_addr, lease)) and not veth1.arrived(arp_match(1, peer0_addr, lease)),
          "ARP from eth0's side reaches veth3, never veth1 (dropped %s)" %
          dropped(arp_before, arp_after, ["-j DROP -i eth0 -o veth0"]))
    check(veth1.arrived(arp_match(1, peer1_addr, "192.168.77.250")) and not veth3.arrived(arp_match(1, peer1_addr)),
          "ARP from eth1's side reaches veth1, never veth3 (dropped %s)" %
          dropped(arp_before, arp_after, ["-j DROP -i eth1 -o veth2"]))
    for target in (VETH3_ADDR, peer0_addr):
        check(not peer1.arrived(arp_match(2, target)) and not any(
            p.arrived(arp_match(1, peer1_addr, target)) for p in (veth1, veth3, peer0)),
            "eth1's side gets no ARP answer for %s (dropped %s)" %
            (target, dropped(arp_before, arp_after, ["-j DROP -i eth1 -o * -d " + target])))
    check(not any(p.arrived(marker_match(b"eth1-to-veth3")) for p in (veth1, veth3, peer1)) and not any(
        p.arrived(marker_match(b"eth1-to-peer0")) for p in (peer0, peer1)),
        "IP from eth1's side to %s and %s is dropped (%s)" % (VETH3_ADDR, peer0_addr, dropped(ip_before, ip_after, [
            "-A FORWARD -d %s/32 -m physdev --physdev-in eth1 -j DROP" % VETH3_ADDR,
            "-A FORWARD -d %s/32 -m physdev --physdev-in eth1 -j DROP" % peer0_addr])))
    check(not peer1.arrived(marker_match(b"peer0-to-eth1")) and not peer1.arrived(marker_match(b"veth3-to-eth1")),
          "IP from %s and %s to eth1's side is dropped (%s)" % (VETH3_ADDR, peer0_addr, dropped(ip_before, ip_after, [
              "-A FORWARD -s %s/32 -m physdev --physdev-out eth1 -j DROP" % peer0_addr,
              "-A FORWARD -s %s/32 -m physdev --physdev-out eth1 -j DROP" % VETH3_ADDR])))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
