#!/usr/bin/env python3
"""Another program on the device undoes the same thing again as soon as the
daemon has put it back: veth3's address flushed, br0 removed. The first repair
comes at once; each change found within 10 s of the last repair is the same
fight and waits 1, 2, 4, 8 s (the retry waits), so the daemon never runs in a
loop against the other program. Meanwhile the status document counts the
changes in a row and shows the repair pending, and tessel-networkctl status
reports it (exit 1). A change after the fight is over is repaired at once
again. The waits are printed ("timing:")."""
import datetime
import re
import time
import unittest

from labtest import ISOLATION_RULES, PEER1_ADDR, lab_module, main
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.inotify import IN_CLOSE_NOWRITE, IN_OPEN, Watch
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

FIGHT_WINDOW_S = 10
FOUND_VETH3 = "veth3's address %s/24 was removed" % VETH3_ADDR
# A wait ends at the first pass after it, and passes come at least once a second.
LATE_S = 1.5


def stamp_seconds(entry):
    """The log entry's time stamp in seconds; only differences between two are meaningful."""
    stamp = datetime.datetime.strptime(entry.stamp, "%Y-%m-%d %H:%M:%S.%f")
    return (stamp - datetime.datetime(2000, 1, 1)).total_seconds()


class OutsideFightTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lab = MODULE["lab"]
        cls.lease = cls.lab.wait_for_two_port_start()

    def ip(self, *args):
        run(["ip", "-n", self.lab.dev] + list(args))

    def entries(self, mark, level, message):
        return [e for e in self.lab.log_entries_since(mark) if e.level == level and e.message.startswith(message)]

    def pending_record(self, work, count):
        """The status document's record of `work` once it shows `count` changes
        in a row with the repair pending. (A repair made at once is never seen
        pending: the document is written after each pass.)"""
        def shown():
            record = self.lab.work_status(work)
            last = record and record["last_outside_change"]
            return record if last and record["outside_changes"] == count and not last["repaired"] else None
        return wait_until(shown, lambda: "the status document to show %d outside changes of %s, pending (%s)" % (
            count, work, self.lab.work_status(work)), 5)

    def repaired_record(self, work, count):
        """The status document's record of `work` when it shows `count` changes
        in a row and the last one repaired, else None."""
        record = self.lab.work_status(work)
        last = record and record["last_outside_change"]
        return record if last and record["outside_changes"] == count and last["repaired"] else None

    def assertWaitsGrow(self, mark, found, started, title, rounds):
        """Each WARN about `found` is followed by one repair (its first entry
        `started`, its NOTICE that `title` was repaired), at once for the first
        and after 1, 2, 4 ... s for the next; returns the waits, from each WARN
        to the repair's start."""
        warnings = self.entries(mark, "WARN", found)
        starts = [e for e in self.lab.log_entries_since(mark) if e.message.startswith(started)]
        repairs = self.entries(mark, "NOTICE", "Repaired %s after an outside change" % title)
        for entries in (warnings, starts, repairs):
            self.assertEqual(rounds, len(entries), self.lab.daemon_log_since(mark))
        waits = [stamp_seconds(start) - stamp_seconds(warning) for warning, start in zip(warnings, starts)]
        print("timing: %s undone %d times: the repairs began %s s after the WARN and were done %s s after it" % (
            title, rounds, ", ".join("%.2f" % wait for wait in waits),
            ", ".join("%.2f" % (stamp_seconds(repair) - stamp_seconds(warning))
                      for warning, repair in zip(warnings, repairs))))
        self.assertLess(waits[0], 1.0, "the first repair comes at once")
        for i, wait in enumerate(waits[1:]):
            expected = 2 ** i
            message = "repair %d waited %.2f s, not %d s" % (i + 2, wait, expected)
            self.assertGreaterEqual(wait, expected - 0.05, message)
            self.assertLessEqual(wait, expected + LATE_S, message)
        return waits

    def test_br0_removed_over_and_over(self):
        rounds = 3
        ports = ["eth0", "eth1", "veth0", "veth2"]
        wait_until(lambda: self.lab.bridge_ports() == ports, "br0 with its ports", 10)
        mark = len(self.lab.daemon_log())
        for i in range(rounds):
            # Each time once the rebuild's pass is over: veth1 has its lease
            # again (removed during the pass, br0 would leave the client
            # without a server, and the pass would wait for it for 9 s).
            wait_until(lambda: len(self.entries(mark, "NOTICE", "Repaired bridge setup")) == i and
                       self.lab.bridge_ports() == ports and self.lab.lease_address() == self.lease and
                       self.lab.default_routes() == [(PEER1_ADDR, "veth1", 10)] and
                       self.lab.addresses("veth3") == [VETH3_ADDR + "/24"], "br0 rebuilt (%d)" % i, 20)
            self.lab.wait_for_cycles(1)
            self.ip("link", "del", "br0")
            if i > 0:
                self.pending_record("bridge", i + 1)
        wait_until(lambda: len(self.entries(mark, "NOTICE", "Repaired bridge setup")) == rounds, "the last rebuild", 10)
        self.assertWaitsGrow(mark, "br0 was removed; rebuilding the bridge", "Setting up bridge for control network",
                             "bridge setup", rounds)
        self.assertEqual(rounds, self.lab.daemon_log_since(mark).count("Setting up bridge for control network"))
        self.assertEqual(ports, self.lab.bridge_ports())
        self.assertEqual(ISOLATION_RULES, self.lab.rule_counts())

    def test_veth3_flushed_over_and_over(self):
        rounds = 5
        addressed = [VETH3_ADDR + "/24"]
        # veth1's client settled (a bridge rebuild before starts a new one).
        wait_until(lambda: self.lab.lease_address() == self.lease and
                   self.lab.default_routes() == [(PEER1_ADDR, "veth1", 10)], "veth1's lease in force", 20)
        self.lab.wait_for_cycles(2)
        mark = len(self.lab.daemon_log())
        config = self.lab.env["CONFIG"].rsplit("/", 1)[1]
        # Each pass opens and closes the configuration: counted by its opens.
        with Watch(self.lab.state, IN_OPEN | IN_CLOSE_NOWRITE) as passes:
            began = time.monotonic()
            for i in range(rounds):
                wait_until(lambda: self.lab.addresses("veth3") == addressed, "veth3's address back (%d)" % i, 15,
                           interval=0.005)
                # And the repair's pass over (the document is written after it):
                # a flush inside that pass, between the address going back and
                # the pass's end, is another case than a fight's next round.
                if i > 0:
                    wait_until(lambda: self.repaired_record("veth3", i), "the repair of round %d recorded" % i, 15,
                               interval=0.005)
                self.ip("addr", "flush", "dev", "veth3")
                if i > 0:
                    record = self.pending_record("veth3", i + 1)
                    self.assertEqual(FOUND_VETH3, record["last_outside_change"]["found"])
            # The last wait is 8 s: tessel-networkctl status has time to see it.
            result = self.lab.ctl("status", "--full")
            self.assertEqual(1, result.returncode, result.stdout + result.stderr)
            self.assertRegex(result.stdout, r"\nveth3 +%d +\S+ +not yet +%s\n" % (rounds, re.escape(FOUND_VETH3)))
            self.assertIn("addressing of veth3 undone from outside, not yet repaired", result.stdout)
            while self.lab.addresses("veth3") != addressed:
                self.assertLess(time.monotonic() - began, 30, "veth3's address back after the fight")
                time.sleep(0.01)
            fight = time.monotonic() - began
            count = passes.count(IN_OPEN, config)
        waits = self.assertWaitsGrow(mark, FOUND_VETH3 + "; setting up veth3 again",
                                     "Configuring interface veth3 for static IP", "addressing of veth3", rounds)
        self.assertEqual(rounds, self.lab.daemon_log_since(mark).count("Configuring veth3 for"))
        # A pass a second and one for each change found; nothing in a loop.
        print("%d passes in the %.1f s of the fight" % (count, fight))
        self.assertLessEqual(count, fight + 2 * rounds + 2)
        self.assertGreaterEqual(sum(waits), 1 + 2 + 4 + 8)

        # Once the fight window is over, a change is the first of a new row.
        time.sleep(FIGHT_WINDOW_S + 0.5)
        mark = len(self.lab.daemon_log())
        changed = time.monotonic()
        self.ip("addr", "flush", "dev", "veth3")
        wait_until(lambda: self.lab.addresses("veth3") == addressed, "veth3's address back", 5, interval=0.005)
        back = time.monotonic() - changed
        print("timing: after the fight, veth3 flushed again: its address back after %.0f ms" % (1000 * back))
        self.assertLess(back, 2.0)
        wait_until(lambda: (lambda r: r["outside_changes"] == 1 and r["last_outside_change"]["repaired"])(
            self.lab.work_status("veth3")), lambda: "the status document to show one outside change of veth3, "
                                                    "repaired (%s)" % self.lab.work_status("veth3"), 5)


if __name__ == "__main__":
    main()
