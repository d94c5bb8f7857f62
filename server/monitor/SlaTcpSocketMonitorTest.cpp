#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <set>

#include "monitor/SlaTcpSocketMonitor.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "sls/SmartLinkSelection.h"
#include "util/Daemon.h"
#include "util/Netns.h"

namespace {

using mlbd::test::waitFor;

Parameters* params;
std::shared_ptr<InterfaceRtt> record;  // its running flag shows whether probing was resumed

// No configuration, the game being UID 10050 (the first of the list), one probe record, idle.
void gameSetup() {
    setenv("MLBD_ROOT", "/dev/null/none", 1);
    mlbd::initLogging();
    params = Parameters::instance();
    params->setGamingUids("10050,10060");
    params->populateGamingUids();
    params->wifiRttPenaltyMs = 0;  // a penalty left over would make any connection slow
    record = std::make_shared<InterfaceRtt>("lo", "", 5, 500, 0);
    record->running = false;
    SmartLinkSelection::instance()->rttMap["lo"] = record;
}

// A monitor whose lock the test takes to play its polling thread (the guard, a temporary, is
// released once f returns).
struct TestMonitor : SlaTcpSocketMonitor {
    void locked(const std::function<void()>& f) { std::lock_guard<std::mutex>{lock_}, f(); }
};

// The map's entries, "port=server@uid" followed by "sent/recv/rtt/seq/ack" when `stats`.
std::set<std::string> render(const SlaTcpSocketMonitor& m, bool stats = true) {
    std::set<std::string> entries;
    for (const auto& [port, s] : m.getSockets()) {
        char text[160];
        snprintf(text, sizeof(text), "%u=%s@%u %u/%u/%u/%u/%u", static_cast<unsigned>(port),
                 s.server, s.uid, s.sent_cnt, s.recv_cnt, s.rtt, s.seq_rtt, s.last_ack_recv_time);
        entries.insert(stats ? text : std::string(text, strchr(text, ' ')));
    }
    return entries;
}

TEST(SlaTcpSocketMonitorTest, CraftedEntriesAndChecks) {
    gameSetup();
    TestMonitor m;
    // The paused monitor's own thread does nothing while the map is empty: the checks first, on a
    // connection with an RTT of 20 ms. Check i (from 0) sees recv_cnt 5 up to i = 5 and i after,
    // last_ack_recv_time 1000 * i - 1 (0 at first), seq_rtt (/100 here) and the Wi-Fi penalty,
    // which counts during a call with the game on Wi-Fi (all but 16 and 17); then the seq_rtt
    // average logged (every third check averages) and whether probing runs:
    //   0-1    the ACK gap of check 1 is short of a second;
    //   2-5    stalled: the same seq_rtt twice, then (seq_rtt 0) the same RTT twice; the fourth in
    //          a row resumes probing (and clears the connect status);
    //   6-7    progress at a low RTT stops probing; with the Wi-Fi penalty the RTT is high;
    //   8-10   a low average beside a high RTT stops probing, a low RTT alone does not start it;
    //   11-15  a high RTT starts it even beside a low average, a low RTT stops it, a high average
    //          alone starts it;
    //   16-17  without a call, or off Wi-Fi, the penalty leaves the RTT low: probing stops, and
    //          does not start again.
    const uint32_t seq[] = {90, 90, 90, 90, 0,   0,   120, 120, 30,
                            30, 30, 30, 30, 300, 300, 300, 0,   0};
    const int32_t penalty[] = {0, 0, 0, 0, 0, 0, 0, 200, 200, 200, 0, 0, 200, 0, 0, 0, 200, 200};
    const int32_t avg[] = {0, 0, 0, 90, 0, 0, 30, 0, 0, 60, 0, 0, 40, 0, 0, 213, 0, 0};
    const bool probe[] = {0, 0, 0, 0, 0, 1, 0, 1, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0};
    for (int i = 0; i < 18; i++) {
        const uint32_t recv = i < 5 ? 5 : i, ack = i ? 1000 * i - 1 : 0;
        SlaTcpSocketMonitor::SlsSocket s = {0, recv, {}, 0, 0, 20999, seq[i] * 100, ack, 0, {}};
        params->wifiRttPenaltyMs = penalty[i];
        params->setVoipRunning(i != 16);
        SmartLinkSelection::instance()->wifiChosen = i != 17;
        testing::internal::CaptureStderr();
        m.locked([&] { m.checkGamingServerConnectStatus(&s), m.checkGamingServerRtt(&s); });
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("tcp_seq_rtt is " + std::to_string(avg[i]) + "\n"), log.npos) << log;
        EXPECT_EQ(params->isGamingConnectStatus(), i != 5) << "check " << i;
        EXPECT_TRUE(params->isServiceHighRtt() == probe[i] && record->running == probe[i]) << i;
    }
    params->setVoipRunning(false);

    android::net::tcp_info_ext info = {};
    info.tcpi_segs_out = 3, info.tcpi_segs_in = 4, info.tcpi_rtt = 2, info.tcpi_rcv_ooopack = 5;
    info.tcpi_last_ack_recv = 1;
    const std::string v4 = "5000=10.0.0.1@10050 ", all = v4 + "3/4/2/5/1";
    // Family, destination, port, UID, statistics length: the map's entry after it.
    const std::tuple<uint8_t, const char*, uint16_t, uint32_t, uint32_t, std::string> rows[] = {
            // A field counts once the statistics reach 5 bytes past its offset.
            {AF_INET, "10.0.0.1", 5000, 10050, 60, v4 + "0/0/0/0/0"},
            {AF_INET, "10.0.0.1", 5000, 10050, 61, v4 + "0/0/0/0/1"},
            {AF_INET, "10.0.0.1", 5000, 10050, 140, v4 + "0/0/2/0/1"},
            {AF_INET, "10.0.0.1", 5000, 10050, 228, v4 + "3/4/2/0/1"},
            {AF_INET, "10.0.0.1", 5000, 10050, 229, all},
            // Another UID of the list, the web ports, a mapped address: ignored.
            {AF_INET, "10.0.0.2", 5001, 10060, 232, all},
            {AF_INET, "10.0.0.2", 80, 10050, 232, all},
            {AF_INET, "10.0.0.2", 443, 10050, 232, all},
            {AF_INET6, "::ffff:10.0.0.2", 5001, 10050, 232, all},
            // The last connection to a port takes its entry over; no statistics read as 0.
            {AF_INET6, "2001:db8::5", 5000, 10050, 0, "5000=2001:db8::5@10050 0/0/0/0/0"}};
    for (const auto& [family, dst, port, uid, len, entry] : rows) {
        inet_diag_msg msg = {};
        msg.idiag_family = family, msg.idiag_uid = uid, msg.id.idiag_dport = htons(port);
        inet_pton(family, dst, msg.id.idiag_dst);
        m.locked([&, n = len] { m.updateSocketStats({}, &msg, n ? &info : nullptr, n); });
        EXPECT_EQ(render(m), std::set<std::string>{entry}) << dst << ":" << port << " len " << len;
    }
}

// stall_leave_ms: an established connection with data in flight and no ACK for that long counts
// the game's link (the chosen one) as failed and starts probing, once per stall; its next good
// probe makes the link usable again.
TEST(SlaTcpSocketMonitorTest, StallLeave) {
    gameSetup();
    TestMonitor m;
    SmartLinkSelection::instance()->chosenRecord = record.get();
    InterfaceRtt* link = SmartLinkSelection::instance()->gameLinkRecord();
    ASSERT_EQ(record.get(), link);
    // Key, received segments, ms since the last ACK, in flight: failed and probing after it.
    const std::tuple<int32_t, uint32_t, uint32_t, uint32_t, bool> rows[] = {
            {0, 5, 5000, 1, false},      // no key
            {2000, 0, 90000, 1, false},  // still connecting
            {2000, 5, 500, 1, false},   {2000, 5, 1999, 1, false},
            {2000, 5, 2100, 0, false},  // nothing outstanding
            {2000, 5, 2100, 1, true},   {2000, 5, 3100, 1, true},
    };
    for (const auto& [key, recv, ack, unacked, stalled] : rows) {
        params->stall_leave_ms = key;
        SlaTcpSocketMonitor::SlsSocket s = {9, recv, {}, 0, 0, 20000, 0, ack, unacked, {}};
        m.locked([&] { m.checkGamingServerConnectStatus(&s); });
        EXPECT_EQ(stalled, static_cast<bool>(link->stalled)) << ack;
        EXPECT_EQ(stalled, record->running && params->isServiceHighRtt()) << ack;
        // While stalled the connect status stays clear, so the connection's unchanged RTT
        // cannot stop the probes.
        EXPECT_EQ(!stalled, params->isGamingConnectStatus()) << ack;
    }
    link->setSpeed(-1);
    EXPECT_TRUE(link->stalled);
    link->setSpeed(25);
    EXPECT_FALSE(link->stalled);
    // With slow_leave_checks the stall waits for the link's own probe: a success clears it, a
    // miss confirms it and wants a choice at once.
    params->slow_leave_checks = 1;
    for (int probe : {25, -1}) {
        SlaTcpSocketMonitor::SlsSocket s = {9, 6, {}, 0, 0, 20000, 0, 0, 1, {}};
        m.locked([&] { m.checkGamingServerConnectStatus(&s); });  // the last stall ends
        s.last_ack_recv_time = 5000;
        m.locked([&] { m.checkGamingServerConnectStatus(&s); });
        SmartLinkSelection::takeChoiceRequest();
        EXPECT_TRUE(link->stallSuspect && !link->stalled);
        link->setSpeed(probe);
        EXPECT_EQ(probe < 0, link->stalled && SmartLinkSelection::takeChoiceRequest());
        EXPECT_FALSE(link->stallSuspect);
    }
    params->slow_leave_checks = 0;
    params->stall_leave_ms = 0;
    params->setServiceHighRtt(false);
    record->running = false;
}

// slow_leave_checks: the game's own RTT above the exit threshold at that many checks in a row,
// on the link that carried it since the check before, becomes that link's figure for the choice,
// which is wanted at once (once); an RTT back under the threshold, or another link, clears it.
TEST(SlaTcpSocketMonitorTest, SlowLeave) {
    gameSetup();
    params->rtt_exit_threshold = 130;
    TestMonitor m;
    auto other = std::make_shared<InterfaceRtt>("lo2", "", 5, 500, 0);
    SmartLinkSelection::instance()->chosenRecord = record.get();
    SmartLinkSelection::takeChoiceRequest();
    // Key, the game's link, its RTT (ms): that link's evidence, whether a choice is wanted, and
    // whether quick checks run until the next poll (past half the exit threshold, no evidence).
    const std::tuple<int32_t, InterfaceRtt*, uint32_t, int32_t, bool, bool> rows[] = {
            {0, record.get(), 300, 0, false, false},  // no key
            {1, record.get(), 300, 0, false, false},  // the link is new to the check
            {1, record.get(), 300, 300, true, false},
            {1, record.get(), 250, 250, false, false},
            {1, record.get(), 130, 0, false, true},  // at the threshold: cleared
            {1, record.get(), 65, 0, false, false},
            {2, record.get(), 300, 0, false, true},
            {2, record.get(), 300, 300, true, false},
            {2, other.get(), 300, 0, false, false},  // the game moved: nothing yet on the new link
            {2, other.get(), 300, 0, false, true},
            {2, other.get(), 300, 300, true, false},
    };
    for (const auto& [key, link, rttMs, evidence, wanted, watching] : rows) {
        params->slow_leave_checks = key;
        SmartLinkSelection::instance()->chosenRecord = link;
        SlaTcpSocketMonitor::SlsSocket s = {9, 5, {}, 0, 0, rttMs * 1000 + 999, 0, 10, 0, {}};
        m.locked([&] { m.checkSlowLeave(&s); });
        EXPECT_EQ(evidence, link->slowEvidenceMs) << key << " " << rttMs;
        EXPECT_EQ(wanted, SmartLinkSelection::takeChoiceRequest()) << key << " " << rttMs;
        m.locked([&, w = watching] { EXPECT_EQ(w, m.slowWatching()) << rttMs; });
    }
    other->setSpeed(40);  // a good probe clears it too
    EXPECT_EQ(0, other->slowEvidenceMs);
    params->slow_leave_checks = 0;
    params->setServiceHighRtt(false);
    record->running = false;
}

TEST(SlaTcpSocketMonitorTest, KernelGameConnectionsSelectionAgeingAndStall) {
    if (!mlbd::test::Netns::enterPrivate()) GTEST_SKIP() << "needs root and network namespaces";
    gameSetup();
    // Root listens; the game (UID 10050) connects to each port, twice to 7001, and sends a segment
    // to 7000, which makes that connection the busiest.
    const std::pair<const char*, uint16_t> conns[] = {
            {"127.0.0.2", 7000}, {"127.0.0.1", 443}, {"127.0.0.3", 7001}, {"127.0.0.3", 7001}};
    int listeners[3], game[4];
    for (int i = 0; i < 4; i++) {
        sockaddr_in addr = {AF_INET, htons(conns[i].second), {inet_addr(conns[i].first)}, {}};
        auto* sa = reinterpret_cast<sockaddr*>(&addr);
        if (i < 3) listeners[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_TRUE(i == 3 ||
                    (bind(listeners[i], sa, sizeof(addr)) | listen(listeners[i], 8)) == 0);
        setfsuid(10050);  // the sockets made now belong to the game
        game[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setfsuid(0);
        ASSERT_EQ(connect(game[i], sa, sizeof(addr)), 0);
    }
    ASSERT_EQ(send(game[0], "x", 1, 0), 1);

    SlaTcpSocketMonitor* m = SlaTcpSocketMonitor::instance();
    usleep(100000);  // for its thread to reach the pause
    // Paused, the monitor would wait for ever: resumed, it dumps and selects at once, well before
    // the end of a poll interval.
    m->resumePolling();
    EXPECT_TRUE(waitFor([] { return params->getGamingRttServer() == "127.0.0.2"; }, 500));
    EXPECT_EQ(params->rttServerPort, 7000);
    EXPECT_EQ(render(*m, false),
              std::set<std::string>({"7000=127.0.0.2@10050", "7001=127.0.0.3@10050"}));
    // The server of 7001 goes, resetting both connections: the next dump drops their entry.
    close(listeners[2]);
    m->poll();
    EXPECT_EQ(render(*m, false), std::set<std::string>{"7000=127.0.0.2@10050"});
    // The game's server sends nothing more: four checks without progress resume the probes.
    EXPECT_TRUE(waitFor([] { return params->isServiceHighRtt() && record->running; }, 10000));
    SlaTcpSocketMonitor::finalize();

    // Finalized at any point of a cycle, the monitor goes without waiting out the interval.
    const auto start = SlaTcpSocketMonitor::Clock::now();
    for (int i = 0; i < 20; usleep(300 * i++), SlaTcpSocketMonitor::finalize())
        SlaTcpSocketMonitor::instance()->resumePolling();
    EXPECT_LT(SlaTcpSocketMonitor::Clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
