/*
 * The SLA kernel module's control file and statistics mappings, the per-cycle rate estimates
 * and the split ratios, and the module's VoIP state file.
 */
#include "SlaStatsImpl.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include "iptables/IptablesManager.h"
#include "platform/IntervalClock.h"
#include "platform/Platform.h"
#include "stats/SlaStatsData.h"

#define LOG_TAG "Mlbd-SlaStatsImpl"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

SlaStatsImpl* SlaStatsImpl::sInstance = nullptr;

namespace {

constexpr size_t kTextSize = 512;
constexpr size_t kPathSize = 128;
constexpr int kMmapAttempts = 3;
constexpr useconds_t kMmapRetryUs = 500 * 1000;
constexpr int kRatioLogPeriodS = 6;
constexpr size_t kVoipStateBytes = 21;

// Writes to `fd` without letting a reader that went away raise SIGPIPE in this process: the
// signal is blocked on this thread for the write, and one it caused is consumed before the old
// mask is restored. On the device the control file is a proc file and never raises it; on a
// host it may be a FIFO served by a stand-in for the module.
ssize_t writeWithoutSigpipe(int fd, const void* data, size_t size) {
    sigset_t pipeSet;
    sigset_t oldSet;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;

    ssize_t n;
    do {
        n = write(fd, data, size);
    } while (n < 0 && errno == EINTR);
    const int err = errno;

    if (n < 0 && err == EPIPE && !wasPending) {
        struct timespec zero = {0, 0};
        while (sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
    errno = err;
    return n;
}

// A regular file must hold the whole layout, or reading its mapping past the end would raise
// SIGBUS. A proc file reports no meaningful size: its mapping is the module's to provide.
bool holdsWholeLayout(int fd, const char* path) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        LOGE("open mmap file failed:%s", strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) return true;
    struct statfs fs;
    if (fstatfs(fd, &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC) return true;
    if (st.st_size < static_cast<off_t>(sla::kStatsFileSize)) {
        LOGE("mmap file %s too short: %lld bytes, %zu expected", path,
             static_cast<long long>(st.st_size), sla::kStatsFileSize);
        return false;
    }
    return true;
}

// Looks the interface up in the configured interface map. An interface that is not configured
// is taken as metered, the conservative side: it then only ever gets a cellular share.
bool isMetered(Parameters* params, const std::string& name) {
    auto it = params->interfaces().find(name);
    if (it == params->interfaces().end() || it->second == nullptr) return true;
    return it->second->metered;
}

}  // namespace

// Guards the instance pointer: the control thread may ask for the instance while the main
// thread is still starting up.
static std::mutex sInstanceMutex;

SlaStatsImpl* SlaStatsImpl::instance() {
    std::lock_guard<std::mutex> lock(sInstanceMutex);
    if (sInstance == nullptr) sInstance = new SlaStatsImpl();
    return sInstance;
}

void SlaStatsImpl::finalize() {
    std::lock_guard<std::mutex> lock(sInstanceMutex);
    if (sInstance == nullptr) return;
    sInstance->freeMmap();
    delete sInstance;
    sInstance = nullptr;
}

// ---- Control file ----

int SlaStatsImpl::writeStatsConfFile(const char* text) {
    if (text == nullptr) return -1;
    LOGD("%s:%s", "writeStatsConfFile", text);
    // Non-blocking: a FIFO without a reader fails at once instead of stalling the daemon.
    int fd = open(mlbd::devicePath("/proc/sla/config").c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        LOGE("open stats config file failed:%s", strerror(errno));
        return -1;
    }
    const size_t size = strlen(text) + 1;  // the module gets the terminating NUL as well
    ssize_t n = writeWithoutSigpipe(fd, text, size);
    const int err = n < 0 ? errno : EIO;
    close(fd);
    if (n < static_cast<ssize_t>(size)) {
        LOGE("write the config failed:%s\n", strerror(err));
        return -1;
    }
    return 0;
}

bool SlaStatsImpl::enableSLA(bool enable) {
    char text[kTextSize];
    if (!enable) {
        // Released before the module stops writing.
        freeMmap();
        snprintf(text, sizeof(text), "%s%d", "enable=", 0);
        return writeStatsConfFile(text) == 0;
    }

    Parameters* params = Parameters::instance();
    writeStatsConfFile(params->getStatsProtocols(text, sizeof(text)));
    writeStatsConfFile(params->getStatsPorts(text, sizeof(text)));
    for (auto& entry : params->interfaces()) {
        snprintf(text, sizeof(text), "%s%s", "iface=", entry.first.c_str());
        writeStatsConfFile(text);
    }
    // Mapped before the module is told to start.
    initMmap();
    snprintf(text, sizeof(text), "%s%d", "enable=", 1);
    return writeStatsConfFile(text) == 0;
}

// ---- Mappings ----

void* SlaStatsImpl::getStatsMmap(std::string iface) {
    char relative[kPathSize];
    int n = snprintf(relative, sizeof(relative), "%s%s%s_mmap", "/proc/sla", "/", iface.c_str());
    // A cut path, or a name that leaves the folder, must not be opened (the open creates).
    if (n < 0 || static_cast<size_t>(n) >= sizeof(relative)) {
        LOGE("open mmap file failed:%s", strerror(ENAMETOOLONG));
        return nullptr;
    }
    if (iface.empty() || strchr(iface.c_str(), '/') != nullptr) {
        LOGE("open mmap file failed:%s", strerror(EINVAL));
        return nullptr;
    }
    const std::string path = mlbd::devicePath(relative);
    int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0777);
    if (fd < 0) {
        LOGE("open mmap file failed:%s", strerror(errno));
        return nullptr;
    }
    if (!holdsWholeLayout(fd, path.c_str())) {
        close(fd);
        return nullptr;
    }
    void* mapping = mmap(nullptr, sla::kStatsFileSize, PROT_READ, MAP_SHARED, fd, 0);
    const int err = errno;
    close(fd);
    if (mapping == MAP_FAILED) {
        LOGE("mmap stats file failed:%s", strerror(err));
        return nullptr;
    }
    return mapping;
}

void SlaStatsImpl::releaseWrapper(linkStatsWrapper_t* wrapper) {
    if (wrapper == nullptr) return;
    if (wrapper->stats != nullptr) {
        munmap(wrapper->stats->mapping(), sla::kStatsFileSize);
        delete wrapper->stats;
    }
    delete wrapper;
}

bool SlaStatsImpl::initMmap() {
    Parameters* params = Parameters::instance();
    std::lock_guard<std::mutex> lock(mutex_);
    if (params->interfaces().empty()) return statsMap.empty();

    size_t successes = 0;
    for (auto& entry : params->interfaces()) {
        const std::string& name = entry.first;
        linkStatsWrapper_t* wrapper = new linkStatsWrapper_t();
        snprintf(wrapper->interfaceName, sizeof(wrapper->interfaceName), "%s", name.c_str());

        // The module may create the file a little after its iface= command.
        void* mapping = nullptr;
        for (int attempt = 0; attempt < kMmapAttempts && mapping == nullptr; ++attempt) {
            mapping = getStatsMmap(name);
            if (mapping == nullptr) usleep(kMmapRetryUs);
        }
        if (mapping != nullptr) {
            const bool metered = entry.second != nullptr && entry.second->metered;
            wrapper->stats = new SlaStatsData(mapping, !metered);
            ++successes;
        }

        // An interface without a mapping keeps its wrapper: it still gets a ratio.
        linkStatsWrapper_t*& slot = statsMap[name];
        if (slot != nullptr) releaseWrapper(slot);
        slot = wrapper;
    }
    return successes == statsMap.size();
}

void SlaStatsImpl::freeMmap() {
    LOGD("%s +\n", "freeMmap");
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : statsMap) releaseWrapper(entry.second);
    statsMap.clear();
}

// ---- Rates and ratios ----

unsigned SlaStatsImpl::getMaxLinkRateFromHistory(linkHistory_t& history, unsigned rate,
                                                 Parameters* params) {
    const int32_t cap = params->bestEstCacheSize;
    if (cap <= 0) return rate;

    bool poppedMax = false;
    // One value leaves per call, so a lowered cache size shrinks the history gradually.
    if (history.rates.size() >= static_cast<size_t>(cap)) {
        const uint32_t oldest = history.rates.front();
        history.rates.pop_front();
        poppedMax = history.maxRate != 0 && oldest == history.maxRate;
    }
    history.rates.push_back(rate);

    if (!poppedMax) {
        if (history.maxRate >= rate) return history.maxRate;
        history.maxRate = rate;
        return rate;
    }
    uint32_t maxRate = 0;
    for (uint32_t value : history.rates) {
        if (value > maxRate) maxRate = value;
    }
    history.maxRate = maxRate;
    return maxRate;
}

unsigned SlaStatsImpl::updateLinkRate(linkStatsWrapper_t* wrapper, bool metered,
                                      Parameters* params) {
    const unsigned rate = wrapper->stats->linkRateEstimate(&wrapper->sampleCount);
    // Too few fresh intervals: no estimate of its own this cycle.
    uint32_t r = static_cast<int64_t>(wrapper->sampleCount) < params->estimatePackNum ? 0 : rate;
    wrapper->linkRate = r;
    if (metered && r < params->get(OPER_WAN_THRESHOLD)) {
        wrapper->linkRate = 0;
        r = 0;
    }
    const unsigned best = getMaxLinkRateFromHistory(wrapper->history, r, params);
    if (wrapper->linkRate == 0) wrapper->linkRate = best;
    return best;
}

int SlaStatsImpl::evalAndSetSLAInterfaceRatio() {
    IptablesManager* iptables = IptablesManager::instance();
    std::lock_guard<std::mutex> lock(mutex_);
    Parameters* params = Parameters::instance();

    const uint32_t wifiThreshold = params->get(OPER_WIFI_THRESHOLD);
    const int32_t wifiCount = params->wifiIfaceCount;
    uint32_t wwanSum = 0;
    uint32_t wifiSum = 0;
    uint32_t idleWifi = 0;

    for (auto& entry : statsMap) {
        linkStatsWrapper_t* wrapper = entry.second;
        if (wrapper == nullptr || wrapper->stats == nullptr) continue;
        const bool metered = isMetered(params, entry.first);
        const unsigned best = updateLinkRate(wrapper, metered, params);
        if (metered) {
            wwanSum += wrapper->linkRate;
        } else {
            wifiSum += wrapper->linkRate;
            if (wrapper->linkRate == 0 && wrapper->sampleCount == 0 && best == 0) ++idleWifi;
        }
    }

    const SLA_ratio_calc_process process =
            wifiSum <= wifiThreshold ? SLA_CALC_AGGREGATE : SLA_CALC_WIFI_ONLY;
    const int dualWlanOneIdle = wifiCount == 2 && idleWifi == 1;
    if (calcSlaRatios(process, static_cast<float>(wwanSum), static_cast<float>(wifiSum),
                      dualWlanOneIdle)) {
        iptables->set_SLA_ratio_iptables(statsMap);
    }
    return 0;
}

bool SlaStatsImpl::calcSlaRatios(SLA_ratio_calc_process process, float wwanSum, float wifiSum,
                                 int dualWlanOneIdle) {
    static const char* kFn = "calcSlaRatios";
    Parameters* params = Parameters::instance();
    const int32_t wifiCount = params->wifiIfaceCount;

    float lre = static_cast<float>(params->get(OPER_WIFI_THRESHOLD));
    if (wifiCount >= 2 && params->num_interfaces >= 3) {
        lre *= 2;
        LOGD("LREThreshold = %f", lre);
    }

    // The log period is an interval: timed on the clock that never steps.
    now_ = mlbd::intervalClockNow();
    const bool logRatios =
            lastLogSeconds_ == 0 || now_.tv_sec - lastLogSeconds_ >= kRatioLogPeriodS;
    if (logRatios) lastLogSeconds_ = now_.tv_sec;

    float remaining = 1.0f;
    int zeroCount = 0;
    // What the Wi-Fi links leave of the threshold rate; all of it without a threshold.
    const float wifiShortfall = lre != 0.0f ? 1.0f - wifiSum / lre : 1.0f;
    if (statsMap.empty()) return false;

    oldRatios_.clear();
    for (auto& entry : statsMap) {
        linkStatsWrapper_t* wrapper = entry.second;
        oldRatios_.push_back(wrapper != nullptr ? wrapper->interfaceRatio : 0.0f);
        if (wrapper == nullptr) continue;
        const bool metered = isMetered(params, entry.first);
        const float rate = static_cast<float>(wrapper->linkRate);
        float r = 0.0f;
        switch (process) {
            case SLA_CALC_AGGREGATE:
                if (metered) {
                    r = wwanSum != 0.0f ? wifiShortfall * (rate / wwanSum) : 0.0f;
                } else {
                    r = lre != 0.0f ? rate / lre : 0.0f;
                }
                wrapper->interfaceRatio = r;
                break;
            case SLA_CALC_WIFI_ONLY:
                r = wifiSum != 0.0f ? rate / wifiSum : 0.0f;
                // A cellular link gets nothing, yet its would-be share still counts below.
                wrapper->interfaceRatio = metered ? 0.0f : r;
                break;
            default:
                LOGE("%s unexpected behavior in calc ratio", kFn);
                r = 0.0f;
                break;
        }
        remaining -= r;
        if (r == 0.0f) ++zeroCount;
    }

    const double minChange = params->minRatioChange / 100.0;
    float totalChange = 0.0f;
    const float zeroShare = zeroCount != 0 ? remaining / static_cast<float>(zeroCount) : 0.0f;
    const float wifiShare = wifiCount > 0 ? remaining / static_cast<float>(wifiCount) : 0.0f;
    const bool bothZero = wwanSum == 0.0f && wifiSum == 0.0f;

    size_t index = 0;
    for (auto& entry : statsMap) {
        const float oldRatio = oldRatios_[index++];
        linkStatsWrapper_t* wrapper = entry.second;
        if (wrapper == nullptr) continue;
        const bool metered = isMetered(params, entry.first);

        // The share left over goes evenly to the links without a rate (to the Wi-Fi links
        // only when no link has any rate).
        if (remaining > 0.0f && zeroCount != 0 && wrapper->linkRate == 0) {
            wrapper->interfaceRatio = bothZero ? (metered ? 0.0f : wifiShare) : zeroShare;
            if (logRatios) {
                LOGD("%s SLA_RATIO totalRatioChange = %f  iface= %s ratio =%f", kFn, totalChange,
                     wrapper->interfaceName, wrapper->interfaceRatio);
            }
        }
        // Two Wi-Fi links of which one is idle: half each, cellular nothing.
        if (dualWlanOneIdle) wrapper->interfaceRatio = metered ? 0.0f : 0.5f;
        if (logRatios) {
            LOGD("%s SLA_RATIO oldRatio = %f, new ratio = %f , LRE = %d ,interface = %s , ", kFn,
                 oldRatio, wrapper->interfaceRatio, static_cast<int>(wrapper->linkRate),
                 wrapper->interfaceName);
        }
        totalChange += fabsf(oldRatio - wrapper->interfaceRatio);
    }

    // Half the summed change is the fraction of new connections that would move between links.
    const double moved = static_cast<double>(totalChange) * 0.5;
    if (moved > minChange) {
        LOGD("%s SLA_RATIO total ratio can ges enough = %f , threshold= %f", kFn, moved, minChange);
        return true;
    }
    return false;
}

// ---- VoIP state ----

int SlaStatsImpl::enableSlaVoipState(bool enable, const char* uid) {
    char uidText[kTextSize];
    char enableText[kTextSize];
    snprintf(uidText, sizeof(uidText), "%s%s", "voip_uid=", uid != nullptr ? uid : "");
    snprintf(enableText, sizeof(enableText), "%s%d", "voip_enable=", enable ? 1 : 0);
    // The UID is in place before tracking starts, and tracking stops before it is rewritten.
    if (enable) {
        writeStatsConfFile(uidText);
        return writeStatsConfFile(enableText);
    }
    writeStatsConfFile(enableText);
    return writeStatsConfFile(uidText);
}

int SlaStatsImpl::getSlaVoipState(char* address, char* port) {
    int fd = open(mlbd::devicePath("/proc/sla/sla_voip_state").c_str(),
                  O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        LOGE("open voip state file failed:%s", strerror(errno));
        return -1;
    }
    char buf[kVoipStateBytes] = {};
    ssize_t n;
    do {
        n = read(fd, buf, sizeof(buf));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        // A failed read is named in a line of its own and counts as an empty file: the caller
        // then finds no comma and keeps its texts, as for any content it cannot use.
        LOGE("read voip state file failed:%s", strerror(errno));
        n = 0;
    }

    // "<address>,<port>": the parts are copied without terminators, into the caller's
    // zero-filled buffers.
    const char* comma = static_cast<const char*>(memchr(buf, ',', static_cast<size_t>(n)));
    if (comma != nullptr) {
        const size_t p = static_cast<size_t>(comma - buf);
        if (address != nullptr) memcpy(address, buf, p);
        if (port != nullptr) memcpy(port, comma + 1, static_cast<size_t>(n) - p - 1);
        LOGD("getSlaVoipState 2 is address=%s port=%s ret=%d", address != nullptr ? address : "",
             port != nullptr ? port : "", static_cast<int>(n));
    }
    close(fd);
    return static_cast<int>(n);
}
