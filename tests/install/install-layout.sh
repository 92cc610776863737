#!/usr/bin/env bash
# Installs the build into a staging directory (DESTDIR) and checks what lands
# where, with which mode, and that the installed files are usable as installed:
# the example configuration passes the installed checker, the unit file passes
# systemd's own checks, the init script parses under the shells it is for.
#   install-layout.sh BUILD_DIR
set -uo pipefail

build=$1
stage=$(mktemp -d /tmp/tessel-install.XXXXXX)
trap 'rm -rf "$stage"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

if ! DESTDIR=$stage cmake --install "$build" >"$stage.log" 2>&1; then
    cat "$stage.log"; rm -f "$stage.log"
    echo "FAIL: cmake --install"; exit 1
fi
rm -f "$stage.log"

# Every installed file with its mode; nothing else may land in the stage.
layout=$(cd "$stage" && find . -type f -printf '%M %P\n' | sort -k2)
expected="-rwxr-xr-x etc/init.d/tessel-networkd
-rw-r--r-- etc/tessel-networkd.conf
-rwxr-xr-x usr/bin/tessel-netcheck
-rwxr-xr-x usr/bin/tessel-networkctl
-rw-r--r-- usr/lib/modules-load.d/tessel-networkd.conf
-rw-r--r-- usr/lib/sysctl.d/tessel-networkd.conf
-rw-r--r-- usr/lib/systemd/system/tessel-networkd.service
-rw-r--r-- usr/lib/tmpfiles.d/tessel-networkd.conf
-rwxr-xr-x usr/sbin/tessel-networkd
-rw-r--r-- usr/share/doc/tessel-networkd/TROUBLESHOOTING.md
-rw-r--r-- usr/share/doc/tessel-networkd/changelog.gz
-rw-r--r-- usr/share/doc/tessel-networkd/copyright
-rw-r--r-- usr/share/man/man1/tessel-netcheck.1.gz
-rw-r--r-- usr/share/man/man1/tessel-networkctl.1.gz
-rw-r--r-- usr/share/man/man5/tessel-networkd.conf.5.gz
-rw-r--r-- usr/share/man/man8/tessel-networkd.8.gz
-rwxr-xr-x usr/share/udhcpc/tessel.script"
[ "$layout" = "$expected" ] || fail "installed layout
--- expected
$expected
--- installed
$layout"

# The daemon's tools directory: the legacy arptables (relative within /usr, so
# it names /usr/sbin/arptables-legacy) and BusyBox, called as devmem.
links=$(cd "$stage" && find . -type l -printf '%P -> %l\n' | sort)
expected="usr/lib/tessel-networkd/bin/arptables -> ../../../sbin/arptables-legacy
usr/lib/tessel-networkd/bin/devmem -> /bin/busybox"
[ "$links" = "$expected" ] || fail "installed links
--- expected
$expected
--- installed
$links"
target=$(readlink "$stage/usr/lib/tessel-networkd/bin/arptables")
[ "$(realpath -m "/usr/lib/tessel-networkd/bin/$target")" = /usr/sbin/arptables-legacy ] ||
    fail "the arptables link ($target) does not name /usr/sbin/arptables-legacy"

cmp -s "$stage/usr/share/udhcpc/tessel.script" "$(dirname "$0")/../../dist/udhcpc/tessel.script" ||
    fail "installed DHCP client script differs from dist/udhcpc/tessel.script"

# The example configuration, read by the installed checker with the daemon's parser.
if [ -x "$stage/usr/bin/tessel-netcheck" ]; then
    out=$("$stage/usr/bin/tessel-netcheck" "$stage/etc/tessel-networkd.conf" 2>&1)
    status=$?
    [ "$status" -eq 0 ] || fail "example configuration: tessel-netcheck exit $status
$out"
    if grep -q ' ERROR \| WARN ' <<<"$out"; then fail "example configuration logs a problem:
$out"; fi
fi

# The operator command's check is the checker's, word for word.
if [ -x "$stage/usr/bin/tessel-networkctl" ]; then
    out_ctl=$("$stage/usr/bin/tessel-networkctl" check "$stage/etc/tessel-networkd.conf" 2>&1)
    status=$?
    [ "$status" -eq 0 ] && [ "$out_ctl" = "$out" ] || fail "tessel-networkctl check: exit $status
$out_ctl"
fi

# The manual pages: gzipped with no name or time stamp in the header, each
# formats without a warning and names its program, and the configuration page
# has every keyword of the file.
for page in man1/tessel-netcheck.1 man1/tessel-networkctl.1 man5/tessel-networkd.conf.5 man8/tessel-networkd.8; do
    gz=$stage/usr/share/man/$page.gz
    [ -f "$gz" ] || continue
    # Bytes 4-7 of a gzip header: flags (no FNAME) and MTIME zero.
    [ "$(od -An -tx1 -j3 -N5 "$gz" | tr -d ' ')" = 0000000000 ] || fail "$page.gz carries a name or time stamp"
    name=$(basename "$page"); name=${name%.*}
    text=$(gzip -dc "$gz")
    grep -q "^\.TH $(tr a-z A-Z <<<"$name" | sed 's/\./\\./g') " <<<"$text" || fail "$page: no .TH for $name"
    if command -v groff >/dev/null; then
        warnings=$(LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z <<<"$text" 2>&1)
        [ -z "$warnings" ] || fail "$page: groff warns: $warnings"
    fi
done
conf=$(gzip -dc "$stage/usr/share/man/man5/tessel-networkd.conf.5.gz" 2>/dev/null)
for keyword in bridge phy veth1 veth3 vrx0 vrx1; do
    grep -Eq "^\.(B|BI|BR) \"?$keyword[ \"]" <<<"$conf" || fail "tessel-networkd.conf(5) lacks the keyword $keyword"
done

# The unit starts the installed daemon in the foreground with the installed
# configuration as a notify service under a watchdog, restarts it, and stops it with SIGTERM;
# before each start, outside its sandbox, an unconfirmed configuration is restored when due.
unit=$stage/usr/lib/systemd/system/tessel-networkd.service
for line in "Type=notify" "NotifyAccess=main" "WatchdogSec=60" \
    "ExecStart=/usr/sbin/tessel-networkd --config /etc/tessel-networkd.conf" \
    "ExecStartPre=+systemd-tmpfiles --create tessel-networkd.conf" \
    "ExecStartPre=+-/lib/systemd/systemd-modules-load /usr/lib/modules-load.d/tessel-networkd.conf" \
    "ExecStartPre=+-/lib/systemd/systemd-sysctl /usr/lib/sysctl.d/tessel-networkd.conf" \
    "ExecStartPre=+-/usr/bin/tessel-networkctl restore-due --config /etc/tessel-networkd.conf" \
    "Environment=PATH=/usr/lib/tessel-networkd/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" \
    "Restart=always" "KillSignal=SIGTERM" "KillMode=process" \
    "RuntimeDirectory=tessel-networkd" "RuntimeDirectoryMode=0755" "RuntimeDirectoryPreserve=yes"; do
    grep -qx -- "$line" "$unit" || fail "unit lacks the line: $line"
done
if command -v systemd-analyze >/dev/null; then
    # systemd checks that ExecStart names an executable, so point it at the staged one.
    check=$stage/verify/tessel-networkd.service
    mkdir -p "$stage/verify"
    sed -e "s#=/usr/sbin/#=$stage/usr/sbin/#" -e "s#=+-/usr/bin/#=+-$stage/usr/bin/#" "$unit" >"$check"
    verdict=$(systemd-analyze verify "$check" 2>&1)
    [ -z "$verdict" ] || fail "systemd-analyze verify: $verdict"
fi

# The legacy iptables' lock file, made at boot, which systemd-tmpfiles accepts.
tmpfiles=$stage/usr/lib/tmpfiles.d/tessel-networkd.conf
grep -qx 'f /run/xtables.lock 0600 root root -' "$tmpfiles" || fail "tmpfiles entry of /run/xtables.lock"
if command -v systemd-tmpfiles >/dev/null; then
    made=$stage/tmpfiles-root
    mkdir -p "$made/run"
    verdict=$(systemd-tmpfiles --root="$made" --create "$tmpfiles" 2>&1) || fail "systemd-tmpfiles: $verdict"
    [ "$(stat -c %a "$made/run/xtables.lock" 2>/dev/null)" = 600 ] || fail "systemd-tmpfiles made no /run/xtables.lock"
fi

# The modules the bridge and the isolation need, loaded at boot (the unit may not
# load them), one name a line as systemd-modules-load reads them.
modules=$stage/usr/lib/modules-load.d/tessel-networkd.conf
listed=$(grep -v '^#' "$modules" | tr '\n' ' ')
[ "$listed" = "bridge veth br_netfilter arp_tables arptable_filter ip_tables iptable_filter xt_physdev ebtables ebtable_filter ebtable_nat ebt_vlan " ] ||
    fail "modules-load.d list: $listed"

# Tagged IPv4 and ARP reach the filters: set at boot, where the unit may not.
sysctls=$stage/usr/lib/sysctl.d/tessel-networkd.conf
listed=$(grep -v '^#' "$sysctls")
[ "$listed" = "net.bridge.bridge-nf-filter-vlan-tagged = 1" ] || fail "sysctl.d settings: $listed"

# The init script names the installed paths and parses under every shell at hand.
init=$stage/etc/init.d/tessel-networkd
grep -qx 'DAEMON=${DAEMON:-/usr/sbin/tessel-networkd}' "$init" || fail "init script: daemon path"
grep -qx 'CONFIG=${CONFIG:-/etc/tessel-networkd.conf}' "$init" || fail "init script: configuration path"
grep -qx 'MODULES=${MODULES:-/usr/lib/modules-load.d/tessel-networkd.conf}' "$init" || fail "init script: modules list"
grep -qx 'TOOLDIR=${TOOLDIR:-/usr/lib/tessel-networkd/bin}' "$init" || fail "init script: tools directory"
for shell in sh dash "busybox sh"; do
    command -v ${shell%% *} >/dev/null || continue
    $shell -n "$init" || fail "init script does not parse under $shell"
done

[ "$failures" -eq 0 ] && echo "install layout: OK"
exit $((failures > 0))
