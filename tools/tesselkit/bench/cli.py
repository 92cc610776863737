"""tools/bench's command line: builds, runs each measurement, prints the table."""
import argparse
import os
import shutil
import sys
import tempfile
import threading

from . import PERF_BENCH, PERF_DIR, PERF_MINIMAL, ROOT, arm, build, cycles, inprocess, lab, lease, memory, report
from .sandbox import Work


def daemon_runs(work, daemon, bench, minimal, cycle_count):
    """The running daemon's figures; its runs go side by side, about a minute in all."""
    cgroup = cycles.make_cgroup()
    print("daemon runs (about %d s) ..." % (cycle_count + 10), file=sys.stderr)
    runs = [memory.run(work, daemon, minimal), lease.run(work, daemon)]
    if cgroup is not None:
        runs += cycles.runs(work, daemon, bench, cycle_count, cgroup)
    results = {}

    def run(kind, options):
        results[kind] = work.run(kind, **options)

    threads = [threading.Thread(target=run, args=(kind, options)) for kind, options in runs]
    try:
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    finally:
        if cgroup is not None:
            cycles.remove_cgroup(cgroup)
    figures = {}
    for kind, _ in runs:
        figures.update(results[kind])
    return figures


def main(description):
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--cycles", type=int, default=60, help="daemon cycles measured (default 60)")
    parser.add_argument("--skip-daemon", action="store_true", help="in-process figures only (no minute-long runs)")
    parser.add_argument("--markdown", action="store_true", help="print the table as Markdown")
    args = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("bench: needs root for its namespaces")

    build_dir = os.path.join(ROOT, "build-bench")
    print("building %s (Release) ..." % build_dir, file=sys.stderr)
    build(build_dir)
    daemon = os.path.join(build_dir, "tessel-networkd")
    bench = os.path.join(build_dir, PERF_DIR, PERF_BENCH)
    minimal = os.path.join(build_dir, PERF_DIR, PERF_MINIMAL)
    if shutil.which("ip") is None:
        sys.exit("bench: needs iproute2's ip to create interfaces inside its namespaces")

    path = tempfile.mkdtemp(prefix="tessel-bench-", dir="/var/tmp")
    try:
        work = Work(path)
        print("in-process figures ...", file=sys.stderr)
        figures = inprocess.measure(work, bench)
        if not args.skip_daemon:
            figures.update(daemon_runs(work, daemon, bench, minimal, args.cycles))
    finally:
        shutil.rmtree(path, ignore_errors=True)

    if not args.skip_daemon:
        print("device lab ...", file=sys.stderr)
        timings, why = lab.measure(daemon)
        figures["lab"] = {"timings": timings, "why": why}
    print("ARM build ...", file=sys.stderr)
    figures["arm"] = arm.measure()
    report.print_report(figures, args.markdown)
