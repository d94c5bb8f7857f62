#!/usr/bin/env bash
# Installs what building, running and testing mlbd on a Debian host needs.
set -euo pipefail
pkgs=(build-essential cmake ninja-build clang libgtest-dev libgmock-dev libbenchmark-dev
      android-liblog-dev android-libbase-dev iptables iproute2 util-linux procps python3
      python3-matplotlib)
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
