#!/usr/bin/env bash
# Run by package_test.sh in new mount, network, IPC and PID namespaces: installs the
# packages into an overlay of / whose changes go to a tmpfs, runs them there and purges
# them, then checks the overlay's upper layer for anything they left behind.
# Usage: package_root.sh SCRATCH_DIR DEB... Exit 77: skipped.
set -euo pipefail
scratch=$1; shift
fail() { echo "FAIL: $*" >&2; exit 1; }

w=$scratch/root
mkdir -p "$w"
mount -t tmpfs tmpfs "$w"
mkdir "$w/upper" "$w/work" "$w/merged"
mount -t overlay overlay -o "lowerdir=/,upperdir=$w/upper,workdir=$w/work" "$w/merged" ||
    { echo "SKIPPED: this kernel cannot mount an overlay of /"; exit 77; }
r=$w/merged
mount -t proc proc "$r/proc"
mount -t sysfs sysfs "$r/sys"
mount --rbind /dev "$r/dev"
mount -t tmpfs tmpfs "$r/run"
mount -t tmpfs tmpfs "$r/tmp"
mount --bind "$scratch" "$r/mnt"

# The example configuration's interfaces: eth0 for management, wlan0 and wlan1 as
# simulated radios.
ip link set lo up
for i in eth0 wlan0 wlan1; do
    ip link add "$i" type dummy 2>/dev/null || ip link add "$i" type ifb 2>/dev/null ||
        { echo "SKIPPED: this kernel makes neither dummy nor ifb interfaces"; exit 77; }
    ip link set "$i" up
done
ip addr add 192.0.2.5/24 dev eth0

chroot "$r" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
    DEBIAN_FRONTEND=noninteractive /bin/bash -s -- "$@" <<'INNER'
set -euo pipefail
fail() { echo "FAIL: $*" >&2; [ ! -s /run/ltrd.log ] || tail -n 20 /run/ltrd.log >&2; exit 1; }
pkgs=(ltrd ltrctl ltr-server)

echo "-- apt-get install ${*/#/./}"
(cd /mnt && apt-get install -y -q --no-install-recommends "${@/#/./}") > /run/apt.log 2>&1 ||
    { cat /run/apt.log; fail "apt-get install failed"; }
unit=/lib/systemd/system/ltrd.service
[ -f "$unit" ] || fail "no $unit"
[ -L /etc/systemd/system/multi-user.target.wants/ltrd.service ] ||
    fail "the unit was not enabled on install"
# Each library a program links is a Depends of its package, so that a system without
# the build's libraries gets them with the package.
for p in "${pkgs[@]}"; do
    deps=$(dpkg-query -W -f='${Depends}' "$p" | tr ', ' '\n\n')
    for f in $(dpkg -L "$p" | grep -E '^/usr/s?bin/.'); do
        for so in $(readelf -d "$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            owner=$(dpkg -S "*/$so" 2>/dev/null | grep "/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/" |
                    head -n 1 | cut -d: -f1)
            [ -n "$owner" ] || fail "$f needs $so, which no package holds"
            grep -qxF "$owner" <<<"$deps" || fail "$p does not depend on $owner ($so, for $f)"
        done
    done
done
example=/usr/share/doc/ltrd/examples/platform.toml
[ -f "$example" ] || fail "no $example"

# The example as the operator would adapt it: a local server, no peers, the log in a
# file instead of syslog (there is no syslog here).
mkdir -p /etc/qz
sed -e 's/^syslog = true .*/syslog = false/' \
    -e 's|^# file = .*|file = "/run/ltrd.log"|' \
    -e 's/^address = .*/address = "127.0.0.1:7420"/' \
    -e 's/^peers = .*/peers = []/' "$example" > /etc/qz/platform.toml
for want in 'syslog = false' 'file = "/run/ltrd.log"' 'address = "127.0.0.1:7420"' 'peers = \[\]'; do
    grep -q "^$want" /etc/qz/platform.toml || fail "the example has no line to set $want"
done
head -c 32 /dev/urandom | base64 > /etc/qz/site.key
chmod 600 /etc/qz/site.key

mapfile -t envs < <(sed -n 's/^Environment=//p' "$unit")
# Enabled on install, the unit must not start the daemon before its configuration is
# written: without it ltrd takes the defaults and detaches.
cond=$(sed -n 's/^ConditionPathExists=//p' "$unit")
[ -n "$cond" ] && [[ " ${envs[*]} " == *"=$cond "* ]] ||
    fail "the unit starts without its configuration (ConditionPathExists=$cond)"
read -r -a exec_start < <(sed -n 's/^ExecStart=//p' "$unit")
[ ${#exec_start[@]} -gt 0 ] || fail "the unit has no ExecStart"
echo "-- start as the unit does: ${envs[*]} ${exec_start[*]}"

ltr-server --listen 127.0.0.1:7420 "wait-ap 1 30" list > /run/server.out 2>&1 &
server=$!
env "${envs[@]}" "${exec_start[@]}" > /run/ltrd.out 2>&1 &
daemon=$!

sock=/run/qz/default/cli.sock
for _ in $(seq 300); do
    [ -S "$sock" ] && break
    kill -0 $daemon 2>/dev/null || { cat /run/ltrd.out; fail "ltrd ended at start"; }
    sleep 0.1
done
[ -S "$sock" ] || fail "ltrd made no $sock within 30 s"

echo "-- ltrctl"
ltrctl location-tracking enable || fail "ltrctl location-tracking enable"
ltrctl location-tracking mac 00:11:22:33:44:55 || fail "ltrctl location-tracking mac"
config=$(ltrctl show running-config) || fail "ltrctl show running-config"
grep -qx 'location-tracking enable' <<<"$config" || fail "running-config: $config"
grep -qx 'location-tracking mac 00:11:22:33:44:55' <<<"$config" || fail "running-config: $config"
ltrctl show location-tracking > /dev/null || fail "ltrctl show location-tracking"

echo "-- ltr-server"
wait $server || { cat /run/server.out; fail "ltr-server saw no access point"; }
grep -q 'hello' /run/server.out || { cat /run/server.out; fail "ltr-server got no hello"; }

echo "-- man"
for page in ltrd ltrctl ltr-server qz-platform.toml; do
    man -w "$page" > /dev/null || fail "man finds no $page"
done
man -l "$(man -w ltrctl)" 2>/dev/null | grep -q "operator's command line" ||
    fail "man -l $(man -w ltrctl) does not show the page"

echo "-- stop"
kill -TERM $daemon
status=0
wait $daemon || status=$?
[ $status -eq 0 ] || { cat /run/ltrd.out; fail "ltrd exited $status on SIGTERM"; }

echo "-- remove, purge"
apt-get remove -y -q "${pkgs[@]}" > /run/apt.log 2>&1 || { cat /run/apt.log; fail "apt-get remove"; }
for f in /usr/sbin/ltrd /usr/bin/ltrctl /usr/bin/ltr-server "$unit"; do
    [ ! -e "$f" ] || fail "$f is still there after remove"
done
dpkg --purge "${pkgs[@]}" > /run/apt.log 2>&1 || { cat /run/apt.log; fail "dpkg --purge"; }
for p in "${pkgs[@]}"; do
    s=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
    [ -z "$s" ] || [ "$s" = not-installed ] || fail "$p is $s after purge"
done
rm -r /etc/qz
INNER

# What is left in the upper layer besides the package manager's records. A directory
# also in / was only copied up; a whiteout means a file of the system was deleted.
left=()
while IFS= read -r -d '' f; do
    rel=${f#"$w/upper/"}
    case "/$rel" in
        /var/lib/dpkg/* | /var/lib/apt/* | /var/log/* | /var/cache/apt/* | \
        /var/cache/man/* | /var/cache/debconf/* | /var/cache/ldconfig/* | /etc/ld.so.cache) continue ;;
    esac
    [ -d "$f" ] && [ ! -L "$f" ] && [ -d "/$rel" ] && continue
    left+=("/$rel")
done < <(find "$w/upper" -mindepth 1 -print0)
[ ${#left[@]} -eq 0 ] || fail "left after purge: ${left[*]}"
echo "-- nothing left after purge"
