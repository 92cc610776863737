"""The daemon's start-up, its stop signals and the form of its log lines."""

import datetime
import os
import signal
import subprocess

import harness
from expected_commands import ETH1_BLOCK, ETH1_BLOCKED, START_UP
from tesselkit.logs import parse_log_line


class LifecycleTest(harness.DaemonTestCase):
    def exit_lines(self, daemon):
        # The configuration is missing, so the cycle in which a signal lands still
        # reports it once; the last two other entries are the stop.
        entries = [e for e in daemon.entries() if e.message != "Unable to read configuration file"]
        return [(entry.function, entry.message) for entry in entries[-2:]]

    def test_start_up_logs_the_config_path_and_runs_its_commands_in_order(self):
        for option in ("--config", "-c"):
            with self.subTest(option=option):
                self.sandbox.clear_commands()
                daemon = self.start_running_daemon(args=[option, self.sandbox.config_path])
                daemon.send(signal.SIGTERM)
                self.assertEqual(daemon.wait_exit(), 0, daemon.output())
                self.assertEqual(daemon.messages()[:3], [
                    "tessel-networkd starting",
                    "Using config file: " + self.sandbox.config_path,
                    "Bringing up loopback lo",
                ])
                # The file does not exist, so nothing beyond start-up may run.
                self.assertEqual(self.sandbox.commands(), START_UP)

    def test_each_stop_signal_ends_the_daemon_with_its_status(self):
        expected = {signal.SIGTERM: 0, signal.SIGHUP: 1, signal.SIGINT: 2, signal.SIGQUIT: 3}
        # One sandbox each, all running at once: every stop waits out a one-second pause.
        daemons = {}
        for sig in expected:
            sandbox = harness.Sandbox(harness.DAEMON_PATH)
            self.addCleanup(sandbox.cleanup)
            daemons[sig] = (sandbox, sandbox.start())
        for sig, (sandbox, daemon) in daemons.items():
            daemon.wait_for_message("Bringing up loopback lo")
            sandbox.wait_for_commands(len(START_UP))
            daemon.send(sig)
        for sig, (sandbox, daemon) in daemons.items():
            with self.subTest(signal=sig.name):
                code = expected[sig]
                self.assertEqual(daemon.wait_exit(), code, daemon.output())
                self.assertEqual(self.exit_lines(daemon), [
                    ("SigHandler", "SigHandler: Caught signal: %d, shutting down..." % sig),
                    ("main", "tessel-networkd exiting with code of %d" % code),
                ])

    def test_a_second_daemon_refuses_to_start_and_runs_nothing(self):
        first = self.start_running_daemon()
        commands = self.sandbox.commands()
        # Started where the first one runs (its mounts, /run included, and its pid
        # namespace), as a manual run beside the service would be.
        with open("/proc/%d/status" % first.pid) as status:
            inner_pid = [line.split()[-1] for line in status if line.startswith("NSpid:")][0]
        env = dict(os.environ, PATH=self.sandbox.path("bin") + os.pathsep + os.environ.get("PATH", "/usr/bin:/bin"),
                   TESSEL_WORK=self.sandbox.work)
        second = subprocess.run(
            ["nsenter", "--target", str(first.pid), "--mount", "--pid", "--net", "--"] + self.sandbox.run_prefix
            + [self.sandbox.daemon_path, "--config", self.sandbox.config_path],
            env=env, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=harness.TIMEOUT)
        self.assertEqual(second.returncode, 75, second.stdout + second.stderr)
        entries = [parse_log_line(line) for line in second.stdout.splitlines()]
        self.assertEqual([(e.level, e.message) for e in entries], [
            ("INFO", "tessel-networkd starting"),
            ("INFO", "Using config file: " + self.sandbox.config_path),
            ("ERROR", "Another tessel-networkd is running (pid %s); not starting" % inner_pid),
        ])
        # It ran no command, and the first one goes on undisturbed.
        self.assertEqual(self.sandbox.commands(), commands)
        self.assertTrue(first.running())
        first.send(signal.SIGTERM)
        self.assertEqual(first.wait_exit(), 0, first.output())
        # The lock the first one left is no one's: the next start goes ahead.
        self.sandbox.clear_commands()
        self.start_running_daemon()
        self.assertEqual(self.sandbox.commands(), START_UP)

    def test_sigpipe_is_ignored(self):
        daemon = self.start_running_daemon()
        self.assertIn(signal.SIGPIPE, daemon.signal_mask("SigIgn"))
        self.assertTrue({signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM}
                        <= daemon.signal_mask("SigCgt"))
        daemon.send(signal.SIGPIPE)
        daemon.send(signal.SIGTERM)
        # Had SIGPIPE stopped or killed it, the status and the last lines would say so.
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        self.assertEqual(self.exit_lines(daemon), [
            ("SigHandler", "SigHandler: Caught signal: 15, shutting down..."),
            ("main", "tessel-networkd exiting with code of 0"),
        ])
        self.assertNotIn("SigHandler: Caught signal: 13, shutting down...", daemon.messages())

    def test_stop_signal_during_a_command_is_taken_and_start_up_finishes(self):
        # The first start-up command takes half a second, within the grace a stop
        # leaves for the work in hand.
        self.sandbox.set_delay("ip", 0.5, once=True)
        daemon = self.start_daemon()
        self.assertEqual(self.sandbox.wait_for_commands(1), START_UP[:1])
        daemon.send(signal.SIGINT)
        daemon.wait_for_message("SigHandler: Caught signal: 2, shutting down...")
        # Handled while the command still ran, not after it.
        self.assertEqual(self.sandbox.commands(), START_UP[:1])
        self.assertEqual(daemon.wait_exit(timeout=10), 2, daemon.output())
        self.assertEqual(self.sandbox.commands(), START_UP)
        self.assertEqual(self.exit_lines(daemon), [
            ("SigHandler", "SigHandler: Caught signal: 2, shutting down..."),
            ("main", "tessel-networkd exiting with code of 2"),
        ])

    def test_start_up_blocks_eth1_before_raising_it_where_an_earlier_br0_carries_it(self):
        # br0 of an earlier run with eth1 as its port, made with the real ip in the
        # daemon's namespace before it starts.
        daemon = self.start_running_daemon(interfaces=["eth1"], setup=[
            '"$IP" link add br0 type bridge && "$IP" link set eth1 master br0 || fail "cannot make br0"'])
        commands = self.sandbox.wait_for_commands(len(START_UP) + len(ETH1_BLOCK))
        self.assertEqual(commands, START_UP[:1] + ETH1_BLOCK + START_UP[1:])
        # Whatever that daemon left of its rules, eth1 comes up blocked: the whole block
        # (both directions) before it is raised, and nothing lifts it.
        self.assertLess(commands.index(ETH1_BLOCK[-1]), commands.index("ip link set dev eth1 down"))
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), ETH1_BLOCKED)
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        # No usable configuration, no build: the block stays.
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), ETH1_BLOCKED)

    def test_start_up_is_the_designs_where_no_earlier_br0_carries_eth1(self):
        daemon = self.start_running_daemon(interfaces=["eth1"])
        self.assertEqual(self.sandbox.commands(), ["ip link set dev lo up", "ip link set dev eth1 down",
                                                   "ip link set dev eth1 up"])
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), [])
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())

    def test_log_lines_carry_local_time_level_file_line_and_function(self):
        zone = datetime.timezone(datetime.timedelta(hours=5, minutes=30))
        before = datetime.datetime.now(zone).replace(tzinfo=None)
        daemon = self.start_running_daemon(env={"TZ": "XST-5:30"})
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        after = datetime.datetime.now(zone).replace(tzinfo=None)

        lines = daemon.lines()
        entries = [parse_log_line(line) for line in lines]
        self.assertNotIn(None, entries, daemon.output())
        stamps = [datetime.datetime.strptime(entry.stamp, "%Y-%m-%d %H:%M:%S.%f") for entry in entries]
        self.assertEqual(stamps, sorted(stamps))
        self.assertLessEqual(before - datetime.timedelta(milliseconds=1), stamps[0])
        self.assertLessEqual(stamps[-1], after)
        own = {
            "tessel-networkd starting": "main",
            "Using config file: " + self.sandbox.config_path: "main",
            "Bringing up loopback lo": "main",
            "SigHandler: Caught signal: 15, shutting down...": "SigHandler",
            "tessel-networkd exiting with code of 0": "main",
        }
        seen = {entry.message: entry for entry in entries if entry.message in own}
        self.assertEqual(sorted(seen), sorted(own))
        for message, entry in seen.items():
            self.assertEqual((entry.level, entry.file, entry.function), ("INFO", "src/main.cpp", own[message]))
            self.assertGreater(entry.line, 0)
        self.assertNotEqual(seen["tessel-networkd starting"].line, seen["Bringing up loopback lo"].line)


if __name__ == "__main__":
    harness.main()
