#!/usr/bin/env python3
"""Both ports bridged, beside other programs that use the same filter tables.
Rules another program appends after the daemon's stay, with no warning and no
repair, for as long as the test watches (TESSEL_COEXIST_S seconds, 60 by
default). A rule inserted ahead of them that lets traffic through is named in
a WARN and made harmless: the daemon's rules behind it move ahead of it, and
it stays. With the legacy iptables, another program holding its lock while it
changes the tables keeps the look from listing the IP rules: the look is
tried again, and eth1 stays up."""
import os
import time

from labtest import ISOLATION_RULES, LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.waiting import wait_until

KEPT_S = float(os.environ.get("TESSEL_COEXIST_S", "60"))
PUT_BACK_WITHIN_S = 25  # a look every 10 s, the repair after it; generous on a loaded machine
DEADLINE_S = 20  # of every command the daemon runs
IN_FORCE = "Isolation in force: "


class CoexistenceTest(LabTestCase):
    def start_two_ports(self):
        self.lab.start(TWO_PORT_CONFIG)
        self.lab.wait_for_log("INFO", IN_FORCE, self.lab.start_mark, 60)
        self.lab.wait_for_two_port_start()
        return len(self.lab.daemon_log())

    def warnings_since(self, mark):
        return [line for line in self.lab.daemon_log_since(mark).splitlines() if " WARN " in line or "<4>" in line]

    def test_rules_appended_after_the_daemons_stay(self):
        mark = self.start_two_ports()
        self.lab.device("iptables", "-A", "FORWARD", "-s", "192.0.2.1", "-j", "DROP")
        self.lab.device("arptables", "-A", "FORWARD", "--source-ip", "192.0.2.1", "-j", "DROP")
        self.lab.device("ebtables", "-A", "FORWARD", "-p", "IPv6", "-j", "ACCEPT")
        appended = time.monotonic()
        time.sleep(KEPT_S)
        kept = time.monotonic() - appended
        log = self.lab.daemon_log_since(mark)
        self.assertNotIn("Isolation not in force", log)
        self.assertNotIn("Isolation back in force", log)
        self.assertNotIn("WARN", log)
        self.assertIn("-A FORWARD -s 192.0.2.1/32 -j DROP", [rule for rule, _ in self.lab.ip_rules()])
        self.assertTrue(any("192.0.2.1" in rule for rule, _ in self.lab.arp_rules()), self.lab.arp_rules())
        self.assertIn("-p IPv6 -j ACCEPT", [rule for rule, _ in self.lab.ebtables_rules()])
        self.assertEqual({table: count + 1 for table, count in ISOLATION_RULES.items()}, self.lab.rule_counts())
        print("timing: three rules of another program kept %.1f s with no WARN and no repair" % kept)

    def assertAcceptMovedBehind(self, mark, inserted):
        warning = self.lab.wait_for_log("WARN", "Isolation not in force (", mark, PUT_BACK_WITHIN_S)
        self.assertIn("a rule of another program ahead of the IP rules: -A FORWARD -j ACCEPT", warning.message)
        self.lab.wait_for_log("NOTICE", "Isolation back in force", mark, 15)
        back = time.monotonic() - inserted
        forward = [rule for rule, _ in self.lab.ip_rules() if rule.startswith("-A FORWARD ")]
        # The other program's rule stays, after the daemon's eight.
        self.assertEqual(ISOLATION_RULES["IP"] - 4 + 1, len(forward), forward)
        self.assertEqual("-A FORWARD -j ACCEPT", forward[-1])
        self.assertTrue(all(rule.endswith("-j DROP") for rule in forward[:-1]), forward)
        # Whole from then on: the next look finds nothing.
        time.sleep(11)
        self.assertEqual(1, self.lab.daemon_log_since(mark).count("Isolation not in force"))
        print("the daemon: WARN %s" % warning.message)
        print("timing: ACCEPT inserted ahead to the isolation back in force %.2f s" % back)

    def test_an_accept_inserted_ahead_is_named_and_moved_behind(self):
        mark = self.start_two_ports()
        inserted = time.monotonic()
        self.lab.device("iptables", "-I", "FORWARD", "1", "-j", "ACCEPT")
        self.assertAcceptMovedBehind(mark, inserted)


class CoexistenceLegacyTest(CoexistenceTest):
    IPTABLES = "legacy"

    test_rules_appended_after_the_daemons_stay = None

    def test_a_held_xtables_lock_never_takes_eth1_down(self):
        mark = self.start_two_ports()
        down = []
        with self.lab.hold_iptables_lock():
            held = time.monotonic()
            # The holder changes the tables meanwhile (here a rule of its own in
            # a chain the daemon leaves alone; arptables takes no xtables lock):
            # the look lists only after a change.
            self.lab.device("arptables", "-A", "OUTPUT", "-j", "ACCEPT")
            # The look's "iptables -S" waits for the lock until its deadline and is ended.
            warning = self.lab.wait_for_log("WARN", "Isolation not looked at (the IP rules cannot be listed", mark,
                                            10 + DEADLINE_S + 15)
            # Past the first retry too.
            while time.monotonic() - held < 10 + 2 * DEADLINE_S + 5:
                if self.lab.link("eth1")["operstate"] != "UP":
                    down.append(time.monotonic() - held)
                time.sleep(0.5)
            lasted = time.monotonic() - held
            # The document no longer vouches for what no look has found whole lately.
            document = self.lab.status_document()["isolation"]
            self.assertFalse(document["in_force"], document)
            self.assertTrue(document["problem"].startswith("not found whole by a look for over 25 s: "
                                                           "the IP rules cannot be listed"), document)
            # Nothing could list the IP rules meanwhile.
            self.assertIsNone(self.lab.logged("INFO", "Isolation looked at again", mark),
                              self.lab.daemon_log_since(mark)[-3000:])
        self.assertEqual([], down, "eth1 not up at these seconds of the lock")
        log = self.lab.daemon_log_since(mark)
        self.assertNotIn("Keeping eth1 down", log)
        self.assertNotIn("Isolation not in force", log)
        self.assertEqual([], [rule for rule, _ in self.lab.ebtables_rules("nat", "PREROUTING")])
        # Once the lock is free the next look finds it whole.
        freed = time.monotonic()
        self.lab.wait_for_log("INFO", "Isolation looked at again: in force", mark, DEADLINE_S + 15)
        # The document, written at the end of that pass, vouches for it again.
        wait_until(lambda: self.lab.status_document()["isolation"]["in_force"],
                   "the status document to show the isolation in force again", 5)
        print("the daemon: WARN %s" % warning.message)
        print("timing: lock held %.1f s, eth1 up throughout; looked at again %.1f s after it was freed" %
              (lasted, time.monotonic() - freed))


if __name__ == "__main__":
    main()
