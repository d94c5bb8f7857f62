#!/usr/bin/env bash
# Installs the build dependencies, builds mlbd and its tests, and runs the whole test suite:
# first a plain build, then the same tests under AddressSanitizer with UndefinedBehaviorSanitizer
# and under ThreadSanitizer, then the fuzz targets briefly.
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

# Threaded code (statistics lock, command recorder, netlink peers) under ThreadSanitizer.
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DMLBD_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$jobs"
ctest --test-dir build-tsan --output-on-failure -j "$jobs"

# The parsers of kernel bytes under libFuzzer (clang; ASan and UBSan), briefly each.
FUZZ_SECONDS="${FUZZ_SECONDS:-15}" tools/run-fuzz.sh
