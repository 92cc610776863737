#!/usr/bin/env python3
"""A configuration pushed with "tessel-networkctl apply --confirm-within" that cuts
veth1 off (static, in a subnet the network does not have, where it had a DHCP lease) is
not confirmed: the daemon restores the previous one at the deadline, and veth1 has its
lease again within 10 s of it. Prints the timeline: apply, deadline, restore, lease."""
import os
import time

from labtest import LabTestCase, main
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.waiting import wait_until

WITHIN = 10
CUT_OFF = TWO_PORT_CONFIG.replace("veth1 dhcp", "veth1 static 10.99.0.2 255.255.255.0 10.99.0.1")
RESTORED = "Configuration not confirmed within %d s; restored the previous one" % WITHIN


class ConfigRollbackTest(LabTestCase):
    def test_a_configuration_that_cuts_veth1_off_is_rolled_back_and_the_lease_comes_back(self):
        self.assertNotEqual(CUT_OFF, TWO_PORT_CONFIG)
        self.lab.start(TWO_PORT_CONFIG)
        first = self.lab.wait_for_lease()
        self.lab.wait_for_first_cycle()
        config = self.lab.status_document()["configuration"]["path"]
        pushed = os.path.join(self.lab.state, "pushed.conf")
        with open(pushed, "w") as out:
            out.write(CUT_OFF)

        applied_at = time.time()
        result = self.lab.ctl("apply", pushed, "--confirm-within", str(WITHIN))
        self.assertEqual(0, result.returncode, result)
        self.assertIn("Applied: tessel-networkd runs it.", result.stdout)
        record = self.lab.device_file(config + ".pending")
        deadline = int(record.split("\n")[1].split(" ")[1])
        # Cut off: the static address in place, the lease gone.
        wait_until(lambda: "10.99.0.2/24" in self.lab.addresses("veth1"), "veth1's pushed address", 10)
        self.assertIsNone(self.lab.lease_address())

        mark = len(self.lab.daemon_log())
        wait_until(lambda: RESTORED in self.lab.daemon_log_since(mark), "the restore",
                   WITHIN + 15, interval=0.05)
        restored_at = time.time()
        lease = wait_until(self.lab.lease_address, "veth1's lease again", 30, interval=0.05)
        leased_at = time.time()
        self.assertEqual(TWO_PORT_CONFIG, self.lab.device_file(config))
        self.assertIsNone(self.lab.device_file(config + ".pending"))
        self.assertIsNone(self.lab.device_file(config + ".rollback"))
        print("rollback timeline (wall clock, s after the apply): apply 0.00, deadline %.2f, restore %.2f, "
              "lease back %.2f (%.2f s after the deadline); lease before %s, after %s" %
              (deadline - applied_at, restored_at - applied_at, leased_at - applied_at, leased_at - deadline,
               first, lease))
        self.assertGreaterEqual(restored_at, deadline)
        self.assertLessEqual(leased_at - deadline, 10)


if __name__ == "__main__":
    main()
