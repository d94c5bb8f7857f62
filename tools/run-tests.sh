#!/usr/bin/env bash
# Installs the build dependencies, builds mlbd and its tests, and runs the whole test suite:
# first a plain build, then the same tests under AddressSanitizer and UndefinedBehaviorSanitizer.
# Tests that need root (network namespaces, iptables, netlink) skip with a message otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
      -DMLBD_SANITIZE="address;undefined" >/dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"

# The parsers of kernel bytes under libFuzzer (clang; ASan and UBSan), briefly each.
FUZZ_SECONDS="${FUZZ_SECONDS:-15}" tools/run-fuzz.sh
