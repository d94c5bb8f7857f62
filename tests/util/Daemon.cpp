#include "util/Daemon.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "platform/Platform.h"

namespace mlbd {
namespace test {

std::string makeRoot(const std::string& conf) {
    std::string tmplPath = mlbd::scratchDirectory() + "/mlbd-daemon-XXXXXX";
    char* tmpl = &tmplPath[0];
    if (mkdtemp(tmpl) == nullptr) return "";
    const std::string root = tmpl;
    if (system(("cd " + root + " && mkdir -p properties vendor/etc/sla system/bin proc/sla " +
                "proc/net dev/socket")
                       .c_str()) != 0) {
        return "";
    }
    std::ofstream(root + "/vendor/etc/sla/mlbd.conf") << conf;
    std::ofstream(root + "/properties/vendor.sla.ifaces") << "wlan0,rmnet_data0";
    std::ofstream(root + "/properties/vendor.sla.mode") << "1";
    std::ofstream(root + "/properties/vendor.sla.enabled") << "1";
    for (const char* tool : {"/system/bin/iptables-wrapper-1.0", "/system/bin/ip-wrapper-1.0"}) {
        std::ofstream(root + tool) << "#!/bin/sh\necho \"$*\" >>" << root << "/commands.log\n";
        if (chmod((root + tool).c_str(), 0755) != 0) return "";
    }
    return root;
}

pid_t startDaemon(const std::string& root, const std::string& logPath,
                  const std::vector<std::string>& env) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (log < 0 || dup2(log, STDERR_FILENO) < 0) _exit(127);
        setenv("MLBD_ROOT", root.c_str(), 1);
        for (const std::string& entry : env) {
            const size_t eq = entry.find('=');
            if (eq != std::string::npos)
                setenv(entry.substr(0, eq).c_str(), entry.c_str() + eq + 1, 1);
        }
        execl(MLBD_BINARY_DIR "/mlbd", "mlbd", static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid > 0) setpgid(pid, pid);  // also here, so that stopDaemon() never misses the group
    return pid;
}

namespace {

// Kills every child this process has: the daemon's orphans, including front-ends that run in
// process groups of their own.
void killChildren() {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return;
    while (const dirent* task = readdir(tasks)) {
        if (task->d_name[0] == '.') continue;
        std::ifstream children(std::string("/proc/self/task/") + task->d_name + "/children");
        for (pid_t child; children >> child;) kill(child, SIGKILL);
    }
    closedir(tasks);
}

}  // namespace

void stopDaemon(pid_t pid) {
    if (pid <= 0) return;
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    // Every process of the group is now dying; orphans have been handed to this process, and
    // those outside the group are killed as they come.
    for (;;) {
        killChildren();
        if (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) continue;
        break;
    }
}

std::string slurp(const std::string& path) {
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
}

bool waitFor(const std::function<bool()>& done, int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace test
}  // namespace mlbd
