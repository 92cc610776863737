"""The benchmark's work directory and its runs inside new network, mount and
PID namespaces (a private /tmp, no-op or recording stand-ins for the device's
tools first on PATH). Run as `python3 -m benchkit.sandbox --kind KIND ...`, it is
the inside of one such run: it prints the measurement's result as JSON."""
import argparse
import json
import os
import subprocess
import sys

from tesselkit import standins
from tesselkit.device import TOOLS
from tesselkit.namespaces import UNSHARE, refuse_unless_fresh

from . import TOOLS as TOOLS_DIR

CONFIGS = {
    "idle": """bridge eth1
phy copper
veth1 static 10.0.0.2 255.255.255.0 10.0.0.1
veth3 static 10.0.1.2 255.255.255.0 0.0.0.0
""",
    "memory": """bridge eth0eth1
phy frame
veth1 dhcp
veth3 static 10.0.1.2 255.255.255.0 0.0.0.0
vrx0 dhcp
vrx1 static 192.168.1.10 255.255.255.0 0.0.0.0
""",
}
CONFIGS["steady"] = CONFIGS["idle"].replace("bridge eth1", "bridge eth0")
CONFIGS["lease"] = CONFIGS["idle"].replace("veth1 static 10.0.0.2 255.255.255.0 10.0.0.1", "veth1 dhcp")


class Work:
    """The work directory: bin/ (no-op stand-ins), recording/bin (stand-ins
    that note when, and with what, they were called, in recording/commands.log)
    and one configuration file per kind of run."""

    def __init__(self, path):
        self.path = path
        self.noop_bin = os.path.join(path, "bin")
        self.recording_bin = os.path.join(path, "recording", "bin")
        self.recording_log = os.path.join(path, "recording", "commands.log")
        os.makedirs(self.noop_bin)
        os.makedirs(self.recording_bin)
        standins.install_noops(self.noop_bin, TOOLS)
        standins.install_recorders(self.recording_bin, TOOLS, self.recording_log, timed=True)
        self.configs = {}
        for kind, text in CONFIGS.items():
            self.configs[kind] = os.path.join(path, kind + ".conf")
            with open(self.configs[kind], "w") as out:
                out.write(text)

    def run(self, kind, real_ip, standins_dir=None, command=None, **options):
        """Runs measurement `kind` inside new namespaces; returns its result."""
        argv = UNSHARE + ["--kill-child", sys.executable, "-m", "benchkit.sandbox", "--kind", kind,
                          "--real-ip", real_ip, "--standins", standins_dir or self.noop_bin]
        for key, value in options.items():
            argv += ["--" + key.replace("_", "-"), str(value)]
        if command:
            argv += ["--"] + command
        env = dict(os.environ, PYTHONPATH=TOOLS_DIR)
        run = subprocess.run(argv, stdout=subprocess.PIPE, text=True, check=True, cwd=self.path, env=env)
        return json.loads(run.stdout.strip().splitlines()[-1])


def prepare_namespace(real_ip, interfaces):
    """A private /tmp and /run (the status document), lo up, and each interface as a veth
    pair whose peer is up (a carrier)."""
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/tmp"], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", "/run"], check=True)
    subprocess.run([real_ip, "link", "set", "lo", "up"], check=True)
    for name in interfaces:
        subprocess.run([real_ip, "link", "add", name, "type", "veth", "peer", "name", name + "-peer"], check=True)
        subprocess.run([real_ip, "link", "set", name + "-peer", "up"], check=True)
        subprocess.run([real_ip, "link", "set", name, "up"], check=True)


def start_daemon(daemon, config):
    return subprocess.Popen([daemon, "--config", config], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)


def main():
    from . import cycles, inprocess, lease, memory
    measurements = {"tool": inprocess.inside, "idle": cycles.inside, "steady": cycles.inside,
                    "lease": lease.inside, "memory": memory.inside}
    parser = argparse.ArgumentParser(prog="benchkit.sandbox")
    parser.add_argument("--kind", choices=sorted(measurements), required=True)
    for option in ("--real-ip", "--standins", "--config", "--daemon", "--bench", "--minimal", "--interfaces",
                   "--cgroup"):
        parser.add_argument(option)
    parser.add_argument("--cycles", type=int)
    parser.add_argument("command", nargs="*")
    args = parser.parse_args()
    refuse_unless_fresh("bench")
    prepare_namespace(args.real_ip, args.interfaces.split(",") if args.interfaces else [])
    os.environ["PATH"] = args.standins + os.pathsep + os.environ.get("PATH", "/usr/bin:/bin")
    print(json.dumps(measurements[args.kind](args)))


if __name__ == "__main__":
    main()
