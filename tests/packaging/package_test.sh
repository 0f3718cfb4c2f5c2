#!/bin/bash
# The Debian package, built with cpack and unpacked into a temporary root:
# control information, files, manual pages, and the unit it ships (verify,
# security, restart settings).
#
# usage: package_test.sh CPACK BUILD_DIR MAX_EXPOSURE [EXPECTED_PATH...]
set -u
cpack=$1 build=$2 max_exposure=$3
shift 3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

"$cpack" -G DEB -B "$tmp/out" --config "$build/CPackConfig.cmake" >"$tmp/cpack.log" 2>&1 ||
    { cat "$tmp/cpack.log"; echo "FAIL: cpack"; exit 1; }
deb=$(echo "$tmp"/out/*.deb)
root=$tmp/root
{ dpkg-deb -x "$deb" "$root" && dpkg-deb -e "$deb" "$tmp/control"; } || { echo "FAIL: unpacking $deb"; exit 1; }

[ "$(dpkg-deb -f "$deb" Package)" = ipcd ] || fail "the package is not called ipcd"
# The libraries; setfacl for the ports, polkitd for the norvex stop, useradd.
for dep in libmosquitto1 libprotobuf-lite32 acl polkitd passwd; do
    grep -qw "$dep" <<<"$(dpkg-deb -f "$deb" Depends)" || fail "Depends does not name $dep"
done
grep -qw mosquitto <<<"$(dpkg-deb -f "$deb" Recommends)" || fail "mosquitto is not recommended"
sed -e ':a' -e '/\\$/{N;s/\\\n//;ba' -e '}' "$tmp/control/postinst" | grep -q 'useradd --system .* ipcd$' ||
    fail "postinst does not create the user ipcd"
for f in /etc/kirn/ipcd.conf /etc/kirn/rt_catalogue.json; do
    grep -qx "$f" "$tmp/control/conffiles" || fail "$f is not a conffile"
done
# The shipped configuration only documents: every setting is commented out.
grep -v '^[[:space:]]*\(#\|$\)' "$root/etc/kirn/ipcd.conf" && fail "ipcd.conf sets the lines above"
for path in "$@"; do
    [ -e "$root/$path" ] || fail "/$path missing"
done

# Every program has its manual page; each page renders without a warning
# from man or groff, and ipcd(8) quotes the usage text that ipcd prints.
for program in "$root"/usr/bin/* "$root"/usr/sbin/*; do
    name=${program##*/}
    compgen -G "$root/usr/share/man/man[18]/$name.[18].gz" >/dev/null || fail "no manual page for $name"
done
for page in "$root"/usr/share/man/man*/*; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "${page#"$root"}: $warnings"
done
usage=$(env -u LOG_LEVEL "$root/usr/sbin/ipcd" --help)
quoted=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$root/usr/share/man/man8/ipcd.8.gz" 2>/dev/null |
    awk -v n="$(wc -l <<<"$usage")" '!indent && /Usage: ipcd/ { indent = index($0, "Usage:") }
        indent && n-- > 0 { print substr($0, indent) }')
[ "$quoted" = "$usage" ] || fail "ipcd(8) does not quote the usage text of ipcd --help"

unit=$(find "$root" -path '*/systemd/system/ipcd.service')
[ -f "$unit" ] || { echo "FAIL: no ipcd.service in the package"; exit 1; }
for program in $(sed -n 's/^Exec[A-Za-z]*=[-@:+!]*\([^ ]*\).*/\1/p' "$unit"); do
    [ -x "$root$program" ] || fail "the unit starts $program, which is not in the package"
done
"$root$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")" --version | grep -q '^IPCd version: ' ||
    fail "the unit's ipcd does not tell its version"
mkdir "$tmp/verify"
sed "s#^\(Exec[A-Za-z]*=[-@:+!]*\)/#\1$root/#" "$unit" >"$tmp/verify/ipcd.service"
# verify only warns about values it ignores; those count as failures.
verify=$(systemd-analyze verify --man=no "$tmp/verify/ipcd.service" 2>&1)
[ $? -eq 0 ] && ! grep -q 'ipcd.service' <<<"$verify" || fail "systemd-analyze verify: $verify"
exposure=$(systemd-analyze security --offline=true "$tmp/verify/ipcd.service" 2>&1 |
    sed -n 's/.*Overall exposure level for ipcd.service: \([0-9.]*\).*/\1/p')
echo "exposure ${exposure:-none} (at most $max_exposure)"
awk -v e="${exposure:-99}" -v m="$max_exposure" 'BEGIN { exit !(e <= m) }' || fail "exposure too high"

# An orderly end (status 0) is final. Starts while the broker is away (one
# per probe wait and RestartSec) stay within the burst; a daemon failing at
# once (one per RestartSec) exceeds it.
setting() { sed -n "s/^$1=//p" "$unit" | tail -n 1 | sed 's/^\([0-9]*\)s$/\1/'; }
[ "$(setting Restart)" = on-failure ] || fail "Restart is not on-failure"
probe=$(sed -n 's/^ExecStartPre=.*wait-for-broker \([0-9]*\).*/\1/p' "$unit")
pause=$(setting RestartSec) interval=$(setting StartLimitIntervalSec) burst=$(setting StartLimitBurst)
if [[ "$probe $pause $interval $burst" =~ ^[0-9]+\ [1-9][0-9]*\ [0-9]+\ [0-9]+$ ]]; then
    [ $((interval / (probe + pause) + 1)) -le "$burst" ] || fail "with the broker away the unit gives up"
    [ $((interval / pause + 1)) -gt "$burst" ] || fail "a daemon failing at once is restarted forever"
else
    fail "probe '$probe', RestartSec '$pause', StartLimit '$interval' '$burst' are not plain numbers"
fi
# Below 10 s the watchdog could kill ipcd while it connects (up to 5 s).
[ "$(setting WatchdogSec)" -ge 10 ] 2>/dev/null || fail "WatchdogSec is not 10 s or more"

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo PASS
