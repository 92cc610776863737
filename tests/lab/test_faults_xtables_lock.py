#!/usr/bin/env python3
"""Both ports bridged while another program holds the lock of the device's
legacy iptables: the isolation rules cannot be put in place, so the bridge
build hangs at "iptables -F" until its deadline, is ended, and is not recorded
done; eth1 is taken down, and stays blocked at the bridge while the retry
hangs; the retry that follows goes through as soon as the lock is free, with
the rules counted once each and the isolation checked by frames.

The device runs the legacy iptables here: the machine's nft one takes no lock
at all, while the legacy one waits for /run/xtables.lock (by default, with no
-w, since iptables 1.8.9), which any other program changing the rules holds."""
import time

from labtest import ISOLATION_RULES, PEER1_ADDR, LabTestCase, main
from tesselkit import isolation
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.waiting import wait_until

DEADLINE_S = 20  # of every command the daemon runs


class XtablesLockTest(LabTestCase):
    IPTABLES = "legacy"

    def iptables_flushes(self):
        """Device pids of the "iptables -F" calls running now."""
        return {inside for _, inside, args in self.lab.device_processes()
                if args[0].endswith("iptables-legacy") and args[1:] == ["-F"]}

    def test_held_lock_fails_the_build_which_recovers_when_it_is_freed(self):
        with self.lab.hold_iptables_lock():
            started = time.monotonic()
            self.lab.start(TWO_PORT_CONFIG)
            mark = self.lab.start_mark
            first = wait_until(self.iptables_flushes, "the bridge build to reach iptables -F", 10)
            error = self.lab.wait_for_log("ERROR", "Command still running after %d s, ending it: iptables -F"
                                          % DEADLINE_S, mark, DEADLINE_S + 10)
            warned = self.lab.wait_for_log("WARN", "Retrying bridge setup in 1 s (failed attempts: 1)", mark, 5)
            # Without its IP rules eth1 is kept out of the way: the internal
            # network never meets eth1's side unfiltered.
            self.lab.wait_for_log("WARN", "Keeping eth1 down until the isolation rules are in place", mark, 5)
            wait_until(lambda: self.lab.link("eth1")["operstate"] == "DOWN", "eth1 to be down", 5)
            failed_after = time.monotonic() - started
            # The retry hangs at the same step while the lock is held.
            # (After veth1's client has given up in the foreground: about 9 s
            # without a server, as eth1 is down.)
            retry = wait_until(lambda: self.iptables_flushes() - first, "the retry to reach iptables -F", 20)
            self.assertNotIn("Done with bridge setup", self.lab.daemon_log_since(mark))
            self.assertEqual([], self.lab.ip_rules())
            # The retry raised eth1 again, as every build does, behind the
            # blocks at the bridge (eth1's and veth0's) that the build set
            # before its first command: one of each, however often it is set.
            self.assertEqual(["-i eth1 -j DROP", "-i veth0 -j DROP"],
                             [rule for rule, _ in self.lab.ebtables_rules("nat", "PREROUTING")])
            self.assertEqual(["-o eth1 -j DROP", "-o veth0 -j DROP"],
                             [rule for rule, _ in self.lab.ebtables_rules("nat", "POSTROUTING")])
            # Nothing before the refused step needed the lock.
            self.assertEqual(ISOLATION_RULES["ARP"], len(self.lab.arp_rules()))
            # The interfaces were served after the failed build all the same
            # (veth1's client waits for eth1).
            self.assertEqual([VETH3_ADDR + "/24"], self.lab.addresses("veth3"))
            self.assertEqual(1, len(self.lab.udhcpc_clients()))
            released = time.monotonic()
        print("the build hung at %r for its deadline and failed %.1f s after the start; %s" %
              (error.message, failed_after, warned.message))

        notice = self.lab.wait_for_log("NOTICE", "Recovered bridge setup after 1 failed attempts", mark, 10)
        recovered = time.monotonic()
        wait_until(lambda: not self.iptables_flushes() & retry, "the waiting iptables -F to end", 5)
        print("timing: lock freed to %r %.2f s" % (notice.message, recovered - released))
        self.assertLess(recovered - released, 3.0)
        self.assertEqual(1, self.lab.daemon_log_since(mark).count("Done with bridge setup"))

        # The whole build ran again: each rule once, and all of them.
        arp, ip = self.lab.arp_rules(), self.lab.ip_rules()
        self.assertEqual(ISOLATION_RULES["ARP"], len(arp))
        self.assertEqual(ISOLATION_RULES["ARP"], len(set(rule for rule, _ in arp)))
        self.assertEqual(ISOLATION_RULES["IP"], len(ip))
        self.assertEqual(ISOLATION_RULES["IP"], len(set(rule for rule, _ in ip)))
        self.assertEqual(["eth0", "eth1", "veth0", "veth2"], self.lab.bridge_ports())
        self.assertEqual("UP", self.lab.link("eth1")["operstate"])
        self.lab.wait_for_lease()
        wait_until(lambda: self.lab.addresses("veth3") == [VETH3_ADDR + "/24"], "veth3's static address", 10)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)], 10)
        self.assertEqual(0, isolation.check(self.lab), "isolation checks failed (see above)")


if __name__ == "__main__":
    main()
