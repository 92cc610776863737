#!/usr/bin/env python3
"""How soon the daemon acts on what it waits for between its passes, with both
ports bridged: a lease file put in place (as the DHCP client's script does:
written beside it, then renamed) becoming veth1's address; eth0's carrier lost
starting the recovery (eth0 set down, the register writes); an edited
configuration, closed after writing in place or renamed into place, becoming
veth3's new address. Each is made a little after a pass began, when the next
one-second pass is most of a second away, five times at different moments.
The figures are printed ("figures: ... min/median/max"); the goal is 50 ms,
and their median is held only to a generous bound, which a daemon that waited
for its next one-second pass would miss."""
import os
import re
import time
import unittest

from labtest import PEER1_ADDR, LinkEvents, figures, lab_module, main, seconds_until
from tesselkit import timelines
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

SAMPLES = 5
# After a pass began (seen within 50 ms), so that the next one-second pass is
# at least 0.8 s away.
PHASES_S = [0.02 + 0.03 * i for i in range(SAMPLES)]
# The goal is 50 ms. The median is held to a generous bound, which a daemon
# that waited for its next one-second pass would miss all the same; every
# sample only to what that pass would take, since a busy machine may hold one up
# by a few hundred milliseconds, or a longer pass (the isolation's look) be
# running when the event comes.
MEDIAN_WITHIN_S = 0.2
WITHIN_S = 1.5
LEASES = ("192.168.77.150", "192.168.77.151")
VETH3_OTHER = "10.253.254.250"
REGISTER_SEQUENCE = timelines.commands(timelines.fixture("register-writes.timeline"))


def with_veth3(address):
    return re.sub(r"(?m)^veth3 static \S+", "veth3 static " + address, TWO_PORT_CONFIG)


class EventLatencyTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lab = MODULE["lab"]
        cls.lease = cls.lab.wait_for_two_port_start()
        cls.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])

    def assertPrompt(self, measured):
        low, middle, high = measured
        self.assertLess(middle, MEDIAN_WITHIN_S)
        self.assertLess(high, WITHIN_S)

    def after_a_pass_began(self, phase):
        self.lab.wait_for_cycles(1)
        time.sleep(phase)

    # --- a lease file -----------------------------------------------------------------

    def test_a_lease_file_becomes_the_address(self):
        samples = []
        self.addCleanup(self.lab.put_lease, self.lease, PEER1_ADDR)
        for i, phase in enumerate(PHASES_S):
            address = LEASES[i % 2]
            self.after_a_pass_began(phase)
            put = self.lab.put_lease(address, PEER1_ADDR)
            samples.append(seconds_until(lambda: self.lab.addresses("veth1") == [address + "/24"],
                                         "veth1 to take the lease of %s" % address, 5, put, interval=0.001))
            self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])
        self.assertPrompt(figures("lease file in place to veth1's address", samples))

    # --- eth0's carrier ---------------------------------------------------------------

    def test_eth0_losing_its_carrier_starts_the_recovery(self):
        # The kernel itself reports a lost carrier late at times: it passes on
        # link state changes of a port like eth0 (a physical port, or a veth
        # whose peer has the same index) in batches at most once a second, for
        # all namespaces together. What the daemon adds is timed from the
        # kernel's notification.
        from_loss, to_bounce, to_writes = [], [], []
        peer0 = ["ip", "-n", self.lab.net0, "link", "set", "peer0"]
        self.addCleanup(run, peer0 + ["up"])
        with self.lab.traced_tools(["ip"]) as calls, LinkEvents(self.lab.dev) as kernel:
            for phase in PHASES_S:
                wait_until(lambda: self.lab.link("eth0")["operstate"] == "UP", "eth0's carrier", 10)
                self.after_a_pass_began(phase)
                commands, writes = len(calls()), len(self.lab.devmem_writes())
                lost = time.time()
                run(peer0 + ["down"])
                bounce = wait_until(lambda: [t for t, c in calls()[commands:] if c == "ip link set eth0 down"],
                                    "the daemon to set eth0 down", 5, interval=0.005)[0]
                write = wait_until(lambda: self.lab.devmem_writes()[writes:], "the first register write", 5,
                                   interval=0.005)[0][0]
                reported = wait_until(lambda: kernel.first(lost, "eth0", "LOWER_UP"),
                                      "the kernel's notification of eth0's lost carrier", 5)
                from_loss.append(bounce - lost)
                to_bounce.append(bounce - reported)
                to_writes.append(write - reported)
                run(peer0 + ["up"])
                # The sequence in hand runs to its end; the passes after the
                # carrier's return write nothing more.
                wait_until(lambda: self.lab.link("eth0")["operstate"] == "UP", "eth0's carrier back", 10)
                self.lab.wait_for_cycles(2)
                wait_until(lambda: len(self.lab.devmem_writes()) % len(REGISTER_SEQUENCE) == 0,
                           "the register writes over", 5)
        figures("peer0 set down to ip link set eth0 down (the kernel's delay included)", from_loss)
        self.assertPrompt(figures("the kernel's notice of eth0's lost carrier to ip link set eth0 down", to_bounce))
        self.assertPrompt(figures("the kernel's notice of eth0's lost carrier to the first register write", to_writes))
        # The kernel's own delay is a second at most.
        self.assertLess(max(from_loss), 1 + WITHIN_S)

    # --- the configuration ------------------------------------------------------------

    def test_an_edited_configuration_is_applied(self):
        path = self.lab.env["CONFIG"]

        def in_place(text):
            with open(path, "w") as f:
                f.write(text)
                f.flush()
                closed = time.monotonic()
            return closed

        def renamed(text):
            with open(path + ".edit", "w") as f:
                f.write(text)
            put = time.monotonic()
            os.rename(path + ".edit", path)
            return put

        self.addCleanup(renamed, TWO_PORT_CONFIG)
        for name, write in (("closed after writing in place", in_place), ("renamed into place", renamed)):
            samples = []
            for phase in PHASES_S:
                address = VETH3_ADDR if self.lab.addresses("veth3") == [VETH3_OTHER + "/24"] else VETH3_OTHER
                self.after_a_pass_began(phase)
                written = write(with_veth3(address))
                samples.append(seconds_until(lambda: self.lab.addresses("veth3") == [address + "/24"],
                                             "veth3's address %s" % address, 5, written, interval=0.001))
            self.assertPrompt(figures("configuration %s to veth3's new address" % name, samples))
        renamed(TWO_PORT_CONFIG)
        wait_until(lambda: self.lab.addresses("veth3") == [VETH3_ADDR + "/24"], "veth3's address back", 5)


if __name__ == "__main__":
    main()
