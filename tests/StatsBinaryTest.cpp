// The daemon binary end to end for link aggregation, under a private MLBD_ROOT: it reads crafted
// statistics rings, programs the split through recording packet-filter and routing front-ends,
// and writes its commands to the module's control file, here a FIFO read back by the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "support/SlaRingTestUtil.h"
#include "util/Daemon.h"

namespace {

using namespace mlbd::test;

TEST(StatsBinaryTest, CraftedRatesBecomeRatioRules) {
    // A 100 ms loop and a staleness limit that outlasts the test (the rings are written once).
    const std::string root = makeRoot("mini_est_interval=100\nmini_stale_interval=100000000\n");
    ASSERT_NE(root, "");
    ASSERT_EQ(chdir(root.c_str()), 0);
    ASSERT_EQ(mkfifo("proc/sla/config", 0600), 0);
    const int fifo = open("proc/sla/config", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo, 0);
    // Wi-Fi 800 kbit/s and cellular 2000 kbit/s: 10240 and 25600 bytes per 100 ms.
    for (const std::string iface : {"wlan0", "rmnet_data0"}) {
        std::string ring(slatest::kFileBytes, '\0');
        slatest::RingWriter writer(&ring[0]);
        slatest::fillIntervals(writer, 100, slatest::wallMs(), 5, 100,
                               iface == "wlan0" ? 10240 : 25600);
        std::ofstream("proc/sla/" + iface + "_mmap") << ring;
    }

    const pid_t daemon = startDaemon(root, "mlbd.log");
    ASSERT_GT(daemon, 0);
    // Wi-Fi 0.5 and cellular 0.5: a flush of vexa_SLA, then the cascade's probabilities
    // 0.500000 for Wi-Fi and 1.000000 for the rest.
    const std::string rule =
            "-w -t mangle -A vexa_SLA --match multiport -p tcp --dports "
            "80,443,8080 -m state --state NEW -m statistic --mode random "
            "--probability ";
    const std::string rules = "-w -t mangle -F vexa_SLA\n" + rule + "0.500000 -j vexa_fw_wlan0\n" +
                              rule + "1.000000 -j vexa_fw_rmnet_data0_wrapper\n";
    EXPECT_TRUE(
            waitFor([&] { return slurp("commands.log").find(rules) != std::string::npos; }, 15000))
            << slurp("commands.log") << slurp("mlbd.log");

    // Shut-down writes enable=0 after the commands of the start, nothing in between.
    std::ofstream("properties/vendor.sla.enabled") << "2";
    const char kExpected[] =
            "protocols=http,https\0ports=80,443\0iface=rmnet_data0\0iface=wlan0\0"
            "enable=1\0enable=0";
    const std::string expected(kExpected, sizeof(kExpected));  // the last NUL included
    std::string control;
    waitFor(
            [&] {
                char buf[4096];
                const ssize_t n = read(fifo, buf, sizeof(buf));
                control.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
                return control.size() >= expected.size();
            },
            10000);
    EXPECT_EQ(control, expected) << slurp("mlbd.log");

    stopDaemon(daemon);
    close(fifo);
    ASSERT_EQ(system(("rm -rf " + root).c_str()), 0);
}

}  // namespace
