/*
 * The VoIP state monitor.
 *
 * While smart link selection runs, a thread samples the Wi-Fi station's signal twice a second
 * over nl80211 and turns it into the Wi-Fi RTT penalty of the parameter store: 200 ms while the
 * signal is at -70 dBm or weaker, else 0 (a failed query, read as 0 dBm or above, leaves it).
 * Made during a call, the monitor raises the selection thresholds for the call; destroyed during
 * a call, it restores the entry threshold and resets the gaming applications' sockets.
 *
 * Threads: the sampling thread runs poll() and the pause; the control thread makes and finalizes
 * the monitor. The fields are guarded by the monitor's lock; the pause waits on a condition
 * variable, so that destruction wakes the thread instead of waiting out the pause, and a station
 * query in flight also waits on the monitor's stop descriptor, which destruction makes readable,
 * so that a stop never waits for the query's reply time-out either. The static
 * instance pointer has its own lock; the pointer returned by instance() stays valid until
 * finalize(), and both are called from the control thread.
 */
#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "wificond/net/netlink_utils.h"

class Parameters;

class VoipStateMonitor {
  public:
    // The monitor, made (nl80211 started, thread sampling) on the first call after a finalize().
    static VoipStateMonitor* instance();
    // Destroys the monitor, if there is one.
    static void finalize();

    // Samples through `netlink` (the process's own client by default), which it starts.
    // instance() is the normal way in; tests make their own on a client they control.
    explicit VoipStateMonitor(
            android::wificond::NetlinkUtils* netlink = android::wificond::NetlinkUtils::instance());
    ~VoipStateMonitor();
    VoipStateMonitor(const VoipStateMonitor&) = delete;
    VoipStateMonitor& operator=(const VoipStateMonitor&) = delete;

    // One sample of the signal, and the penalty that follows from it.
    void poll();

  private:
    void threadLoop();

    std::mutex lock_;
    std::condition_variable wakeUp_;
    std::thread thread_;
    int32_t rssi = 0;
    bool running = false;
    android::wificond::NetlinkUtils* const netlink_;
    // An eventfd, readable once the monitor is being destroyed (-1 if none could be made).
    android::base::unique_fd stopFd_;
    Parameters* const params_;
};
