"""The running daemon's CPU per idle and per steady cycle, against its floor:
tessel-bench paced, which reads the same file at the same pace (and, for a
steady cycle, runs the one command a steady cycle runs).

The daemons and the floors each run in a cgroup of their own, whose CPU time
counts every process in it, the commands' shells included; sampled over
windows that leave out the start-up."""
import os
import shutil
import signal
import subprocess
import sys
import time

from tesselkit.inotify import IN_OPEN, Watch
from tesselkit.waiting import wait_until

COPIES = 3  # daemons (and floors) measured side by side: more cycles in the same minute
WINDOW = 10  # seconds of each window
REATTACH = "ip link set eth0 master br0 > /dev/null 2>&1"  # the command of a steady cycle


def cgroup2_mount():
    with open("/proc/mounts") as mounts:
        for line in mounts:
            fields = line.split()
            if fields[2] == "cgroup2":
                return fields[1]
    return None


def make_cgroup():
    """A cgroup for this run, or None (and why on standard error) without a cgroup2 hierarchy."""
    root = cgroup2_mount()
    if root is None:
        print("no cgroup2 hierarchy mounted: no figures of the running daemon's CPU", file=sys.stderr)
        return None
    cgroup = os.path.join(root, "tessel-bench-%d" % os.getpid())
    os.mkdir(cgroup)
    return cgroup


def remove_cgroup(cgroup):
    """Removes the benchmark's cgroups once their processes are gone."""
    for _ in range(50):
        try:
            for child in os.listdir(cgroup):
                if os.path.isdir(os.path.join(cgroup, child)):
                    os.rmdir(os.path.join(cgroup, child))
            os.rmdir(cgroup)
            return
        except OSError:
            time.sleep(0.1)
    print("bench: could not remove " + cgroup, file=sys.stderr)


def start_in(cgroup, argv):
    """Starts argv inside the cgroup (the child moves itself there before exec)."""
    def enter():
        with open(os.path.join(cgroup, "cgroup.procs"), "w") as procs:
            procs.write("0")
    return subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                            preexec_fn=enter)


def cgroup_usage(cgroup):
    """CPU microseconds of every process that ran in the cgroup, exited ones included."""
    with open(os.path.join(cgroup, "cpu.stat")) as stat:
        for line in stat:
            key, value = line.split()
            if key == "usage_usec":
                return int(value)
    raise RuntimeError("no usage_usec in " + cgroup)


def inside(args):
    groups = {name: os.path.join(args.cgroup, args.kind + "-" + name) for name in ("daemon", "floor")}
    for group in groups.values():
        os.mkdir(group)
    # The daemon opens its configuration once per cycle: the opens count the cycles.
    watches = {"daemon": [], "floor": []}
    processes = []
    command = [REATTACH] if args.kind == "steady" else []
    for copy in range(COPIES):
        daemon_config = "%s.%s.daemon.%d" % (args.config, args.kind, copy)
        floor_config = "%s.%s.floor.%d" % (args.config, args.kind, copy)
        for path in (daemon_config, floor_config):
            shutil.copy(args.config, path)
        watches["daemon"].append(Watch(daemon_config, IN_OPEN))
        watches["floor"].append(Watch(floor_config, IN_OPEN))
        # A status directory each: the daemon holds its directory's instance
        # lock, and a second daemon on the same one would exit at its start.
        status_dir = "/run/tessel-networkd-%s-%d" % (args.kind, copy)
        processes.append(start_in(groups["daemon"], [args.daemon, "--config", daemon_config, "--status-dir", status_dir]))
        processes.append(start_in(groups["floor"], [args.bench, "paced", floor_config] + command))
    for watch in watches["daemon"]:
        # The first usable cycle and two steady ones.
        wait_until(lambda: watch.count(IN_OPEN) >= 3, "the daemon's first 3 cycles", 30, interval=0.05)

    def sample():
        return {name: (cgroup_usage(groups[name]), sum(w.count(IN_OPEN) for w in watches[name])) for name in groups}

    # Samples every WINDOW seconds; each window gives a ratio, and the median
    # of those keeps a burst of other work on a shared machine (which lands
    # on the daemon or on the floor, not on both alike) from deciding it.
    samples = [sample()]
    start = time.monotonic()
    for window in range(1, args.cycles // WINDOW + 1):
        # Read often: inotify merges an event into an unread identical one.
        while time.monotonic() < start + window * WINDOW + 0.1:
            for watch in watches["daemon"] + watches["floor"]:
                watch.read()
            time.sleep(0.2)
        samples.append(sample())
    for process in processes:
        process.send_signal(signal.SIGTERM)
        process.wait()
    for watch in watches["daemon"] + watches["floor"]:
        watch.close()
    windows = []
    for before, after in zip(samples, samples[1:]):
        per_cycle = {name: (after[name][0] - before[name][0]) / (after[name][1] - before[name][1]) for name in groups}
        windows.append((per_cycle["daemon"] / per_cycle["floor"], per_cycle["daemon"], per_cycle["floor"]))
    windows.sort()
    ratio, value, floor = windows[len(windows) // 2]
    first, last = samples[0], samples[-1]
    return {"daemon_" + args.kind: {
        "value": value, "floor": floor, "ratio": ratio, "windows": len(windows),
        "count": last["daemon"][1] - first["daemon"][1],
        "overall": (last["daemon"][0] - first["daemon"][0]) / (last["floor"][0] - first["floor"][0])
        * (last["floor"][1] - first["floor"][1]) / (last["daemon"][1] - first["daemon"][1]),
    }}


def runs(work, daemon, bench, cycles, cgroup):
    """The idle and steady runs, as (kind, options) for Work.run."""
    return [("idle", dict(config=work.configs["idle"], daemon=daemon, bench=bench, cycles=cycles, cgroup=cgroup)),
            ("steady", dict(config=work.configs["steady"], interfaces="eth0", daemon=daemon, bench=bench,
                            cycles=cycles, cgroup=cgroup))]
