#!/usr/bin/env bash
# Installs the build dependencies, builds mlbd and its tests, and runs the whole test suite:
# first a plain build, then the same tests under AddressSanitizer with UndefinedBehaviorSanitizer
# and under ThreadSanitizer, then the fuzz targets briefly, then the aarch64 cross build with its
# unit tests under qemu-user (tools/run-aarch64.sh).
# Tests that need root (network namespaces, iptables, netlink) skip with a message otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
jobs=$(nproc)

echo "=== host: plain build and tests (build/)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

echo "=== host: AddressSanitizer and UndefinedBehaviorSanitizer (build-asan/)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
      -DMLBD_SANITIZE="address;undefined" >/dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"

# Threaded code (statistics lock, command recorder, netlink peers) under ThreadSanitizer.
echo "=== host: ThreadSanitizer (build-tsan/)"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DMLBD_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$jobs"
ctest --test-dir build-tsan --output-on-failure -j "$jobs"

# The parsers of kernel bytes under libFuzzer (clang; ASan and UBSan), briefly each.
echo "=== host: fuzzing (build-fuzz/)"
FUZZ_SECONDS="${FUZZ_SECONDS:-15}" tools/run-fuzz.sh

# The daemon, mlbdctl and the unit tests built for 64-bit Arm; the unit tests that need no real
# kernel run under qemu-user.
tools/run-aarch64.sh
