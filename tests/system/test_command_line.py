"""The daemon's command line: usage on --help, status 1 and usage on a rejected line."""

import harness
from tesselkit.logs import parse_log_line

# What ShowUsage prints after its one-line banner.
USAGE = (
    "Usage: tessel-networkd [OPTIONS]\n"
    "Options:\n"
    "    -h, --help                                   [Override ] Shows this help\n"
    "    -c, --config                                 [Mandatory] Path to config file\n"
    "    -s, --status-dir                             [Optional ] Directory of the status document (default "
    "/run/tessel-networkd)\n"
    "    -V, --version                                [Override ] Shows the version and the source revision\n"
    "    -p, --phy-file                               [Optional ] PHY driver's file the PHY mode is written to (default "
    "/proc/marvell-phy-0-port)\n"
    "    -m, --metrics-dir                            [Optional ] Directory (the node exporter's textfile one) to keep "
    "the status in as Prometheus metrics too, as tessel_networkd.prom (default: none)\n"
    "\n"
)


class CommandLineTest(harness.DaemonTestCase):
    def run_to_end(self, args):
        daemon = self.start_daemon(args=args)
        status = daemon.wait_exit()
        return status, daemon.output()

    def assert_usage_only(self, output):
        """The start line, the banner, the usage text, and nothing else."""
        lines = output.split("\n", 2)
        self.assertEqual(len(lines), 3, output)
        start = parse_log_line(lines[0])
        self.assertIsNotNone(start, output)
        self.assertEqual((start.level, start.file, start.function, start.message),
                         ("INFO", "src/main.cpp", "main", "tessel-networkd starting"))
        banner = lines[1]
        self.assertNotEqual(banner.strip(), "", output)
        self.assertIsNone(parse_log_line(banner), output)
        self.assertFalse(banner.startswith("Usage:"), output)
        self.assertEqual(lines[2], USAGE)

    def test_help_prints_the_usage_and_ends_with_status_0(self):
        for args in (["--help"], ["-h"], ["-c", self.sandbox.config_path, "--help"],
                     ["-h", "--config", self.sandbox.config_path]):
            with self.subTest(args=args):
                status, output = self.run_to_end(args)
                self.assertEqual(status, 0, output)
                self.assert_usage_only(output)
                self.assertNotIn("Using config file: ", output)
                self.assertEqual(self.sandbox.commands(), [])

    def test_rejected_command_lines_print_the_usage_and_end_with_status_1(self):
        cases = {
            "no --config": [],
            "unknown option": ["--config", self.sandbox.config_path, "--verbose"],
            "unknown short option": ["-x"],
            "--config without value": ["--config"],
            "--status-dir without value": ["--config", self.sandbox.config_path, "--status-dir"],
            "duplicate option": ["-c", "a", "--config", "b"],
            "value joined by '='": ["--config=a"],
            "stray argument": [self.sandbox.config_path],
        }
        for case, args in cases.items():
            with self.subTest(case=case):
                status, output = self.run_to_end(args)
                self.assertEqual(status, 1, output)
                self.assert_usage_only(output)
                self.assertNotIn("exiting with code", output)
                self.assertEqual(self.sandbox.commands(), [])


if __name__ == "__main__":
    harness.main()
