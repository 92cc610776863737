#!/usr/bin/env bash
# Runs the BusyBox/SysV init script against the built daemon inside new
# network, mount and PID namespaces, with recording stand-ins for the network
# tools first on PATH: "start" runs the daemon with its configuration path,
# a killed daemon is started again, "stop" ends it with SIGTERM (exit code 0)
# and leaves nothing running. The daemon has a mount namespace (and /tmp) of
# its own; a second start is refused while one is under way, but a lock left
# by a killed start is taken over, by one start only; a pid file naming
# another process never gets it signalled; HUP, INT and TERM sent to the
# supervisor stop it and the daemon cleanly, none of them ignored by it;
# METRICS_DIR adds --metrics-dir to the daemon's command line.
#   init-script.sh BUILD_DIR [SHELL [TOOLS]]
#     SHELL  runs the script (default sh)
#     TOOLS  "busybox": BusyBox's applets come first on PATH, as on a device
#            with nothing else (its env, for one, cannot reset a signal)
set -uo pipefail

build=$1
shell=${2:-sh}
tools=${3:-}

if [ "${TESSEL_IN_NAMESPACE:-}" != 1 ]; then
    why=
    [ "$(id -u)" -eq 0 ] || why="needs root to create namespaces"
    [ -z "$why" ] && ! unshare --net --mount --pid --fork --mount-proc true 2>/dev/null &&
        why="cannot create namespaces here"
    if [ -n "$why" ]; then
        [ "${TESSEL_REQUIRE_NAMESPACES:-}" = 1 ] && { echo "FAIL: $why (TESSEL_REQUIRE_NAMESPACES=1)"; exit 1; }
        echo "SKIP: $why"; exit 77
    fi
    TESSEL_IN_NAMESPACE=1 exec unshare --net --mount --pid --fork --mount-proc bash "$0" "$@"
fi

# The daemon writes its status document under /run: a private one, gone with
# this namespace.
mount -t tmpfs -o mode=0755 tessel-init-run /run || { echo "FAIL: cannot mount a private /run"; exit 1; }
# Not under /tmp: the daemon's /tmp is its own.
work=$(mktemp -d /var/tmp/tessel-init.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
for tool in ip bridge arptables iptables devmem udhcpc; do
    printf '#!/bin/sh\necho "%s $*" >> %s/commands\n' "$tool" "$work" >"$work/bin/$tool"
    chmod +x "$work/bin/$tool"
done
cat >"$work/networkd.conf" <<'CONF'
bridge eth1
veth1 static 10.0.0.2 255.255.255.0 0.0.0.0
veth3 static 10.0.1.2 255.255.255.0 0.0.0.0
CONF

# The shell named, not the BusyBox applet of that name first on PATH below.
read -r shell_cmd shell_args <<<"$shell"
shell_cmd=$(command -v "$shell_cmd") || { echo "FAIL: no shell $shell"; exit 1; }
if [ "$tools" = busybox ]; then
    busybox=$(command -v busybox) || { echo "FAIL: no busybox"; exit 1; }
    mkdir "$work/busybox"
    for applet in $(busybox --list); do
        # The stand-ins above, never the real tools.
        [ -e "$work/bin/$applet" ] || ln -s "$busybox" "$work/busybox/$applet"
    done
    export PATH=$work/bin:$work/busybox:$PATH
    [ "$(command -v env)" = "$work/busybox/env" ] || { echo "FAIL: env is not BusyBox's"; exit 1; }
else
    export PATH=$work/bin:$PATH
fi
# The daemon and the script run from here too: the private /tmp covers a build
# that lives under /tmp (a clone there), as it would any file the device keeps there.
cp "$build/tessel-networkd" "$build/dist/tessel-networkd.init" "$work/"
export DAEMON=$work/tessel-networkd CONFIG=$work/networkd.conf PIDFILE=$work/networkd.pid LOGFILE=$work/networkd.log
# The package's tools directory, first on the daemon's PATH: the stand-ins' own
# here, never an installed package's (its devmem is the real one).
export TOOLDIR=$work/tools
mkdir "$work/tools"
init="$shell_cmd $shell_args $work/tessel-networkd.init"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# A process's pid and start time, as the script's lock names its holder.
identity() {
    local stat
    read -r stat <"/proc/$1/stat" || return 1
    set -- "$1" ${stat##*) }
    echo "$1-${21}"
}

# A pid that no process has now, with a start time.
gone_identity() {
    local id
    sleep 30 &
    id=$(identity $!)
    kill $!
    wait $! 2>/dev/null
    echo "$id"
}

# The supervisors running: processes whose command line has "_supervise".
supervisors() {
    local f
    for f in /proc/[0-9]*/cmdline; do
        tr '\0' '\n' <"$f" 2>/dev/null | grep -qx _supervise && { f=${f#/proc/}; echo "${f%/cmdline}"; }
    done
}

# The daemon is the supervisor's one child; prints its pid when its command
# line is the daemon with the configuration, waiting up to 3 s for it.
daemon_child() {
    local supervisor=$1 tries=30 pid
    while [ $tries -gt 0 ]; do
        for pid in $(cat "/proc/$supervisor/task/$supervisor/children" 2>/dev/null); do
            if [ "$(tr '\0' ' ' <"/proc/$pid/cmdline")" = "$DAEMON --config $CONFIG " ]; then
                echo "$pid"; return 0
            fi
        done
        sleep 0.1; tries=$((tries - 1))
    done
    return 1
}

out=$($init start 2>&1) || fail "start: exit $? ($out)"
supervisor=$(cat "$PIDFILE" 2>/dev/null)
[ "$out" = "tessel-networkd started (pid $supervisor)" ] || fail "start said: $out"
first=$(daemon_child "$supervisor") || fail "no daemon running with its configuration after start"

# The daemon's PATH starts with the tools directory, once.
if [ -n "$first" ]; then
    daemon_path=$(tr '\0' '\n' <"/proc/$first/environ" | sed -n 's/^PATH=//p')
    case $daemon_path in
        "$TOOLDIR:$work/bin:"*) ;;
        *) fail "the daemon's PATH does not start with TOOLDIR: $daemon_path" ;;
    esac
    [ "$(tr ':' '\n' <<<"$daemon_path" | grep -cx "$TOOLDIR")" = 1 ] || fail "TOOLDIR more than once on the daemon's PATH: $daemon_path"
fi

out=$($init status 2>&1) || fail "status while running: exit $?"
[ "$out" = "tessel-networkd running (pid $supervisor)" ] || fail "status said: $out"

# The daemon's /tmp is not ours: a file there is not seen here.
if [ -n "$first" ]; then
    [ "$(readlink "/proc/$first/ns/mnt")" != "$(readlink /proc/self/ns/mnt)" ] || fail "daemon shares our mount namespace"
    touch /tmp/tessel-init-probe.$$
    nsenter --target "$first" --mount test -e /tmp/tessel-init-probe.$$ && fail "daemon sees our /tmp"
    rm -f /tmp/tessel-init-probe.$$
fi

# A start while another is under way is refused and changes nothing: the
# lock names a live process by its pid and start time.
sleep 30 &
holder=$!
ln -s "$(identity "$holder")" "$PIDFILE.lock"
out=$($init start 2>&1) && fail "start during another start succeeded ($out)"
case $out in *"another start is under way"*) ;; *) fail "refused start said: $out" ;; esac
[ -L "$PIDFILE.lock" ] || fail "refused start removed the lock"
[ "$(cat "$PIDFILE")" = "$supervisor" ] || fail "refused start changed the pid file"
# Once its holder is gone the lock is stale: the next start takes it over.
kill "$holder"
wait "$holder" 2>/dev/null
out=$($init start 2>&1) || fail "start with a stale lock: exit $? ($out)"
[ "$out" = "tessel-networkd already running (pid $supervisor)" ] || fail "start with a stale lock said: $out"
[ -e "$PIDFILE.lock" ] || [ -L "$PIDFILE.lock" ] && fail "stale lock left behind"
rm -f "$PIDFILE.lock"
out=$($init start 2>&1) || fail "second start: exit $?"
[ "$out" = "tessel-networkd already running (pid $supervisor)" ] || fail "second start said: $out"

# A daemon that dies is started again.
kill -KILL "$first" 2>/dev/null
sleep 0.2
second=$(daemon_child "$supervisor") || fail "daemon not started again after it was killed"
[ -n "$second" ] && [ "$second" != "$first" ] || fail "restarted daemon has the old pid"

out=$($init stop 2>&1) || fail "stop: exit $? ($out)"
[ "$out" = "tessel-networkd stopped" ] || fail "stop said: $out"
kill -0 "$supervisor" 2>/dev/null && fail "supervisor still running after stop"
[ -n "$second" ] && kill -0 "$second" 2>/dev/null && fail "daemon still running after stop"
[ -e "$PIDFILE" ] && fail "pid file left behind"
grep -q 'SigHandler: Caught signal: 15, shutting down' "$LOGFILE" || fail "daemon did not get SIGTERM"
[ "$(grep -c 'tessel-networkd exiting with code of 0' "$LOGFILE")" = 1 ] || fail "daemon did not exit cleanly once"
# Both runs started with the configuration, one after the other.
[ "$(grep -c "Using config file: $CONFIG" "$LOGFILE")" = 2 ] || fail "expected two daemon starts in the log"

out=$($init status 2>&1); status=$?
[ $status -eq 3 ] && [ "$out" = "tessel-networkd not running" ] || fail "status after stop: exit $status ($out)"

# A stale pid file whose pid another process has since taken: that process is
# neither counted as the daemon nor signalled.
sleep 30 &
stranger=$!
echo "$stranger" >"$PIDFILE"
out=$($init stop 2>&1) || fail "stop with a stale pid file: exit $?"
[ "$out" = "tessel-networkd not running" ] || fail "stop with a stale pid file said: $out"
kill -0 "$stranger" 2>/dev/null || fail "stop signalled a process that is not the supervisor"
kill "$stranger" 2>/dev/null
wait "$stranger" 2>/dev/null

# HUP, INT and TERM sent to the supervisor each stop it as "stop" does: it
# ignores none of them, the daemon ends cleanly and nothing is restarted.
stops=$(grep -c 'tessel-networkd exiting with code of 0' "$LOGFILE")
for sig in HUP INT TERM; do
    out=$($init start 2>&1) || fail "start before $sig: exit $? ($out)"
    supervisor=$(cat "$PIDFILE" 2>/dev/null)
    daemon=$(daemon_child "$supervisor") || fail "no daemon before $sig"
    ignored=$(sed -n 's/^SigIgn:[[:space:]]*//p' "/proc/$supervisor/status" 2>/dev/null)
    echo "supervisor ($(readlink "/proc/$supervisor/exe")) SigIgn before $sig: ${ignored:-?}"
    case $sig in HUP) bit=1 ;; INT) bit=2 ;; TERM) bit=15 ;; esac
    [ -n "$ignored" ] && (( (0x$ignored >> (bit - 1)) & 1 )) && fail "supervisor ignores $sig (SigIgn $ignored)"
    kill -"$sig" "$supervisor"
    tries=50
    while { kill -0 "$supervisor" || kill -0 "$daemon"; } 2>/dev/null && [ $tries -gt 0 ]; do
        sleep 0.1; tries=$((tries - 1))
    done
    kill -0 "$supervisor" 2>/dev/null && fail "supervisor still running after $sig"
    [ -n "$daemon" ] && kill -0 "$daemon" 2>/dev/null && fail "daemon still running after $sig"
    [ -e "$PIDFILE" ] && fail "pid file left behind after $sig"
    [ -e "$PIDFILE.lock" ] && fail "lock left behind after $sig"
    stops=$((stops + 1))
    [ "$(grep -c 'tessel-networkd exiting with code of 0' "$LOGFILE")" = "$stops" ] ||
        fail "daemon did not exit cleanly after $sig"
    # Whatever is left running is stopped here, for the next round.
    kill -KILL "$supervisor" "$daemon" 2>/dev/null
    rm -f "$PIDFILE"
done

# A start killed while it holds the lock leaves it behind; the next start
# takes it over, and one supervisor runs, whether the killed start had started
# its own or not.
$init start >/dev/null 2>&1 &
starter=$!
until [ -e "$PIDFILE.lock" ] || [ -L "$PIDFILE.lock" ] || ! kill -0 "$starter" 2>/dev/null; do :; done
kill -KILL "$starter" 2>/dev/null
wait "$starter" 2>/dev/null
[ -e "$PIDFILE.lock" ] || [ -L "$PIDFILE.lock" ] || fail "killed start left no lock (the test did not kill it in time)"
out=$($init start 2>&1) || fail "start after a killed start: exit $? ($out)"
sleep 0.5
running=$(supervisors)
[ "$(echo $running)" = "$(cat "$PIDFILE" 2>/dev/null)" ] || fail "after a killed start: supervisors ($(echo $running)), pid file ($(cat "$PIDFILE" 2>/dev/null))"
[ -e "$PIDFILE.lock" ] || [ -L "$PIDFILE.lock" ] && fail "lock of the killed start left behind"
rm -rf "$PIDFILE.lock"
out=$($init stop 2>&1) || fail "stop after a killed start: exit $? ($out)"
left=$(supervisors)
if [ -n "$left" ]; then
    fail "supervisors left after stop: $(echo $left)"
    kill -TERM $left
    sleep 2
fi

# A stale lock whose clearing was killed too is cleared all the same; a lock
# being cleared by a live start is left to it.
stale=$(gone_identity)
ln -s "$stale" "$PIDFILE.lock"
ln -s "$(gone_identity)" "$PIDFILE.lock.gone-$stale"
out=$($init start 2>&1) || fail "start with a stale lock and token: exit $? ($out)"
ls -d "$PIDFILE".lock* >/dev/null 2>&1 && fail "stale lock or token left behind: $(ls -d "$PIDFILE".lock*)"
rm -f "$PIDFILE.lock" "$PIDFILE.lock.gone-$stale"
out=$($init stop 2>&1) || fail "stop: exit $? ($out)"
sleep 30 &
holder=$!
ln -s "$stale" "$PIDFILE.lock"
ln -s "$(identity "$holder")" "$PIDFILE.lock.gone-$stale"
out=$($init start 2>&1) && fail "start while a live start clears the lock succeeded ($out)"
[ -L "$PIDFILE.lock" ] && [ -L "$PIDFILE.lock.gone-$stale" ] || fail "start removed a lock being cleared by another"
[ -z "$(supervisors)" ] || fail "refused start started a supervisor"
kill "$holder"
wait "$holder" 2>/dev/null
rm -f "$PIDFILE.lock" "$PIDFILE.lock.gone-$stale"

# force-reload restarts, as restart does.
out=$($init start 2>&1) || fail "start before force-reload: exit $? ($out)"
supervisor=$(cat "$PIDFILE" 2>/dev/null)
daemon=$(daemon_child "$supervisor") || fail "no daemon before force-reload"
out=$($init force-reload 2>&1) || fail "force-reload: exit $? ($out)"
supervisor=$(cat "$PIDFILE" 2>/dev/null)
reloaded=$(daemon_child "$supervisor") || fail "no daemon after force-reload"
[ -n "$reloaded" ] && [ "$reloaded" != "$daemon" ] || fail "force-reload kept the old daemon"
kill -0 "$daemon" 2>/dev/null && fail "the old daemon still runs after force-reload"
out=$($init stop 2>&1) || fail "stop after force-reload: exit $? ($out)"

# METRICS_DIR (the environment or /etc/default/tessel-networkd) gives the
# daemon --metrics-dir: the status as Prometheus metrics in that directory.
mkdir -m 0755 "$work/metrics"
out=$(METRICS_DIR=$work/metrics $init start 2>&1) || fail "start with METRICS_DIR: exit $? ($out)"
supervisor=$(cat "$PIDFILE" 2>/dev/null)
with_metrics=
tries=50
while [ $tries -gt 0 ]; do
    for pid in $(cat "/proc/$supervisor/task/$supervisor/children" 2>/dev/null); do
        [ "$(tr '\0' ' ' <"/proc/$pid/cmdline")" = "$DAEMON --config $CONFIG --metrics-dir $work/metrics " ] &&
            with_metrics=$pid
    done
    [ -n "$with_metrics" ] && [ -s "$work/metrics/tessel_networkd.prom" ] && break
    sleep 0.1; tries=$((tries - 1))
done
[ -n "$with_metrics" ] || fail "no daemon with --metrics-dir after a start with METRICS_DIR"
grep -q '^tessel_networkd_state{state="degraded"} ' "$work/metrics/tessel_networkd.prom" 2>/dev/null ||
    fail "no metrics file in METRICS_DIR"
out=$($init stop 2>&1) || fail "stop after a start with METRICS_DIR: exit $? ($out)"

# A /bin/sh that runs BusyBox's own applets before PATH is refused with one
# clear message, and nothing starts. Played by a shell put over dash in a mount
# namespace of its own, answering "command -v ip" as such a BusyBox does.
if [ "$(readlink -f /bin/sh)" = /usr/bin/dash ]; then
    printf '#!/bin/bash\n[ "$*" = "-c command -v ip" ] && { echo ip; exit 0; }\nexec /bin/bash "$@"\n' >"$work/applet-sh"
    chmod +x "$work/applet-sh"
    out=$(/usr/bin/unshare --mount /bin/bash -c '/usr/bin/mount --bind "$1" /usr/bin/dash && shift && exec "$@"' - "$work/applet-sh" \
        $shell_cmd $shell_args "$work/tessel-networkd.init" start 2>&1) && fail "start under an applet-first /bin/sh succeeded ($out)"
    case $out in
        "tessel-networkd: /bin/sh runs BusyBox's own applets before PATH (its ip, not iproute2's);"*) ;;
        *) fail "start under an applet-first /bin/sh said: $out" ;;
    esac
    [ -z "$(supervisors)" ] && [ ! -e "$PIDFILE" ] || fail "start under an applet-first /bin/sh started a supervisor"
fi

if [ "$failures" -ne 0 ]; then echo "--- daemon log"; cat "$LOGFILE"; exit 1; fi
echo "init script under $shell${tools:+ with $tools tools}: OK"
