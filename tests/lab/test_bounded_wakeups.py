#!/usr/bin/env python3
"""Streams of events the daemon must not be driven by, on the simulated device
with both ports bridged: an unprivileged user (nobody) writing 3000 files into
the device's /tmp, the lease files' names among them, and 4000 reports of a
link the daemon does not own (a veth set down and up 2000 times each). During
each the daemon's passes (each opens the configuration file) and its CPU time
(its own from /proc/PID/schedstat, its commands' from /proc/PID/stat) are counted and printed
("figures: ..."); the passes may be the one-second passes and one more a second,
the CPU 15 % of one. After the flood a lease written by root is still taken
within a bound that the one-second pass would miss."""
import os
import time
import unittest

from labtest import PEER1_ADDR, figures, lab_module, main, seconds_until
from tesselkit.device import TWO_PORT_CONFIG
from tesselkit.inotify import Watch
from tesselkit.waiting import wait_until

MODULE = lab_module(globals(), start_config=TWO_PORT_CONFIG)

AS_NOBODY = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
FILES = 3000
FLAPS = 2000
# The flood and the storm are paced over a few seconds, so that passes and CPU
# are counted over a stretch the one-second pass spans several times.
FLOOD_S = 3
STORM_BATCHES = 20
IN_OPEN = 0x20
IN_CLOSE_NOWRITE = 0x10  # with IN_OPEN, so that no two opens in a row are merged into one
CPU_SHARE = 0.15
LEASE_WITHIN_S = 0.5
FLOOD_LEASE = "192.168.77.160"
TICKS = os.sysconf("SC_CLK_TCK")

# Written by nobody in the device's /tmp: the lease files' names every third
# file, other names between them.
FLOOD_SCRIPT = r"""
import os, sys, time
files, seconds = int(sys.argv[1]), float(sys.argv[2])
names = ["dhcp_veth1.txt", "dhcp_veth3.txt"]
start = time.monotonic()
for i in range(files):
    name = names[(i // 3) % 2] if i % 3 == 0 else "flood-%d.txt" % i
    try:
        with open("/tmp/" + name, "w") as f:
            f.write("veth1 10.66.6.%d 255.0.0.0\n10.66.6.1\n" % (i % 250))
    except OSError:
        pass  # a lease file the daemon made root's, or took away meanwhile
    ahead = start + seconds * (i + 1) / files - time.monotonic()
    if ahead > 0:
        time.sleep(ahead)
"""


def cpu_seconds(pid):
    """(the daemon's own, its finished commands') CPU seconds: its own to the
    nanosecond (schedstat), its commands' in clock ticks (stat)."""
    with open("/proc/%d/schedstat" % pid) as f:
        own = int(f.read().split()[0]) / 1e9
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rpartition(")")[2].split()
    return own, (int(fields[13]) + int(fields[14])) / TICKS


def the_daemon(lab):
    """The daemon's host pid; a command it is starting (forked, not yet run)
    looks like a second daemon for a moment."""
    def found():
        try:
            return lab.daemon_pid()
        except AssertionError:
            return None
    return wait_until(found, "one daemon in the lab", 5, interval=0.01)


class BoundedWakeupsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lab = MODULE["lab"]
        cls.lease = cls.lab.wait_for_two_port_start()
        cls.lab.wait_for_routes([(PEER1_ADDR, "veth1", 10)])

    def measured(self, what, stream):
        """Runs `stream` and counts the daemon's passes and CPU while it lasts;
        prints them and returns (seconds, passes, own CPU share, commands' CPU share)."""
        pid = the_daemon(self.lab)
        config = os.path.basename(self.lab.env["CONFIG"])
        with Watch(self.lab.state, IN_OPEN | IN_CLOSE_NOWRITE) as watch:
            watch.read()
            own0, children0 = cpu_seconds(pid)
            start = time.monotonic()
            stream()
            seconds = time.monotonic() - start
            own1, children1 = cpu_seconds(pid)
            watch.read()
            passes = watch.count(IN_OPEN, config)
        self.assertEqual(pid, the_daemon(self.lab))
        own, children = (own1 - own0) / seconds, (children1 - children0) / seconds
        print("figures: %s: %.2f s, %d passes, daemon CPU %.2f %% (its commands %.1f %%)" % (
            what, seconds, passes, 100 * own, 100 * children))
        return seconds, passes, own, children

    def assertBounded(self, seconds, passes, own):
        # The one-second passes, one more a second, and a few for the edges and a loaded machine.
        self.assertLessEqual(passes, 2 * seconds + 3)
        self.assertLessEqual(own, CPU_SHARE)

    def test_a_flood_of_tmp_by_another_user_drives_no_passes(self):
        mark = len(self.lab.daemon_log())
        seconds, passes, own, _ = self.measured(
            "%d files written into /tmp by nobody" % FILES,
            lambda: self.lab.device(*(AS_NOBODY + ["/usr/bin/python3", "-c", FLOOD_SCRIPT, str(FILES), str(FLOOD_S)])))
        self.assertBounded(seconds, passes, own)
        # Each lease file nobody left is removed by a pass, with its warning: one a pass at most.
        ignored = self.lab.daemon_log_since(mark).count("Ignoring DHCP lease file")
        print("figures: warnings for nobody's lease files during the flood: %d" % ignored)
        self.assertLessEqual(ignored, passes + 2)
        self.assertNotIn("10.66.6", " ".join(self.lab.addresses("veth1")))

        # Root's lease after it is still taken at once.
        self.addCleanup(self.lab.put_lease, self.lease, PEER1_ADDR)
        self.lab.wait_for_cycles(1)
        time.sleep(0.05)
        put = self.lab.put_lease(FLOOD_LEASE, PEER1_ADDR)
        taken = seconds_until(lambda: self.lab.addresses("veth1") == [FLOOD_LEASE + "/24"],
                              "veth1 to take root's lease after the flood", 5, put, interval=0.001)
        figures("root's lease after the flood to veth1's address", [taken])
        self.assertLess(taken, LEASE_WITHIN_S)

    def test_a_storm_of_another_links_reports_drives_no_passes(self):
        self.lab.device("ip", "link", "add", "flap0", "type", "veth", "peer", "name", "flap1")
        self.addCleanup(self.lab.device, "ip", "link", "del", "flap0", check=False)
        self.lab.wait_for_cycles(2)
        batch = os.path.join(self.lab.state, "flaps.batch")
        per_batch = FLAPS // STORM_BATCHES
        with open(batch, "w") as f:
            f.write("link set flap0 down\nlink set flap0 up\n" * per_batch)
        self.addCleanup(os.unlink, batch)

        def storm():
            for _ in range(STORM_BATCHES):
                self.lab.device("ip", "-batch", batch)
                time.sleep(FLOOD_S / STORM_BATCHES)

        mark = len(self.lab.daemon_log())
        seconds, passes, own, _ = self.measured("%d reports of a link the daemon does not own" % (2 * FLAPS), storm)
        self.assertBounded(seconds, passes, own)
        # Nothing of the daemon's was touched: nothing to warn about.
        self.assertNotIn(" WARN ", self.lab.daemon_log_since(mark))
        wait_until(lambda: self.lab.bridge_ports() is not None, "br0", 5)


if __name__ == "__main__":
    main()
