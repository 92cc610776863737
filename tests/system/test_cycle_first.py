"""The first cycle whose configuration is usable, in each bridge mode: every command
from start-up to the end of that cycle, the log, and the pace of the register writes."""

import harness
from expected_commands import (BRIDGE_ETH0ETH1, BUILD_ETH0, BUILD_ETH0ETH1, BUILD_ETH1, ETH1_BLOCK, ETH1_LIFT,
                               ISOLATION_IN_FORCE, ISOLATION_TABLES, REGISTER_WRITES, START_UP, VETH0_BLOCK,
                               VETH0_LIFT)
from tesselkit.timelines import isolation_rule_counts
from tesselkit.device import config_text

# eth0 is watched in modes 0 and 2; it is a real interface, up with a carrier.
ETH0_UP = {"interfaces": ["eth0"], "up": ["eth0"]}

CONFIG_ETH0 = """# network settings
bridge eth0
phy copper
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
"""

# veth3 is not serviced in this mode, whatever its line says.
CONFIG_ETH1 = config_text("eth1", "frame", "static 10.0.0.2 255.255.255.0 0.0.0.0", "dhcp")

# No phy line: the mode stays copper.
CONFIG_ETH0ETH1 = """bridge eth0eth1
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
"""

FIRST_CYCLE_ETH0 = START_UP + BUILD_ETH0 + [
    "ip link set eth0 master br0",
] + REGISTER_WRITES + [
    "ip route flush dev veth1",
    "ip addr flush dev veth1",
    "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
    "ip route add default via 10.0.0.1 dev veth1 metric 10",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
]

FIRST_CYCLE_ETH1 = START_UP + BUILD_ETH1 + REGISTER_WRITES + [
    "ip route flush dev veth1",
    "ip addr flush dev veth1",
    "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
]

FIRST_CYCLE_ETH0ETH1 = START_UP + BUILD_ETH0ETH1 + [
    "ip link set eth0 master br0",
] + REGISTER_WRITES + [
    "ip route flush dev veth1",
    "ip addr flush dev veth1",
    "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
    "ip route add default via 10.0.0.1 dev veth1 metric 10",
    "ip route flush dev veth3",
    "ip addr flush dev veth3",
    "ip addr add 10.1.0.2/255.255.255.0 dev veth3",
    "ip route add default via 10.1.0.1 dev veth3 metric 100",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
]


def start_log(sandbox):
    return [
        ("INFO", "tessel-networkd starting"),
        ("INFO", "Using config file: " + sandbox.config_path),
        ("INFO", "Bringing up loopback lo"),
    ]


class FirstCycleTest(harness.DaemonTestCase):
    def start_all(self, cases):
        """One sandbox per case, all started at once; each runs its first cycle only."""
        runs = {}
        for mode, (config, options) in cases.items():
            sandbox = harness.Sandbox(harness.DAEMON_PATH)
            self.addCleanup(sandbox.cleanup)
            sandbox.use_config_pipe()
            sandbox.record_times("devmem")
            sandbox.record_times("ip")
            runs[mode] = (sandbox, sandbox.start(**options), config)
        harness.run_cycles_in_step([(daemon, config) for sandbox, daemon, config in runs.values()])
        return runs

    def test_first_usable_cycle_in_each_bridge_mode(self):
        runs = self.start_all({
            "eth0": (CONFIG_ETH0, ETH0_UP),
            "eth1": (CONFIG_ETH1, {}),
            "eth0eth1": (CONFIG_ETH0ETH1, ETH0_UP),
        })
        self.assertEqual(len(BRIDGE_ETH0ETH1), 84)
        expected = {
            "eth0": (FIRST_CYCLE_ETH0, [
                ("INFO", "Setting up bridge for control network"),
                ("INFO", "Done with bridge setup"),
                ("INFO", "Configuring interface veth1 for static IP"),
                ("INFO", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
                ("INFO", "Adding default gateway 10.0.0.1 for veth1"),
                ("ERROR", "Unable to open /proc/marvell-phy-0-port patch is required"),
            ]),
            # eth0 does not exist here, and nothing asks for it.
            "eth1": (FIRST_CYCLE_ETH1, [
                ("INFO", "Setting up bridge for control network"),
                ("INFO", "Done with bridge setup"),
                ("INFO", "Configuring interface veth1 for static IP"),
                ("INFO", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
                ("INFO", "Not adding default gateway for veth1"),
                ("ERROR", "Unable to open /proc/marvell-phy-0-port patch is required"),
            ]),
            "eth0eth1": (FIRST_CYCLE_ETH0ETH1, [
                ("INFO", "Setting up bridge for control network"),
                ("INFO", "Done with bridge setup"),
                ("INFO", ISOLATION_IN_FORCE),
                ("INFO", "Configuring interface veth1 for static IP"),
                ("INFO", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
                ("INFO", "Adding default gateway 10.0.0.1 for veth1"),
                ("INFO", "Configuring interface veth3 for static IP"),
                ("INFO", "Configuring veth3 for 10.1.0.2/255.255.255.0"),
                ("INFO", "Adding default gateway 10.1.0.1 for veth3"),
                ("ERROR", "Unable to open /proc/marvell-phy-0-port patch is required"),
            ]),
        }
        for mode, (sandbox, daemon, config) in runs.items():
            with self.subTest(mode=mode):
                commands, log = expected[mode]
                self.assertEqual(sandbox.commands(), commands)
                self.assertEqual([(e.level, e.message) for e in daemon.entries()], start_log(sandbox) + log)
                phy = [e for e in daemon.entries() if e.message.startswith("Unable to open /proc/marvell")]
                self.assertEqual([(e.file, e.function) for e in phy], [("src/NetworkLinkPhy.cpp", "SetEthernetPhyMode")])

    def test_first_two_port_pass_blocks_eth1_around_the_build_and_leaves_the_isolation_in_the_tables(self):
        self.sandbox.use_config_pipe()
        daemon = self.start_daemon(**ETH0_UP)
        daemon.run_cycle(CONFIG_ETH0ETH1)
        commands = self.sandbox.commands()
        build = commands[len(START_UP):len(START_UP) + len(BUILD_ETH0ETH1)]
        self.assertEqual(build, BUILD_ETH0ETH1)
        # eth1, then veth0, blocked before the build's first command; veth0, then eth1,
        # lifted by its last four; in between nothing touches the blocks.
        blocks, lifts = ETH1_BLOCK + VETH0_BLOCK, VETH0_LIFT + ETH1_LIFT
        self.assertEqual(build[:len(blocks)], blocks)
        self.assertEqual(build[len(blocks)], BRIDGE_ETH0ETH1[0])
        self.assertEqual(build[-len(lifts):], lifts)
        self.assertEqual([c for c in build[len(blocks):-len(lifts)] if c.startswith("ebtables -t nat")], [])
        # eth1 is raised by the build only while it is blocked, and nothing of the build
        # comes after the lift: the pass goes on with eth0.
        self.assertLess(build.index("ip link set eth1 up"), len(build) - len(lifts))
        self.assertEqual(commands[len(START_UP) + len(BUILD_ETH0ETH1)], "ip link set eth0 master br0")
        # What the stand-ins' tables hold: the isolation's rules, all DROP, the block gone.
        counts = isolation_rule_counts()
        for tool, count in (("arptables", counts["ARP"]), ("iptables", counts["IP"]),
                            ("ebtables", counts["link layer"])):
            with self.subTest(tool=tool):
                rules = self.sandbox.rules(tool)
                self.assertEqual(len(rules), count, rules)
                self.assertEqual([rule for rule in rules if not rule.endswith(" -j DROP")], [])
                self.assertEqual(rules, ISOLATION_TABLES[tool])
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), [])
        self.assertIn(("INFO", "CompleteIsolation", ISOLATION_IN_FORCE),
                      [(e.level, e.function, e.message) for e in daemon.entries()])

    def test_register_writes_pause_a_tenth_of_a_second_after_each_step(self):
        runs = self.start_all({"eth0": (CONFIG_ETH0, ETH0_UP), "eth1": (CONFIG_ETH1, {})})
        for mode, (sandbox, daemon, config) in runs.items():
            with self.subTest(mode=mode):
                timed = sandbox.timed_commands()
                first = [i for i, (_, command) in enumerate(timed) if command.startswith("devmem")][0]
                writes = timed[first:first + 9]  # the eight writes and the command after them
                self.assertEqual([command for _, command in writes], REGISTER_WRITES + ["ip route flush dev veth1"])
                stamps = [stamp for stamp, _ in writes]
                gaps = [later - earlier for earlier, later in zip(stamps, stamps[1:])]
                # Six steps, a pause after each; the two writes of a pulse have none between them,
                # which under load cannot be told from a slow start, so only the pauses are checked.
                for step_end in (0, 1, 3, 5, 6, 7):
                    self.assertGreaterEqual(gaps[step_end], 0.1, gaps)
                self.assertGreaterEqual(stamps[7] - stamps[0], 0.5, gaps)
                self.assertGreaterEqual(stamps[8] - stamps[0], 0.6, gaps)


if __name__ == "__main__":
    harness.main()
