"""Edits of the configuration file while the daemon runs, each made in one step (a new
file renamed over the old one): the next cycle applies exactly what changed.

eth0 is a real, healthy interface here, so every cycle re-attaches it to br0 first
thing (unless the bridge is rebuilt); that command marks the cycles. Commands are
compared from just before an edit until two cycles after the one that applied it."""

import harness
from expected_commands import BRIDGE_ETH1, BUILD_ETH0, BUILD_ETH1, ISOLATION_TABLES, REMOVE_LINK_LAYER_RULES
from tesselkit.device import config_text

REATTACH = "ip link set eth0 master br0"

STATIC_ETH0 = config_text("eth0", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                          "static 10.1.0.2 255.255.255.0 10.1.0.1")

NEW_GATEWAY = config_text("eth0", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.254",
                          "static 10.1.0.2 255.255.255.0 10.1.0.1")

NEW_PHY_MODE = config_text("eth0", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.254",
                           "static 10.1.0.2 255.255.255.0 10.1.0.1")

BOTH_PORTS = config_text("eth0eth1", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1", "dhcp")

ETH0_ONLY = config_text("eth0", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1", "dhcp")

ETH1_ONLY = config_text("eth1", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1", "dhcp")


def around_reattach(commands):
    """The re-attaches before and after the commands of an edit, and those commands."""
    start = 0
    while start < len(commands) and commands[start] == REATTACH:
        start += 1
    end = len(commands)
    while end > start and commands[end - 1] == REATTACH:
        end -= 1
    return start, commands[start:end], len(commands) - end


class ConfigEditTest(harness.DaemonTestCase):
    def start_steady(self, config):
        """Starts the daemon on `config` and waits until its first cycle is over and the
        next one has re-attached eth0."""
        self.sandbox.write_config(config)
        daemon = self.start_daemon(interfaces=["eth0"], up=["eth0"])

        def steady():
            commands = self.sandbox.commands()
            # Start-up bounces eth1 once, the first cycle's PHY mode write again.
            return commands.count("ip link set dev eth1 up") == 2 and commands[-1] == REATTACH

        harness.wait_until(steady, lambda: "the second cycle; commands: %r" % self.sandbox.commands())
        return daemon

    def edit(self, daemon, config):
        """Rewrites the file; returns the commands of the cycle that applied it (without its
        re-attach) and the log entries (level, message) since the rewrite."""
        self.sandbox.clear_commands()
        logged = len(daemon.entries())
        self.sandbox.write_config(config)

        def applied_and_two_more_cycles():
            before, edit, after = around_reattach(self.sandbox.commands())
            return edit and after >= 2

        harness.wait_until(applied_and_two_more_cycles, lambda: "the edit; commands: %r" % self.sandbox.commands())
        before, edit, after = around_reattach(self.sandbox.commands())
        return edit, [(e.level, e.message) for e in daemon.entries()[logged:]]

    def assert_nothing_but_reattach(self, daemon, cycles=3):
        """Waits for `cycles` re-attaches, which nothing else may accompany."""
        self.sandbox.clear_commands()
        logged = len(daemon.entries())
        commands = self.sandbox.wait_for_commands(cycles)
        self.assertEqual(commands, [REATTACH] * len(commands))
        self.assertEqual(daemon.messages()[logged:], [])

    def test_gateway_and_phy_mode_edits_apply_what_changed_and_a_rewrite_changes_nothing(self):
        daemon = self.start_steady(STATIC_ETH0)

        self.assertEqual(self.edit(daemon, NEW_GATEWAY), ([
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
            "ip route add default via 10.0.0.254 dev veth1 metric 10",
        ], [
            ("INFO", "Configuring interface veth1 for static IP"),
            ("INFO", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
            ("INFO", "Adding default gateway 10.0.0.254 for veth1"),
        ]))

        # The PHY mode is written (the driver's file is missing here) and eth1 bounced;
        # the bridge is left alone.
        self.assertEqual(self.edit(daemon, NEW_PHY_MODE), ([
            "ip link set dev eth1 down",
            "ip link set dev eth1 up",
        ], [
            ("ERROR", "Unable to open /proc/marvell-phy-0-port patch is required"),
        ]))

        self.sandbox.write_config(NEW_PHY_MODE)
        self.assert_nothing_but_reattach(daemon)

    def test_bridge_mode_change_from_both_ports_to_eth0_rebuilds_and_drops_veth3(self):
        daemon = self.start_steady(BOTH_PORTS)
        self.assertIn("udhcpc -i veth3 -b -R -s /usr/share/udhcpc/tessel.script", self.sandbox.commands())

        self.assertEqual(self.edit(daemon, ETH0_ONLY), (BUILD_ETH0 + [
            "ip link set eth0 master br0",
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
            "ip route add default via 10.0.0.1 dev veth1 metric 10",
        ], [
            ("INFO", "Setting up bridge for control network"),
            ("INFO", "Done with bridge setup"),
            ("INFO", "Configuring interface veth1 for static IP"),
            ("INFO", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
            ("INFO", "Adding default gateway 10.0.0.1 for veth1"),
        ]))

        # veth3 is no longer serviced: a lease for it stays unread.
        self.sandbox.write_lease("veth3", "veth3 10.1.0.5 255.255.255.0\n10.1.0.1\n")
        self.assert_nothing_but_reattach(daemon)
        self.assertTrue(self.sandbox.lease_exists("veth3"))

    def test_bridge_mode_change_from_both_ports_to_eth1_removes_the_link_layer_rules(self):
        # Gated cycles: the commands of the one pass that applies the change, whatever
        # the time (no look at the isolation falls into it).
        self.sandbox.use_config_pipe()
        daemon = self.start_daemon(interfaces=["eth0"], up=["eth0"])
        daemon.run_cycle(BOTH_PORTS)
        self.assertEqual(self.sandbox.rules("ebtables"), ISOLATION_TABLES["ebtables"])
        self.sandbox.clear_commands()
        logged = len(daemon.entries())
        daemon.run_cycle(ETH1_ONLY)
        self.assertEqual(self.sandbox.commands(), BUILD_ETH1 + [
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
            "ip route add default via 10.0.0.1 dev veth1 metric 10",
        ])
        # Built as the design says, the two-port build's link-layer rules flushed after it.
        self.assertEqual(BUILD_ETH1, BRIDGE_ETH1 + REMOVE_LINK_LAYER_RULES)
        self.assertEqual(REMOVE_LINK_LAYER_RULES[0], "ebtables -F")
        self.assertEqual([(e.level, e.message) for e in daemon.entries()[logged:]], [
            ("INFO", "Setting up bridge for control network"),
            ("INFO", "Done with bridge setup"),
            ("INFO", "Configuring interface veth1 for static IP"),
            ("INFO", "Configuring veth1 for 10.0.0.2/255.255.255.0"),
            ("INFO", "Adding default gateway 10.0.0.1 for veth1"),
        ])
        self.assertEqual(self.sandbox.rules("ebtables"), [])
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), [])


if __name__ == "__main__":
    harness.main()
