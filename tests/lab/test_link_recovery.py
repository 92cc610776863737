#!/usr/bin/env python3
"""eth0 loses its carrier on the simulated device (its peer goes down): every
cycle the daemon bounces eth0 and runs the register write sequence (through
the lab's recording devmem stand-in) until the peer is back; then eth0 is a
port of br0 again and the sequence stops."""
import re
import subprocess

from labtest import LabTestCase, main
from tesselkit import timelines
from tesselkit.lab import run
from tesselkit.waiting import wait_until
from tesselkit.device import VETH3_ADDR, config_text

# The register writes, in order, as devmem is called.
REGISTER_SEQUENCE = timelines.commands(timelines.fixture("register-writes.timeline"))

CONFIG = config_text("eth0eth1", "frame", "static 192.168.77.60 255.255.255.0 192.168.77.1",
                     "static %s 255.255.255.0 0.0.0.0" % VETH3_ADDR)


class LinkRecoveryTest(LabTestCase):
    def sequences(self):
        """The register write sequences recorded so far, as lists of (time, write)."""
        writes = self.lab.devmem_writes()
        return [writes[i:i + len(REGISTER_SEQUENCE)] for i in range(0, len(writes), len(REGISTER_SEQUENCE))]

    def assertWholeSequences(self, sequences):
        for sequence in sequences:
            self.assertEqual(REGISTER_SEQUENCE, [write for _, write in sequence])
            # Six steps with a 100 ms pause after each.
            self.assertGreaterEqual(sequence[-1][0] - sequence[0][0], 0.45)

    def eth0_in_br0(self):
        return self.lab.link("eth0").get("master") == "br0"

    def test_lost_carrier_bounces_eth0_and_pulses_registers_until_the_peer_is_back(self):
        self.lab.start(CONFIG)
        wait_until(lambda: self.lab.addresses("veth1") == ["192.168.77.60/24"], "the daemon's first cycle", 15)
        wait_until(self.eth0_in_br0, "eth0 in br0", 10)
        self.lab.wait_for_first_cycle()
        # A usable first cycle runs the sequence once.
        self.assertEqual(1, len(self.sequences()))
        self.assertWholeSequences(self.sequences())

        monitor = subprocess.Popen(["ip", "-n", self.lab.dev, "-o", "monitor", "link"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(monitor.wait)
        self.addCleanup(monitor.terminate)
        # The cable is pulled, and the port drops out of the bridge with it.
        run(["ip", "-n", self.lab.net0, "link", "set", "peer0", "down"])
        run(["ip", "-n", self.lab.dev, "link", "set", "eth0", "nomaster"])
        self.addCleanup(run, ["ip", "-n", self.lab.net0, "link", "set", "peer0", "up"])

        wait_until(lambda: len(self.sequences()) >= 4, "three more register write sequences", 15)
        # While the link is down the daemon does not put eth0 back.
        self.assertFalse(self.eth0_in_br0())
        run(["ip", "-n", self.lab.net0, "link", "set", "peer0", "up"])
        wait_until(self.eth0_in_br0, "eth0 back in br0", 10)
        monitor.terminate()
        events = monitor.communicate(timeout=10)[0]

        sequences = self.sequences()
        self.assertWholeSequences(sequences)
        # One per cycle: a cycle's sequence and bounce plus the one-second pause.
        starts = [sequence[0][0] for sequence in sequences[1:]]
        for earlier, later in zip(starts, starts[1:]):
            self.assertGreater(later - earlier, 1.4)
        # Each cycle set eth0 down and up again: administratively down events.
        downs = [line for line in events.splitlines() if re.search(r"\beth0\b.*<(?![^>]*\bUP\b)[^>]*>", line)]
        self.assertGreaterEqual(len(downs), 3, events)

        # With the link back the sequence stops.
        count = len(sequences)
        self.lab.wait_for_cycles(3)
        self.assertEqual(count, len(self.sequences()))
        self.assertTrue(self.eth0_in_br0())


if __name__ == "__main__":
    main()
