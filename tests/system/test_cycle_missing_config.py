"""A configuration file that is missing from the start: the cycle reports it once
a second and runs nothing; a stop signal still ends the daemon normally."""

import datetime
import signal

import harness
from expected_commands import START_UP


class MissingConfigTest(harness.DaemonTestCase):
    def test_unreadable_file_is_reported_once_a_second_and_nothing_runs(self):
        daemon = self.start_daemon()
        entries = daemon.wait_for_message("Unable to read configuration file", count=3)
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())

        reports = [entry for entry in daemon.entries() if entry.message == "Unable to read configuration file"]
        for entry in reports:
            self.assertEqual((entry.level, entry.function), ("ERROR", "ParseConfigFile"))
            self.assertTrue(entry.file.startswith("src/Network"), entry.file)
        stamps = [datetime.datetime.strptime(entry.stamp, "%Y-%m-%d %H:%M:%S.%f") for entry in reports]
        gaps = [(later - earlier).total_seconds() for earlier, later in zip(stamps, stamps[1:])]
        # One cycle, then a one-second pause: never faster, and not much slower with nothing to run.
        for gap in gaps:
            self.assertGreaterEqual(gap, 0.99, gaps)
            self.assertLess(gap, 3.0, gaps)
        # The first report follows start-up directly.
        self.assertEqual(daemon.messages()[2:4], ["Bringing up loopback lo", "Unable to read configuration file"])
        self.assertEqual(self.sandbox.commands(), START_UP)
        self.assertEqual(daemon.messages()[-2:], [
            "SigHandler: Caught signal: 15, shutting down...",
            "tessel-networkd exiting with code of 0",
        ])


if __name__ == "__main__":
    harness.main()
