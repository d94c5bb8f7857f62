#include "util/Daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mlbd {
namespace test {

pid_t startDaemon(const std::string& root, const std::string& logPath) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (log < 0 || dup2(log, STDERR_FILENO) < 0) _exit(127);
        setenv("MLBD_ROOT", root.c_str(), 1);
        execl(MLBD_BINARY_DIR "/mlbd", "mlbd", static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid > 0) setpgid(pid, pid);  // also here, so that stopDaemon() never misses the group
    return pid;
}

void stopDaemon(pid_t pid) {
    if (pid <= 0) return;
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    // Every process of the group is now dying; orphans have been handed to this process.
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

}  // namespace test
}  // namespace mlbd
