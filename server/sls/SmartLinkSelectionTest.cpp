#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <tuple>
#include <vector>

#include "iptables/IptablesManager.h"
#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"
#include "support/CommandRecorder.h"
#include "util/Daemon.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Lines = std::vector<std::string>;

// The messages of the captured log lines of one tag, without the threadtime prefix.
Lines messages(const std::string& log, const std::string& tag = "Mlbd-SlaPing") {
    Lines out;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        size_t at = line.find(" " + tag + ": ");
        if (at != std::string::npos) out.push_back(line.substr(at + tag.size() + 3));
    }
    return out;
}

struct timeval gNow = {1000, 0};  // the time of day the choice sees

// Four links (two Wi-Fi, two cellular, metered), every command recorded instead of run.
class SlsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root_ = mlbd::test::makeRoot("");
        setenv("MLBD_ROOT", root_.c_str(), 1);
        std::ofstream(root_ + "/properties/vendor.sla.ifaces") << "wlan0,wlan1,rmnet_data0,ccmni0";
        mlbd::initLogging();
        params_ = Parameters::instance();
        sls_ = SmartLinkSelection::instance();
        sls_->setClock([] { return gNow; });
    }
    void TearDown() override {
        SmartLinkSelection::cleanup();
        ASSERT_EQ(0, system(("rm -rf '" + root_ + "'").c_str()));
    }
    std::shared_ptr<InterfaceRtt> rec(const std::string& name) { return sls_->rttMap.at(name); }

    std::string root_;
    Parameters* params_ = nullptr;
    std::shared_ptr<SmartLinkSelection> sls_;
    mlbd::ScopedCommandRecorder commands_;
};

TEST_F(SlsTest, SmoothingMissesAndFailure) {
    struct Case {
        const char* what;
        int32_t minPingTimesAtCreation, minPingTimesLater, alpha;
        std::vector<int> raws;
        int32_t speed, prevSpeed;
        uint32_t missCount;
        Lines log;  // the whole log when not empty
    };
    const std::string fail =
            "setSpeed: SLA_PING Ping FAIL for RTT interface (wlan0) (calc = -1) "
            "(old speed = 1000) (new prev = 1000) (alpha_percent = 60)";
    const std::string pass1000 =
            "setSpeed: SLA_PING Ping Pass for RTT interface (wlan0) (calc = "
            "1000) (raw = 1000) (prev = 1000) (alpha_percent = 60)";
    auto miss = [](int n) {
        return "setSpeed: SLA_PING Ping Miss for RTT interface (wlan0) num ping miss = (" +
               std::to_string(n) + ") ";
    };
    const Lines fiveMisses = {miss(1),  pass1000, miss(2),  pass1000, miss(3),
                              pass1000, miss(4),  pass1000, miss(5),  fail};
    const std::vector<int> five = {-1, -1, -1, -1, -1};
    auto plus = [&five](std::vector<int> more) {
        more.insert(more.begin(), five.begin(), five.end());
        return more;
    };
    // clang-format off
    const Case cases[] = {
        {"five misses fail the link", 5, 5, 60, five, -1, 1000, 5, fiveMisses},
        {"one success earns back one miss", 5, 5, 60, plus({40}), 424, 424, 4, {}},
        {"and the next miss fails it again", 5, 5, 60, plus({40, -1}), -1, 1000, 5, {}},
        {"two truncating divisions", 5, 5, 60, {35}, 421, 421, 0,
         {"setSpeed: SLA_PING Ping Pass for RTT interface (wlan0) (calc = 421) (raw = 35) "
          "(prev = 1000) (alpha_percent = 60)"}},
        {"a miss re-feeds the last speed", 5, 5, 60, {35, -1}, 420, 420, 1, {}},
        {"alpha 100 takes the measurement", 5, 5, 100, {35, 77}, 77, 77, 0, {}},
        {"alpha 0 never moves", 5, 5, 0, {35, 77}, 1000, 1000, 0, {}},
        {"a sub-millisecond link keeps a speed", 5, 5, 60, std::vector<int>(10, 1), 1, 1, 0, {}},
        {"the count saturates at the live limit", 5, 2, 60, {-1, -1, -1, -1}, -1, 1000, 2,
         {miss(1), pass1000, miss(2), fail, fail, fail}},
        {"made with min_ping_times 1: no smoothing", 1, 5, 60, {35, -1}, -1, 0, 0,
         Lines(2, "SLA_PING Ping RTT interface (wlan0) num ping rtt = (0) ")},
    };
    // clang-format on
    for (const Case& c : cases) {
        params_->alpha_percent = c.alpha;
        InterfaceRtt r("wlan0", "1.1.1.1", static_cast<uint32_t>(c.minPingTimesAtCreation), 500, 0);
        EXPECT_EQ(-1, r.speed) << "unmeasured";
        params_->min_ping_times = c.minPingTimesLater;
        CaptureStderr();
        for (int raw : c.raws) r.setSpeed(raw);
        const Lines log = messages(GetCapturedStderr());
        EXPECT_EQ(c.speed, r.speed) << c.what;
        EXPECT_EQ(c.prevSpeed, r.getPrevSpeed()) << c.what;
        EXPECT_EQ(c.missCount, r.getMissCount()) << c.what;
        if (!c.log.empty()) {
            EXPECT_EQ(c.log, log) << c.what;
        }
    }
    // An interface the map does not know is unmetered, with an error line.
    CaptureStderr();
    EXPECT_FALSE(InterfaceRtt("eth9", "", 5, 500, 0).isMetered());
    EXPECT_EQ(Lines{"isMetered ifaceInfo is NULL"}, messages(GetCapturedStderr()));
}

TEST_F(SlsTest, ChoiceCases) {
    struct Case {
        const char* what;
        std::vector<int> speeds;  // wlan0, wlan1, rmnet_data0, ccmni0
        const char* current;
        const char* chosen;
        std::string decision;  // the case line, "" for none
    };
    const char* names[] = {"wlan0", "wlan1", "rmnet_data0", "ccmni0"};
    // clang-format off
    const Case cases[] = {
        {"unmetered below exit beats faster cellular", {40, -1, 30, -1}, nullptr, "wlan0",
         " selecting Unmetered (SLS case 1) wlan0 "},
        {"acceptable Wi-Fi is kept", {120, 10, 10, 10}, "wlan0", "wlan0",
         "_SELECTED remain on current unmetered iface wlan0 (SLS case 0) metered=0 "},
        {"slow Wi-Fi, no other Wi-Fi: the fastest", {140, -1, 60, -1}, "wlan0", "rmnet_data0",
         " selecting  (SLS case 1) rmnet_data0 "},
        {"failed current: the fastest", {-1, -1, 60, 200}, "wlan0", "rmnet_data0",
         " selecting  (SLS case 1) rmnet_data0 "},
        {"Wi-Fi under entry wins over cellular", {85, -1, 100, -1}, "rmnet_data0", "wlan0",
         " selecting new fastest Unmetered (SLS case 2) wlan0 "},
        {"Wi-Fi between entry and exit: stay", {95, -1, 100, -1}, "rmnet_data0", "rmnet_data0",
         " remain on current iface rmnet_data0 (SLS case 5) "},
        {"a metered link under entry", {120, -1, 100, 50}, "rmnet_data0", "ccmni0",
         " selecting fastest new Metered (SLS case 3) ccmni0 "},
        {"the current cellular is the fastest metered", {140, -1, 100, 135}, "rmnet_data0",
         "rmnet_data0", " remain on current iface rmnet_data0 (SLS case 5) "},
        {"current at 0 ms: everything else above exit", {140, -1, 0, 150}, "rmnet_data0",
         "wlan0", " none of the interfaces satisfy, picking fastest (SLS case 4) wlan0 "},
        {"equal Wi-Fi speeds: the later name", {50, 50, -1, -1}, nullptr, "wlan1",
         " selecting Unmetered (SLS case 1) wlan1 "},
        {"nothing measured", {-1, 0, -1, -1}, "wlan0", "wlan0", ""},
    };
    // clang-format on
    params_->setGamingUids("4000000000");  // no such UID: the socket kill finds nothing
    params_->populateGamingUids();
    for (const Case& c : cases) {
        for (int i = 0; i < 4; ++i) rec(names[i])->speed = c.speeds[i];
        sls_->current = c.current ? rec(c.current) : nullptr;
        commands_.clear();
        gNow.tv_sec += 1;
        CaptureStderr();
        const char* result = sls_->calcInterface();
        const std::string log = GetCapturedStderr();
        auto logged = [&log](const std::string& message) {
            return log.find("Mlbd-SlaPing: calcInterface SLA_RTT" + message + "\n") !=
                   std::string::npos;
        };
        if (c.decision.empty()) {
            EXPECT_EQ(nullptr, result) << c.what;
            EXPECT_EQ(c.current, sls_->current->name) << c.what;
            EXPECT_TRUE(logged(" Fastest Interface returned NULL")) << log;
            continue;
        }
        EXPECT_STREQ(c.chosen, result) << c.what;
        EXPECT_TRUE(logged(c.decision)) << c.what;
        // A switch is logged, points the selection chains at the new link and names both links;
        // no switch runs nothing.
        const bool switched = c.current == nullptr || strcmp(c.current, c.chosen) != 0;
        EXPECT_EQ(switched, logged(std::string("_SELECTED perform switch ") + c.chosen + " "));
        EXPECT_EQ(switched, !commands_.lines().empty()) << c.what;
        EXPECT_TRUE(!switched || sls_->wifiChosen == (strncmp(c.chosen, "wlan", 4) == 0));
        if (switched && c.current != nullptr) {
            EXPECT_TRUE(logged(std::string("_SELECTED current =  ") + c.chosen +
                               " , prvious =" + c.current))
                    << c.what;
        }
    }
}

// n_hyst 1, t_hyst_s 10: after a switch nothing is evaluated for 10 s, even if the link fails.
TEST_F(SlsTest, HysteresisGate) {
    params_->n_hyst = 1;
    params_->t_hyst_s = 10;
    rec("wlan0")->speed = 40;
    rec("rmnet_data0")->speed = 50;
    gNow.tv_sec += 20;
    EXPECT_STREQ("wlan0", sls_->calcInterface());  // a new period, and its one switch
    EXPECT_EQ(1, sls_->switchCount);
    rec("wlan0")->speed = -1;
    const struct timeval start = sls_->lastSwitchTime;
    for (long ms : {0L, 5000L, 9999L, 10000L}) {
        gNow = {start.tv_sec + ms / 1000, start.tv_usec + ms % 1000 * 1000};
        CaptureStderr();
        const std::string chosen = sls_->calcInterface();
        const bool evaluated = !GetCapturedStderr().empty();
        EXPECT_EQ(ms < 10000 ? "wlan0" : "rmnet_data0", chosen) << ms;
        EXPECT_EQ(ms >= 10000, evaluated) << ms;
    }
    // Unless a clock is injected, the gate reads the boot-time clock, which a step of the wall
    // clock does not move: a fresh instance's period starts on it, not on the time of day.
    struct timespec boot;
    clock_gettime(CLOCK_BOOTTIME, &boot);
    const long periodStart = SmartLinkSelection().lastSwitchTime.tv_sec;
    EXPECT_LE(std::labs(periodStart - boot.tv_sec), 1L);
    EXPECT_GT(std::labs(periodStart - time(nullptr)), 3600L);
}

// The call's server, published by the kernel module as network-order decimals, becomes the
// probe target once per call.
TEST_F(SlsTest, VoipServerBecomesTheProbeTarget) {
    // clang-format off
    const std::tuple<const char*, bool, const char*, int32_t> cases[] = {
        {"33554442,50195", false, DEFAULT_RTT_SERVER, 443},  // no call
        {"garbage", true, DEFAULT_RTT_SERVER, 443},
        {"33554442,0", true, DEFAULT_RTT_SERVER, 443},
        {"4294967295,65535", true, "255.255.255.255", 65535},
        {"33554442,50195", true, "255.255.255.255", 65535},  // taken once per call
    };
    // clang-format on
    for (const auto& [state, voip, server, port] : cases) {
        std::ofstream(root_ + "/proc/sla/sla_voip_state") << state;
        params_->setVoipRunning(voip);
        SmartLinkSelection::setVoipIpAddressAndPort();
        EXPECT_EQ(server, params_->getGamingRttServer()) << state;
        EXPECT_EQ(port, params_->rttServerPort) << state;
    }
    params_->setRttTarget(DEFAULT_RTT_SERVER, 443);
    SmartLinkSelection::setVoipIpAddressAndPort();
    EXPECT_EQ("10.0.0.2", params_->getGamingRttServer());
    EXPECT_EQ(5060, params_->rttServerPort);
}

// The return to an unmetered link, driven through the main loop's call while the game's RTT is
// fine (no probing of its own): without the key never; with it a probe window every interval,
// and a return only after the Wi-Fi link stayed below the entry threshold for 3 s.
TEST_F(SlsTest, FailbackToUnmeteredLink) {
    struct Step {
        int32_t intervalS;
        long atS;
        int32_t wlan0;        // its speed from this step on
        bool probing;         // the probes run after the step
        const char* current;  // the choice after the step
    };
    // clang-format off
    const Step steps[] = {
        // Without the key: no probe, no return, however good Wi-Fi is.
        {0, 0, 40, false, "rmnet_data0"}, {0, 30, 40, false, "rmnet_data0"},
        {0, 100, 40, false, "rmnet_data0"},
        // Every 10 s a window; Wi-Fi must stay under 90 ms for 3 s: a dip to 100 starts anew.
        {10, 200, 40, false, "rmnet_data0"}, {10, 209, 40, false, "rmnet_data0"},
        {10, 210, 40, true, "rmnet_data0"}, {10, 211, 40, true, "rmnet_data0"},
        {10, 212, 100, true, "rmnet_data0"}, {10, 213, 40, true, "rmnet_data0"},
        {10, 215, 40, true, "rmnet_data0"}, {10, 216, 40, false, "wlan0"},
        // Back on Wi-Fi nothing is probed; a later move to cellular arms it again, and a window
        // in which Wi-Fi stays above the entry threshold closes after 6 s without a return;
        // the next one opens 10 s after that window's start.
        {10, 300, 40, false, "wlan0"}, {10, 301, 100, false, "rmnet_data0"},
        {10, 311, 100, true, "rmnet_data0"}, {10, 316, 100, true, "rmnet_data0"},
        {10, 317, 100, false, "rmnet_data0"}, {10, 320, 100, false, "rmnet_data0"},
        {10, 321, 100, true, "rmnet_data0"},  // every 10 s from the last window's start
    };
    // clang-format on
    params_->setGamingUids("4000000000");
    params_->populateGamingUids();
    params_->setServiceHighRtt(false);
    rec("rmnet_data0")->speed = 60;
    sls_->current = rec("rmnet_data0");
    sls_->threadStop();
    const struct timeval base = gNow;
    for (const Step& s : steps) {
        params_->failback_interval_s = s.intervalS;
        rec("wlan0")->speed = s.wlan0;
        if (s.atS == 301) sls_->current = rec("rmnet_data0");  // as if Wi-Fi had been left
        gNow = {base.tv_sec + s.atS, 0};
        SmartLinkSelection::slsChooseInterface();
        EXPECT_EQ(s.probing, static_cast<bool>(rec("wlan0")->running)) << s.atS;
        EXPECT_EQ(s.current, sls_->current->name) << s.atS;
    }
    params_->failback_interval_s = 0;
}

// Once the rules are torn down, a switch neither moves the choice nor resets any socket. (Last:
// the teardown is for the life of the process.)
// slow_leave_checks: a first measurement is not smoothed against the made-up 1000 ms, the
// game's own RTT on its link counts for the choice, and while the probes are stopped every link
// is probed once, and those that do not carry the game every 15 s.
TEST_F(SlsTest, SlowLeaveFirstSamplesEvidenceAndRefresh) {
    const std::tuple<int32_t, std::vector<int>, int32_t> samples[] = {
            {0, {60}, 436},     {1, {60}, 60}, {1, {-1, 60}, 60}, {1, {-1, -1, -1, -1, -1, 40}, 40},
            {1, {60, 100}, 84},
    };
    for (const auto& [key, raws, speed] : samples) {
        params_->slow_leave_checks = key;
        InterfaceRtt r("wlan0", "", 5, 500, 0);
        for (int raw : raws) r.setSpeed(raw);
        EXPECT_EQ(speed, r.speed) << key << " " << raws.size();
    }

    params_->setServiceHighRtt(true);
    rec("wlan0")->speed = 20;
    rec("rmnet_data0")->speed = 60;
    sls_->current = rec("wlan0");
    EXPECT_STREQ("wlan0", sls_->calcInterface());
    rec("wlan0")->slowEvidenceMs = 300;
    EXPECT_STREQ("rmnet_data0", sls_->calcInterface());

    params_->setServiceHighRtt(false);
    params_->setGamingRunning(true);
    sls_->threadStop();
    const struct timeval base = gNow;
    // Seconds after the switch: the links wanting a probe (the game is on rmnet_data0).
    const std::pair<long, const char*> steps[] = {
            {0, "ccmni0,rmnet_data0,wlan0,wlan1,"}, {10, ""}, {15, "ccmni0,wlan0,wlan1,"}};
    for (const auto& [atS, wanted] : steps) {
        gNow = {base.tv_sec + atS, 0};
        SmartLinkSelection::slsChooseInterface();
        std::string names;
        for (const auto& [name, r] : sls_->rttMap)
            names += r->probeOnce.exchange(false) ? name + "," : "";
        EXPECT_EQ(wanted, names) << atS;
    }
    params_->setGamingRunning(false);
    params_->slow_leave_checks = 0;
}

TEST_F(SlsTest, NoSwitchOnceTheRulesAreGone) {
    IptablesManager::instance();
    IptablesManager::clean_SLM_iptables();
    params_->setGamingUids("4000000000");
    params_->populateGamingUids();
    commands_.clear();
    rec("wlan0")->speed = 85;
    sls_->current = rec("rmnet_data0");
    CaptureStderr();
    EXPECT_STREQ("rmnet_data0", sls_->calcInterface());
    EXPECT_EQ(GetCapturedStderr().find("SLA_GAMING"), std::string::npos);
    EXPECT_TRUE(sls_->current->name == "rmnet_data0" && commands_.lines().empty());
}

}  // namespace
