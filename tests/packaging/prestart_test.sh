#!/bin/bash
# The unit's start-up helper: wait-for-broker against a private mosquitto, and
# grant-queue-ports with a setfacl stand-in that records its calls.
#
# usage: prestart_test.sh PRESTART IPCD_CTL
set -u
prestart=$1
export IPCD_CTL=$2
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
tmp=$(mktemp -d)
trap 'kill -CONT $broker; kill $broker; rm -rf "$tmp"' EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
port=$(free_port) closed=$(free_port)
printf 'listener %s 127.0.0.1\nallow_anonymous true\n' "$port" >"$tmp/mosquitto.conf"
/usr/sbin/mosquitto -c "$tmp/mosquitto.conf" 2>/dev/null &
broker=$!
for _ in $(seq 100); do "$IPCD_CTL" -H 127.0.0.1 -p "$port" ping >/dev/null 2>&1 && break; sleep 0.1; done

# run NAME STATUS STDERR_PATTERN(- for none) CONFIG_TEXT(printf %b) ARGS...
run() {
    local name=$1 want_rc=$2 want_err=$3
    printf '%b' "$4" >"$tmp/$name.conf"
    shift 4
    local err rc
    err=$("$prestart" "$@" "$tmp/$name.conf" 2>&1 >/dev/null)
    rc=$?
    if [ "$rc" != "$want_rc" ]; then
        fail "$name: status $rc, expected $want_rc${err:+ ($err)}"
    elif [ "$want_err" = - ] && [ -n "$err" ] || ! grep -qE -- "${want_err#-}" <<<"${err:-}"; then
        fail "$name: expected '$want_err', got: ${err:-nothing}"
    fi
}
# Gone or stopped (TCP accepted, never answered): a failure that says why.
# Settings ipcd cannot use are its own to refuse: left to it, not retried.
run up 0 - "host=127.0.0.1\nport=$port\n" wait-for-broker 5
run gone 1 "after 1 s \(.*Connection refused\); ipcd is started once it does" \
    "host=127.0.0.1\nport=$closed\n" wait-for-broker 1
kill -STOP "$broker"
run stopped 1 "no CONNACK" "host=127.0.0.1\nport=$port\n" wait-for-broker 0
kill -CONT "$broker"
run port_not_number 0 - "host=127.0.0.1\nport=18x3\n" wait-for-broker 5

mkdir "$tmp/bin" "$tmp/dev"
printf '#!/bin/sh\necho "$*" >>%s/calls\n[ ! -e %s/fails ]\n' "$tmp" "$tmp" >"$tmp/bin/setfacl"
chmod +x "$tmp/bin/setfacl"
touch "$tmp/dev/rx" "$tmp/dev/tx"
export PATH="$tmp/bin:$PATH"
# grant NAME STATUS STDERR CONFIG EXPECTED_CALLS: RX only read, TX only written.
grant() {
    rm -f "$tmp/calls"
    run "$1" "$2" "$3" "$4" grant-queue-ports ipcd
    [ "$(cat "$tmp/calls" 2>/dev/null)" = "$(printf '%b' "$5")" ] ||
        fail "$1: setfacl calls were '$(cat "$tmp/calls" 2>/dev/null)'"
}
grant both 0 - "queue_rx=$tmp/dev/rx\nqueue_tx = $tmp/dev/tx\n" \
    "-m u:ipcd:r -- $tmp/dev/rx\n-m u:ipcd:w -- $tmp/dev/tx"
grant tx_missing 0 - "queue_rx=$tmp/dev/rx\nqueue_tx=$tmp/dev/none\n" "-m u:ipcd:r -- $tmp/dev/rx"
touch "$tmp/fails"
grant setfacl_fails 0 "cannot give ipcd access to $tmp/dev/rx" \
    "queue_rx=$tmp/dev/rx\nqueue_tx=$tmp/dev/none\n" "-m u:ipcd:r -- $tmp/dev/rx"

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo PASS
