#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <sys/socket.h>

#include <chrono>

#include "monitor/VoipStateMonitor.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "support/NetlinkTestBytes.h"
#include "util/Netns.h"

namespace {

using namespace netlink_test;

constexpr uint16_t kFamily = 0x1c;

// The nl80211 client on its real socket, where the kernel's controller stands in for nl80211 and
// answers each station query at once with an error, until the first answer() moves it to a
// socketpair whose other end the test answers from.
class StationPeer : public android::wificond::NetlinkUtils {
  public:
    StationPeer() { messageTypes["nl80211"] = android::wificond::MessageType(GENL_ID_CTRL); }
    // Answers the pending station query (if any) with `dbm`, then waits for the next query (the
    // answer's sample is complete then) unless `last`.
    bool answer(int8_t dbm, bool last = false) {
        if (!peer.ok()) {
            int sv[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return false;
            const timeval limit = {5, 0};
            setsockopt(sv[1], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            std::lock_guard<std::mutex> lock(callMutex);
            netlinkFd.reset(sv[0]), peer.reset(sv[1]);
            messageTypes["nl80211"] = android::wificond::MessageType(kFamily);
        }
        const Bytes reply = message(kFamily, 0, seq, 19, attr(21, attr(7, {uint8_t(dbm)})));
        Bytes query(256);
        if (seq != 0 && send(peer, reply.data(), reply.size(), 0) < 0) return false;
        const bool queried = last || recv(peer, query.data(), query.size(), 0) >= 16;
        memcpy(&seq, &query[8], sizeof(seq));
        return queried;
    }

    android::base::unique_fd peer;
    uint32_t seq = 0;
};

TEST(VoipStateMonitorTest, PenaltyFromTheSignalAndThresholdsAroundACall) {
    // In a namespace of its own: the end of a monitor resets the gaming UIDs' sockets.
    if (!mlbd::test::Netns::enterPrivate()) GTEST_SKIP() << "needs root and network namespaces";
    setenv("MLBD_ROOT", "/dev/null/none", 1);  // no configuration, no properties
    mlbd::initLogging();
    Parameters* params = Parameters::instance();
    params->setGamingUids("10050,10060");
    params->populateGamingUids();
    auto thresholds = [p = params] {
        return std::pair{+p->rtt_entry_threshold, +p->rtt_exit_threshold};
    };

    StationPeer station, inCall;
    testing::internal::CaptureStderr();
    auto monitor = std::make_unique<VoipStateMonitor>(&station);
    EXPECT_EQ(thresholds(), std::pair(90, 130));
    // After the first query, the signal and the penalty after it: weak, then no station
    // information (the penalty is kept); the last answer, a fair signal, clears it.
    ASSERT_TRUE(station.answer(0));
    for (auto [dbm, penalty] : {std::pair{-70, 200}, {1, 200}, {0, 200}})
        EXPECT_TRUE(station.answer(dbm) && params->wifiRttPenaltyMs == penalty) << dbm;
    // Destruction ends the next query, which is never answered, instead of waiting out its
    // reply time-out (one second); the failed sample keeps the penalty of the one before.
    ASSERT_TRUE(station.answer(-69));
    const auto start = std::chrono::steady_clock::now();
    monitor.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(params->wifiRttPenaltyMs, 0);
    EXPECT_EQ(thresholds(), std::pair(90, 130));

    // Made during a call, the monitor raises both thresholds; its end steps only entry back.
    params->setVoipRunning(true);
    monitor = std::make_unique<VoipStateMonitor>(&inCall);
    EXPECT_EQ(thresholds(), std::pair(110, 200));
    monitor.reset();
    EXPECT_EQ(thresholds(), std::pair(130, 200));
    // Each end resets the sockets of every gaming UID.
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(contains(log, "Netlink reply wait ended: the caller is stopping")) << log;
    EXPECT_TRUE(contains(log, "destroying UDP sockets: 10050\n") &&
                contains(log, "destroying UDP sockets: 10060\n"));
}

}  // namespace
