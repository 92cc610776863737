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
#   rules/TOOL.TABLE the rules of arptables', iptables' and ebtables' tables, one "-A CHAIN ..." line
#                    each, as those three stand-ins keep them (see FILTER_TABLES)
CONTROLLED = r"""#!/bin/sh
# Stand-in for one of the device's tools: records the call, then does what its
# control files in the work directory say.
work='@WORK@'
tool=${0##*/}
@FILTER_TABLES@
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
status=0
[ $applies = yes ] && [ -f "$work/status/$tool" ] && read -r status < "$work/status/$tool"
# A call its status refuses leaves the tables alone, as the refused tool would.
case $status/$tool in
0/arptables | 0/iptables | 0/ebtables) filter_table "$@" || exit 1 ;;
esac
exit "$status"
"""

# The tables of arptables, iptables and ebtables, as the device's tools keep them
# as far as the daemon uses them: one file a table, WORK/rules/TOOL.TABLE, one
# "-A CHAIN ..." line a rule. "-t TABLE" is optional (filter); -F empties the
# table, -A appends, -D removes the first identical rule and fails without one,
# -L and -S print the rules (further words such as -n change nothing). Builtins
# only but for the one mv of a delete: a two-port build calls these ~120 times.
FILTER_TABLES = r"""filter_table() {
    table=filter
    if [ "${1:-}" = -t ]; then
        table=$2
        shift 2
    fi
    verb=${1:-}
    [ $# -gt 0 ] && shift
    rules="$work/rules/$tool.$table"
    case $verb in
    -F) : > "$rules" ;;
    -A) printf '%s\n' "-A $*" >> "$rules" ;;
    -D)
        [ -f "$rules" ] || return 1
        rule="-A $*"
        found=no
        while IFS= read -r line; do
            if [ $found = no ] && [ "$line" = "$rule" ]; then
                found=yes
            else
                printf '%s\n' "$line"
            fi
        done < "$rules" > "$rules.$$"
        if [ $found = yes ]; then
            mv -f "$rules.$$" "$rules"
        else
            rm -f "$rules.$$"
            return 1
        fi ;;
    -L | -S) [ -f "$rules" ] && while IFS= read -r line; do printf '%s\n' "$line"; done < "$rules" ;;
    esac
    return 0
}"""

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

# Runs the real tool after noting its call with the time, in the timed
# recorders' format: a test sees every command the daemon runs, unchanged.
TRACING = r"""#!/bin/sh
# The real tool, its call noted first.
printf '%s\n' "$(date +%s.%N) ${0##*/}${*:+ $*}" >>'@LOG@'
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


def install_tracing(path, real, log):
    """Puts at `path`, in one rename, the stand-in that notes its call in `log`
    (timed, as recorded_times reads it) and runs `real` (see TRACING)."""
    temporary = path + ".new"
    write_script(temporary, TRACING.replace("@LOG@", log).replace("@REAL@", real))
    os.rename(temporary, path)


def install_recorders(directory, tools, log, timed=False):
    """Stand-ins that append their calls to `log`, with the time when `timed`."""
    install(directory, tools, RECORDER.replace("@STAMP@", _STAMP if timed else "").replace("@LOG@", log))


def install_noops(directory, tools):
    """Stand-ins that do nothing at all (links to true): the cheapest a command can be."""
    for tool in tools:
        os.symlink(shutil.which("true") or "/bin/true", os.path.join(directory, tool))


def install_controlled(work, tools):
    """The system tests' stand-ins in WORK/bin, steered by files in WORK; the
    filter tools among them keep their tables in WORK/rules. Without control
    files they record and keep the tables, nothing more."""
    os.makedirs(os.path.join(work, "rules"), exist_ok=True)
    install(os.path.join(work, "bin"), tools, CONTROLLED.replace("@FILTER_TABLES@", FILTER_TABLES)
            .replace("@WORK@", work))
    with open(os.path.join(work, "linger.sh"), "w") as out:
        out.write(LINGER.replace("@WORK@", work))


def _rules_path(work, tool, table):
    return os.path.join(work, "rules", "%s.%s" % (tool, table))


def table_rules(work, tool, table="filter"):
    """The rules a CONTROLLED filter tool holds in one table, as it lists them."""
    return _lines(_rules_path(work, tool, table))


def set_table_rules(work, tool, rules, table="filter"):
    """Replaces a CONTROLLED filter tool's table in one step, as another program
    changing the rules would ([] flushes it)."""
    path = _rules_path(work, tool, table)
    with open(path + ".new", "w") as out:
        out.write("".join(rule + "\n" for rule in rules))
    os.replace(path + ".new", path)


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
