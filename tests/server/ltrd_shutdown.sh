#!/usr/bin/env bash
# SIGTERM at varied moments of a loaded, keyed ltrd: every run exits 0 and, in a
# sanitizer build, reports nothing (no use after free, no leak at exit).
# Usage: ltrd_shutdown.sh LTRD LTRCTL RUNS [SEED]
set -euo pipefail
ltrd=$1 ltrctl=$2 runs=$3 seed=${4:-$$} dir=$(mktemp -d /tmp/ltrd-shutdown.XXXXXX) pid=
first=
# The settings segment made by the first run goes too.
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    [ -n "$first" ] && ipcs -m -p 2>/dev/null | awk -v p="$first" '$3 == p { print $1 }' |
        xargs -r -n1 ipcrm -m 2>/dev/null
    rm -rf "$dir"
}
trap cleanup EXIT
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=1"
echo "seed $seed"
RANDOM=$seed
port=$((20000 + $$ % 20000))
printf 'site key of the shutdown test\n' > "$dir/site.key"
chmod 600 "$dir/site.key"
# Two hundred stations around this access point: every cycle has work to do.
{
    printf '[model]\nref_rssi = -40.0\nexponent = 3.0\nnoise = 2.0\nfloor = -90\n'
    printf '[[ap]]\nname = "ap1"\nposition = [0.0, 0.0]\nradios = [2412]\n'
    for i in $(seq 200); do
        printf '[[station]]\nmac = "02:00:00:00:%02x:%02x"\nposition = [%d.0, %d.0]\n' \
            $((i / 256)) $((i % 256)) $((i % 20)) $((i / 20))
    done
} > "$dir/world.toml"
# The peer never answers: owner queries go out tagged and time out, so the owner,
# neighbour and timer threads all use the key while the stop comes.
printf '%s\n' "instance = \"shutdown$$\"" "runtime_dir = \"$dir/run\"" "foreground = true" \
    "[log]" "syslog = false" "stderr = true" \
    "[mgt]" "mac = \"02:11:22:33:44:66\"" "ip = \"127.0.0.1\"" \
    "[server]" "address = \"127.0.0.1:$port\"" "[neighbours]" "port = $((port + 1))" \
    "bind = \"127.0.0.1\"" "peers = [\"127.0.0.2\"]" "key_file = \"$dir/site.key\"" \
    "[store]" "dir = \"$dir/store\"" "[sim]" "world = \"$dir/world.toml\"" "ap = \"ap1\"" \
    "[[radio]]" "name = \"lo\"" "driver = \"sim\"" > "$dir/p.toml"
for run in $(seq "$runs"); do
    QZ_PLATFORM_CONFIG=$dir/p.toml "$ltrd" > "$dir/ltrd.log" 2>&1 &
    pid=$!
    first=${first:-$pid}
    for _ in $(seq 200); do [ -S "$dir/run/cli.sock" ] && break; sleep 0.05; done
    # The settings outlive the process (shared memory): the first run sets them once.
    if [ "$run" = 1 ]; then
        printf '%s\n' 'location-tracking enable' 'location-tracking report-interval 1' \
            'no location-tracking list-match' | "$ltrctl" -s "$dir/run/cli.sock" -f - > /dev/null ||
            { cat "$dir/ltrd.log"; exit 1; }
    fi
    sleep "$((RANDOM % 1500 / 1000)).$(printf '%03d' $((RANDOM % 1000)))"
    kill -TERM "$pid"
    status=0
    wait "$pid" || status=$?
    pid=
    if [ "$status" != 0 ] || grep -qE 'Sanitizer|runtime error:' "$dir/ltrd.log"; then
        echo "FAIL: run $run: exit status $status" >&2
        cat "$dir/ltrd.log" >&2
        exit 1
    fi
done
echo "ok: $runs runs"
