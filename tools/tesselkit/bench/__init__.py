"""tools/bench, one module a measurement (docs/PERFORMANCE.md explains every figure):

    inprocess  tessel-bench (tools/perf): the cycle body, the bridge build, the DHCP client stop
    cycles     the running daemon's CPU per idle and per steady cycle, against a paced floor
    lease      lease file to address programmed, with recording stand-ins
    memory     the running daemon's memory against a minimal C++ program
    lab        DHCP timings in the device lab (tools/lab)
    arm        the stripped size of the ARM daemon
    report     the table: each figure with its floor and its goal
    sandbox    the work directory (stand-ins, configurations) and running a measurement
               inside new namespaces (tesselkit.namespaces.start)
    inside     the inside of one such run (python3 -m tesselkit.bench.inside --kind KIND ...)
    cli        tools/bench's command line

Imports go one way: cli -> the measurements -> sandbox; inside -> the measurements.
"""
import os
import subprocess

from tesselkit import ROOT

TOOLS = os.path.join(ROOT, "tools")  # the import root of the runs inside the namespaces
PERF_DIR = "perf"  # where the build puts tools/perf's programs
PERF_BENCH = "tessel-bench"  # tools/perf's in-process benchmark
PERF_MINIMAL = "tessel-minimal"  # the smallest C++ program linked like the daemon


def run_quiet(argv):
    return subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)


def build(directory, extra=()):
    """An optimised build without the tests, with the bench's own programs (tools/perf)."""
    run_quiet(["cmake", "-S", ROOT, "-B", directory, "-DCMAKE_BUILD_TYPE=Release", "-DTESSEL_BUILD_TESTS=OFF",
               "-DTESSEL_BUILD_BENCH=ON"] + list(extra))
    run_quiet(["cmake", "--build", directory, "-j2"])
