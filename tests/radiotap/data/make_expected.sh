#!/usr/bin/env bash
# Regenerates expected.tsv, the per-frame reference the frame parser is checked against,
# with tshark (an independent dissector). Run once by hand when captures are added; the
# tests themselves never need tshark. Columns: file, frame number, type/subtype, DS bits,
# transmitter, receiver, bad-FCS flag, dBm signals (comma separated), channel MHz.
set -euo pipefail
cd "$(dirname "$0")"
caps=${1:-../../../../shared/data/captures}
out=expected.tsv
: > "$out"
for f in "$caps"/*.pcap; do
    name=$(basename "$f")
    tshark -r "$f" -n -T fields -E separator=/t -E occurrence=a -E aggregator=, \
        -e frame.number -e wlan.fc.type_subtype -e wlan.fc.ds -e wlan.ta -e wlan.ra \
        -e radiotap.flags.badfcs -e radiotap.dbm_antsignal -e radiotap.channel.freq |
        sed "s|^|$name\t|" >> "$out"
done
wc -l "$out"
