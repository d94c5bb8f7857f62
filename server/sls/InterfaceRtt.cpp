/*
 * Smoothing of probe results into an interface's speed, and the metered test.
 */
#include "sls/InterfaceRtt.h"

#include <android/log.h>

#include <algorithm>

#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"

#define LOG_TAG "Mlbd-SlaPing"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

const pthread_t InterfaceRtt::kNoThread = static_cast<pthread_t>(-1);

namespace {
// The base of the smoothing for a new or failed interface: it starts far from attractive.
constexpr int32_t kInitialPrevSpeed = 1000;
}  // namespace

InterfaceRtt::InterfaceRtt(const std::string& name, const std::string& rttServer,
                           uint32_t minPingTimes, uint32_t pingIntervalMs,
                           uint32_t noResponseTimeoutMs)
    : rttServer(rttServer),
      minPingTimes(minPingTimes),
      pingIntervalMs(pingIntervalMs),
      noResponseTimeoutMs(noResponseTimeoutMs),
      name(name) {}

int InterfaceRtt::setSpeed(int raw) {
    Parameters* params = Parameters::instance();
    const uint32_t limit = static_cast<uint32_t>(params->min_ping_times.load());
    const uint32_t alpha = static_cast<uint32_t>(params->alpha_percent.load());
    const char* iface = name.c_str();
    std::lock_guard<std::mutex> lock(historyMutex_);
    const bool measured = raw != -1;
    if (measured) {
        stalled = false;
        stallSuspect = false;
        slowEvidenceMs = 0;
    } else if (stallSuspect.exchange(false)) {
        // The link's own probe failed too: the stall is the link's, not the game server's.
        stalled = true;
        LOGE("%s: SLA_PING stall of the game's connection confirmed on %s", "setSpeed", iface);
        SmartLinkSelection::requestChoice();
    }

    // A record made with min_ping_times 1 takes every result as it comes.
    if (minPingTimes == 1) {
        speed = raw;
        LOGD("SLA_PING Ping RTT interface (%s) num ping rtt = (%d) ", iface, missCount_);
        prevSpeed_ = 0;
        return 0;
    }

    if (raw == -1) {
        // A miss counts as a repeat of the last smoothed value; the count saturates at the limit.
        if (missCount_ < limit) {
            ++missCount_;
            LOGD("%s: SLA_PING Ping Miss for RTT interface (%s) num ping miss = (%d) ", "setSpeed",
                 iface, missCount_);
        }
        raw = prevSpeed_;
    } else if (missCount_ > 0) {
        // A success earns back one miss only.
        --missCount_;
    }

    if (missCount_ >= limit) {
        speed = -1;
        prevSpeed_ = kInitialPrevSpeed;
        unmeasured_ = true;
        LOGD("%s: SLA_PING Ping FAIL for RTT interface (%s) (calc = %d) (old speed = %d) (new prev "
             "= %d) (alpha_percent = %d)",
             "setSpeed", iface, -1, raw, kInitialPrevSpeed, alpha);
        return 0;
    }

    // With slow_leave_checks set, a first measurement is taken as it is: smoothed against the
    // made-up 1000 ms it would need three more probes to reach the link's real figure.
    if (measured && unmeasured_) {
        if (params->slow_leave_checks > 0) prevSpeed_ = raw;
        unmeasured_ = false;
    }
    // Products in 32 bits, two truncating unsigned divisions: 1000 and 35 at 60 % give 400 + 21.
    const uint32_t kept = static_cast<uint32_t>(prevSpeed_) * (100u - alpha) / 100u;
    const uint32_t added = static_cast<uint32_t>(raw) * alpha / 100u;
    // A link that answers keeps a speed of at least 1 ms: smoothing 1 ms measurements with the
    // truncations above would run down to 0, which the choice takes for no measurement.
    const int32_t smoothed = std::max(static_cast<int32_t>(kept + added), 1);
    speed = smoothed;
    LOGD("%s: SLA_PING Ping Pass for RTT interface (%s) (calc = %d) (raw = %d) (prev = %d) "
         "(alpha_percent = %d)",
         "setSpeed", iface, smoothed, raw, prevSpeed_, alpha);
    prevSpeed_ = smoothed;
    return 0;
}

bool InterfaceRtt::isMetered() const {
    // Records are made from the interface map, which never changes after start-up, so the name
    // is always there; an unknown name reads as unmetered, as a null map entry would.
    const InterfaceInfo_t* info = Parameters::instance()->findInterface(name);
    if (info == nullptr) {
        LOGE("%s ifaceInfo is NULL", "isMetered");
        return false;
    }
    return info->metered;
}

uint32_t InterfaceRtt::getMissCount() const {
    std::lock_guard<std::mutex> lock(historyMutex_);
    return missCount_;
}

int32_t InterfaceRtt::getPrevSpeed() const {
    std::lock_guard<std::mutex> lock(historyMutex_);
    return prevSpeed_;
}
