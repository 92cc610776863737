"""In-process figures of tessel-bench (tools/perf): the cycle body with its
status update, one write of the status document, the bridge build and the DHCP
client stop, each against its floor in alternating blocks."""
import subprocess


def inside(args):
    """tessel-bench's own lines on standard error: "name value floor count"."""
    run = subprocess.run(args.command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True)
    result = {}
    for line in run.stderr.splitlines():
        name, value, floor, count = line.split()
        result[name] = {"value": float(value), "floor": float(floor), "count": int(count)}
    return result


def measure(work, bench):
    figures = {}
    figures.update(work.run("tool", command=[bench, "idle", work.configs["idle"], "20000"]))
    figures.update(work.run("tool", interfaces="eth0",
                            command=[bench, "steady", work.configs["steady"], "600"]))
    figures.update(work.run("tool", command=[bench, "status", "2000"]))
    figures.update(work.run("tool", command=[bench, "bridge", "20"]))
    figures.update(work.run("tool", command=[bench, "stopdhcp", "2000"]))
    return figures
