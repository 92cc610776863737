"""Faults injected through the stand-ins while the daemon runs in namespaces of its
own: commands that hang, that fail for a while or cannot be started, a DHCP
client that dies, stop signals while a command hangs, a configuration file
rewritten all the time, a full /tmp and few file descriptors. Each checks what
the daemon logs, that the work is not taken as done and that it is done later."""

import datetime
import os
import re
import signal
import subprocess
import sys
import time

import harness
from expected_commands import (BRIDGE_ETH1, BUILD_ETH0ETH1, BUILD_ETH1, ETH1_BLOCK, ETH1_BLOCKED, REGISTER_WRITES,
                               START_UP, VETH0_BLOCK, VETH0_BLOCKED)
from tesselkit import namespaces
from tesselkit.device import config_text

ETH1_STATIC = config_text("eth1", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                          "static 10.1.0.2 255.255.255.0 0.0.0.0")

BOTH_STATIC = config_text("eth0eth1", "copper", "static 10.0.0.2 255.255.255.0 10.0.0.1",
                          "static 10.1.0.2 255.255.255.0 0.0.0.0")

ETH1_DHCP = config_text("eth1", "copper", "dhcp", "static 10.1.0.2 255.255.255.0 0.0.0.0")

CLIENT_VETH1 = "udhcpc -i veth1 -b -R -s /usr/share/udhcpc/tessel.script"
DEADLINE = "Command still running after 20 s, ending it: "
# How long a hang takes to be ended, and a margin for a loaded machine.
HANG_WAIT = 40


def report(figure, seconds):
    """A measured time, for the reliability figures."""
    sys.stderr.write("measured: %s: %.2f s\n" % (figure, seconds))


def stamp(entry):
    return datetime.datetime.strptime(entry.stamp, "%Y-%m-%d %H:%M:%S.%f")


def clients(daemon):
    """Host pids of the processes named udhcpc serving veth1 in the daemon's namespace,
    not counting their forked copies."""
    found = [entry for entry in namespaces.processes_in_pid_namespace_of(daemon.pid)
             if entry[2] and entry[2][0] == "udhcpc" and "veth1" in entry[2]]
    return [pid for pid, _, _ in namespaces.without_forked_copies(found)]


def find(entries, message):
    """The first entry with the message, or None."""
    return next((entry for entry in entries if entry.message == message), None)


class FaultTest(harness.DaemonTestCase):
    def another_sandbox(self):
        sandbox = harness.Sandbox(harness.DAEMON_PATH)
        self.addCleanup(sandbox.cleanup)
        return sandbox

    def assert_ordered(self, messages, wanted):
        """`wanted` occurs in `messages` in this order (other messages may come between)."""
        position = 0
        for message in messages:
            if position < len(wanted) and message == wanted[position]:
                position += 1
        self.assertEqual(position, len(wanted), "not all of %r in order in %r" % (wanted, messages))

    def test_hanging_commands_are_ended_at_their_deadline_and_the_work_done_again(self):
        # Three daemons at once, so the three 20-second deadlines run side by side.
        start_up, bridge, client = self.sandbox, self.another_sandbox(), self.another_sandbox()
        # The first command of all, bringing up the loopback, hangs once.
        start_up.write_config(ETH1_STATIC)
        start_up.set_only("ip", "dev lo up")
        start_up.set_delay("ip", 100, once=True)
        # An isolation rule in the middle of the bridge build hangs once.
        bridge.write_config(BOTH_STATIC)
        rule = "arptables -A FORWARD --in-interface eth1 --out-interface veth2 -j DROP"
        bridge.set_only("arptables", "--in-interface eth1 --out-interface veth2")
        bridge.set_delay("arptables", 100, once=True)
        # Starting the DHCP client hangs once.
        client.write_config(ETH1_DHCP)
        client.set_delay("udhcpc", 100, once=True)
        client.set_linger("udhcpc")
        daemons = [sandbox.start() for sandbox in (start_up, bridge, client)]
        started = time.monotonic()

        cases = [
            (daemons[0], START_UP[0], "start-up commands"),
            (daemons[1], rule, "bridge setup"),
            (daemons[2], CLIENT_VETH1, "addressing of veth1"),
        ]
        for daemon, command, work in cases:
            entries = daemon.wait_for_message("Recovered %s after 1 failed attempts" % work, timeout=HANG_WAIT)
            messages = [entry.message for entry in entries]
            self.assert_ordered(messages, [
                DEADLINE + command,
                "Retrying %s in 1 s (failed attempts: 1)" % work,
                "Recovered %s after 1 failed attempts" % work,
            ])
            # Ended 20 seconds after it started, the process group with it.
            ended = find(entries, DEADLINE + command)
            self.assertEqual(ended.level, "ERROR")
            report("hang in %s: start to recovered" % work,
                   (stamp(find(entries, "Recovered %s after 1 failed attempts" % work)) - stamp(entries[0]))
                   .total_seconds())
            self.assertLess(time.monotonic() - started, HANG_WAIT)
        # Nothing went on from the hung start-up command; all of it ran again.
        commands = start_up.commands()
        self.assertEqual(commands[:1], START_UP[:1])
        self.assertEqual(commands[1:1 + len(BUILD_ETH1)], BUILD_ETH1)
        self.assertIn(START_UP, [commands[i:i + len(START_UP)] for i in range(len(commands))])
        # The bridge build stopped at the hung rule, eth1 (and veth0) still blocked, and
        # eth1 was taken down after it; the next build was whole, blocked again first and
        # lifted last.
        commands = bridge.commands()
        stopped = commands.index(rule)
        blocked = START_UP + ETH1_BLOCK + VETH0_BLOCK
        self.assertEqual(commands[:len(blocked)], blocked)
        self.assertEqual([c for c in commands[len(blocked):stopped] if c.startswith("ebtables -t nat")], [])
        self.assertEqual(commands[stopped + 1], "ip link set eth1 down")
        rebuilt = commands.index(BUILD_ETH0ETH1[0], stopped)
        self.assertEqual(commands[rebuilt:rebuilt + len(BUILD_ETH0ETH1)], BUILD_ETH0ETH1)
        self.assertEqual(bridge.rules("ebtables", "nat"), [])
        # The client was started again after its hung start.
        self.assertEqual(client.commands().count(CLIENT_VETH1), 2)
        for daemon in daemons:
            self.assertTrue(daemon.running())
            daemon.send(signal.SIGTERM)
            self.assertEqual(daemon.wait_exit(), 0, daemon.output())

    def test_stop_signal_ends_the_daemon_within_3_seconds_while_a_command_hangs(self):
        for sig, code in ((signal.SIGTERM, 0), (signal.SIGINT, int(signal.SIGINT)), (signal.SIGHUP, int(signal.SIGHUP))):
            with self.subTest(signal=sig.name):
                sandbox = self.another_sandbox()
                sandbox.write_config(ETH1_STATIC)
                sandbox.set_only("ip", "link add name br0")
                sandbox.set_delay("ip", 100)
                daemon = sandbox.start()
                sandbox.wait_for_commands(len(START_UP) + 8)
                self.assertEqual(sandbox.commands()[-1], "ip link add name br0 type bridge")
                sent = time.monotonic()
                daemon.send(sig)
                self.assertEqual(daemon.wait_exit(timeout=10), code, daemon.output())
                report("%s while a command hangs: signal to exit" % sig.name, time.monotonic() - sent)
                self.assertLess(time.monotonic() - sent, 3.0)
                # The rest of the cycle runs without its commands, then the loop ends.
                entries = [(e.function, e.message) for e in daemon.entries()]
                self.assertIn(("SigHandler", "SigHandler: Caught signal: %d, shutting down..." % sig), entries)
                self.assertEqual(entries[-1], ("main", "tessel-networkd exiting with code of %d" % code))
                after = entries[entries.index(("SigHandler", "SigHandler: Caught signal: %d, shutting down..."
                                               % sig)):]
                self.assertEqual([e for e in after if "Command" in e[1] or "Retrying" in e[1]], [])

    def test_stop_signal_while_a_two_port_build_hangs_leaves_eth1_blocked(self):
        self.sandbox.write_config(BOTH_STATIC)
        self.sandbox.set_only("iptables", "-F")
        self.sandbox.set_delay("iptables", 100)
        daemon = self.start_daemon()
        harness.wait_until(lambda: self.sandbox.commands()[-1:] == ["iptables -F"],
                           lambda: "the build to hang in iptables -F; commands: %r" % self.sandbox.commands())
        # Both of eth1's blocks (in and out), and veth0's.
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), ETH1_BLOCKED + VETH0_BLOCKED)
        sent = time.monotonic()
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(timeout=10), 0, daemon.output())
        report("SIGTERM while a two-port build hangs: signal to exit", time.monotonic() - sent)
        self.assertLess(time.monotonic() - sent, 3.0)
        # The build ended where it hung: nothing after it lifted the block, so nothing
        # crosses eth1 after a stop in the middle of a build.
        commands = self.sandbox.commands()
        hung = commands.index("iptables -F")
        self.assertEqual([c for c in commands[hung:] if c.startswith("ebtables")], [])
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), ETH1_BLOCKED + VETH0_BLOCKED)
        self.assertNotIn("Isolation in force", daemon.output())

    def test_stop_signal_during_the_pause_ends_the_daemon_within_3_seconds(self):
        self.sandbox.write_config(ETH1_STATIC)
        daemon = self.start_daemon()
        daemon.wait_for_message("Not adding default gateway for veth3", count=0)
        daemon.wait_for_message("Adding default gateway 10.0.0.1 for veth1")
        time.sleep(0.3)
        sent = time.monotonic()
        daemon.send(signal.SIGQUIT)
        self.assertEqual(daemon.wait_exit(timeout=10), int(signal.SIGQUIT), daemon.output())
        report("SIGQUIT during the pause: signal to exit", time.monotonic() - sent)
        self.assertLess(time.monotonic() - sent, 3.0)

    def test_stop_signal_during_slow_register_writes_lets_the_sequence_finish(self):
        # Each write takes 0.4 s: the stop's one-second grace would end the
        # sequence in the middle of a pulse pair.
        self.sandbox.write_config(ETH1_STATIC)
        self.sandbox.set_delay("devmem", 0.4)
        daemon = self.start_daemon()
        harness.wait_until(lambda: REGISTER_WRITES[0] in self.sandbox.commands(), "the first register write")
        sent = time.monotonic()
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(timeout=15), 0, daemon.output())
        took = time.monotonic() - sent
        report("SIGTERM during slow register writes: signal to exit", took)
        writes = [command for command in self.sandbox.commands() if command.startswith("devmem")]
        self.assertEqual(writes, REGISTER_WRITES)
        # The sequence's eight writes and five pauses, then the stop's usual bound.
        self.assertLess(took, 8 * 0.4 + 0.5 + 3.0)

    def test_commands_that_fail_for_a_while_are_retried_after_1_2_4_seconds(self):
        self.sandbox.write_config(ETH1_STATIC)
        self.sandbox.set_only("ip", "link add name br0")
        self.sandbox.set_status("ip", 2)
        self.sandbox.record_times("ip")
        daemon = self.start_daemon()
        daemon.wait_for_message("Retrying bridge setup in 4 s (failed attempts: 3)")
        self.sandbox.set_only("ip", None)
        self.sandbox.set_status("ip", 0)
        os.remove(self.sandbox.path("status", "ip"))
        cleared = time.monotonic()
        entries = daemon.wait_for_message("Recovered bridge setup after 3 failed attempts", timeout=15)
        report("failing bridge command: fault gone to recovered", time.monotonic() - cleared)
        attempts = [seconds for seconds, command in self.sandbox.timed_commands()
                    if command == "ip link add name br0 type bridge"]
        self.assertEqual(len(attempts), 4, attempts)
        waits = [later - earlier for earlier, later in zip(attempts, attempts[1:])]
        # Each wait is the backoff, reached at the first cycle after it: at most one pause
        # and one cycle later (the first cycle holds the register writes' 600 ms of pulses).
        for wait, backoff in zip(waits, (1, 2, 4)):
            self.assertGreaterEqual(wait, backoff - 0.05, waits)
            self.assertLess(wait, backoff + 2.5, waits)
        errors = [e.message for e in entries if e.level == "ERROR" and "link add name br0" in e.message]
        self.assertEqual(errors, ["Command failed (exit status 2): ip link add name br0 type bridge"] * 3)
        # The device converges: the last build is whole, and veth1 is addressed after it.
        commands = self.sandbox.commands()
        last = len(commands) - 1 - commands[::-1].index(BRIDGE_ETH1[0])
        self.assertEqual(commands[last:last + len(BUILD_ETH1)], BUILD_ETH1)
        self.assertEqual(self.sandbox.rules("ebtables", "nat"), [])
        daemon.wait_for_message("Adding default gateway 10.0.0.1 for veth1", count=4)

    def test_commands_that_cannot_be_started_for_a_while_are_done_once_they_can(self):
        # No shell at first: /bin/sh is covered by a file that cannot be run.
        self.sandbox._write("noexec", "")
        # A plain file for the PHY driver's: the PHY mode can recover here, once eth1's bounce runs.
        daemon = self.start_daemon(args=["--config", self.sandbox.config_path, "--phy-file", "/tmp/marvell-phy-0-port"],
                                   setup=['mount --bind "$TESSEL_WORK/noexec" /bin/sh || fail "cannot cover /bin/sh"'])
        self.sandbox.write_config(ETH1_STATIC)
        entries = daemon.wait_for_message("Retrying bridge setup in 2 s (failed attempts: 2)")
        messages = [e.message for e in entries]
        self.assertIn("Command failed (not started (Permission denied)): ip link set dev lo up", messages)
        # The build's first command is the design's.
        self.assertIn("Command failed (not started (Permission denied)): " + BUILD_ETH1[0], messages)
        self.assertEqual(self.sandbox.commands(), [])
        # /bin/sh is a link: the mount covers the file it names.
        # (In its PID namespace too, where umount finds its own /proc/self.)
        subprocess.run(["nsenter", "--target", str(daemon.pid), "--mount", "--pid", "--", "umount",
                        os.path.realpath("/bin/sh")], check=True)
        back = time.monotonic()
        # Each work recovers at its next attempt once the shell is back.
        for work in ("start-up commands", "bridge setup", "register writes", "addressing of veth1", "PHY mode"):
            harness.wait_until(lambda: [m for m in daemon.messages() if m.startswith("Recovered %s after " % work)],
                               "%s to recover; output so far:\n%s" % (work, daemon.output()), 10)
        report("no shell: shell back to all work recovered", time.monotonic() - back)
        commands = self.sandbox.commands()
        self.assertEqual(commands[:len(START_UP) + len(BUILD_ETH1)], START_UP + BUILD_ETH1)
        daemon.wait_for_message("Adding default gateway 10.0.0.1 for veth1")
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())

    def test_dead_dhcp_client_is_replaced_within_15_seconds(self):
        self.sandbox.write_config(ETH1_DHCP)
        self.sandbox.set_linger("udhcpc")
        daemon = self.start_daemon()
        daemon.wait_for_message("Starting DHCP for interface veth1")
        pids = harness.wait_until(lambda: clients(daemon), "the client to go to the background")
        time.sleep(1.5)
        for pid in pids:
            os.kill(pid, signal.SIGKILL)
        killed = time.monotonic()
        daemon.wait_for_message("DHCP client for veth1 is gone, starting a new one", timeout=15)
        daemon.wait_for_message("Starting DHCP for interface veth1", count=2, timeout=5)
        self.assertLess(time.monotonic() - killed, 15)
        harness.wait_until(lambda: self.sandbox.commands().count(CLIENT_VETH1) == 2, "the new client's start")
        report("DHCP client killed: kill to new client started", time.monotonic() - killed)
        harness.wait_until(lambda: [p for p in clients(daemon) if p not in pids], "a new client")
        # One warning: the new client is found and kept.
        time.sleep(6)
        self.assertEqual(daemon.messages().count("DHCP client for veth1 is gone, starting a new one"), 1)

    def test_configuration_rewritten_50_times_a_second_leaves_the_last_file_in_force(self):
        seconds = float(os.environ.get("TESSEL_CHURN_SECONDS", "60"))
        self.sandbox.write_config(ETH1_STATIC)
        daemon = self.start_daemon()
        daemon.wait_for_message("Adding default gateway 10.0.0.1 for veth1")
        path = self.sandbox.config_path
        texts = [ETH1_STATIC.replace("10.0.0.2", "10.0.%d.2" % (n % 200)) for n in range(200)]
        written = 0
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            # Rewritten in place, as an editor without a temporary file does.
            with open(path, "w") as config:
                config.write(texts[written % len(texts)])
            written += 1
            time.sleep(0.02)
        last = "10.0.%d.2" % ((written - 1) % 200)
        stopped = time.monotonic()
        daemon.wait_for_message("Configuring veth1 for %s/255.255.255.0" % last, timeout=5)
        report("configuration churn: last write to in force", time.monotonic() - stopped)
        time.sleep(2.5)
        self.assertTrue(daemon.running(), daemon.output())
        entries = daemon.entries()
        configured = [e.message for e in entries if e.message.startswith("Configuring veth1 for ")]
        self.assertEqual(configured[-1], "Configuring veth1 for %s/255.255.255.0" % last)
        self.assertGreaterEqual(written, int(seconds * 40))
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())

    def test_full_tmp_neither_stops_the_cycle_nor_loses_a_lease(self):
        self.sandbox.write_config(ETH1_DHCP)
        self.sandbox.set_linger("udhcpc")
        # A /tmp of 64 KiB of its own, filled to the last byte before the daemon starts.
        daemon = self.start_daemon(setup=[
            'mount -t tmpfs -o size=64k tmpfs /tmp || fail "cannot mount a small /tmp"',
            'dd if=/dev/zero of=/tmp/filler bs=4k 2>/dev/null; true',
        ])
        daemon.wait_for_message("Starting DHCP for interface veth1")
        run = lambda *argv: subprocess.run(["nsenter", "--target", str(daemon.pid), "--mount", "--"] + list(argv),
                                           check=True, stdout=subprocess.PIPE, text=True).stdout
        # Full: a lease cannot even be written.
        self.assertNotEqual(subprocess.run(
            ["nsenter", "--target", str(daemon.pid), "--mount", "--", "sh", "-c",
             "printf 'veth1 10.0.0.5 255.255.255.0\\n' > /tmp/lease.new"]).returncode, 0)
        run("rm", "-f", "/tmp/lease.new")
        time.sleep(2)
        self.assertTrue(daemon.running(), daemon.output())
        # Room again: the lease the script writes next is taken up.
        run("rm", "/tmp/filler")
        run("sh", "-c", "umask 077; printf 'veth1 10.0.0.5 255.255.255.0\\n10.0.0.1\\n' > /tmp/l.tmp && "
                        "mv /tmp/l.tmp /tmp/dhcp_veth1.txt")
        freed = time.monotonic()
        daemon.wait_for_message("Configuring veth1 for 10.0.0.5/255.255.255.0", timeout=5)
        report("full /tmp: lease written to in force", time.monotonic() - freed)
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())

    def test_few_file_descriptors_make_reads_fail_until_the_limit_is_raised(self):
        self.sandbox.write_config(ETH1_STATIC)
        daemon = self.start_daemon()
        daemon.wait_for_message("Adding default gateway 10.0.0.1 for veth1")
        # Standard input, output and error only: nothing else can be opened.
        subprocess.run(["prlimit", "--pid", str(daemon.pid), "--nofile=3:"], check=True)
        self.sandbox.write_config(ETH1_STATIC.replace("10.0.0.2", "10.0.0.3"))
        daemon.wait_for_message("Unable to read configuration file", count=3)
        self.assertTrue(daemon.running(), daemon.output())
        self.assertNotIn("Configuring veth1 for 10.0.0.3/255.255.255.0", daemon.messages())
        subprocess.run(["prlimit", "--pid", str(daemon.pid), "--nofile=64:"], check=True)
        raised = time.monotonic()
        daemon.wait_for_message("Configuring veth1 for 10.0.0.3/255.255.255.0", timeout=5)
        report("few descriptors: limit raised to configuration in force", time.monotonic() - raised)
        # Nothing was left open by the failed reads: the standard three, and what
        # the daemon holds for its life, its instance lock, the kernel's and the
        # files' notifications (and nf_tables' commits, where the kernel has
        # them), the set it waits on and the socket the status asks eth1's
        # flags through.
        descriptors = daemon.held_descriptors()
        held = sorted(target for fd, target in descriptors.items() if fd > 2)
        lifelong = ["/run/tessel-networkd/lock", "anon_inode:[eventpoll]", "anon_inode:inotify", "socket:", "socket:"]
        if len(held) == len(lifelong) + 1:
            lifelong.append("socket:")
        self.assertEqual(sorted(descriptors), list(range(3 + len(lifelong))))
        self.assertEqual([re.sub(r"\[\d+\]$", "", target) for target in held], lifelong, held)
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
    def test_notify_service_hears_ready_after_the_first_cycle_then_the_watchdog(self):
        import socket
        path = self.sandbox.path("notify")
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(listener.close)
        listener.bind(path)
        listener.settimeout(10)
        self.sandbox.write_config(ETH1_STATIC)
        # A watchdog of 2 s: fed about every second.
        daemon = self.start_daemon(env={"NOTIFY_SOCKET": path, "WATCHDOG_USEC": "2000000"})
        received = []
        while len([m for m in received if m[1] == "WATCHDOG=1"]) < 4:
            received.append((time.monotonic(), listener.recv(64).decode()))
        self.assertEqual(received[0][1], "READY=1")
        # Ready only once the first cycle had done its work.
        self.assertIn("Adding default gateway 10.0.0.1 for veth1", daemon.messages())
        feeds = [when for when, text in received if text == "WATCHDOG=1"]
        gaps = [later - earlier for earlier, later in zip(feeds, feeds[1:])]
        for gap in gaps:
            self.assertGreater(gap, 0.9, gaps)
            self.assertLess(gap, 2.0, gaps)
        self.assertEqual([text for _, text in received[1:]], ["WATCHDOG=1"] * 4)
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())
        texts = []
        listener.settimeout(0.5)
        try:
            while True:
                texts.append(listener.recv(64).decode())
        except socket.timeout:
            pass
        self.assertEqual(texts[-1:], ["STOPPING=1"])

    def test_without_a_notify_socket_nothing_is_sent(self):
        self.sandbox.write_config(ETH1_STATIC)
        daemon = self.start_daemon(env={"WATCHDOG_USEC": "2000000"})
        daemon.wait_for_message("Adding default gateway 10.0.0.1 for veth1")
        # No socket was opened for it (eth0's link query's is closed at once):
        # the sockets the daemon holds are its netlink ones for the kernel's
        # notifications, rtnetlink's and, where the kernel has nf_tables,
        # netfilter's, and the status's query of eth1's link, which is no
        # Unix socket as the notifications' would be.
        sockets = [s[len("socket:["):-1] for s in daemon.held_descriptors().values() if s.startswith("socket:")]
        with open("/proc/%d/net/netlink" % daemon.pid) as netlink:
            # The protocol (the "Eth" column) of each netlink socket, by inode.
            protocols = {line.split()[-1]: int(line.split()[1]) for line in netlink.readlines()[1:]}
        with open("/proc/%d/net/unix" % daemon.pid) as unix:
            unix_inodes = {line.split()[6] for line in unix.readlines()[1:] if len(line.split()) > 6}
        held = sorted(protocols.get(inode, -1) for inode in sockets)
        self.assertIn(held, ([-1, 0], [-1, 0, 12]), sockets)
        self.assertEqual([], [inode for inode in sockets if inode in unix_inodes])
        daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait_exit(), 0, daemon.output())


if __name__ == "__main__":
    harness.main()
