"""Shared support of the lab tests: the lab (tools/lab) as a Python object, waiting
by polling, and raw frames sent and captured on the lab's interfaces, all from
the toolkit (tools/tesselkit); the lab's layout comes from `tools/lab env`.

Each test module builds a fresh lab in setUpModule and removes it in
tearDownModule (also after a failure); a test that changes the lab puts back
what it changed. A lab that cannot be built here makes the module exit 77,
which CTest reports as skipped, unless TESSEL_REQUIRE_LAB=1 says it must run.
"""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))

from tesselkit import ROOT, lab
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR, VETH3_MAC
from tesselkit.frames import (BROADCAST, Port, arp_frame, arp_match, icmp_echo_frame, marker_match,
                              parse_arp, settle)
from tesselkit.inotify import IN_CREATE, IN_DELETE, IN_MOVED_FROM, IN_MOVED_TO, IN_OPEN, Watch as DirWatch
from tesselkit.isolation import check as check_isolation
from tesselkit.lab import run
from tesselkit.waiting import wait_until

# What the test files use, the toolkit's names included.
__all__ = ["BROADCAST", "DAEMON", "DEVICE_MAC", "DHCP_RANGE", "DirWatch", "IN_CREATE", "IN_DELETE", "IN_MOVED_FROM", "IN_MOVED_TO",
           "IN_OPEN", "LAB_NAME", "Lab", "LabTestCase", "PEER0_ADDR", "PEER0_MAC", "PEER1_ADDR", "Port",
           "ROOT", "TWO_PORT_CONFIG", "VETH3_ADDR", "VETH3_MAC", "arp_frame", "arp_match",
           "check_isolation", "icmp_echo_frame", "lab_module", "main", "marker_match", "parse_arp", "run", "settle",
           "unavailable_reason", "wait_for"]

# Tests use a lab of their own name, so a demo left running (tools/demo --keep) stays untouched.
LAB_NAME = os.environ.get("TESSEL_LAB", "tessel-labtest")
DAEMON = os.environ.get("TESSEL_LAB_DAEMON", os.path.join(ROOT, "build", "tessel-networkd"))

_LAYOUT = lab.layout(LAB_NAME)
PEER0_ADDR = _LAYOUT["PEER0_ADDR"]  # host on eth0's side, the second internal network
PEER0_MAC = _LAYOUT["PEER0_MAC"]
PEER1_ADDR = _LAYOUT["PEER1_ADDR"]  # DHCP server and router on eth1's side
DEVICE_MAC = _LAYOUT["DEVICE_MAC"]  # veth1, from the lab's kernel command line
DHCP_RANGE = (_LAYOUT["DHCP_FIRST"], _LAYOUT["DHCP_LAST"])


def unavailable_reason():
    """Empty when the lab can be built here, else why not."""
    return lab.unavailable_reason(DAEMON)


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
    return wait_until(condition, what, timeout, interval)


class Lab(lab.Lab):
    """The tests' lab: TESSEL_LAB's (default tessel-labtest), running TESSEL_LAB_DAEMON."""

    def __init__(self, name=LAB_NAME, daemon=DAEMON):
        super().__init__(name, daemon)


class LabTestCase(unittest.TestCase):
    """A test with a lab of its own, built before and removed after it;
    IPTABLES = "legacy" gives its device the legacy iptables and its lock."""

    IPTABLES = None

    def setUp(self):
        self.lab = Lab()
        self.addCleanup(self.lab.down)
        self.lab.up(iptables=self.IPTABLES)


def lab_module(test_module_globals, start_config=None):
    """Gives a test module setUpModule/tearDownModule that build one lab for its
    tests and remove it, whatever happened."""
    holder = {}

    def setUpModule():
        built = Lab()
        holder["lab"] = built
        try:
            built.up()
            if start_config is not None:
                built.start(start_config)
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
