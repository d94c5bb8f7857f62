#!/usr/bin/env bash
# Builds the daemon, mlbdctl and the unit tests for 64-bit Arm (aarch64) with Debian's cross
# compiler and arm64 multiarch libraries, and runs the unit tests under qemu-user through ctest.
# Unit tests that need a real kernel (MLBD_KERNEL_UNIT_TESTS in CMakeLists.txt) are left out;
# the others run without any capability, so a kernel test missing from that list skips or fails
# at its first privileged call instead of running on the emulator's translation of the kernel.
# Any failure, skipped test or stale name in the list fails the script.
#
#   tools/run-aarch64.sh                        # build-aarch64/, RelWithDebInfo
#   BUILD_DIR=/tmp/a64 tools/run-aarch64.sh
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$src/build-aarch64}"
jobs=$(nproc)

echo "=== aarch64: dependencies (cross compiler, arm64 libraries, qemu-user)"
"$src/tools/install-deps.sh" --aarch64

echo "=== aarch64: cross build in $build"
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_TOOLCHAIN_FILE="$src/cmake/aarch64-linux-gnu.cmake" >/dev/null
# gtest lists each binary's tests under the emulator as part of the build.
cmake --build "$build" -j "$jobs"
if ! aarch64-linux-gnu-readelf -h "$build/mlbd" | grep -q "Machine: *AArch64"; then
    echo "run-aarch64: $build/mlbd is not an aarch64 program" >&2
    exit 1
fi

# Every name on the kernel list must still be a test, or the list has gone stale.
mapfile -t kernel_tests < <(sed -n 's/^set(CTEST_CUSTOM_TESTS_IGNORE \(.*\))$/\1/p' \
                              "$build/CTestCustom.cmake" | tr ';' '\n')
for t in "${kernel_tests[@]}"; do
    if ! grep -rqF --include='*_tests.cmake' "add_test([=[$t]=]" "$build"; then
        echo "run-aarch64: MLBD_KERNEL_UNIT_TESTS names $t, which no unit test binary has" >&2
        exit 1
    fi
done

echo "=== aarch64: unit tests under qemu-aarch64, without capabilities"
echo "    left out (they need a real kernel): ${kernel_tests[*]}"
nocaps=()
[ "$(id -u)" -ne 0 ] || nocaps=(setpriv --bounding-set=-all --inh-caps=-all --no-new-privs)
log="$build/ctest-aarch64.log"
status=0
"${nocaps[@]}" ctest --test-dir "$build" --output-on-failure -j "$jobs" 2>&1 | tee "$log" ||
    status=1
if grep -qE "\*\*\*Skipped|Not Run" "$log"; then
    echo "run-aarch64: a test skipped under the emulator: if it needs a real kernel, add it to" \
         "MLBD_KERNEL_UNIT_TESTS in CMakeLists.txt" >&2
    status=1
fi
if ! grep -qE "^100% tests passed, 0 tests failed out of [1-9]" "$log"; then
    echo "run-aarch64: the emulated unit tests did not all pass" >&2
    status=1
fi

echo "=== aarch64: sizes"
for f in mlbd tools/mlbdctl; do
    aarch64-linux-gnu-strip -o "$build/$f.stripped" "$build/$f"
    printf '%-14s %9d bytes, stripped %9d bytes\n' "$f" "$(stat -c %s "$build/$f")" \
           "$(stat -c %s "$build/$f.stripped")"
done
[ "$status" -eq 0 ] && echo "run-aarch64: cross build and emulated unit tests passed"
exit "$status"
