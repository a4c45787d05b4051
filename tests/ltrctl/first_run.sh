#!/usr/bin/env bash
# What a new user meets first: the entry options of each program, and a daemon that
# cannot start saying why on the terminal even with no syslog to write to.
# usage: first_run.sh LTRD LTRCTL LTR_SERVER
set -uo pipefail
ltrd=$1 ltrctl=$2 server=$3 tmp=$(mktemp -d /tmp/ltr_first_run.XXXXXX)
source "$(dirname "$0")/daemon.sh"
bad=0
fail() { echo "FAIL: $*" >&2; bad=1; }
# expect STATUS PATTERN CMD...: runs CMD, checks its status and that its output
# (stdout and stderr) matches the extended regex PATTERN.
expect() {
    local want=$1 pat=$2 out st
    shift 2
    out=$("$@" 2>&1 </dev/null)
    st=$?
    [ "$st" = "$want" ] || fail "$* exited $st, not $want: $out"
    grep -Eq -- "$pat" <<<"$out" || fail "$* printed no /$pat/: $out"
}

# ltrd: options belong to the runtime's entry, before any start-up step.
export QZ_PLATFORM_CONFIG=$tmp/none.toml
expect 0 '^usage: ltrd' "$ltrd" --help
expect 0 '^ltrd [0-9]+\.[0-9]+' "$ltrd" --version
expect 2 'unknown option --bogus' "$ltrd" --bogus
expect 1 "$tmp/missing.toml: No such file" "$ltrd" --config="$tmp/missing.toml"
printf '%s\n' 'foreground = true' "runtime_dir = \"$tmp/run\"" '[mgt]' 'interface = "nosuch0"' \
    '[log]' 'syslog = true' '[store]' "dir = \"$tmp/store\"" > "$tmp/p.toml"
expect 0 "$tmp/p.toml: configuration ok" "$ltrd" -c "$tmp/p.toml" --check-config
printf 'bogus = 1\n' > "$tmp/bad.toml"
expect 1 'configuration error: .*bad.toml:1: bogus' "$ltrd" --check-config --config "$tmp/bad.toml"
# A site key that is configured but missing or empty stops the start, naming both.
: > "$tmp/empty.key"
for k in missing empty; do
    printf '%s\n' 'foreground = true' '[neighbours]' "key_file = \"$tmp/$k.key\"" > "$tmp/k.toml"
    expect 1 "configuration error: .*k.toml:3: neighbours.key_file: $tmp/$k.key: " "$ltrd" -n -c "$tmp/k.toml"
done

# No syslog socket here, or one nobody reads: the start-up error reaches stderr, and
# the runtime's line names the interface and its key.
expect 1 'management interface nosuch0 \(key mgt.interface in .*p.toml\).*no such interface' \
    env QZ_PLATFORM_CONFIG="$tmp/p.toml" "$ltrd"
expect 1 'init ltd failed!' env QZ_PLATFORM_CONFIG="$tmp/p.toml" "$ltrd"
# Under systemd stderr is the journal already (JOURNAL_STREAM): no second copy there.
: > "$tmp/journal"
JOURNAL_STREAM=$(stat -c %d:%i "$tmp/journal") QZ_PLATFORM_CONFIG="$tmp/p.toml" "$ltrd" 2>>"$tmp/journal"
! grep -q 'init ltd failed' "$tmp/journal" || fail "start-up error copied onto the journal's stream"

# ltrctl: --opt=value as well as --opt value, a version, and what may follow a word.
expect 0 '^ltrctl [0-9]+\.[0-9]+' "$ltrctl" --version
expect 3 "connect.*$tmp/no.sock" "$ltrctl" --socket="$tmp/no.sock" --timeout=2 status
expect 2 "'show' is incomplete; it goes on with: location-tracking, running-config" "$ltrctl" -s "$tmp/no.sock" show
expect 2 'unknown option --sockets' "$ltrctl" --sockets=x status
expect 2 '01:00:5e:00:00:01 is a group' "$ltrctl" -s "$tmp/no.sock" location-tracking mac 01:00:5e:00:00:01

# ltr-server: the same option forms, a version, and no group address as a station.
expect 0 '^ltr-server [0-9]+\.[0-9]+' "$server" --version
expect 0 'listening on 127\.0\.0\.1:0' "$server" --listen=127.0.0.1:0 --duration=0.1
expect 2 'unknown option --bogus' "$server" --bogus
expect 1 '01:00:5e:00:00:01 is a group \(multicast or broadcast\) address, not a station' \
    "$server" --listen=127.0.0.1:0 'start all mac=01:00:5e:00:00:01'

# Bash completion: the words that may follow, from the ltrctl it completes for.
complete_words() { # words typed, the last one being completed
    bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _ltrctl; echo "${COMPREPLY[*]}"' \
        _ "$(dirname "$0")/../../tools/ltrctl/ltrctl.bash" "$ltrctl" "${@}"
}
expect 0 '^location-tracking running-config$' complete_words show ''
expect 0 '^location-tracking debug$' complete_words no ''
expect 0 '^mac$' complete_words -s x no location-tracking m
expect 0 '^report-interval rssi-threshold$' complete_words location-tracking r
expect 0 '^event$' complete_words debug location-tracking ev
expect 0 '^--json$' complete_words --j

# A daemon with one simulated radio: removing a station or OUI that is not tracked is
# done already, as the radio sees it.
ip=127.79.$(($$ % 250 + 1)).9 # apart from other tests running meanwhile
start_ltrd fr 9 "$ip" "port = $((20000 + $$ % 30000))" '[[radio]]' 'name = "lo"' 'driver = "sim"' || fail "ltrd: no cli.sock"
ctl() { "$ltrctl" -s "$sock" "$@"; }
ctl location-tracking enable || fail "enable"
expect 0 '^$' ctl no location-tracking mac 02:11:22:33:44:55
expect 0 '^$' ctl no location-tracking oui 02:11:22
expect 0 'station list no node: +1' ctl show location-tracking driver-stats
# --json: every show and the status as one JSON document each.
ctl location-tracking mac 02:11:22:33:44:55 || fail "add a MAC"
for w in "" track-list rssi "rssi mac 02:11:22:33:44:55" "rssi oui 02:11:22" state driver-stats; do
    ctl --json show location-tracking $w > "$tmp/out.json" || fail "--json show location-tracking $w"
    python3 -c 'import json, sys; json.load(open(sys.argv[1]))' "$tmp/out.json" ||
        fail "--json show location-tracking $w: $(cat "$tmp/out.json")"
done
expect 0 '^\{"cli\.commands":[0-9]+,' ctl --json status
expect 0 '"entries":\[\{"type":"mac","address":"02:11:22:33:44:55"\}\]' ctl --json show location-tracking track-list
expect 0 '"station_list_no_node":1' ctl --json show location-tracking driver-stats
expect 0 '^\{"result":0,"commands":\["location-tracking enable","location-tracking mac 02:11:22:33:44:55"\]' \
    ctl --json show running-config
ctl no location-tracking enable
expect 1 '^\{"result":-?[0-9]+,"text":"ERROR: ' ctl --json location-tracking mac 02:11:22:33:44:56

exit $bad
