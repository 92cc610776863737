#!/usr/bin/env python3
"""A first bridge build cut short: one of its commands hangs (the device's
iptables stops at its first rule) and the daemon is stopped (SIGTERM) while it
waits, as a shutdown in the middle of a build would. Meanwhile, and after the
daemon is gone, eth1's side keeps sending frames to the internal MACs and the
internal host keeps broadcasting (a round every 5 ms): none crosses. The
device is left with eth1 and veth0 blocked; the next start builds everything,
lifts the blocks, and the isolation checks pass."""
import os
import signal
import time

from isolation_flood import FROM_ETH1_SIDE, FROM_INTERNAL_HOST, IsolationFlood, assert_nothing_crossed
from labtest import ISOLATION_RULES, PEER1_ADDR, LabTestCase, main
from tesselkit import isolation
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.waiting import wait_until

HUNG_S = 1.0  # of flood while the build hangs, before the stop
AFTER_S = 2.0  # of flood once the daemon is gone
# What a two-port build puts before its first command: eth1 and veth0 blocked.
BLOCKS = {"PREROUTING": ["-i eth1 -j DROP", "-i veth0 -j DROP"],
          "POSTROUTING": ["-o eth1 -j DROP", "-o veth0 -j DROP"]}


class StoppedBuildTest(LabTestCase):
    def blocks(self):
        return {chain: [rule for rule, _ in self.lab.ebtables_rules("nat", chain)] for chain in BLOCKS}

    def counts(self):
        return self.lab.rule_counts()

    def test_a_build_cut_short_by_a_stop_lets_nothing_cross(self):
        with self.lab.stalled_tool("iptables", "-A") as stall:
            with IsolationFlood(self.lab) as flood:
                started = time.monotonic()
                self.lab.start(TWO_PORT_CONFIG)
                mark = self.lab.start_mark
                wait_until(stall.stalled, "the bridge build to add its first IP rule", 20)
                hung = time.monotonic()
                time.sleep(HUNG_S)
                os.kill(self.lab.daemon_pid(), signal.SIGTERM)
                wait_until(lambda: self.lab.daemon_pid() is None, "the daemon to stop", 10)
                stopped = time.monotonic()
                time.sleep(AFTER_S)
            print("flood of %.1f s, a round every 5 ms: the build hung %.2f s after the start, SIGTERM %.1f s later, "
                  "the daemon gone %.2f s after it" % (flood.flood.stopped - flood.flood.started, hung - started,
                                                       HUNG_S, stopped - hung - HUNG_S))
            for line in flood.summary():
                print("  " + line)
            self.assertNotIn("Done with bridge setup", self.lab.daemon_log_since(mark))
            block, eth1 = self.blocks(), self.lab.link("eth1")["operstate"]
            print("left behind: eth1 %s, the blocks %s, rules %s" % (eth1, block, self.counts()))

        assert_nothing_crossed(self, flood, FROM_ETH1_SIDE + FROM_INTERNAL_HOST)
        # Control: the device's capture sees what may cross (the internal
        # network was up when the build hung).
        self.assertGreater(len(flood.rounds("peer0-to-veth3", "device", "veth3", False)), 0)
        # A stopped daemon runs no more commands, so eth1 stays as the build
        # left it; the blocks on eth1 and veth0 are what keep it shut.
        self.assertEqual(BLOCKS, block, "the blocks stay after a build cut short")

        # The next start builds everything and lifts the block.
        restarted = time.monotonic()
        self.lab.start(TWO_PORT_CONFIG)
        mark = self.lab.start_mark
        self.lab.wait_for_log("INFO", "Done with bridge setup", mark, 20)
        wait_until(lambda: self.counts() == ISOLATION_RULES, lambda: "the rules in force (%s)" % (self.counts(),), 15)
        wait_until(lambda: self.blocks() == {chain: [] for chain in BLOCKS},
                   lambda: "the blocks lifted (%s)" % self.blocks(), 15)
        lifted = time.monotonic()
        self.lab.wait_for_lease()
        wait_until(lambda: self.lab.addresses("veth3") == [VETH3_ADDR + "/24"], "veth3's static address", 10)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)], 10)
        print("timing: restart to the isolation in force and the blocks lifted %.2f s" % (lifted - restarted))
        self.assertEqual("UP", self.lab.link("eth1")["operstate"])
        self.assertEqual(0, isolation.check(self.lab), "isolation checks failed (see above)")


if __name__ == "__main__":
    main()
