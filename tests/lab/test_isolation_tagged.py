#!/usr/bin/env python3
"""Both ports bridged with the example configuration: tagged frames are judged
as their untagged counterparts. A matrix of frames, every ordered pair of the
ports that face hosts (eth0's side, eth1's side, veth3, veth1) x destination
(broadcast, a multicast group, each internal MAC, another host's MAC) x
payload (IPv4 to each internal address and to another host, ARP naming each
internal address, IPv6, another EtherType) x tagging (none, VLAN 0, VLAN 5,
802.1ad over 802.1Q), each frame sent once with a marker of its own, all of
them first and the captures read once; every cell's verdict compared with the
table (docs/SECURITY.md) of what must cross and what must not. The controls
are the cells that must cross: eth0's side and eth1's side to another host,
tagged or not. And the tagged ARP claim: a host on eth1's side that claims
veth3's address under a VLAN 0 tag leaves the internal host's neighbour entry
as it was."""

import time

from labtest import DEVICE_MAC, PEER0_MAC, PEER1_ADDR, TwoPortTestCase, lab_module, main
from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import ARP, Dot1AD, Dot1Q, Ether
from scapy.packet import Raw
from tesselkit.device import INTERNAL_HOST_ADDR, TWO_PORT_CONFIG, VETH3_ADDR, VETH3_MAC
from tesselkit.frames import BROADCAST, EXPERIMENTAL_ETHERTYPE, settle
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

# Another host: a MAC nobody sends from (the bridge floods frames to it to
# every port the rules leave open) and an address outside both networks.
OTHER_MAC = "02:55:00:00:00:99"
OTHER_ADDR = "192.0.2.99"
# The source the frames from eth0's side carry: a host there other than the
# internal one (the internal host's own frames are the link-layer rules' since
# the first build, tests/lab/test_isolation_link_layer.py).
ETH0_SIDE_MAC = "02:55:00:00:00:10"
ETH0_SIDE_ADDR = "192.0.2.10"
MULTICAST_MAC = "01:00:5e:01:02:03"

# The ports facing hosts, with the bridge port each reaches br0 through.
PORTS = ("eth0", "eth1", "veth3", "veth1")
CAPTURED_ON = {"eth0": "peer0", "eth1": "peer1", "veth3": "veth3", "veth1": "veth1"}
# Port pairs that exchange nothing (veth2-veth0, veth2-eth1, veth0-eth0).
APART = ({"veth3", "veth1"}, {"veth3", "eth1"}, {"veth1", "eth0"})

DESTINATIONS = {"broadcast": BROADCAST, "multicast": MULTICAST_MAC, "internal host's MAC": PEER0_MAC,
                "veth3's MAC": VETH3_MAC, "another host's MAC": OTHER_MAC}
INTERNAL_MACS = {PEER0_MAC: "eth0", VETH3_MAC: "veth3"}  # and the port each sits behind
PAYLOADS = ("IPv4 to .254", "IPv4 to .253", "IPv4 to another host", "ARP naming .254", "ARP naming .253", "IPv6",
            "EtherType 0x88b5")
NAMING_INTERNAL = {"IPv4 to .254", "IPv4 to .253", "ARP naming .254", "ARP naming .253"}
TAGGINGS = ("untagged", "VLAN 0", "VLAN 5", "802.1ad+802.1Q")


def expected(sender, receiver, destination, payload, tagging):
    """True: must cross; False: must not; None: the bridge's forwarding
    database decides (a unicast frame inside the internal network to a MAC that
    sits behind the port it came in on), no isolation question."""
    if {sender, receiver} in APART:
        return False
    mac = DESTINATIONS[destination]
    if "eth1" in (sender, receiver):
        # eth1 with eth0's side (the bridged ports) or with veth1 (the device's own stack).
        if mac in INTERNAL_MACS:
            return False
        if payload in NAMING_INTERNAL and tagging != "802.1ad+802.1Q":
            return False
        if tagging == "802.1ad+802.1Q" and destination in ("broadcast", "multicast"):
            return False
        # Left: frames to another host (and under two tags, unicast to it whatever
        # they carry: no filter sees inside, and none is addressed to an internal MAC).
        return True
    # The internal network (eth0's side and veth3): the isolation does not judge it.
    if mac in INTERNAL_MACS and INTERNAL_MACS[mac] != receiver:
        return None
    return True


def tagged(tagging, inner):
    """`inner` (an Ether of its own type) under the tagging's tags."""
    ether = Ether(dst=inner.dst, src=inner.src)
    body = inner.payload
    if tagging == "untagged":
        return ether / body
    if tagging == "802.1ad+802.1Q":
        return ether / Dot1AD(vlan=5) / Dot1Q(vlan=6, type=inner.type) / body
    return ether / Dot1Q(vlan=int(tagging.split()[1]), type=inner.type) / body


def frame(src_mac, src_ip, destination, payload, tagging, marker):
    dst = DESTINATIONS[destination]
    if payload.startswith("IPv4"):
        target = {"IPv4 to .254": INTERNAL_HOST_ADDR, "IPv4 to .253": VETH3_ADDR}.get(payload, OTHER_ADDR)
        inner = Ether(dst=dst, src=src_mac) / IP(src=src_ip, dst=target, ttl=64) / UDP(sport=7, dport=9) / marker
    elif payload.startswith("ARP"):
        target = INTERNAL_HOST_ADDR if payload.endswith(".254") else VETH3_ADDR
        inner = Ether(dst=dst, src=src_mac) / ARP(op=1, hwsrc=src_mac, psrc=src_ip, pdst=target) / Raw(marker)
    elif payload == "IPv6":
        inner = Ether(dst=dst, src=src_mac) / IPv6(src="fe80::55", dst="fe80::99", hlim=64) / \
            UDP(sport=7, dport=9) / marker
    else:
        inner = Ether(dst=dst, src=src_mac, type=EXPERIMENTAL_ETHERTYPE) / marker
    return bytes(tagged(tagging, inner))


class TaggedIsolationTest(TwoPortTestCase):
    MODULE = MODULE

    def test_tagged_frames_matrix(self):
        ports = dict(zip(PORTS, self.ports.open(*(CAPTURED_ON[name] for name in PORTS))))
        sources = {"eth0": (ETH0_SIDE_MAC, ETH0_SIDE_ADDR), "eth1": (ports["eth1"].mac, PEER1_ADDR),
                   "veth3": (VETH3_MAC, VETH3_ADDR), "veth1": (DEVICE_MAC, "192.0.2.1")}
        cells = {}  # marker -> (sender, destination, payload, tagging)
        started = time.monotonic()
        for sender in PORTS:
            src_mac, src_ip = sources[sender]
            for destination in DESTINATIONS:
                for payload in PAYLOADS:
                    for tagging in TAGGINGS:
                        marker = b"tagmatrix/%05d/" % len(cells)
                        cells[marker] = (sender, destination, payload, tagging)
                        ports[sender].send(frame(src_mac, src_ip, destination, payload, tagging, marker))
        settle(ports.values())
        seen = set()  # (marker, receiver)
        for receiver, port in ports.items():
            for received in port.received:
                start = received.find(b"tagmatrix/")
                if start < 0:
                    continue
                marker = received[start:start + len(b"tagmatrix/00000/")]
                sender = cells.get(marker, (None,))[0]
                # The frame itself, not an answer quoting it (an ICMP error carries the
                # datagram it answers): it keeps its sender's source MAC.
                if sender is not None and received[6:12] == bytes.fromhex(sources[sender][0].replace(":", "")):
                    seen.add((marker, receiver))
        wrong = []
        classes = {}  # (pair, verdict wanted) -> [cells, seen]
        for marker, (sender, destination, payload, tagging) in cells.items():
            for receiver in PORTS:
                if receiver == sender:
                    continue
                want = expected(sender, receiver, destination, payload, tagging)
                got = (marker, receiver) in seen
                key = ("%s -> %s" % (sender, receiver), {True: "must cross", False: "must not",
                                                        None: "not judged"}[want])
                tally = classes.setdefault(key, [0, 0])
                tally[0] += 1
                tally[1] += got
                if want is not None and want != got:
                    wrong.append("%s -> %s, %s, %s, %s: %s" % (sender, receiver, destination, payload, tagging,
                                                              "crossed" if got else "did not cross"))
        print("figures: %d frames sent in %.2f s (%d cells), %d arrivals" %
              (len(cells), time.monotonic() - started, sum(t[0] for t in classes.values()), len(seen)))
        for (pair, want), (count, got) in sorted(classes.items()):
            print("figures: %-16s %-10s %4d cells, seen in %4d" % (pair, want, count, got))
        self.assertEqual([], wrong, "%d cells against the table" % len(wrong))
        switch = self.lab.device("cat", "/proc/sys/net/bridge/bridge-nf-filter-vlan-tagged").stdout.strip()
        self.assertEqual("1", switch, "the daemon turns tagged filtering on")

    def neighbour(self, address):
        out = run(["ip", "-n", self.lab.net0, "neigh", "show", address, "dev", "peer0"]).stdout.split()
        return out[out.index("lladdr") + 1] if "lladdr" in out else None

    def test_tagged_arp_claim_from_eth1_side_leaves_the_internal_hosts_neighbour_entry(self):
        peer1 = self.ports.open("peer1")
        ping = run(["ip", "netns", "exec", self.lab.net0, "busybox", "ping", "-c", "1", "-W", "2", VETH3_ADDR],
                   check=False)
        self.assertEqual(0, ping.returncode, "control: the internal host reaches veth3\n" + ping.stdout)
        wait_until(lambda: self.neighbour(VETH3_ADDR) == VETH3_MAC, "the internal host's entry for veth3", 5)
        for tagging in ("VLAN 0", "VLAN 5", "untagged"):
            claim = Ether(dst=BROADCAST, src=peer1.mac) / ARP(op=1, hwsrc=peer1.mac, psrc=VETH3_ADDR,
                                                              pdst=INTERNAL_HOST_ADDR)
            for _ in range(3):
                peer1.send(bytes(tagged(tagging, claim)))
        settle([peer1])
        self.assertEqual(VETH3_MAC, self.neighbour(VETH3_ADDR), "the internal host's entry for %s" % VETH3_ADDR)
        ping = run(["ip", "netns", "exec", self.lab.net0, "busybox", "ping", "-c", "1", "-W", "2", VETH3_ADDR],
                   check=False)
        self.assertEqual(0, ping.returncode, "the internal host still reaches veth3\n" + ping.stdout)
        print("figures: ARP claim for %s from eth1's side, 3 each untagged, VLAN 0, VLAN 5: the internal host's "
              "entry stays %s" % (VETH3_ADDR, VETH3_MAC))


if __name__ == "__main__":
    main()
