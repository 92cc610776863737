"""Steady cycles: with an unchanged, usable configuration and static addresses a cycle
runs nothing, or only the re-attach of a healthy eth0 where eth0 is a bridge port."""

import harness
from expected_commands import REGISTER_WRITES

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


if __name__ == "__main__":
    harness.main()
