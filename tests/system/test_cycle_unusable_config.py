"""Configuration files the cycle cannot use, missing or invalid: nothing past the read
runs, the read is retried each second, and the first usable file starts the first
usable cycle; an unusable file in between changes nothing of what was applied."""

import datetime

import harness
from expected_commands import BUILD_ETH0, REGISTER_WRITES, START_UP
from tesselkit.device import config_text

REATTACH = "ip link set eth0 master br0"
ETH0_UP = {"interfaces": ["eth0"], "up": ["eth0"]}

VALID = config_text("eth0", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                    "static 10.1.0.2 255.255.255.0 10.1.0.1")

INVALID = config_text("eth2", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                      "static 10.1.0.2 255.255.255.0 10.1.0.1")

MISSING_REPORT = "Unable to read configuration file"
INVALID_REPORT = "Invalid bridge mode entry, expected eth0|eth1|eth0eth1"

# With eth0 healthy, ended by the re-attach of the next cycle.
FIRST_CYCLE_AND_NEXT_REATTACH = START_UP + BUILD_ETH0 + [
    "ip link set eth0 master br0",
] + REGISTER_WRITES + [
    "ip route flush dev veth1",
    "ip addr flush dev veth1",
    "ip addr add 10.0.0.2/255.255.255.0 dev veth1",
    "ip route add default via 10.0.0.1 dev veth1 metric 10",
    "ip link set dev eth1 down",
    "ip link set dev eth1 up",
    "ip link set eth0 master br0",
]

FIRST_CYCLE_LOG = [
    "Setting up bridge for control network",
    "Done with bridge setup",
    "Configuring interface veth1 for static IP",
    "Configuring veth1 for 10.0.0.2/255.255.255.0",
    "Adding default gateway 10.0.0.1 for veth1",
    "Unable to open /proc/marvell-phy-0-port patch is required",
]


def seconds_between(entries, message):
    stamps = [datetime.datetime.strptime(e.stamp, "%Y-%m-%d %H:%M:%S.%f") for e in entries if e.message == message]
    return [(later - earlier).total_seconds() for earlier, later in zip(stamps, stamps[1:])]


class UnusableConfigTest(harness.DaemonTestCase):
    def test_missing_or_invalid_file_is_retried_each_second_until_a_valid_one_starts_the_first_cycle(self):
        runs = {}
        for case, (config, report) in {"missing": (None, MISSING_REPORT), "invalid": (INVALID, INVALID_REPORT)}.items():
            sandbox = harness.Sandbox(harness.DAEMON_PATH)
            self.addCleanup(sandbox.cleanup)
            if config is not None:
                sandbox.write_config(config)
            runs[case] = (sandbox, sandbox.start(**ETH0_UP), report)
        for case, (sandbox, daemon, report) in runs.items():
            with self.subTest(case=case):
                daemon.wait_for_message(report, count=3)
                self.assertEqual(sandbox.commands(), START_UP)
                for gap in seconds_between(daemon.entries(), report):
                    # A one-second pause after each read, and hardly anything else.
                    self.assertGreaterEqual(gap, 0.99)
                    self.assertLess(gap, 3.0)
                sandbox.write_config(VALID)
        for case, (sandbox, daemon, report) in runs.items():
            with self.subTest(case=case):
                commands = sandbox.wait_for_commands(len(FIRST_CYCLE_AND_NEXT_REATTACH))
                self.assertEqual(commands[:len(FIRST_CYCLE_AND_NEXT_REATTACH)], FIRST_CYCLE_AND_NEXT_REATTACH)
                self.assertEqual(set(commands[len(FIRST_CYCLE_AND_NEXT_REATTACH):]) - {REATTACH}, set())
                messages = daemon.messages()
                reports = messages.index(report)
                self.assertEqual(messages[:reports], [
                    "tessel-networkd starting",
                    "Using config file: " + sandbox.config_path,
                    "Bringing up loopback lo",
                ])
                self.assertEqual(set(messages[reports:-len(FIRST_CYCLE_LOG)]), {report})
                self.assertEqual(messages[-len(FIRST_CYCLE_LOG):], FIRST_CYCLE_LOG)

    def test_an_invalid_file_in_between_runs_nothing_and_the_same_valid_file_again_changes_nothing(self):
        self.sandbox.write_config(VALID)
        daemon = self.start_daemon(**ETH0_UP)
        self.sandbox.wait_for_commands(len(FIRST_CYCLE_AND_NEXT_REATTACH))

        self.sandbox.write_config(INVALID)
        daemon.wait_for_message(INVALID_REPORT)
        self.sandbox.clear_commands()  # the cycles from here on read the invalid file
        daemon.wait_for_message(INVALID_REPORT, count=3)
        self.assertEqual(self.sandbox.commands(), [])

        logged = len(daemon.messages())
        self.sandbox.write_config(VALID)
        commands = self.sandbox.wait_for_commands(3)
        self.assertEqual(commands, [REATTACH] * len(commands))
        self.assertEqual(set(daemon.messages()[logged:]) - {INVALID_REPORT}, set())


if __name__ == "__main__":
    harness.main()
