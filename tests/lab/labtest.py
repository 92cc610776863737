"""Shared support of the lab tests: the tests' lab (tools/lab) as a Python
object, built on the toolkit (tools/tesselkit), which the tests import
directly for the rest (waiting, frames, file events, the device's facts); the lab's layout comes from `tools/lab env`. The daemon and the
operator command are TESSEL_DAEMON and TESSEL_CTL, the toolkit is on
PYTHONPATH: CTest sets them (tests/CMakeLists.txt).

Each test module builds a fresh lab in setUpModule and removes it in
tearDownModule (also after a failure); a test that changes the lab puts back
what it changed. A lab that cannot be built here makes the module exit 77,
which CTest reports as skipped, unless TESSEL_REQUIRE_LAB=1 says it must run.
"""
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import unittest

try:
    from tesselkit import lab
    from tesselkit.device import VETH3_ADDR
    from tesselkit.frames import Port, settle
    from tesselkit.logs import entries
    from tesselkit.timelines import isolation_rule_counts
    from tesselkit.waiting import wait_until
except ModuleNotFoundError as missing:
    sys.exit("labtest: %s: PYTHONPATH must hold the source's tools/ (CTest sets it)" % missing)

__all__ = ["CTL", "DAEMON", "DEVICE_MAC", "DHCP_RANGE", "ISOLATION_RULES", "LAB_NAME", "Lab", "LabTestCase",
           "LinkEvents", "PEER0_ADDR", "PEER0_MAC", "PEER1_ADDR", "Ports", "TwoPortTestCase", "figures", "lab_module", "main",
           "seconds_until", "unavailable_reason"]

# Tests use a lab of their own name, so a demo left running (tools/demo --keep) stays untouched.
# A test that runs beside the others (OWN_LAB in tests/CMakeLists.txt) is told
# its own part of the name (TESSEL_LAB_OWN), so its lab shares no namespace,
# state directory or lock with theirs.
LAB_NAME = os.environ.get("TESSEL_LAB", "tessel-labtest")
if os.environ.get("TESSEL_LAB_OWN"):
    LAB_NAME += "-" + os.environ["TESSEL_LAB_OWN"]
DAEMON = os.environ.get("TESSEL_DAEMON")
CTL = os.environ.get("TESSEL_CTL")  # the operator command, copied into the lab with the daemon

_LAYOUT = lab.layout(LAB_NAME)
PEER0_ADDR = _LAYOUT["PEER0_ADDR"]  # host on eth0's side, the second internal network
PEER0_MAC = _LAYOUT["PEER0_MAC"]
PEER1_ADDR = _LAYOUT["PEER1_ADDR"]  # DHCP server and router on eth1's side
DEVICE_MAC = _LAYOUT["DEVICE_MAC"]  # veth1, from the lab's kernel command line
DHCP_RANGE = (_LAYOUT["DHCP_FIRST"], _LAYOUT["DHCP_LAST"])
# The rules of the two-port isolation, as many as the daemon puts in force.
ISOLATION_RULES = isolation_rule_counts()


def unavailable_reason():
    """Empty when the lab can be built here, else why not."""
    return lab.unavailable_reason(DAEMON)


def main():
    """Runs the module's tests; exit 77 (skipped) where no lab can be built."""
    for variable, value in (("TESSEL_DAEMON", DAEMON), ("TESSEL_CTL", CTL)):
        if not value:
            sys.exit("lab test: %s is not set (CTest sets it; see README)" % variable)
    why = unavailable_reason()
    if why:
        if os.environ.get("TESSEL_REQUIRE_LAB") == "1":
            print("lab test cannot run: %s (TESSEL_REQUIRE_LAB=1)" % why)
            sys.exit(1)
        print("SKIPPED: %s" % why)
        sys.exit(77)
    unittest.main(verbosity=2)



def seconds_until(condition, what, timeout, since, interval=0.002):
    """Seconds from `since` (a time.monotonic() reading) until `condition` is
    found to hold, asked every `interval`: a few milliseconds' resolution, for
    figures of a few tens of milliseconds."""
    wait_until(condition, what, timeout, interval)
    return time.monotonic() - since


def figures(what, seconds):
    """Prints "figures: WHAT: min/median/max ... ms over N" and returns
    (min, median, max) in seconds."""
    low, middle, high = min(seconds), statistics.median(seconds), max(seconds)
    print("figures: %s: min/median/max %.1f/%.1f/%.1f ms over %d (%s)" % (
        what, 1000 * low, 1000 * middle, 1000 * high, len(seconds), ", ".join("%.1f" % (1000 * s) for s in seconds)))
    return low, middle, high


class Ports:
    """Raw-socket ports (tesselkit.frames.Port) on the lab's interfaces, by
    name: veth1 and veth3 on the device, peer0 on eth0's side, peer1 on eth1's.
    Closed together at the end of a with block, or by close()."""

    def __init__(self, lab):
        self.places = {"veth1": lab.dev, "veth3": lab.dev, "peer0": lab.net0, "peer1": lab.net1}
        self.opened = []

    def open(self, *names):
        """The port of each name, in order; the port itself for one name."""
        ports = []
        for name in names:
            ports.append(Port(self.places[name], name))
            self.opened.append(ports[-1])
        return ports[0] if len(ports) == 1 else tuple(ports)

    def settle(self):
        """Gives every open port time to see a frame that would still come (frames.settle)."""
        settle(self.opened)

    def close(self):
        for port in self.opened:
            port.close()
        self.opened = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class LinkEvents:
    """The kernel's link notifications of a namespace (`ip -o monitor link`),
    each line with the time it arrived (time.time()), while the block runs."""

    def __init__(self, netns):
        self.netns = netns
        self.lines = []

    def __enter__(self):
        self.monitor = subprocess.Popen(["ip", "-o", "-n", self.netns, "monitor", "link"], stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True, bufsize=1)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        return self

    def _read(self):
        for line in self.monitor.stdout:
            self.lines.append((time.time(), line.rstrip("\n")))

    def __exit__(self, *_):
        self.monitor.terminate()
        self.monitor.wait()
        self.reader.join(5)

    def first(self, since, ifname, without):
        """Time of the first notification after `since` of interface `ifname`
        whose flags lack `without` (e.g. "LOWER_UP": its carrier lost), or None."""
        for arrived, line in list(self.lines):
            words = line.split()
            if arrived >= since and len(words) > 2 and words[1].split("@")[0].rstrip(":") == ifname and \
                    without not in words[2]:
                return arrived
        return None


class Lab(lab.Lab):
    """The tests' lab: LAB_NAME's (TESSEL_LAB's, default tessel-labtest, and
    TESSEL_LAB_OWN's part), running TESSEL_DAEMON."""

    def __init__(self, name=LAB_NAME, daemon=DAEMON, ctl=CTL):
        super().__init__(name, daemon, ctl)

    def wait_for_two_port_start(self):
        """Waits until the two-port example is in force: veth1's lease, the first
        cycle and veth3's static address; returns the lease."""
        lease = self.wait_for_lease()
        self.wait_for_first_cycle()
        wait_until(lambda: self.addresses("veth3") == [VETH3_ADDR + "/24"], "veth3's static address", 10)
        return lease

    def logged(self, level, message, since=0):
        """The first entry of this level whose message starts with `message`
        after offset `since` of the daemon's log, or None; cheap enough to be
        asked every few milliseconds."""
        text = self.daemon_log_since(since)
        if message not in text:
            return None
        return next((e for e in entries(text) if e.level == level and e.message.startswith(message)), None)

    def put_lease(self, address, router, ifname="veth1", mask="255.255.255.0"):
        """Puts a lease file on the device as the client's script does: written
        under its name in a directory made beside it, then renamed into place.
        Returns the time of the rename (time.monotonic())."""
        tmp = "/proc/%d/root/tmp" % self.holder_pid()
        name = "dhcp_%s.txt" % ifname
        part = tempfile.mkdtemp(prefix=name + ".", dir=tmp)
        with open(os.path.join(part, name), "w") as f:
            f.write("%s %s %s\n%s\n" % (ifname, address, mask, router))
        os.chmod(os.path.join(part, name), 0o600)
        put = time.monotonic()
        os.rename(os.path.join(part, name), os.path.join(tmp, name))
        os.rmdir(part)
        return put

    def rule_counts(self):
        """How many ARP, IP and link-layer rules are in force."""
        return {"ARP": len(self.arp_rules()), "IP": len(self.ip_rules()), "link layer": len(self.ebtables_rules())}

    def work_status(self, work):
        """The status document's record of one piece of work ("bridge", "veth3" ...)."""
        document = self.status_document()
        return None if document is None else document["work"][work]


class LabTestCase(unittest.TestCase):
    """A test with a lab of its own, built before and removed after it;
    IPTABLES = "legacy" gives its device the legacy iptables and its lock."""

    IPTABLES = None

    def setUp(self):
        self.lab = Lab()
        self.addCleanup(self.lab.down)
        self.lab.up(iptables=self.IPTABLES)


class TwoPortTestCase(unittest.TestCase):
    """Tests on their module's lab (MODULE, from lab_module with the two-port
    configuration), each class once the two-port start is over (self.lease is
    veth1's); self.ports opens raw-socket ports, closed after each test."""

    MODULE = None

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.MODULE["lab"]
        cls.lease = cls.lab.wait_for_two_port_start()

    def setUp(self):
        self.ports = Ports(self.lab)
        self.addCleanup(self.ports.close)


def lab_module(test_module_globals, start_config=None, phy_file=None):
    """Gives a test module setUpModule/tearDownModule that build one lab for its
    tests and remove it, whatever happened; the daemon, started on `start_config`,
    writes the PHY mode to `phy_file` (see Lab.start)."""
    holder = {}

    def setUpModule():
        built = Lab()
        holder["lab"] = built
        try:
            built.up()
            if start_config is not None:
                built.start(start_config, phy_file)
        except BaseException:
            built.down()
            raise

    def tearDownModule():
        built = holder.get("lab")
        if built is not None:
            built.down()

    test_module_globals["setUpModule"] = setUpModule
    test_module_globals["tearDownModule"] = tearDownModule
    return holder
