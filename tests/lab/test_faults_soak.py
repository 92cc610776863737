#!/usr/bin/env python3
"""The daemon kept busy for TESSEL_SOAK_SECONDS (default 600) on a simulated
device of its own: round after round, eth0 loses its carrier and gets it back,
the DHCP client is killed (every other round), and the configuration goes from
both ports to eth0 alone and back, and from DHCP to static addressing and back.
About every 30 s, at rest with both ports bridged and DHCP on veth1, the
daemon's memory, descriptors, children and the rules in force are sampled
(descriptors and children as the least seen over a whole cycle, which runs a
command and reads the configuration: what stays is what counts).

At the end the daemon that started still runs, its memory has not grown after
the first minute (at rest, and at its peak, polled every 10 ms throughout),
its descriptors and the rules are what the first sample
found, it has no children, the device runs nothing but the daemon and one DHCP
client, and the device is in the final configuration with its isolation
checked by frames. The samples are printed as a table."""
import os
import signal
import threading
import time
import unittest

from labtest import ISOLATION_RULES, PEER1_ADDR, Lab, main
from tesselkit import isolation
from tesselkit.device import DHCP_CLIENT_ARGS, TWO_PORT_CONFIG, VETH3_ADDR, config_text
from tesselkit.lab import run
from tesselkit.waiting import wait_until

SOAK_SECONDS = float(os.environ.get("TESSEL_SOAK_SECONDS", "600"))
SAMPLE_EVERY = 30
# After the first minute, resident memory may move by this much (page granularity, allocator).
RSS_SLACK_KB = 64
# The peak is taken from VmRSS polled this often: the kernel's own VmHWM is
# recorded from per-CPU counters that may each hold up to 31 pages not yet
# folded in (Linux 6.2 and later), so a process whose true peak moves by
# 32 kB can show VmHWM 150 kB higher. VmHWM is held to that bound only.
PEAK_POLL_SECONDS = 0.01
HWM_COUNTING_SLACK_KB = 31 * 4 * (os.cpu_count() or 1)

STATIC_CONFIG = TWO_PORT_CONFIG.replace("veth1 dhcp", "veth1 static 192.168.77.60 255.255.255.0 192.168.77.1")
ETH0_CONFIG = config_text("eth0", "frame", "static 10.253.254.10 255.255.255.0 0.0.0.0",
                          "static %s 255.255.255.0 0.0.0.0" % VETH3_ADDR)
BOTH_PORTS = ["eth0", "eth1", "veth0", "veth2"]
CLIENT_ARGS = ["-i", "veth1"] + DHCP_CLIENT_ARGS.split()


def status_kb(pid, field):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise AssertionError("no %s for pid %d" % (field, pid))


def children_of(pid):
    """(child pid, state letter) of every child of the process."""
    found = []
    for task in os.listdir("/proc/%d/task" % pid):
        with open("/proc/%d/task/%s/children" % (pid, task)) as children:
            for child in children.read().split():
                try:
                    with open("/proc/%s/stat" % child) as stat:
                        found.append((int(child), stat.read().rpartition(")")[2].split()[0]))
                except (FileNotFoundError, ProcessLookupError):
                    # Ended between the listing and the read (a read of a
                    # process that is gone gives ESRCH): no child any more.
                    pass
    return found


class PeakWatch:
    """The highest VmRSS seen, polled in a thread of its own from the first
    sample to the last."""

    def __init__(self, pid):
        self.pid = pid
        self.peak = 0
        self.done = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while not self.done.wait(PEAK_POLL_SECONDS):
            try:
                self.peak = max(self.peak, status_kb(self.pid, "VmRSS"))
            except (FileNotFoundError, ProcessLookupError):
                return

    def stop(self):
        self.done.set()
        self.thread.join()


class SoakTest(unittest.TestCase):
    def setUp(self):
        # A lab of its own name (OWN_LAB): the soak runs beside the other lab tests.
        self.lab = Lab()
        self.addCleanup(self.lab.down)
        self.lab.up()
        self.samples = []
        self.recoveries = {"link flap": [], "client killed": [], "2 -> 0": [], "0 -> 2": [], "dhcp -> static": [],
                           "static -> dhcp": []}
        self.counts = {"flaps": 0, "kills": 0, "changes": 0}

    # --- the device's state ---------------------------------------------------------

    def in_two_port_dhcp(self):
        lab = self.lab
        return (lab.bridge_ports() == BOTH_PORTS and lab.lease_address() is not None
                and len(lab.addresses("veth1")) == 1 and lab.addresses("veth3") == [VETH3_ADDR + "/24"]
                and lab.default_routes() == [(PEER1_ADDR, "veth1", 10)]
                and lab.rule_counts() == ISOLATION_RULES)

    def describe(self):
        lab = self.lab
        return "both ports, DHCP: ports %s, veth1 %s, veth3 %s, routes %s, rules %d/%d/%d" % (
            lab.bridge_ports(), lab.addresses("veth1"), lab.addresses("veth3"), lab.default_routes(),
            len(lab.arp_rules()), len(lab.ip_rules()), len(lab.ebtables_rules()))

    def timed(self, what, action, condition, timeout, description):
        started = time.monotonic()
        action()
        wait_until(condition, description, timeout, interval=0.1)
        self.recoveries[what].append(time.monotonic() - started)

    # --- the faults and changes -------------------------------------------------------

    def flap_eth0(self):
        lab = self.lab
        run(["ip", "-n", lab.net0, "link", "set", "peer0", "down"])
        run(["ip", "-n", lab.dev, "link", "set", "eth0", "nomaster"])
        time.sleep(2.5)
        self.timed("link flap", lambda: run(["ip", "-n", lab.net0, "link", "set", "peer0", "up"]),
                   lambda: lab.link("eth0").get("master") == "br0", 10, "eth0 back in br0")
        self.counts["flaps"] += 1

    def kill_client(self):
        lab = self.lab
        clients = [host for host, _, args in lab.device_processes() if args[0] == "udhcpc" and args[1:] == CLIENT_ARGS]
        self.assertEqual(1, len(clients), lab.udhcpc_clients())
        mark = len(lab.daemon_log())
        self.timed("client killed", lambda: os.kill(clients[0], signal.SIGKILL),
                   lambda: self.lease_after_replacement(mark) and self.in_two_port_dhcp(), 20, self.describe)
        self.counts["kills"] += 1

    def lease_after_replacement(self, mark):
        log = self.lab.daemon_log_since(mark)
        gone = log.find("DHCP client for veth1 is gone, starting a new one")
        return gone >= 0 and "New DHCP lease for veth1" in log[gone:]

    def change(self, what, config, condition, description):
        self.timed(what, lambda: self.lab.config(config), condition, 20, description)
        self.counts["changes"] += 1

    def one_round(self, number):
        lab = self.lab
        self.flap_eth0()
        if number % 2 == 1:
            self.kill_client()
        self.change("2 -> 0", ETH0_CONFIG, lambda: lab.bridge_ports() == ["eth0", "veth0"] and
                    lab.addresses("veth1") == ["10.253.254.10/24"], "br0 of eth0 alone, veth1 static")
        self.change("0 -> 2", TWO_PORT_CONFIG, self.in_two_port_dhcp, self.describe)
        self.change("dhcp -> static", STATIC_CONFIG, lambda: lab.bridge_ports() == BOTH_PORTS and
                    lab.addresses("veth1") == ["192.168.77.60/24"] and
                    lab.default_routes() == [(PEER1_ADDR, "veth1", 10)], "veth1 static, both ports")
        self.change("static -> dhcp", TWO_PORT_CONFIG, self.in_two_port_dhcp, self.describe)

    # --- samples ----------------------------------------------------------------------

    def sample(self, pid, started):
        wait_until(self.in_two_port_dhcp, self.describe, 20, interval=0.1)
        self.lab.wait_for_cycles(2)  # at rest: nothing pending
        # Each cycle runs a command (eth0 back into br0) and opens the
        # configuration for a moment: the least seen over a whole cycle is
        # what the daemon keeps.
        fds, children, zombies = [], [], []
        window_end = time.monotonic() + 1.2
        while time.monotonic() < window_end:
            fds.append(len(os.listdir("/proc/%d/fd" % pid)))
            found = children_of(pid)
            children.append(len(found))
            zombies.append(sum(1 for _, state in found if state == "Z"))
            time.sleep(0.05)
        self.samples.append({
            "t": time.monotonic() - started,
            "rss": status_kb(pid, "VmRSS"), "peak": max(self.peaks.peak, status_kb(pid, "VmRSS")),
            "hwm": status_kb(pid, "VmHWM"),
            "fds": min(fds), "children": min(children), "zombies": min(zombies),
            "arp": len(self.lab.arp_rules()), "ip": len(self.lab.ip_rules()),
            "clients": len(self.lab.udhcpc_clients()),
            "flaps": self.counts["flaps"], "kills": self.counts["kills"], "changes": self.counts["changes"]})

    def print_samples(self):
        print("\n| t (s) | VmRSS (kB) | peak VmRSS (kB) | VmHWM (kB) | fds | children | zombies | ARP rules | IP rules | DHCP clients "
              "| eth0 flaps | clients killed | config changes |")
        print("|---|---|---|---|---|---|---|---|---|---|---|---|---|")
        for s in self.samples:
            print("| %(t).0f | %(rss)d | %(peak)d | %(hwm)d | %(fds)d | %(children)d | %(zombies)d | %(arp)d | %(ip)d | "
                  "%(clients)d | %(flaps)d | %(kills)d | %(changes)d |" % s)
        print("\nrecovery times (s): " + "; ".join(
            "%s: %d, max %.2f, mean %.2f" % (what, len(times), max(times), sum(times) / len(times))
            for what, times in self.recoveries.items() if times))

    # --- the soak ---------------------------------------------------------------------

    def test_soak(self):
        lab = self.lab
        lab.start(TWO_PORT_CONFIG)
        started = time.monotonic()
        lab.wait_for_lease()
        lab.wait_for_first_cycle()
        pid = lab.daemon_pid()
        self.assertIsNotNone(pid)
        mark = lab.start_mark
        self.peaks = PeakWatch(pid)
        try:
            self.sample(pid, started)
            rounds = 0
            next_sample = SAMPLE_EVERY
            soak_end = time.monotonic() + SOAK_SECONDS
            while time.monotonic() < soak_end:
                rounds += 1
                self.one_round(rounds)
                # At rest until the next sample is due.
                due = started + next_sample
                time.sleep(max(0.0, min(due, soak_end) - time.monotonic()))
                self.sample(pid, started)
                while started + next_sample <= time.monotonic():
                    next_sample += SAMPLE_EVERY
        finally:
            self.peaks.stop()
            self.print_samples()

        # The same daemon, in the final configuration, isolating.
        self.assertEqual(pid, lab.daemon_pid())
        self.assertEqual(0, isolation.check(lab), "isolation checks failed (see above)")
        # Nothing left over on the device but the daemon and veth1's client.
        holder = lab.holder_pid()
        left = [args for host, _, args in lab.device_processes() if host not in (holder, pid)]
        self.assertEqual([["udhcpc"] + CLIENT_ARGS], left)

        first = self.samples[0]
        steady = [s for s in self.samples if s["t"] >= 60]
        self.assertTrue(steady, "the soak ended before its first minute was over")
        for s in self.samples:
            self.assertEqual((first["fds"], 0, 0, ISOLATION_RULES["ARP"], ISOLATION_RULES["IP"], 1), (s["fds"], s["children"], s["zombies"], s["arp"],
                                                                 s["ip"], s["clients"]), s)
        for s in steady:
            self.assertLessEqual(s["rss"] - steady[0]["rss"], RSS_SLACK_KB, s)
            self.assertLessEqual(s["peak"] - steady[0]["peak"], RSS_SLACK_KB, s)
            self.assertLessEqual(s["hwm"] - steady[0]["hwm"], RSS_SLACK_KB + HWM_COUNTING_SLACK_KB, s)
        # Every fault was repaired with no command failing (the lab has no PHY driver file).
        failures = [e for e in lab.log_entries_since(mark) if e.level == "ERROR" and e.function != "SetEthernetPhyMode"]
        self.assertEqual([], failures)
        self.assertEqual(self.counts["kills"], lab.daemon_log_since(mark).count("DHCP client for veth1 is gone"))


if __name__ == "__main__":
    main()
