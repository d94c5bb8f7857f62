# Cross build for 64-bit Arm Linux with Debian's cross compiler (g++-aarch64-linux-gnu) and the
# arm64 multiarch packages of liblog, libbase and gtest (tools/install-deps.sh --aarch64 installs
# them). Only the daemon, mlbdctl and the unit tests are built (see the top-level CMakeLists.txt).
#
#   cmake -S . -B /tmp/build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
# Test programs, and gtest's listing of their tests at build time, run under qemu-user. They load
# the arm64 multiarch libraries (libc6:arm64 and the rest, in /lib/aarch64-linux-gnu and
# /usr/lib/aarch64-linux-gnu), so the emulator's root is "/": with -L /usr/aarch64-linux-gnu the
# cross sysroot's ld.so would be paired with the multiarch libc of another build, which hangs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Libraries and package files come from /usr/lib/aarch64-linux-gnu, never from the host's.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

find_program(MLBD_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(NOT MLBD_QEMU_AARCH64)
    message(FATAL_ERROR "qemu-aarch64 not found: tools/install-deps.sh --aarch64 installs it")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${MLBD_QEMU_AARCH64} -L /)
