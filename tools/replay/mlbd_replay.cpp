/*
 * mlbd-replay: replays link traces through the daemon's own selection code on a virtual clock and
 * prints one JSON summary per trace (see --help and README.md, "Selection lab").
 */
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "FromLog.h"
#include "Replay.h"
#include "Trace.h"

using namespace mlbd::replay;

namespace {

void usage(FILE* out) {
    fprintf(out,
            "usage: mlbd-replay [options] TRACE...\n"
            "       mlbd-replay [options] --from-log LOG [--write-trace FILE]\n"
            "Replays each trace through the daemon's smart link selection and gaming socket\n"
            "monitor on a virtual clock and prints one JSON summary per trace and line.\n"
            "  --config FILE     a configuration file as the daemon reads it (default: none,\n"
            "                    the built-in defaults)\n"
            "  --set KEY=VALUE   one more configuration line (after --config; repeatable)\n"
            "  --log FILE        the daemon's log lines with virtual time stamps (one trace only;\n"
            "                    tools/mlbd-timeline draws it)\n"
            "  --loop-phase MS   the main loop's offset against the start of selection (default:\n"
            "                    drawn from the seed)\n"
            "  --seed N          mixed into the trace's seed for the per-packet draws\n"
            "  --probe-phase MS  the probe threads' cycle starts this much after their start\n"
            "  --costs L,M,P[,S[,X]]  milliseconds a real run adds to each main-loop period,\n"
            "                    monitor period and pause after a probe, takes for a switch's\n"
            "                    rules and socket resets, and adds to each probe exchange\n"
            "                    (default 0; agree.sh measures them)\n"
            "  --from-log LOG    rebuild a trace from a daemon log (host stderr or logcat -v\n"
            "                    threadtime: the probe and monitor lines) and replay it\n"
            "  --write-trace F   with --from-log: also write the rebuilt trace to F\n");
}

}  // namespace

int main(int argc, char** argv) {
    ReplayOptions options;
    std::string logPath, fromLog, writeTrace;
    static const struct option kOptions[] = {
            {"config", required_argument, nullptr, 'c'},
            {"set", required_argument, nullptr, 's'},
            {"log", required_argument, nullptr, 'l'},
            {"loop-phase", required_argument, nullptr, 'p'},
            {"seed", required_argument, nullptr, 'r'},
            {"from-log", required_argument, nullptr, 'f'},
            {"costs", required_argument, nullptr, 'C'},
            {"probe-phase", required_argument, nullptr, 'P'},
            {"write-trace", required_argument, nullptr, 'w'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (c) {
            case 'c': {
                std::ifstream in(optarg);
                if (!in) {
                    fprintf(stderr, "mlbd-replay: cannot read %s\n", optarg);
                    return 2;
                }
                for (std::string line; std::getline(in, line);) options.config.push_back(line);
                break;
            }
            case 's':
                if (strchr(optarg, '=') == nullptr) {
                    fprintf(stderr, "mlbd-replay: --set wants KEY=VALUE\n");
                    return 2;
                }
                options.config.push_back(optarg);
                break;
            case 'l':
                logPath = optarg;
                break;
            case 'p':
                options.loopPhaseMs = strtoll(optarg, nullptr, 10);
                break;
            case 'r':
                options.seed = strtoull(optarg, nullptr, 10);
                break;
            case 'f':
                fromLog = optarg;
                break;
            case 'P':
                options.probePhaseUs = std::max(0LL, strtoll(optarg, nullptr, 10)) * 1000;
                break;
            case 'C': {
                double l = 0, m = 0, p = 0, w = 0, x = 0;
                const int n = sscanf(optarg, "%lf,%lf,%lf,%lf,%lf", &l, &m, &p, &w, &x);
                if (n < 3 || l < 0 || m < 0 || p < 0 || w < 0 || x < 0 || l > 1000 || m > 1000 ||
                    p > 1000 || w > 5000 || x > 1000) {
                    fprintf(stderr,
                            "mlbd-replay: --costs wants 3 or 4 milliseconds, e.g. 1,10,1,150\n");
                    return 2;
                }
                options.switchCostUs = static_cast<int64_t>(w * 1000);
                options.probeExchangeCostUs = static_cast<int64_t>(x * 1000);
                options.loopCostUs = static_cast<int64_t>(l * 1000);
                options.monitorCostUs = static_cast<int64_t>(m * 1000);
                options.probePauseCostUs = static_cast<int64_t>(p * 1000);
                break;
            }
            case 'w':
                writeTrace = optarg;
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    std::vector<std::string> paths(argv + optind, argv + argc);
    if (paths.empty() == fromLog.empty() || (!logPath.empty() && paths.size() > 1)) {
        usage(stderr);
        return 2;
    }
    FILE* log = nullptr;
    if (!logPath.empty()) {
        log = fopen(logPath.c_str(), "w");
        if (log == nullptr) {
            fprintf(stderr, "mlbd-replay: cannot write %s\n", logPath.c_str());
            return 2;
        }
        options.log = log;
    }
    int rc = 0;
    auto replay = [&](const Trace& trace, const std::string& name) {
        Summary summary;
        std::string why;
        if (!runReplay(trace, options, &summary, &why)) {
            fprintf(stderr, "mlbd-replay: %s: %s\n", name.c_str(), why.c_str());
            rc = 1;
            return;
        }
        summary.trace = name;
        printf("%s\n", summaryJson(summary).c_str());
        fflush(stdout);
    };
    if (!fromLog.empty()) {
        std::string text, why;
        if (!traceFromLog(fromLog, &text, &why)) {
            fprintf(stderr, "mlbd-replay: %s: %s\n", fromLog.c_str(), why.c_str());
            return 1;
        }
        if (!writeTrace.empty()) std::ofstream(writeTrace) << text;
        Trace trace;
        if (!parseTrace(text, &trace, &why)) {
            fprintf(stderr, "mlbd-replay: rebuilt trace: %s\n", why.c_str());
            return 1;
        }
        replay(trace, fromLog);
    }
    for (const std::string& path : paths) {
        Trace trace;
        std::string why;
        if (!loadTrace(path, &trace, &why)) {
            fprintf(stderr, "mlbd-replay: %s: %s\n", path.c_str(), why.c_str());
            rc = 1;
            continue;
        }
        replay(trace, path);
    }
    if (log != nullptr) fclose(log);
    return rc;
}
