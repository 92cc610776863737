"""The device lab (tools/lab) as a Python object. Its layout (state directory,
namespace names, addresses, MACs, log files) comes from `tools/lab env`, so the
lab's shell script stays the one place that decides it."""
import contextlib
import fcntl
import json
import os
import re
import shutil
import subprocess

from . import ROOT
from .inotify import IN_OPEN, Watch
from .logs import entries
from .namespaces import processes_in_pid_namespace_of, without_forked_copies
from .netlink import Netlink
from .standins import install_stalling, install_tracing, recorded_times
from .waiting import wait_until

LAB_TOOL = os.path.join(ROOT, "tools", "lab")
# What the lab needs on this machine, besides root and network namespaces.
LAB_TOOLS = ("ip", "nsenter", "dnsmasq", "udhcpc", "arptables-legacy", "iptables", "ebtables", "busybox")


def layout(name):
    """`tools/lab env` of the lab of this name: {KEY: VALUE}."""
    out = subprocess.run([LAB_TOOL, "env"], capture_output=True, text=True, check=True,
                         env=dict(os.environ, TESSEL_LAB=name)).stdout
    return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)


def unavailable_reason(daemon):
    """Empty when a lab can be built here and `daemon` run in it, else why not."""
    if os.geteuid() != 0:
        return "needs root to build the lab's namespaces"
    if subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode != 0:
        return "cannot create network namespaces here"
    for tool in LAB_TOOLS:
        if shutil.which(tool) is None:
            return "missing %s (tools/test installs the lab's packages)" % tool
    if not os.access(daemon, os.X_OK):
        return "no daemon built at %s" % daemon
    return ""


def run(args, check=True, timeout=60):
    result = subprocess.run(args, capture_output=True, text=True, timeout=timeout)
    if check and result.returncode != 0:
        raise AssertionError("%s failed (%d): %s%s" % (" ".join(args), result.returncode, result.stdout,
                                                       result.stderr))
    return result


class Lab:
    def __init__(self, name, daemon=None, ctl=None):
        """The lab of this name; `daemon` and `ctl` are what start() runs there
        (tools/lab's TESSEL_DAEMON and TESSEL_CTL), None where unused."""
        self.name = name
        self.daemon = daemon
        self.ctl_path = ctl
        self.env = layout(name)
        self.state = self.env["STATE"]
        self.dev = self.env["DEV_NS"]
        self.net0 = self.env["NET0_NS"]
        self.net1 = self.env["NET1_NS"]
        self.start_mark = 0
        self._netlink = None

    def tool(self, *args, check=True, timeout=60, extra_env=None):
        env = dict(os.environ, TESSEL_LAB=self.name, **(extra_env or {}))
        for variable, path in (("TESSEL_DAEMON", self.daemon), ("TESSEL_CTL", self.ctl_path)):
            if path is not None:
                env[variable] = path
        result = subprocess.run([LAB_TOOL] + list(args), capture_output=True, text=True, env=env, timeout=timeout)
        if check and result.returncode != 0:
            raise AssertionError("tools/lab %s failed (%d): %s%s" % (" ".join(args), result.returncode,
                                                                     result.stdout, result.stderr))
        return result

    def up(self, iptables=None):
        """Builds the lab; iptables="legacy" gives the device the legacy iptables
        with its lock file (see hold_iptables_lock)."""
        self.tool("down")  # leftovers of an interrupted run
        self.tool("up", extra_env={"TESSEL_LAB_IPTABLES": iptables} if iptables else None)

    def close(self):
        """Closes the netlink socket, which would keep the device's namespace alive."""
        if self._netlink is not None:
            self._netlink.close()
            self._netlink = None

    def down(self):
        self.close()
        self.tool("down")

    @property
    def netlink(self):
        """Netlink of the device's namespace, opened on first use."""
        if self._netlink is None:
            self._netlink = Netlink(self.dev)
        return self._netlink

    def _write_config(self, text):
        path = os.path.join(self.state, "next.conf")
        with open(path, "w") as f:
            f.write(text)
        return path

    def start(self, config_text, phy_file=None):
        """Starts the daemon on `config_text`; `phy_file`: a path on the device the
        daemon writes the PHY mode to (--phy-file), else it finds no driver file."""
        path = self._write_config(config_text)
        self.start_mark = len(self.daemon_log()) if os.path.exists(self.env["DAEMON_LOG"]) else 0
        self.tool("start", path, extra_env={"TESSEL_PHY_FILE": phy_file or ""})

    def config(self, config_text):
        self.tool("config", self._write_config(config_text))

    def stop(self):
        self.tool("stop")

    def device(self, *cmd, check=True):
        """Runs a command on the device (its network, mount and PID namespaces)."""
        return self.tool("exec", *cmd, check=check)

    @contextlib.contextmanager
    def hold_iptables_lock(self):
        """Holds the lock the device's legacy iptables takes (a lab built with
        iptables="legacy") for the block, as another program changing the rules
        would: the device's iptables waits for it meanwhile."""
        with open(self.env["IPTABLES_LOCK"]) as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            yield

    @contextlib.contextmanager
    def stalled_tool(self, tool, word):
        """For the block, the device's `tool` stops at its first call with `word`
        among its arguments until the Stall is let go (or the block ends), then
        runs as before; every other call runs at once."""
        stand_in = os.path.join(self.state, "bin", tool)
        if os.path.islink(stand_in):
            real, original = os.readlink(stand_in), os.readlink(stand_in)
        else:
            real = shutil.which(tool, path=self.env["DEVICE_PATH"])
            original = None
            if real is None:
                raise AssertionError("no %s on the device" % tool)
        control = os.path.join(self.state, "stall-" + tool)
        os.mkdir(control)
        stall = Stall(control)
        try:
            install_stalling(stand_in, real, word, control)
            yield stall
        finally:
            stall.release()
            _replace(stand_in, original)
            shutil.rmtree(control)

    @contextlib.contextmanager
    def traced_tools(self, tools):
        """For the block, every call of the device's `tools` is noted, with its
        time, before the tool runs as before; yields a function that returns the
        calls so far as [(time, "tool arg ...")]. Each note costs the call a
        `date` process, so a block meant to time the daemon's work leaves the
        tools alone."""
        log = os.path.join(self.state, "traced.log")
        open(log, "w").close()
        installed = []
        try:
            for tool in tools:
                stand_in = os.path.join(self.state, "bin", tool)
                original = os.readlink(stand_in) if os.path.islink(stand_in) else None
                aside = None
                if original is not None:
                    real = original
                elif os.path.exists(stand_in):
                    # A script of the lab's own (the legacy iptables and its lock): run from beside it.
                    aside = stand_in + ".untraced"
                    os.link(stand_in, aside)
                    real = aside
                else:
                    real = shutil.which(tool, path=self.env["DEVICE_PATH"])
                    if real is None:
                        raise AssertionError("no %s on the device" % tool)
                installed.append((stand_in, original, aside))
                install_tracing(stand_in, real, log)
            yield lambda: recorded_times(log)
        finally:
            for stand_in, original, aside in reversed(installed):
                if aside is not None:
                    os.rename(aside, stand_in)
                else:
                    _replace(stand_in, original)
            os.unlink(log)

    # --- the daemon's cycles --------------------------------------------------

    def wait_for_cycles(self, count, timeout=None):
        """Waits until the daemon has begun `count` more cycles: each begins by
        reading its configuration file, which the lab sees (inotify)."""
        config = os.path.basename(self.env["CONFIG"])
        with Watch(self.state, IN_OPEN) as watch:
            wait_until(lambda: watch.count(IN_OPEN, config) >= count, "%d more cycles of the daemon" % count,
                       timeout or 5 + 3 * count, interval=0.05)

    def wait_for_first_cycle(self, timeout=20):
        """Waits until the daemon's first usable cycle is over. It ends with the
        PHY mode write (for which the lab has no driver file: its complaint
        shows it; or, with a file of the start's, the mode's line) and a bounce
        of eth1; the next cycle's start is the end."""
        def written():
            log = self.daemon_log_since(self.start_mark)
            return "/proc/marvell-phy-0-port" in log or "Using ETH PHY type" in log
        wait_until(written, "the PHY mode write of the daemon's first cycle", timeout, interval=0.05)
        self.wait_for_cycles(1)

    # --- what the device looks like -------------------------------------------

    def addresses(self, ifname):
        """IPv4 addresses of a device interface as "a.b.c.d/len"."""
        return self.netlink.addresses(ifname)

    def lease_address(self):
        """veth1's address when it is one of the DHCP server's, else None."""
        first, last = (self.env[key].split(".") for key in ("DHCP_FIRST", "DHCP_LAST"))
        for addr in self.addresses("veth1"):
            ip, _, prefix = addr.partition("/")
            parts = ip.split(".")
            if prefix == self.env["PEER1_PREFIX"] and parts[:3] == first[:3] and \
                    int(first[3]) <= int(parts[3]) <= int(last[3]):
                return ip
        return None

    def wait_for_lease(self, timeout=20):
        return wait_until(self.lease_address, "veth1 to get an address from the DHCP server", timeout, interval=0.05)

    def default_routes(self):
        """(gateway, device, metric) of every default route on the device."""
        return self.netlink.default_routes()

    def wait_for_routes(self, expected, timeout=5):
        """The address comes a command before its route: waits for the routes."""
        wait_until(lambda: self.default_routes() == expected, "default routes %s" % (expected,), timeout,
                   interval=0.05)

    def bridge_ports(self):
        """Sorted ports of br0, None when there is no br0."""
        return self.netlink.ports("br0")

    def link(self, ifname):
        return self.netlink.link(ifname)

    def arp_rules(self):
        """The ARP FORWARD rules in force: [(rule text, packet count)]."""
        out = run(["ip", "netns", "exec", self.dev, "arptables-legacy", "-L", "FORWARD", "-n", "-v"]).stdout
        return [(m.group(1).strip(), int(m.group(2))) for m in
                (re.match(r"^(-j .*?) , pcnt=(\d+) -- bcnt=\d+", line.strip()) for line in out.splitlines()) if m]

    def ip_rules(self):
        """The IP filter rules in force: [("-A CHAIN ...", packet count)], as the
        device's own iptables (the lab's choice of backend) keeps them."""
        out = run(["ip", "netns", "exec", self.dev, "env", "PATH=" + self.env["DEVICE_PATH"], "iptables-save", "-c",
                   "-t", "filter"]).stdout
        return [(m.group(2), int(m.group(1))) for m in
                (re.match(r"^\[(\d+):\d+\] (-A .*)$", line) for line in out.splitlines()) if m]

    def ebtables_rules(self, table="filter", chain="FORWARD"):
        """The link-layer rules in force in one chain: [(rule text, packet
        count)], as the device's own ebtables (the lab's choice of backend)
        lists them, with every MAC written in two digits a byte (the legacy
        backend drops leading zeros, the nft one does not)."""
        out = run(["ip", "netns", "exec", self.dev, "env", "PATH=" + self.env["DEVICE_PATH"], "ebtables", "-t", table,
                   "-L", chain, "--Lc"]).stdout
        return [(_full_macs(m.group(1).strip()), int(m.group(2))) for m in
                (re.match(r"^(-.*?) , pcnt = (\d+) -- bcnt = \d+$", line.strip()) for line in out.splitlines()) if m]

    def bridge_netfilter(self, bridge="br0"):
        """{"nf_call_iptables": 0|1, ...} of the bridge's own settings, as
        `ip -d link show` prints them; {} when there is no such bridge."""
        out = run(["ip", "-n", self.dev, "-d", "link", "show", "dev", bridge], check=False).stdout
        return {name: int(value) for name, value in re.findall(r"\b(nf_call_\w+) ([01])\b", out)}

    def bridge_sysctls(self):
        """The device's net.bridge.bridge-nf-call-* settings: {"iptables": 1, ...}."""
        out = run(["ip", "netns", "exec", self.dev, "sysctl", "-a", "--pattern",
                   r"^net\.bridge\.bridge-nf-call-"]).stdout
        return {m.group(1): int(m.group(2)) for m in
                (re.match(r"^net\.bridge\.bridge-nf-call-(\w+) = (\d+)$", line) for line in out.splitlines()) if m}

    def udhcpc_clients(self):
        """{pid in the device: arguments} of the DHCP clients on the device (zombies excluded)."""
        return {inside: args[1:] for _, inside, args in without_forked_copies(
            [entry for entry in processes_in_pid_namespace_of(self.holder_pid()) if entry[2][0] == "udhcpc"])}

    def holder_pid(self):
        with open(self.env["HOLDER_PID_FILE"]) as f:
            return int(f.read())

    def ctl(self, *args):
        """tessel-networkctl ARGS on the device (tools/lab ctl): the CompletedProcess."""
        return self.tool("ctl", *args, check=False)

    def status_document(self):
        """The daemon's status document as the device has it, parsed; None when there is none."""
        text = self.device_file("/run/tessel-networkd/status.json")
        return None if text is None else json.loads(text)

    def device_processes(self):
        """(host pid, pid in the device, arguments) of the live processes on the device."""
        return processes_in_pid_namespace_of(self.holder_pid())

    def daemon_pid(self):
        """Host pid of the running daemon, None when none runs."""
        found = [pid for pid, _, args in self.device_processes()
                 if os.path.basename(args[0]) == "tessel-networkd"]
        if len(found) > 1:
            raise AssertionError("%d daemons run in the lab" % len(found))
        return found[0] if found else None

    def device_file(self, path):
        """Contents of a file as the device sees it (its own /tmp), or None."""
        try:
            with open("/proc/%d/root%s" % (self.holder_pid(), path)) as f:
                return f.read()
        except FileNotFoundError:
            return None

    def watch_tmp(self):
        """A Watch on the device's /tmp, where the lease files appear."""
        return Watch("/proc/%d/root/tmp" % self.holder_pid())

    # --- logs -----------------------------------------------------------------

    def daemon_log(self):
        with open(self.env["DAEMON_LOG"]) as f:
            return f.read()

    def daemon_log_since(self, mark):
        return self.daemon_log()[mark:]

    def log_entries_since(self, mark):
        """The daemon's LogEntry records after offset `mark` of its log."""
        return entries(self.daemon_log_since(mark))

    def wait_for_log(self, level, message, since=0, timeout=20):
        """Waits until the daemon logs an entry of this level whose message starts
        with `message`, after offset `since`; returns the entry."""
        def found():
            return next((e for e in self.log_entries_since(since) if e.level == level and
                         e.message.startswith(message)), None)
        return wait_until(found, "the daemon to log %s %r" % (level, message), timeout, interval=0.05)

    def devmem_writes(self):
        """[(time, "devmem ...")] as the stand-in recorded them."""
        return recorded_times(self.env["DEVMEM_LOG"])

    def dnsmasq_log(self):
        with open(self.env["DNSMASQ_LOG"]) as f:
            return f.read()


class Stall:
    """A stalled device tool (Lab.stalled_tool): whether its call is waiting, and letting it go."""

    def __init__(self, control):
        self.control = control

    def stalled(self):
        return os.path.isdir(os.path.join(self.control, "stalled"))

    def release(self):
        open(os.path.join(self.control, "go"), "w").close()


def _full_macs(text):
    return re.sub(r"(?<![\w:])[0-9a-fA-F]{1,2}(?::[0-9a-fA-F]{1,2}){5}(?![\w:])",
                  lambda mac: ":".join("%02x" % int(part, 16) for part in mac.group(0).split(":")), text)


def _replace(path, link_target):
    """Puts a symbolic link to `link_target` at `path`, or removes `path` when
    there is none, in one rename: a call at that moment finds one or the other."""
    if link_target is None:
        os.unlink(path)
        return
    temporary = path + ".new"
    os.symlink(link_target, temporary)
    os.rename(temporary, path)
