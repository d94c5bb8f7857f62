/*
 * Speed of the selection lab's replay (no root, no network):
 *
 *   1. one hour of a busy trace (heavy-tailed jitter and loss bursts on Wi-Fi the whole hour,
 *      hand-over gaps on cellular, a slow Wi-Fi period every ten minutes, a call that keeps the
 *      probes and the choice running), replayed without and with the daemon's log;
 *   2. the scenario library (tools/replay/scenarios), back to back.
 *
 * Prints the CPU time per hour of trace and the speed-up over real time (target: an hour in
 * under 1 s of CPU, 3600x).
 *
 *   build/bench/ReplayBench [repeats]     (default 5)
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Replay.h"
#include "Trace.h"

using namespace mlbd::replay;

namespace {

double cpuSeconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
           usage.ru_stime.tv_usec / 1e6;
}

std::string busyHour() {
    std::string t =
            "duration 3600s\nseed 42\n"
            "link wlan0 rtt=20ms\nlink rmnet_data0 rtt=60ms\ngame port=5000 every=100ms\n"
            "jitter 0s 3600s wlan0 scale=8ms shape=1.5 step=100ms cap=800ms\n"
            "gilbert 0s 3600s wlan0 p=0.3% r=30% bad-loss=100%\n"
            "gaps 0s 3600s rmnet_data0 every=15s length=800ms\n"
            // A call keeps the probes and the choice busy from the first minute on.
            "call 60s 3600s\n";
    for (int m = 5; m < 60; m += 10) {
        t += "at " + std::to_string(m * 60) + "s wlan0 rtt=300ms\n";
        t += "at " + std::to_string(m * 60 + 120) + "s wlan0 rtt=20ms\n";
    }
    return t;
}

// Replays `trace` `repeats` times; the best CPU time of one replay.
double replayCpu(const Trace& trace, FILE* log, int repeats, Summary* summary) {
    double best = 1e9;
    for (int i = 0; i < repeats; ++i) {
        ReplayOptions options;
        options.log = log;
        std::string why;
        const double before = cpuSeconds();
        if (!runReplay(trace, options, summary, &why)) {
            fprintf(stderr, "ReplayBench: %s\n", why.c_str());
            exit(1);
        }
        best = std::min(best, cpuSeconds() - before);
    }
    return best;
}

}  // namespace

int main(int argc, char** argv) {
    const int repeats = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    Trace hour;
    std::string why;
    if (!parseTrace(busyHour(), &hour, &why)) {
        fprintf(stderr, "ReplayBench: %s\n", why.c_str());
        return 1;
    }
    Summary s;
    const double quiet = replayCpu(hour, nullptr, repeats, &s);
    printf("busy hour, no log: %.3f s CPU (%.0fx real time), %lld events, %d switches, %lld "
           "probes\n",
           quiet, 3600 / quiet, static_cast<long long>(s.events),
           static_cast<int>(s.switches.size()), static_cast<long long>(s.probes));
    FILE* devnull = fopen("/dev/null", "w");
    const double logged = replayCpu(hour, devnull, repeats, &s);
    fclose(devnull);
    printf("busy hour, with the daemon's log: %.3f s CPU (%.0fx real time)\n", logged,
           3600 / logged);

    const std::string dir = std::string(MLBD_SOURCE_DIR) + "/tools/replay/scenarios";
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            const std::string n = e->d_name;
            if (n.size() > 6 && n.compare(n.size() - 6, 6, ".trace") == 0) names.push_back(n);
        }
        closedir(d);
    }
    double cpu = 0, traced = 0;
    for (const std::string& n : names) {
        Trace t;
        if (!loadTrace(dir + "/" + n, &t, &why)) {
            fprintf(stderr, "ReplayBench: %s: %s\n", n.c_str(), why.c_str());
            return 1;
        }
        cpu += replayCpu(t, nullptr, repeats, &s);
        traced += t.durationMs / 1000.0;
    }
    printf("scenario library: %zu traces, %.0f s of trace in %.3f s CPU (%.2f s CPU per hour, "
           "%.0fx real time)\n",
           names.size(), traced, cpu, cpu * 3600 / std::max(1.0, traced), traced / cpu);
    return 0;
}
