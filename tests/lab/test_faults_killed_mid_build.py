#!/usr/bin/env python3
"""The daemon is killed (SIGKILL: no clean-up at all) in the middle of the
bridge build on the simulated device, with its first ARP rule being added:
br0 is half built, the rules partly there. Started again, it builds everything
anew and the device converges: br0 with both ports and both pairs, veth1's
lease and veth3's address, each rule once, and the isolation checked by frames."""
import os
import signal
import time

from labtest import ISOLATION_RULES, PEER1_ADDR, LabTestCase, main
from tesselkit import isolation
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.waiting import wait_until


class KilledMidBuildTest(LabTestCase):
    def device_commands(self):
        """What runs on the device besides its init and the daemon."""
        holder = self.lab.holder_pid()
        return [args for host, _, args in self.lab.device_processes()
                if host != holder and os.path.basename(args[0]) != "tessel-networkd"]

    def test_restart_after_a_kill_mid_build_converges(self):
        with self.lab.stalled_tool("arptables", "-A") as stall:
            self.lab.start(TWO_PORT_CONFIG)
            mark = self.lab.start_mark
            wait_until(stall.stalled, "the bridge build to add its first ARP rule", 15)
            pid = self.lab.daemon_pid()
            os.kill(pid, signal.SIGKILL)
            wait_until(lambda: self.lab.daemon_pid() is None, "the daemon to die", 5)
            # The command it was running finishes on its own, as it would on the device.
            stall.release()
            wait_until(lambda: self.device_commands() == [], lambda: "the daemon's last command to end: %s" % self.device_commands(), 5)
        # Half built: the ports are in br0, but only the rule in flight is in force.
        self.assertNotIn("Done with bridge setup", self.lab.daemon_log_since(mark))
        self.assertEqual(["eth0", "eth1", "veth0", "veth2"], self.lab.bridge_ports())
        self.assertEqual(["-j DROP -i veth2 -o veth0"], [rule for rule, _ in self.lab.arp_rules()])
        self.assertEqual([], self.lab.ip_rules())
        self.assertEqual([], self.lab.addresses("veth1"))

        restarted = time.monotonic()
        self.lab.start(TWO_PORT_CONFIG)
        mark = self.lab.start_mark
        self.lab.wait_for_log("INFO", "Done with bridge setup", mark, 10)
        lease = self.lab.wait_for_lease()
        wait_until(lambda: self.lab.addresses("veth3") == [VETH3_ADDR + "/24"], "veth3's static address", 10)
        self.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)], 10)
        converged = time.monotonic()
        print("timing: restart to converged (lease, addresses, route) %.2f s" % (converged - restarted))

        self.assertEqual(["eth0", "eth1", "veth0", "veth2"], self.lab.bridge_ports())
        self.assertEqual([lease + "/24"], self.lab.addresses("veth1"))
        arp, ip = self.lab.arp_rules(), self.lab.ip_rules()
        self.assertEqual(ISOLATION_RULES["ARP"], len(arp))
        self.assertEqual(ISOLATION_RULES["ARP"], len(set(rule for rule, _ in arp)))
        self.assertEqual(ISOLATION_RULES["IP"], len(ip))
        self.assertEqual(ISOLATION_RULES["IP"], len(set(rule for rule, _ in ip)))
        self.assertEqual(1, len(self.lab.udhcpc_clients()))
        # No command failed (the lab has no PHY driver file, which the first cycle reports).
        self.assertEqual([], [e for e in self.lab.log_entries_since(mark)
                              if e.level == "ERROR" and e.function != "SetEthernetPhyMode"])
        self.assertEqual(0, isolation.check(self.lab), "isolation checks failed (see above)")


if __name__ == "__main__":
    main()
