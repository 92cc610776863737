"""The PHY mode as status shows it: a write that found no driver file is a failure
(tessel-networkctl status exits 1 naming the PHY mode, and its reason), with the one
ERROR of the design in the log; a file named with --phy-file is written ("4" frame,
"0" copper) and the device is healthy; a driver file that appears later is found
without a command or an entry, written, and eth1 bounced, and status turns healthy."""

import os

import harness
from tesselkit.device import config_text

FRAME = config_text("eth0eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                    "static 10.1.0.2 255.255.255.0 0.0.0.0")
COPPER = config_text("eth0eth1", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                     "static 10.1.0.2 255.255.255.0 0.0.0.0")

DESIGN_FILE = "/proc/marvell-phy-0-port"
MISSING = "Unable to open %s patch is required"
BOUNCE_ETH1 = ["ip link set dev eth1 down", "ip link set dev eth1 up"]


class PhyStatusTest(harness.DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.sandbox.use_config_pipe()

    def start(self, *phy_file):
        """The daemon with a real eth0 that is up; `phy_file`: --phy-file's value, if any."""
        args = ["--config", self.sandbox.config_path] + (["--phy-file", phy_file[0]] if phy_file else [])
        return self.start_daemon(args=args, interfaces=["eth0"], up=["eth0"])

    def ctl_status(self, daemon, expected_exit):
        # Whole texts: the table wraps long ones at 80 columns.
        result = daemon.ctl("status", "--full")
        self.assertEqual(result.returncode, expected_exit, result.stdout + result.stderr)
        return result.stdout

    def missing_entries(self, daemon):
        return [(e.level, e.message) for e in daemon.entries() if e.message.startswith("Unable to open")]

    def test_a_missing_driver_file_is_a_failing_phy_mode_and_a_degraded_device(self):
        daemon = self.start()
        daemon.run_cycle(FRAME, 3)
        document = self.sandbox.status()
        self.assertIsNone(document["phy_mode"])
        self.assertEqual(document["configuration"]["phy_mode"], "frame")
        phy = document["work"]["phy"]
        self.assertTrue(phy["failing"], phy)
        self.assertEqual(phy["last_failure"]["command"], MISSING % DESIGN_FILE)
        self.assertRegex(phy["last_failure"]["outcome"], r"^not started \(.+\)$")
        table = self.ctl_status(daemon, 1)
        self.assertRegex(table, r"State: +degraded\nFirst cause: +PHY mode failing \(" + MISSING % DESIGN_FILE + r": not started ")
        self.assertRegex(table, r"PHY mode: +none \(configured frame\)")
        # The design's one ERROR, however many passes: no retry announced, nothing run for it.
        self.assertEqual(self.missing_entries(daemon), [("ERROR", MISSING % DESIGN_FILE)])
        self.assertEqual([m for m in daemon.messages() if "PHY" in m], [])
        self.assertEqual(self.sandbox.commands().count(BOUNCE_ETH1[0]), 2)  # start-up's, and the write's

    def test_a_file_named_on_the_command_line_takes_the_mode_and_the_device_is_healthy(self):
        with open(self.sandbox.tmp_path("marvell-phy-0-port"), "w"):
            pass
        daemon = self.start("/tmp/marvell-phy-0-port")
        daemon.run_cycle(FRAME, 2)
        with open(self.sandbox.tmp_path("marvell-phy-0-port")) as port:
            self.assertEqual(port.read(), "4")
        document = self.sandbox.status()
        self.assertEqual(document["phy_mode"], "frame")
        self.assertFalse(document["work"]["phy"]["failing"])
        self.assertRegex(self.ctl_status(daemon, 0), r"State: +healthy\n")
        self.assertIn("Using ETH PHY type 4, RGMII to SGMII", daemon.messages())

        daemon.run_cycle(COPPER, 2)
        with open(self.sandbox.tmp_path("marvell-phy-0-port")) as port:
            self.assertEqual(port.read(), "0")
        self.assertEqual(self.sandbox.status()["phy_mode"], "copper")
        self.assertRegex(self.ctl_status(daemon, 0), r"State: +healthy\n")
        self.assertEqual([e for e in daemon.entries() if e.level in ("WARN", "ERROR")], [])

    def test_a_driver_file_that_appears_later_is_written_and_eth1_bounced(self):
        path = "/tmp/driver/marvell-phy-0-port"
        daemon = self.start(path)
        daemon.run_cycle(FRAME, 2)
        self.assertRegex(self.ctl_status(daemon, 1), r"PHY mode failing \(" + MISSING % path)
        os.mkdir(self.sandbox.tmp_path("driver"))
        with open(self.sandbox.tmp_path("driver/marvell-phy-0-port"), "w"):
            pass
        self.sandbox.clear_commands()
        # Looked for 1, 2, 4 ... s apart: found within the next minute.
        harness.wait_until(lambda: daemon.run_cycle(FRAME) or not self.sandbox.status()["work"]["phy"]["failing"],
                           "the PHY mode to be written once its file is there", 70)
        with open(self.sandbox.tmp_path("driver/marvell-phy-0-port")) as port:
            self.assertEqual(port.read(), "4")
        # eth1 bounced once, as after a change of mode; the looks before ran nothing for it.
        commands = self.sandbox.commands()
        self.assertEqual(commands.count(BOUNCE_ETH1[0]), 1, commands)
        at = commands.index(BOUNCE_ETH1[0])
        self.assertEqual(commands[at:at + 2], BOUNCE_ETH1)
        self.assertEqual(self.sandbox.status()["phy_mode"], "frame")
        self.assertRegex(self.ctl_status(daemon, 0), r"State: +healthy\n")
        self.assertEqual(self.missing_entries(daemon), [("ERROR", MISSING % path)])
        recovered = [m for m in daemon.messages() if m.startswith("Recovered PHY mode after ")]
        self.assertEqual(len(recovered), 1, daemon.output())


if __name__ == "__main__":
    harness.main()
