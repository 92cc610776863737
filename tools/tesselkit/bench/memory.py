"""The running daemon's peak, proportional and anonymous memory against the
smallest C++ program linked like it (tessel-minimal)."""
import signal
import subprocess

from tesselkit.inotify import IN_OPEN, Watch
from tesselkit.waiting import wait_until

from .sandbox import start_daemon


def memory_of(pid):
    values = {}
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            key, _, rest = line.partition(":")
            if key in ("VmHWM", "VmRSS", "RssAnon"):
                values[key] = int(rest.split()[0])
    with open("/proc/%d/smaps_rollup" % pid) as rollup:
        for line in rollup:
            if line.startswith("Pss:"):
                values["Pss"] = int(line.split()[1])
    return values


def inside(args):
    with Watch(args.config, IN_OPEN) as watch:
        daemon = start_daemon(args.daemon, args.config)
        minimal = subprocess.Popen([args.minimal], stdout=subprocess.DEVNULL)
        wait_until(lambda: watch.count(IN_OPEN) >= args.cycles, "%d cycles of the daemon" % args.cycles,
                   args.cycles * 2 + 30, interval=0.05)
    result = {"memory": {"daemon": memory_of(daemon.pid), "minimal": memory_of(minimal.pid)}}
    for process in (daemon, minimal):
        process.send_signal(signal.SIGTERM)
        process.wait()
    return result


def run(work, daemon, minimal):
    return ("memory", dict(config=work.configs["memory"], interfaces="eth0,eth1", daemon=daemon, minimal=minimal,
                           cycles=5))
