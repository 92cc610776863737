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
import sys
import unittest

try:
    from tesselkit import lab
except ModuleNotFoundError as missing:
    sys.exit("labtest: %s: PYTHONPATH must hold the source's tools/ (CTest sets it)" % missing)

__all__ = ["CTL", "DAEMON", "DEVICE_MAC", "DHCP_RANGE", "LAB_NAME", "Lab", "LabTestCase", "PEER0_ADDR", "PEER0_MAC",
           "PEER1_ADDR", "lab_module", "main", "unavailable_reason"]

# Tests use a lab of their own name, so a demo left running (tools/demo --keep) stays untouched.
LAB_NAME = os.environ.get("TESSEL_LAB", "tessel-labtest")
DAEMON = os.environ.get("TESSEL_DAEMON")
CTL = os.environ.get("TESSEL_CTL")  # the operator command, copied into the lab with the daemon

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



class Lab(lab.Lab):
    """The tests' lab: TESSEL_LAB's (default tessel-labtest), running TESSEL_DAEMON."""

    def __init__(self, name=LAB_NAME, daemon=DAEMON, ctl=CTL):
        super().__init__(name, daemon, ctl)


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
