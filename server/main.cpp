/*
 * mlbd entry point: brings the singletons up in a fixed order, runs the periodic loop until
 * "vendor.sla.enabled" reads 2, tears the steering down and then parks for ever.
 */
#include <android/log.h>
#include <stdint.h>
#include <unistd.h>

#include <mutex>

#include "MlbdSocketServer.h"
#include "iptables/IptablesManager.h"
#include "iptables/execnetd.h"
#include "monitor/SlaTcpSocketMonitor.h"
#include "monitor/SockDiag.h"
#include "monitor/VoipStateMonitor.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "sls/SmartLinkSelection.h"
#include "stats/SlaStatsImpl.h"

#define LOG_TAG "Mlbd-daemon"

namespace {

// Logs the selection's RTT thresholds when they differ from the last ones logged (the VoIP
// monitor raises and restores them around a call), so that a log alone tells which thresholds
// each decision was made with.
void logRttThresholdsIfChanged(const Parameters* parameters, int32_t* entry, int32_t* exit) {
    const int32_t nowEntry = parameters->rtt_entry_threshold.load();
    const int32_t nowExit = parameters->rtt_exit_threshold.load();
    if (nowEntry == *entry && nowExit == *exit) return;
    *entry = nowEntry;
    *exit = nowExit;
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG,
                        "RTT thresholds: rtt_entry_threshold=%d rtt_exit_threshold=%d", nowEntry,
                        nowExit);
}

}  // namespace

int main() {
    mlbd::initLogging();

    // Start-up. The parameter store reads the configuration file, the properties and the
    // interface list.
    Parameters* parameters = Parameters::instance();
    // Every front-end run from here on is held to the configured time limit.
    const int32_t frontendLimitMs = parameters->frontend_timeout_ms;
    mlbd::setCommandTimeLimitMs(frontendLimitMs > 0 ? static_cast<uint32_t>(frontendLimitMs) : 0);

    // The chain skeleton, then one mark chain and routing rule per interface, before any
    // traffic is steered.
    IptablesManager* iptablesManager = IptablesManager::instance();
    iptablesManager->setup_SLM_iptables_FWMARK_chains();

    // The control socket: from here on the platform client's commands can arrive. Without it
    // the daemon runs on with aggregation only.
    createSocketThreads(parameters);

    // Link aggregation: the kernel module is configured and its statistics files mapped.
    SlaStatsImpl* slaStats = SlaStatsImpl::instance();
    slaStats->enableSLA(true);

    // Main loop: one pass per period; the property is tested after the sleep, so the body
    // always runs at least once.
    int32_t loggedEntry = INT32_MIN, loggedExit = INT32_MIN;
    do {
        logRttThresholdsIfChanged(parameters, &loggedEntry, &loggedExit);
        slaStats->evalAndSetSLAInterfaceRatio();
        SmartLinkSelection::slsChooseInterface();
        // A plain pause, unless a choice is wanted before the next cycle (slow_leave_checks).
        SmartLinkSelection::sleepUntilNextCycle(parameters->get(OPER_MINI_EST_INTERVAL));
    } while (parameters->getSLAVendorProp() != 2);

    // Shut-down.
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Slm disabled, starting cleanup...\n");
    slaStats->enableSLA(false);
    IptablesManager::clean_SLM_iptables();
    // The gaming apps reconnect over the default network.
    for (const std::string& uid : parameters->getGamingUidList()) {
        android::net::killSocketsForUID(uid.c_str());
    }
    // No new client; the one connected stays, and its commands now program nothing.
    stopSocketThreads();
    SlaStatsImpl::finalize();
    // Nothing it started keeps running in the parked process: the socket monitor, the probe
    // threads (each leaves after its current probe) and the VoIP monitor. A command in progress
    // finishes first; a later stop command finds them gone.
    {
        std::lock_guard<std::recursive_mutex> lock(IptablesManager::lifecycleMutex());
        SlaTcpSocketMonitor::finalize();
        SmartLinkSelection::finalize();
        VoipStateMonitor::finalize();
    }
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "Slm cleanup finished, daemon parked");

    // Parked: the process stays alive and idle; re-enabling needs a restart.
    for (;;) sleep(600);
}
