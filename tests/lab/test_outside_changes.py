#!/usr/bin/env python3
"""Both ports bridged, veth1 by DHCP and veth3 static with a gateway; another
program on the device undoes part of what the daemon built: it removes br0,
takes eth1 or eth0 out of br0 (put back with one command), removes the veth1 pair, flushes veth3's
address or deletes veth1's default route. The daemon learns of it from the
kernel's notifications, names it in one WARN and puts it back: the structure
within 2 s of the change, veth1's lease as soon as the server answers the new
client. A change that reaches the daemon together with a write of its
configuration or of a lease file is put back as well. No change comes within
10 s of the last repair of the same work, so none is taken for a fight
(test_outside_fight has those). After its own rebuild the daemon does nothing
but its usual pass. The times are printed ("timing:")."""
import os
import re
import time
import unittest

from labtest import ISOLATION_RULES, PEER0_ADDR, PEER1_ADDR, lab_module, main, seconds_until
from tesselkit.device import TWO_PORT_CONFIG, VETH3_ADDR
from tesselkit.lab import run
from tesselkit.waiting import wait_until

# veth3 with a gateway, so that its flush takes a route too.
VETH3_LINE = "veth3 static %s 255.255.255.0 %s" % (VETH3_ADDR, PEER0_ADDR)
CONFIG = re.sub(r"(?m)^veth3 .*$", VETH3_LINE, TWO_PORT_CONFIG)
assert VETH3_LINE in CONFIG
# A plain file on the device stands in for the PHY driver's, which the lab lacks:
# the PHY mode is in force, so status can find the device healthy.
MODULE = lab_module(globals(), start_config=CONFIG, phy_file="/tmp/marvell-phy-0-port")

ROUTES = sorted([(PEER1_ADDR, "veth1", 10), (PEER0_ADDR, "veth3", 100)])
PORTS = ["eth0", "eth1", "veth0", "veth2"]
REPAIRED_WITHIN_S = 2.0  # the device's requirement, for the structure put back
LEASE_BACK_WITHIN_S = 15  # a new client, its lease, and the old one's stop (up to 3 s)
FIGHT_WINDOW_S = 10  # an outside change this soon after the work's last repair is a fight
QUIET_S = 6
# What a pass runs when nothing is to be done: eth0 put back into br0, and the
# isolation's look every 10 s.
STEADY = {"ip link set eth0 master br0", "arptables -L -n", "iptables -S", "ebtables -L"}
TRACED = ("ip", "bridge", "arptables", "iptables", "ebtables", "udhcpc")


class OutsideChangesTest(unittest.TestCase):
    repaired_at = {}  # work -> time.monotonic() of its last repair

    @classmethod
    def setUpClass(cls):
        cls.lab = MODULE["lab"]
        cls.lease = cls.lab.wait_for_lease()
        cls.lab.wait_for_first_cycle()
        wait_until(cls.whole, "the device converged", 20)

    @classmethod
    def whole(cls):
        lab = cls.lab
        return (lab.bridge_ports() == PORTS and lab.addresses("veth1") == [cls.lease + "/24"] and
                lab.addresses("veth3") == [VETH3_ADDR + "/24"] and lab.default_routes() == ROUTES)

    def ip(self, *args):
        run(["ip", "-n", self.lab.dev] + list(args))

    def undo(self, work, command, found, remedy, title, then=None):
        """Runs `command` (ip's arguments) on the device, and `then` right
        after it, at a moment when `work` was last repaired more than the fight
        window ago; waits for the daemon's WARN "FOUND; REMEDY" and the NOTICE
        that `title` was repaired. Returns the log's offset before the change
        and the time of the change."""
        last = self.repaired_at.get(work)
        if last is not None:
            time.sleep(max(0.0, last + FIGHT_WINDOW_S + 0.5 - time.monotonic()))
        wait_until(self.whole, "the device whole before the change", 10)
        mark = len(self.lab.daemon_log())
        changed = time.monotonic()
        self.ip(*command)
        if then is not None:
            then()
        warned = seconds_until(lambda: self.lab.logged("WARN", found + "; " + remedy, mark),
                               "the WARN %r" % (found + "; " + remedy), 5, changed)
        repaired = seconds_until(
            lambda: self.lab.logged("NOTICE", "Repaired %s after an outside change" % title, mark),
            "the NOTICE that %s was repaired" % title, 10, changed)
        self.repaired_at[work] = time.monotonic()
        print("timing: ip %s: WARN after %.0f ms, repaired (NOTICE) after %.0f ms" % (
            " ".join(command), 1000 * warned, 1000 * repaired))
        self.assertLessEqual(repaired, REPAIRED_WITHIN_S, "%s repaired only after %.2f s" % (title, repaired))
        self.assertEqual(1, len([e for e in self.lab.log_entries_since(mark) if e.level == "WARN"]),
                         self.lab.daemon_log_since(mark))
        return mark, changed

    def assertRecorded(self, work, found):
        """The status document shows the change, repaired, as the first in a row;
        so does tessel-networkctl status, which finds the device healthy."""
        def repaired():
            record = self.lab.work_status(work)
            last = record and record["last_outside_change"]
            return record if last and last["found"] == found and last["repaired"] else None
        record = wait_until(repaired, "the status document to show %r repaired" % found, 5)
        self.assertEqual(1, record["outside_changes"], record)
        result = wait_until(lambda: (lambda r: r if r.returncode == 0 else None)(self.lab.ctl("status", "--full")),
                            "tessel-networkctl status to find the device healthy", 10)
        self.assertRegex(result.stdout, r"\n%s +1 +\S+ +yes +%s\n" % (work, re.escape(found)), result.stdout)

    def assertSetUpAgain(self, mark, changed):
        """After a rebuild both interfaces are set up again: veth3's address
        and route, veth1's lease from a new client. Returns the seconds from
        the change to the device whole again."""
        def back():
            return all(self.lab.logged("INFO", "Adding default gateway %s for %s" % (gateway, name), mark)
                       for gateway, name, _ in ROUTES) and self.whole()
        seconds = seconds_until(back, "veth1's lease and veth3's address back", LEASE_BACK_WITHIN_S, changed)
        self.assertIn("Starting DHCP for interface veth1", self.lab.daemon_log_since(mark))
        return seconds

    def assertBridgeWhole(self):
        self.assertEqual(PORTS, self.lab.bridge_ports())
        self.assertEqual(ISOLATION_RULES, self.lab.rule_counts())
        self.assertEqual({"nf_call_iptables": 1, "nf_call_arptables": 1},
                         {k: v for k, v in self.lab.bridge_netfilter().items() if k in ("nf_call_iptables",
                                                                                         "nf_call_arptables")})
        self.assertEqual("up", self.lab.link("eth1")["operstate"].lower())

    def assertOneClient(self, other_than=None):
        clients = wait_until(lambda: (lambda c: c if len(c) == 1 else None)(self.lab.udhcpc_clients()),
                             "one DHCP client on the device", 5)
        if other_than is not None:
            self.assertNotIn(other_than, clients, "the DHCP client was not started again")
        return list(clients)[0]

    # --- the bridge ----------------------------------------------------------------

    def test_br0_removed_is_rebuilt_and_the_rebuild_brings_no_further_work(self):
        client = self.assertOneClient()
        mark, changed = self.undo("bridge", ["link", "del", "br0"], "br0 was removed", "rebuilding the bridge",
                                  "bridge setup")
        self.assertBridgeWhole()
        back = self.assertSetUpAgain(mark, changed)
        self.assertOneClient(other_than=client)
        print("timing: br0 removed: the device whole again (lease included) after %.0f ms" % (1000 * back))
        self.assertRecorded("bridge", "br0 was removed")

        # Quiet: the rebuild's own notifications bring no pass, no WARN, no work;
        # the passes come once a second with their one command.
        self.lab.wait_for_cycles(1)
        quiet = len(self.lab.daemon_log())
        devmem = len(self.lab.devmem_writes())
        with self.lab.traced_tools(TRACED) as calls:
            began = time.time()
            time.sleep(QUIET_S)
            seen = [(t, command) for t, command in calls() if t < began + QUIET_S]
        commands = [command for _, command in seen]
        print("after the rebuild, %d s: %d commands: %s" % (QUIET_S, len(commands), sorted(set(commands))))
        self.assertEqual(set(), set(commands) - STEADY, commands)
        passes = commands.count("ip link set eth0 master br0")
        self.assertGreaterEqual(passes, QUIET_S - 2, "the passes go on")
        self.assertLessEqual(passes, QUIET_S + 1, "one pass a second, no more")
        self.assertEqual([], [e for e in self.lab.log_entries_since(quiet) if e.level in ("WARN", "ERROR", "NOTICE")])
        self.assertEqual(devmem, len(self.lab.devmem_writes()), "no register writes")

    def test_eth1_taken_out_of_br0_is_put_back_with_one_command(self):
        client = self.assertOneClient()
        mark, changed = self.undo("ports", ["link", "set", "eth1", "nomaster"], "eth1 was taken out of br0",
                                  "putting eth1 back into br0", "bridge ports")
        self.assertBridgeWhole()
        log = self.lab.daemon_log_since(mark)
        self.assertNotIn("rebuilding the bridge", log)
        self.assertNotIn("Starting DHCP", log)
        self.assertEqual({client}, set(self.lab.udhcpc_clients()), "the same DHCP client")
        self.assertRecorded("ports", "eth1 was taken out of br0")

    def test_veth1_pair_removed_is_rebuilt_with_a_new_client(self):
        client = self.assertOneClient()
        mark, changed = self.undo("bridge", ["link", "del", "veth1"], "veth0 was removed and veth1 was removed",
                                  "rebuilding the bridge", "bridge setup")
        self.assertBridgeWhole()
        back = self.assertSetUpAgain(mark, changed)
        self.assertOneClient(other_than=client)
        self.assertIn("New DHCP lease for veth1", self.lab.daemon_log_since(mark))
        print("timing: veth1 pair removed: the device whole again (new lease) after %.0f ms" % (1000 * back))
        self.assertRecorded("bridge", "veth0 was removed and veth1 was removed")

    def test_eth0_taken_out_of_br0_is_put_back(self):
        mark = len(self.lab.daemon_log())
        changed = time.monotonic()
        self.ip("link", "set", "eth0", "nomaster")
        warned = seconds_until(lambda: self.lab.logged("WARN", "eth0 was taken out of br0; putting it back", mark),
                               "the WARN about eth0", 5, changed)
        back = seconds_until(lambda: self.lab.link("eth0").get("master") == "br0", "eth0 back in br0",
                             REPAIRED_WITHIN_S, changed)
        print("timing: ip link set eth0 nomaster: WARN after %.0f ms, eth0 back in br0 after %.0f ms" % (
            1000 * warned, 1000 * back))
        self.assertNotIn("rebuilding the bridge", self.lab.daemon_log_since(mark))
        self.assertEqual(PORTS, self.lab.bridge_ports())

    # --- the addressing ------------------------------------------------------------

    def test_veth3_flushed_is_set_up_again(self):
        mark, changed = self.undo("veth3", ["addr", "flush", "dev", "veth3"],
                                  "veth3's address %s/24 was removed" % VETH3_ADDR, "setting up veth3 again",
                                  "addressing of veth3")
        self.assertEqual([VETH3_ADDR + "/24"], self.lab.addresses("veth3"))
        self.assertEqual(ROUTES, self.lab.default_routes(), "veth3's route back with its address")
        self.assertNotIn("rebuilding the bridge", self.lab.daemon_log_since(mark))
        self.assertRecorded("veth3", "veth3's address %s/24 was removed" % VETH3_ADDR)

    def test_a_change_that_comes_with_a_lease_file_is_not_lost(self):
        # The lease in force written again by the client's script (as a renewal
        # does), within a few milliseconds of the route's removal.
        client = self.assertOneClient()
        self.undo("veth1", ["route", "del", "default", "dev", "veth1"],
                  "veth1's default route via %s was removed" % PEER1_ADDR, "putting the DHCP lease of veth1 back",
                  "addressing of veth1", then=lambda: self.lab.put_lease(self.lease, PEER1_ADDR))
        self.assertEqual(ROUTES, self.lab.default_routes())
        self.assertEqual([self.lease + "/24"], self.lab.addresses("veth1"))
        self.assertEqual({client}, set(self.lab.udhcpc_clients()))

    def test_a_change_that_comes_with_a_configuration_write_is_not_lost(self):
        # The same text put in place again, within a few milliseconds of the
        # flush: both come to the daemon in one batch of notifications.
        def rewrite():
            path = self.lab.env["CONFIG"]
            with open(path + ".again", "w") as f:
                f.write(CONFIG)
            os.rename(path + ".again", path)
        self.undo("veth3", ["addr", "flush", "dev", "veth3"], "veth3's address %s/24 was removed" % VETH3_ADDR,
                  "setting up veth3 again", "addressing of veth3", then=rewrite)
        self.assertEqual([VETH3_ADDR + "/24"], self.lab.addresses("veth3"))
        self.assertEqual(ROUTES, self.lab.default_routes())

    def test_veth1_default_route_deleted_is_put_back_from_the_lease(self):
        client = self.assertOneClient()
        mark, changed = self.undo("veth1", ["route", "del", "default", "dev", "veth1"],
                                  "veth1's default route via %s was removed" % PEER1_ADDR,
                                  "putting the DHCP lease of veth1 back", "addressing of veth1")
        self.assertEqual(ROUTES, self.lab.default_routes())
        self.assertEqual([self.lease + "/24"], self.lab.addresses("veth1"))
        # The lease as it stands: the same client, no new exchange.
        self.assertEqual({client}, set(self.lab.udhcpc_clients()))
        log = self.lab.daemon_log_since(mark)
        self.assertNotIn("Starting DHCP", log)
        self.assertNotIn("rebuilding the bridge", log)
        self.assertRecorded("veth1", "veth1's default route via %s was removed" % PEER1_ADDR)


if __name__ == "__main__":
    main()
