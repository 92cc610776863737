#!/usr/bin/env python3
"""tools/demo from a copy of the tree under /tmp, with a python3 first on PATH
that changes into the caller's directory before it starts the real one (as
pyenv's shims do): the device's private /tmp hides that directory, and the
demo must still bring up the lab, run the daemon with the example
configuration and pass its isolation checks."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from labtest import DAEMON, LAB_NAME, main
from tesselkit import ROOT
from tesselkit.device import VETH3_ADDR
from tesselkit.lab import run

WRAPPER = """#!/bin/sh
# Changes into the caller's directory first, as pyenv's shims do.
cd "$PWD" || { echo "python3 wrapper: cannot change into $PWD" >&2; exit 1; }
exec /usr/bin/python3 "$@"
"""


class DemoAnywhereTest(unittest.TestCase):
    def setUp(self):
        self.copy = tempfile.mkdtemp(prefix="tessel-demo-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.copy, ignore_errors=True)
        for entry in os.listdir(ROOT):
            if entry.startswith(("build", ".git")):
                continue
            source = os.path.join(ROOT, entry)
            if os.path.isdir(source):
                shutil.copytree(source, os.path.join(self.copy, entry), symlinks=True,
                                ignore=shutil.ignore_patterns("__pycache__"))
            else:
                shutil.copy2(source, self.copy)
        self.wrapper_bin = os.path.join(self.copy, "wrapper-bin")
        os.mkdir(self.wrapper_bin)
        with open(os.path.join(self.wrapper_bin, "python3"), "w") as wrapper:
            wrapper.write(WRAPPER)
        os.chmod(os.path.join(self.wrapper_bin, "python3"), 0o755)
        # A demo that fails half-way leaves no lab behind either.
        self.addCleanup(run, [os.path.join(ROOT, "tools", "lab"), "down"], check=False)

    def test_demo_from_a_copy_under_tmp_with_a_wrapper_python(self):
        env = dict(os.environ, TESSEL_LAB=LAB_NAME, PATH=self.wrapper_bin + os.pathsep + os.environ["PATH"])
        self.assertEqual(os.path.join(self.wrapper_bin, "python3"), shutil.which("python3", path=env["PATH"]))
        demo = subprocess.run([os.path.join(self.copy, "tools", "demo"), "--daemon", DAEMON], cwd=self.copy, env=env,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=180)
        out = re.sub(r"\x1b\[[0-9;]*m", "", demo.stdout)
        self.assertEqual(0, demo.returncode, out)

        def section(title):
            return out.split("== " + title, 1)[1].split("\n== ", 1)[0]

        # br0 holds both ports and both pairs.
        ports = sorted(re.findall(r"^\s+\d+: (\w+)(?:@\S+)?: .* master br0 ", section("Bridge br0 and its ports"),
                                  re.M))
        self.assertEqual(["eth0", "eth1", "veth0", "veth2"], ports, out)
        # veth1 has the lease from eth1's side, veth3 its static address.
        addresses = section("Addresses")
        self.assertRegex(addresses, r"(?m)^\s+veth1\S*\s+UP\s+192\.168\.77\.1\d\d/24\s*$")
        self.assertRegex(addresses, r"(?m)^\s+veth3\S*\s+UP\s+%s/24\s*$" % re.escape(VETH3_ADDR))
        self.assertIn("veth1 has its lease", out)
        # The operator's table names the lease and veth3's address.
        view = section("The operator's view: tessel-networkctl status")
        self.assertRegex(view, r"(?m)^\s+veth1:\s+dhcp\s+192\.168\.77\.1\d\d/24\s.*\n\s+lease from \S+, taken ")
        self.assertRegex(view, r"(?m)^\s+veth3:\s+static\s+%s/24[\s,]" % re.escape(VETH3_ADDR))
        # Every isolation check ran and passed: ARP and IPv4 (8), and what only
        # the link-layer rules see (5).
        checks = re.findall(r"^\s+(PASS|FAIL)\s+", section("Isolation checks"), re.M)
        self.assertEqual(["PASS"] * 13, checks, out)
        # The demo tore its lab down.
        self.assertIn("Tear-down", out)
        self.assertNotIn(LAB_NAME + "-dev", run(["ip", "netns", "list"]).stdout)


if __name__ == "__main__":
    main()
