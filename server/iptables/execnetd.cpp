/*
 * execnetd: runs one command line without a shell and drains its output, within a time limit.
 */
#include "execnetd.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#define LOG_TAG "Mlbd-iptablesManager"

extern char** environ;

namespace mlbd {
namespace {

std::atomic<CommandSink> gSink{nullptr};
// The longest a front-end may run, in milliseconds; 0 waits for ever.
std::atomic<uint32_t> gTimeLimitMs{kDefaultCommandTimeLimitMs};

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// Splits `line` in place at runs of blanks; `argv` receives pointers into `line` and a final
// null. Returns the number of words.
size_t splitWords(std::string& line, std::vector<char*>& argv) {
    argv.clear();
    size_t i = 0;
    const size_t n = line.size();
    while (i < n) {
        while (i < n && isBlank(line[i])) line[i++] = '\0';
        if (i == n) break;
        argv.push_back(&line[i]);
        while (i < n && !isBlank(line[i])) ++i;
    }
    const size_t words = argv.size();
    argv.push_back(nullptr);
    return words;
}

// posix_spawn reports through one error number both a failure to create the child and a failure
// of the child to set itself up or to execute the program. Only the first kind means that no
// process was created; the others are what a shell would report as "not found" and the like.
bool noProcessCreated(int error) {
    return error == EAGAIN || error == ENOMEM || error == ENOSYS;
}

// Reads and discards everything the child (and whatever it started) writes until the output
// ends, then reaps it. When that has not happened within `limitMs` (0: no limit), the child's
// process group is killed and false returned. The deadline is taken on the monotonic clock, so
// a step of the wall clock neither shortens nor stretches it.
bool drainAndReap(int readFd, pid_t pid, uint32_t limitMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    char buffer[1024];
    bool finished = true;
    for (;;) {
        int waitMs = -1;
        if (limitMs != 0) {
            const auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                finished = false;
                break;
            }
            waitMs = static_cast<int>(left.count());
        }
        pollfd pfd = {readFd, POLLIN, 0};
        const int ready = poll(&pfd, 1, waitMs);
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        const ssize_t got = read(readFd, buffer, sizeof(buffer) - 1);
        if (got > 0) continue;
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        break;
    }
    close(readFd);
    // The output has ended; the program itself normally ends with it, but one that closed its
    // output and went on running is held to the same deadline. The wait is on a process
    // descriptor where the kernel has them, else in short naps.
    if (finished && limitMs == 0) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return true;
    }
#ifdef SYS_pidfd_open
    const int pidFd = finished ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
#else
    const int pidFd = -1;
#endif
    for (useconds_t pauseUs = 100; finished;) {
        const pid_t done = waitpid(pid, nullptr, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) break;
        const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            finished = false;
            break;
        }
        if (pidFd >= 0) {
            pollfd pfd = {pidFd, POLLIN, 0};
            poll(&pfd, 1, static_cast<int>(left.count()));
        } else {
            usleep(pauseUs);
            if (pauseUs < 10000) pauseUs *= 2;
        }
    }
    if (pidFd >= 0) close(pidFd);
    if (finished) return true;
    // The front-end and anything it started share its own process group.
    kill(-pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return false;
}

// Starts argv in a process group of its own (so that it can be ended with everything it
// started) with stdout and stderr on `writeFd`, stdin on /dev/null and, where the C library can
// close them for us, no other descriptor of the daemon (elsewhere only close-on-exec ones are
// kept out, as with popen). Returns 0 or the error number of posix_spawnp.
int spawnWithOutputTo(int writeFd, char* const argv[], pid_t* pid) {
    posix_spawnattr_t attr;
    int rc = posix_spawnattr_init(&attr);
    if (rc != 0) return rc;
    rc = posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    if (rc == 0) rc = posix_spawnattr_setpgroup(&attr, 0);
    posix_spawn_file_actions_t actions;
    if (rc == 0) rc = posix_spawn_file_actions_init(&actions);
    if (rc != 0) {
        posix_spawnattr_destroy(&attr);
        return rc;
    }
    // The order matters when the pipe got descriptor 0, 1 or 2 because the daemon had closed
    // its own standard streams: both copies are made before descriptor 0 is replaced.
    rc = posix_spawn_file_actions_adddup2(&actions, writeFd, STDOUT_FILENO);
    if (rc == 0) rc = posix_spawn_file_actions_adddup2(&actions, writeFd, STDERR_FILENO);
    if (rc == 0) {
        rc = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    // Descriptors the daemon opened without close-on-exec stay out of the program too.
    if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
    if (rc == 0) rc = posix_spawnp(pid, argv[0], &actions, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    return rc;
}

}  // namespace

void setCommandSink(CommandSink sink) {
    gSink.store(sink);
}

void setCommandTimeLimitMs(uint32_t ms) {
    gTimeLimitMs.store(ms, std::memory_order_relaxed);
}

uint32_t commandTimeLimitMs() {
    return gTimeLimitMs.load(std::memory_order_relaxed);
}

}  // namespace mlbd

int execnetd(const char* command) {
    if (command == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "SEND SLA NDC COMMAND - FAIL  %s \n", "");
        return -1;
    }
    if (const mlbd::CommandSink sink = mlbd::gSink.load()) {
        sink(command);
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "SEND SLA NDC COMMAND - PASS  %s\n",
                            command);
        return 0;
    }

    std::string line(command);
    std::vector<char*> argv;
    if (mlbd::splitWords(line, argv) == 0) {
        // Nothing to run: a shell given only blanks starts and ends at once.
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "SEND SLA NDC COMMAND - PASS  %s\n",
                            command);
        return 0;
    }

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "SEND SLA NDC COMMAND - FAIL  %s \n",
                            command);
        return -1;
    }
    pid_t pid = -1;
    int rc = mlbd::spawnWithOutputTo(fds[1], argv.data(), &pid);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        if (mlbd::noProcessCreated(rc)) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "SEND SLA NDC COMMAND - FAIL  %s \n",
                                command);
            return -1;
        }
        // The child was created (and already reaped by posix_spawnp) but could not execute the
        // program: started, as far as the result goes, and said so (a missing or broken
        // front-end is never normal).
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "front-end could not be run (%s): %s",
                            strerror(rc), command);
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "SEND SLA NDC COMMAND - PASS  %s\n",
                            command);
        return 0;
    }
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "SEND SLA NDC COMMAND - PASS  %s\n", command);
    const uint32_t limitMs = mlbd::commandTimeLimitMs();
    if (!mlbd::drainAndReap(fds[0], pid, limitMs)) {
        // It was started: the caller goes on as for any command that ran.
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "front-end still running after %u ms, killed with its process group: "
                            "%s",
                            limitMs, command);
    }
    return 0;
}
