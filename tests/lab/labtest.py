"""Shared support of the lab tests: the lab (tools/lab) as a Python object, waiting
by polling, and raw frames sent and captured on the lab's interfaces.

Each test module builds a fresh lab in setUpModule and removes it in
tearDownModule (also after a failure); a test that changes the lab puts back
what it changed. A lab that cannot be built here makes the module exit 77,
which CTest reports as skipped, unless TESSEL_REQUIRE_LAB=1 says it must run.
"""
import ctypes
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import time
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
LAB_TOOL = os.path.join(ROOT, "tools", "lab")
# Tests use a lab of their own name, so a demo left running (tools/demo --keep) stays untouched.
LAB_NAME = os.environ.get("TESSEL_LAB", "tessel-labtest")
DAEMON = os.environ.get("TESSEL_LAB_DAEMON", os.path.join(ROOT, "build", "tessel-networkd"))

PEER0_ADDR = "10.253.254.254"  # host on eth0's side, the second internal network
PEER0_MAC = "02:23:02:00:00:01"
VETH3_ADDR = "10.253.254.253"
VETH3_MAC = "02:23:02:00:00:00"
PEER1_ADDR = "192.168.77.1"  # DHCP server and router on eth1's side
DEVICE_MAC = "02:00:00:00:77:01"  # veth1, from the lab's kernel command line
DHCP_RANGE = ("192.168.77.100", "192.168.77.199")

# The example configuration: both ports, veth1 by DHCP, veth3 static.
TWO_PORT_CONFIG = """#network settings
bridge eth0eth1
phy frame
veth1 dhcp
veth3 static 10.253.254.253 255.255.255.0 0.0.0.0
"""

REGISTER_SEQUENCE = [
    "devmem 0xFF200088 32 0x3",
    "devmem 0xFF200088 32 0x0",
    "devmem 0xFF20008C 32 0x701",
    "devmem 0xFF20008C 32 0x700",
    "devmem 0xFF20008C 32 0x701",
    "devmem 0xFF20008C 32 0x700",
    "devmem 0xFF200088 32 0x2",
    "devmem 0xFF200088 32 0x0",
]


def unavailable_reason():
    """Empty when the lab can be built here, else why not."""
    if os.geteuid() != 0:
        return "needs root to build the lab's namespaces"
    if subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode != 0:
        return "cannot create network namespaces here"
    for tool in ("ip", "nsenter", "dnsmasq", "udhcpc", "arptables-legacy", "iptables", "busybox"):
        if shutil.which(tool) is None:
            return "missing %s (tools/test installs the lab's packages)" % tool
    if not os.access(DAEMON, os.X_OK):
        return "no daemon built at %s" % DAEMON
    return ""


def main():
    """Runs the module's tests; exit 77 (skipped) where no lab can be built."""
    why = unavailable_reason()
    if why:
        if os.environ.get("TESSEL_REQUIRE_LAB") == "1":
            print("lab test cannot run: %s (TESSEL_REQUIRE_LAB=1)" % why)
            sys.exit(1)
        print("SKIPPED: %s" % why)
        sys.exit(77)
    unittest.main(verbosity=2)


def wait_for(condition, timeout, what, interval=0.05):
    """Polls until condition() gives a true value and returns it; fails the
    test with `what` after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out after %.0f s waiting for %s" % (timeout, what))
        time.sleep(interval)


def run(args, check=True, timeout=60):
    result = subprocess.run(args, capture_output=True, text=True, timeout=timeout)
    if check and result.returncode != 0:
        raise AssertionError("%s failed (%d): %s%s" % (" ".join(args), result.returncode, result.stdout,
                                                       result.stderr))
    return result


class Lab:
    def __init__(self, name=LAB_NAME):
        self.name = name
        self.state = "/run/" + name
        self.dev = name + "-dev"
        self.net0 = name + "-net0"
        self.net1 = name + "-net1"
        self.config_path = None

    def tool(self, *args, check=True, timeout=60):
        env = dict(os.environ, TESSEL_LAB=self.name, TESSEL_LAB_DAEMON=DAEMON)
        result = subprocess.run([LAB_TOOL] + list(args), capture_output=True, text=True, env=env, timeout=timeout)
        if check and result.returncode != 0:
            raise AssertionError("tools/lab %s failed (%d): %s%s" % (" ".join(args), result.returncode,
                                                                     result.stdout, result.stderr))
        return result

    def up(self):
        self.tool("down")  # leftovers of an interrupted run
        self.tool("up")

    def down(self):
        self.tool("down")

    def _write_config(self, text):
        path = os.path.join(self.state, "next.conf")
        with open(path, "w") as f:
            f.write(text)
        return path

    def start(self, config_text):
        path = self._write_config(config_text)
        self.start_mark = len(self.daemon_log()) if os.path.exists(os.path.join(self.state, "daemon.log")) else 0
        self.tool("start", path)

    def wait_for_cycles(self, count, timeout=None):
        """Waits until the daemon has begun `count` more cycles: each begins by
        reading its configuration file, which the lab sees (inotify)."""
        with DirWatch(self.state, IN_OPEN) as watch:
            wait_for(lambda: len(watch.events(IN_OPEN, "networkd.conf")) >= count, timeout or 5 + 3 * count,
                     "%d more cycles of the daemon" % count)

    def wait_for_first_cycle(self, timeout=20):
        """Waits until the daemon's first usable cycle is over. It ends with the
        PHY mode write (for which the lab has no driver file: its complaint
        shows it) and a bounce of eth1; the next cycle's start is the end."""
        wait_for(lambda: "/proc/marvell-phy-0-port" in self.daemon_log_since(self.start_mark), timeout,
                 "the PHY mode write of the daemon's first cycle")
        self.wait_for_cycles(1)

    def config(self, config_text):
        self.tool("config", self._write_config(config_text))

    def stop(self):
        self.tool("stop")

    def device(self, *cmd, check=True):
        """Runs a command on the device (its network, mount and PID namespaces)."""
        return self.tool("exec", *cmd, check=check)

    def ip(self, ns, *args):
        return run(["ip", "-n", ns] + list(args)).stdout

    def ipj(self, ns, *args):
        return json.loads(run(["ip", "-n", ns, "-j"] + list(args)).stdout or "[]")

    # --- what the device looks like -------------------------------------------

    def addresses(self, ifname):
        """IPv4 addresses of a device interface as "a.b.c.d/len"."""
        try:
            links = self.ipj(self.dev, "-4", "addr", "show", "dev", ifname)
        except AssertionError:
            return []
        return ["%s/%d" % (a["local"], a["prefixlen"]) for link in links for a in link.get("addr_info", [])]

    def lease_address(self):
        """veth1's address when it is one of the DHCP server's, else None."""
        for addr in self.addresses("veth1"):
            ip = addr.split("/")[0]
            if addr.endswith("/24") and ip.startswith("192.168.77.") and 100 <= int(ip.split(".")[3]) <= 199:
                return ip
        return None

    def default_routes(self):
        """(gateway, device, metric) of every default route on the device."""
        return sorted((r.get("gateway"), r.get("dev"), r.get("metric", 0))
                      for r in self.ipj(self.dev, "-4", "route", "show", "default"))

    def wait_for_routes(self, expected, timeout=5):
        """The address comes a command before its route: waits for the routes."""
        wait_for(lambda: self.default_routes() == expected, timeout, "default routes %s" % (expected,))

    def bridge_ports(self):
        try:
            return sorted(link["ifname"] for link in self.ipj(self.dev, "link", "show", "master", "br0"))
        except AssertionError:
            return None  # no br0

    def link(self, ifname):
        links = self.ipj(self.dev, "link", "show", "dev", ifname)
        return links[0] if links else None

    def arp_rules(self):
        """The ARP FORWARD rules in force: [(rule text, packet count)]."""
        out = run(["ip", "netns", "exec", self.dev, "arptables-legacy", "-L", "FORWARD", "-n", "-v"]).stdout
        rules = []
        for line in out.splitlines():
            m = re.match(r"^(-j .*?) , pcnt=(\d+) -- bcnt=\d+", line.strip())
            if m:
                rules.append((m.group(1).strip(), int(m.group(2))))
        return rules

    def ip_rules(self):
        """The IP filter rules in force: [("-A CHAIN ...", packet count)]."""
        out = run(["ip", "netns", "exec", self.dev, "iptables-save", "-c", "-t", "filter"]).stdout
        rules = []
        for line in out.splitlines():
            m = re.match(r"^\[(\d+):\d+\] (-A .*)$", line)
            if m:
                rules.append((m.group(2), int(m.group(1))))
        return rules

    def udhcpc_clients(self):
        """{pid in the device: arguments} of the DHCP clients on the device (zombies excluded)."""
        clients = {}
        holder = self.holder_pid()
        for pid in os.listdir("/proc"):
            if not pid.isdigit():
                continue
            try:
                with open("/proc/%s/cmdline" % pid, "rb") as f:
                    args = f.read().split(b"\0")[:-1]
                if not args or args[0] != b"udhcpc":
                    continue
                if os.readlink("/proc/%s/ns/pid" % pid) != os.readlink("/proc/%s/ns/pid" % holder):
                    continue
                with open("/proc/%s/status" % pid) as f:
                    nspid = [line.split()[-1] for line in f if line.startswith("NSpid:")][0]
                clients[int(nspid)] = [a.decode() for a in args[1:]]
            except (OSError, IndexError):
                continue
        return clients

    def holder_pid(self):
        with open(os.path.join(self.state, "holder.pid")) as f:
            return int(f.read())

    def device_file(self, path):
        """Contents of a file as the device sees it (its own /tmp), or None."""
        try:
            with open("/proc/%d/root%s" % (self.holder_pid(), path)) as f:
                return f.read()
        except FileNotFoundError:
            return None

    def daemon_log(self):
        with open(os.path.join(self.state, "daemon.log")) as f:
            return f.read()

    def devmem_writes(self):
        """[(time, "devmem ...")] as the stand-in recorded them."""
        with open(os.path.join(self.state, "devmem.log")) as f:
            return [(float(line.split(" ", 1)[0]), line.split(" ", 1)[1].strip()) for line in f if line.strip()]

    def dnsmasq_log(self):
        with open(os.path.join(self.state, "dnsmasq.log")) as f:
            return f.read()

    def watch_tmp(self):
        """A DirWatch on the device's /tmp, where the lease files appear."""
        return DirWatch("/proc/%d/root/tmp" % self.holder_pid())

    def daemon_log_since(self, mark):
        return self.daemon_log()[mark:]

    def wait_for_lease(self, timeout=20):
        return wait_for(self.lease_address, timeout, "veth1 to get an address from the DHCP server")


class LabTestCase(unittest.TestCase):
    """A test with a lab of its own, built before and removed after it."""

    def setUp(self):
        self.lab = Lab()
        self.addCleanup(self.lab.down)
        self.lab.up()


def lab_module(test_module_globals, start_config=None):
    """Gives a test module setUpModule/tearDownModule that build one lab for its
    tests and remove it, whatever happened."""
    holder = {}

    def setUpModule():
        lab = Lab()
        holder["lab"] = lab
        try:
            lab.up()
            if start_config is not None:
                lab.start(start_config)
        except BaseException:
            lab.down()
            raise

    def tearDownModule():
        lab = holder.get("lab")
        if lab is not None:
            lab.down()

    test_module_globals["setUpModule"] = setUpModule
    test_module_globals["tearDownModule"] = tearDownModule
    return holder


# --- file events ----------------------------------------------------------------

IN_OPEN = 0x20
IN_MOVED_FROM = 0x40  # the daemon claims a lease file by renaming it away
IN_MOVED_TO = 0x80
IN_CREATE = 0x100
IN_DELETE = 0x200
_IN_NONBLOCK = 0o4000
_IN_CLOEXEC = 0o2000000


class DirWatch:
    """Records, with their times, the files created, renamed into and deleted
    from one directory (inotify): a lease file that lives for a few
    milliseconds between the script's rename and the daemon's removal is still
    seen."""

    def __init__(self, path, mask=IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE):
        self.fd = _libc.inotify_init1(_IN_NONBLOCK | _IN_CLOEXEC)
        if self.fd < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        if _libc.inotify_add_watch(self.fd, path.encode(), mask) < 0:
            os.close(self.fd)
            raise OSError(ctypes.get_errno(), "inotify_add_watch " + path)
        self.seen = []  # (monotonic time, mask, name)

    def close(self):
        os.close(self.fd)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def events(self, mask, name):
        """Times of the events of this kind on this name, so far."""
        while True:
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                break
            now = time.monotonic()
            offset = 0
            while offset < len(data):
                _, event_mask, _, length = struct.unpack_from("iIII", data, offset)
                event_name = data[offset + 16:offset + 16 + length].rstrip(b"\0").decode()
                self.seen.append((now, event_mask, event_name))
                offset += 16 + length
        return [t for t, m, n in self.seen if m & mask and n == name]


# --- raw frames ---------------------------------------------------------------

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
ETH_P_ALL = 0x0003
ETH_P_IP = 0x0800
ETH_P_ARP = 0x0806
PACKET_OUTGOING = 4
BROADCAST = "ff:ff:ff:ff:ff:ff"


def _mac(text):
    return bytes(int(part, 16) for part in text.split(":"))


def _checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def arp_frame(op, src_mac, src_ip, target_ip, dst_mac=BROADCAST, target_mac="00:00:00:00:00:00"):
    eth = _mac(dst_mac) + _mac(src_mac) + struct.pack("!H", ETH_P_ARP)
    arp = struct.pack("!HHBBH", 1, ETH_P_IP, 6, 4, op) + _mac(src_mac) + socket.inet_aton(src_ip) + \
        _mac(target_mac) + socket.inet_aton(target_ip)
    return eth + arp


def icmp_echo_frame(src_mac, dst_mac, src_ip, dst_ip, marker):
    """An ICMP echo request whose payload carries `marker` (to recognise it)."""
    icmp = struct.pack("!BBHHH", 8, 0, 0, 0x7e55, 1) + marker
    icmp = icmp[:2] + struct.pack("!H", _checksum(icmp)) + icmp[4:]
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(icmp), 0, 0x4000, 64, 1, 0, socket.inet_aton(src_ip),
                         socket.inet_aton(dst_ip))
    header = header[:10] + struct.pack("!H", _checksum(header)) + header[12:]
    return _mac(dst_mac) + _mac(src_mac) + struct.pack("!H", ETH_P_IP) + header + icmp


def parse_arp(frame):
    """(op, sender mac, sender ip, target ip) of an ARP frame, else None."""
    if len(frame) < 42 or struct.unpack("!H", frame[12:14])[0] != ETH_P_ARP:
        return None
    op = struct.unpack("!H", frame[20:22])[0]
    sender_mac = ":".join("%02x" % b for b in frame[22:28])
    return op, sender_mac, socket.inet_ntoa(frame[28:32]), socket.inet_ntoa(frame[38:42])


class Port:
    """A raw socket on one interface of one lab namespace: sends frames and
    captures what arrives on the interface from the moment it is opened."""

    def __init__(self, netns, ifname):
        self.netns = netns
        self.ifname = ifname
        here = os.open("/proc/self/ns/net", os.O_RDONLY)
        there = os.open("/run/netns/" + netns, os.O_RDONLY)
        try:
            if _libc.setns(there, _CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns " + netns)
            try:
                self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
                self.sock.bind((ifname, 0))
                self.mac = ":".join("%02x" % b for b in self.sock.getsockname()[4])
            finally:
                if _libc.setns(here, _CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns back")
        finally:
            os.close(here)
            os.close(there)
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

    def _drain(self):
        while True:
            try:
                frame, address = self.sock.recvfrom(65535)
            except BlockingIOError:
                return
            if address[2] != PACKET_OUTGOING:
                self.received.append(frame)

    def arrived(self, match):
        """Frames received so far that `match` accepts."""
        self._drain()
        return [f for f in self.received if match(f)]


def arp_match(op=None, sender_ip=None, target_ip=None):
    def match(frame):
        arp = parse_arp(frame)
        return arp is not None and (op is None or arp[0] == op) and (sender_ip is None or arp[2] == sender_ip) and \
            (target_ip is None or arp[3] == target_ip)
    return match


def marker_match(marker):
    return lambda frame: marker in frame


def settle(ports, quiet=1.0):
    """The absence window: frames that cross the lab arrive within
    milliseconds; this gives the captures time to see anything that would."""
    time.sleep(quiet)
    for port in ports:
        port._drain()
