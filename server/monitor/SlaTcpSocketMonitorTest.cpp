#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <map>

#include "monitor/SlaTcpSocketMonitor.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "sls/SmartLinkSelection.h"
#include "util/Netns.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

bool has(const std::string& log, const std::string& text) {
    return log.find(text) != std::string::npos;
}

// The parameter store with no configuration, the game being UID 10050 (the first of the list),
// and one probe record, idle, whose running flag shows whether probing was resumed.
Parameters* gameSetup() {
    setenv("MLBD_ROOT", "/dev/null/none", 1);
    mlbd::initLogging();
    Parameters* params = Parameters::instance();
    params->setGamingUids("10050,10060");
    params->populateGamingUids();
    SmartLinkSelection::instance()->rttMap["lo"] =
            std::make_shared<InterfaceRtt>("lo", "", 5, 500, 0);
    SmartLinkSelection::instance()->threadStop();
    return params;
}

bool probing() {
    return SmartLinkSelection::instance()->rttMap.at("lo")->running;
}

// A monitor whose lock the test takes to play its polling thread.
struct TestMonitor : SlaTcpSocketMonitor {
    template <typename F>
    void locked(F f) {
        std::lock_guard<std::mutex> guard(lock_);
        f();
    }
};

// The map in port order: "port=server@uid", then "sent/recv/rtt/seq/ack" when `stats`.
std::string render(const SlaTcpSocketMonitor& m, bool stats = true) {
    auto copy = m.getSockets();
    std::string out;
    for (const auto& [port, s] :
         std::map<uint64_t, SlaTcpSocketMonitor::SlsSocket>(copy.begin(), copy.end())) {
        out += std::to_string(port) + "=" + s.server + "@" + std::to_string(s.uid) + " ";
        char numbers[64];
        snprintf(numbers, sizeof(numbers), "%u/%u/%u/%u/%u ", s.sent_cnt, s.recv_cnt, s.rtt,
                 s.seq_rtt, s.last_ack_recv_time);
        if (stats) out += numbers;
    }
    return out;
}

TEST(SlaTcpSocketMonitorTest, CraftedEntriesAndChecks) {
    Parameters* params = gameSetup();
    TestMonitor m;
    // The paused monitor's own thread does nothing while the map is empty: the checks first.
    // recv_cnt, last_ack_recv_time, rtt (ms), seq_rtt, Wi-Fi penalty; then the logged seq_rtt
    // average, whether probing runs after the checks, and a line they log.
    const std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, int32_t, int32_t, bool, const char*>
            checks[] = {
                    {5, 0, 20, 9000, 0, 0, false,
                     "D Mlbd-SocketMonitor: checkGamingServerConnectStatus prev_recv_cnt 5,"
                     "last_ack_recv_time 0,prev_seq_rtt 9000\n"},
                    {5, 999, 20, 9000, 0, 0, false, nullptr},  // ACK gap short of a second
                    // Stalled: the same seq_rtt twice, then (seq_rtt 0) the same RTT twice; the
                    // fourth in a row resumes probing (and clears the connect status).
                    {5, 1999, 20, 9000, 0, 0, false, nullptr},
                    {5, 2999, 20, 9000, 0, 90, false, nullptr},
                    {5, 3999, 20, 0, 0, 0, false, nullptr},
                    {5, 4999, 20, 0, 0, 0, true, "checkGamingServerRtt creat rtt theads\n"},
                    // Progress at a low RTT stops probing; with the Wi-Fi penalty it is high.
                    {6, 5000, 20, 12000, 0, 30, false, "stop rtt theads , rtt is 20\n"},
                    {7, 5000, 20, 12000, 200, 0, true, "creat rtt theads , rtt is 220\n"},
                    {8, 5000, 20, 3000, 200, 0, true, nullptr},
                    // A low average beside a high RTT stops it.
                    {9, 5000, 20, 3000, 200, 60, false, "stop rtt theads , rtt is 220\n"},
            };
    for (const auto& [recv, ack, rttMs, seq, penalty, avg, probe, line] : checks) {
        SlaTcpSocketMonitor::SlsSocket s = {};
        s.recv_cnt = recv, s.last_ack_recv_time = ack, s.rtt = rttMs * 1000 + 999, s.seq_rtt = seq;
        params->wifiRttPenaltyMs = penalty;
        CaptureStderr();
        m.locked([&] { m.checkGamingServerConnectStatus(&s), m.checkGamingServerRtt(&s); });
        const std::string log = GetCapturedStderr();
        const std::string rtt = "checkGamingServerRtt rtt is " + std::to_string(rttMs + penalty) +
                                ",tcp_seq_rtt is " + std::to_string(avg) + "\n";
        EXPECT_TRUE(has(log, rtt) && (line ? has(log, line) : !has(log, "theads"))) << log;
        EXPECT_EQ(std::make_tuple(params->isGamingConnectStatus(), params->isServiceHighRtt(),
                                  probing()),
                  std::make_tuple(ack != 4999, probe, probe));
    }

    android::net::tcp_info_ext info = {};
    info.tcpi_segs_out = 3, info.tcpi_segs_in = 4, info.tcpi_rtt = 2, info.tcpi_rcv_ooopack = 5;
    info.tcpi_last_ack_recv = 1;
    const std::string v4 = "5000=10.0.0.1@10050 ", all = "3/4/2/5/1 ";
    // Family, destination, port, UID, statistics length: the map after the entry.
    const std::tuple<uint8_t, const char*, uint16_t, uint32_t, uint32_t, std::string> rows[] = {
            // A field counts once the statistics reach 5 bytes past its offset.
            {AF_INET, "10.0.0.1", 5000, 10050, 60, v4 + "0/0/0/0/0 "},
            {AF_INET, "10.0.0.1", 5000, 10050, 61, v4 + "0/0/0/0/1 "},
            {AF_INET, "10.0.0.1", 5000, 10050, 140, v4 + "0/0/2/0/1 "},
            {AF_INET, "10.0.0.1", 5000, 10050, 228, v4 + "3/4/2/0/1 "},
            {AF_INET, "10.0.0.1", 5000, 10050, 229, v4 + all},
            // Another UID of the list, a web port, a mapped address, a foreign family: ignored.
            {AF_INET, "10.0.0.2", 5001, 10060, 232, v4 + all},
            {AF_INET, "10.0.0.2", 80, 10050, 232, v4 + all},
            {AF_INET6, "::ffff:10.0.0.2", 5001, 10050, 232, v4 + all},
            {AF_UNIX, "", 5001, 10050, 232, v4 + all},
            // The last connection to a port takes its entry over; no statistics read as 0.
            {AF_INET6, "2001:db8::5", 5000, 10050, 0, "5000=2001:db8::5@10050 0/0/0/0/0 "},
    };
    for (const auto& [family, dst, port, uid, len, map] : rows) {
        inet_diag_msg msg = {};
        msg.idiag_family = family, msg.idiag_uid = uid, msg.id.idiag_dport = htons(port);
        inet_pton(family, dst, msg.id.idiag_dst);
        const uint32_t n = len;
        m.locked([&] { m.updateSocketStats(Clock::now(), &msg, n ? &info : nullptr, n); });
        EXPECT_EQ(render(m), map) << dst << ":" << port << " len " << len;
    }
}

TEST(SlaTcpSocketMonitorTest, KernelGameConnectionsSelectionAgeingAndStall) {
    std::string why;
    if (!mlbd::test::Netns::enterPrivate(&why)) GTEST_SKIP() << why;
    Parameters* params = gameSetup();
    // Root listens; the game (UID 10050) connects to each port, twice to 7001.
    const std::pair<const char*, uint16_t> conns[] = {
            {"127.0.0.2", 7000}, {"127.0.0.1", 443}, {"127.0.0.3", 7001}, {"127.0.0.3", 7001}};
    int listeners[3], game[4], one = 1;
    for (int i = 0; i < 4; i++) {
        sockaddr_in addr = {AF_INET, htons(conns[i].second), {}, {}};
        inet_pton(AF_INET, conns[i].first, &addr.sin_addr);
        auto* sa = reinterpret_cast<sockaddr*>(&addr);
        if (i < 3) listeners[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_TRUE(i == 3 ||
                    (bind(listeners[i], sa, sizeof(addr)) | listen(listeners[i], 8)) == 0);
        setfsuid(10050);  // the sockets made now belong to the game
        game[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setfsuid(0);
        ASSERT_EQ(connect(game[i], sa, sizeof(addr)), 0);
    }
    // The connection to 7000 is the busiest.
    setsockopt(game[0], IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    for (int i = 0; i < 20; i++, usleep(1000)) ASSERT_EQ(send(game[0], "x", 1, 0), 1);

    CaptureStderr();
    SlaTcpSocketMonitor* m = SlaTcpSocketMonitor::instance();
    // Paused, the monitor would wait for ever: resumed, it dumps and selects at once.
    m->resumePolling();
    auto waitFor = [](auto done, Clock::duration limit) {
        for (auto end = Clock::now() + limit; !done() && Clock::now() < end;) usleep(10000);
        return done();
    };
    EXPECT_TRUE(waitFor([&] { return params->getGamingRttServer() == "127.0.0.2"; }, 800ms));
    EXPECT_EQ(params->rttServerPort, 7000);
    EXPECT_EQ(render(*m, false), "7000=127.0.0.2@10050 7001=127.0.0.3@10050 ");
    // The server of 7001 goes, resetting both connections: the next dump drops their entry.
    close(listeners[2]);
    m->poll();
    EXPECT_EQ(render(*m, false), "7000=127.0.0.2@10050 ");
    // The game's server sends nothing more: four checks without progress resume the probes.
    EXPECT_TRUE(waitFor([&] { return params->isServiceHighRtt() && probing(); }, 10s));
    SlaTcpSocketMonitor::finalize();
    const std::string log = GetCapturedStderr();
    EXPECT_TRUE(has(log, "D Mlbd-SocketMonitor: selectServer update is 127.0.0.2\n")) << log;
    EXPECT_TRUE(has(log, "D Mlbd-SocketMonitor: map server is 127.0.0.3 , port is 7001,total"));

    // Finalized at any point of a cycle, the monitor goes without waiting out the interval.
    const auto start = Clock::now();
    for (int i = 0; i < 20; i++, SlaTcpSocketMonitor::finalize()) {
        SlaTcpSocketMonitor::instance()->resumePolling();
        usleep(300 * i);
    }
    EXPECT_LT(Clock::now() - start, 2s);
}

}  // namespace
