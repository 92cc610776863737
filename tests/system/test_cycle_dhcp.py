"""DHCP on veth1 and veth3 through whole cycles: the client's start, leases appearing in
the daemon's /tmp, renewals, lost leases, and clients left over from an earlier run."""

import harness
from expected_commands import BUILD_ETH0ETH1, BUILD_ETH1, ISOLATION_IN_FORCE, REGISTER_WRITES, START_UP

ETH0_UP = {"interfaces": ["eth0"], "up": ["eth0"]}
CLIENT_VETH1 = "udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script"
CLIENT_VETH3 = "udhcpc -i veth3 -b -R -s /usr/share/udhcpc/tessel.script"
REATTACH = "ip link set eth0 master br0"

VETH1_DHCP_ETH1 = """bridge eth1
veth1 dhcp
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
"""

VETH3_DHCP_BOTH_PORTS = """bridge eth0eth1
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 dhcp
"""


class DhcpCycleTest(harness.DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.sandbox.use_config_pipe()

    def cycle(self, daemon, config):
        """One cycle; returns its commands and the messages it logged."""
        self.sandbox.clear_commands()
        logged = len(daemon.messages())
        daemon.run_cycle(config)
        return self.sandbox.commands(), daemon.messages()[logged:]

    def test_veth1_client_start_then_new_same_and_lost_leases(self):
        # A lease from before the start is discarded with the old clients, never applied.
        self.sandbox.write_lease("veth1", "veth1 10.9.9.9 255.255.255.0\n10.9.9.1\n")
        # The client stays, as a real one does, so the daemon never finds it gone.
        self.sandbox.set_linger("udhcpc")
        daemon = self.start_daemon()
        daemon.run_cycle(VETH1_DHCP_ETH1)
        self.assertEqual(self.sandbox.commands(), START_UP + BUILD_ETH1 + REGISTER_WRITES + [
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            CLIENT_VETH1,
            "ip link set dev eth1 down",
            "ip link set dev eth1 up",
        ])
        self.assertEqual(daemon.messages()[3:], [
            "Setting up bridge for control network",
            "Done with bridge setup",
            "Configuring interface veth1 for DHCP",
            "Starting DHCP for interface veth1",
            "Unable to open /proc/marvell-phy-0-port patch is required",
        ])
        self.assertFalse(self.sandbox.lease_exists("veth1"))

        self.sandbox.write_lease("veth1", "veth1 10.0.0.5 255.255.255.0\n10.0.0.1\n")
        self.assertEqual(self.cycle(daemon, VETH1_DHCP_ETH1), ([
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            "ip addr add 10.0.0.5/255.255.255.0 dev veth1",
            "ip route add default via 10.0.0.1 dev veth1 metric 10",
        ], [
            "New DHCP lease for veth1",
            "Configuring veth1 for 10.0.0.5/255.255.255.0",
            "Adding default gateway 10.0.0.1 for veth1",
        ]), "new lease")
        self.assertFalse(self.sandbox.lease_exists("veth1"))

        # No file: nothing; the client is not started again.
        self.assertEqual(self.cycle(daemon, VETH1_DHCP_ETH1), ([], []), "no lease file")

        self.sandbox.write_lease("veth1", "veth1 10.0.0.5 255.255.255.0\n10.0.0.1\n")
        self.assertEqual(self.cycle(daemon, VETH1_DHCP_ETH1), ([], []), "the same lease again")
        self.assertFalse(self.sandbox.lease_exists("veth1"))

        self.sandbox.write_lease("veth1", "veth1 0.0.0.0 0.0.0.0\n")
        self.assertEqual(self.cycle(daemon, VETH1_DHCP_ETH1), ([
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
        ], [
            "No DHCP lease for veth1",
            "No DHCP lease for veth1",
        ]), "lease lost")
        self.assertFalse(self.sandbox.lease_exists("veth1"))

        # Lost while none is in force: said once, nothing to flush.
        self.sandbox.write_lease("veth1", "veth1 0.0.0.0 0.0.0.0\n")
        self.assertEqual(self.cycle(daemon, VETH1_DHCP_ETH1), ([], ["No DHCP lease for veth1"]), "no lease again")
        self.assertFalse(self.sandbox.lease_exists("veth1"))

    def test_veth3_lease_with_both_ports_bridged_gets_metric_100(self):
        daemon = self.start_daemon(**ETH0_UP)
        daemon.run_cycle(VETH3_DHCP_BOTH_PORTS)
        self.assertEqual(self.sandbox.commands(), START_UP + BUILD_ETH0ETH1 + [REATTACH] + REGISTER_WRITES + [
            "ip route flush dev veth1",
            "ip addr flush dev veth1",
            "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
            "ip route add default via 10.0.0.1 dev veth1 metric 10",
            "ip route flush dev veth3",
            "ip addr flush dev veth3",
            CLIENT_VETH3,
            "ip link set dev eth1 down",
            "ip link set dev eth1 up",
        ])

        self.sandbox.write_lease("veth3", "veth3 10.1.0.5 255.255.255.0\n10.1.0.1\n")
        self.assertEqual(self.cycle(daemon, VETH3_DHCP_BOTH_PORTS), ([
            REATTACH,
            "ip route flush dev veth3",
            "ip addr flush dev veth3",
            "ip addr add 10.1.0.5/255.255.255.0 dev veth3",
            "ip route add default via 10.1.0.1 dev veth3 metric 100",
        ], [
            "New DHCP lease for veth3",
            "Configuring veth3 for 10.1.0.5/255.255.255.0",
            "Adding default gateway 10.1.0.1 for veth3",
        ]))
        self.assertFalse(self.sandbox.lease_exists("veth3"))

    def test_clients_left_over_from_an_earlier_run_are_stopped_for_the_dhcp_interface_only(self):
        # Per bridge mode: the configuration, and the interface whose client is stopped.
        cases = {
            "eth0": ("bridge eth0\nveth1 dhcp\nveth3 dhcp\n", ETH0_UP, "veth1"),
            "eth1": ("bridge eth1\nveth1 dhcp\nveth3 dhcp\n", {}, "veth1"),
            "eth0eth1": ("bridge eth0eth1\nveth1 static 10.0.0.2 255.255.255.0 0.0.0.0\nveth3 dhcp\n",
                         ETH0_UP, "veth3"),
        }
        runs = {}
        for mode, (config, options, stopped) in cases.items():
            sandbox = harness.Sandbox(harness.DAEMON_PATH)
            self.addCleanup(sandbox.cleanup)
            sandbox.use_config_pipe()
            runs[mode] = (sandbox, sandbox.start(setup=sandbox.leftover_clients("veth1", "veth3"), **options))
        harness.run_cycles_in_step([(daemon, cases[mode][0]) for mode, (sandbox, daemon) in runs.items()])

        for mode, (sandbox, daemon) in runs.items():
            with self.subTest(mode=mode):
                stopped = cases[mode][2]
                pids = sandbox.client_pids()
                self.assertEqual(sorted(pids), ["veth1", "veth3"])
                static_veth1 = [
                    "Configuring interface veth1 for static IP",
                    "Configuring veth1 for 10.0.0.2/255.255.255.0",
                    "Not adding default gateway for veth1",
                ] if stopped == "veth3" else []
                isolation = [ISOLATION_IN_FORCE] if mode == "eth0eth1" else []
                self.assertEqual(daemon.messages()[3:], [
                    "Setting up bridge for control network",
                    "Done with bridge setup",
                ] + isolation + static_veth1 + [
                    "Configuring interface %s for DHCP" % stopped,
                    "Killing udhcpc pid %d for interface %s" % (pids[stopped], stopped),
                    "Starting DHCP for interface %s" % stopped,
                    "Unable to open /proc/marvell-phy-0-port patch is required",
                ])
                def terms():
                    return [event for event in sandbox.client_events() if event[0] == "TERM"]

                harness.wait_until(terms, lambda: "SIGTERM at the %s client: %r" % (stopped, sandbox.client_events()))
                self.assertEqual(terms(), [("TERM", pids[stopped], stopped)])

        # One more cycle: the other client still runs, never signalled.
        harness.run_cycles_in_step([(daemon, cases[mode][0]) for mode, (sandbox, daemon) in runs.items()])
        for mode, (sandbox, daemon) in runs.items():
            with self.subTest(mode=mode):
                stopped = cases[mode][2]
                kept = "veth3" if stopped == "veth1" else "veth1"
                self.assertEqual([event[0] for event in sandbox.client_events()].count("TERM"), 1)
                clients = [args for args in daemon.namespace_processes() if args[:1] == ["udhcpc"]]
                self.assertEqual(clients, [["udhcpc", "-i", kept, "-b", "-R", "-s", "/usr/share/udhcpc/tessel.script"]])

if __name__ == "__main__":
    harness.main()
