#!/usr/bin/env python3
"""Both ports bridged and the isolation in force: in an idle minute the daemon
starts no listing of the filter tables (it learns from the kernel, without a
program, that they did not change), and another program's flush of any of the
three is still put back within 15 s. Once on each iptables backend the
machine has (its nft one, the lab's default, and the legacy one); arptables is
the legacy one and ebtables the machine's choice in every lab. The figures are
printed ("timing:")."""
import datetime
import time
import unittest

from labtest import ISOLATION_RULES, Lab, main
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.waiting import wait_until

FILTER_TOOLS = ("arptables", "iptables", "ebtables")
IDLE_S = 60
# The look comes every 10 s; the first after the build lists the tables and
# notes what it judged.
FIRST_LOOK_S = 12
RESTORED_WITHIN_S = 15
# Between two flushes: past the second in which the last repair's own commits
# may have brought a pass, so each flush is noticed as a lone one would be.
SETTLE_S = 3
FLUSHES = ("iptables -F FORWARD", "arptables -F", "ebtables -F")


class QuietLook:
    IPTABLES = None

    def setUp(self):
        self.lab = Lab()
        self.addCleanup(self.lab.down)
        self.lab.up(iptables=self.IPTABLES)
        self.lab.start(TWO_PORT_CONFIG)
        self.lab.wait_for_two_port_start()

    def backend(self):
        return self.IPTABLES or "nft"

    def wait_in_force(self):
        wait_until(lambda: self.lab.rule_counts() == ISOLATION_RULES,
                   lambda: "the rules in force %s (%s)" % (ISOLATION_RULES, self.lab.rule_counts()), 20)

    def last_pid(self):
        """The PID the device's PID namespace gave last (the read's own process included)."""
        return int(self.lab.device("cat", "/proc/sys/kernel/ns_last_pid").stdout)

    def processes_started(self, seconds):
        """How many processes started in the device's namespaces (the daemon's
        commands and their shells, any DHCP client's script) in `seconds`."""
        first = self.last_pid()
        reading = self.last_pid() - first
        time.sleep(seconds)
        return self.last_pid() - first - 2 * reading

    def test_an_idle_minute_lists_nothing_and_a_flush_is_put_back(self):
        self.wait_in_force()
        time.sleep(FIRST_LOOK_S)
        # One minute for both figures: putting the tracing stand-ins in place
        # and back starts nothing on the device, and a traced call would add
        # processes only in a minute that fails anyway.
        with self.lab.traced_tools(FILTER_TOOLS) as calls:
            started = self.processes_started(IDLE_S)
            listed = [command for _, command in calls()]
        print("timing: idle minute, %s iptables: %d processes started on the device" % (self.backend(), started))
        print("timing: idle minute, %s iptables: filter tools run: %s" % (self.backend(), listed))
        self.assertEqual([], listed)

        for flush in FLUSHES:
            with self.subTest(flush=flush):
                time.sleep(SETTLE_S)
                mark = len(self.lab.daemon_log())
                flushed = time.monotonic()
                flushed_at = time.time()
                self.lab.device("sh", "-c", flush)
                warning = self.lab.wait_for_log("WARN", "Isolation not in force (", mark, RESTORED_WITHIN_S + 5)
                self.lab.wait_for_log("NOTICE", "Isolation back in force", mark, RESTORED_WITHIN_S + 5)
                self.wait_in_force()
                back = time.monotonic() - flushed
                noticed = datetime.datetime.strptime(warning.stamp, "%Y-%m-%d %H:%M:%S.%f").timestamp() - flushed_at
                print("timing: %s (%s iptables): noticed after %.3f s, the isolation back in force after %.2f s"
                      % (flush, self.backend(), noticed, back))
                self.assertLess(back, RESTORED_WITHIN_S)


class NftIptablesTest(QuietLook, unittest.TestCase):
    IPTABLES = None


class LegacyIptablesTest(QuietLook, unittest.TestCase):
    IPTABLES = "legacy"


if __name__ == "__main__":
    main()
