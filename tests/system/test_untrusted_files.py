"""What an unprivileged local user can put where the daemon reads: the lease file in
/tmp and, where the configuration path is writable, the configuration file. Each
hostile entry is planted as nobody inside the daemon's own namespaces; the daemon
must not read it, must say so once, must leave the lease in force alone and must
still end promptly on SIGTERM."""

import os
import shutil
import signal
import subprocess
import time

import harness
from expected_commands import START_UP

VETH1_DHCP = """bridge eth1
veth1 dhcp
veth3 static 10.1.0.2 255.255.255.0 10.1.0.1
"""
LEASE = "veth1 10.0.0.5 255.255.255.0\n10.0.0.1\n"
FORGED = "veth1 10.66.6.6 255.0.0.0\n10.66.6.1\n"
AS_NOBODY = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
LEASE_PATH = "/tmp/dhcp_veth1.txt"
IGNORED = "Ignoring DHCP lease file " + LEASE_PATH + ": "


def nobody_can_plant():
    return shutil.which("setpriv") is not None and shutil.which("nsenter") is not None


class UntrustedLeaseTest(harness.DaemonTestCase):
    def setUp(self):
        super().setUp()
        if not nobody_can_plant():
            self.skipTest("needs setpriv and nsenter")
        # The daemon's /tmp, as on the device: every user may create entries in it.
        os.chmod(self.sandbox.path("tmp"), 0o1777)
        self.sandbox.use_config_pipe()

    def in_daemon(self, daemon, argv, user=AS_NOBODY):
        """Runs argv in the daemon's mount namespace (its /tmp), as nobody by default."""
        result = subprocess.run(
            ["nsenter", "--target", str(daemon.pid), "--mount", "--"] + user + argv,
            capture_output=True, text=True, timeout=harness.TIMEOUT)
        self.assertEqual(result.returncode, 0, " ".join(argv) + ": " + result.stderr)
        return result

    def cycle(self, daemon):
        self.sandbox.clear_commands()
        logged = len(daemon.messages())
        daemon.run_cycle(VETH1_DHCP)
        return self.sandbox.commands(), daemon.messages()[logged:]

    def daemon_with_lease(self):
        """A daemon that runs DHCP on veth1 with a lease in force, between two cycles."""
        daemon = self.start_daemon()
        daemon.run_cycle(VETH1_DHCP)
        self.sandbox.write_lease("veth1", LEASE)
        commands, _ = self.cycle(daemon)
        self.assertIn("ip addr add 10.0.0.5/255.255.255.0 dev veth1", commands)
        return daemon

    def assert_ignored(self, daemon, why):
        commands, messages = self.cycle(daemon)
        self.assertEqual(commands, [], "the lease in force was touched")
        self.assertEqual(messages, [IGNORED + why])
        entry = [e for e in daemon.entries() if e.message == IGNORED + why][-1]
        self.assertEqual((entry.level, entry.function), ("WARN", "CheckForNewDhcpAddress"))
        # The entry was removed (or moved out of the way): the script's next lease goes through.
        self.assertFalse(os.path.lexists(self.sandbox.tmp_path("dhcp_veth1.txt")))
        self.sandbox.write_lease("veth1", "veth1 10.0.0.6 255.255.255.0\n10.0.0.1\n")
        commands, _ = self.cycle(daemon)
        self.assertIn("ip addr add 10.0.0.6/255.255.255.0 dev veth1", commands)

    def test_forged_lease_of_another_user_is_not_taken_up(self):
        daemon = self.daemon_with_lease()
        self.in_daemon(daemon, ["sh", "-c", 'printf "%s" "$1" > ' + LEASE_PATH, "sh", FORGED])
        self.assertEqual(os.stat(self.sandbox.tmp_path("dhcp_veth1.txt")).st_uid, 65534)
        self.assert_ignored(daemon, "owned by user 65534")

    def test_link_to_a_file_of_roots_is_not_followed(self):
        daemon = self.daemon_with_lease()
        # A lease-shaped file of root's, private to root: the link must not make it one.
        with open(self.sandbox.tmp_path("roots-file"), "w") as out:
            out.write(FORGED)
        os.chmod(self.sandbox.tmp_path("roots-file"), 0o600)
        self.in_daemon(daemon, ["ln", "-s", "/tmp/roots-file", LEASE_PATH])
        self.assert_ignored(daemon, "a symbolic link")
        with open(self.sandbox.tmp_path("roots-file")) as kept:
            self.assertEqual(kept.read(), FORGED)

    def test_fifo_neither_blocks_nor_is_read(self):
        daemon = self.daemon_with_lease()
        self.in_daemon(daemon, ["sh", "-c", "mkfifo %s && chmod 666 %s" % (LEASE_PATH, LEASE_PATH)])
        self.assert_ignored(daemon, "a FIFO")

    def test_directory_takes_no_address_off_and_takes_no_lease_in(self):
        daemon = self.daemon_with_lease()
        self.in_daemon(daemon, ["sh", "-c", "mkdir %s && chmod 777 %s" % (LEASE_PATH, LEASE_PATH)])
        self.assert_ignored(daemon, "a directory")

    def test_device_node_is_not_read(self):
        daemon = self.daemon_with_lease()
        # Nobody cannot make one; a node of /dev/zero's numbers handed to nobody stands for it.
        self.in_daemon(daemon, ["sh", "-c", "mknod %s c 1 5 && chmod 666 %s && chown nobody %s" % ((LEASE_PATH,) * 3)],
                       user=[])
        self.assert_ignored(daemon, "a device")

    def test_file_writable_by_others_is_not_read(self):
        daemon = self.daemon_with_lease()
        self.in_daemon(daemon, ["sh", "-c", 'printf "%s" "$1" > ' + LEASE_PATH + " && chmod 666 " + LEASE_PATH,
                                "sh", FORGED], user=[])
        self.assert_ignored(daemon, "writable by group or others (mode 666)")

    def test_file_writable_by_the_group_is_not_read(self):
        daemon = self.daemon_with_lease()
        self.in_daemon(daemon, ["sh", "-c", 'printf "%s" "$1" > ' + LEASE_PATH + " && chmod 620 " + LEASE_PATH,
                                "sh", FORGED], user=[])
        self.assert_ignored(daemon, "writable by group or others (mode 620)")


class UntrustedEntryStopTest(harness.DaemonTestCase):
    """Without the configuration gate, in real time: a FIFO at the lease path is
    passed over every cycle and SIGTERM still ends the daemon at once."""

    def test_sigterm_ends_the_daemon_promptly_with_a_fifo_at_the_lease_path(self):
        if not nobody_can_plant():
            self.skipTest("needs setpriv and nsenter")
        os.chmod(self.sandbox.path("tmp"), 0o1777)
        self.sandbox.write_config(VETH1_DHCP)
        daemon = self.start_daemon()
        daemon.wait_for_message("Starting DHCP for interface veth1")
        # Planted after the start of DHCP (which clears the path), twice: each time
        # the next cycle passes over it.
        for count in (1, 2):
            subprocess.run(["nsenter", "--target", str(daemon.pid), "--mount", "--"] + AS_NOBODY +
                                   ["mkfifo", LEASE_PATH], check=True)
            daemon.wait_for_message(IGNORED + "a FIFO", count=count)
        started = time.monotonic()
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(timeout=5), 0, daemon.output())
        self.assertLess(time.monotonic() - started, 3.0)
        self.assertFalse([c for c in self.sandbox.commands() if "10.66" in c or c.startswith("ip addr add")])


class UntrustedConfigTest(harness.DaemonTestCase):
    """A configuration path that is not a regular file, or far too large, counts as
    unreadable: nothing runs beyond start-up, the cycle goes on once a second and
    SIGTERM ends the daemon promptly."""

    def run_unreadable(self, config_path, setup=()):
        os.chmod(self.sandbox.path("tmp"), 0o1777)
        daemon = self.start_daemon(args=["--config", config_path], setup=list(setup))
        daemon.wait_for_message("Unable to read configuration file", count=3)
        started = time.monotonic()
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(timeout=5), 0, daemon.output())
        self.assertLess(time.monotonic() - started, 3.0)
        self.assertEqual(self.sandbox.commands(), START_UP)
        errors = [e for e in daemon.entries() if e.level in ("ERROR", "WARN")]
        self.assertTrue(errors)
        self.assertEqual({(e.level, e.message) for e in errors}, {("ERROR", "Unable to read configuration file")})

    def test_fifo_planted_by_another_user(self):
        if not nobody_can_plant():
            self.skipTest("needs setpriv")
        self.run_unreadable("/tmp/networkd.conf", [" ".join(AS_NOBODY) + " mkfifo -m 666 /tmp/networkd.conf"])

    def test_fifo_with_a_writer_that_never_writes(self):
        if not nobody_can_plant():
            self.skipTest("needs setpriv")
        self.run_unreadable("/tmp/networkd.conf", [
            " ".join(AS_NOBODY) + " mkfifo -m 666 /tmp/networkd.conf",
            " ".join(AS_NOBODY) + " sh -c 'exec 3<>/tmp/networkd.conf; sleep 60' &",
        ])

    def test_endless_device(self):
        self.run_unreadable("/dev/zero")

    def test_link_to_an_endless_device(self):
        if not nobody_can_plant():
            self.skipTest("needs setpriv")
        self.run_unreadable("/tmp/networkd.conf", [" ".join(AS_NOBODY) + " ln -s /dev/zero /tmp/networkd.conf"])

    def test_file_over_64_kib(self):
        text = VETH1_DHCP + ("#" + "-" * 98 + "\n") * 656
        self.assertGreater(len(text), 65536)
        with open(self.sandbox.config_path, "w") as out:
            out.write(text)
        self.run_unreadable(self.sandbox.config_path)

    def test_file_of_64_kib_is_read(self):
        text = VETH1_DHCP + ("#" + "-" * 98 + "\n") * 654
        text += "#" * (65536 - len(text) - 1) + "\n"
        self.assertEqual(len(text), 65536)
        self.sandbox.write_config(text)
        daemon = self.start_daemon()
        daemon.wait_for_message("Starting DHCP for interface veth1")
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())


if __name__ == "__main__":
    harness.main()
