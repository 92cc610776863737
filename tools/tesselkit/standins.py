"""Stand-ins for the device's tools: scripts first on the daemon's PATH that
record each call (one line "TOOL ARG ...", or "SECONDS TOOL ARG ..." when
timed) instead of touching the machine, and readers of what they recorded.

    python3 -m tesselkit.standins [--timed] LOG DIRECTORY TOOL...

writes recording stand-ins for shell scripts (tools/lab, the leak check).
"""
import argparse
import os
import shutil

# Appends its call to LOG, with the time when timed.
RECORDER = """#!/bin/sh
# Recording stand-in: notes its call and does nothing else.
printf '%s\\n' "@STAMP@${0##*/}${*:+ $*}" >>'@LOG@'
"""

# One script for every stand-in of the system tests; it learns its tool's name from
# how it was called. Files in the work directory steer it, so a test can change them
# while the daemon runs:
#   delay/TOOL       seconds to sleep on every call (after recording it)
#   delay/TOOL.once  seconds to sleep on the next call only
#   output/TOOL      printed on standard output by every call
#   status/TOOL      the exit status of every call (default 0)
#   stamp/TOOL       every call also goes to times.log with the time it was made, in seconds
#   linger/TOOL      the call stays in the background under its bare name ("udhcpc -i veth1 ...",
#                    as a daemonising client does) until SIGTERM, recorded in signals.log
#   only/TOOL        a text: the delays and the status apply only to calls whose arguments hold it
CONTROLLED = r"""#!/bin/sh
# Stand-in for one of the device's tools: records the call, then does what its
# control files in the work directory say.
work='@WORK@'
tool=${0##*/}
printf '%s\n' "$tool${*:+ $*}" >> "$work/commands.log"
[ -f "$work/stamp/$tool" ] && printf '%s %s\n' "$(date +%s.%N)" "$tool${*:+ $*}" >> "$work/times.log"
[ -f "$work/output/$tool" ] && cat "$work/output/$tool"
applies=yes
if [ -f "$work/only/$tool" ]; then
    case " $* " in
        *"$(cat "$work/only/$tool")"*) ;;
        *) applies=no ;;
    esac
fi
if [ $applies = yes ] && mv "$work/delay/$tool.once" "$work/delay/$tool.once.$$" 2>/dev/null; then
    sleep "$(cat "$work/delay/$tool.once.$$")"
    rm -f "$work/delay/$tool.once.$$"
fi
[ $applies = yes ] && [ -f "$work/delay/$tool" ] && sleep "$(cat "$work/delay/$tool")"
if [ -f "$work/linger/$tool" ]; then
    STANDIN_TOOL=$tool bash -c 'exec -a "$0" bash "$@"' "$tool" "$work/linger.sh" "$@" < /dev/null > /dev/null 2>&1 &
fi
[ $applies = yes ] && [ -f "$work/status/$tool" ] && exit "$(cat "$work/status/$tool")"
exit 0
"""

# What a lingering CONTROLLED stand-in runs, as argv "TOOL WORK/linger.sh ARGS...".
LINGER = r"""# Waits for SIGTERM and records it.
trap 'printf "%s\n" "TERM $STANDIN_TOOL $*" >> "@WORK@/signals.log"; exit 0' TERM
while :; do sleep 0.2 & wait $!; done
"""

# Runs the real tool, but the first call with WORD among its arguments makes
# CONTROL/stalled and waits for CONTROL/go first: a test acts while it hangs.
STALLING = r"""#!/bin/sh
# The real tool, stopping once on its first call with @WORD@ until let go.
case " $* " in
*" @WORD@ "*)
    if mkdir '@CONTROL@/stalled' 2>/dev/null; then
        while [ ! -e '@CONTROL@/go' ]; do sleep 0.05; done
    fi ;;
esac
exec '@REAL@' "$@"
"""

_STAMP = "$(date +%s.%N) "


def write_script(path, text):
    with open(path, "w") as out:
        out.write(text)
    os.chmod(path, 0o755)


def install(directory, tools, script):
    """Writes `script` as each tool in `directory`."""
    for tool in tools:
        write_script(os.path.join(directory, tool), script)


def install_stalling(path, real, word, control):
    """Puts at `path`, in one rename, the stand-in that runs `real` and stalls
    its first call with `word` (see STALLING) under the directory `control`."""
    temporary = path + ".new"
    write_script(temporary, STALLING.replace("@WORD@", word).replace("@CONTROL@", control).replace("@REAL@", real))
    os.rename(temporary, path)


def install_recorders(directory, tools, log, timed=False):
    """Stand-ins that append their calls to `log`, with the time when `timed`."""
    install(directory, tools, RECORDER.replace("@STAMP@", _STAMP if timed else "").replace("@LOG@", log))


def install_noops(directory, tools):
    """Stand-ins that do nothing at all (links to true): the cheapest a command can be."""
    for tool in tools:
        os.symlink(shutil.which("true") or "/bin/true", os.path.join(directory, tool))


def install_controlled(work, tools):
    """The system tests' stand-ins in WORK/bin, steered by files in WORK."""
    install(os.path.join(work, "bin"), tools, CONTROLLED.replace("@WORK@", work))
    with open(os.path.join(work, "linger.sh"), "w") as out:
        out.write(LINGER.replace("@WORK@", work))


def _lines(log):
    try:
        with open(log) as record:
            return record.read().splitlines()
    except FileNotFoundError:
        return []


def recorded(log):
    """The calls in an untimed log, in order, as "tool arg ..."."""
    return _lines(log)


def recorded_times(log):
    """The calls in a timed log, in order, as (seconds since the epoch, "tool arg ...")."""
    return [(float(stamp), command) for stamp, _, command in (line.partition(" ") for line in _lines(log) if line)]


def main():
    parser = argparse.ArgumentParser(description="Writes recording stand-ins for the device's tools.")
    parser.add_argument("--timed", action="store_true", help="note the time of each call")
    parser.add_argument("log")
    parser.add_argument("directory")
    parser.add_argument("tools", nargs="+")
    args = parser.parse_args()
    install_recorders(args.directory, args.tools, args.log, args.timed)


if __name__ == "__main__":
    main()
