"""Lease file to address programmed: lease files written as the DHCP client's
script writes them, at different moments of the one-second cycle; the
recording ip shows when the daemon programmed each lease."""
import os
import signal
import subprocess
import time

from tesselkit.inotify import IN_OPEN, Watch
from tesselkit.standins import recorded_times
from tesselkit.waiting import wait_until

from .sandbox import start_daemon

LEASES = 5


def programmed_at(log, command):
    """When the recording stand-in saw `command` (seconds since the epoch), or None."""
    return next((stamp for stamp, text in recorded_times(log) if text == command), None)


def inside(args):
    log = os.path.join(os.path.dirname(args.standins), "commands.log")  # beside the recording stand-ins
    with Watch(args.config, IN_OPEN) as watch:
        daemon = start_daemon(args.daemon, args.config)
        wait_until(lambda: watch.count(IN_OPEN) >= 3, "the daemon's first 3 cycles", 30, interval=0.05)
    # The recording stand-in returns at once; a client stays, as the real one
    # does in the background, so the daemon's check finds it and starts no other.
    client = subprocess.Popen(["udhcpc", "-c", "sleep 1000", "-i", "veth1"], executable="/bin/sh")
    latencies = []
    for n in range(LEASES):
        time.sleep(1.0 + 0.37 * n)  # spread over the phase of the one-second cycle
        address = "10.9.8.%d" % (10 + n)
        with open("/tmp/dhcp_veth1.txt.new", "w") as lease:
            lease.write("veth1 %s 255.255.255.0\n10.9.8.1\n" % address)
        written = time.time()
        os.rename("/tmp/dhcp_veth1.txt.new", "/tmp/dhcp_veth1.txt")
        wanted = "ip addr add %s/255.255.255.0 dev veth1" % address
        stamp = wait_until(lambda: programmed_at(log, wanted), "lease %s programmed" % address, 5, interval=0.01)
        latencies.append(stamp - written)
    daemon.send_signal(signal.SIGTERM)
    daemon.wait()
    client.kill()
    client.wait()
    return {"lease": {"value": max(latencies) * 1e6, "mean": sum(latencies) / len(latencies) * 1e6,
                      "floor": 1e6, "count": len(latencies)}}


def run(work, daemon):
    return ("lease", dict(config=work.configs["lease"], daemon=daemon, standins_dir=work.recording_bin))
