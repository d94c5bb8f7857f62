// Faults injected into the daemon binary from outside, through a preloaded library
// (tests/util/preload/FaultPreload.cpp, built as libmlbd-faults.so beside the daemon).
//
// The library maps the file named by $MLBD_FAULTS (a FaultState, written by the test while the
// daemon runs) and, as the file says:
// - adds realtimeOffsetS seconds to every reading of the wall clock (clock_gettime of
//   CLOCK_REALTIME and its coarse variant, gettimeofday, time): the clock steps, this machine's
//   own clock is never touched;
// - with noNetAdmin set, takes CAP_NET_ADMIN out of the effective set of each thread that opens a
//   NETLINK_SOCK_DIAG socket (and puts it back once the flag is clear), so that the kernel
//   refuses that thread's socket destruction with EPERM. Front-ends started by the daemon are
//   unaffected: a root process gets its full set again when it runs a program.
#pragma once

#include <stdint.h>

#include <string>

namespace mlbd {
namespace test {

struct FaultState {
    int64_t realtimeOffsetS = 0;
    int32_t noNetAdmin = 0;
    int32_t reserved = 0;
};

constexpr char kFaultFileEnv[] = "MLBD_FAULTS";

// The preload library of this build.
inline std::string faultPreloadLibrary() {
    return MLBD_BINARY_DIR "/tests/libmlbd-faults.so";
}

}  // namespace test
}  // namespace mlbd
