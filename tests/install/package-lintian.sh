#!/usr/bin/env bash
# Builds the .deb of a build directory and runs lintian on it: no error, and no
# warning beyond the three the package keeps on purpose:
#   init.d-script-does-not-source-init-functions   the script is POSIX sh for BusyBox
#                                                  init, which has no /lib/lsb
#   maintainer-script-calls-systemctl              postinst's try-restart and prerm's stop:
#                                                  plain sh for systemd and BusyBox init
#                                                  alike, without Debian's init helpers
#                                                  (the device's image has none)
#   script-in-etc-init.d-not-registered-via-update-rc.d
#                                                  the first install enables nothing:
#                                                  starting a daemon that rebuilds br0 and
#                                                  flushes eth0/eth1 is the device image's
#                                                  (or the operator's) choice
#   package-lintian.sh BUILD_DIR
set -uo pipefail

build=$1
command -v lintian >/dev/null || { echo "SKIP: lintian is missing (tools/test installs it)"; exit 77; }
out=$(mktemp -d /tmp/tessel-package.XXXXXX)
trap 'rm -rf "$out"' EXIT
if ! (cd "$build" && cpack -G DEB -B "$out") >"$out/cpack.log" 2>&1; then
    cat "$out/cpack.log"; echo "FAIL: cpack"; exit 1
fi
deb=$(ls "$out"/*.deb)
tags=$(lintian --tag-display-limit 0 "$deb" 2>&1 | grep -v '^running with root privileges' | sed 's/ \[.*\]$//' | sort)
expected="W: tessel-networkd: init.d-script-does-not-source-init-functions
W: tessel-networkd: maintainer-script-calls-systemctl
W: tessel-networkd: maintainer-script-calls-systemctl
W: tessel-networkd: script-in-etc-init.d-not-registered-via-update-rc.d"
if [ "$tags" != "$expected" ]; then
    printf 'FAIL: lintian on %s\n--- expected\n%s\n--- reported\n%s\n' "$(basename "$deb")" "$expected" "$tags"
    exit 1
fi
echo "lintian: no error; the known warnings"
