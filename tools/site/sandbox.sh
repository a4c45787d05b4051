#!/bin/sh
# Runs a command (ltrd) with the restrictions of packaging/ltrd.service.in that a
# namespace can give without systemd: a read-only file system but for /tmp/db and the
# directory of $QZ_PLATFORM_CONFIG (the access point's own: store, sockets, log), the
# unit's three capabilities and no others, no new privileges, umask 077. The system
# call filter, address families and device policy are systemd's own and not applied.
# Usage: sandbox.sh COMMAND [ARGS...]   (as root, or as root of a user namespace)
set -eu
[ -n "${QZ_PLATFORM_CONFIG:-}" ] || { echo "sandbox.sh: QZ_PLATFORM_CONFIG is not set" >&2; exit 2; }
mkdir -p -m 0700 /tmp/db
caps=-all,+net_raw,+net_admin,+sys_nice
exec unshare -m --propagation private sh -c '
  set -e
  dir=$(dirname "$QZ_PLATFORM_CONFIG")
  mount --bind "$dir" "$dir"
  mount --bind /tmp/db /tmp/db
  mount -o remount,bind,ro /
  umask 077
  exec setpriv --bounding-set="$0" --inh-caps="$0" --ambient-caps="$0" --no-new-privs "$@"' \
  "$caps" "$@"
