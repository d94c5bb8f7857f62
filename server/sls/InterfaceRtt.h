/*
 * One managed interface's round-trip record for smart link selection.
 *
 * The interface's probe thread folds each measurement into it (setSpeed) about twice a second;
 * the interface choice on the main loop reads the smoothed value, the interface's speed: a
 * round-trip time in milliseconds, smaller is faster, -1 for an interface that failed to answer
 * too often (or has not been measured yet).
 *
 * Records are shared: the selection's map and every probe thread working on a record hold it
 * through a shared_ptr, so a record lives until the last of them lets go. The flags and the
 * speed are relaxed atomics written by the controllers and the probe thread; the smoothing
 * history is guarded by the record's own lock, because a probe thread of an older generation may
 * still be finishing its last probe beside a new one.
 */
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <mutex>
#include <string>

#include "parameters/Relaxed.h"

class InterfaceRtt {
  public:
    // The handle value that means "no probe thread".
    static const pthread_t kNoThread;

    // `minPingTimes`, `pingIntervalMs` and `noResponseTimeoutMs` are the configuration values at
    // creation; `rttServer` is the probe target as it stood then (kept for the record only).
    InterfaceRtt(const std::string& name, const std::string& rttServer, uint32_t minPingTimes,
                 uint32_t pingIntervalMs, uint32_t noResponseTimeoutMs);
    InterfaceRtt(const InterfaceRtt&) = delete;
    InterfaceRtt& operator=(const InterfaceRtt&) = delete;

    // Folds one probe result (milliseconds, or -1 for a failed probe) into the speed.
    int setSpeed(int raw);
    // True when the interface map marks the interface as metered; false (with an error line)
    // for a name the map does not know.
    bool isMetered() const;

    // The smoothing history, read under the record's lock.
    uint32_t getMissCount() const;
    int32_t getPrevSpeed() const;

    mlbd::Relaxed<pthread_t> thread{kNoThread};
    const std::string rttServer;
    const uint32_t minPingTimes;
    const uint32_t pingIntervalMs;
    const uint32_t noResponseTimeoutMs;
    const std::string name;
    // -1 until the first probe has completed, and after a failure.
    mlbd::Relaxed<int32_t> speed{-1};
    // Probing is wanted (the thread measures only while it is set).
    mlbd::Relaxed<bool> running{true};
    // The probe thread is to keep running.
    mlbd::Relaxed<bool> alive{false};
    // The game's own connection over this link stalled (stall_leave_ms): the choice treats the
    // link as failed until its next good probe.
    mlbd::Relaxed<bool> stalled{false};
    // The game's own round-trip time over this link (ms) while it stays above the exit threshold
    // (slow_leave_checks), 0 otherwise: the choice takes it when it is worse than the speed.
    // Written by the socket monitor, cleared by the next good probe as well.
    mlbd::Relaxed<int32_t> slowEvidenceMs{0};
    // The game's connection over this link stalled, to be confirmed by the link's next probe
    // (slow_leave_checks): a miss marks the link stalled and asks for a choice at once.
    mlbd::Relaxed<bool> stallSuspect{false};
    // One probe is wanted although probing is stopped (the figure is refreshed).
    mlbd::Relaxed<bool> probeOnce{false};

    // The figure the choice uses: the speed, or the game's own worse RTT over the link.
    int32_t choiceSpeed() const {
        const int32_t s = speed;
        const int32_t e = slowEvidenceMs;
        return s >= 1 && e > s ? e : s;
    }
    // Probe-thread side: whether to probe in this cycle (takes a wanted single probe).
    bool takeProbeTurn() { return alive && (running || probeOnce.exchange(false)); }

  private:
    mutable std::mutex historyMutex_;
    uint32_t missCount_ = 0;
    int32_t prevSpeed_ = 1000;
    // No result yet, or the last one ended in failure: prevSpeed_ is the made-up start value.
    bool unmeasured_ = true;
};
