/*
 * sls-probe: the daemon's smart link selection on its own, for a host or a bench.
 *
 * Runs the same probe threads and the same choice as the daemon, on the links named by
 * $MLBD_ROOT/properties/vendor.sla.ifaces and with the configuration in $MLBD_ROOT, as if a game
 * had asked for selection: every period (mini_est_interval) it prints each link's speed and
 * runs one choice. It changes no rule: the commands a switch would run are printed instead.
 *
 *   sls-probe [--seconds N]     (default: until interrupted)
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"
#include "support/CommandRecorder.h"

namespace {
volatile sig_atomic_t gStop = 0;
void onSignal(int) {
    gStop = 1;
}
}  // namespace

int main(int argc, char** argv) {
    long seconds = -1;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = strtol(argv[++i], nullptr, 10);
        } else {
            fprintf(stderr,
                    "usage: sls-probe [--seconds N]\n"
                    "Probes the links of $MLBD_ROOT/properties/vendor.sla.ifaces as the daemon\n"
                    "does for a game and prints their speeds and the choice every period; the\n"
                    "rule commands of a switch are printed, not run.\n");
            return 2;
        }
    }
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    mlbd::initLogging();
    mlbd::ScopedCommandRecorder rules;
    Parameters* params = Parameters::instance();
    params->setServiceHighRtt(true);
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
    sls->createRttThreads();
    const uint32_t periodMs = params->get(OPER_MINI_EST_INTERVAL);
    std::string chosen;
    for (long ms = 0; !gStop && (seconds < 0 || ms < seconds * 1000); ms += periodMs) {
        usleep(periodMs * 1000u);
        SmartLinkSelection::slsChooseInterface();
        printf("sls-probe:");
        for (const auto& entry : sls->records()) {
            printf(" %s=%dms", entry.first.c_str(), entry.second->speed.load());
        }
        const std::string now = sls->current ? sls->current->name : "-";
        printf(" chosen=%s%s\n", now.c_str(), now != chosen ? " (switch)" : "");
        // Only the switch itself: the rule skeleton that the first switch builds is the daemon's.
        for (const std::string& line : rules.lines()) {
            if (line.find("vexa_SLS") != std::string::npos) {
                printf("sls-probe: would run %s\n", line.c_str());
            }
        }
        rules.clear();
        fflush(stdout);
        chosen = now;
    }
    SmartLinkSelection::cleanup();
    return 0;
}
