#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when missing.
# As root it runs apt-get; otherwise it prints the exact command and fails.
set -euo pipefail

pkgs=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev
      liblmdb-dev libtomlplusplus-dev libssl-dev clang libclang-rt-14-dev iproute2 python3
      g++-multilib)
# The 32-bit build (cmake/i386.cmake) links against Debian's i386 multiarch libraries.
pkgs32=(liblmdb-dev:i386 libtomlplusplus-dev:i386 libssl-dev:i386 libgtest-dev:i386
        libgmock-dev:i386)
missing=()
for p in "${pkgs[@]}" "${pkgs32[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

need_i386=0
dpkg --print-foreign-architectures | grep -qx i386 || need_i386=1
if [ "$(id -u)" -ne 0 ]; then
    echo "Missing packages. Install them with:" >&2
    [ $need_i386 -eq 0 ] || echo "  sudo dpkg --add-architecture i386 && sudo apt-get update" >&2
    echo "  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
fi
[ $need_i386 -eq 0 ] || dpkg --add-architecture i386
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A mirror in the middle of a sync fails one list; the others are still good.
apt-get update -qq || echo "deps.sh: apt-get update failed in part; going on with the lists at hand" >&2
apt_install() { apt-get install -y -qq --no-install-recommends "$@"; }
apt_install "${missing[@]}" && exit 0

# Multi-Arch "same" packages need one version on both architectures, and the amd64 and
# i386 lists can offer different ones while a mirror syncs: pin those to the newest
# version that both offer.
versions() { apt-cache madison "$1" | awk -F' *[|] *' '{print $2}' | sort -u; }
candidate() { apt-cache policy "$1" | awk '/Candidate:/ {print $2}'; }
pins=()
for p in "${pkgs32[@]}" libssl3:i386 liblmdb0:i386 libtomlplusplus3:i386; do
    p=${p%:i386}
    [ "$(candidate "$p")" != "$(candidate "$p:i386")" ] || continue
    v=$(comm -12 <(versions "$p") <(versions "$p:i386") | sort -V | tail -n 1)
    [ -z "$v" ] || pins+=("$p=$v" "$p:i386=$v")
done
[ ${#pins[@]} -gt 0 ] || exit 1
echo "Pinning to versions both architectures offer: ${pins[*]}"
apt_install "${missing[@]}" "${pins[@]}"
