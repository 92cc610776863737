"""The eth0 link watch of bridge mode 0, with a real eth0 (one end of a veth pair in the
daemon's namespace) changed from outside while the daemon runs: up, administratively
down, up without carrier, and gone."""

import harness
from expected_commands import BUILD_ETH0, REGISTER_WRITES, START_UP
from tesselkit.namespaces import real_tool
from tesselkit.device import config_text

CONFIG = config_text("eth0", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                     "static 10.1.0.2 255.255.255.0 0.0.0.0")

REATTACH = ["ip link set eth0 master br0"]

BOUNCE_AND_REGISTER_WRITES = [
    "ip link set eth0 down",
    "ip link set eth0 up",
] + REGISTER_WRITES

LINK_QUERY_FAILED = [
    ("ERROR", "GenericInterfaceLinkIsUp", "Unable to query link status for eth0 ioctl failed"),
    ("WARN", "RunSupervisionCycle", "Unable to get link status for bridge physical interface eth0"),
]


class Eth0LinkTest(harness.DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.sandbox.use_config_pipe()
        self.ip = real_tool("ip")

    def cycles(self, daemon, count):
        """Runs `count` cycles; returns the commands and log entries (level, function,
        message) they produced."""
        self.sandbox.clear_commands()
        logged = len(daemon.entries())
        daemon.run_cycle(CONFIG, count)
        return self.sandbox.commands(), [(e.level, e.function, e.message) for e in daemon.entries()[logged:]]

    def wait_for_link(self, daemon, flags, state):
        """Waits until `ip` shows eth0 with these flags and operational state. The kernel
        reports the interface running (what the daemon asks for) only with the state."""
        def shown():
            line = daemon.ns_run([self.ip, "-o", "link", "show", "eth0"])
            shown_flags = set(line[line.index("<") + 1:line.index(">")].split(","))
            return set(flags) <= shown_flags and " state %s " % state in line

        harness.wait_until(shown, "eth0 to show %s and state %s" % (",".join(flags), state))

    def test_each_state_of_eth0_gets_its_own_treatment_every_cycle(self):
        daemon = self.start_daemon(interfaces=["eth0"], up=["eth0"])
        daemon.run_cycle(CONFIG)  # the first cycle; its commands are another file's subject

        self.assertEqual(self.cycles(daemon, 2), (REATTACH + REATTACH, []), "up")

        daemon.ns_run([self.ip, "link", "set", "eth0", "down"])
        self.assertEqual(self.cycles(daemon, 2),
                         (BOUNCE_AND_REGISTER_WRITES + BOUNCE_AND_REGISTER_WRITES, []), "administratively down")

        daemon.ns_run([self.ip, "link", "set", "eth0", "up"])
        self.wait_for_link(daemon, ["UP", "LOWER_UP"], "UP")
        self.assertEqual(self.cycles(daemon, 1), (REATTACH, []), "up again")

        daemon.ns_run([self.ip, "link", "set", "eth0-peer", "down"])
        self.wait_for_link(daemon, ["UP", "NO-CARRIER"], "LOWERLAYERDOWN")
        self.assertEqual(self.cycles(daemon, 2),
                         (BOUNCE_AND_REGISTER_WRITES + BOUNCE_AND_REGISTER_WRITES, []), "up without carrier")

        daemon.ns_run([self.ip, "link", "del", "eth0"])
        self.assertEqual(self.cycles(daemon, 2), ([], LINK_QUERY_FAILED + LINK_QUERY_FAILED), "missing")

    def test_missing_eth0_is_reported_and_registers_are_written_in_the_first_cycle_only(self):
        daemon = self.start_daemon()
        daemon.run_cycle(CONFIG)
        self.assertEqual(self.sandbox.commands(), START_UP + BUILD_ETH0 + REGISTER_WRITES + [
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
            "ip route add default via 10.0.0.1 dev veth1 metric 10",
            "ip link set dev eth1 down",
            "ip link set dev eth1 up",
        ])
        self.assertEqual([(e.level, e.function, e.message) for e in daemon.entries()[3:]], [
            ("INFO", "SetupBridge", "Setting up bridge for control network"),
            ("INFO", "SetupBridge", "Done with bridge setup"),
        ] + LINK_QUERY_FAILED + [
            ("INFO", "SetupInterface", "Configuring interface veth1 for static IP"),
            ("INFO", "SetAddrAndRouting", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
            ("INFO", "SetAddrAndRouting", "Adding default gateway 10.0.0.1 for veth1"),
            ("ERROR", "SetEthernetPhyMode", "Unable to open /proc/marvell-phy-0-port patch is required"),
        ])
        self.assertEqual(self.cycles(daemon, 2), ([], LINK_QUERY_FAILED + LINK_QUERY_FAILED))


if __name__ == "__main__":
    harness.main()
