#!/usr/bin/env bash
# Installs the build dependencies, builds mlbd and its tests, and runs the whole test suite:
# first the device build's files are checked, then a plain build, then the same tests under
# AddressSanitizer with UndefinedBehaviorSanitizer and under ThreadSanitizer, then the fuzz
# targets briefly, then the aarch64 cross build with its unit tests under qemu-user
# (tools/run-aarch64.sh).
# Tests that need root (network namespaces, iptables, netlink) skip with a message otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
jobs=$(nproc)

# The device build's files, checked without an Android tree: Android.bp formatted as the
# platform formats it, the same sources in Android.bp and in the CMake build, the SELinux policy.
echo "=== device files: Android.bp format, source lists, SELinux policy"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
bpfmt_diff=$(bpfmt -d Android.bp)
if [ -n "$bpfmt_diff" ]; then
    printf 'Android.bp is not formatted as bpfmt formats it:\n%s\n' "$bpfmt_diff"
    exit 1
fi
tools/check-build-files.py build
tools/check-sepolicy.sh

echo "=== host: plain build and tests (build/)"
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
