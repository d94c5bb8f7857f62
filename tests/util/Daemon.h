// The daemon binary as a child of a test.
//
// The daemon runs the packet-filter and routing front-ends as child processes; a test that kills
// it mid-run must also stop those, or one of them may still write into the test's MLBD_ROOT while
// the test removes it. startDaemon() puts the daemon in a process group of its own and makes the
// test process the reaper of its orphans; stopDaemon() kills the whole group and every orphan
// (a front-end runs in a process group of its own) and reaps every descendant, so nothing of the
// run is left when it returns.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace mlbd {
namespace test {

// A fresh MLBD_ROOT under /tmp with the daemon's folders, `conf` as configuration file, wlan0 and
// a metered rmnet_data0 enabled, and front-ends that append their arguments to
// <root>/commands.log instead of running anything. "" when it could not be made.
std::string makeRoot(const std::string& conf);

// Runs the freshly built daemon with MLBD_ROOT=root, the "NAME=value" entries of env set too,
// and its stderr going to logPath (truncated). Returns its pid, or -1 when it could not be
// started.
pid_t startDaemon(const std::string& root, const std::string& logPath,
                  const std::vector<std::string>& env = {});

// Kills the daemon started by startDaemon() and every process it started, and reaps them all.
void stopDaemon(pid_t pid);

// The content of a file ("" when it cannot be read).
std::string slurp(const std::string& path);

// Polls `done` every 20 ms for up to `ms` milliseconds; false when it never held.
bool waitFor(const std::function<bool()>& done, int ms);

}  // namespace test
}  // namespace mlbd
