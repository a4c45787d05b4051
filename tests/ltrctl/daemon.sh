# Sourced by the ltrctl scripts (which set ltrd and tmp): daemons of their own
# instance, killed and their settings segments removed at exit.
pids=() keys=()
cleanup() {
    local p k
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
    for k in "${keys[@]}"; do ipcrm -M "$k" 2>/dev/null || true; done
    rm -rf "$tmp"
}
trap cleanup EXIT
# start_ltrd NAME N IP [TOML LINE...]: ltrd NAME at IP, MAC ...:0N; its socket becomes $sock.
start_ltrd() {
    local inst="ltr-$1-$$" s h=2166136261 i c
    s="$inst:66049"  # the settings segment's key, as the runtime mixes it with the instance
    for ((i = 0; i < ${#s}; i++)); do printf -v c '%d' "'${s:i:1}"; h=$(((h ^ c) * 16777619 & 0xffffffff)); done
    ((h == 0 || h == 0xffffffff)) && h=1
    keys+=("$h")
    ipcrm -M "$h" 2>/dev/null || true
    printf '%s\n' "instance = \"$inst\"" "runtime_dir = \"$tmp/$1\"" "foreground = true" "[log]" "syslog = false" \
        "file = \"$tmp/$1.log\"" "[mgt]" "mac = \"02:00:00:00:00:0$2\"" "ip = \"$3\"" "[neighbours]" \
        "bind = \"$3\"" "${@:4}" "[store]" "dir = \"$tmp/$1/store\"" > "$tmp/$1.toml"
    QZ_PLATFORM_CONFIG="$tmp/$1.toml" "$ltrd" &
    pids+=($!)
    sock="$tmp/$1/cli.sock"
    for _ in $(seq 100); do [ -S "$sock" ] && return 0; sleep 0.1; done
    return 1
}
