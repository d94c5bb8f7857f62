// The control records through handleReceived(): the exact order of the subsystem calls (the
// recording fakes of fuzz/ControlFakes.cpp) and command lines (recorded, shortened) of each
// handler, with its log lines, over interfaces rmnet_data0, wlan0 and wlan1.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "ControlFakes.h"
#include "MlbdSocketServer.h"
#include "iptables/IptablesManager.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "support/CommandRecorder.h"
#include "wificond/net/netlink_utils.h"

namespace {

using Lines = std::vector<std::string>;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

Lines cat(std::initializer_list<Lines> parts) {
    Lines out;
    for (const Lines& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The command lines of the rule steps, as the fakes' log shortens them.
Lines slm(const Lines& uids) {  // setup_slm_whitelist
    Lines out = {"ipt -F vexa_SLM_wapper"};
    for (auto& u : uids)
        out.push_back("ipt -A vexa_SLM_wapper -m owner --uid-owner " + u + " -j vexa_SLM");
    return out;
}
Lines wrapper(const std::string& i, const Lines& uids) {  // setup_(double_wlan_)uid_whitelist
    Lines out = {"ipt -F vexa_fw_" + i + "_wrapper "};
    for (auto& u : uids)
        out.push_back("ipt -A vexa_fw_" + i + "_wrapper -m owner --uid-owner " + u +
                      " -j vexa_fw_" + i);
    return out;
}
Lines slsChains(const std::string& uid, bool up) {  // setup_ and cleanup_SLS_iptables_UID_chains
    Lines out;
    for (std::string i : {"rmnet_data0", "wlan0", "wlan1"}) {
        const std::string s = "ipt -A vexa_sls_" + i, u = "vexa_sls_uid_" + i,
                          fw = " -j vexa_fw_" + i;
        out = cat({out,
                   up ? Lines{"ipt -N vexa_sls_" + i, "ipt -F vexa_sls_" + i,
                              s + " -p udp ! --dport 53" + fw, s + " -p tcp" + fw, s + " -j ACCEPT",
                              "ipt -N " + u, "ipt -F " + u,
                              "ipt -A " + u + " -m owner --uid-owner " + uid + " -j vexa_sls_" + i}
                      : Lines{"ipt -F vexa_SLS", "ipt -F vexa_sls_" + i, "ipt -F " + u,
                              "ipt -X vexa_sls_" + i, "ipt -X " + u,
                              "ipt -D vexa_SLM_wapper -m owner --uid-owner " + uid +
                                      " -j vexa_SLM"}});
    }
    return out;
}

const Lines kStopProbes = {"sls.instance", "sls.threadStop", "sls.threadDestory"};
Lines gamingStart(const Lines& whitelist, const std::string& uid) {
    return cat({slm(whitelist),
                slsChains(uid, true),
                {"sls.Init", "sls.instance", "sls.threadStop", "sls.createRttThreads",
                 "voip.instance", "tcpmon.instance", "tcpmon.resumePolling"}});
}
Lines voipStart(const Lines& whitelist, const std::string& uid) {
    return cat({{"stats.instance", "stats.enableSlaVoipState(1," + uid + ")"},
                slm(whitelist),
                slsChains(uid, true),
                {"sls.instance", "sls.threadStop", "sls.createRttThreads", "sls.threadResume",
                 "voip.instance"}});
}

constexpr int32_t kTextLength = INT32_MIN;  // the record's length field is the text's
struct Row {
    int32_t id;
    std::string text;
    Lines calls;
    Lines log;  // besides the "recv msg" line of every record shorter than 1024
    int32_t length = kTextLength;
};

// The messages of the server's log lines, each after its priority letter.
Lines serverLog(const std::string& captured) {
    const std::string tag = " Mlbd-MlbdSocket-Server: ";
    Lines out;
    std::istringstream in(captured);
    for (std::string line; std::getline(in, line);) {
        size_t at = line.find(tag);
        if (at != std::string::npos && at > 0)
            out.push_back(line[at - 1] + (" " + line.substr(at + tag.size())));
    }
    return out;
}

// The host logger cuts a message at 1023 characters: lines are compared up to 1000.
Lines cut(Lines lines) {
    for (std::string& line : lines) line = line.substr(0, 1000);
    return lines;
}

void run(const std::vector<Row>& rows) {
    for (const Row& r : rows) {
        // On the heap and alone: in a sanitizer build, a read past the record is reported.
        auto msg = std::make_unique<msg_t>();
        msg->id = r.id;
        msg->length = r.length == kTextLength ? static_cast<int32_t>(r.text.size()) : r.length;
        memcpy(msg->message, r.text.data(), std::min(r.text.size(), sizeof(msg->message)));
        const std::string what = std::to_string(r.id) + " '" + r.text.substr(0, 40) + "'";
        mlbd_fakes::clearControlCalls();
        CaptureStderr();
        handleReceived(*msg, sizeof(msg_t));
        const Lines log = serverLog(GetCapturedStderr());
        EXPECT_EQ(r.calls, mlbd_fakes::controlCalls()) << what;
        Lines expected = r.log;
        if (msg->length < 1024) {
            expected.insert(expected.begin(),
                            "D recv msg: msg.id=" + std::to_string(r.id) + ", msg.length=" +
                                    std::to_string(msg->length) + ", msg.message=[" + r.text + "]");
        }
        EXPECT_EQ(cut(expected), cut(log)) << what;
    }
}

// The station address NetlinkUtils keeps (a protected member).
struct Station : android::wificond::NetlinkUtils {
    static std::vector<uint8_t> mac() {
        auto field = &Station::stationMac;
        uint8_t* mac = NetlinkUtils::instance()->*field;
        return {mac, mac + 6};
    }
};

TEST(MlbdSocketServerTest, HandlersCallTheSubsystemsInOrder) {
    std::string rootPath = mlbd::scratchDirectory() + "/mlbd-control-XXXXXX";
    char* root = &rootPath[0];
    ASSERT_NE(nullptr, mkdtemp(root));
    setenv("MLBD_ROOT", root, 1);
    mkdir((std::string(root) + "/properties").c_str(), 0755);
    std::ofstream(std::string(root) + "/properties/vendor.sla.ifaces") << "wlan0,wlan1,rmnet_data0";
    mlbd::initLogging();
    mlbd::ScopedCommandRecorder recorder;
    mlbd_fakes::attachRecorder(&recorder);
    setCommandParameters(Parameters::instance());
    IptablesManager::instance();
    std::filesystem::remove_all(root);  // nothing reads it after this

    const std::string update = "D update Sls Interfaces Rtt is ";
    const std::string bs(1024, 'b');  // fills the field: no zero
    const Lines unknown = {"E unknow mesage!!!"};
    // clang-format off
    run({
        {1, "", {}, {}},  // equals the zeroed cache
        {1, "10123,10234", cat({slm({"10123", "10234"}), wrapper("rmnet_data0", {"10123", "10234"})}), {}},
        {1, "10123,10234", {}, {}},
        {1, "NULL", cat({slm({}), wrapper("rmnet_data0", {})}), {}},
        {7, "10345", cat({slm({"10345"}), wrapper("wlan1", {"10345"})}), {}},
        {7, "10345", {}, {}},
        {4, "100", {}, {update + "100 "}},
        {4, "250ms", {}, {"E updateSlsInterfacesRtt rejecting RTT text '250ms': not a decimal number"}},
        {4, " 200\t", {"sls.instance", "sls.threadResume", "sls.createRttThreads"}, {update + " 200\t "}},
        {4, "200", {}, {update + "200 "}},
        {5, "10123", gamingStart({"10345", "10123"}, "10123"), {}},
        {5, "10999", {}, {}},
        {6, "", cat({{"tcpmon.finalize"}, kStopProbes, slsChains("10123", false), {"voip.finalize", "sls.cleanup"}}), {}},
        {6, "", {}, {}},
        {8, "0", {}, {}},
        {8, "4294967295", {}, {"E setVoipStatus rejecting call UID text '4294967295'"}},
        {8, "10123", voipStart({"10345", "10123"}, "10123"), {}},
        {8, "10456", {}, {}},
        {8, "0", cat({{"stats.instance", "stats.enableSlaVoipState(0,0)"}, kStopProbes, slsChains("10123", false), {"voip.finalize"}}), {}},
        {9, bs, {}, {"D setVoipBssidVaule bssid is " + bs}, 17},
        {9, "aa:bb:cc:dd:ee:ff", {}, {"D setVoipBssidVaule bssid is aabbccddeeff"}},
        {0, "100", {}, unknown},
        {10, "100", {}, unknown},
        {4, "100", {}, {}, 1024},
        {4, "100", {}, {update + "100 "}, 1023},
        {4, "100", {}, {update + "100 "}, -1},
        {5, "10123", gamingStart({"10345", "10123"}, "10123"), {}},
        {8, "10124", voipStart({"10345", "10124"}, "10124"), {}},
        // The call ends while gaming runs: the probe threads stay for the game.
        {8, "0", cat({{"stats.instance", "stats.enableSlaVoipState(0,0)", "sls.instance", "sls.threadStop"}, slsChains("10124", false), {"voip.finalize"}}), {}},
        {8, "10124", voipStart({"10345", "10124"}, "10124"), {}},
    });
    EXPECT_EQ((std::vector<uint8_t>{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}), Station::mac());

    // Torn down: nothing is programmed or started any more; stopping still stops the probes.
    IptablesManager::clean_SLM_iptables();
    run({
        {1, "10555", {}, {}},
        {7, "10666", {}, {}},
        {4, "300", {}, {update + "300 "}},
        {6, "", cat({{"tcpmon.finalize"}, kStopProbes, {"voip.finalize", "sls.cleanup"}}), {}},
        {5, "10123", {}, {}},
        {8, "0", cat({kStopProbes, {"voip.finalize"}}), {}},
        {8, "10123", {}, {}},
    });
    // clang-format on
    mlbd_fakes::attachRecorder(nullptr);
}

}  // namespace
