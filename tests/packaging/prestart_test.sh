#!/bin/bash
# The unit's start-up helper (dist/ipcd-prestart), one table per command:
# wait-for-broker against a private mosquitto (up, stopped with SIGSTOP, gone)
# and settings ipcd must refuse itself, and grant-queue-ports with a setfacl
# stand-in that records its calls. Every case writes its own configuration
# file, the way ipcd reads one.
#
# usage: prestart_test.sh PRESTART IPCD_CTL
set -u

prestart=$1
export IPCD_CTL=$2
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

tmp=$(mktemp -d)
broker=
cleanup() {
    [ -n "$broker" ] && kill -CONT "$broker" 2>/dev/null && kill "$broker" 2>/dev/null
    rm -rf "$tmp"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
port=$(free_port)
closed=$(free_port)
printf 'listener %s 127.0.0.1\nallow_anonymous true\n' "$port" >"$tmp/mosquitto.conf"
/usr/sbin/mosquitto -c "$tmp/mosquitto.conf" 2>"$tmp/mosquitto.log" &
broker=$!
for _ in $(seq 100); do
    "$IPCD_CTL" -H 127.0.0.1 -p "$port" ping >/dev/null 2>&1 && break
    sleep 0.1
done

# run NAME EXPECTED_RC EXPECTED_STDERR_REGEX(or -) CONFIG_TEXT -- ARGS...
# The configuration text goes through printf's %b, so \n separates lines.
run() {
    local name=$1 want_rc=$2 want_err=$3 text=$4
    shift 5
    printf '%b' "$text" >"$tmp/$name.conf"
    local err rc
    err=$("$prestart" "$@" "$tmp/$name.conf" 2>&1 >/dev/null)
    rc=$?
    if [ "$rc" != "$want_rc" ]; then
        fail "$name: status $rc, expected $want_rc${err:+ ($err)}"
    elif [ "$want_err" = - ]; then
        [ -z "$err" ] || fail "$name: expected no output, got: $err"
    elif ! grep -qE -- "$want_err" <<<"$err"; then
        fail "$name: expected a line matching '$want_err', got: ${err:-nothing}"
    fi
}

# --- wait-for-broker ------------------------------------------------------
# name            status  stderr  configuration
run up            0 - "host=127.0.0.1\nport=$port\n" -- wait-for-broker 5
# Gone, or stopped (it still accepts TCP connections, but never answers):
# a failure after the wait that says why.
start=$SECONDS
run gone          1 "after 1 s \(.*Connection refused\); ipcd is started once it does" \
    "host=127.0.0.1\nport=$closed\n" -- wait-for-broker 1
[ $((SECONDS - start)) -ge 1 ] || fail "gone: gave up before its second"
kill -STOP "$broker"
run stopped       1 "no CONNACK" "host=127.0.0.1\nport=$port\n" -- wait-for-broker 0
kill -CONT "$broker"
# Settings that cannot work are ipcd's to refuse (status 1, with the key
# named); waiting for them would only hide that behind retries.
run port_not_number 0 - "host=127.0.0.1\nport=18x3\n" -- wait-for-broker 5
run empty_host    0 - "host=\nport=$port\n" -- wait-for-broker 5
run usage_no_seconds 2 usage "" -- wait-for-broker x

# --- grant-queue-ports --------------------------------------------------------
mkdir -p "$tmp/bin" "$tmp/dev"
cat >"$tmp/bin/setfacl" <<EOF
#!/bin/sh
echo "\$*" >>"$tmp/setfacl.calls"
[ ! -e "$tmp/setfacl.fails" ]
EOF
chmod +x "$tmp/bin/setfacl"
touch "$tmp/dev/rx" "$tmp/dev/tx"
export PATH="$tmp/bin:$PATH"
# grant NAME STATUS STDERR CONFIG EXPECTED_CALLS (one per line, in order)
grant() {
    local name=$1 want_calls=$5
    rm -f "$tmp/setfacl.calls"
    run "$1" "$2" "$3" "$4" -- grant-queue-ports ipcd
    local calls
    calls=$(cat "$tmp/setfacl.calls" 2>/dev/null)
    [ "$calls" = "$(printf '%b' "$want_calls")" ] ||
        fail "$name: setfacl calls were '${calls}', expected '$(printf '%b' "$want_calls")'"
}
# RX is only read and TX only written: each gets just that.
grant both_ports       0 - "queue_rx=$tmp/dev/rx\nqueue_tx = $tmp/dev/tx\n" \
    "-m u:ipcd:r -- $tmp/dev/rx\n-m u:ipcd:w -- $tmp/dev/tx"
grant tx_missing       0 - "queue_rx=$tmp/dev/rx\nqueue_tx=$tmp/dev/none\n" \
    "-m u:ipcd:r -- $tmp/dev/rx"
grant defaults_absent  0 - "# nothing set: the /dev/qport defaults, absent here\n" ""
touch "$tmp/setfacl.fails"
grant setfacl_fails    0 "cannot give ipcd access to $tmp/dev/rx" \
    "queue_rx=$tmp/dev/rx\nqueue_tx=$tmp/dev/none\n" "-m u:ipcd:r -- $tmp/dev/rx"

[ $failures -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "PASS"
