/*
 * Smart link selection: one RTT probe thread and record per managed interface, and the choice
 * of the one interface that carries the gaming and VoIP applications' traffic.
 *
 * Threads: the probe threads (one per record, detached, never joined), the main loop (the
 * choice), and the control and monitor threads (start, stop, resume, destroy). The instance is
 * shared: instance() and existing() hand out shared_ptrs, so a caller that is still working on
 * an instance keeps it (and its records) alive while another thread finalizes it. The record map
 * is built once, when the instance is made, and never changes; the fields only the main loop
 * uses (current, lastSwitchTime) need no lock, switchCount is a relaxed atomic.
 */
#pragma once

#include <sys/time.h>

#include <map>
#include <memory>
#include <string>

#include "parameters/Relaxed.h"
#include "sls/InterfaceRtt.h"

class SmartLinkSelection {
  public:
    using RttMap = std::map<std::string, std::shared_ptr<InterfaceRtt>>;
    using Clock = struct timeval (*)();

    // Kept for the callers' order of calls; the instance lock needs no set-up.
    static void Init();
    // The instance, made (records built, no threads) on the first call after a finalize.
    static std::shared_ptr<SmartLinkSelection> instance();
    // The instance if there is one; never makes one.
    static std::shared_ptr<SmartLinkSelection> existing();
    // Stops every record's probing and thread and forgets the instance. The records are freed
    // when their last thread has let go of them.
    static void finalize();
    static void cleanup();

    // One selection decision, when gaming needs it (high RTT) or a call runs; called by the
    // main loop every cycle.
    static void slsChooseInterface();
    // Moves the probe target to the call's own server, once per call.
    static void setVoipIpAddressAndPort();

    void createRttThreads();
    void threadStop();
    void threadResume();
    void threadDestory();

    // The decision: the name of the chosen interface, or null when no interface has a speed.
    const char* calcInterface();
    // The record with the smallest speed overall (null if none), and the fastest unmetered and
    // metered ones; among equal speeds the later name wins.
    std::shared_ptr<InterfaceRtt> getFastestInterface(std::shared_ptr<InterfaceRtt>* unmetered,
                                                      std::shared_ptr<InterfaceRtt>* metered);

    const RttMap& records() const { return rttMap; }
    // Seam for tests and tools: the clock the hysteresis reads (by default the interval clock
    // of platform/IntervalClock.h, which never steps).
    void setClock(Clock clock) { clock_ = clock; }

    // Seams for running selection on a virtual clock (host tools): what starts a record's probe
    // thread (true with the handle set, false when none could be started), and what resets one
    // UID's sockets after a switch. Null, the default: a detached thread on makeRawPingFunc, and
    // killSocketsForUID. Set before any instance is made.
    using ThreadStarter = bool (*)(const std::shared_ptr<InterfaceRtt>& rec, pthread_t* thread);
    using SocketKiller = int (*)(const char* uid);
    static void setThreadStarter(ThreadStarter starter);
    static void setSocketKiller(SocketKiller killer);

    RttMap rttMap;
    std::shared_ptr<InterfaceRtt> current;
    struct timeval lastSwitchTime = {};
    mlbd::Relaxed<int32_t> switchCount{0};
    // True while the selection chains steer the applications to a Wi-Fi link (the last switch
    // went to one); read by the socket monitor's thread.
    mlbd::Relaxed<bool> wifiChosen{false};

    // Selection that follows the game (failback_interval_s, stall_leave_ms; inert at 0).
    // The record of the link that carries the game: the chosen one, or the default route's
    // while none is chosen (null if neither). Read by the socket monitor's thread; the records
    // live as long as the instance.
    InterfaceRtt* gameLinkRecord() const;
    // The chosen link's record, written at each switch (null before the first).
    mlbd::Relaxed<InterfaceRtt*> chosenRecord{nullptr};
    // slow_leave_checks: a choice wanted before the next main-loop cycle (any thread), and the
    // main loop's pause between cycles, which runs such a choice on the main loop as soon as it
    // is wanted. Without requests the pause is a plain sleep of `ms`.
    static void requestChoice();
    static void sleepUntilNextCycle(uint32_t ms);
    // Takes a pending request (true once per request); for drivers with a loop of their own.
    static bool takeChoiceRequest();
    // Main loop only: while a game runs, one probe now and then of each link that does not
    // carry it, so that its figure is fresh when the game must leave its link.
    void refreshOtherLinks();
    std::map<std::string, struct timeval> refreshedAt;
    // Main loop only: the return to an unmetered link. Armed while the choice sits on a metered
    // link; a probe window opens every failback_interval_s seconds.
    void checkFailback();
    bool failbackArmed = false;
    bool failbackProbing = false;
    bool failbackGood = false;
    struct timeval failbackNext = {};
    struct timeval failbackWindowStart = {};
    struct timeval failbackGoodSince = {};
    bool failbackReturned = false;
    struct timeval failbackReturnAt = {};
    int failbackBackoff = 1;

    SmartLinkSelection();

  private:
    void initPingThreads();
    InterfaceRtt* defaultRecord_ = nullptr;
    Clock clock_;
};

// The probe thread body; `arg` is a heap-allocated std::shared_ptr<InterfaceRtt> that the thread
// takes over.
void* makeRawPingFunc(void* arg);
