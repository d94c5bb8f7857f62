/*
 * The selection lab's replay: the daemon's own smart link selection (RTT smoothing, probe thread
 * pace, the choice with its hysteresis, switch and socket resets) and its gaming socket monitor,
 * run on a virtual clock over a trace (Trace.h) instead of over real links and threads.
 *
 * What is simulated, and how:
 * - Probe threads: each record's thread is a virtual one that keeps the thread body's pace (check
 *   the flags, probe, fold the result with InterfaceRtt::setSpeed, pause ping_interval_ms, leave
 *   when no longer alive). A probe is a TCP connection bound to the link, ten 28-byte requests
 *   answered with 30 bytes, and the kernel's smoothed RTT of that connection (Tcping::reportRtt
 *   turns it into the result); connect and receive each give up after 0.5 s, a lost segment is
 *   sent again after the retransmission time-out.
 * - The game: one TCP connection to its server, a request and its answer, the next request a
 *   fixed time after the answer; lost segments are sent again with back-off; after 3 s without
 *   an answer, or when its socket is destroyed, it reconnects 0.2 s later over the link the
 *   steering chains name (the chosen link, or the default route while none is chosen).
 * - The monitor: a SlaTcpSocketMonitor without a thread, polled once a second from a dump that
 *   shows the game's connection as the kernel would (segments out and in, smoothed RTT, time
 *   since the last ACK).
 * - The main loop: SmartLinkSelection::slsChooseInterface() every mini_est_interval.
 * - The rules run nothing (the commands are recorded); a socket reset is counted and ends the
 *   game's connection.
 */
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <utility>
#include <vector>

#include "Trace.h"

namespace mlbd {
namespace replay {

struct ReplayOptions {
    // Configuration file lines, read by the parameter store as the daemon reads its file
    // ("key=value"); any key the daemon knows.
    std::vector<std::string> config;
    // The daemon's log lines, stamped with the virtual time (null: no log).
    FILE* log = nullptr;
    // Offset of the main loop's period against the trace's start, ms; -1 draws it from the seed.
    int64_t loopPhaseMs = -1;
    // Offset of the probe threads' cycle against their start, microseconds: a live thread's
    // pause drifts against the other loops, so where it stands when probing is resumed varies.
    int64_t probePhaseUs = 0;
    // Mixed into the trace's seed for the per-packet draws and the phases.
    uint64_t seed = 0;
    // What a real run adds to each period, microseconds: the main loop's work before its sleep,
    // the monitor's dump before its wait, a probe thread's work around the pause after a probe. 0
    // models work that takes no time; a live run on a busy host measures a few milliseconds.
    int64_t loopCostUs = 0;
    int64_t monitorCostUs = 0;
    int64_t probePauseCostUs = 0;
    // The time a switch's rule commands and socket resets take on the main loop: the game's
    // sockets are reset that much after the switch, and the next period begins that much later.
    int64_t switchCostUs = 0;
    // The time the probe and its server spend on each exchange beyond the round trip.
    int64_t probeExchangeCostUs = 0;
};

struct SwitchRecord {
    int64_t atMs;
    std::string from;  // empty: none chosen before
    std::string to;
};

struct ExpectationResult {
    Expectation expectation;
    int64_t resultMs = -1;  // leave/return: the time it took; stay: unused
    bool missed = false;    // leave/return did not happen in the window
    int falseSwitches = 0;  // stay: changes of the game's link in the window
};

struct Summary {
    std::string trace;
    int64_t durationMs = 0;
    std::vector<SwitchRecord> switches;  // every switch the choice performed
    int linkChanges = 0;                 // changes of the link the game is steered to
    int socketResets = 0;                // socket resets of the game's UID
    int gameConnections = 0;             // connections the game made
    int64_t meteredMs = 0;               // time the game was steered to a metered link
    int64_t aboveExitMs = 0;             // time its link was down or above rtt_exit_threshold
    int64_t probes = 0;
    int64_t probeBytes = 0;
    std::vector<ExpectationResult> results;
    int falseSwitches = 0;
    int missedLeaves = 0;
    int missedReturns = 0;
    int64_t events = 0;  // simulation events processed
};

// Runs one replay. The parameter store is process-wide: every trace replayed in one process
// must declare the same links in the same order (the first decides the interface list).
bool runReplay(const Trace& trace, const ReplayOptions& options, Summary* summary,
               std::string* why);

// The summary as one JSON object.
std::string summaryJson(const Summary& summary);

// Kernel arithmetic shared with the tests: one RTT sample folded into a smoothed RTT kept, as
// the kernel keeps it, eight times scaled (microseconds).
void kernelRttSample(uint32_t* srtt8, uint32_t* mdev, uint32_t sampleUs);

}  // namespace replay
}  // namespace mlbd
