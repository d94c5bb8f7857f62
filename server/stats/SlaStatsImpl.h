/*
 * Link aggregation's statistics side: the SLA kernel module's control file, the per-interface
 * statistics mappings, the per-cycle link-rate estimates and the split ratios derived from them,
 * and the module's VoIP state file.
 *
 * One process-wide instance. Its mutex guards the name -> wrapper map: mapping, unmapping and a
 * whole ratio cycle (estimates, ratios and, when they changed enough, the firewall rebuild) run
 * under it, so the control thread can disable aggregation while the main loop evaluates.
 */
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "parameters/Parameters.h"
#include "stats/LinkStats.h"

// How calcSlaRatios shares new connections out.
enum SLA_ratio_calc_process {
    // The Wi-Fi links together exceed the Wi-Fi threshold: cellular links get nothing.
    SLA_CALC_WIFI_ONLY = 0,
    // The Wi-Fi links fall short of the threshold: cellular links fill the shortfall.
    SLA_CALC_AGGREGATE = 1,
};

class SlaStatsImpl {
  public:
    // The process-wide instance, created (empty map) on the first call.
    static SlaStatsImpl* instance();
    // Unmaps and frees everything and destroys the instance; nothing without an instance.
    static void finalize();

    // Switches the module's measurement on (protocols, ports, one iface= per configured
    // interface, then the mappings, then enable=1) or off (mappings released, then enable=0).
    // True when the final enable= text was written.
    bool enableSLA(bool enable);

    // Writes one NUL-terminated command to the module's control file. 0 or -1.
    int writeStatsConfFile(const char* text);

    // Maps every configured interface's statistics file; true when every one got its mapping.
    bool initMmap();
    // Maps /proc/sla/<iface>_mmap (20480 bytes, read-only, shared); null on failure.
    void* getStatsMmap(std::string iface);
    // Unmaps and frees every wrapper and empties the map.
    void freeMmap();

    // One main-loop cycle: estimates every mapped interface's rate, computes the split ratios
    // and rebuilds the ratio rules when they changed by more than "min_ratio_change" percent.
    int evalAndSetSLAInterfaceRatio();

    // Writes every wrapper's interfaceRatio; true when the rules must be rebuilt. Called with
    // the mutex held (from evalAndSetSLAInterfaceRatio) or by a caller that owns the map.
    bool calcSlaRatios(SLA_ratio_calc_process process, float wwanSum, float wifiSum,
                       int dualWlanOneIdle);

    // Appends `rate` to the history (at most "best_est_cache_size" values) and returns its
    // maximum; with a cache size of 0 returns `rate` and leaves the history alone.
    unsigned getMaxLinkRateFromHistory(linkHistory_t& history, unsigned rate, Parameters* params);

    // VoIP tracking by the module: the UID to follow, and the published peer "<address>,<port>".
    int enableSlaVoipState(bool enable, const char* uid);
    int getSlaVoipState(char* address, char* port);

    // Name -> wrapper, in name order. Guarded by the mutex; the ratio rules read it during a
    // rebuild, under the same lock.
    std::map<std::string, linkStatsWrapper_t*> statsMap;

  private:
    SlaStatsImpl() = default;
    ~SlaStatsImpl() = default;
    SlaStatsImpl(const SlaStatsImpl&) = delete;
    SlaStatsImpl& operator=(const SlaStatsImpl&) = delete;

    // Rate of one interface for this cycle, with its history fallback; updates the wrapper.
    // Returns the history's result.
    unsigned updateLinkRate(linkStatsWrapper_t* wrapper, bool metered, Parameters* params);
    // Unmaps and frees one wrapper and its statistics object.
    static void releaseWrapper(linkStatsWrapper_t* wrapper);

    std::mutex mutex_;
    struct timeval now_ = {};       // time of the current ratio calculation
    time_t lastLogSeconds_ = 0;     // last calculation that logged its ratios
    std::vector<float> oldRatios_;  // per-cycle scratch, kept to avoid reallocating

    static SlaStatsImpl* sInstance;
};
