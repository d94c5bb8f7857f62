// Fakes of the subsystems the control commands drive; see ControlFakes.h. Each instance() hands
// out one idle object that lives for the process; finalize() and cleanup() only record the call.
#include "ControlFakes.h"

#include "monitor/SlaTcpSocketMonitor.h"
#include "monitor/VoipStateMonitor.h"
#include "sls/SmartLinkSelection.h"
#include "stats/SlaStatsImpl.h"
#include "support/CommandRecorder.h"

namespace {

std::vector<std::string> gCalls;
mlbd::ScopedCommandRecorder* gRecorder = nullptr;
size_t gMerged = 0;  // recorder lines already merged into gCalls

// Moves the recorder's new lines into the log, shortened.
void merge() {
    for (; gRecorder != nullptr && gMerged < gRecorder->lines().size(); ++gMerged) {
        std::string line = gRecorder->lines()[gMerged];
        for (const char* tool : {"iptables", "ip"}) {
            const std::string path = std::string("/system/bin/") + tool + "-wrapper-1.0 ";
            size_t at = line.find(path);
            if (at == std::string::npos) continue;
            std::string args = line.substr(at + path.size());
            if (args.compare(0, 13, "-w -t mangle ") == 0) args.erase(0, 13);
            line = (tool[2] == 't' ? "ipt " : "ip ") + args;
            break;
        }
        gCalls.push_back(line);
    }
}

void call(const std::string& text) {
    merge();
    gCalls.push_back(text);
}

}  // namespace

namespace mlbd_fakes {

std::vector<std::string>& controlCalls() {
    merge();
    return gCalls;
}

void clearControlCalls() {
    if (gRecorder != nullptr) gRecorder->clear();
    gCalls.clear();
    gMerged = 0;
}

void attachRecorder(mlbd::ScopedCommandRecorder* recorder) {
    gRecorder = recorder;
    gMerged = recorder != nullptr ? recorder->lines().size() : 0;
}

}  // namespace mlbd_fakes

// clang-format off
SmartLinkSelection::SmartLinkSelection() : clock_(nullptr) {}
std::shared_ptr<SmartLinkSelection> SmartLinkSelection::instance() {
    static auto fake = std::make_shared<SmartLinkSelection>();
    call("sls.instance");
    return fake;
}
void SmartLinkSelection::Init() { call("sls.Init"); }
void SmartLinkSelection::finalize() { call("sls.finalize"); }
void SmartLinkSelection::cleanup() { call("sls.cleanup"); }
void SmartLinkSelection::createRttThreads() { call("sls.createRttThreads"); }
void SmartLinkSelection::threadStop() { call("sls.threadStop"); }
void SmartLinkSelection::threadResume() { call("sls.threadResume"); }
void SmartLinkSelection::threadDestory() { call("sls.threadDestory"); }

SlaTcpSocketMonitor::SlaTcpSocketMonitor() : params_(nullptr) {}
SlaTcpSocketMonitor::~SlaTcpSocketMonitor() = default;
SlaTcpSocketMonitor* SlaTcpSocketMonitor::instance() {
    static SlaTcpSocketMonitor fake;
    call("tcpmon.instance");
    return &fake;
}
void SlaTcpSocketMonitor::finalize() { call("tcpmon.finalize"); }
void SlaTcpSocketMonitor::resumePolling() { call("tcpmon.resumePolling"); }

VoipStateMonitor::VoipStateMonitor(android::wificond::NetlinkUtils* netlink)
    : netlink_(netlink), params_(nullptr) {}
VoipStateMonitor::~VoipStateMonitor() = default;
VoipStateMonitor* VoipStateMonitor::instance() {
    static VoipStateMonitor fake(nullptr);
    call("voip.instance");
    return &fake;
}
void VoipStateMonitor::finalize() { call("voip.finalize"); }

SlaStatsImpl* SlaStatsImpl::sInstance = nullptr;
SlaStatsImpl* SlaStatsImpl::instance() {
    static SlaStatsImpl fake;
    call("stats.instance");
    return &fake;
}
void SlaStatsImpl::finalize() { call("stats.finalize"); }
int SlaStatsImpl::enableSlaVoipState(bool enable, const char* uid) {
    call("stats.enableSlaVoipState(" + std::to_string(enable) + "," + (uid ? uid : "null") + ")");
    return 0;
}
// clang-format on
