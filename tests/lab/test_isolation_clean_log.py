#!/usr/bin/env python3
"""The daemon's output with the real tools through a normal life: a start, the
two-port build, a repair after the link-layer rules were flushed, a restart
over the bridge the first run left (start-up blocks eth1), and a change to a
one-port mode (the link-layer rules removed). Every line of it is one of the
daemon's own log entries, the lab's mark of a start, or what the design's own
ip commands say about what is not there yet or is there already (the design
runs them so); none of the tools' complaints about a rule the daemon's own
steps found nothing to delete ("Bad rule", "Sorry, rule does not exist")."""
import time

from labtest import LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.logs import parse_log_line
from tesselkit.waiting import wait_until

# What the design's ip commands print on a first start ("ip link set br0 down"
# before br0 exists) and a rebuild ("ip link add name veth1 type veth" when it is there).
DESIGN_IP_OUTPUT = ('Cannot find device "br0"', 'Device "br0" does not exist.', "Nothing to flush.",
                    "RTNETLINK answers: File exists")
TOOL_COMPLAINTS = ("Bad rule", "does a matching rule exist", "Sorry, rule does not exist", "ebtables:", "arptables:",
                   "iptables:", "not found")


class CleanLogTest(LabTestCase):
    def foreign_lines(self, since):
        """The lines of the daemon's output after `since` that are no log entry of its
        own, nor the design's DHCP client's (BusyBox udhcpc says what it does)."""
        return [line for line in self.lab.daemon_log()[since:].splitlines()
                if line.strip() and parse_log_line(line) is None and not line.startswith(("udhcpc", "=== "))
                and line not in DESIGN_IP_OUTPUT]

    def test_start_build_repair_restart_and_mode_change_print_no_tool_errors(self):
        self.lab.start(TWO_PORT_CONFIG)
        self.lab.wait_for_log("INFO", "Isolation in force:", self.lab.start_mark, 30)
        self.lab.wait_for_first_cycle()

        # A repair: another program flushes the link-layer rules.
        mark = len(self.lab.daemon_log())
        self.lab.device("sh", "-c", "ebtables -F")
        self.lab.wait_for_log("NOTICE", "Isolation back in force", mark, 30)

        # A restart over the bridge that run left: start-up blocks eth1, the build lifts it.
        self.lab.stop()
        self.lab.start(TWO_PORT_CONFIG)
        self.lab.wait_for_log("INFO", "Isolation in force:", self.lab.start_mark, 30)
        self.lab.wait_for_first_cycle()

        # A one-port mode: built as the design says, the link-layer rules removed quietly.
        mark = len(self.lab.daemon_log())
        self.lab.config(TWO_PORT_CONFIG.replace("bridge eth0eth1", "bridge eth1"))
        wait_until(lambda: self.lab.bridge_ports() == ["eth1", "veth0"], "br0 rebuilt with eth1 and veth0", 20)
        self.lab.wait_for_log("INFO", "Done with bridge setup", mark, 20)
        time.sleep(1)

        log = self.lab.daemon_log()
        print("daemon output: %d lines" % len(log.splitlines()))
        self.assertEqual([], self.foreign_lines(0), "tool output in the daemon's log")
        for complaint in TOOL_COMPLAINTS:
            self.assertNotIn(complaint, log)


if __name__ == "__main__":
    main()
