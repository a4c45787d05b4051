#!/usr/bin/env bash
# Throughput of the pcap driver's per-frame path on one capture, in one run: frames per
# second against a bare libpcap read loop over the same file (bench_pcap), and against
# tshark extracting the same three fields (transmitter, first dBm signal, channel).
# Builds nothing. Aims: at least 50 % of the bare loop, at least 20 times tshark.
# Usage: bench/pcap.sh [PATH/TO/bench_pcap] [CAPTURE]
#   default: build/release/bench/bench_pcap, the largest file of ../shared/data/captures
set -euo pipefail
cd "$(dirname "$0")/.."

bench=${1:-build/release/bench/bench_pcap}
capture=${2:-$(ls -S ../shared/data/captures/*.pcap* 2>/dev/null | head -n 1)}
[ -x "$bench" ] || { echo "$bench: not built (cmake --build build/release --target bench_pcap)" >&2; exit 1; }
[ -n "$capture" ] && [ -r "$capture" ] || { echo "no capture to read (give one)" >&2; exit 1; }

echo "== $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
out=$("$bench" "$capture")
echo "$out" | grep -v '^result '
res=$(echo "$out" | grep '^result ')
val() { echo "$res" | tr ' ' '\n' | sed -n "s/^$1=//p"; }
frames=$(val frames)
drv_cpu=$(val driver_cpu)
drv_wall=$(val driver_wall)
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f", a / b }'; }
pct() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f %%", 100 * a / b }'; }
echo "aim >= 50 % of the bare loop: $(pct "$drv_cpu" "$(val bare_cpu)") (CPU), $(pct "$drv_wall" "$(val bare_wall)") (wall)"

if ! command -v tshark >/dev/null; then
    echo "tshark: SKIPPED, not installed (apt-get install tshark); no tshark ratio"
    exit 0
fi
# Whole tshark processes, start-up included as it is part of using it; best of 3.
best_wall=1e30 best_cpu=1e30
TIMEFORMAT='%R %U %S'
for _ in 1 2 3; do
    t=$( { time tshark -r "$capture" -T fields -e wlan.ta -e radiotap.dbm_antsignal \
        -e radiotap.channel.freq >/dev/null 2>/dev/null; } 2>&1 )
    read -r wall user sys <<<"$t"
    best_wall=$(awk -v a="$best_wall" -v b="$wall" 'BEGIN { print (b < a ? b : a) }')
    best_cpu=$(awk -v a="$best_cpu" -v b="$user" -v c="$sys" 'BEGIN { print (b + c < a ? b + c : a) }')
done
ts_wall=$(awk -v f="$frames" -v t="$best_wall" 'BEGIN { printf "%.0f", f / (t > 0 ? t : 0.01) }')
ts_cpu=$(awk -v f="$frames" -v t="$best_cpu" 'BEGIN { printf "%.0f", f / (t > 0 ? t : 0.01) }')
printf '%-22s %12s frames/s (CPU)  %12s frames/s (wall)  (whole process, %s s wall)\n' \
    "tshark -T fields" "$ts_cpu" "$ts_wall" "$best_wall"
echo "aim >= 20x tshark: $(ratio "$drv_cpu" "$ts_cpu")x (CPU), $(ratio "$drv_wall" "$ts_wall")x (wall)"

# The same with tshark's start-up spread over 10 copies of the file, for its per-frame cost.
if command -v mergecap >/dev/null; then
    tmp=$(mktemp /tmp/pcap-bench.XXXXXX.pcap)
    trap 'rm -f "$tmp"' EXIT
    copies=()
    for _ in $(seq 10); do copies+=("$capture"); done
    mergecap -a -F pcap -w "$tmp" "${copies[@]}"
    t=$( { time tshark -r "$tmp" -T fields -e wlan.ta -e radiotap.dbm_antsignal \
        -e radiotap.channel.freq >/dev/null 2>/dev/null; } 2>&1 )
    read -r wall user sys <<<"$t"
    ts10=$(awk -v f="$frames" -v u="$user" -v s="$sys" 'BEGIN { printf "%.0f", 10 * f / (u + s) }')
    printf '%-22s %12s frames/s (CPU)  (10 copies in one process, %s s wall)\n' "tshark, 10 copies" "$ts10" "$wall"
    echo "driver against it: $(ratio "$drv_cpu" "$ts10")x (CPU)"
fi
