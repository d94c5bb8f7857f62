// The control socket's receive path and every command behind it.
//
// The input is cut into successive 1032-byte receives into one msg_t buffer that persists for
// the input, as the server thread's recvfrom() fills it: a short last piece overwrites only the
// buffer's prefix and leaves the rest of the previous record in place. Each receive goes through
// handleReceived(), which dispatches to the real handlers, Parameters, IptablesManager (every
// command line recorded, nothing run) and NetlinkUtils::SetStationInfo, and to the recording
// fakes of ControlFakes.cpp for the subsystems that would start threads. A closed peer (0) and a
// failed receive (-1) follow the last piece and must dispatch nothing.
//
// Aborts when a recorded command line is anything but a front-end's path followed by arguments
// of [A-Za-z0-9_.,:/=+-] (or a lone "!") separated by spaces, when a "--uid-owner" argument is
// not 1 to 10 digits without a leading zero, when a fake records an unknown call, or when the
// UID text handed to the kernel module's VoIP tracking is not such a UID either.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

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

// FuzzCommon.h defines the targets' LLVMFuzzerInitialize (quiet logging); renamed here so that
// this target's own one can call it before setting up its MLBD_ROOT.
#define LLVMFuzzerInitialize mlbdFuzzQuietLogging
#include "FuzzCommon.h"
#undef LLVMFuzzerInitialize

namespace {

mlbd::ScopedCommandRecorder* gRecorder = nullptr;
Parameters* gParams = nullptr;
std::string gTools[2];
std::string gRttServer, gWlan, gData;
int32_t gRttPort = 0;

[[noreturn]] void fail(const char* what, const std::string& text) {
    fprintf(stderr, "fuzz_control_record: %s: [%s]\n", what, text.c_str());
    abort();
}

// A command line: a front-end's path, then arguments of [A-Za-z0-9_.,:/=+-] (or a lone "!"),
// with a well-formed UID after every "--uid-owner".
void checkCommandLine(const std::string& line) {
    std::istringstream words(line);
    std::string tool, word, previous;
    words >> tool;
    if (tool != gTools[0] && tool != gTools[1]) fail("command line without a front-end", line);
    while (words >> word) {
        if (word != "!" && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRST"
                                                  "UVWXYZ0123456789_.,:/=+-") != word.npos) {
            fail("command argument with a character outside [A-Za-z0-9_.,:/=+-]", line);
        }
        if (previous == "--uid-owner" && !IptablesManager::isValidUidText(word)) {
            fail("--uid-owner without a well-formed UID", line);
        }
        previous = word;
    }
    if (previous == "--uid-owner") fail("--uid-owner without a UID", line);
    if (line.find_first_of("\t\n\r") != line.npos)
        fail("command line with a control character", line);
}

// The fakes only record calls that exist; what the kernel module's VoIP tracking is handed must
// be a UID.
void checkCall(const std::string& call) {
    const std::string voip = "stats.enableSlaVoipState(";
    if (call.compare(0, voip.size(), voip) != 0) return;
    const std::string uid = call.substr(voip.size() + 2, call.size() - voip.size() - 3);
    if (!IptablesManager::isValidUidText(uid))
        fail("VoIP tracking handed a text that is not a UID", call);
}

// Checks and forgets what the last receive did; the number of lines and calls it saw.
size_t checkAndClear() {
    const size_t seen = gRecorder->lines().size() + mlbd_fakes::controlCalls().size();
    for (const std::string& line : gRecorder->lines()) checkCommandLine(line);
    for (const std::string& call : mlbd_fakes::controlCalls()) checkCall(call);
    gRecorder->clear();
    mlbd_fakes::clearControlCalls();
    return seen;
}

// Puts every piece of state an input can change back to how the first input found it.
void resetState() {
    setUidWhitelist("");  // the command caches back to the empty text they start from
    setDblWlanUidWhitelist("");
    gParams->setuidwhitelist("");
    gParams->populateuidwhitelist();
    gParams->setDblWlanUidWhitelist("");
    gParams->populateDblWlanUidWhitelist();
    gParams->setGamingUids("");
    gParams->populateGamingUids();
    gParams->setRttTarget(gRttServer.c_str(), gRttPort);
    gParams->setWlanInterface(gWlan.c_str());
    gParams->setDataInterface(gData.c_str());
    gParams->setServiceHighRtt(false);
    gParams->setGamingRunning(false);
    gParams->setVoipRunning(false);
    gParams->setGamingConnectStatus(false);
    gRecorder->clear();
    mlbd_fakes::clearControlCalls();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    mlbdFuzzQuietLogging(argc, argv);
    std::string dirPath = mlbd::scratchDirectory() + "/mlbd-fuzz-control-XXXXXX";
    char* dir = &dirPath[0];
    if (mkdtemp(dir) == nullptr) fail("mkdtemp failed", dir);
    const std::string root = dir;
    setenv("MLBD_ROOT", dir, 1);
    mkdir((root + "/properties").c_str(), 0755);
    // Both Wi-Fi roles and a metered link, so that every whitelist programs a wrapper chain.
    std::ofstream(root + "/properties/vendor.sla.ifaces") << "wlan0,wlan1,rmnet_data0";

    gRecorder = new mlbd::ScopedCommandRecorder();
    gTools[0] = mlbd::devicePath("/system/bin/iptables-wrapper-1.0");
    gTools[1] = mlbd::devicePath("/system/bin/ip-wrapper-1.0");
    gParams = Parameters::instance();
    setCommandParameters(gParams);
    IptablesManager::instance();
    // Nothing reads the folder after this; it goes now, so that no crash leaves it behind.
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    gParams->getRttTarget(&gRttServer, &gRttPort);
    gWlan = gParams->getWlanInterface();
    gData = gParams->getDataInterface();
    checkAndClear();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    resetState();
    // On the heap, exactly one record: a read past its end meets ASan's redzone.
    std::unique_ptr<msg_t> buffer(new msg_t());
    for (size_t pos = 0; pos < size; pos += sizeof(msg_t)) {
        const size_t piece = std::min(sizeof(msg_t), size - pos);
        memcpy(buffer.get(), data + pos, piece);
        handleReceived(*buffer, static_cast<ssize_t>(piece));
        checkAndClear();
    }
    handleReceived(*buffer, 0);
    handleReceived(*buffer, -1);
    if (checkAndClear() != 0) fail("a receive of 0 or -1 bytes dispatched a record", "");
    return 0;
}
