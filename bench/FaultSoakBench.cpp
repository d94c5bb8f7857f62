/*
 * Long soak of the real daemon (build it with -DMLBD_SANITIZE="address;undefined" for the
 * sanitizer soak): in a private network namespace with the emulated links wlan0 (20 ms) and
 * rmnet_data0 (160 ms), the statistics stand-in, the real front-ends and a web client, for the
 * given time it
 *   - flaps a link every 30 to 60 s (wlan0 down for 5 s, or rmnet_data0's rate changed),
 *   - starts and stops a game (selection on, a game process on port 5060) every 2 minutes,
 *   - starts and ends a call every 3 minutes,
 *   - changes the UID whitelist every 20 s, each time from a new control client
 *     (control_reaccept),
 * and checks the rules with `mlbdctl status` every minute, at least 5 s after the last command
 * (a check within 10 s of a flap counts apart). It prints the daemon's RSS, private dirty memory,
 * threads and descriptors at the start and at the end, every health check, and the sanitizer
 * reports found in the daemon's log.
 *
 * Root. Network traffic stays inside the namespaces it makes.
 *
 *   build-asan/bench/FaultSoakBench [seconds]     (default 3600)
 */
#include <arpa/inet.h>
#include <dirent.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include "MlbdSocketServer.h"
#include "util/Daemon.h"
#include "util/EmulatedLinks.h"

using namespace mlbd::test;
using namespace std::chrono;

namespace {

const sockaddr_in kGameServer = {AF_INET, htons(5060), {htonl(0x0A630001)}, {}};  // 10.99.0.1
const sockaddr_in kWebServer = {AF_INET, htons(80), {htonl(0x0A630001)}, {}};

int connectTo(const sockaddr* sa, socklen_t size) {
    const int fd = socket(sa->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, sa, size) == 0) return fd;
    close(fd);
    return -1;
}

pid_t forkAs(uid_t uid, const std::function<void()>& fn) {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (uid && (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0)) _exit(1);
        fn();
        _exit(0);
    }
    return pid;
}

void stop(pid_t* pid) {
    if (*pid > 0) kill(*pid, SIGKILL), Netns::waitChild(*pid), *pid = -1;
}

std::string run(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

long field(const std::string& text, const char* key) {
    const size_t at = text.find(key);
    return at == std::string::npos ? -1 : atol(text.c_str() + at + strlen(key));
}

void report(const char* when, pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    long fds = 0;
    if (DIR* d = opendir((proc + "/fd").c_str())) {
        while (const dirent* e = readdir(d)) fds += e->d_name[0] != '.';
        closedir(d);
    }
    const std::string status = slurp(proc + "/status");
    printf("%s: RSS %ld kB, private dirty %ld kB, threads %ld, descriptors %ld\n", when,
           field(status, "VmRSS:"), field(slurp(proc + "/smaps_rollup"), "Private_Dirty:"),
           field(status, "Threads:"), fds);
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 3600;
    std::string why;
    if (!Netns::enterPrivate(&why)) {
        fprintf(stderr, "FaultSoakBench: %s\n", why.c_str());
        return 1;
    }
    const std::string root = makeRoot(
            "ping_interval_ms=100\nmini_est_interval=200\nfrontend_timeout_ms=5000\n"
            "control_reaccept=1\n");
    Netns net;
    EmulatedLinks links;
    if (root.empty() || !net.startPeer() || !links.start(net, 20, 160, &why)) {
        fprintf(stderr, "FaultSoakBench: set-up failed %s\n", why.c_str());
        return 1;
    }
    const std::string bin = root + "/system/bin/";
    auto routes = [&] {
        Netns::run("for i in wlan0 rmnet_data0; do " + bin +
                   "ip-wrapper-1.0 route replace default dev $i table $i; done");
    };
    Netns::run("cd " + root +
               " && ln -sf " MLBD_SOURCE_DIR
               "/tools/host/*-wrapper-1.0 system/bin/ && ln -s /proc/net/nf_conntrack proc/net/");
    routes();
    net.runInPeer("ip addr add 10.99.0.1 dev lo");
    const std::string peer = "--net=" + net.peerPath();  // names this process's descriptor
    pid_t responder = forkAs(0, [&] {
        execl("/usr/bin/nsenter", "nsenter", peer.c_str(), MLBD_BINARY_DIR "/tools/rtt-responder",
              "--port", "5060", nullptr);
    });
    const int web = net.socketInPeer(AF_INET, SOCK_STREAM);
    bind(web, reinterpret_cast<const sockaddr*>(&kWebServer), sizeof(kWebServer));
    listen(web, 1024);
    pid_t webServer = forkAs(0, [web] {
        for (;;) close(accept(web, nullptr, nullptr));
    });
    pid_t standin = forkAs(0, [&] {
        execl(MLBD_BINARY_DIR "/tools/sla-standin", "sla-standin", "--root", root.c_str(),
              "--iface", "wlan0", "--iface", "rmnet_data0", nullptr);
    });
    waitFor([&] { return access((root + "/proc/sla/config").c_str(), F_OK) == 0; }, 10000);
    const pid_t daemon = startDaemon(root, root + "/mlbd.log");
    pid_t webClient = forkAs(10001, [] {
        for (;; usleep(300000)) {
            close(connectTo(reinterpret_cast<const sockaddr*>(&kWebServer), sizeof(kWebServer)));
        }
    });

    // One record per client: each command comes from a new connection.
    sockaddr_un control = {AF_UNIX, {}};
    (root + "/dev/socket/mlbd").copy(control.sun_path, sizeof(control.sun_path) - 1);
    auto lastCommand = steady_clock::now();
    auto command = [&](int id, const std::string& text) {
        lastCommand = steady_clock::now();
        const int fd = connectTo(reinterpret_cast<const sockaddr*>(&control), sizeof(control));
        msg_t msg = {id, static_cast<int32_t>(text.size()), {}};
        text.copy(msg.message, sizeof(msg.message) - 1);
        if (fd >= 0) send(fd, &msg, sizeof(msg), MSG_NOSIGNAL), close(fd);
    };
    std::string lastStatus;
    auto healthy = [&] {
        lastStatus = run("MLBD_ROOT=" + root + " " MLBD_BINARY_DIR "/tools/mlbdctl status");
        return lastStatus.find("\nHealth: OK") != std::string::npos;
    };
    waitFor([&] { return healthy(); }, 30000);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    report("start", daemon);

    std::mt19937 random(7);
    pid_t game = -1;
    bool call = false, wlanDown = false;
    int checks = 0, healthyChecks = 0, flapChecks = 0, flaps = 0, rereads = 0;
    const auto start = steady_clock::now(), end = start + std::chrono::seconds(seconds);
    auto nextFlap = start + std::chrono::seconds(30), lastFlap = start - std::chrono::hours(1);
    auto wlanUp = end, nextGame = start + std::chrono::seconds(10),
         nextCall = start + std::chrono::seconds(60), nextList = start,
         nextCheck = start + std::chrono::seconds(60);
    for (int list = 0; steady_clock::now() < end; std::this_thread::sleep_for(milliseconds(200))) {
        const auto now = steady_clock::now();
        if (now >= nextFlap) {
            ++flaps, lastFlap = now;
            if (random() % 2) {
                Netns::run("ip link set wlan0 down");
                wlanDown = true, wlanUp = now + std::chrono::seconds(5);
            } else {
                links.set("rmnet_data0", "rate=" + std::to_string(500 + random() % 8000) + "kbit");
            }
            nextFlap = now + std::chrono::seconds(30 + random() % 31);
        }
        if (wlanDown && now >= wlanUp) {
            Netns::run("ip link set wlan0 up && ip route replace default dev wlan0 metric 10");
            routes();
            wlanDown = false;
        }
        if (now >= nextGame) {
            if (game < 0) {
                command(MLBD_CMD_START_SLS, "10002");
                game = forkAs(10002, [] {
                    for (char buf[30] = {};; usleep(50000)) {
                        const int fd = connectTo(reinterpret_cast<const sockaddr*>(&kGameServer),
                                                 sizeof(kGameServer));
                        while (fd >= 0 && send(fd, buf, 28, MSG_NOSIGNAL) == 28 &&
                               recv(fd, buf, 30, MSG_WAITALL) == 30) {
                            usleep(50000);
                        }
                        close(fd);
                    }
                });
            } else {
                stop(&game);
                command(MLBD_CMD_STOP_SLS, "");
            }
            nextGame = now + std::chrono::seconds(120);
        }
        if (now >= nextCall) {
            command(MLBD_CMD_VOIP_STATUS, (call = !call) ? "10004" : "0");
            nextCall = now + std::chrono::seconds(180);
        }
        if (now >= nextList) {
            command(MLBD_CMD_UID_WHITELIST, ++list % 2 ? "10001" : "10001,10009");
            nextList = now + std::chrono::seconds(20);
        }
        // A command's rules may still be being rebuilt (a flush, then the rules added back): the
        // check waits until the last command is 5 s old. The ratio cascade is flushed and
        // refilled too, whenever the split changes (several times a second while a rate swings),
        // so one read may still land between the two: a check is failed only when three more
        // reads, 300 ms apart, fail as well.
        if (now >= nextCheck && now - lastCommand >= std::chrono::seconds(5)) {
            bool ok = healthy();
            const std::string first = lastStatus;
            bool reread = false;
            for (int i = 0; i < 3 && !ok; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                ok = reread = healthy();
            }
            const bool nearFlap = now - lastFlap < std::chrono::seconds(10);
            ++checks, healthyChecks += ok, flapChecks += nearFlap && !ok, rereads += reread;
            printf("minute %2ld: rules %s%s%s\n",
                   static_cast<long>(duration_cast<minutes>(now - start).count()),
                   ok ? "healthy" : "UNHEALTHY", reread ? " (at a re-read)" : "",
                   nearFlap ? " (within 10 s of a flap)" : "");
            if (reread || !ok) printf("%s", (ok ? first : lastStatus).c_str());
            fflush(stdout);
            nextCheck = now + std::chrono::seconds(60);
        }
    }
    if (wlanDown) Netns::run("ip link set wlan0 up"), routes();
    stop(&game);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    report("end", daemon);
    const std::string log = slurp(root + "/mlbd.log");
    int reports = 0;
    for (const char* marker : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                               "runtime error:", "WARNING: ThreadSanitizer"}) {
        for (size_t at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
            ++reports;
        }
    }
    printf("%d flaps, %d health checks: %d healthy (%d of them at a re-read), %d unhealthy "
           "within 10 s of a flap; sanitizer reports: %d; front-end kills: %s\n",
           flaps, checks, healthyChecks, rereads, flapChecks, reports,
           log.find("killed with its process group") != std::string::npos ? "some" : "none");
    for (pid_t* pid : {&webClient, &webServer, &standin, &responder}) stop(pid);
    links.stop();
    stopDaemon(daemon);
    if (!getenv("SOAK_KEEP")) Netns::run("rm -rf " + root);
    return reports == 0 && healthyChecks + flapChecks >= checks ? 0 : 1;
}
