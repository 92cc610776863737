"""The namespaces the daemon runs in: the one runner that starts a command in
fresh ones (start), whether they can be had here, entering a network
namespace, and the processes of a PID namespace."""
import contextlib
import ctypes
import os
import shlex
import shutil
import subprocess
import sys

# New network, mount and PID namespaces with their own /proc: what the daemon
# gets in the system tests, the benchmark and the leak check.
UNSHARE = ["unshare", "--net", "--mount", "--pid", "--fork", "--mount-proc"]
SETUP_FAILED = 97  # the init's own status when the namespaces could not be prepared

# The namespaces' init, a small shell (pid 1): refuses unless it is the first
# process of new PID and network namespaces, prepares them, then runs its
# arguments as its only child and keeps that child's exit status (128 + N
# after signal N). The command is therefore
# not pid 1 and gets the ordinary signal semantics. When it ends, the init
# ends, and the kernel ends whatever else ran in the namespaces. The first line
# marks it, so that what runs inside can tell it is (refuse_unless_inside).
_INIT_MARK = "# tesselkit.namespaces init"
_INIT = _INIT_MARK + r"""
fail() { echo "namespace setup: $*" >&2; [ -z "${TESSEL_STATUS:-}" ] || echo @SETUP_FAILED@ > "$TESSEL_STATUS"; exit @SETUP_FAILED@; }
IP=@IP@
[ "$$" = 1 ] && [ "$(readlink /proc/self/ns/net)" != @OUTSIDE@ ] || fail "not the first process of new namespaces; refusing"
@SETUP@
"$@" &
child=$!
wait "$child"
status=$?
[ -z "${TESSEL_STATUS:-}" ] || echo "$status" > "$TESSEL_STATUS"
exit "$status"
"""


def start(command, binds=(), tmpfs=(), loopback=False, interfaces=(), up=(), setup=(), status_path=None, env=None,
          **popen):
    """Starts `command` in new network, mount and PID namespaces and returns the
    Popen of unshare (in our namespaces; its child is the init, the command the
    init's child). The init, before the command:
      binds: (source, target) pairs, each source bind-mounted on its target;
      tmpfs: (target, options) pairs, a private tmpfs on each ("" for no options);
      loopback: sets lo up;
      interfaces: names created as veth pairs with the real ip; NAME's peer is
          NAME-peer, up, so that NAME gets a carrier once it is set up;
      up: names of those set up and awaited until the kernel reports them
          running (operational state UP, a moment after the carrier);
      setup: further shell lines; "$IP" is the real ip, `fail WHY` gives up.
    status_path: a file that gets the command's exit status, or SETUP_FAILED.
    env: the environment (default ours); popen: further arguments of Popen."""
    lines = []
    for source, target in binds:
        lines.append('mount --bind {0} {1} || fail "cannot mount {0} on {1}"'.format(shlex.quote(source),
                                                                                  shlex.quote(target)))
    for target, options in tmpfs:
        lines.append('mount -t tmpfs {0}tmpfs {1} || fail "cannot mount a tmpfs on {1}"'.format(
            "-o %s " % shlex.quote(options) if options else "", shlex.quote(target)))
    if loopback:
        lines.append('"$IP" link set lo up || fail "cannot set lo up"')
    for name in interfaces:
        lines.append('"$IP" link add {0} type veth peer name {0}-peer && "$IP" link set {0}-peer up '
                     '|| fail "cannot create {0}"'.format(name))
    for name in up:
        lines.append('"$IP" link set {0} up || fail "cannot set {0} up"'.format(name))
        lines.append('tries=0; until "$IP" -o link show {0} | grep -q " state UP "; do tries=$((tries + 1)); '
                     '[ $tries -lt 2000 ] || fail "{0} does not come up"; sleep 0.01; done'.format(name))
    lines.extend(setup)
    script = (_INIT.replace("@SETUP_FAILED@", str(SETUP_FAILED))
              .replace("@IP@", shlex.quote(real_tool("ip")))
              .replace("@OUTSIDE@", shlex.quote(os.readlink("/proc/self/ns/net")))
              .replace("@SETUP@", "\n".join(lines)))
    environment = dict(os.environ if env is None else env)
    if status_path is not None:
        environment["TESSEL_STATUS"] = status_path
    return subprocess.Popen(UNSHARE + ["--kill-child", "sh", "-c", script, "init"] + list(command),
                            env=environment, **popen)


def refuse_unless_inside(who):
    """Exits unless this process runs inside namespaces that start() made (their
    init checked they were new): what runs the daemon's commands never runs on
    the machine's network."""
    try:
        with open("/proc/1/cmdline", "rb") as cmdline:
            init = cmdline.read().split(b"\0")
    except OSError:
        init = []
    if len(init) < 4 or init[:2] != [b"sh", b"-c"] or not init[2].startswith(_INIT_MARK.encode()) \
            or init[3] != b"init":
        sys.exit("%s: not inside namespaces of tesselkit.namespaces.start; refusing" % who)


_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)
_reason = None


def unavailable_reason():
    """Empty when this process can create the daemon's namespaces, else why not."""
    global _reason
    if _reason is None:
        if os.geteuid() != 0:
            _reason = "needs root to create namespaces"
        elif shutil.which("unshare") is None:
            _reason = "unshare (util-linux) is missing"
        else:
            probe = subprocess.run(UNSHARE + ["true"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
            _reason = "" if probe.returncode == 0 else "cannot create namespaces here: " + probe.stderr.strip()
    return _reason


def real_tool(name):
    """Absolute path of a real system tool, found outside any stand-ins on PATH."""
    for directory in ("/usr/sbin", "/sbin", "/usr/bin", "/bin"):
        path = os.path.join(directory, name)
        if os.access(path, os.X_OK):
            return path
    raise RuntimeError("no " + name + " on this machine")


@contextlib.contextmanager
def in_netns(netns):
    """Runs the block in a named network namespace (/run/netns/NAME) and comes
    back: sockets made in it stay in it."""
    here = os.open("/proc/self/ns/net", os.O_RDONLY)
    try:
        there = os.open(netns if netns.startswith("/") else "/run/netns/" + netns, os.O_RDONLY)
        try:
            if _libc.setns(there, _CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns " + netns)
        finally:
            os.close(there)
        try:
            yield
        finally:
            if _libc.setns(here, _CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns back from " + netns)
    finally:
        os.close(here)


def children(pid):
    """Process ids whose parent is `pid`."""
    try:
        with open("/proc/%d/task/%d/children" % (pid, pid)) as found:
            return [int(child) for child in found.read().split()]
    except OSError:
        return []


def processes_in_pid_namespace_of(pid):
    """(host pid, pid inside, arguments) of the live processes in the PID
    namespace of process `pid` (zombies, which have no arguments, left out)."""
    theirs = os.readlink("/proc/%d/ns/pid" % pid)
    found = []
    for other in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink("/proc/%s/ns/pid" % other) != theirs:
                continue
            with open("/proc/%s/cmdline" % other, "rb") as cmdline:
                args = cmdline.read()
            with open("/proc/%s/status" % other) as status:
                inside = [line.split()[-1] for line in status if line.startswith("NSpid:")][0]
        except (OSError, IndexError):
            continue
        if args:
            found.append((int(other), int(inside), [arg.decode() for arg in args.split(b"\0")[:-1]]))
    return found


def parent_of(pid):
    """The parent's pid of process `pid`, None when it has gone."""
    try:
        with open("/proc/%d/stat" % pid) as stat:
            text = stat.read()
    except OSError:
        return None
    # "pid (name) state ppid ...": the name may hold anything, so count from its last ')'.
    return int(text[text.rindex(")") + 2:].split()[1])


def without_forked_copies(processes):
    """Of (host pid, ...) entries, those whose parent is not among them. A process
    forked by another (a client running its script, a shell starting a command)
    shows its parent's command line until it runs something else, and is not a
    second client."""
    pids = {entry[0] for entry in processes}
    return [entry for entry in processes if parent_of(entry[0]) not in pids]
