#!/usr/bin/env bash
# Start-up figures of ltrd: median time from exec to the first readiness poll, and
# the idle resident memory (VmRSS) of the whole process. Builds nothing.
# Usage: bench/startup.sh PATH/TO/ltrd [RUNS]
set -euo pipefail

ltrd=${1:?usage: $0 PATH/TO/ltrd [RUNS]}
runs=${2:-7}
[ -x "$ltrd" ] || { echo "$ltrd: not executable" >&2; exit 1; }

dir=$(mktemp -d /tmp/ltrd-startup.XXXXXX)
instance="startup-$$"
pid=
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null || true
    # The settings segment outlives the daemon; this instance's is not wanted.
    key=$(python3 - "$instance" <<'PY'
import sys
h = 2166136261
for b in (sys.argv[1] + ":" + str(0x10201)).encode():
    h = ((h ^ b) * 16777619) & 0xffffffff
print(hex(h))
PY
)
    ipcrm -M "$key" 2>/dev/null || true
    rm -rf "$dir"
}
trap cleanup EXIT

cat >"$dir/platform.toml" <<TOML
instance = "$instance"
runtime_dir = "$dir/run"
foreground = true
[log]
syslog = false
file = "$dir/log"
[mgt]
mac = "02:00:00:00:51:01"
ip = "127.0.0.1"
[neighbours]
bind = "127.0.0.1"
port = $((20000 + $$ % 20000))
TOML

# Milliseconds between a start time (ns since the epoch) and a log line's stamp.
elapsed_ms() {
    python3 - "$1" "$2" <<'PY'
import sys, datetime
start_ns, line = int(sys.argv[1]), sys.argv[2]
t = datetime.datetime.strptime(line.split(" ")[0], "%Y-%m-%dT%H:%M:%S.%f").timestamp()
print("%.1f" % (t * 1000 - start_ns / 1e6))
PY
}

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'; }

times=()
rss=()
anon=()
for i in $(seq "$runs"); do
    rm -f "$dir/log"
    start=$(date +%s%N)
    QZ_PLATFORM_CONFIG="$dir/platform.toml" "$ltrd" 2>/dev/null &
    pid=$!
    line=
    for _ in $(seq 500); do
        line=$(grep -m1 'first readiness poll' "$dir/log" 2>/dev/null || true)
        [ -n "$line" ] && break
        sleep 0.01
    done
    [ -n "$line" ] || { echo "run $i: no readiness poll within 5 s (see $dir/log)" >&2; exit 1; }
    times+=("$(elapsed_ms "$start" "$line")")
    sleep 1 # idle
    rss+=("$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status")")
    anon+=("$(awk '/^RssAnon:/ {print $2}' "/proc/$pid/status")")
    kill -INT "$pid"
    status=0
    wait "$pid" || status=$?
    pid=
    [ "$status" -eq 0 ] || { echo "run $i: ltrd exited with status $status after SIGINT" >&2; exit 1; }
done

t=$(printf '%s\n' "${times[@]}" | median)
r=$(printf '%s\n' "${rss[@]}" | median)
a=$(printf '%s\n' "${anon[@]}" | median)
echo "runs:                       $runs"
echo "start to first readiness:   ${t} ms (median; runs: ${times[*]})"
echo "idle VmRSS:                 ${r} KiB (median; aim below 4096)"
echo "  of which private (RssAnon): ${a} KiB; the rest are shared-library pages"
