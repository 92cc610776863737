"""Runs the built daemon for system tests, inside namespaces of its own.

Each test gets a Sandbox: a work directory holding
  bin/            recording stand-ins for the device's tools, first on the daemon's PATH
  commands.log    one line per stand-in call, "tool arg arg ...", in call order
  times.log       "SECONDS tool arg ..." for the tools whose calls are timed (Sandbox.record_times)
  tmp/            the daemon's /tmp (lease files can be written and read from outside)
  run/            the daemon's /run: its status document, run/tessel-networkd/status.json, stays
                  readable after the daemon's namespace is gone
  cmdline         what the daemon reads as /proc/cmdline
  output.log      the daemon's standard output and error (output-2.log ... for later starts)
  exit-status     the status the daemon ended with, as its namespace's init saw it (exit-status-2 ...)
  clients/        DHCP clients left over from an earlier run (Sandbox.leftover_clients) and their
                  record clients.log
  rules/          the tables of the arptables, iptables and ebtables stand-ins, one file a table
                  (TOOL.TABLE), one "-A CHAIN ..." line a rule (Sandbox.rules, Sandbox.set_rules)

The configuration file may be gated (Sandbox.use_config_pipe): it stays a regular
file, but each open of it by the daemon waits, through a fanotify permission
event, until the test hands it a text (Daemon.run_cycle), so a test knows where
each cycle begins and ends, without timing. (The daemon reads nothing but a
regular file, and never waits on one, so a named pipe cannot do this.)

Sandbox.start() runs the daemon through the toolkit's runner
(tesselkit.namespaces.start), in new network, mount and PID namespaces whose
small shell init binds the private /tmp, /run and /proc/cmdline, creates the
asked-for interfaces with the real ip (inside the new network namespace only),
then runs the daemon as its child and keeps its exit status. The daemon is
therefore not pid 1 and gets the ordinary signal semantics. When the daemon
ends, the init ends, and the kernel ends whatever else ran in the namespace
(stand-ins left running, for instance).

The two-port mode's isolation counts only with bridge netfilter in force, which
the daemon reads from /proc/sys/net/bridge in its own network namespace (br0 is
never built: ip is a stand-in). Every new network namespace has those switches,
on, where br_netfilter is in the kernel; a machine without them fails every test
at once, naming the cause (BRIDGE_NETFILTER_MISSING), rather than each two-port
build failing on its own.

The paths come from the environment, which CTest sets for every test
(tests/CMakeLists.txt): TESSEL_DAEMON (the daemon), TESSEL_CTL (the operator
command), TESSEL_EMULATOR (a cross build's emulator), TESSEL_OLD_KERNEL (tessel-old-kernel,
for the tests as on Linux 3.10) and PYTHONPATH (the
toolkit, the source's tools/).

The real network tools are never run in the test machine's own namespace: the
daemon only finds stand-ins on its PATH, and Daemon.ns_run() refuses to run
anything unless the daemon's network namespace differs from ours.

The machinery shared with the lab tests and the tools (stand-ins, waiting,
namespaces, log lines) is the toolkit's (tools/tesselkit).
"""

import ctypes
import json
import os
import queue
import select
import shlex
import shutil
import signal
import subprocess
import struct
import sys
import tempfile
import threading
import time
import unittest

try:
    from tesselkit import device, namespaces, netfilter, standins, waiting
except ModuleNotFoundError as missing:
    sys.exit("harness: %s: PYTHONPATH must hold the source's tools/ (CTest sets it)" % missing)
from tesselkit.logs import parse_log_line
from tesselkit.namespaces import SETUP_FAILED
from expected_commands import START_UP

__all__ = ["CMDLINE", "CTL_PATH", "DAEMON_PATH", "Daemon", "DaemonTestCase", "EMULATOR", "OLD_KERNEL", "POLL_INTERVAL", "Sandbox",
           "TIMEOUT", "main", "run_cycles_in_step", "wait_until"]

# Generous: the machine may be busy; a poll returns as soon as its condition holds.
TIMEOUT = float(os.environ.get("TESSEL_TEST_TIMEOUT", "20"))
POLL_INTERVAL = 0.02

CMDLINE = "console=ttyS0,115200 mac=02:00:00:00:00:42 rootwait\n"

DAEMON_PATH = os.environ.get("TESSEL_DAEMON")
CTL_PATH = os.environ.get("TESSEL_CTL")  # the operator command

# A cross-built daemon runs through its emulator ("qemu-arm -L /usr/arm-linux-gnueabihf");
# the stand-ins stay shell scripts of this machine.
EMULATOR = shlex.split(os.environ.get("TESSEL_EMULATOR", ""))
# The oldkernel tests run the daemon and its programs through tessel-old-kernel,
# which makes every system call newer than Linux 3.10 fail as there.
OLD_KERNEL = os.environ.get("TESSEL_OLD_KERNEL") or None


# The switches the daemon reads for bridge netfilter, as its network namespace has them.
BRIDGE_NETFILTER = ("/proc/sys/net/bridge/bridge-nf-call-iptables", "/proc/sys/net/bridge/bridge-nf-call-arptables")
BRIDGE_NETFILTER_MISSING = ("no bridge netfilter in a new network namespace: %s must exist and hold 1 "
                            "(br_netfilter missing from the kernel, or a kernel without per-namespace switches); "
                            "the daemon's two-port isolation cannot be in force without it")


def bridge_netfilter_problem():
    """Empty when a new network namespace has bridge netfilter on, else why not."""
    probe = subprocess.run(["unshare", "--net", "cat"] + list(BRIDGE_NETFILTER), capture_output=True, text=True)
    if probe.returncode == 0 and probe.stdout.split() == ["1", "1"]:
        return ""
    return BRIDGE_NETFILTER_MISSING % " and ".join(BRIDGE_NETFILTER)


def run_prefix():
    """What a target program's command line starts with: tessel-old-kernel for the
    oldkernel tests, then a cross build's emulator."""
    return ([OLD_KERNEL] if OLD_KERNEL else []) + EMULATOR

def wait_until(condition, what, timeout=None):
    """Polls `condition` until it returns something true and returns that; fails after the timeout.
    `what` names the awaited state for the failure message; a callable is asked only then."""
    return waiting.wait_until(condition, what, TIMEOUT if timeout is None else timeout, POLL_INTERVAL)


# A DHCP client left over from an earlier run of the daemon. It lies in clients/ under the
# name of its interface and is started from there as
#   exec -a udhcpc PYTHON -i IFACE -b -R -s /usr/share/udhcpc/tessel.script
# so that its command line reads exactly as that of a client the daemon starts (Python
# takes "-i" as its own option and IFACE as the script). Notes its pid (as the daemon's
# namespace numbers it) in clients.log when ready and when SIGTERM arrives.
LEFTOVER_CLIENT = r"""import os
import signal
import time

record = os.path.join(os.path.dirname(os.path.abspath(__file__)), "clients.log")


def note(what):
    with open(record, "a") as out:
        out.write("%s %d %s\n" % (what, os.getpid(), os.path.basename(__file__)))


def stop(signum, frame):
    note("TERM")
    os._exit(0)


signal.signal(signal.SIGTERM, stop)
note("READY")
while True:
    time.sleep(1)
"""


class ConfigGate:
    """Holds every open of one file by another process until the test answers it
    (a fanotify permission event). The opened file comes with the event, read and
    write, so the text the opener will read can be put into it first."""

    FAN_CLOEXEC = 0x01
    FAN_CLASS_CONTENT = 0x04
    FAN_OPEN_PERM = 0x00010000
    FAN_MARK_ADD = 0x01
    FAN_ALLOW = 0x01
    EVENT = struct.Struct("IBBHQii")  # struct fanotify_event_metadata
    RESPONSE = struct.Struct("iI")  # struct fanotify_response

    def __init__(self, path):
        libc = ctypes.CDLL(None, use_errno=True)
        libc.fanotify_mark.argtypes = [ctypes.c_int, ctypes.c_uint, ctypes.c_uint64, ctypes.c_int, ctypes.c_char_p]
        self._fd = libc.fanotify_init(self.FAN_CLOEXEC | self.FAN_CLASS_CONTENT, os.O_RDWR | os.O_LARGEFILE)
        if self._fd < 0:
            raise OSError(ctypes.get_errno(), "fanotify_init: " + os.strerror(ctypes.get_errno()))
        if libc.fanotify_mark(self._fd, self.FAN_MARK_ADD, self.FAN_OPEN_PERM, -100, path.encode()) != 0:
            error = ctypes.get_errno()
            os.close(self._fd)
            raise OSError(error, "fanotify_mark %s: %s" % (path, os.strerror(error)))
        self._held = queue.Queue()
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._listener = threading.Thread(target=self._listen, daemon=True)
        self._listener.start()

    def _listen(self):
        while not self._stop.is_set():
            if not select.select([self._fd], [], [], 0.1)[0]:
                continue
            data = os.read(self._fd, 4096)
            offset = 0
            while offset + self.EVENT.size <= len(data):
                length, _, _, _, _, fd, pid = self.EVENT.unpack_from(data, offset)
                offset += length
                if pid == os.getpid():
                    self.allow(fd)  # the test's own opens never wait
                else:
                    self._held.put(fd)

    def next_open(self):
        """The file of the oldest held open, or None when none is held."""
        try:
            return self._held.get_nowait()
        except queue.Empty:
            return None

    def allow(self, fd):
        """Lets the open whose file is `fd` go on; closes `fd`."""
        with self._lock:
            try:
                os.write(self._fd, self.RESPONSE.pack(fd, self.FAN_ALLOW))
            except OSError:
                pass
        os.close(fd)

    def close(self):
        """Lets every open go on, held or later."""
        self._stop.set()
        self._listener.join()
        while True:
            fd = self.next_open()
            if fd is None:
                break
            self.allow(fd)
        with self._lock:
            os.close(self._fd)


class Sandbox:
    """The work directory of one test and the daemons started from it."""

    def __init__(self, daemon_path, design_only=False):
        # design_only: stand-ins only for the design's tools (no ebtables), and no
        # directory of the daemon's PATH holds a real one either.
        self.design_only = design_only
        base = os.environ.get("TESSEL_SYSTEM_TEST_DIR", "/var/tmp")
        # The daemon gets a private /tmp; a work directory under the real one would vanish from its sight.
        real_tmp = os.path.realpath("/tmp")
        if os.path.realpath(base) == real_tmp or os.path.realpath(base).startswith(real_tmp + "/"):
            raise RuntimeError("TESSEL_SYSTEM_TEST_DIR must not lie under /tmp")
        self.work = tempfile.mkdtemp(prefix="tessel-system-", dir=base)
        self.config_path = os.path.join(self.work, "tessel-networkd.conf")
        self.config_gate = None
        self.daemons = []
        try:
            self._populate(daemon_path)
        except BaseException:
            # Nobody holds a sandbox that failed to come about, to clean it up later.
            shutil.rmtree(self.work, ignore_errors=True)
            raise

    def _populate(self, daemon_path):
        for sub in ("bin", "tmp", "run", "delay", "output", "status", "linger", "stamp", "clients", "only"):
            os.mkdir(os.path.join(self.work, sub))
        # As /run is on a device: the daemon makes its own directory there.
        os.chmod(os.path.join(self.work, "run"), 0o755)
        # A copy, so the daemon stays reachable whatever its build directory is.
        self.daemon_path = os.path.join(self.work, "tessel-networkd")
        shutil.copy2(daemon_path, self.daemon_path)
        # tessel-old-kernel lies in the build directory too.
        self.run_prefix = run_prefix()
        if OLD_KERNEL:
            self.run_prefix[0] = os.path.join(self.work, "tessel-old-kernel")
            shutil.copy2(OLD_KERNEL, self.run_prefix[0])
        self.ctl_path = None
        if CTL_PATH:
            self.ctl_path = os.path.join(self.work, "tessel-networkctl")
            shutil.copy2(CTL_PATH, self.ctl_path)
        standins.install_controlled(self.work, device.DESIGN_TOOLS if self.design_only else device.TOOLS)
        self._write("cmdline", CMDLINE)

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def tmp_path(self, name):
        """Where a file the daemon sees as /tmp/NAME lies from outside."""
        return self.path("tmp", name)

    def _write(self, relative, text, mode=None):
        with open(self.path(relative), "w") as out:
            out.write(text)
        if mode is not None:
            os.chmod(self.path(relative), mode)

    def write_config(self, text):
        """Replaces the configuration file in one step, as an editor that renames would."""
        temporary = self.config_path + ".new"
        with open(temporary, "w") as out:
            out.write(text)
        os.replace(temporary, self.config_path)

    def use_config_pipe(self):
        """Gates the configuration file: each open of it by the daemon waits until the test
        hands it a text (Daemon.run_cycle), so cycles begin where the test says. The file
        stays in place from then on (write_config would replace it and end the gate)."""
        if self.config_gate is None:
            with open(self.config_path, "w"):
                pass
            self.config_gate = ConfigGate(self.config_path)

    def write_lease(self, interface, text):
        """Writes /tmp/dhcp_INTERFACE.txt as the DHCP client's script would: complete, in one step."""
        final = self.tmp_path("dhcp_" + interface + ".txt")
        with open(final + ".new", "w") as out:
            out.write(text)
        os.replace(final + ".new", final)

    def lease_exists(self, interface):
        return os.path.exists(self.tmp_path("dhcp_" + interface + ".txt"))

    def set_cmdline(self, text):
        """What the daemon will read as /proc/cmdline; effective for daemons started afterwards."""
        self._write("cmdline", text)

    # --- stand-in control -------------------------------------------------------------

    def set_delay(self, tool, seconds, once=False):
        """Makes the stand-in sleep after recording each call, or only the next one."""
        self._write(os.path.join("delay", tool + (".once" if once else "")), "%g\n" % seconds)

    def clear_delay(self, tool):
        for name in (tool, tool + ".once"):
            if os.path.exists(self.path("delay", name)):
                os.remove(self.path("delay", name))

    def set_output(self, tool, text):
        self._write(os.path.join("output", tool), text)

    def set_status(self, tool, status):
        self._write(os.path.join("status", tool), "%d\n" % status)

    def set_only(self, tool, text):
        """Limits the tool's delays and status to calls whose arguments hold `text`;
        None lifts the limit."""
        if text is None:
            if os.path.exists(self.path("only", tool)):
                os.remove(self.path("only", tool))
        else:
            self._write(os.path.join("only", tool), text)

    # --- the status document -------------------------------------------------------------

    def status_dir(self):
        """Where the daemon's /run/tessel-networkd lies from outside."""
        return self.path("run", "tessel-networkd")

    def status_path(self):
        return os.path.join(self.status_dir(), "status.json")

    def status(self):
        """The daemon's status document, parsed; None while there is none."""
        try:
            with open(self.status_path()) as document:
                return json.load(document)
        except FileNotFoundError:
            return None

    def ctl_after_the_daemon(self, *args):
        """Runs tessel-networkctl on the status document the daemon left, from fresh mount
        and PID namespaces of its own (where its pid names no process). Returns the
        CompletedProcess (returncode, stdout, stderr)."""
        return subprocess.run(["unshare", "--mount", "--pid", "--fork", "--mount-proc"] + self.run_prefix
                              + [self._ctl()] + list(args) + ["--status-dir", self.status_dir()],
                              capture_output=True, text=True, timeout=TIMEOUT)

    def _ctl(self):
        if self.ctl_path is None:
            raise AssertionError("no operator command: TESSEL_CTL is not set (CTest sets it; see README)")
        return self.ctl_path

    def set_linger(self, tool, linger=True):
        marker = self.path("linger", tool)
        if linger:
            self._write(os.path.join("linger", tool), "")
        elif os.path.exists(marker):
            os.remove(marker)

    def rules(self, tool, table="filter"):
        """The rules the stand-in of a filter tool holds in one table, as it lists them."""
        return standins.table_rules(self.work, tool, table)

    def set_rules(self, tool, rules, table="filter"):
        """Changes a filter tool's table in one step, as another program would ([] flushes it)."""
        standins.set_table_rules(self.work, tool, rules, table)

    def record_times(self, tool):
        """Has every later call of the tool's stand-in noted with its time in times.log."""
        self._write(os.path.join("stamp", tool), "")

    def timed_commands(self):
        """The timed calls so far, as (seconds since the epoch, "tool arg ...")."""
        return standins.recorded_times(self.path("times.log"))

    def commands(self):
        """Every stand-in call so far, in order, as "tool arg arg ..."."""
        return standins.recorded(self.path("commands.log"))

    def clear_commands(self):
        """Forgets the calls recorded so far."""
        open(self.path("commands.log"), "w").close()

    def signals(self):
        """The SIGTERMs lingering stand-ins received, as "TERM tool arg ..."."""
        return self._lines("signals.log")

    def _lines(self, name):
        try:
            with open(self.path(name)) as record:
                return record.read().splitlines()
        except FileNotFoundError:
            return []

    def wait_for_commands(self, count, timeout=None):
        """Waits until at least `count` commands are recorded; returns them all."""
        return wait_until(
            lambda: self.commands() if len(self.commands()) >= count else None,
            lambda: "%d recorded commands (have %r)" % (count, self.commands()),
            timeout,
        )

    # --- DHCP clients left over from an earlier run -------------------------------------

    def leftover_clients(self, *interfaces):
        """Setup lines for start(): before the daemon, one DHCP client per interface is started
        in its namespace, with the command line a client of the daemon has, and awaited."""
        quoted_python = shlex.quote(sys.executable)
        lines = []
        for name in interfaces:
            self._write(os.path.join("clients", name), LEFTOVER_CLIENT)
            lines.append(
                '(cd "$TESSEL_WORK/clients" && exec bash -c \'exec -a udhcpc "$0" -i {0} {1}\' {2}) '
                "< /dev/null > /dev/null 2>&1 &".format(name, device.DHCP_CLIENT_ARGS, quoted_python)
            )
        lines.append(
            'tries=0; until [ "$(grep -c ^READY "$TESSEL_WORK/clients/clients.log" 2>/dev/null)" = {0} ]; do '
            'tries=$((tries + 1)); [ $tries -lt 1000 ] || fail "the leftover DHCP clients did not start"; '
            "sleep 0.02; done".format(len(interfaces))
        )
        return lines

    def client_events(self):
        """What the leftover clients noted, in order: ("READY" or "TERM", pid, interface)."""
        return [(what, int(pid), name) for what, pid, name in
                (line.split() for line in self._lines(os.path.join("clients", "clients.log")))]

    def client_pids(self):
        """Interface -> pid of each leftover client, as the daemon's namespace numbers it."""
        return {name: pid for what, pid, name in self.client_events() if what == "READY"}

    # --- the daemon -------------------------------------------------------------------

    def start(self, args=None, interfaces=(), up=(), setup=(), env=None):
        """Starts the daemon in fresh namespaces and returns its Daemon.

        args: its command line (default: --config and the sandbox's configuration path).
        interfaces: names created as veth pairs with the real ip before the daemon starts;
            NAME's peer is NAME-peer (up, so that NAME gets a carrier once it is set up).
        up: names of those interfaces that are set up, and awaited until the kernel reports them
            running (operational state UP, which the kernel reaches a moment after the carrier).
        setup: further shell lines for the namespace's init, run before the daemon; "$IP" is the
            real ip tool.
        env: extra environment variables for the daemon.
        """
        if args is None:
            args = ["--config", self.config_path]
        environment = dict(os.environ)
        environment.update(env or {})
        search = environment.get("PATH", "/usr/bin:/bin").split(os.pathsep)
        if self.design_only:
            # The stand-ins' own helpers stay reachable; no ebtables is.
            search = [directory for directory in search if directory and os.path.isabs(directory)
                      and not os.path.exists(os.path.join(directory, "ebtables"))]
        environment["PATH"] = os.pathsep.join([self.path("bin")] + search)
        environment["TESSEL_WORK"] = self.work
        suffix = "" if not self.daemons else "-%d" % (len(self.daemons) + 1)
        output_path = self.path("output%s.log" % suffix)
        status_path = self.path("exit-status" + suffix)
        # Checked where the daemon reads it: its own network namespace. (A switch reads
        # as "1" without its newline to a shell's read, which reads a byte at a time.)
        netfilter = ['on=; {{ read -r on < {0}; }} 2>/dev/null; [ "$on" = 1 ] || fail "{1}"'.format(
            path, BRIDGE_NETFILTER_MISSING % path) for path in BRIDGE_NETFILTER]
        output = open(output_path, "wb")
        try:
            process = namespaces.start(
                self.run_prefix + [self.daemon_path] + list(args),
                binds=[(self.path("tmp"), "/tmp"), (self.path("run"), "/run"), (self.path("cmdline"), "/proc/cmdline")],
                interfaces=interfaces,
                up=up,
                setup=netfilter + list(setup),
                status_path=status_path,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                cwd=self.work,
            )
        finally:
            output.close()
        daemon = Daemon(self, process, output_path, status_path)
        self.daemons.append(daemon)
        return daemon

    def cleanup(self):
        for daemon in self.daemons:
            daemon.kill()
        if self.config_gate is not None:
            self.config_gate.close()
        if os.environ.get("TESSEL_KEEP_WORK") == "1":
            sys.stderr.write("kept " + self.work + "\n")
        else:
            shutil.rmtree(self.work, ignore_errors=True)


class Daemon:
    """One started daemon: its output, its process, its end."""

    def __init__(self, sandbox, process, output_path, status_path):
        self.sandbox = sandbox
        self.process = process  # unshare, in our namespace
        self.output_path = output_path
        self.status_path = status_path
        self._pid = None
        self._config_fd = None  # the configuration file of the daemon's held open, once it opens it

    # --- output -----------------------------------------------------------------------

    def output(self):
        with open(self.output_path, "rb") as out:
            return out.read().decode("utf-8", "replace")

    def lines(self):
        """Complete lines of the output so far (a line still being written is left out)."""
        text = self.output()
        return text[: text.rfind("\n") + 1].splitlines()

    def entries(self):
        """The log entries so far; lines that are not entries (the usage text) are skipped."""
        return [entry for entry in map(parse_log_line, self.lines()) if entry is not None]

    def messages(self):
        return [entry.message for entry in self.entries()]

    def wait_for_message(self, message, count=1, timeout=None):
        """Waits until `message` was logged `count` times; returns the entries so far."""

        def seen():
            entries = self.entries()
            return entries if sum(entry.message == message for entry in entries) >= count else None

        return wait_until(
            seen, lambda: "%d x %r in the log; output so far:\n%s" % (count, message, self.output()), timeout
        )

    # --- cycles, with the configuration file gated (Sandbox.use_config_pipe) -----------

    def wait_for_config_read(self, timeout=None):
        """Waits until the daemon opens the configuration file for a cycle's read. Everything
        the cycles before did is over then, and it waits for the text to read."""
        if self._config_fd is not None:
            return
        gate = self.sandbox.config_gate

        def opened():
            if not self.running():
                raise AssertionError("the daemon ended; output:\n" + self.output())
            fd = gate.next_open()
            return None if fd is None else [fd]

        self._config_fd = wait_until(
            opened, lambda: "the daemon to read its configuration; output so far:\n" + self.output(), timeout
        )[0]

    def feed_config(self, text, timeout=None):
        """Hands the daemon the configuration text of its next cycle, once it reads."""
        self.wait_for_config_read(timeout)
        fd, self._config_fd = self._config_fd, None
        # The held open has the file already: what is in it when the open goes on is read.
        # Written as an editor writes it, through an open of our own that is closed
        # after writing: the daemon follows the file's writers, and the held file's
        # own descriptor would leave it a writer that never closes.
        try:
            with open(self.sandbox.config_path, "w") as config:
                config.write(text)
        finally:
            self.sandbox.config_gate.allow(fd)

    def run_cycle(self, text, count=1, timeout=None):
        """Runs `count` cycles on the configuration text; returns when the last one is over."""
        for _ in range(count):
            self.feed_config(text, timeout)
            self.wait_for_config_read(timeout)

    # --- process ----------------------------------------------------------------------

    @property
    def pid(self):
        """The daemon's process id as seen from here (it is the init's child)."""
        if self._pid is None:
            self._pid = wait_until(self._find_daemon, lambda: "the daemon process; output so far:\n" + self.output())
        return self._pid

    def _find_daemon(self):
        if self.process.poll() is not None:
            raise AssertionError("the daemon's namespace ended early; output:\n" + self.output())
        init = namespaces.children(self.process.pid)
        for child in namespaces.children(init[0]) if init else []:
            try:
                if os.readlink("/proc/%d/exe" % child) == self.sandbox.daemon_path:
                    return child
                # A script in the daemon's place runs under its interpreter, a
                # cross-built daemon under its emulator.
                with open("/proc/%d/cmdline" % child, "rb") as cmdline:
                    if self.sandbox.daemon_path.encode() in cmdline.read().split(b"\0")[: len(self.sandbox.run_prefix) + 2]:
                        return child
            except OSError:
                pass
        return None

    def running(self):
        return self.process.poll() is None

    def filter_tables_moved(self):
        """What another program's change to the filter tables does to the kernel, in
        the daemon's network namespace: the stand-ins keep their tables in files, and
        the daemon lists them only when the kernel's tables moved."""
        with namespaces.in_netns("/proc/%d/ns/net" % self.pid):
            if not netfilter.move_generation():
                raise unittest.SkipTest("no nf_tables in this kernel: the filter tables cannot be moved")

    def namespace_processes(self):
        """The command lines (argument lists) of the live processes in the daemon's pid namespace."""
        return [args for _, _, args in namespaces.processes_in_pid_namespace_of(self.pid)]

    def send(self, sig):
        os.kill(self.pid, sig)

    def wait_exit(self, timeout=None):
        """Waits for the daemon's end; returns its exit code, or -N when signal N killed it."""
        try:
            self.process.wait(TIMEOUT if timeout is None else timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("the daemon did not end; output so far:\n" + self.output()) from None
        with open(self.status_path) as status_file:
            status = int(status_file.read())
        if status == SETUP_FAILED:
            raise AssertionError("the namespace could not be set up:\n" + self.output())
        return status if status < 128 else -(status - 128)

    def held_descriptors(self, timeout=None):
        """The daemon's open descriptors as {fd: target}, taken when two listings 0.2 s
        apart agree: a pass opens and closes pipes and dump sockets of its own, and a
        descriptor can close between its listing and its reading."""
        def listing():
            found = {}
            for fd in os.listdir("/proc/%d/fd" % self.pid):
                try:
                    found[int(fd)] = os.readlink("/proc/%d/fd/%s" % (self.pid, fd))
                except FileNotFoundError:
                    pass
            return found
        last = {}

        def steady():
            nonlocal last
            before = listing()
            time.sleep(0.2)
            last = listing()
            return before == last
        wait_until(steady, "a steady listing of the daemon's descriptors", timeout)
        return last

    def signal_mask(self, field):
        """A signal set from /proc/PID/status (SigIgn, SigCgt, SigBlk) as a set of numbers."""
        with open("/proc/%d/status" % self.pid) as status:
            for line in status:
                if line.startswith(field + ":"):
                    mask = int(line.split()[1], 16)
                    return {n for n in range(1, 65) if mask & (1 << (n - 1))}
        raise AssertionError("no " + field + " in the daemon's status")

    def ns_run(self, argv):
        """Runs a real command in the daemon's network namespace (never in ours)."""
        theirs = os.readlink("/proc/%d/ns/net" % self.pid)
        if theirs == os.readlink("/proc/self/ns/net"):
            raise AssertionError("the daemon shares our network namespace; refusing to run " + " ".join(argv))
        return subprocess.run(
            ["nsenter", "--target", str(self.pid), "--net", "--"] + list(argv),
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            check=True,
        ).stdout

    def ctl(self, *args):
        """Runs tessel-networkctl with `args` as on the device: in the daemon's mount and PID
        namespaces (its /run, its /proc). Returns the CompletedProcess."""
        return subprocess.run(["nsenter", "--target", str(self.pid), "--mount", "--pid", "--"]
                              + self.sandbox.run_prefix + [self.sandbox._ctl()] + list(args),
                              capture_output=True, text=True, timeout=TIMEOUT)

    def kill(self):
        """Ends the daemon at once if it still runs (its namespace goes with it)."""
        if self._config_fd is not None:
            self.sandbox.config_gate.allow(self._config_fd)
            self._config_fd = None
        if self.process.poll() is not None:
            return
        try:
            init = namespaces.children(self.process.pid)
            for pid in (namespaces.children(init[0]) if init else []):
                os.kill(pid, signal.SIGKILL)
        except OSError:
            pass
        try:
            self.process.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def run_cycles_in_step(runs, count=1):
    """Runs `count` cycles on several daemons at once; `runs` holds (daemon, configuration text)
    pairs. Returns when every daemon has ended its last one."""
    for _ in range(count):
        for daemon, text in runs:
            daemon.feed_config(text)
        for daemon, text in runs:
            daemon.wait_for_config_read()


_netfilter_problem = None


class DaemonTestCase(unittest.TestCase):
    """A test with a fresh Sandbox in self.sandbox; skips (or fails when
    TESSEL_REQUIRE_NAMESPACES=1) where the namespaces cannot be had, and fails
    where they come without bridge netfilter. A class with DESIGN_ONLY true runs
    the daemon with only the design's tools (Sandbox design_only)."""

    DESIGN_ONLY = False

    def setUp(self):
        global _netfilter_problem
        reason = namespaces.unavailable_reason()
        if reason:
            if os.environ.get("TESSEL_REQUIRE_NAMESPACES") == "1":
                self.fail(reason + " (TESSEL_REQUIRE_NAMESPACES=1)")
            self.skipTest(reason)
        if _netfilter_problem is None:
            _netfilter_problem = bridge_netfilter_problem()
        if _netfilter_problem:
            self.fail(_netfilter_problem)
        if not DAEMON_PATH:
            self.fail("no daemon: TESSEL_DAEMON is not set (CTest sets it; see README)")
        self.sandbox = Sandbox(DAEMON_PATH, design_only=self.DESIGN_ONLY)
        self.addCleanup(self.sandbox.cleanup)

    def start_daemon(self, **kwargs):
        return self.sandbox.start(**kwargs)

    def start_running_daemon(self, **kwargs):
        """Starts the daemon and waits until it has run its start-up commands."""
        daemon = self.sandbox.start(**kwargs)
        daemon.wait_for_message("Bringing up loopback lo")
        self.sandbox.wait_for_commands(len(START_UP))
        return daemon


def main():
    """Entry point of a test file: its arguments go to unittest."""
    unittest.main()
