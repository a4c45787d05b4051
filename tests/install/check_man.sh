#!/usr/bin/env bash
# The man pages keep up with the programs and the docs: every long option of
# `ltrctl --help` and `ltr-server --help`, every command of `ltrctl help` and of
# ltr-server's command list, and every table and key of docs/configuration.md appear in
# their page's source.
# Usage: check_man.sh SOURCE_DIR LTRCTL LTR_SERVER
set -uo pipefail
src=$1 ltrctl=$2 server=$3
bad=0
# page, text (plain words, as the page shows them after its markup is gone), what
want() {
    local plain
    plain=$(sed -E -e 's/[*\\]//g' -e 's/(^|[^[:alnum:]])_/\1/g; s/_([^[:alnum:]]|$)/\1/g' \
                "$src/man/$1")
    if ! grep -qF -- "$2" <<<"$plain"; then
        echo "man/$1 does not mention $3 \"$2\""
        bad=1
    fi
}

opts() { grep -oE -- '--[a-z][a-z-]+' | sort -u; }
for o in $("$ltrctl" --help 2>&1 | opts); do want ltrctl.8.scd "$o" option; done
for o in $("$server" --help 2>&1 | sed '/^commands/,$d' | opts); do
    want ltr-server.1.scd "$o" option
done

# "  [no] show location-tracking rssi mac <mac>   what": the words before the argument.
while IFS= read -r cmd; do
    want ltrctl.8.scd "$cmd" command
done < <("$ltrctl" help | sed -nE 's/^  (\[no\] )?([a-z][a-z -]*[a-z]).*/\2/p' |
         sed -E 's/  .*//; s/ <.*//')
[ -n "$("$ltrctl" help)" ] || { echo "ltrctl help printed nothing"; bad=1; }

# ltr-server's commands: the first word of each line of its list, and the ones after "|".
while IFS= read -r cmd; do
    want ltr-server.1.scd "$cmd" command
done < <("$server" --help | sed -n '/^commands/,/^TARGET/p' | sed '1d;$d' |
         sed -E 's/^ +//; s/  .*//' | tr '|' '\n' | awk 'NF {print $1}')

conf=$src/docs/configuration.md
while IFS= read -r table; do
    want qz-platform.toml.5.scd "$table" table
done < <(sed -nE 's/^## `(\[.*\])`.*/\1/p' "$conf")
# Rows "| `key` | ..." and, in the drivers' table, "| `driver` | `key` | ...".
while IFS= read -r key; do
    want qz-platform.toml.5.scd "$key" key
done < <(sed -nE -e 's/^\| `(sim|pcap)` \| `([a-z_]+)` \|.*/\2/p' \
                -e '/^\| `(sim|pcap)` \|/!s/^\| `([a-z_]+)` \|.*/\1/p' "$conf")
exit $bad
