#!/usr/bin/env bash
# Builds the Debian packages from a copy of the source tree, runs lintian on them, then
# has package_root.sh install, run and purge them in a private copy-on-write root.
# Usage: package_test.sh SOURCE_DIR SCRATCH_DIR. Exit 77: skipped.
set -euo pipefail
src=$1 scratch=$2
here=$(cd "$(dirname "$0")" && pwd)

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAIL: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || skip "needs root (installs packages in a private root)"
tools() { local t; for t in dpkg-buildpackage dh lintian scdoc fakeroot man unshare ip; do
    command -v "$t" >/dev/null || echo "$t"; done; }
if [ -n "$(tools)" ]; then
    "$src/scripts/deps.sh" --packaging || true
    [ -z "$(tools)" ] || fail "missing $(tools | xargs) after scripts/deps.sh --packaging"
fi
unshare --mount --net true 2>/dev/null || skip "this machine does not allow mount and network namespaces"

rm -rf "$scratch"
mkdir -p "$scratch/src"
# The tree as it is, without build trees: dpkg-buildpackage writes into it and beside it.
if git -C "$src" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git -C "$src" ls-files -z -co --exclude-standard |
        (cd "$src" && xargs -0 tar -cf - --no-recursion --ignore-failed-read) | tar -C "$scratch/src" -xf -
else
    tar -C "$src" --exclude=./build --exclude=./.git -cf - . | tar -C "$scratch/src" -xf -
fi

echo "== dpkg-buildpackage"
if ! (cd "$scratch/src" &&
      DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -us -uc -b) \
      > "$scratch/build.log" 2>&1; then
    tail -n 40 "$scratch/build.log"
    fail "dpkg-buildpackage failed (log: $scratch/build.log)"
fi
changes=$(ls "$scratch"/ltrd_*.changes)
debs=()
for p in ltrd ltrctl ltr-server; do
    f=$(ls "$scratch/${p}"_*.deb)
    debs+=("$(basename "$f")")
done
echo "built: ${debs[*]}"

echo "== lintian"
status=0
lintian --fail-on error --tag-display-limit 0 "$changes" > "$scratch/lintian.txt" 2>&1 || status=$?
grep -v 'root privileges' "$scratch/lintian.txt" || true
[ $status -eq 0 ] || fail "lintian found errors"

echo "== install, run, purge in a private root"
unshare --mount --net --ipc --pid --fork --kill-child \
    "$here/package_root.sh" "$scratch" "${debs[@]}"
echo "package test: ok"
