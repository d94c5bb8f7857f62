// Stopping a host tool's poll loop on SIGINT or SIGTERM.
//
// installStopSignals() sets gStop from the handler and blocks both signals, so they arrive only
// where the loop unblocks them (ppoll with the mask saved before the call); SIGPIPE is ignored, so
// a peer that goes away is an error of the write, not the end of the tool.
#pragma once

#include <signal.h>

inline volatile sig_atomic_t gStop = 0;

inline void installStopSignals() {
    struct sigaction sa = {};
    sa.sa_handler = [](int) { gStop = 1; };
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
}
