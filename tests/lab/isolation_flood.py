"""What the lab tests of the bridge builds keep sending across the isolation
while a build runs (tesselkit.frames.Flood, a round every 5 ms), and where each
frame was seen: a capture in each of the lab's three namespaces takes every
frame on every interface, both ways, those a build creates included.

The flows, all of a protocol that no ARP or IP rule looks at:
  eth1's side (peer1) to each internal MAC, plain and VLAN-tagged;
  the internal host (peer0) as a broadcast and to eth1's side;
and two controls that must arrive once the build is far enough: eth1's side
to veth1, the internal host to veth3."""
from labtest import DEVICE_MAC, PEER0_MAC
from tesselkit.device import VETH3_MAC
from tesselkit.frames import Capture, Flood, Port, broadcast_frame, raw_frame, vlan_frame

INTERVAL_S = 0.005
VLAN = 5

# Flows that must never reach the other side, and where on the device they may be
# seen: (interface, outgoing). Anywhere else on the device, and anything arriving
# in the other side's namespace, crossed.
FROM_ETH1_SIDE = ("eth1-to-peer0", "eth1-to-veth3", "eth1-vlan-to-peer0")
FROM_INTERNAL_HOST = ("peer0-broadcast", "peer0-to-eth1")
# Arriving on eth1 is all: the bridge drops it there.
ALLOWED_FROM_ETH1_SIDE = {("eth1", False)}
# The internal network may have them (eth0 to veth2, and br0's own stack for a broadcast).
ALLOWED_FROM_INTERNAL_HOST = {("eth0", False), ("br0", False), ("veth2", True), ("veth3", False)}
CONTROLS = {"eth1-to-veth1": ("veth1", False), "peer0-to-veth3": ("veth3", False)}
# Where a crossing reaches the device's own stack (veth1) rather than the other side's hosts.
OWN_STACK = ("device veth0 out", "device veth1 in")
# Frames a port going down (a build takes eth1 down and up) may drop on their way in.
IN_FLIGHT = 5


def assert_nothing_crossed(test, flood, flows):
    """Per flow, as subtests: nothing seen on the other side, nothing on the
    device's own veth1, and the control that the frames were on the wire and
    reached the device's port on their side (a veth sends nothing while its
    peer is down, so only rounds that left the sender count)."""
    for flow in flows:
        crossed = flood.crossed(flow)
        with test.subTest(flow=flow, toward="the other side"):
            test.assertEqual({}, {place: n for place, n in crossed.items() if place not in OWN_STACK})
        with test.subTest(flow=flow, toward="veth1"):
            test.assertEqual({}, {place: n for place, n in crossed.items() if place in OWN_STACK})
        with test.subTest(flow=flow, control="on the wire"):
            test.assertGreater(flood.on_the_wire(flow), 100)
            test.assertGreaterEqual(flood.reached_the_device(flow), flood.on_the_wire(flow) - IN_FLIGHT)


class IsolationFlood:
    """The flood and its captures, opened on a lab whose namespaces exist
    (the device's veth pairs need not: the device's capture sees them when
    they come)."""

    def __init__(self, lab):
        self.lab = lab
        self.namespaces = {"device": lab.dev, "net0": lab.net0, "net1": lab.net1}
        self.captures = {}
        self.ports = []
        try:
            for side, netns in self.namespaces.items():
                self.captures[side] = Capture(netns)
            peer0 = self._port(lab.net0, "peer0")
            peer1 = self._port(lab.net1, "peer1")
        except BaseException:
            self.close()
            raise
        self.peer1_mac = peer1.mac
        self.flood = Flood({
            "eth1-to-peer0": (peer1, lambda marker: raw_frame(peer1.mac, PEER0_MAC, marker)),
            "eth1-to-veth3": (peer1, lambda marker: raw_frame(peer1.mac, VETH3_MAC, marker)),
            "eth1-vlan-to-peer0": (peer1, lambda marker: vlan_frame(peer1.mac, PEER0_MAC, VLAN, marker)),
            "eth1-to-veth1": (peer1, lambda marker: raw_frame(peer1.mac, DEVICE_MAC, marker)),
            "peer0-broadcast": (peer0, lambda marker: broadcast_frame(PEER0_MAC, marker)),
            "peer0-to-eth1": (peer0, lambda marker: raw_frame(PEER0_MAC, peer1.mac, marker)),
            "peer0-to-veth3": (peer0, lambda marker: raw_frame(PEER0_MAC, VETH3_MAC, marker)),
        }, self.captures.values(), INTERVAL_S)

    def _port(self, netns, ifname):
        port = Port(netns, ifname)
        self.ports.append(port)
        return port

    def close(self):
        for opened in list(self.captures.values()) + self.ports:
            opened.close()

    def __enter__(self):
        self.flood.start()
        return self

    def __exit__(self, *_):
        try:
            self.flood.stop()
        finally:
            self.close()

    # --- where the frames were seen ---------------------------------------------------

    def rounds(self, flow, side, interface=None, outgoing=None):
        """The rounds of `flow` seen in one namespace, on one interface and way (any, when None)."""
        prefix = Flood.prefix(flow)
        seen = self.captures[side].seen(lambda frame: prefix in frame, None if interface is None else {interface},
                                        outgoing)
        return self.flood.rounds(flow, [frame for _, _, frame in seen])

    def crossed(self, flow):
        """{place: rounds} where a flow that must stay on its side was seen on the other."""
        other_side, allowed = (("net0", ALLOWED_FROM_ETH1_SIDE) if flow in FROM_ETH1_SIDE
                               else ("net1", ALLOWED_FROM_INTERNAL_HOST))
        places = {}
        prefix = Flood.prefix(flow)
        for interface, outgoing, frame in self.captures["device"].seen(lambda frame: prefix in frame):
            if (interface, outgoing) not in allowed:
                places.setdefault("device %s %s" % (interface, "out" if outgoing else "in"), []).append(frame)
        for interface, outgoing, frame in self.captures[other_side].seen(lambda frame: prefix in frame):
            if not outgoing:
                places.setdefault("%s %s in" % (other_side, interface), []).append(frame)
        return {place: len(self.flood.rounds(flow, frames)) for place, frames in places.items()}

    def on_the_wire(self, flow):
        """Rounds of `flow` that left its sender, as its own namespace's capture saw them."""
        side, interface = ("net1", "peer1") if flow.startswith("eth1-") else ("net0", "peer0")
        return len(self.rounds(flow, side, interface, True))

    def reached_the_device(self, flow):
        """Rounds of `flow` that arrived on the device's port of its sender's side."""
        return len(self.rounds(flow, "device", "eth1" if flow.startswith("eth1-") else "eth0", False))

    def summary(self):
        """One line a flow: sent, on the wire, reaching the device, crossed; the controls' arrivals."""
        lines = []
        for flow in FROM_ETH1_SIDE + FROM_INTERNAL_HOST:
            crossed = self.crossed(flow)
            lines.append("%-20s %5d sent, %5d on the wire, %5d on %s, crossed: %s" % (
                flow, self.flood.sent[flow], self.on_the_wire(flow), self.reached_the_device(flow),
                "eth1" if flow.startswith("eth1-") else "eth0",
                ", ".join("%d on %s" % (n, place) for place, n in sorted(crossed.items())) or "none"))
        for flow, (interface, outgoing) in CONTROLS.items():
            lines.append("%-20s %5d sent, %5d on the wire, %5d on %s (control)" % (
                flow, self.flood.sent[flow], self.on_the_wire(flow),
                len(self.rounds(flow, "device", interface, outgoing)), interface))
        return lines
