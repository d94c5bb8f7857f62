// The daemon binary as a child of a test.
//
// The daemon runs the packet-filter and routing front-ends as child processes; a test that kills
// it mid-run must also stop those, or one of them may still write into the test's MLBD_ROOT while
// the test removes it. startDaemon() puts the daemon in a process group of its own and makes the
// test process the reaper of its orphans; stopDaemon() kills the whole group and reaps every
// descendant, so nothing of the run is left when it returns.
#pragma once

#include <sys/types.h>

#include <string>

namespace mlbd {
namespace test {

// Runs the freshly built daemon with MLBD_ROOT=root and its stderr going to logPath (truncated).
// Returns its pid, or -1 when it could not be started.
pid_t startDaemon(const std::string& root, const std::string& logPath);

// Kills the daemon started by startDaemon() and every process it started, and reaps them all.
void stopDaemon(pid_t pid);

}  // namespace test
}  // namespace mlbd
