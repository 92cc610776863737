#!/usr/bin/env python3
"""Both ports bridged, then another program on the device takes the isolation
away while the daemon runs: it flushes the ARP, IP and link-layer rules, or
switches bridge netfilter off, br0's own setting and the machine-wide one
together (either alone still hands br0's traffic to the ARP and IP rules, so
nothing is lost). The daemon finds it at its next look
(every 10 s), says so, and puts everything back: the same rules, counted
again, br0's setting, and frames between eth1's side and the internal network
dropped again. The time from the change to the isolation back in force is
printed; it is held only to a generous bound."""
import time

from labtest import DEVICE_MAC, ISOLATION_RULES, PEER0_MAC, Ports, TwoPortTestCase, lab_module, main
from tesselkit import isolation
from tesselkit.device import TWO_PORT_CONFIG, VETH3_MAC
from tesselkit.frames import ethertype_match, raw_frame
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

RESTORED_WITHIN_S = 15  # a look every 10 s, and the repair after it
SENT = 5


class IsolationTakenAwayTest(TwoPortTestCase):
    MODULE = MODULE

    def rules(self):
        return {"ARP": sorted(rule for rule, _ in self.lab.arp_rules()),
                "IP": sorted(rule for rule, _ in self.lab.ip_rules()),
                "link layer": sorted(rule for rule, _ in self.lab.ebtables_rules())}

    def counts(self):
        return {table: len(rules) for table, rules in self.rules().items()}

    def bridge_netfilter(self):
        found = self.lab.bridge_netfilter()
        return {name: found.get(name) for name in ("nf_call_iptables", "nf_call_arptables")}

    def wait_in_force(self):
        wait_until(lambda: self.counts() == ISOLATION_RULES,
                   lambda: "the rules in force %s (%s)" % (ISOLATION_RULES, self.counts()), 15)
        wait_until(lambda: self.bridge_netfilter() == {"nf_call_iptables": 1, "nf_call_arptables": 1},
                   lambda: "br0's bridge netfilter on (%s)" % self.bridge_netfilter(), 5)

    def frames_cross(self):
        """Sends frames of a protocol no ARP or IP rule sees from eth1's side to
        both internal MACs and to veth1; how many reached each."""
        with Ports(self.lab) as ports:
            veth1, veth3, peer0, peer1 = ports.open("veth1", "veth3", "peer0", "peer1")
            for _ in range(SENT):
                for name, mac in (("veth1", DEVICE_MAC), ("peer0", PEER0_MAC), ("veth3", VETH3_MAC)):
                    peer1.send(raw_frame(peer1.mac, mac, b"eth1-to-" + name.encode()))
            wait_until(lambda: len(veth1.arrived(ethertype_match(marker=b"eth1-to-veth1"))) == SENT,
                       "the control frames on veth1", 5)
            ports.settle()
            return {name: len(port.arrived(ethertype_match(marker=b"eth1-to-" + name.encode())))
                    for name, port in (("veth1", veth1), ("peer0", peer0), ("veth3", veth3))}

    def assertPutBack(self, mark, changed):
        """The daemon's WARN and NOTICE after `mark`, the isolation in force
        again; returns the seconds from `changed` to all of it back."""
        warning = self.lab.wait_for_log("WARN", "Isolation not in force (", mark, RESTORED_WITHIN_S + 5)
        self.wait_in_force()
        back = time.monotonic() - changed
        self.lab.wait_for_log("NOTICE", "Isolation back in force", mark, 5)
        print("the daemon: WARN %s" % warning.message)
        return back

    def test_flushed_rules_are_put_back(self):
        self.wait_in_force()
        before = self.rules()
        mark = len(self.lab.daemon_log())
        flushed = time.monotonic()
        self.lab.device("sh", "-c", "iptables -F; arptables -F; ebtables -F")
        at_flush = self.counts()
        # Control: the flush took (unless the daemon's look came within these milliseconds).
        self.assertLess(sum(at_flush.values()), sum(ISOLATION_RULES.values()), at_flush)
        back = self.assertPutBack(mark, flushed)
        print("timing: rules flushed (%s right after) to all back %.2f s" % (at_flush, back))
        self.assertLess(back, RESTORED_WITHIN_S)
        self.assertEqual(before, self.rules(), "the same rules as before the flush")
        self.assertEqual(1, self.lab.daemon_log_since(mark).count("Isolation back in force"))

        arrived = self.frames_cross()
        print("after the repair, %d frames from eth1's side to each: %s" % (SENT, arrived))
        self.assertEqual({"veth1": SENT, "peer0": 0, "veth3": 0}, arrived)
        self.assertEqual(0, isolation.check(self.lab), "isolation checks failed (see above)")

    def set_bridge_netfilter(self, value):
        run(["ip", "-n", self.lab.dev, "link", "set", "dev", "br0", "type", "bridge", "nf_call_iptables", str(value),
             "nf_call_arptables", str(value)])

    def set_switches(self, value):
        for switch in ("iptables", "arptables"):
            run(["ip", "netns", "exec", self.lab.dev, "sysctl", "-q", "-w",
                 "net.bridge.bridge-nf-call-%s=%d" % (switch, value)])

    def test_bridge_netfilter_switched_off_is_put_back(self):
        self.wait_in_force()
        mark = len(self.lab.daemon_log())
        # Put back whatever the daemon did not, for the next test.
        self.addCleanup(self.set_bridge_netfilter, 1)
        self.addCleanup(self.set_switches, 1)
        switched = time.monotonic()
        self.set_switches(0)
        self.set_bridge_netfilter(0)
        back = self.assertPutBack(mark, switched)
        print("timing: bridge netfilter switched off (br0's and the machine-wide switches) to br0's back on %.2f s"
              % back)
        self.assertLess(back, RESTORED_WITHIN_S)
        self.assertEqual(ISOLATION_RULES, self.counts())
        self.assertEqual(0, isolation.check(self.lab), "isolation checks failed (see above)")


if __name__ == "__main__":
    main()
