#!/bin/bash
# Builds the Debian package from an already built tree, unpacks it into a
# temporary root (nothing is installed on this machine) and checks that the
# unit, the binary, the configuration and the catalogue fit together.
#
# usage: package_test.sh CPACK BUILD_DIR [EXPECTED_PATH...]
#   EXPECTED_PATH: further files the package must contain, relative to /.
set -u

cpack=$1
build=$2
shift 2

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

for tool in dpkg-deb; do
    command -v "$tool" >/dev/null || { echo "SKIP: $tool not available"; exit 77; }
done

if ! "$cpack" -G DEB -B "$tmp/out" --config "$build/CPackConfig.cmake" >"$tmp/cpack.log" 2>&1; then
    cat "$tmp/cpack.log"
    echo "FAIL: cpack"
    exit 1
fi
debs=("$tmp"/out/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "FAIL: expected one .deb, got: ${debs[*]}"; exit 1; }
deb=${debs[0]}
echo "package: $(basename "$deb")"

root=$tmp/root
dpkg-deb -x "$deb" "$root" || { echo "FAIL: dpkg-deb -x"; exit 1; }
dpkg-deb -e "$deb" "$tmp/control" || { echo "FAIL: dpkg-deb -e"; exit 1; }
dpkg-deb -c "$deb"

# Control information.
[ "$(dpkg-deb -f "$deb" Package)" = ipcd ] || fail "package name is not ipcd"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
grep -qw libmosquitto1 <<<"$depends" || fail "Depends does not name libmosquitto1"
grep -qw libprotobuf-lite32 <<<"$depends" || fail "Depends does not name libprotobuf-lite32"
grep -qw mosquitto <<<"$(dpkg-deb -f "$deb" Recommends)" || fail "mosquitto is not recommended"
# The unit's grant step runs setfacl; the norvex stop needs the polkit rule.
for dep in acl polkitd passwd; do
    grep -qw "$dep" <<<"$depends" || fail "Depends does not name $dep"
done
# The unit runs the daemon as "ipcd": the package must make that user.
sed -e ':a' -e '/\\$/{N;s/\\\n//;ba' -e '}' "$tmp/control/postinst" | grep -q 'useradd --system .* ipcd$' ||
    fail "postinst does not create the user ipcd"
for f in /etc/kirn/ipcd.conf /etc/kirn/rt_catalogue.json; do
    grep -qx "$f" "$tmp/control/conffiles" || fail "$f is not a conffile"
done
for script in postinst prerm postrm; do
    [ -x "$tmp/control/$script" ] || fail "$script missing or not executable"
    sh -n "$tmp/control/$script" || fail "$script is not valid sh"
done

# The unit, and the binary it starts.
units=$(find "$root" -path '*/systemd/system/ipcd.service')
[ "$(wc -l <<<"$units")" -eq 1 ] && [ -n "$units" ] || fail "expected one ipcd.service, got: $units"
unit=$(head -n1 <<<"$units")
if [ -f "$unit" ]; then
    grep -qx 'Type=notify' "$unit" || fail "unit is not Type=notify"
    exec_start=$(sed -n 's/^ExecStart=[-@:+!]*\([^ ]*\).*/\1/p' "$unit" | head -n1)
    echo "ExecStart binary: $exec_start"
    case $exec_start in /*) ;; *) fail "ExecStart '$exec_start' is not absolute" ;; esac
    if [ -x "$root$exec_start" ] && [ -f "$root$exec_start" ]; then
        out=$("$root$exec_start" --version 2>&1)
        rc=$?
        echo "$out"
        [ $rc -eq 0 ] || fail "--version exited with $rc"
        grep -q '^IPCd version: ' <<<"$out" || fail "--version printed no version line"
    else
        fail "ExecStart $exec_start is not an executable file in the package"
    fi
    # Every program the unit starts is in the package.
    for program in $(sed -n 's/^Exec[A-Za-z]*=[-@:+!]*\([^ ]*\).*/\1/p' "$unit"); do
        [ -x "$root$program" ] && [ -f "$root$program" ] ||
            fail "the unit starts $program, which is not an executable file in the package"
    done
    # Unit syntax, with the programs pointed into the unpacked root so that
    # the binary check of verify applies to the packaged ones.
    if command -v systemd-analyze >/dev/null; then
        mkdir -p "$tmp/verify"
        sed "s#^\(Exec[A-Za-z]*=[-@:+!]*\)/#\1$root/#" "$unit" >"$tmp/verify/ipcd.service"
        # verify only warns about values it ignores; those count as failures.
        verify=$(systemd-analyze verify --man=no "$tmp/verify/ipcd.service" 2>&1)
        rc=$?
        [ -n "$verify" ] && echo "$verify"
        if [ $rc -ne 0 ] || grep -q 'ipcd.service:' <<<"$verify"; then
            fail "systemd-analyze verify"
        fi
    fi
fi

# Configuration and catalogue where the daemon looks for them by default.
conf=$root/etc/kirn/ipcd.conf
[ -f "$conf" ] || fail "/etc/kirn/ipcd.conf missing"
[ -f "$root/etc/kirn/rt_catalogue.json" ] || fail "/etc/kirn/rt_catalogue.json missing"
# The shipped configuration only documents: every setting is commented out.
if [ -f "$conf" ] && grep -v '^[[:space:]]*\(#\|$\)' "$conf"; then
    fail "ipcd.conf sets the lines above"
fi

for path in "$@"; do
    [ -e "$root/$path" ] || fail "/$path missing"
done

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "PASS"
