#!/usr/bin/env bash
# Installs what building, running and testing mlbd on a Debian host needs.
#   --aarch64   also the cross build for 64-bit Arm: Debian's cross compiler, the arm64 multiarch
#               packages of liblog, libbase, gtest and jsoncpp (the arm64 architecture is added to
#               dpkg), and qemu-user to run the unit tests. Fails if the apt sources do not serve
#               arm64.
set -euo pipefail
pkgs=(build-essential cmake ninja-build clang libgtest-dev libgmock-dev libbenchmark-dev
      android-liblog-dev android-libbase-dev libjsoncpp-dev iptables iproute2 util-linux procps
      python3 python3-matplotlib blueprint-tools checkpolicy m4)
aarch64=0
[ "${1:-}" = "--aarch64" ] && aarch64=1
if [ "$aarch64" -eq 1 ]; then
    pkgs+=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user libc6:arm64 libstdc++6:arm64
           android-liblog-dev:arm64 android-libbase-dev:arm64 libgtest-dev:arm64
           libjsoncpp-dev:arm64)
fi
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
if [ "$aarch64" -eq 1 ] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
fi
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    $SUDO apt-get update -qq
    if ! DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
            "${missing[@]}"; then
        echo "install-deps: could not install: ${missing[*]}" >&2
        [ "$aarch64" -eq 0 ] || echo "install-deps: the arm64 packages need apt sources that" \
            "serve arm64 (a Debian mirror without an 'Architectures:' limit)" >&2
        exit 1
    fi
fi
