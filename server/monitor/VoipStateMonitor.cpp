/*
 * The VoIP state monitor: the sampling thread, the signal-to-penalty rule and the threshold steps
 * around a call.
 */
#include "monitor/VoipStateMonitor.h"

#include <android/log.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "monitor/SockDiag.h"
#include "parameters/Parameters.h"

#define LOG_TAG "Mlbd-VoipStateMonitor"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)

namespace {

constexpr std::chrono::milliseconds kSampleInterval(500);
// At or below this signal (dBm) Wi-Fi RTTs are counted this much worse (ms).
constexpr int32_t kWeakSignalDbm = -70;
constexpr int32_t kWeakSignalPenaltyMs = 200;
// The selection thresholds while a call runs, and the entry threshold left after it.
constexpr int32_t kCallEntryThresholdMs = 110;
constexpr int32_t kCallExitThresholdMs = 200;
constexpr int32_t kAfterCallEntryThresholdMs = 130;

std::mutex sInstanceLock;
VoipStateMonitor* sInstance = nullptr;

}  // namespace

VoipStateMonitor* VoipStateMonitor::instance() {
    std::lock_guard<std::mutex> guard(sInstanceLock);
    if (sInstance == nullptr) sInstance = new VoipStateMonitor();
    return sInstance;
}

void VoipStateMonitor::finalize() {
    std::lock_guard<std::mutex> guard(sInstanceLock);
    delete sInstance;
    sInstance = nullptr;
}

VoipStateMonitor::VoipStateMonitor(android::wificond::NetlinkUtils* netlink)
    : netlink_(netlink),
      stopFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      params_(Parameters::instance()) {
    std::lock_guard<std::mutex> guard(lock_);
    netlink_->Start();
    if (params_->isVoipRunning()) {
        params_->rtt_entry_threshold = kCallEntryThresholdMs;
        params_->rtt_exit_threshold = kCallExitThresholdMs;
    }
    rssi = 0;
    running = true;
    thread_ = std::thread(&VoipStateMonitor::threadLoop, this);
}

VoipStateMonitor::~VoipStateMonitor() {
    // A query in flight ends now rather than at its reply time-out, and any later one at once.
    if (stopFd_.ok()) {
        const uint64_t one = 1;
        if (write(stopFd_.get(), &one, sizeof(one)) < 0) {
            // Only a full counter fails, and that is readable already.
        }
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        running = false;
        // Only the entry threshold steps back, and to 130 rather than its default.
        if (params_->isVoipRunning()) params_->rtt_entry_threshold = kAfterCallEntryThresholdMs;
        // The applications reconnect without the call's settings.
        for (const std::string& uid : params_->getGamingUidList()) {
            android::net::killSocketsForUID(uid.c_str());
        }
    }
    wakeUp_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void VoipStateMonitor::threadLoop() {
    std::unique_lock<std::mutex> guard(lock_);
    while (running) {
        guard.unlock();
        poll();
        guard.lock();
        wakeUp_.wait_for(guard, kSampleInterval, [this] { return !running; });
    }
}

void VoipStateMonitor::poll() {
    // The query runs without the monitor's lock (the client has its own), so that a stop never
    // waits for the lock behind a query; the stop descriptor ends the query's wait when the
    // stop joins the thread.
    const int32_t sample = netlink_->GetStationInfo(stopFd_.get());
    std::lock_guard<std::mutex> guard(lock_);
    rssi = sample;
    LOGD("rssi is %d", rssi);
    if (rssi <= kWeakSignalDbm) {
        params_->wifiRttPenaltyMs = kWeakSignalPenaltyMs;
    } else if (rssi < 0) {
        params_->wifiRttPenaltyMs = 0;
    }
}
