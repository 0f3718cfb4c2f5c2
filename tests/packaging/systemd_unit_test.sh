#!/bin/bash
# The shipped unit, checked offline with systemd-analyze: it verifies without
# a warning, its sandbox exposure stays at or below the bound, and its restart
# settings keep the promise the unit makes (retry while the broker is away,
# give up on a daemon that fails at once, never restart an orderly end).
#
# usage: systemd_unit_test.sh UNIT IPCD PRESTART MAX_EXPOSURE
#   UNIT: dist/ipcd.service; IPCD, PRESTART: the built daemon and the source
#   of the start-up helper, which stand in for the installed paths.
set -u

unit=$1
ipcd=$2
prestart=$3
max_exposure=$4

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Part of the build's tool set (scripts/install-deps): missing means the
# machine is not set up, which must not pass as a skipped check.
if ! command -v systemd-analyze >/dev/null; then
    echo "FAIL: systemd-analyze is missing; scripts/install-deps installs it (package systemd)"
    exit 1
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# verify insists that every program the unit starts exists; the name of the
# copy must stay ipcd.service.
sed -e "s#=\\([-@:+!]*\\)/usr/sbin/ipcd\\b#=\\1$ipcd#" \
    -e "s#=\\([-@:+!]*\\)/usr/libexec/ipcd/ipcd-prestart\\b#=\\1$prestart#" \
    "$unit" >"$tmp/ipcd.service"
if grep -E '^Exec[A-Za-z]*=[-@:+!]*/usr/' "$tmp/ipcd.service"; then
    fail "the unit starts a program this test does not map to the build tree (above)"
fi

# verify only warns about values it ignores; those count as failures.
verify=$(systemd-analyze verify --man=no "$tmp/ipcd.service" 2>&1)
rc=$?
[ -n "$verify" ] && echo "$verify"
if [ $rc -ne 0 ] || grep -q 'ipcd.service' <<<"$verify"; then
    fail "systemd-analyze verify"
fi

security=$(systemd-analyze security --offline=true "$tmp/ipcd.service" 2>&1)
rc=$?
grep -E '^✗|Overall' <<<"$security"
exposure=$(sed -n 's/.*Overall exposure level for ipcd.service: \([0-9.]*\).*/\1/p' <<<"$security")
if [ $rc -ne 0 ] || [ -z "$exposure" ]; then
    echo "$security"
    fail "systemd-analyze security gave no exposure"
elif awk -v e="$exposure" -v m="$max_exposure" 'BEGIN { exit !(e > m) }'; then
    fail "exposure $exposure is above $max_exposure"
else
    echo "exposure $exposure (at most $max_exposure)"
fi

# The restart settings, as numbers of seconds.
setting() {
    sed -n "s/^$1=\\([0-9]*\\)s\\?\$/\\1/p" "$unit" | tail -n 1
}
restart=$(sed -n 's/^Restart=//p' "$unit" | tail -n 1)
restart_sec=$(setting RestartSec)
interval=$(setting StartLimitIntervalSec)
burst=$(setting StartLimitBurst)
probe=$(sed -n 's/^ExecStartPre=.*ipcd-prestart wait-for-broker \([0-9]*\).*/\1/p' "$unit")
watchdog=$(setting WatchdogSec)
echo "Restart=$restart RestartSec=$restart_sec StartLimitIntervalSec=$interval" \
    "StartLimitBurst=$burst probe=$probe WatchdogSec=$watchdog"
# on-failure: status 0 (orderly end) is final, status 1, a failed probe and a
# watchdog kill are restarted. "always" or "on-success" would restart an
# orderly end; "no" or "on-abnormal" would leave ipcd down while the broker is.
[ "$restart" = on-failure ] || fail "Restart=$restart, not on-failure"
if [ -z "$restart_sec" ] || [ -z "$interval" ] || [ -z "$burst" ] || [ -z "$probe" ]; then
    fail "RestartSec, StartLimitIntervalSec, StartLimitBurst or the probe's wait is not a plain number"
else
    # Starts within one interval when each comes a cycle after the last.
    starts() { echo $(($1 / $2 + 1)); }
    away=$(starts "$interval" $((probe + restart_sec)))
    [ "$away" -le "$burst" ] ||
        fail "with the broker away, $away starts in ${interval} s exceed the burst of $burst: the unit would give up"
    quick=$(starts "$interval" "$((restart_sec > 0 ? restart_sec : 1))")
    [ "$quick" -gt "$burst" ] ||
        fail "a daemon that fails at once starts only $quick times in ${interval} s: the unit would never give up"
fi
# The daemon pings every half period; a period below a few seconds would kill
# it during its start-up (up to 5 s for the broker connection).
if [ -z "$watchdog" ] || [ "$watchdog" -lt 10 ]; then
    fail "WatchdogSec '${watchdog}' is not a period of at least 10 s"
fi

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "PASS"
