/*
 * One switch-latency trial of the selection benchmarks, with selection running as the daemon's
 * main loop runs it (one choice per tick of mini_est_interval) over the emulated links: Wi-Fi
 * back to 20 ms until the choice names it, and 4 s more for its speed to settle; then, at a
 * random point of the loop period, Wi-Fi raised to `delayMs`. The seconds from the raise to the
 * tick whose choice names rmnet_data0, or -1 when either wait timed out (30 s).
 */
#pragma once

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"
#include "util/EmulatedLinks.h"

namespace mlbd {
namespace bench {

inline double switchLatencyTrial(mlbd::test::EmulatedLinks& links, int delayMs,
                                 std::mt19937& random) {
    using namespace std::chrono;
    const milliseconds tick(Parameters::instance()->get(OPER_MINI_EST_INTERVAL));
    auto next = steady_clock::now();
    // Ticks until the choice names `want` or `limit` passes; the time of that tick.
    auto runUntil = [&](const char* want, seconds limit) {
        const auto end = steady_clock::now() + limit;
        while (steady_clock::now() < end) {
            next += tick;
            std::this_thread::sleep_until(next);
            SmartLinkSelection::slsChooseInterface();
            const std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::existing();
            if (sls && sls->current && sls->current->name == want) return steady_clock::now();
        }
        return steady_clock::time_point();
    };
    links.setDelay("wlan0", 20);
    if (runUntil("wlan0", seconds(30)) == steady_clock::time_point()) return -1;
    runUntil("-", seconds(4));  // let Wi-Fi's speed settle near 20 ms
    std::this_thread::sleep_for(milliseconds(random() % tick.count()));
    links.setDelay("wlan0", delayMs);
    const auto raised = steady_clock::now();
    const auto switched = runUntil("rmnet_data0", seconds(30));
    if (switched == steady_clock::time_point()) return -1;
    return duration<double>(switched - raised).count();
}

}  // namespace bench
}  // namespace mlbd
