"""The inside of one benchmark run, started by Work.run in new namespaces
(tesselkit.namespaces.start) as
    python3 -m tesselkit.bench.inside --kind KIND [--OPTION VALUE ...] [-- COMMAND...]
It runs the measurement with the stand-ins first on PATH and prints its
result as JSON."""
import argparse
import json
import os

from tesselkit.namespaces import refuse_unless_inside

from . import cycles, inprocess, lease, memory

MEASUREMENTS = {"tool": inprocess.inside, "idle": cycles.inside, "steady": cycles.inside, "lease": lease.inside,
                "memory": memory.inside}


def main():
    parser = argparse.ArgumentParser(prog="tesselkit.bench.inside")
    parser.add_argument("--kind", choices=sorted(MEASUREMENTS), required=True)
    for option in ("--standins", "--config", "--daemon", "--bench", "--minimal", "--cgroup"):
        parser.add_argument(option)
    parser.add_argument("--cycles", type=int)
    parser.add_argument("command", nargs="*")
    args = parser.parse_args()
    refuse_unless_inside("bench")
    os.environ["PATH"] = args.standins + os.pathsep + os.environ.get("PATH", "/usr/bin:/bin")
    print(json.dumps(MEASUREMENTS[args.kind](args)))


if __name__ == "__main__":
    main()
