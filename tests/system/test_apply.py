"""A configuration applied on trial with "tessel-networkctl apply FILE --confirm-within
SECONDS": kept by "confirm", and otherwise put back by the daemon at the deadline, whether
the command still runs, was killed, or the daemon itself was restarted after the deadline.
An unusable file is refused with nothing changed."""

import os
import signal
import subprocess
import time

import harness
from tesselkit.device import config_text

PHY_FILE = "/tmp/marvell-phy-0-port"
# eth1 alone: no eth0 to watch, so a healthy daemon shows no work failing.
PREVIOUS = config_text("eth1", "frame", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                       "static 10.1.0.2 255.255.255.0 0.0.0.0")
NEW = config_text("eth1", "frame", "static 10.9.0.2 255.255.255.0 10.9.0.1",
                  "static 10.1.0.2 255.255.255.0 0.0.0.0")
PREVIOUS_ADDRESS = "ip addr add 10.0.0.2/255.255.255.0 dev veth1"
NEW_ADDRESS = "ip addr add 10.9.0.2/255.255.255.0 dev veth1"
UNUSABLE = "bridge eth1\nphy frame\nveth1 static 10.9.0.2 banana 10.9.0.1\n"


def restored(seconds):
    return "Configuration not confirmed within %d s; restored the previous one" % seconds


class ApplyTest(harness.DaemonTestCase):
    def start(self):
        with open(self.sandbox.tmp_path("marvell-phy-0-port"), "w"):
            pass
        self.sandbox.write_config(PREVIOUS)
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", PHY_FILE])
        harness.wait_until(lambda: self.requested_veth1() == "10.0.0.2", "the first pass's status document")
        return daemon

    def requested_veth1(self):
        status = self.sandbox.status()
        if not status:
            return None
        for interface in status.get("interfaces", []):
            if interface["name"] == "veth1" and interface["requested"]:
                return interface["requested"]["address"]
        return None

    def new_file(self, text):
        path = self.sandbox.path("new.conf")
        with open(path, "w") as out:
            out.write(text)
        return path

    def config(self):
        with open(self.sandbox.config_path) as config:
            return config.read()

    def trial_files(self):
        return sorted(name for name in os.listdir(self.sandbox.work) if name.startswith("tessel-networkd.conf."))

    def test_an_unusable_file_is_refused_and_nothing_changes(self):
        daemon = self.start()
        result = daemon.ctl("apply", self.new_file(UNUSABLE), "--confirm-within", "30")
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("usable: no", result.stdout)
        self.assertIn("is not usable; nothing changed", result.stderr)
        self.assertEqual(self.config(), PREVIOUS)
        self.assertEqual(self.trial_files(), [])

    def test_a_confirmed_configuration_stays(self):
        daemon = self.start()
        result = daemon.ctl("apply", self.new_file(NEW), "--confirm-within", "4")
        self.assertEqual(result.returncode, 0, result)
        self.assertIn("Applied: tessel-networkd runs it.", result.stdout)
        self.assertEqual(self.requested_veth1(), "10.9.0.2")
        self.assertEqual(self.trial_files(), ["tessel-networkd.conf.pending", "tessel-networkd.conf.rollback"])
        # A second apply waits for the first to be settled.
        again = daemon.ctl("apply", self.new_file(PREVIOUS), "--confirm-within", "4")
        self.assertEqual(again.returncode, 1, again)
        self.assertIn("awaits confirmation until", again.stderr)
        self.assertEqual(self.config(), NEW)
        confirmed = daemon.ctl("confirm")
        self.assertEqual(confirmed.returncode, 0, confirmed)
        self.assertEqual(confirmed.stdout, "Confirmed: %s stays.\n" % self.sandbox.config_path)
        self.assertEqual(self.trial_files(), [])
        time.sleep(6)
        self.assertEqual(self.config(), NEW)
        self.assertEqual(self.requested_veth1(), "10.9.0.2")
        self.assertNotIn(restored(4), daemon.messages())
        self.assertEqual(daemon.ctl("confirm").returncode, 1)

    def test_an_unconfirmed_configuration_is_restored_by_the_daemon(self):
        daemon = self.start()
        result = daemon.ctl("apply", self.new_file(NEW), "--confirm-within", "3")
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(self.requested_veth1(), "10.9.0.2")
        daemon.wait_for_message(restored(3))
        self.assertEqual(self.config(), PREVIOUS)
        self.assertEqual(self.trial_files(), [])
        harness.wait_until(lambda: self.requested_veth1() == "10.0.0.2", "the previous address in the document")
        late = daemon.ctl("confirm")
        self.assertEqual(late.returncode, 1, late)

    def test_a_killed_command_is_no_obstacle_to_the_restore(self):
        daemon = self.start()
        command = subprocess.Popen(harness.run_prefix() + [self.sandbox.ctl_path, "apply", self.new_file(NEW), "--confirm-within", "4",
                                    "--config", self.sandbox.config_path, "--status-dir", self.sandbox.status_dir()],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        # The check's lines come first.
        for line in command.stdout:
            if line.startswith("Installed "):
                break
        command.send_signal(signal.SIGKILL)
        command.wait()
        command.stdout.close()
        self.assertEqual(self.config(), NEW)
        daemon.wait_for_message(restored(4))
        self.assertEqual(self.config(), PREVIOUS)
        harness.wait_until(lambda: self.requested_veth1() == "10.0.0.2", "the previous address in the document")

    def test_a_daemon_started_after_the_deadline_restores_before_its_first_pass(self):
        daemon = self.start()
        result = daemon.ctl("apply", self.new_file(NEW), "--confirm-within", "2")
        self.assertEqual(result.returncode, 0, result)
        daemon.kill()
        self.assertEqual(self.config(), NEW)
        time.sleep(3)
        second = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", PHY_FILE])
        second.wait_for_message(restored(2))
        self.assertEqual(self.config(), PREVIOUS)
        harness.wait_until(lambda: self.sandbox.commands().count(PREVIOUS_ADDRESS) == 2,
                           lambda: "veth1's previous address again; commands: %r" % self.sandbox.commands())
        # The restore comes before the first pass: the new address is never put in place again.
        commands = self.sandbox.commands()
        self.assertEqual(commands.count(NEW_ADDRESS), 1, commands)

    def test_where_the_directory_is_read_only_the_daemon_exits_and_restore_due_puts_it_back(self):
        # As under the unit's read-only /etc: the daemon's view of the directory cannot be written.
        etc = self.sandbox.path("etc")
        os.mkdir(etc, 0o755)
        config = os.path.join(etc, "tessel-networkd.conf")
        with open(config, "w") as out:
            out.write(PREVIOUS)
        with open(self.sandbox.tmp_path("marvell-phy-0-port"), "w"):
            pass
        args = ["--config", config, "--phy-file", PHY_FILE]
        read_only = ["mount --bind {0} {0} && mount -o remount,bind,ro {0} {0} || fail read-only".format(etc)]
        daemon = self.start_daemon(args=args, setup=read_only)
        harness.wait_until(lambda: self.requested_veth1() == "10.0.0.2", "the first pass's status document")
        result = subprocess.run(harness.run_prefix() + [self.sandbox.ctl_path, "apply", self.new_file(NEW), "--confirm-within", "2",
                                 "--config", config, "--status-dir", self.sandbox.status_dir()],
                                capture_output=True, text=True, timeout=harness.TIMEOUT)
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(daemon.wait_exit(), 76)
        self.assertIn("Configuration not confirmed within 2 s, but its directory cannot be written here "
                      "(Read-only file system); exiting, to be restored before the next start", daemon.messages())
        with open(config) as text:
            self.assertEqual(text.read(), NEW)
        # What the unit runs before the next start, outside the sandbox.
        restore = subprocess.run(harness.run_prefix() + [self.sandbox.ctl_path, "restore-due", "--config", config], capture_output=True,
                                 text=True, timeout=harness.TIMEOUT)
        self.assertEqual((restore.returncode, restore.stdout, restore.stderr),
                         (0, restored(2) + "\n", ""))
        with open(config) as text:
            self.assertEqual(text.read(), PREVIOUS)
        self.assertEqual(sorted(os.listdir(etc)), ["tessel-networkd.conf"])
        # Nothing due: nothing done, nothing said.
        again = subprocess.run(harness.run_prefix() + [self.sandbox.ctl_path, "restore-due", "--config", config], capture_output=True,
                               text=True, timeout=harness.TIMEOUT)
        self.assertEqual((again.returncode, again.stdout, again.stderr), (0, "", ""))


if __name__ == "__main__":
    harness.main()
