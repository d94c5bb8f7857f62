// The daemon binary end to end for link aggregation, under a private MLBD_ROOT: it reads crafted
// statistics rings, programs the split through recording packet-filter and routing front-ends,
// and writes its commands to the module's control file, here a FIFO read back by the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <string>

#include "stats/SlaRingTestUtil.h"
#include "util/Daemon.h"

namespace {

using slatest::wallMs;

std::string slurp(const std::string& path) {
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
}

// Polls `done` every 20 ms for up to `ms` milliseconds.
bool waitFor(const std::function<bool()>& done, uint64_t ms) {
    for (const uint64_t end = wallMs() + ms; !done(); usleep(20 * 1000)) {
        if (wallMs() > end) return false;
    }
    return true;
}

TEST(StatsBinaryTest, CraftedRatesBecomeRatioRules) {
    // The test works inside its own root (each test runs in its own process).
    char root[] = "/tmp/mlbd-statsbin-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    setenv("MLBD_ROOT", root, 1);
    ASSERT_EQ(chdir(root), 0);
    ASSERT_EQ(system("mkdir -p vendor/etc/sla properties dev/socket proc/sla proc/net system/bin"),
              0);
    // A 100 ms loop and a staleness limit that outlasts the test (the rings are written once),
    // wlan0 and a metered rmnet_data0, front-ends that append their command lines to a log.
    std::ofstream("vendor/etc/sla/mlbd.conf")
            << "mini_est_interval=100\nmini_stale_interval=100000000\n";
    std::ofstream("properties/vendor.sla.ifaces") << "wlan0,rmnet_data0";
    std::ofstream("properties/vendor.sla.mode") << "1";
    std::ofstream("properties/vendor.sla.enabled") << "1";
    for (const std::string tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
        std::ofstream("system/bin/" + tool)
                << "#!/bin/sh\necho \"$*\" >> " << root << "/commands.log\n";
        ASSERT_EQ(chmod(("system/bin/" + tool).c_str(), 0755), 0);
    }
    ASSERT_EQ(mkfifo("proc/sla/config", 0600), 0);
    const int fifo = open("proc/sla/config", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo, 0);
    // Wi-Fi 800 kbit/s and cellular 2000 kbit/s: 10240 and 25600 bytes per 100 ms.
    for (const std::string iface : {"wlan0", "rmnet_data0"}) {
        std::string ring(slatest::kFileBytes, '\0');
        slatest::RingWriter writer(&ring[0]);
        slatest::fillIntervals(writer, 100, wallMs(), 5, 100, iface == "wlan0" ? 10240 : 25600);
        std::ofstream("proc/sla/" + iface + "_mmap") << ring;
    }

    const pid_t daemon = mlbd::test::startDaemon(root, "mlbd.log");
    ASSERT_GT(daemon, 0);
    // Wi-Fi 0.5 and cellular 0.5: a flush of vexa_SLA, then the cascade's probabilities
    // 0.500000 for Wi-Fi and 1.000000 for the rest.
    const std::regex rules(
            "-t mangle -F vexa_SLA.*\n.*--probability 0\\.500000 -j vexa_fw_wlan0.*\n"
            ".*--probability 1\\.000000 -j vexa_fw_rmnet_data0_wrapper");
    EXPECT_TRUE(waitFor([&] { return std::regex_search(slurp("commands.log"), rules); }, 15000))
            << slurp("commands.log") << slurp("mlbd.log");

    // Shut-down writes enable=0 after the commands of the start, nothing in between.
    std::ofstream("properties/vendor.sla.enabled") << "2";
    const char kExpected[] =
            "protocols=http,https\0ports=80,443\0iface=rmnet_data0\0iface=wlan0\0"
            "enable=1\0enable=0";
    const std::string expected(kExpected, sizeof(kExpected));  // the last NUL included
    std::string control;
    char buf[4096];
    waitFor(
            [&] {
                const ssize_t n = read(fifo, buf, sizeof(buf));
                control.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
                return control.size() >= expected.size();
            },
            10000);
    EXPECT_EQ(control, expected) << slurp("mlbd.log");

    mlbd::test::stopDaemon(daemon);
    close(fifo);
    ASSERT_EQ(system((std::string("rm -rf ") + root).c_str()), 0);
}

}  // namespace
