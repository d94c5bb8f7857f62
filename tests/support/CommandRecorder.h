/*
 * Records the command lines the rule code would run, instead of running them.
 *
 * While an instance lives, execnetd() appends every command line to it, runs nothing and returns
 * 0. Only one recorder may live at a time. Recording is serialised by a mutex, so the main thread
 * and one other thread may issue commands concurrently; read lines() once the other thread is
 * quiet.
 */
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace mlbd {

class ScopedCommandRecorder {
  public:
    ScopedCommandRecorder();
    ~ScopedCommandRecorder();
    ScopedCommandRecorder(const ScopedCommandRecorder&) = delete;
    ScopedCommandRecorder& operator=(const ScopedCommandRecorder&) = delete;

    const std::vector<std::string>& lines() const;
    void clear();

    void record(const char* command);

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace mlbd
