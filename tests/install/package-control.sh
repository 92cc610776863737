#!/usr/bin/env bash
# Builds the .deb of a build directory and checks its control file field by
# field, literally: every tool the daemon runs is in Depends (none left to
# Recommends, which an install without them drops), and the libraries'
# minimum versions are the ones Debian's own dpkg-shlibdeps finds for the
# packaged programs on this machine, so a build that imports newer symbol
# versions is caught. The maintainer scripts and the conffiles are checked too.
#   package-control.sh BUILD_DIR
set -uo pipefail

build=$(cd "$1" && pwd)
command -v dpkg-shlibdeps >/dev/null || { echo "SKIP: dpkg-shlibdeps is missing (dpkg-dev)"; exit 77; }
out=$(mktemp -d /tmp/tessel-control.XXXXXX)
trap 'rm -rf "$out"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

if ! (cd "$build" && cpack -G DEB -B "$out") >"$out/cpack.log" 2>&1; then
    cat "$out/cpack.log"; echo "FAIL: cpack"; exit 1
fi
deb=$(ls "$out"/*.deb)

# The libraries, as dpkg-shlibdeps derives them from the programs (it wants a
# debian/control beside it, and says nothing more from it here).
mkdir -p "$out/shlibs/debian"
printf 'Source: tessel-networkd\n\nPackage: tessel-networkd\nArchitecture: any\n' >"$out/shlibs/debian/control"
libraries=$(cd "$out/shlibs" && dpkg-shlibdeps -O "$build/tessel-networkd" "$build/tessel-networkctl" \
    "$build/tessel-netcheck" 2>/dev/null | sed -n 's/^shlibs:Depends=//p')
[ -n "$libraries" ] || { echo "FAIL: dpkg-shlibdeps found no libraries"; exit 1; }

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
case $(uname -m) in
    x86_64) arch=amd64 ;;
    aarch64) arch=arm64 ;;
    arm*) arch=armhf ;;
    *) arch=$(dpkg --print-architecture) ;;
esac

# Every field but the description and the size, in dpkg-deb's order.
fields=$(dpkg-deb -f "$deb" | grep -v '^ ' | grep -v '^Description:\|^Installed-Size:')
expected="Architecture: $arch
Depends: $libraries, iproute2, iptables, arptables, ebtables, udhcpc, busybox | busybox-static
Maintainer: Tessel firmware team <firmware@tessel.invalid>
Package: tessel-networkd
Priority: optional
Section: net
Version: $version"
[ "$fields" = "$expected" ] || fail "control fields
--- expected
$expected
--- built
$fields"

# The control archive: the conffiles and the three maintainer scripts, executable.
dpkg-deb -e "$deb" "$out/control"
members=$(cd "$out/control" && find . -type f -printf '%M %P\n' | sort -k2)
expected="-rw-r--r-- conffiles
-rw-r--r-- control
-rw-r--r-- md5sums
-rwxr-xr-x postinst
-rwxr-xr-x postrm
-rwxr-xr-x prerm"
[ "$members" = "$expected" ] || fail "control archive
--- expected
$expected
--- built
$members"
[ "$(cat "$out/control/conffiles")" = "/etc/tessel-networkd.conf
/etc/init.d/tessel-networkd" ] || fail "conffiles: $(cat "$out/control/conffiles")"
for script in postinst prerm postrm; do
    [ -f "$out/control/$script" ] || continue
    cmp -s "$out/control/$script" "$(dirname "$0")/../../dist/debian/$script" ||
        fail "$script differs from dist/debian/$script"
done

[ "$failures" -eq 0 ] && echo "package control: OK ($(dpkg-deb -f "$deb" Depends))"
exit $((failures > 0))
