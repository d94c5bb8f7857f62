// Smart link selection over emulated links with real latency: the probes, their threads and the
// records they feed, in a private network namespace (root only).
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "MlbdSocketServer.h"
#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"
#include "sls/Tcping.h"
#include "util/Daemon.h"
#include "util/EmulatedLinks.h"

namespace {

using namespace std::chrono;
using mlbd::test::EmulatedLinks;
using mlbd::test::Netns;
using mlbd::test::waitFor;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// Wi-Fi 20 ms and cellular 150 ms away from the probe server 1.1.1.1:443, which lives in the
// test's peer namespace; probes every 100 ms, a link fails after 3 misses.
class SlsKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        if (!Netns::enterPrivate(&why)) GTEST_SKIP() << why;
        root_ = mlbd::test::makeRoot("ping_interval_ms=100\nmin_ping_times=3\n");
        ASSERT_FALSE(root_.empty());
        setenv("MLBD_ROOT", root_.c_str(), 1);
        mlbd::initLogging();
        ASSERT_TRUE(net_.startPeer());
        ASSERT_TRUE(links_.start(net_, 20, 150, &why)) << why;
    }
    void TearDown() override {
        SmartLinkSelection::cleanup();
        links_.stop();
        if (!root_.empty()) system(("rm -rf '" + root_ + "'").c_str());
    }
    // One probe through `iface` to `server`:`port`, with its duration and log.
    int probe(const char* iface, const char* server = "1.1.1.1", uint32_t port = 443) {
        sls_tcping_info info;
        info.ifaceName = iface;
        info.server = server;
        info.port = port;
        CaptureStderr();
        const auto start = steady_clock::now();
        const int rtt = Tcping().updateTcpingRtt(&info);
        took_ = duration_cast<milliseconds>(steady_clock::now() - start);
        log_ = GetCapturedStderr();
        return rtt;
    }
    bool logged(const std::string& text) const { return log_.find(text) != std::string::npos; }

    std::string root_;
    Netns net_;
    EmulatedLinks links_;
    milliseconds took_{0};
    std::string log_;
};

TEST_F(SlsKernelTest, ProbeMeasuresTheLinkItIsBoundTo) {
    const int wifi = probe("wlan0");
    EXPECT_TRUE(wifi >= 20 && wifi < 35) << wifi;
    EXPECT_TRUE(logged("TCPing cacla rtt is " + std::to_string(wifi) + ",device is wlan0"));
    const int cell = probe("rmnet_data0");
    EXPECT_TRUE(cell >= 150 && cell < 170) << cell;
    // A link faster than a millisecond measures 1 ms, not 0 (no measurement).
    ASSERT_TRUE(links_.setDelay("wlan0", 0));
    EXPECT_EQ(1, probe("wlan0")) << log_;

    // A name of 16 characters or more is cut to 15: the bind to the 15-character link succeeds
    // and only the connect fails (no route through it).
    ASSERT_EQ(0, Netns::run("ip link add abcdefghijklmno type veth peer name pq && "
                            "ip link set abcdefghijklmno up"));
    EXPECT_EQ(-1, probe("abcdefghijklmnoXYZ"));
    EXPECT_TRUE(logged("connect failed of client!") && !logged("Set interface")) << log_;
    EXPECT_EQ(-1, probe("nosuchlink"));
    EXPECT_TRUE(logged("E Mlbd-Tcping: Set interface nosuchlink failed.")) << log_;

    // A server that accepts but never answers: the receive gives up after half a second.
    const int silent = net_.socketInPeer(AF_INET, SOCK_STREAM);
    const sockaddr_in addr = {AF_INET, htons(444), {htonl(0x01010101)}, {}};  // 1.1.1.1:444
    ASSERT_EQ(0, bind(silent, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(silent, 8));
    EXPECT_EQ(-1, probe("wlan0", "1.1.1.1", 444));
    EXPECT_TRUE(logged("E Mlbd-Tcping: recieve failed -1,error is 11")) << log_;
    EXPECT_TRUE(took_ >= milliseconds(500) && took_ < milliseconds(900)) << took_.count();
    close(silent);

    // With "ipv6" set, a link without an IPv4 address probes the IPv6 default target instead of
    // the IPv4 one, and a link without IPv6 misses an IPv6 target.
    Parameters* params = Parameters::instance();
    params->ipv6 = 1, params->rttServer6 = "fd99::1";
    ASSERT_EQ(0, Netns::run("ip addr del 10.77.2.2 peer 10.77.2.1 dev rmnet_data0"));
    ASSERT_TRUE(waitFor([&] { return probe("rmnet_data0") >= 150; }, 3000)) << log_;
    EXPECT_TRUE(logged("rmnet_data0 has no IPv4 address, probing the IPv6 default target fd99::1"));
    EXPECT_EQ(-1, probe("abcdefghijklmno", "fd99::1"));  // no IPv6 on that link

    // Targets that cannot be probed are misses with a clear line, at once.
    for (auto target : {std::make_pair("not-an-address", 443u), std::make_pair("1.1.1.1", 0u),
                        std::make_pair("1.1.1.1", 70000u)}) {
        EXPECT_EQ(-1, probe("wlan0", target.first, target.second));
        EXPECT_TRUE(logged("is not an IPv4 address and port")) << target.first;
        EXPECT_LT(took_, milliseconds(100));
    }
}

// The threads keep their records current through a failure and back, stop and resume without
// losing history, and let go of their records when destroyed, however often that happens.
TEST_F(SlsKernelTest, ProbeThreadsLifecycle) {
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
    std::shared_ptr<InterfaceRtt> wifi = sls->records().at("wlan0"),
                                  cell = sls->records().at("rmnet_data0");
    sls->createRttThreads();
    ASSERT_TRUE(waitFor([&] { return wifi->speed > 0 && wifi->speed < 30; }, 10000)) << wifi->speed;
    ASSERT_TRUE(waitFor([&] { return cell->speed >= 150 && cell->speed < 175; }, 10000))
            << cell->speed;

    // Wi-Fi loses every packet: three misses fail it; cellular is untouched.
    ASSERT_TRUE(links_.set("wlan0", "loss=100%"));
    ASSERT_TRUE(waitFor([&] { return wifi->speed == -1; }, 6000));
    EXPECT_EQ(3u, wifi->getMissCount());
    EXPECT_GE(cell->speed, 150);
    // Its next good probe brings it back, smoothed from 1000: 400 + 0.6 x ~20.
    ASSERT_TRUE(links_.set("wlan0", "loss=0%"));
    ASSERT_TRUE(waitFor([&] { return wifi->speed > 0; }, 6000));
    EXPECT_TRUE(wifi->speed >= 412 && wifi->speed < 430) << wifi->speed;

    // Stopped, the record keeps its thread and history; resumed, it goes on from there.
    const pthread_t thread = wifi->thread;
    sls->threadStop();
    std::this_thread::sleep_for(milliseconds(800));  // the probe in flight ends
    const int32_t held = wifi->speed;
    std::this_thread::sleep_for(milliseconds(500));
    EXPECT_EQ(held, wifi->speed);
    EXPECT_EQ(held, wifi->getPrevSpeed());
    sls->threadResume();
    ASSERT_TRUE(waitFor([&] { return wifi->speed != held; }, 3000));
    EXPECT_EQ(thread, wifi->thread);
    EXPECT_LT(wifi->speed, held);

    // Destroy and create at once, many times: old threads finish beside new ones; once the
    // instance is gone every thread lets go of its record and the records are freed.
    for (int i = 0; i < 30; ++i) {
        sls->threadDestory();
        sls->createRttThreads();
    }
    std::weak_ptr<InterfaceRtt> weakWifi = wifi, weakCell = cell;
    wifi.reset();
    cell.reset();
    SmartLinkSelection::finalize();
    sls.reset();
    EXPECT_TRUE(waitFor([&] { return weakWifi.expired() && weakCell.expired(); }, 5000));
}

// A call that ends during a game leaves the game's probing able to resume: on the socket
// monitor's resume every link has a live probe thread again, which follows its link's delay.
TEST_F(SlsKernelTest, ProbingResumesAfterACallEndsDuringAGame) {
    setCommandParameters(Parameters::instance());
    ASSERT_TRUE(!StartSlsServer("10050") && !setVoipStatus("10060") && !setVoipStatus("0"));
    Parameters::instance()->alpha_percent = 100;  // each probe's RTT as it comes
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
    sls->threadResume();  // as the monitor does when the game's RTT rises
    for (const auto& [name, rec] : sls->records())
        EXPECT_TRUE(rec->alive && rec->thread != InterfaceRtt::kNoThread) << name;
    ASSERT_TRUE(links_.setDelay("wlan0", 100));
    const std::shared_ptr<InterfaceRtt> wifi = sls->records().at("wlan0");
    EXPECT_TRUE(waitFor([&] { return wifi->speed >= 100; }, 5000)) << wifi->speed;
    StopSlsServer();
}

}  // namespace
