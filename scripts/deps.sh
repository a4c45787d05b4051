#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when missing.
# As root it runs apt-get; otherwise it prints the exact command and fails.
set -euo pipefail

pkgs=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev
      liblmdb-dev libtomlplusplus-dev libssl-dev clang libclang-rt-14-dev iproute2 python3)
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "Missing packages. Install them with:" >&2
    echo "  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
