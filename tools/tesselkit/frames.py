"""Raw Ethernet frames, built and read with Debian's python3-scapy, sent and
captured on one interface of a network namespace."""
import socket
import time

from scapy.layers.inet import ICMP, IP
from scapy.layers.l2 import ARP, Ether

from .namespaces import in_netns

ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4
BROADCAST = "ff:ff:ff:ff:ff:ff"


def arp_frame(op, src_mac, src_ip, target_ip, dst_mac=BROADCAST, target_mac="00:00:00:00:00:00"):
    return bytes(Ether(dst=dst_mac, src=src_mac) /
                 ARP(op=op, hwsrc=src_mac, psrc=src_ip, hwdst=target_mac, pdst=target_ip))


def icmp_echo_frame(src_mac, dst_mac, src_ip, dst_ip, marker):
    """An ICMP echo request whose payload carries `marker` (to recognise it)."""
    return bytes(Ether(dst=dst_mac, src=src_mac) / IP(src=src_ip, dst=dst_ip, flags="DF", ttl=64, id=0) /
                 ICMP(id=0x7e55, seq=1) / marker)


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


class Port:
    """A raw socket on one interface of one network namespace: sends frames and
    captures what arrives on the interface from the moment it is opened."""

    def __init__(self, netns, ifname):
        self.netns = netns
        self.ifname = ifname
        with in_netns(netns):
            self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
            try:
                self.sock.bind((ifname, 0))  # the name is looked up in this namespace
            except BaseException:
                self.sock.close()
                raise
        self.mac = ":".join("%02x" % b for b in self.sock.getsockname()[4])
        self.sock.setblocking(False)
        self.received = []

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, frame):
        self.sock.send(frame)

    def drain(self):
        while True:
            try:
                frame, address = self.sock.recvfrom(65535)
            except BlockingIOError:
                return
            if address[2] != PACKET_OUTGOING:
                self.received.append(frame)

    def arrived(self, match):
        """Frames received so far that `match` accepts."""
        self.drain()
        return [f for f in self.received if match(f)]


def settle(ports, quiet=1.0):
    """The absence window: frames that cross the lab arrive within
    milliseconds; this gives the captures time to see anything that would."""
    time.sleep(quiet)
    for port in ports:
        port.drain()
