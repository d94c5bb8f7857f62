/*
 * Smart link selection: the record map, the probe threads and the interface choice.
 */
#include "sls/SmartLinkSelection.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "iptables/IptablesManager.h"
#include "monitor/SockDiag.h"
#include "parameters/Parameters.h"
#include "platform/IntervalClock.h"
#include "sls/Tcping.h"
#include "stats/SlaStatsImpl.h"

#define LOG_TAG "Mlbd-SlaPing"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

// Guards the instance pointer; recursive, so that a holder may call in again.
std::recursive_mutex sMutex;
std::shared_ptr<SmartLinkSelection> sInstance;
std::atomic<SmartLinkSelection::ThreadStarter> sThreadStarter{nullptr};
std::atomic<SmartLinkSelection::SocketKiller> sSocketKiller{nullptr};
// A choice wanted before the main loop's next cycle.
std::mutex sChoiceMutex;
std::condition_variable sChoiceWake;
bool sChoiceWanted = false;

void sleepMs(uint32_t ms) {
    struct timespec pause = {static_cast<time_t>(ms / 1000),
                             static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

// Cellular links count as metered whatever their flag says.
bool isUnmeteredLink(const InterfaceRtt& rec) {
    return !rec.isMetered() && !startsWith(rec.name, "rmnet_data") &&
           !startsWith(rec.name, "ccmni");
}

const char* nameOf(const std::shared_ptr<InterfaceRtt>& rec) {
    return rec ? rec->name.c_str() : nullptr;
}

}  // namespace

SmartLinkSelection::SmartLinkSelection() : clock_(&mlbd::intervalClockNow) {
    lastSwitchTime = clock_();
}

void SmartLinkSelection::Init() {}

std::shared_ptr<SmartLinkSelection> SmartLinkSelection::instance() {
    std::lock_guard<std::recursive_mutex> lock(sMutex);
    if (!sInstance) {
        sInstance = std::make_shared<SmartLinkSelection>();
        sInstance->initPingThreads();
    }
    return sInstance;
}

std::shared_ptr<SmartLinkSelection> SmartLinkSelection::existing() {
    std::lock_guard<std::recursive_mutex> lock(sMutex);
    return sInstance;
}

void SmartLinkSelection::initPingThreads() {
    Parameters* params = Parameters::instance();
    const std::string server = params->getGamingRttServer();
    for (const auto& entry : params->interfaces()) {
        rttMap[entry.first] = std::make_shared<InterfaceRtt>(
                entry.first, server, static_cast<uint32_t>(params->min_ping_times.load()),
                static_cast<uint32_t>(params->ping_interval_ms.load()),
                static_cast<uint32_t>(params->rtt_noresponse_timeout_ms.load()));
        if (entry.second->isDefault) defaultRecord_ = rttMap[entry.first].get();
    }
    switchCount = 0;
}

void SmartLinkSelection::setThreadStarter(ThreadStarter starter) {
    sThreadStarter = starter;
}

void SmartLinkSelection::setSocketKiller(SocketKiller killer) {
    sSocketKiller = killer;
}

void SmartLinkSelection::createRttThreads() {
    const ThreadStarter starter = sThreadStarter.load(std::memory_order_relaxed);
    for (const auto& entry : rttMap) {
        if (entry.second->thread != InterfaceRtt::kNoThread) continue;
        if (starter != nullptr) {
            pthread_t thread;
            if (starter(entry.second, &thread)) entry.second->thread = thread;
            continue;
        }
        // The thread takes over its own reference to the record.
        auto* arg = new std::shared_ptr<InterfaceRtt>(entry.second);
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        if (pthread_create(&thread, &attr, makeRawPingFunc, arg) == 0) {
            entry.second->thread = thread;
        } else {
            // The record keeps "no thread", so the next call tries again: a link that could not
            // get a thread once (a passing lack of resources) is not left unmeasured for good.
            delete arg;
        }
        pthread_attr_destroy(&attr);
    }
    for (const auto& entry : rttMap) entry.second->alive = true;
}

void SmartLinkSelection::threadStop() {
    for (const auto& entry : rttMap) entry.second->running = false;
}

void SmartLinkSelection::threadResume() {
    for (const auto& entry : rttMap) entry.second->running = true;
}

void SmartLinkSelection::threadDestory() {
    for (const auto& entry : rttMap) {
        entry.second->alive = false;
        entry.second->thread = InterfaceRtt::kNoThread;
    }
}

void SmartLinkSelection::finalize() {
    std::lock_guard<std::recursive_mutex> lock(sMutex);
    if (!sInstance) return;
    sInstance->threadStop();
    sInstance->threadDestory();
    sInstance->switchCount = 0;
    // Whoever still works on the instance (the main loop's choice) keeps it until done; the
    // records go with their last probe thread.
    sInstance.reset();
}

void SmartLinkSelection::cleanup() {
    finalize();
}

void* makeRawPingFunc(void* arg) {
    auto* handed = static_cast<std::shared_ptr<InterfaceRtt>*>(arg);
    std::shared_ptr<InterfaceRtt> rec = std::move(*handed);
    delete handed;

    Parameters* params = Parameters::instance();
    const uint32_t intervalMs = static_cast<uint32_t>(params->ping_interval_ms.load());
    std::string server;
    int32_t port = 0;
    params->getRttTarget(&server, &port);
    sls_tcping_info info;
    info.ifaceName = rec->name.c_str();
    info.server = server.c_str();
    info.flag = 1;
    info.minCapMs = static_cast<uint32_t>(params->rtt_min_cap_ms.load());
    info.rtt = 0;
    info.port = static_cast<uint32_t>(port);
    Tcping tcping;

    do {
        if (rec->takeProbeTurn()) {
            // The target may have moved to the game's or the call's server.
            params->getRttTarget(&server, &port);
            info.server = server.c_str();
            info.port = static_cast<uint32_t>(port);
            rec->setSpeed(tcping.updateTcpingRtt(&info));
        }
        sleepMs(intervalMs);
    } while (rec->alive);
    return nullptr;
}

std::shared_ptr<InterfaceRtt> SmartLinkSelection::getFastestInterface(
        std::shared_ptr<InterfaceRtt>* unmetered, std::shared_ptr<InterfaceRtt>* metered) {
    static const char* kFn = "getFastestInterface";
    std::shared_ptr<InterfaceRtt> fastest;
    unmetered->reset();
    metered->reset();
    int32_t best = 0, bestUnmetered = 0, bestMetered = 0;
    for (const auto& entry : rttMap) {
        const std::shared_ptr<InterfaceRtt>& rec = entry.second;
        const int32_t speed = rec->choiceSpeed();
        if (speed < 1 || rec->stalled) continue;  // failed or not measured yet
        // Less-or-equal: among equal speeds the later name wins.
        if (isUnmeteredLink(*rec)) {
            if (!*unmetered || speed <= bestUnmetered) {
                *unmetered = rec;
                bestUnmetered = speed;
            }
        } else if (!*metered || speed <= bestMetered) {
            *metered = rec;
            bestMetered = speed;
        }
        if (!fastest || speed <= best) {
            fastest = rec;
            best = speed;
        }
    }
    if (*unmetered) {
        LOGD("%s SLA_RTT fastest Unmetered Interface is  %s ", kFn, nameOf(*unmetered));
    } else {
        LOGE("%s SLA_RTT fastest Unmetered Interface is  NULL ", kFn);
    }
    if (*metered) {
        LOGD("%s SLA_RTT fastest Metered Interface is  %s ", kFn, nameOf(*metered));
    } else {
        LOGE("%s SLA_RTT fastest Metered Interface is  NULL ", kFn);
    }
    if (fastest) {
        LOGD("%s SLA_RTT fastest Interface is  %s ", kFn, nameOf(fastest));
    } else {
        LOGE("%s SLA_RTT fastest Interface is  NULL ", kFn);
    }
    return fastest;
}

const char* SmartLinkSelection::calcInterface() {
    static const char* kFn = "calcInterface";
    Parameters* params = Parameters::instance();
    const int32_t entry = params->rtt_entry_threshold;
    const int32_t exit = params->rtt_exit_threshold;
    const std::shared_ptr<InterfaceRtt> prev = current;

    // Hysteresis: at most n_hyst switches per t_hyst_s seconds, timed on the interval clock. The
    // arithmetic is 64-bit: in 32 bits the elapsed milliseconds wrap beyond 24 days (a long quiet
    // spell) and t_hyst_s * 1000 overflows for a large configured value, and the gate would then
    // open or stay shut by accident.
    const struct timeval now = clock_();
    const int64_t elapsedMs = static_cast<int64_t>(now.tv_sec - lastSwitchTime.tv_sec) * 1000 +
                              static_cast<int64_t>(now.tv_usec - lastSwitchTime.tv_usec) / 1000;
    if (elapsedMs >= static_cast<int64_t>(params->t_hyst_s.load()) * 1000) {
        lastSwitchTime = now;
        switchCount = 0;
    } else if (switchCount >= params->n_hyst) {
        return nameOf(current);
    }

    std::shared_ptr<InterfaceRtt> unmetered, metered;
    std::shared_ptr<InterfaceRtt> fastest = getFastestInterface(&unmetered, &metered);
    if (!fastest) {
        LOGE("%s SLA_RTT Fastest Interface returned NULL", kFn);
        return nullptr;
    }
    const int32_t c = current && !current->stalled ? current->choiceSpeed() : -1;

    // Case 0: an acceptable, unmetered Wi-Fi link is kept without further ado.
    if (current && c <= exit && !current->isMetered() && startsWith(current->name, "wlan") &&
        c >= 1) {
        LOGE("%s SLA_RTT_SELECTED remain on current unmetered iface %s (SLS case 0) metered=%d ",
             kFn, nameOf(current), 0);
        return nameOf(current);
    }

    const int32_t u = unmetered ? unmetered->choiceSpeed() : 2147483647;
    const int32_t m = metered ? metered->choiceSpeed() : 2147483647;
    if (c > exit || c < 0) {
        // Case 1: the current link is too slow, has failed, or there is none.
        if (u < exit) {
            current = unmetered;
            LOGE("%s SLA_RTT selecting Unmetered (SLS case 1) %s ", kFn, nameOf(current));
        } else {
            current = fastest;
            LOGE("%s SLA_RTT selecting  (SLS case 1) %s ", kFn, nameOf(current));
        }
    } else if (u < entry) {
        current = unmetered;
        LOGE("%s SLA_RTT selecting new fastest Unmetered (SLS case 2) %s ", kFn, nameOf(current));
    } else if (m < entry) {
        current = metered;
        LOGE("%s SLA_RTT selecting fastest new Metered (SLS case 3) %s ", kFn, nameOf(current));
    } else if (u > exit && m > exit) {
        current = fastest;
        LOGE("%s SLA_RTT none of the interfaces satisfy, picking fastest (SLS case 4) %s ", kFn,
             nameOf(current));
    } else {
        LOGE("%s SLA_RTT remain on current iface %s (SLS case 5) ", kFn, nameOf(current));
    }

    LOGE("%s SLA_RTT selected %s ", kFn, nameOf(current));
    if (prev && current) {
        LOGE("%s SLA_RTT_SELECTED current =  %s , prvious =%s", kFn, nameOf(current), nameOf(prev));
    }
    if (current != prev) {
        // Once the rules are torn down (shut-down), no chain can carry the applications to the
        // new link: moving the choice, or resetting their sockets, would only claim a switch
        // that never happened. The choice stays where it was.
        IptablesManager* rules = IptablesManager::instance();
        if (rules == nullptr) {
            LOGE("%s SLA_RTT_SELECTED no switch to %s: the steering rules are gone", kFn,
                 nameOf(current));
            current = prev;
            return nameOf(current);
        }
        LOGE("%s SLA_RTT_SELECTED perform switch %s ", kFn, nameOf(current));
        if (switchCount <= 0) lastSwitchTime = clock_();
        ++switchCount;
        // Failures are logged by the rule code; the applications reconnect over the new link.
        rules->set_SLS_interface(nameOf(current));
        wifiChosen = startsWith(current->name, "wlan");
        chosenRecord = current.get();
        // With the game-following keys set, the first choice of the link that already carries
        // the game (the default route's) moves nothing, so its connections are left alone.
        if (!prev && current.get() == defaultRecord_ &&
            (params->failback_interval_s > 0 || params->stall_leave_ms > 0 ||
             params->slow_leave_checks > 0)) {
            LOGE("%s SLA_RTT_SELECTED %s already carries the game: no socket reset", kFn,
                 nameOf(current));
            // Nor does it count against the hysteresis: the game has not moved, and its first
            // real move must not wait t_hyst_s because of it.
            --switchCount;
            return nameOf(current);
        }
        SocketKiller killer = sSocketKiller.load(std::memory_order_relaxed);
        if (killer == nullptr) killer = &android::net::killSocketsForUID;
        for (const std::string& uid : params->getGamingUidList()) killer(uid.c_str());
    }
    return nameOf(current);
}

void SmartLinkSelection::slsChooseInterface() {
    std::shared_ptr<SmartLinkSelection> sls = existing();
    if (!sls) return;
    Parameters* params = Parameters::instance();
    if (params->isServiceHighRtt() || params->isVoipRunning()) {
        // Probing runs for its own reasons; a failback window ends without stopping it.
        sls->failbackProbing = false;
        sls->calcInterface();
        setVoipIpAddressAndPort();
    } else if (params->failback_interval_s > 0) {
        sls->checkFailback();
    }
    if (params->slow_leave_checks > 0 && params->isGamingRunning()) sls->refreshOtherLinks();
}

void SmartLinkSelection::requestChoice() {
    {
        std::lock_guard<std::mutex> lock(sChoiceMutex);
        sChoiceWanted = true;
    }
    sChoiceWake.notify_all();
}

bool SmartLinkSelection::takeChoiceRequest() {
    std::lock_guard<std::mutex> lock(sChoiceMutex);
    const bool wanted = sChoiceWanted;
    sChoiceWanted = false;
    return wanted;
}

void SmartLinkSelection::sleepUntilNextCycle(uint32_t ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    std::unique_lock<std::mutex> lock(sChoiceMutex);
    while (sChoiceWake.wait_until(lock, deadline, [] { return sChoiceWanted; })) {
        sChoiceWanted = false;
        lock.unlock();
        LOGD("%s SLA_RTT choice wanted before the next cycle", "sleepUntilNextCycle");
        slsChooseInterface();
        lock.lock();
    }
}

namespace {

int64_t msBetween(const struct timeval& from, const struct timeval& to) {
    return static_cast<int64_t>(to.tv_sec - from.tv_sec) * 1000 +
           static_cast<int64_t>(to.tv_usec - from.tv_usec) / 1000;
}

// How long an unmetered link must stay below the entry threshold, without a missed probe,
// before the game returns to it; and how long one probe window lasts when it does not.
constexpr int64_t kFailbackSustainMs = 3000;
constexpr int64_t kFailbackWindowMs = 6000;
// How old the figure of a link that does not carry the game may grow (slow_leave_checks).
constexpr int64_t kRefreshMs = 15000;

}  // namespace

InterfaceRtt* SmartLinkSelection::gameLinkRecord() const {
    InterfaceRtt* rec = chosenRecord;
    return rec != nullptr ? rec : defaultRecord_;
}

void SmartLinkSelection::refreshOtherLinks() {
    const struct timeval now = clock_();
    const InterfaceRtt* game = gameLinkRecord();
    for (const auto& entry : rttMap) {
        InterfaceRtt& rec = *entry.second;
        if (rec.running) continue;
        // The game's own link is measured once (so that the choice knows it before the game's
        // connection has given evidence about it); after that its connection tells.
        const auto last = refreshedAt.find(entry.first);
        if (last != refreshedAt.end() &&
            (&rec == game || msBetween(last->second, now) < kRefreshMs)) {
            continue;
        }
        refreshedAt[entry.first] = now;
        rec.probeOnce = true;
    }
}

void SmartLinkSelection::checkFailback() {
    Parameters* params = Parameters::instance();
    bool unmeteredManaged = false;
    for (const auto& entry : rttMap) unmeteredManaged |= isUnmeteredLink(*entry.second);
    if (!current || isUnmeteredLink(*current) || !unmeteredManaged) {
        failbackArmed = false;
        failbackProbing = false;
        return;
    }
    const struct timeval now = clock_();
    if (!failbackArmed) {
        // A return that the link undid within a minute doubles the interval (up to 8 times);
        // a return that held resets it.
        const bool undone = failbackReturned && msBetween(failbackReturnAt, now) < 60000;
        failbackBackoff = undone ? std::min(failbackBackoff * 2, 8) : 1;
        failbackReturned = false;
    }
    const int64_t intervalMs =
            static_cast<int64_t>(params->failback_interval_s.load()) * 1000 * failbackBackoff;
    if (!failbackArmed) {
        // The first window opens one interval after the game came onto the metered link.
        failbackArmed = true;
        failbackProbing = false;
        failbackNext = now;
        failbackNext.tv_sec += static_cast<time_t>(intervalMs / 1000);
        return;
    }
    if (!failbackProbing) {
        if (msBetween(now, failbackNext) > 0) return;
        failbackProbing = true;
        failbackGood = false;
        failbackWindowStart = now;
        threadResume();
        LOGD("%s SLA_RTT failback: probing while on metered %s", "checkFailback", nameOf(current));
        return;
    }
    // Clearly better: the best unmetered link below the entry threshold, with no missed probe,
    // for kFailbackSustainMs on end. A link that only looked good before the window (a stale
    // speed) is measured again meanwhile, and a miss starts the count anew.
    std::shared_ptr<InterfaceRtt> best;
    for (const auto& entry : rttMap) {
        const std::shared_ptr<InterfaceRtt>& rec = entry.second;
        if (!isUnmeteredLink(*rec) || rec->choiceSpeed() < 1 || rec->stalled) continue;
        if (!best || rec->choiceSpeed() <= best->choiceSpeed()) best = rec;
    }
    const bool good =
            best && best->choiceSpeed() < params->rtt_entry_threshold && best->getMissCount() == 0;
    bool done = false;
    if (!good) {
        failbackGood = false;
        done = msBetween(failbackWindowStart, now) >= kFailbackWindowMs;
    } else if (!failbackGood) {
        failbackGood = true;
        failbackGoodSince = now;
    } else if (msBetween(failbackGoodSince, now) >= kFailbackSustainMs) {
        LOGE("%s SLA_RTT failback: %s below entry for %d ms", "checkFailback", nameOf(best),
             static_cast<int>(msBetween(failbackGoodSince, now)));
        calcInterface();
        if (current && isUnmeteredLink(*current)) {
            failbackReturned = true;
            failbackReturnAt = now;
        }
        done = true;
    }
    if (!done) return;
    // Windows open every interval, counted from the start of the last one. (After a return the
    // choice is unmetered and the next check disarms.)
    failbackProbing = false;
    failbackNext = failbackWindowStart;
    failbackNext.tv_sec += static_cast<time_t>(intervalMs / 1000);
    if (!params->isServiceHighRtt() && !params->isVoipRunning()) threadStop();
}

void SmartLinkSelection::setVoipIpAddressAndPort() {
    Parameters* params = Parameters::instance();
    // The call's server is taken once: only while the target is still the default one.
    if (!params->isVoipRunning() || params->getGamingRttServer() != DEFAULT_RTT_SERVER) return;

    // The module writes up to 20 bytes into either text; both start as "0".
    char address[24] = "0";
    char port[24] = "0";
    SlaStatsImpl::instance()->getSlaVoipState(address, port);
    LOGD("setVoipStatus %s, %s", address, port);
    // Both are decimal numbers in network byte order.
    const uint32_t addressValue = static_cast<uint32_t>(strtoul(address, nullptr, 10));
    const uint16_t portValue = static_cast<uint16_t>(strtol(port, nullptr, 10));
    if (addressValue == 0 || portValue == 0) return;

    const uint32_t hostAddress = ntohl(addressValue);
    const uint16_t hostPort = ntohs(portValue);
    LOGD("setVoipAddressVaule addr is %u\n", hostAddress);
    LOGD("setVoipPortVaule port is %d\n", hostPort);
    char text[16];
    snprintf(text, sizeof(text), "%d.%d.%d.%d", static_cast<int>(hostAddress >> 24),
             static_cast<int>((hostAddress >> 16) & 0xFF),
             static_cast<int>((hostAddress >> 8) & 0xFF), static_cast<int>(hostAddress & 0xFF));
    params->setRttTarget(text, hostPort);
}
