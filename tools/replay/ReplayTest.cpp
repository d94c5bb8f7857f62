#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "FromLog.h"
#include "Replay.h"
#include "Trace.h"

namespace mlbd {
namespace replay {
namespace {

const char* kLinks =
        "link wlan0 rtt=20ms\n"
        "link rmnet_data0 rtt=60ms\n"
        "game port=5000 every=100ms\n";

Trace parse(const std::string& text) {
    Trace t;
    std::string why;
    EXPECT_TRUE(parseTrace(text, &t, &why)) << why;
    return t;
}

// Replays `text` with the main loop's period starting at 250 ms; returns the summary and the
// log's lines.
Summary replay(const std::string& text, std::vector<std::string>* lines = nullptr,
               std::vector<std::string> config = {}) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* log = open_memstream(&buffer, &size);
    ReplayOptions options;
    options.log = log;
    options.loopPhaseMs = 250;
    options.config = std::move(config);
    Summary s;
    std::string why;
    EXPECT_TRUE(runReplay(parse(text), options, &s, &why)) << why;
    fclose(log);
    std::istringstream in(std::string(buffer, size));
    free(buffer);
    for (std::string line; lines && std::getline(in, line);) lines->push_back(line);
    return s;
}

// The virtual time (ms) of the first log line after `from` whose text contains `what`; -1 if none.
int64_t when(const std::vector<std::string>& lines, const std::string& what, int64_t from = 0) {
    for (const std::string& l : lines) {
        if (l.find(what) == std::string::npos) continue;
        // "01-DD HH:MM:SS.mmm"
        const int64_t ms = (atoi(l.substr(3, 2).c_str()) - 1) * 86400000LL +
                           atoi(l.substr(6, 2).c_str()) * 3600000LL +
                           atoi(l.substr(9, 2).c_str()) * 60000LL +
                           atoi(l.substr(12, 2).c_str()) * 1000LL + atoi(l.substr(15, 3).c_str());
        if (ms >= from) return ms;
    }
    return -1;
}

TEST(ReplayTest, TraceExpansionAndRejectedLines) {
    const Trace t = parse(std::string(kLinks) +
                          "duration 10s\n"
                          "at 1s wlan0 rtt=300ms loss=5%  # comment\n"
                          "ramp 2s 2.3s wlan0 rtt=100ms..400ms\n"
                          "at 4s rmnet_data0 down\n"
                          "at 5s rmnet_data0 up\n");
    const TraceLink& w = *t.find("wlan0");
    struct {
        int64_t ms;
        double rtt, loss;
    } wlan[] = {{0, 20, 0},        {999, 20, 0},      {1000, 300, 0.05}, {2000, 100, 0.05},
                {2100, 200, 0.05}, {2299, 300, 0.05}, {2300, 400, 0.05}, {9999, 400, 0.05}};
    for (const auto& c : wlan) {
        EXPECT_EQ(c.rtt, w.at(c.ms).rttMs) << c.ms;
        EXPECT_EQ(c.loss, w.at(c.ms).loss) << c.ms;
    }
    const TraceLink& r = *t.find("rmnet_data0");
    EXPECT_TRUE(r.at(3999).up);
    EXPECT_FALSE(r.at(4000).up);
    EXPECT_TRUE(r.at(5000).up);
    EXPECT_EQ("wlan0", t.defaultLink);

    // Seeded directives draw the same values for the same seed, others for another.
    const std::string jitter = "jitter 0s 10s wlan0 scale=10ms\n";
    auto drawn = [&](const char* seed) {
        const Trace t = parse(std::string(kLinks) + seed + jitter);
        const TraceLink& l = *t.find("wlan0");
        double sum = 0;
        for (int64_t ms = 0; ms < 10000; ms += 100) sum += l.at(ms).rttMs;
        return sum;
    };
    EXPECT_EQ(drawn("seed 5\n"), drawn("seed 5\n"));
    EXPECT_NE(drawn("seed 5\n"), drawn("seed 6\n"));
    EXPECT_GT(drawn("seed 5\n"), 100 * 20.0);

    for (const char* bad : {"at 1s wlan9 rtt=10ms", "at 1 wlan0 rtt=10ms", "at 1s wlan0 loss=120%",
                            "ramp 3s 2s wlan0 rtt=1ms..2ms", "game port=70000", "duration -1s",
                            "jitter 0s 1s wlan0 shape=0", "expect leave", "frobnicate",
                            "link wlan0", "at 1s wlan0 rtt=1e999ms"}) {
        Trace out;
        std::string why;
        EXPECT_FALSE(parseTrace(std::string(kLinks) + bad + "\n", &out, &why)) << bad;
        EXPECT_EQ(0u, why.find("line 4: ")) << bad << ": " << why;
    }
    // A day of loss bursts that change state every millisecond is refused, not expanded.
    Trace out;
    std::string why;
    EXPECT_FALSE(parseTrace(std::string(kLinks) + "gilbert 0s 86400s wlan0 p=50% r=50% step=1ms\n"
                                                  "duration 86400s\n",
                            &out, &why));
    EXPECT_EQ("line 4: too many changes", why);
}

// A step of Wi-Fi to 300 ms at the defaults: the switch comes at the pace the probes imply.
TEST(ReplayTest, StepSwitchesAtTheProbePace) {
    std::vector<std::string> log;
    const Summary s = replay(std::string(kLinks) +
                                     "duration 60s\n"
                                     "at 20s wlan0 rtt=300ms\n"
                                     "expect leave wlan0 at 20s\n",
                             &log);
    // The monitor polls on the second; the game's own RTT, smoothed as the kernel does, crosses
    // the exit threshold after four answers at 300 ms, within two polls, and starts the probes.
    const int64_t start = when(log, "creat rtt theads");
    EXPECT_EQ(22000, start);
    // Cellular: a handshake and ten exchanges at 60 ms; Wi-Fi: the same at 300 ms.
    EXPECT_EQ(start + 11 * 60, when(log, "TCPing cacla rtt is 60,device is rmnet_data0"));
    EXPECT_EQ(start + 11 * 300, when(log, "TCPing cacla rtt is 300,device is wlan0"));
    // The next probe of cellular follows its pause.
    EXPECT_EQ(start + 11 * 60 + 500,
              when(log, "4300 D Mlbd-Tcping: populateTcpingSocket", start + 1));
    // The first loop tick (phase 250 ms) after cellular's first result switches to it.
    ASSERT_EQ(1u, s.switches.size());
    EXPECT_EQ(22250 + 1000, s.switches[0].atMs);
    EXPECT_EQ("rmnet_data0", s.switches[0].to);
    EXPECT_EQ(when(log, "perform switch rmnet_data0"), s.switches[0].atMs);
    ASSERT_EQ(1u, s.results.size());
    EXPECT_EQ(3250, s.results[0].resultMs);
    EXPECT_EQ(60000 - 23250, s.meteredMs);
    EXPECT_EQ(3250, s.aboveExitMs);
    EXPECT_EQ(1, s.socketResets);
    EXPECT_EQ(2, s.gameConnections);  // the reset made the game reconnect over cellular
}

// A dead Wi-Fi: the game's connection stalls, the game gives up after 3 s and reconnects, the
// monitor counts four stalled checks of the connecting socket and starts the probes; Wi-Fi, never
// probed before, misses, cellular answers and wins.
TEST(ReplayTest, OutageMissesAndMetrics) {
    std::vector<std::string> log;
    const Summary s = replay(std::string(kLinks) +
                                     "duration 120s\n"
                                     "at 20s wlan0 down\n"
                                     "at 80s wlan0 up\n"
                                     "expect stay until 20s\n"
                                     "expect leave wlan0 at 20s until 80s\n"
                                     "expect return wlan0 at 80s\n",
                             &log);
    // Stalled at 21, 22 and 23 s; the reconnect at 23.26 s shows a new count of received
    // segments at 24 s; stalled again at 25 to 28 s.
    EXPECT_EQ(24000, when(log, "checkGamingServerConnectStatus prev_recv_cnt 0,", 20000));
    const int64_t start = when(log, "checkGamingServerRtt creat rtt theads");
    EXPECT_EQ(28000, start);
    // Each miss is a connect time-out (0.5 s) and the pause (0.5 s).
    EXPECT_EQ(start + 500, when(log, "num ping miss = (1)"));
    EXPECT_EQ(start + 1500, when(log, "num ping miss = (2)"));
    // The first tick after cellular's first result switches; once the game's RTT on cellular
    // is fine, probing stops before Wi-Fi fails.
    ASSERT_EQ(1u, s.switches.size());
    EXPECT_EQ(29250, s.switches[0].atMs);
    EXPECT_EQ(-1, when(log, "Ping FAIL"));
    ASSERT_EQ(3u, s.results.size());
    EXPECT_EQ(0, s.results[0].falseSwitches);
    EXPECT_EQ(9250, s.results[1].resultMs);
    EXPECT_TRUE(s.results[2].missed);  // the game is never brought back
    EXPECT_EQ(1, s.missedReturns);
    EXPECT_EQ(0, s.missedLeaves);
    EXPECT_EQ(0, s.falseSwitches);
    EXPECT_EQ(4, s.probes);
    EXPECT_EQ(120000 - 29250, s.meteredMs);
    EXPECT_EQ(9250, s.aboveExitMs);
}

// A log (here the replay's own) rebuilds into a trace of what it showed: the game's RTT on its
// link while nothing probed it, each probe's result from the probe's start, and the game.
TEST(ReplayTest, FromLogRebuildsWhatTheLogShows) {
    std::vector<std::string> log;
    replay(std::string(kLinks) + "duration 40s\nat 20s wlan0 rtt=300ms\nat 30s rmnet_data0 down\n",
           &log);
    char path[] = "/tmp/mlbd-fromlog-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string text;
    for (const std::string& l : log) text += l + "\n";
    ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
    close(fd);
    std::string rebuilt, why;
    ASSERT_TRUE(traceFromLog(path, &rebuilt, &why)) << why;
    unlink(path);
    const Trace t = parse(rebuilt);
    EXPECT_EQ(5000u, t.gamePort);
    EXPECT_EQ("wlan0", t.defaultLink);
    const TraceLink& w = *t.find("wlan0");
    EXPECT_EQ(20, w.at(15000).rttMs);
    EXPECT_EQ(300, w.at(22000 + 1).rttMs);  // the Wi-Fi probe that began at 22 s
    EXPECT_EQ(60, t.find("rmnet_data0")->at(23000).rttMs);
    Trace out;
    EXPECT_FALSE(traceFromLog("/nonexistent", &rebuilt, &why));
}

TEST(ReplayTest, SameSeedSameRunAndSettingsApply) {
    const std::string lossy = std::string(kLinks) +
                              "duration 120s\nseed 9\n"
                              "gilbert 0s 120s wlan0 p=5% r=20% bad-loss=100%\n"
                              "at 30s wlan0 rtt=300ms\n";
    const std::string a = summaryJson(replay(lossy));
    EXPECT_EQ(a, summaryJson(replay(lossy)));
    // A key the daemon reads reaches the replay: with the exit threshold above 300 ms, Wi-Fi at
    // 300 ms starts no probing and nothing switches.
    const Summary high = replay(lossy, nullptr, {"rtt_exit_threshold=400"});
    EXPECT_EQ(0u, high.switches.size());
    EXPECT_EQ(0, high.probes);
}

}  // namespace
}  // namespace replay
}  // namespace mlbd
