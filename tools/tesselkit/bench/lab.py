"""DHCP timings in the device lab (tools/lab: the real udhcpc, its script and
a DHCP server in namespaces), per run: daemon start to the lease file, start
to veth1 addressed, lease file to address for the first lease and for a later
one."""
import os
import time

from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.inotify import IN_MOVED_TO
from tesselkit.lab import LAB_TOOL, Lab, unavailable_reason
from tesselkit.waiting import wait_until

NAME = "tessel-bench"  # a lab of its own name: others' stay untouched
LEASE_FILE = "dhcp_veth1.txt"


def last_written(watch, before):
    """The time of the script's last lease file up to `before`: udhcpc's script
    writes a file when the client starts (no lease), then the lease's."""
    return [t for t in watch.events(IN_MOVED_TO, LEASE_FILE) if t <= before][-1]


def one_run(lab):
    with lab.watch_tmp() as watch:
        started = time.monotonic()
        lab.start(TWO_PORT_CONFIG)
        wait_until(lambda: watch.events(IN_MOVED_TO, LEASE_FILE) and lab.lease_address(), "veth1's lease", 30,
                   interval=0.01)
        seen = time.monotonic()
        written = last_written(watch, seen)
    # udhcpc gets its first lease before it goes to the background, so the
    # daemon finds that file in the cycle that started the client. A lease
    # that comes later (here: released, then asked for again) waits for
    # the next cycle.
    client = list(lab.udhcpc_clients())[0]
    lab.device("kill", "-USR2", str(client))
    wait_until(lambda: lab.addresses("veth1") == [], "veth1 flushed after the release", 5, interval=0.05)
    with lab.watch_tmp() as watch:
        lab.device("kill", "-USR1", str(client))
        wait_until(lambda: watch.events(IN_MOVED_TO, LEASE_FILE) and lab.lease_address(), "the lease back on veth1",
                   10, interval=0.01)
        again = time.monotonic()
        rewritten = last_written(watch, again)
    lab.stop()
    return written - started, seen - started, seen - written, again - rewritten


def measure(daemon, runs=3):
    """The timings of each run, or None and why when no lab can be built here."""
    if not os.path.exists(LAB_TOOL):
        return None, "no tools/lab in this tree"
    why = unavailable_reason(daemon)
    if why:
        return None, why
    timings = []
    for _ in range(runs):
        lab = Lab(NAME, daemon)
        lab.up()
        try:
            timings.append(one_run(lab))
        finally:
            lab.down()
    return timings, ""
