/*
 * The daemon binary end to end for link aggregation: under a private MLBD_ROOT it reads the
 * statistics rings, programs the split through recording packet-filter and routing front-ends,
 * and talks to the module's control file, which here is a FIFO read by the test (crafted rings)
 * or served by the module's stand-in (real traffic over veth links).
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "stats/SlaRingTestUtil.h"

namespace {

using slatest::RingWriter;
using slatest::wallMs;

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool waitFor(const std::function<bool()>& pred, int timeoutMs) {
    const uint64_t end = wallMs() + static_cast<uint64_t>(timeoutMs);
    while (wallMs() < end) {
        if (pred()) return true;
        usleep(20 * 1000);
    }
    return pred();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line)) out.push_back(line);
    return out;
}

// Index of the first rebuild of vexa_SLA at or after `from` whose two rules carry the given
// probabilities and chains, or -1.
int findRebuild(const std::vector<std::string>& log, size_t from, const std::string& first,
                const std::string& second) {
    for (size_t i = from; i + 2 < log.size(); ++i) {
        if (log[i].find("-t mangle -F vexa_SLA") == std::string::npos) continue;
        if (log[i + 1].find(first) != std::string::npos &&
            log[i + 2].find(second) != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// A private device root: configuration with a 100 ms loop, two interfaces, recording front-ends
// that append their command lines to commands.log.
class DaemonRoot {
  public:
    DaemonRoot() {
        char tmpl[] = "/tmp/mlbd-statsbin-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        path = tmpl;
        for (const char* d :
             {"/vendor", "/vendor/etc", "/vendor/etc/sla", "/properties", "/dev", "/dev/socket",
              "/proc", "/proc/sla", "/proc/net", "/system", "/system/bin"}) {
            mkdir((path + d).c_str(), 0755);
        }
        std::ofstream(path + "/vendor/etc/sla/mlbd.conf") << "mini_est_interval=100\n"
                                                             "mini_stale_interval=1500\n"
                                                             "ideal_est_window=500\n"
                                                             "mini_rate_window=50\n"
                                                             "estimate_pack_num=5\n"
                                                             "best_est_cache_size=0\n"
                                                             "min_ratio_change=2\n"
                                                             "wifi_threshold=1600\n"
                                                             "wan_threshold=500\n"
                                                             "protocols=http,https\n"
                                                             "ports=80,443\n";
        setProp("vendor.sla.ifaces", "wlan0,rmnet_data0");
        setProp("vendor.sla.mode", "1");
        setProp("vendor.sla.enabled", "1");
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            const std::string script = path + "/system/bin/" + tool;
            std::ofstream(script) << "#!/bin/sh\nprintf '%s\\n' \"$0 $*\" >> '" << path
                                  << "/commands.log'\n";
            chmod(script.c_str(), 0755);
        }
    }
    ~DaemonRoot() {
        if (!path.empty()) {
            std::string cmd = "rm -rf '" + path + "'";
            if (system(cmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", path.c_str());
        }
    }
    void setProp(const std::string& name, const std::string& value) {
        std::ofstream(path + "/properties/" + name) << value;
    }
    std::vector<std::string> commands() { return lines(slurp(path + "/commands.log")); }
    std::string daemonLog() { return slurp(path + "/mlbd.log"); }

    std::string path;
};

// The control file as a FIFO read by the test: every NUL-terminated command, in order.
class ControlFifo {
  public:
    explicit ControlFifo(const std::string& file) {
        if (mkfifo(file.c_str(), 0600) != 0) return;
        fd_ = open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd_ >= 0) reader_ = std::thread([this] { run(); });
    }
    ~ControlFifo() {
        stop_ = true;
        if (reader_.joinable()) reader_.join();
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    std::vector<std::string> commands() {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }

  private:
    void run() {
        std::string pending;
        while (!stop_) {
            struct pollfd pfd = {fd_, POLLIN, 0};
            if (poll(&pfd, 1, 50) <= 0) continue;
            char buf[4096];
            ssize_t n = read(fd_, buf, sizeof(buf));
            for (ssize_t i = 0; i < n; ++i) {
                if (buf[i] != '\0') {
                    pending.push_back(buf[i]);
                    continue;
                }
                std::lock_guard<std::mutex> lock(mutex_);
                commands_.push_back(pending);
                pending.clear();
            }
        }
    }

    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread reader_;
    std::mutex mutex_;
    std::vector<std::string> commands_;
};

// Plays the kernel module for crafted rates: one closing record per interface every 100 ms,
// timestamps exactly 100 ms apart, with the bytes per interval set by the test.
class RingProducer {
  public:
    RingProducer(const std::string& dir, const std::vector<std::string>& ifaces) {
        for (const std::string& name : ifaces) {
            int fd = open((dir + "/" + name + "_mmap").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0 || ftruncate(fd, slatest::kFileBytes) != 0) {
                if (fd >= 0) close(fd);
                continue;
            }
            void* m = mmap(nullptr, slatest::kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            close(fd);
            if (m == MAP_FAILED) continue;
            rings_[name].map = m;
        }
        base_ = wallMs();
        for (auto& e : rings_) {
            RingWriter w(e.second.map);
            w.record(1, base_, 0, 0);
            w.header(slatest::kMagic, 1);
        }
        thread_ = std::thread([this] { run(); });
    }
    ~RingProducer() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        for (auto& e : rings_) munmap(e.second.map, slatest::kFileBytes);
    }
    bool ok(size_t expected) const { return rings_.size() == expected; }
    void setBytesPerInterval(const std::string& name, uint32_t bytes) {
        rings_.at(name).bytes = bytes;
    }

  private:
    struct Ring {
        void* map = nullptr;
        std::atomic<uint32_t> bytes{0};
        uint32_t slot = 1;
    };
    void run() {
        for (uint64_t k = 1; !stop_; ++k) {
            const uint64_t ts = base_ + 100 * k;
            while (!stop_ && wallMs() < ts) usleep(2000);
            for (auto& e : rings_) {
                Ring& r = e.second;
                RingWriter w(r.map);
                r.slot = r.slot % 1279 + 1;
                w.record(r.slot, ts, r.bytes.load(), 2);
                w.writeIndex(r.slot % 1279);
            }
        }
    }

    std::map<std::string, Ring> rings_;
    uint64_t base_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Starts `argv` with stderr into `logFile`. MLBD_ROOT must already be in the environment.
pid_t spawn(const std::vector<std::string>& argv, const std::string& logFile) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid_t pid = fork();
    if (pid == 0) {
        if (log >= 0) dup2(log, STDERR_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
    if (log >= 0) close(log);
    return pid;
}

void stopProcess(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
}

bool alive(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == 0;
}

const std::string kDaemon = MLBD_BINARY_DIR "/mlbd";
const std::string kStandIn = MLBD_BINARY_DIR "/tools/sla-standin";

constexpr const char* kWlanHalf = "--probability 0.500000 -j vexa_fw_wlan0";
constexpr const char* kCellFull = "--probability 1.000000 -j vexa_fw_rmnet_data0_wrapper";
constexpr const char* kWlanFull = "--probability 1.000000 -j vexa_fw_wlan0";
constexpr const char* kCellNone = "--probability 0.000000 -j vexa_fw_rmnet_data0_wrapper";

TEST(StatsBinaryTest, CraftedRatesBecomeRatioRules) {
    // Keep whatever the daemon does off the host's own network when possible.
    if (geteuid() == 0) {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    }
    DaemonRoot root;
    ASSERT_FALSE(root.path.empty());
    setenv("MLBD_ROOT", root.path.c_str(), 1);
    ControlFifo fifo(root.path + "/proc/sla/config");
    ASSERT_TRUE(fifo.ok());
    RingProducer rings(root.path + "/proc/sla", {"wlan0", "rmnet_data0"});
    ASSERT_TRUE(rings.ok(2));
    // Wi-Fi 800 kbit/s and cellular 2000 kbit/s: 10240 and 25600 bytes per 100 ms.
    rings.setBytesPerInterval("wlan0", 10240);
    rings.setBytesPerInterval("rmnet_data0", 25600);
    usleep(600 * 1000);  // a full estimate window before the daemon starts

    pid_t daemon = spawn({kDaemon}, root.path + "/mlbd.log");
    ASSERT_GT(daemon, 0);

    // Wi-Fi 0.5 and cellular 0.5, as the cascade's probabilities 0.5 and 1.0.
    int first = -1;
    waitFor([&] { return (first = findRebuild(root.commands(), 0, kWlanHalf, kCellFull)) >= 0; },
            15000);
    EXPECT_GE(first, 0) << root.daemonLog();

    // Wi-Fi up to 2000 kbit/s, above the 1600 threshold: Wi-Fi alone, cellular 0.
    rings.setBytesPerInterval("wlan0", 25600);
    int second = -1;
    waitFor(
            [&] {
                return (second = findRebuild(root.commands(), first + 1, kWlanFull, kCellNone)) >=
                       0;
            },
            15000);
    EXPECT_GT(second, first) << root.daemonLog();

    // Stable rates: the rules are not rebuilt again.
    usleep(800 * 1000);
    std::vector<std::string> before = root.commands();
    usleep(500 * 1000);
    EXPECT_EQ(root.commands().size(), before.size());

    // Shut-down: mappings released, then enable=0; the daemon parks.
    root.setProp("vendor.sla.enabled", "2");
    EXPECT_TRUE(waitFor(
            [&] {
                std::vector<std::string> c = fifo.commands();
                return !c.empty() && c.back() == "enable=0";
            },
            10000));
    std::vector<std::string> cmds = fifo.commands();
    ASSERT_GE(cmds.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(cmds.begin(), cmds.begin() + 5),
              (std::vector<std::string>{"protocols=http,https", "ports=80,443", "iface=rmnet_data0",
                                        "iface=wlan0", "enable=1"}));
    EXPECT_EQ(cmds.size(), 6u);  // nothing between enable=1 and enable=0
    std::string log = root.daemonLog();
    size_t cleanup = log.find("Slm disabled, starting cleanup...");
    size_t freed = log.find("freeMmap +", cleanup == std::string::npos ? 0 : cleanup);
    size_t disabled = log.find("writeStatsConfFile:enable=0");
    EXPECT_NE(cleanup, std::string::npos);
    EXPECT_LT(freed, disabled);
    EXPECT_EQ(log.find("out of bound"), std::string::npos);
    usleep(300 * 1000);
    EXPECT_TRUE(alive(daemon));
    stopProcess(daemon);
}

// Sends raw Ethernet frames out of `peer`, so that they arrive on its veth partner and count as
// received bytes there; `kbit` (1024 bits) per second per interface, changeable on the fly.
class FrameSender {
  public:
    explicit FrameSender(const std::map<std::string, std::string>& peers) {
        for (auto& e : peers) {
            int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
            if (fd < 0) continue;
            struct sockaddr_ll addr = {};
            addr.sll_family = AF_PACKET;
            addr.sll_protocol = htons(ETH_P_ALL);
            addr.sll_ifindex = static_cast<int>(if_nametoindex(e.second.c_str()));
            if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
                close(fd);
                continue;
            }
            links_[e.first].fd = fd;
        }
        thread_ = std::thread([this] { run(); });
    }
    ~FrameSender() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        for (auto& e : links_) close(e.second.fd);
    }
    bool ok(size_t expected) const { return links_.size() == expected; }
    void setRate(const std::string& iface, uint32_t kbit) { links_.at(iface).kbit = kbit; }

  private:
    static constexpr size_t kFrame = 1024;
    struct Link {
        int fd = -1;
        std::atomic<uint32_t> kbit{0};
        double owed = 0;
    };
    void run() {
        uint8_t frame[kFrame] = {};
        memset(frame, 0xFF, 6);                            // broadcast
        memcpy(frame + 6, "\x02\x00\x00\x00\x00\x01", 6);  // local source address
        frame[12] = 0x88;                                  // local experimental type
        frame[13] = 0xB5;
        uint64_t last = wallMs();
        while (!stop_) {
            usleep(5000);
            const uint64_t now = wallMs();
            const double seconds = static_cast<double>(now - last) / 1000.0;
            last = now;
            for (auto& e : links_) {
                Link& l = e.second;
                l.owed += l.kbit.load() * 128.0 * seconds / kFrame;
                while (l.owed >= 1.0) {
                    if (send(l.fd, frame, sizeof(frame), 0) < 0) break;
                    l.owed -= 1.0;
                }
            }
        }
    }

    std::map<std::string, Link> links_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

double probabilityIn(const std::string& line) {
    size_t at = line.find("--probability ");
    return at == std::string::npos ? -1.0 : atof(line.c_str() + at + 14);
}

TEST(StatsBinaryTest, StandInServesRealTraffic) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: private network namespace and veth links";
    if (access(kStandIn.c_str(), X_OK) != 0) {
        GTEST_SKIP() << "the module stand-in " << kStandIn << " is not built";
    }
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    ASSERT_EQ(system("ip link set lo up && "
                     "ip link add wlan0 type veth peer name wlan0-peer && "
                     "ip link add rmnet_data0 type veth peer name rmnet0-peer && "
                     "for l in wlan0 wlan0-peer rmnet_data0 rmnet0-peer; do "
                     "ip link set $l up || exit 1; done"),
              0);
    DaemonRoot root;
    ASSERT_FALSE(root.path.empty());
    setenv("MLBD_ROOT", root.path.c_str(), 1);
    FrameSender sender({{"wlan0", "wlan0-peer"}, {"rmnet_data0", "rmnet0-peer"}});
    ASSERT_TRUE(sender.ok(2));
    sender.setRate("wlan0", 800);
    sender.setRate("rmnet_data0", 2000);

    pid_t standIn = spawn({kStandIn, "--root", root.path, "--verbose"}, root.path + "/standin.log");
    ASSERT_GT(standIn, 0);
    ASSERT_TRUE(waitFor(
            [&] {
                struct stat st;
                return stat((root.path + "/proc/sla/config").c_str(), &st) == 0 &&
                       S_ISFIFO(st.st_mode);
            },
            5000));
    pid_t daemon = spawn({kDaemon}, root.path + "/mlbd.log");
    ASSERT_GT(daemon, 0);

    // About 800 and 2000 kbit/s: Wi-Fi near 0.5 and cellular taking the rest (probability 1).
    auto aggregated = [&](size_t from, int* at) {
        std::vector<std::string> log = root.commands();
        for (size_t i = from; i + 2 < log.size(); ++i) {
            if (log[i].find("-F vexa_SLA") == std::string::npos) continue;
            double w = probabilityIn(log[i + 1]);
            if (log[i + 1].find("-j vexa_fw_wlan0") != std::string::npos && w > 0.3 && w < 0.7 &&
                log[i + 2].find(kCellFull) != std::string::npos) {
                *at = static_cast<int>(i);
                return true;
            }
        }
        return false;
    };
    int first = -1;
    EXPECT_TRUE(waitFor([&] { return aggregated(0, &first); }, 20000))
            << slurp(root.path + "/commands.log") << slurp(root.path + "/standin.log");

    // Wi-Fi at 4000 kbit/s: Wi-Fi alone.
    sender.setRate("wlan0", 4000);
    int second = -1;
    EXPECT_TRUE(waitFor(
            [&] {
                return (second = findRebuild(root.commands(), first + 1, kWlanFull, kCellNone)) >=
                       0;
            },
            20000))
            << slurp(root.path + "/commands.log") << slurp(root.path + "/standin.log");

    root.setProp("vendor.sla.enabled", "2");
    EXPECT_TRUE(waitFor(
            [&] {
                return slurp(root.path + "/standin.log").find("command \"enable=0\"") !=
                       std::string::npos;
            },
            10000));
    std::string standInLog = slurp(root.path + "/standin.log");
    EXPECT_NE(standInLog.find("command \"iface=rmnet_data0\""), std::string::npos);
    EXPECT_NE(standInLog.find("command \"enable=1\""), std::string::npos);
    stopProcess(daemon);
    stopProcess(standIn);
}

}  // namespace
