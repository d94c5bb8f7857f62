/*
 * The control commands. Each runs on the control thread, one at a time, and drives the other
 * subsystems in a fixed order: the rules first, then the probes and the choice, then the
 * monitors, and the flags that the main loop and the monitors read last.
 *
 * Two switches are driven by the client: gaming (start and stop, guarded by gamingRunning) and
 * VoIP (guarded by voipRunning). Once the rules have been torn down at shut-down, the commands
 * that would program rules or start probing do nothing; stopping still stops.
 */
#include <android/log.h>
#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "MlbdSocketServer.h"
#include "iptables/IptablesManager.h"
#include "monitor/SlaTcpSocketMonitor.h"
#include "monitor/VoipStateMonitor.h"
#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"
#include "stats/SlaStatsImpl.h"
#include "wificond/net/netlink_utils.h"

#define LOG_TAG "Mlbd-MlbdSocket-Server"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

// The port of the default probe target.
constexpr int32_t kDefaultRttServerPort = 443;
// The text that stands for an empty user-id list.
constexpr char kEmptyList[] = "NULL";

// The last whitelist texts received; a repeat of the last one is not applied again.
char gUidWhitelistCache[2048];
char gDblWlanUidWhitelistCache[2048];

// True when the rules have been torn down for good (shut-down has begun).
bool steeringTornDown() {
    return IptablesManager::instance() == nullptr;
}

// A whole text of decimal digits with an optional sign, in 32-bit range. White space around the
// number is allowed (a client may end its text with a newline), other trailing text is not.
bool parseDecimal(const char* text, int32_t* value) {
    while (isspace(static_cast<unsigned char>(*text))) ++text;
    if (!((text[0] >= '0' && text[0] <= '9') || text[0] == '-' || text[0] == '+')) return false;
    errno = 0;
    char* end = nullptr;
    const long long parsed = strtoll(text, &end, 10);
    while (isspace(static_cast<unsigned char>(*end))) ++end;
    if (end == text || *end != '\0' || errno == ERANGE || parsed < INT32_MIN ||
        parsed > INT32_MAX) {
        return false;
    }
    *value = static_cast<int32_t>(parsed);
    return true;
}

// The common steps of the two whitelist commands: the repeat test, the cache, the checks, the
// new list, and the rules.
int applyWhitelist(const char* text, char (&cache)[2048], void (Parameters::*setText)(const char*),
                   void (Parameters::*populate)(), int (IptablesManager::*setupRules)()) {
    if (strcmp(text, cache) == 0) return 0;
    snprintf(cache, sizeof(cache), "%s", text);
    IptablesManager* rules = IptablesManager::instance();
    Parameters* params = commandParameters();
    if (rules == nullptr || params == nullptr) return -1;
    (params->*setText)(strcmp(text, kEmptyList) == 0 ? "" : text);
    (params->*populate)();
    rules->setup_slm_whitelist();
    (rules->*setupRules)();
    return 0;
}

}  // namespace

int setUidWhitelist(const char* text) {
    return applyWhitelist(text, gUidWhitelistCache, &Parameters::setuidwhitelist,
                          &Parameters::populateuidwhitelist, &IptablesManager::setup_uid_whitelist);
}

int setDblWlanUidWhitelist(const char* text) {
    return applyWhitelist(text, gDblWlanUidWhitelistCache, &Parameters::setDblWlanUidWhitelist,
                          &Parameters::populateDblWlanUidWhitelist,
                          &IptablesManager::setup_double_wlan_uid_whitelist);
}

int updateSlsInterfacesRtt(const char* text) {
    Parameters* params = commandParameters();
    if (params == nullptr) return -1;
    int32_t rtt = 0;
    if (!parseDecimal(text, &rtt)) {
        LOGE("updateSlsInterfacesRtt rejecting RTT text '%.32s': not a decimal number", text);
        return -1;
    }
    // Once torn down, nothing starts probing any more; the report is still logged.
    // Compared as unsigned values: a negative RTT counts as very high.
    if (static_cast<uint32_t>(rtt) > static_cast<uint32_t>(params->rtt_exit_threshold.load()) &&
        !params->isServiceHighRtt() && !steeringTornDown()) {
        std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
        sls->threadResume();
        sls->createRttThreads();
        params->setServiceHighRtt(true);
    }
    LOGD("update Sls Interfaces Rtt is %s ", text);
    return 0;
}

int StartSlsServer(const char* uids) {
    Parameters* params = commandParameters();
    if (params == nullptr) return -1;
    if (params->isGamingRunning()) return 0;
    if (steeringTornDown()) return -1;

    // Every start probes the default server until the socket monitor finds the game's own.
    params->setRttTarget(DEFAULT_RTT_SERVER, kDefaultRttServerPort);
    params->setGamingUids(uids);
    params->populateGamingUids();
    params->setGamingConnectStatus(true);
    IptablesManager* rules = IptablesManager::instance();
    rules->setup_slm_whitelist();
    rules->setup_SLS_iptables_UID_chains();
    SmartLinkSelection::Init();
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
    sls->threadStop();
    sls->createRttThreads();
    VoipStateMonitor::instance();
    SlaTcpSocketMonitor::instance()->resumePolling();
    params->setGamingRunning(true);
    return 0;
}

int StopSlsServer() {
    Parameters* params = commandParameters();
    if (params == nullptr) return -1;
    if (!params->isGamingRunning()) return 0;

    // The monitor goes first: it would otherwise resume the probes being stopped. finalize()
    // alone, without instance() before it: instance() would make a monitor, and start its
    // thread, only to stop it again when there is none.
    SlaTcpSocketMonitor::finalize();
    params->setServiceHighRtt(false);
    // The gaming list stays: the shut-down still resets those applications' sockets.
    params->setGamingUids(nullptr);
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
    sls->threadStop();
    sls->threadDestory();
    sls.reset();
    IptablesManager* rules = IptablesManager::instance();
    if (rules != nullptr) rules->cleanup_SLS_iptables_UID_chains();
    params->setGamingRunning(false);
    VoipStateMonitor::finalize();
    SmartLinkSelection::cleanup();
    return 0;
}

int setVoipStatus(const char* text) {
    Parameters* params = commandParameters();
    if (params == nullptr) return -1;
    const bool start = strtoll(text, nullptr, 10) != 0;
    const bool running = params->isVoipRunning();

    if (start && !running) {
        // The call's UID enters the rules and the module's configuration.
        if (!IptablesManager::isValidUidText(text)) {
            LOGE("setVoipStatus rejecting call UID text '%.32s'", text);
            return -1;
        }
        if (steeringTornDown()) return -1;
        params->setRttTarget(DEFAULT_RTT_SERVER, kDefaultRttServerPort);
        SlaStatsImpl::instance()->enableSlaVoipState(true, text);
        params->setGamingUids(text);
        params->populateGamingUids();
        IptablesManager* rules = IptablesManager::instance();
        rules->setup_slm_whitelist();
        rules->setup_SLS_iptables_UID_chains();
        params->setGamingConnectStatus(true);
        std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
        sls->threadStop();
        sls->createRttThreads();
        sls->threadResume();
        VoipStateMonitor::instance();
        params->setVoipRunning(true);
    } else if (!start && running) {
        // Once torn down, the module has been switched off with everything else. Any text that
        // reads as 0 ends the call; the module is told "0", never the text itself.
        const bool tornDown = steeringTornDown();
        if (!tornDown) SlaStatsImpl::instance()->enableSlaVoipState(false, "0");
        params->setVoipRunning(false);
        params->setServiceHighRtt(false);
        params->setGamingUids(nullptr);
        params->setGamingConnectStatus(false);
        std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
        sls->threadStop();
        // While gaming selection runs, its probe threads stay, idle. The gaming socket monitor
        // only ever resumes and stops them, it never makes them: threads taken away here would
        // leave the game's choice on frozen measurements until selection is restarted. (Making
        // them again on resume instead would make the monitor's thread a second maker of probe
        // threads beside this one, and two makers could start two threads for one link.) The
        // stop of selection destroys them with the rest of the session.
        if (!params->isGamingRunning()) sls->threadDestory();
        sls.reset();
        if (!tornDown) IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
        VoipStateMonitor::finalize();
    }
    return 0;
}

int setVoipBssidVaule(const char* text) {
    // "aa:bb:cc:dd:ee:ff" becomes "aabbccddeeff"; colons beyond the fifth stay.
    std::string bssid = text;
    for (int i = 0; i < 5; ++i) {
        const size_t colon = bssid.find(':');
        if (colon == std::string::npos) break;
        bssid.erase(colon, 1);
    }
    LOGD("setVoipBssidVaule bssid is %s\n", bssid.c_str());
    android::wificond::NetlinkUtils::instance()->SetStationInfo(bssid, "wlan0");
    return 0;
}
