#!/usr/bin/env python3
"""The daemon started on a device that has neither bridge nor rules, as at
boot, with both ports to bridge, while eth1's side keeps sending frames to the
internal MACs and the internal host keeps broadcasting (a round every 5 ms):
no frame crosses at any moment of the start-up and the first build, or after
it. The controls show the frames were on the wire and reached the device, and
that what may cross does once the build is done."""
import time

from isolation_flood import CONTROLS, FROM_ETH1_SIDE, FROM_INTERNAL_HOST, IsolationFlood, assert_nothing_crossed
from labtest import DEVICE_MAC, ISOLATION_RULES, PEER0_MAC, LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG, VETH3_MAC
from tesselkit.frames import Port, ethertype_match, raw_frame
from tesselkit.waiting import wait_until

AFTER_S = 2  # of flood once the build is done and the isolation in force
SENT = 5


class FirstBuildTest(LabTestCase):
    def counts(self):
        return self.lab.rule_counts()

    def eth1_block(self):
        return ([rule for rule, _ in self.lab.ebtables_rules("nat", "PREROUTING")] +
                [rule for rule, _ in self.lab.ebtables_rules("nat", "POSTROUTING")])

    def test_nothing_crosses_during_the_first_build(self):
        self.assertEqual({"ARP": 0, "IP": 0, "link layer": 0}, self.counts(), "a fresh device has no rules")
        self.assertIsNone(self.lab.bridge_ports())
        with IsolationFlood(self.lab) as flood:
            started = time.monotonic()
            self.lab.start(TWO_PORT_CONFIG)
            mark = self.lab.start_mark
            done = self.lab.wait_for_log("INFO", "Done with bridge setup", mark, 30)
            built = time.monotonic()
            self.lab.wait_for_first_cycle()
            wait_until(lambda: self.counts() == ISOLATION_RULES and not self.eth1_block(),
                       lambda: "the rules in force and eth1's block lifted (%s, %s)" % (self.counts(),
                                                                                       self.eth1_block()), 15)
            in_force = time.monotonic()
            # Control of the neighbours' captures: the device's own side of each
            # network reaches them, so a frame that crossed would have been seen.
            with Port(self.lab.dev, "veth1") as veth1, Port(self.lab.dev, "veth3") as veth3:
                for _ in range(SENT):
                    veth1.send(raw_frame(DEVICE_MAC, flood.peer1_mac, b"veth1-to-eth1"))
                    veth3.send(raw_frame(VETH3_MAC, PEER0_MAC, b"veth3-to-peer0"))
            time.sleep(AFTER_S)
        print("flood of %.1f s, a round every 5 ms: daemon start to %r %.2f s, to the isolation in force %.2f s" %
              (flood.flood.stopped - flood.flood.started, done.message, built - started, in_force - started))
        for line in flood.summary():
            print("  " + line)

        assert_nothing_crossed(self, flood, FROM_ETH1_SIDE + FROM_INTERNAL_HOST)
        # Control: what may cross did, once the build was done.
        for flow, (interface, outgoing) in CONTROLS.items():
            self.assertGreater(len(flood.rounds(flow, "device", interface, outgoing)), 0, flow)
        for side, interface, marker in (("net1", "peer1", b"veth1-to-eth1"), ("net0", "peer0", b"veth3-to-peer0")):
            self.assertEqual(SENT, len(flood.captures[side].seen(ethertype_match(marker=marker), {interface}, False)),
                             "control: %s on %s" % (marker, interface))


if __name__ == "__main__":
    main()
