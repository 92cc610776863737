#!/usr/bin/env python3
"""tools/check-time64 on a small program linked for the 32-bit target: it must
name each 32-bit time or offset form the program imports when built without
the build's definitions, pass it when built with them, and name a call into
the C++ library's 32-bit wall clock, which the definitions cannot reach.

    test_time64_check.py --cxx COMPILER --nm NM [--define NAME=VALUE]...
"""
import argparse
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
CHECK = os.path.join(HERE, "..", "..", "tools", "check-time64")
PROBE = os.path.join(HERE, "time64_probe.cpp")
ARGS = None


class CheckTime64Test(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="tessel-time64-")
        self.addCleanup(self.directory.cleanup)

    def build(self, name, flags):
        binary = os.path.join(self.directory.name, name)
        subprocess.run([ARGS.cxx, "-std=c++17", "-O1"] + flags + ["-o", binary, PROBE], check=True)
        return binary

    def check(self, binary):
        run = subprocess.run([sys.executable, CHECK, "--cxx", ARGS.cxx, "--nm", ARGS.nm, binary],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        return run.returncode, run.stdout + run.stderr

    def test_without_the_definitions_every_32_bit_form_is_named(self):
        binary = self.build("narrow", [])
        status, output = self.check(binary)
        self.assertEqual(status, 1, output)
        self.assertEqual(output, "check-time64: %s imports 32-bit time or offset forms: "
                         "clock_gettime localtime_r mktime nanosleep readdir stat\n" % binary)

    def test_with_the_definitions_it_passes(self):
        binary = self.build("wide", ["-D" + define for define in ARGS.define])
        status, output = self.check(binary)
        self.assertEqual(status, 0, output)
        self.assertRegex(output, r"^check-time64: .*/wide: only 64-bit time and offset forms \(\d+ checked\)\n$")

    def test_the_cxx_library_wall_clock_is_named_despite_the_definitions(self):
        binary = self.build("system-clock", ["-D" + define for define in ARGS.define] + ["-DPROBE_SYSTEM_CLOCK"])
        status, output = self.check(binary)
        self.assertEqual(status, 1, output)
        self.assertEqual(output, "check-time64: %s imports 32-bit time or offset forms: "
                         "_ZNSt6chrono3_V212system_clock3nowEv\n" % binary)

    def test_a_missing_binary_is_an_error_not_a_pass(self):
        status, output = self.check(os.path.join(self.directory.name, "absent"))
        self.assertEqual(status, 2, output)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--cxx", required=True)
    parser.add_argument("--nm", required=True)
    parser.add_argument("--define", action="append", default=[])
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)
