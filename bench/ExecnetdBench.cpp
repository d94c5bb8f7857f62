/*
 * Cost of running a rule command through execnetd() against a bare fork/exec/wait of the same
 * program, and of a whole ratio rebuild (flush plus one rule per interface, two interfaces)
 * through the host front-end wrappers.
 *
 * Run as root: the process moves into a private network namespace first, so the iptables
 * commands only ever see (and change) that namespace. Without root the iptables cases are
 * skipped. Times are wall-clock (the work happens in child processes).
 */
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "iptables/IptablesManager.h"
#include "iptables/execnetd.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"

namespace {

bool gPrivateNet = false;
std::string gRoot;

const char* const kIptablesList = "/usr/sbin/iptables -w -t mangle -L -n";

// fork, exec, wait: the child's output goes to /dev/null.
void bareRun(char* const argv[]) {
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execv(argv[0], argv);
        _exit(127);
    }
    int status;
    waitpid(pid, &status, 0);
}

void BM_Execnetd_True(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(execnetd("/bin/true"));
}
BENCHMARK(BM_Execnetd_True)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_BareForkExecWait_True(benchmark::State& state) {
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    for (auto _ : state) bareRun(argv);
}
BENCHMARK(BM_BareForkExecWait_True)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_Execnetd_Iptables(benchmark::State& state) {
    if (!gPrivateNet) {
        state.SkipWithError("needs root (private network namespace)");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(execnetd(kIptablesList));
}
BENCHMARK(BM_Execnetd_Iptables)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_BareForkExecWait_Iptables(benchmark::State& state) {
    if (!gPrivateNet) {
        state.SkipWithError("needs root (private network namespace)");
        return;
    }
    char* argv[] = {const_cast<char*>("/usr/sbin/iptables"),
                    const_cast<char*>("-w"),
                    const_cast<char*>("-t"),
                    const_cast<char*>("mangle"),
                    const_cast<char*>("-L"),
                    const_cast<char*>("-n"),
                    nullptr};
    for (auto _ : state) bareRun(argv);
}
BENCHMARK(BM_BareForkExecWait_Iptables)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Flush of vexa_SLA and one probability rule each for wlan0 and rmnet_data0, through the host
// wrappers, as the ratio engine does it when the split changes.
void BM_RatioRebuild_TwoInterfaces(benchmark::State& state) {
    if (!gPrivateNet) {
        state.SkipWithError("needs root (private network namespace)");
        return;
    }
    IptablesManager* mgr = IptablesManager::instance();
    mgr->setup_SLM_iptables_FWMARK_chains();
    linkStatsWrapper_t wlan, cell;
    snprintf(wlan.interfaceName, sizeof(wlan.interfaceName), "wlan0");
    snprintf(cell.interfaceName, sizeof(cell.interfaceName), "rmnet_data0");
    std::map<std::string, linkStatsWrapper_t*> wrappers = {{"wlan0", &wlan},
                                                           {"rmnet_data0", &cell}};
    int i = 0;
    for (auto _ : state) {
        wlan.interfaceRatio = (i++ % 2) ? 0.4f : 0.6f;
        cell.interfaceRatio = 1.0f - wlan.interfaceRatio;
        if (mgr->set_SLA_ratio_iptables(wrappers) != 0) state.SkipWithError("rebuild failed");
    }
}
BENCHMARK(BM_RatioRebuild_TwoInterfaces)->UseRealTime()->Unit(benchmark::kMillisecond);

// A private network namespace with the two interfaces, and an MLBD_ROOT with the host wrappers.
bool preparePrivateNetwork() {
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) return false;
    char pattern[] = "/tmp/mlbd-bench.XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    gRoot = pattern;
    setenv("MLBD_ROOT", gRoot.c_str(), 1);
    std::string script = "set -e; cd " + gRoot +
                         "; mkdir -p system/bin properties proc/net;"
                         " ln -s " MLBD_SOURCE_DIR
                         "/tools/host/iptables-wrapper-1.0 system/bin/;"
                         " ln -s " MLBD_SOURCE_DIR
                         "/tools/host/ip-wrapper-1.0 system/bin/;"
                         " ln -s /proc/net/nf_conntrack proc/net/nf_conntrack;"
                         " echo wlan0,rmnet_data0 > properties/vendor.sla.ifaces;"
                         " ip link set lo up;"
                         " ip link add wlan0 type veth peer name wlan0-net;"
                         " ip link add rmnet_data0 type veth peer name rmnet0-net";
    return system(script.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    mlbd::initLogging();
    // The PASS line of every command is a debug line; keep it out of the measurement.
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    benchmark::Initialize(&argc, argv);
    gPrivateNet = preparePrivateNetwork();
    if (!gPrivateNet) fprintf(stderr, "not root or no network namespace: iptables cases skip\n");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (gPrivateNet) IptablesManager::clean_SLM_iptables();
    if (!gRoot.empty()) system(("rm -rf " + gRoot).c_str());
    return 0;
}
