"""Steady cycles: with an unchanged, usable configuration and static addresses a cycle
runs nothing, or only the re-attach of a healthy eth0 where eth0 is a bridge port; in
the two-port mode the isolation is looked at every 10 s as well (its tables listed when
the kernel shows they moved), and put back when
another program took its rules away."""

import time

import unittest

import harness
from expected_commands import (ISOLATION_IN_FORCE, ISOLATION_LOOK, ISOLATION_REPAIR_IP_AND_LINK_LAYER,
                               ISOLATION_TABLES, REGISTER_WRITES)

ETH0_UP = {"interfaces": ["eth0"], "up": ["eth0"]}

CONFIGS = {
    "eth0": ("""bridge eth0
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
""", ETH0_UP),
    "eth1": ("""bridge eth1
phy frame
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
""", {}),
    "eth0eth1": ("""bridge eth0eth1
phy copper
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
""", ETH0_UP),
}


class SteadyCycleTest(harness.DaemonTestCase):
    def test_steady_cycles_run_nothing_but_the_reattach_of_a_healthy_eth0(self):
        # Bridge mode eth1 does not watch eth0 and has no eth0 here: its register writes run
        # in the first cycle all the same, and never again.
        runs = {}
        for mode, (config, options) in CONFIGS.items():
            sandbox = harness.Sandbox(harness.DAEMON_PATH)
            self.addCleanup(sandbox.cleanup)
            sandbox.use_config_pipe()
            runs[mode] = (sandbox, sandbox.start(**options), config)
        first_cycle_log = {}
        first_cycle_writes = {}
        harness.run_cycles_in_step([(daemon, config) for sandbox, daemon, config in runs.values()])
        for mode, (sandbox, daemon, config) in runs.items():
            first_cycle_log[mode] = daemon.messages()
            first_cycle_writes[mode] = [command for command in sandbox.commands() if command.startswith("devmem")]
            sandbox.clear_commands()
        harness.run_cycles_in_step([(daemon, config) for sandbox, daemon, config in runs.values()], 3)
        expected = {
            "eth0": ["ip link set eth0 master br0"] * 3,
            "eth1": [],
            "eth0eth1": ["ip link set eth0 master br0"] * 3,
        }
        for mode, (sandbox, daemon, config) in runs.items():
            with self.subTest(mode=mode):
                self.assertEqual(sandbox.commands(), expected[mode])
                self.assertEqual(daemon.messages(), first_cycle_log[mode])
                # In every mode, eth1 only included, the registers were written in the first cycle.
                self.assertEqual(first_cycle_writes[mode], REGISTER_WRITES)


class IsolationLookTest(harness.DaemonTestCase):
    def test_rules_flushed_by_another_program_are_put_back_within_15_seconds(self):
        config, options = CONFIGS["eth0eth1"]
        self.sandbox.write_config(config)
        daemon = self.start_daemon(**options)
        daemon.wait_for_message(ISOLATION_IN_FORCE)
        # Right after the build's look, the next one is 10 s away: both tables are
        # gone before it.
        self.sandbox.set_rules("iptables", [])
        self.sandbox.set_rules("ebtables", [])
        flushed = time.monotonic()
        warning = ("Isolation not in force (0 of 12 IP rules in place; 0 of 28 link-layer rules in place); "
                   "putting it back")
        daemon.wait_for_message(warning, timeout=15)
        self.assertLess(time.monotonic() - flushed, 15)
        entries = daemon.wait_for_message("Isolation back in force")
        logged = [(e.level, e.function, e.message) for e in entries]
        warned = logged.index(("WARN", "SuperviseIsolation", warning))
        self.assertIn(("NOTICE", "RepairIsolation", "Isolation back in force"), logged[warned + 1:])
        # Nothing between the look that found the tables empty and the repair: eth1 and
        # veth0 blocked, the missing rules appended again (no flush), a look, the
        # blocks lifted.
        commands = self.sandbox.commands()
        repaired = ISOLATION_LOOK + ISOLATION_REPAIR_IP_AND_LINK_LAYER
        self.assertIn(repaired, [commands[i:i + len(repaired)] for i in range(len(commands))])
        for tool, rules in ISOLATION_TABLES.items():
            self.assertEqual(self.sandbox.rules(tool), rules, tool)
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), [])
        # Whole again, and the next look finds it so: no second repair.
        looks = commands.count(ISOLATION_LOOK[-1])

        def next_look_over():
            now = self.sandbox.commands()
            return now.count(ISOLATION_LOOK[-1]) > looks and now[-1] == "ip link set eth0 master br0"

        harness.wait_until(next_look_over, "the next look at the isolation", timeout=15)
        self.assertEqual(daemon.messages().count(warning), 1)
        self.assertEqual(daemon.messages().count("Isolation back in force"), 1)

    @unittest.skipIf(harness.EMULATOR, "a user-mode emulator carries no netfilter netlink or table sockopts: "
                     "the daemon cannot see the kernel's tables move")
    def test_a_flush_between_later_looks_is_found_once_the_kernels_tables_moved(self):
        config, options = CONFIGS["eth0eth1"]
        self.sandbox.write_config(config)
        daemon = self.start_daemon(**options)
        daemon.wait_for_message(ISOLATION_IN_FORCE)
        # The first look after the build lists the tables; the later ones list
        # only once the kernel shows they moved.
        looks = self.sandbox.commands().count(ISOLATION_LOOK[-1])
        harness.wait_until(lambda: self.sandbox.commands().count(ISOLATION_LOOK[-1]) > looks,
                           "the first look after the build", timeout=15)
        self.sandbox.set_rules("arptables", [])
        daemon.filter_tables_moved()
        flushed = time.monotonic()
        warning = "Isolation not in force (0 of 38 ARP rules in place); putting it back"
        daemon.wait_for_message(warning, timeout=15)
        self.assertLess(time.monotonic() - flushed, 15)
        daemon.wait_for_message("Isolation back in force")
        self.assertEqual(self.sandbox.rules("arptables"), ISOLATION_TABLES["arptables"])


if __name__ == "__main__":
    harness.main()
