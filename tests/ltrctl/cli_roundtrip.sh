#!/usr/bin/env bash
# Save and replay: configure a running ltrd with ltrctl, save `show running-config`,
# start a fresh ltrd (its own instance, so fresh settings and store), replay the saved
# file, and compare configuration and shows. Needs the whole daemon and runtime.
# usage: cli_roundtrip.sh LTRD LTRCTL
set -euo pipefail
ltrd=$1
ltrctl=$2
tmp=$(mktemp -d /tmp/ltr_roundtrip.XXXXXX)
pids=()
instances=()

# The settings segment's key, as the runtime mixes it with the instance name.
shm_key() { # instance
    local s="$1:66049" h=2166136261 i c
    for ((i = 0; i < ${#s}; i++)); do
        printf -v c '%d' "'${s:i:1}"
        h=$(((h ^ c) * 16777619 & 0xffffffff))
    done
    ((h == 0 || h == 0xffffffff)) && h=1
    echo "$h"
}

cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
    for i in "${instances[@]}"; do ipcrm -M "$(shm_key "$i")" 2>/dev/null || true; done
    rm -rf "$tmp"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    for f in "$tmp"/*.log; do echo "--- $f" >&2; tail -20 "$f" >&2; done
    exit 1
}

start() { # name -> socket path on stdout
    local name=$1 inst="ltrrt-$1-$$"
    instances+=("$inst")
    mkdir -p "$tmp/$name"
    cat > "$tmp/$name.toml" <<CFG
instance = "$inst"
runtime_dir = "$tmp/$name"
foreground = true
[log]
syslog = false
file = "$tmp/$name.log"
[mgt]
mac = "02:00:00:00:00:0${#instances[@]}"
ip = "127.0.77.${#instances[@]}"
[neighbours]
bind = "127.0.77.${#instances[@]}"
[store]
dir = "$tmp/$name/store"
CFG
    ipcrm -M "$(shm_key "$inst")" 2>/dev/null || true
    QZ_PLATFORM_CONFIG="$tmp/$name.toml" "$ltrd" &
    pids+=($!)
    for _ in $(seq 100); do
        [ -S "$tmp/$name/cli.sock" ] && return 0
        kill -0 "${pids[-1]}" 2>/dev/null || fail "ltrd $name exited at start"
        sleep 0.1
    done
    fail "ltrd $name: no cli.sock after 10 s"
}

ctl() { "$ltrctl" -s "$sock" "$@"; }

# A configured daemon.
start A
sock="$tmp/A/cli.sock"
ctl location-tracking enable
ctl location-tracking suppress 5
ctl location-tracking report-interval 30
ctl location-tracking rssi-threshold 7
ctl location-tracking valid-period 120
ctl location-tracking hold-time 2
ctl location-tracking mac 00:11:22:33:44:55
ctl location-tracking oui f0-0d-0a
ctl location-tracking mac 0011.2233.4466
ctl no location-tracking list-match
ctl show running-config > "$tmp/A.conf" || fail "show running-config on A"
ctl show location-tracking > "$tmp/A.param"
ctl show location-tracking track-list > "$tmp/A.list"

cat > "$tmp/want.conf" <<'WANT'
location-tracking enable
location-tracking suppress 5
location-tracking report-interval 30
location-tracking rssi-threshold 7
location-tracking valid-period 120
location-tracking hold-time 2
location-tracking mac 00:11:22:33:44:55
location-tracking oui f0:0d:0a
location-tracking mac 00:11:22:33:44:66
no location-tracking list-match
WANT
diff -u "$tmp/want.conf" "$tmp/A.conf" || fail "saved configuration differs from what was set"

# A fresh daemon: defaults, then the replay.
start B
sock="$tmp/B/cli.sock"
ctl show running-config > "$tmp/B0.conf"
[ ! -s "$tmp/B0.conf" ] || fail "a fresh daemon has a configuration: $(cat "$tmp/B0.conf")"
ctl -f "$tmp/A.conf" || fail "replay on B"
ctl show running-config > "$tmp/B.conf"
ctl show location-tracking > "$tmp/B.param"
ctl show location-tracking track-list > "$tmp/B.list"
diff -u "$tmp/A.conf" "$tmp/B.conf" || fail "running configuration after replay"
diff -u "$tmp/A.param" "$tmp/B.param" || fail "parameters after replay"
diff -u "$tmp/A.list" "$tmp/B.list" || fail "tracking list after replay"

# Undo on B with the "no" forms: back to an empty configuration.
ctl no location-tracking mac
ctl no location-tracking oui
for w in suppress report-interval rssi-threshold valid-period hold-time; do
    ctl no location-tracking $w
done
ctl location-tracking list-match
ctl no location-tracking enable
ctl show running-config > "$tmp/B1.conf"
[ ! -s "$tmp/B1.conf" ] || fail "configuration left after undoing it: $(cat "$tmp/B1.conf")"
echo "cli round trip: 1 passed, 0 failed"
