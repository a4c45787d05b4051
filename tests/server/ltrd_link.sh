#!/usr/bin/env bash
# ltr-server driving a running ltrd over loopback: each request answered as
# docs/protocol.md says, and the daemon ends cleanly on SIGTERM.
# Usage: ltrd_link.sh LTRD LTRCTL LTR_SERVER
set -euo pipefail
ltrd=$1 ltrctl=$2 srv=$3
dir=$(mktemp -d /tmp/ltrd-link.XXXXXX)
pid=
cleanup() {
    [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
    rm -rf "$dir"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    echo "--- ltr-server output" >&2; cat "$dir/out.jsonl" >&2 || true
    echo "--- ltrd log" >&2; tail -40 "$dir/ltrd.log" >&2 || true
    exit 1
}

port=$((20000 + $$ % 20000))
mkdir -p "$dir/store"
cat > "$dir/p.toml" <<TOML
instance = "srvlink$$"
runtime_dir = "$dir/run"
foreground = true
[log]
syslog = false
stderr = true
[mgt]
mac = "02:11:22:33:44:55"
ip = "127.0.0.1"
[server]
address = "127.0.0.1:$port"
[neighbours]
port = $((port + 1))
bind = "127.0.0.1"
[store]
dir = "$dir/store"
TOML

QZ_PLATFORM_CONFIG=$dir/p.toml "$ltrd" > "$dir/ltrd.log" 2>&1 &
pid=$!
for _ in $(seq 100); do [ -S "$dir/run/cli.sock" ] && break; sleep 0.1; done
"$ltrctl" -s "$dir/run/cli.sock" location-tracking enable > /dev/null || fail "enable refused"

# The daemon found no server at start and is backing off: allow for a few rounds.
"$srv" --json --listen "127.0.0.1:$port" \
    "wait-ap 1 40" \
    "start all interval=30 threshold=5 mac=00:11:22:33:44:55 oui=00:50:f2" \
    "query all mac=all" \
    "modify all valid=90" \
    "send all 9" \
    "raw all 0002000000770000000006000100090000" \
    "raw all 00020000" \
    "wait-reply 10" \
    "stop all mac=all" \
    "wait-reply 10" > "$dir/out.jsonl" || fail "ltr-server exit status $?"

expect() { grep -q -- "$1" "$dir/out.jsonl" || fail "no line matching: $1"; }
expect '"event":"hello","ap":"srvlink'"$$"'","ap_id":1,"ap_mac":"02:11:22:33:44:55","ap_ip":"127.0.0.1"'
expect '"op":"ack","msg_id":"0x00000001".*"ack_code":0,'
expect '"op":"rssi report","msg_id":"0x00000002","len":6,"tlv_num":0'
expect '"op":"ack","msg_id":"0x00000003".*"ack_code":0,'
expect '"op":"ack","msg_id":"0x00000004".*"ack_code":2,'
expect '"op":"ack","msg_id":"0x00000077".*"ack_code":5,'
expect '"op":"ack","msg_id":"0x00000005".*"ack_code":0,'
# The 4-byte message is dropped without an answer, and nothing fails to decode.
[ "$(grep -c '"event":"message"' "$dir/out.jsonl")" = 6 ] || fail "expected exactly 6 replies"
if grep -q '"error"' "$dir/out.jsonl"; then fail "a reply did not decode"; fi

kill -TERM "$pid"
status=0
wait "$pid" || status=$?
pid=
[ "$status" = 0 ] || fail "ltrd exit status $status after SIGTERM"
echo "ok"
