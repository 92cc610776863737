"""The benchmark's work directory and its runs inside new network, mount and
PID namespaces (tesselkit.namespaces.start: a private /tmp and /run, lo up, the
run's interfaces, no-op or recording stand-ins for the device's tools first on
PATH); the inside of a run is tesselkit.bench.inside."""
import json
import os
import subprocess
import sys

from tesselkit import namespaces, standins
from tesselkit.device import TOOLS

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

    def run(self, kind, standins_dir=None, command=None, interfaces="", **options):
        """Runs measurement `kind` inside new namespaces, with `interfaces` (names,
        comma-separated) as veth pairs that are up; returns its result."""
        argv = [sys.executable, "-m", "tesselkit.bench.inside", "--kind", kind, "--standins",
                standins_dir or self.noop_bin]
        for key, value in options.items():
            argv += ["--" + key.replace("_", "-"), str(value)]
        if command:
            argv += ["--"] + command
        names = interfaces.split(",") if interfaces else []
        process = namespaces.start(argv, tmpfs=[("/tmp", ""), ("/run", "mode=0755")], loopback=True,
                                   interfaces=names, up=names, env=dict(os.environ, PYTHONPATH=TOOLS_DIR),
                                   stdout=subprocess.PIPE, text=True, cwd=self.path)
        out, _ = process.communicate()
        if process.returncode != 0:
            raise subprocess.CalledProcessError(process.returncode, argv, out)
        return json.loads(out.strip().splitlines()[-1])


def start_daemon(daemon, config):
    return subprocess.Popen([daemon, "--config", config], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
