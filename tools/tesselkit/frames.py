"""Raw Ethernet frames, built and read with Debian's python3-scapy, sent and
captured on one interface of a network namespace (Port) or on all of them
(Capture), and sent over and over (Flood)."""
import errno
import ipaddress
import re
import socket
import threading
import time

from scapy.layers.inet import ICMP, IP
from scapy.layers.inet6 import IPv6, ICMPv6EchoReply, ICMPv6EchoRequest
from scapy.layers.l2 import ARP, Dot1Q, Ether

from .namespaces import in_netns

ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4
SO_RCVBUFFORCE = 33  # <asm-generic/socket.h>; Python's socket module lacks the name
BROADCAST = "ff:ff:ff:ff:ff:ff"
# IEEE 802's "local experimental" EtherType: no program on the lab's wires
# speaks it, and only rules on the Ethernet header (ebtables) can stop it.
EXPERIMENTAL_ETHERTYPE = 0x88B5
VLAN_TPID = 0x8100
# What a capture socket may hold before the kernel drops: a flood of a minute
# on every interface of a namespace fits, even between two drains.
CAPTURE_BUFFER = 16 << 20


def arp_frame(op, src_mac, src_ip, target_ip, dst_mac=BROADCAST, target_mac="00:00:00:00:00:00"):
    return bytes(Ether(dst=dst_mac, src=src_mac) /
                 ARP(op=op, hwsrc=src_mac, psrc=src_ip, hwdst=target_mac, pdst=target_ip))


def icmp_echo_frame(src_mac, dst_mac, src_ip, dst_ip, marker):
    """An ICMP echo request whose payload carries `marker` (to recognise it)."""
    return bytes(Ether(dst=dst_mac, src=src_mac) / IP(src=src_ip, dst=dst_ip, flags="DF", ttl=64, id=0) /
                 ICMP(id=0x7e55, seq=1) / marker)


def raw_frame(src_mac, dst_mac, marker, ethertype=EXPERIMENTAL_ETHERTYPE):
    """A frame of a protocol that is neither IP nor ARP, `marker` its payload."""
    return bytes(Ether(dst=dst_mac, src=src_mac, type=ethertype) / marker)


def broadcast_frame(src_mac, marker, ethertype=EXPERIMENTAL_ETHERTYPE):
    """A broadcast of a protocol that is neither IP nor ARP: the bridge floods
    it to every port the rules leave open."""
    return raw_frame(src_mac, BROADCAST, marker, ethertype)


def vlan_frame(src_mac, dst_mac, vlan, marker, ethertype=EXPERIMENTAL_ETHERTYPE):
    """An 802.1Q-tagged frame: a bridge without VLAN filtering forwards it like
    any other, and bridge netfilter hands nothing tagged to iptables or
    arptables (by default), so only a rule on the outer header stops it."""
    return bytes(Ether(dst=dst_mac, src=src_mac, type=VLAN_TPID) / Dot1Q(vlan=vlan, type=ethertype) / marker)


def link_local(mac):
    """The IPv6 link-local address Linux gives an interface with this MAC (EUI-64)."""
    octets = [int(part, 16) for part in mac.split(":")]
    octets[0] ^= 0x02
    return str(ipaddress.IPv6Address(bytes([0xfe, 0x80] + [0] * 6 + octets[:3] + [0xff, 0xfe] + octets[3:])))


def icmpv6_echo_frame(src_mac, dst_mac, src_ip, dst_ip, marker):
    """An ICMPv6 echo request whose payload carries `marker`; a Linux host
    answers it with the same payload."""
    return bytes(Ether(dst=dst_mac, src=src_mac) / IPv6(src=src_ip, dst=dst_ip, hlim=64) /
                 ICMPv6EchoRequest(id=0x7e55, seq=1, data=marker))


def parse_arp(frame):
    """(op, sender mac, sender ip, target ip) of an ARP frame, else None."""
    packet = Ether(frame)
    if ARP not in packet:
        return None
    arp = packet[ARP]
    return arp.op, arp.hwsrc, arp.psrc, arp.pdst


def arp_match(op=None, sender_ip=None, target_ip=None):
    def match(frame):
        arp = parse_arp(frame)
        return arp is not None and (op is None or arp[0] == op) and (sender_ip is None or arp[2] == sender_ip) and \
            (target_ip is None or arp[3] == target_ip)
    return match


def marker_match(marker):
    return lambda frame: marker in frame


def ethertype_match(ethertype=EXPERIMENTAL_ETHERTYPE, marker=None):
    """Untagged frames of this EtherType, with `marker` in them when given."""
    type_bytes = ethertype.to_bytes(2, "big")
    return lambda frame: frame[12:14] == type_bytes and (marker is None or marker in frame)


def vlan_match(marker):
    """A tagged frame carrying `marker`, tag and all or with its tag taken off:
    the receiving kernel moves the tag out of the frame (into the packet's
    metadata) before a capture sees it, so an arrival shows the inner type."""
    return lambda frame: frame[12:14] in (VLAN_TPID.to_bytes(2, "big"),
                                          EXPERIMENTAL_ETHERTYPE.to_bytes(2, "big")) and marker in frame


def icmpv6_echo_match(marker, reply=False):
    """ICMPv6 echo requests (or replies) carrying `marker`."""
    kind = ICMPv6EchoReply if reply else ICMPv6EchoRequest

    def match(frame):
        if frame[12:14] != b"\x86\xdd" or marker not in frame:
            return False
        packet = Ether(frame)
        return kind in packet and marker in bytes(packet[kind].data)
    return match


def _capture_socket(netns):
    with in_netns(netns):
        sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    try:
        sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, CAPTURE_BUFFER)
    except PermissionError:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, CAPTURE_BUFFER)
    return sock


def _receive(sock, keep):
    """Reads what `sock` holds, handing each (frame, address) to `keep`. An
    interface going down reports ENETDOWN once; the capture goes on when it
    comes back up. A closed socket has nothing more: what it took stays readable."""
    while sock.fileno() != -1:
        try:
            frame, address = sock.recvfrom(65535)
        except BlockingIOError:
            return
        except OSError as error:
            if error.errno != errno.ENETDOWN:
                raise
            continue
        keep(frame, address)


class Port:
    """A raw socket on one interface of one network namespace: sends frames and
    captures what arrives on the interface from the moment it is opened."""

    def __init__(self, netns, ifname):
        self.netns = netns
        self.ifname = ifname
        self.sock = _capture_socket(netns)
        try:
            with in_netns(netns):
                self.sock.bind((ifname, 0))  # the name is looked up in this namespace
        except BaseException:
            self.sock.close()
            raise
        self.mac = ":".join("%02x" % b for b in self.sock.getsockname()[4])
        self.sock.setblocking(False)
        self.received = []
        self._lock = threading.Lock()  # a Flood's thread drains it too

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, frame):
        self.sock.send(frame)

    def drain(self):
        def keep(frame, address):
            if address[2] != PACKET_OUTGOING:
                self.received.append(frame)
        with self._lock:
            _receive(self.sock, keep)

    def arrived(self, match):
        """Frames received so far that `match` accepts."""
        self.drain()
        return [f for f in self.received if match(f)]


class Capture:
    """A raw socket bound to no interface: every frame on every interface of a
    network namespace, both ways, from the moment it is opened; interfaces made
    later (a bridge build's veth pairs) included, and the frames other sockets
    send (a Port's own sends never come back to it)."""

    def __init__(self, netns):
        self.netns = netns
        self.sock = _capture_socket(netns)
        self.sock.setblocking(False)
        self.frames = []  # (interface, outgoing, frame)
        self._lock = threading.Lock()

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def drain(self):
        def keep(frame, address):
            self.frames.append((address[0], address[2] == PACKET_OUTGOING, frame))
        with self._lock:
            _receive(self.sock, keep)

    def seen(self, match, interfaces=None, outgoing=None):
        """(interface, outgoing, frame) of the frames so far that `match`
        accepts, on the interfaces named (any, when None), in the direction
        asked (either, when None)."""
        self.drain()
        return [entry for entry in self.frames if (interfaces is None or entry[0] in interfaces) and
                (outgoing is None or entry[1] == outgoing) and match(entry[2])]


class Flood:
    """Frames sent over and over from a thread of its own, a round every
    `interval` seconds, while the block runs: each flow's frame is built anew
    each round around a marker with the flow's name and the round's number
    (Flood.marker), so every arrival can be counted. The same thread drains
    the captures given, so a long flood fits in their buffers.

        flows: {name: (port, build)}, build(marker) -> frame
    """

    def __init__(self, flows, captures=(), interval=0.005):
        self.flows = flows
        self.captures = list(captures)
        self.interval = interval
        self.sent = {name: 0 for name in flows}
        self.failed = {name: 0 for name in flows}
        self.started = self.stopped = None
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._error = None

    @staticmethod
    def prefix(name):
        """What every frame of flow `name` carries."""
        return b"flood/%s/" % name.encode()

    @staticmethod
    def marker(name, number):
        return Flood.prefix(name) + b"%08d/" % number

    def _run(self):
        try:
            number = 0
            next_round = time.monotonic()
            while not self._stop.is_set():
                for name, (port, build) in self.flows.items():
                    try:
                        port.send(build(self.marker(name, number)))
                        self.sent[name] += 1
                    except OSError:  # the interface is down: that round is not on the wire
                        self.failed[name] += 1
                number += 1
                for capture in self.captures:
                    capture.drain()
                next_round += self.interval
                self._stop.wait(max(0.0, next_round - time.monotonic()))
        except BaseException as error:  # handed to the test by stop()
            self._error = error

    def start(self):
        self.started = time.monotonic()
        self._thread.start()
        return self

    def stop(self):
        """Ends the flood (idempotent); raises what ended its thread, if anything did."""
        if self._thread.is_alive():
            self._stop.set()
            self._thread.join()
            self.stopped = time.monotonic()
            # A veth hands a frame to its peer through a queue: the last ones
            # arrive a moment after they were sent.
            time.sleep(0.2)
        for capture in self.captures:
            capture.drain()
        if self._error is not None:
            raise self._error

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def rounds(self, name, frames):
        """The distinct round numbers of flow `name` among `frames`."""
        pattern = re.compile(re.escape(self.prefix(name)) + rb"(\d{8})/")
        return {int(found) for frame in frames for found in pattern.findall(frame)}


def settle(ports, quiet=1.0):
    """The absence window: frames that cross the lab arrive within
    milliseconds; this gives the captures time to see anything that would."""
    time.sleep(quiet)
    for port in ports:
        port.drain()
