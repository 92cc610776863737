#!/usr/bin/env python3
"""Both ports bridged, then the machine-wide switches that hand bridged traffic
to iptables and arptables (net.bridge.bridge-nf-call-iptables and -arptables)
turned off in the device's namespace while the daemon runs, as a distribution's
defaults or another program may leave them: br0's own setting keeps the ARP and
IP rules working, so eth1's side still reaches neither internal address, and
the rules' counters show it was those rules that dropped the frames that the
link-layer rules let through."""
import time

from labtest import DEVICE_MAC, PEER0_ADDR, PEER1_ADDR, Ports, TwoPortTestCase, lab_module, main
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.frames import arp_frame, arp_match, icmp_echo_frame, marker_match
from tesselkit.lab import run
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

CHECK_INTERVAL_S = 10  # the daemon looks at the isolation in force this often
INTERNAL = (VETH3_ADDR, PEER0_ADDR)
SWITCHES = ("iptables", "arptables")


class BridgeNetfilterTest(TwoPortTestCase):
    MODULE = MODULE

    def set_switches(self, value):
        for switch in SWITCHES:
            run(["ip", "netns", "exec", self.lab.dev, "sysctl", "-q", "-w",
                 "net.bridge.bridge-nf-call-%s=%d" % (switch, value)])

    def ping(self, address, count=2):
        return run(["ip", "netns", "exec", self.lab.net1, "busybox", "ping", "-c", str(count), "-W", "2", address],
                   check=False).returncode == 0

    def arping(self, address):
        return run(["ip", "netns", "exec", self.lab.net1, "busybox", "arping", "-f", "-c", "2", "-w", "2", "-I",
                    "peer1", address], check=False).returncode == 0

    def counters(self):
        return dict(self.lab.arp_rules()), dict(self.lab.ip_rules())

    def assertRuleDropped(self, before, after, rule):
        self.assertIn(rule, after, "rule %r not in force" % rule)
        self.assertGreater(after[rule], before[rule], "rule %r dropped nothing" % rule)
        return after[rule] - before[rule]

    def check_eth1_side_reaches_no_internal_address(self, when):
        self.assertEqual({"nf_call_iptables": 1, "nf_call_arptables": 1},
                         {k: v for k, v in self.lab.bridge_netfilter().items() if k in ("nf_call_iptables",
                                                                                        "nf_call_arptables")},
                         "br0's own bridge netfilter (ip -d link show br0)")
        self.assertEqual({"iptables": 0, "arptables": 0},
                         {k: v for k, v in self.lab.bridge_sysctls().items() if k in SWITCHES})
        # Control: eth1's side reaches veth1, so ICMP and ARP do cross the bridge.
        self.assertTrue(self.ping(self.lease), "control: eth1's side pings veth1 (%s)" % self.lease)
        self.assertTrue(self.arping(self.lease), "control: veth1 (%s) answers ARP" % self.lease)
        # The real tools: no answer from either internal address.
        for address in INTERNAL:
            self.assertFalse(self.ping(address), "eth1's side got an echo reply from %s" % address)
            self.assertFalse(self.arping(address), "eth1's side got an ARP answer for %s" % address)
        # Frames the link-layer rules let through (to veth1's MAC, from eth1's
        # side's own MAC) but whose addresses are internal: only the ARP and IP
        # rules can drop them, and only if br0 hands them over.
        with Ports(self.lab) as ports:
            veth1, peer1 = ports.open("veth1", "peer1")
            arp_before, ip_before = self.counters()
            for address in INTERNAL:
                peer1.send(icmp_echo_frame(peer1.mac, DEVICE_MAC, PEER1_ADDR, address, b"echo-" + address.encode()))
                peer1.send(arp_frame(1, peer1.mac, PEER1_ADDR, address, dst_mac=DEVICE_MAC))
            # Control: the same frames for veth1's own address arrive.
            peer1.send(icmp_echo_frame(peer1.mac, DEVICE_MAC, PEER1_ADDR, self.lease, b"echo-control"))
            peer1.send(arp_frame(1, peer1.mac, PEER1_ADDR, self.lease, dst_mac=DEVICE_MAC))
            wait_until(lambda: veth1.arrived(marker_match(b"echo-control")) and veth1.arrived(
                arp_match(1, PEER1_ADDR, self.lease)), "the control frames on veth1", 5)
            ports.settle()
            arp_after, ip_after = self.counters()
            for address in INTERNAL:
                self.assertEqual([], veth1.arrived(marker_match(b"echo-" + address.encode())), address)
                self.assertEqual([], veth1.arrived(arp_match(1, PEER1_ADDR, address)), address)
                ip = self.assertRuleDropped(ip_before, ip_after,
                                            "-A FORWARD -d %s/32 -m physdev --physdev-in eth1 -j DROP" % address)
                arp = self.assertRuleDropped(arp_before, arp_after, "-j DROP -i eth1 -o * -d %s" % address)
                print("%s: eth1's side to %s with both switches 0: ping and ARP unanswered, "
                      "echo request dropped by iptables (%d), ARP request by arptables (%d)" % (when, address, ip, arp))

    def test_rules_hold_with_the_machine_wide_switches_off(self):
        # Neither side has a route to the other's network: without them a ping
        # would fail before a frame left peer1, or the internal host would not
        # answer, isolation or not.
        for netns, route in ((self.lab.net1, ["10.253.254.0/24", "dev", "peer1"]),
                             (self.lab.net0, ["192.168.77.0/24", "dev", "peer0"])):
            run(["ip", "-n", netns, "route", "add"] + route)
            self.addCleanup(run, ["ip", "-n", netns, "route", "del"] + route, check=False)
        self.addCleanup(self.set_switches, 1)
        self.set_switches(0)
        switched = time.monotonic()
        self.check_eth1_side_reaches_no_internal_address("at once")
        # And after the daemon's next look at the isolation, which must not
        # take the machine-wide setting for its own.
        time.sleep(max(0.0, CHECK_INTERVAL_S + 1 - (time.monotonic() - switched)))
        self.check_eth1_side_reaches_no_internal_address("after %d s" % (CHECK_INTERVAL_S + 1))
        print("ip -d link show br0: %s" % ", ".join("%s %d" % item for item in self.lab.bridge_netfilter().items()))


if __name__ == "__main__":
    main()
