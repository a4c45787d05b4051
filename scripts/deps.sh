#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when missing.
# (mosquitto, mosquitto-clients and chromium: the location server's MQTT and map tests;
# tshark: the dissectors' test.)
# As root it runs apt-get; otherwise it prints the exact command and fails.
# `deps.sh --packaging` installs only the tools that build and check the .deb packages.
# The i386 libraries of the 32-bit build come last and are optional: when they cannot be
# installed, scripts/test says so and skips that build (`deps.sh --has-i386` tells).
set -euo pipefail

pkgs=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev
      liblmdb-dev libtomlplusplus-dev libssl-dev clang libclang-rt-14-dev iproute2 python3
      libpcap-dev libnl-genl-3-dev openssl libcpp-httplib-dev nlohmann-json3-dev
      libmosquitto-dev mosquitto mosquitto-clients chromium libeigen3-dev tshark)
# The man pages and the Debian packages (dpkg-buildpackage, lintian; the package test).
pkgs_deb=(scdoc dpkg-dev debhelper fakeroot lintian man-db)
# The 32-bit build (cmake/i386.cmake) links against Debian's i386 multiarch libraries.
pkgs32=(g++-multilib liblmdb-dev:i386 libtomlplusplus-dev:i386 libssl-dev:i386
        libgtest-dev:i386 libgmock-dev:i386)
if [ "${1:-}" = --packaging ]; then
    # Only what the package test needs beside a finished build.
    pkgs=("${pkgs_deb[@]}")
    pkgs32=()
else
    pkgs+=("${pkgs_deb[@]}")
fi

missing_of() { # package names... -> the ones not installed
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
    done
}
mapfile -t missing < <(missing_of "${pkgs[@]}")
mapfile -t missing32 < <(missing_of "${pkgs32[@]}")
if [ "${1:-}" = --has-i386 ]; then
    [ ${#missing32[@]} -eq 0 ]
    exit
fi
[ ${#missing[@]} -eq 0 ] && [ ${#missing32[@]} -eq 0 ] && exit 0

need_i386=0
dpkg --print-foreign-architectures | grep -qx i386 || need_i386=1
if [ "$(id -u)" -ne 0 ]; then
    if [ ${#missing[@]} -gt 0 ]; then
        echo "Missing packages. Install them with:" >&2
        echo "  sudo apt-get install -y ${missing[*]}" >&2
    fi
    if [ ${#missing32[@]} -gt 0 ]; then
        echo "For the 32-bit build (optional):" >&2
        [ $need_i386 -eq 0 ] || echo "  sudo dpkg --add-architecture i386 && sudo apt-get update" >&2
        echo "  sudo apt-get install -y ${missing32[*]}" >&2
    fi
    [ ${#missing[@]} -eq 0 ]
    exit
fi

export DEBIAN_FRONTEND=noninteractive
apt_install() { apt-get install -y -qq --no-install-recommends "$@"; }
[ $need_i386 -eq 0 ] || [ ${#missing32[@]} -eq 0 ] || dpkg --add-architecture i386
# A mirror in the middle of a sync fails one list; the others are still good.
apt-get update -qq || echo "deps.sh: apt-get update failed in part; going on with the lists at hand" >&2
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    apt_install "${missing[@]}"
fi
[ ${#missing32[@]} -gt 0 ] || exit 0

echo "Installing for the 32-bit build: ${missing32[*]}"
apt_install "${missing32[@]}" && exit 0
# Multi-Arch "same" packages need one version on both architectures, and the amd64 and
# i386 lists can offer different ones while a mirror syncs: pin those to the newest
# version that both offer.
versions() { apt-cache madison "$1" | awk -F' *[|] *' '{print $2}' | sort -u; }
candidate() { apt-cache policy "$1" | awk '/Candidate:/ {print $2}'; }
pins=()
for p in "${pkgs32[@]:1}" libssl3:i386 liblmdb0:i386 libtomlplusplus3:i386; do
    p=${p%:i386}
    [ "$(candidate "$p")" != "$(candidate "$p:i386")" ] || continue
    v=$(comm -12 <(versions "$p") <(versions "$p:i386") | sort -V | tail -n 1)
    [ -z "$v" ] || pins+=("$p=$v" "$p:i386=$v")
done
if [ ${#pins[@]} -gt 0 ]; then
    echo "Pinning to versions both architectures offer: ${pins[*]}"
    apt_install "${missing32[@]}" "${pins[@]}" && exit 0
fi
echo "deps.sh: the i386 packages could not be installed; the 32-bit build will be skipped" >&2
exit 0
