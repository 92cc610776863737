"""The namespaces the daemon runs in: whether they can be had here, entering a
network namespace, and the processes of a PID namespace."""
import contextlib
import ctypes
import os
import shutil
import socket
import subprocess
import sys

# New network, mount and PID namespaces with their own /proc: what the daemon
# gets in the system tests, the benchmark and the leak check.
UNSHARE = ["unshare", "--net", "--mount", "--pid", "--fork", "--mount-proc"]

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


def refuse_unless_fresh(who):
    """Exits unless this is the first process of fresh PID and network namespaces
    (nothing but lo): what runs the daemon's commands never runs on the machine's network."""
    names = [name for _, name in socket.if_nameindex()]
    if os.getpid() != 1 or names != ["lo"]:
        sys.exit("%s: not inside fresh namespaces (pid %d, interfaces %s); refusing" % (who, os.getpid(), names))


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
