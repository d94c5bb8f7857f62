/*
 * Dual-stack steering measured in a real kernel (root; private network namespaces only):
 *
 *   1. split shares, IPv4 and IPv6: the ratio rules programmed for several Wi-Fi shares, a
 *      whitelisted UID's new connections counted per link by their tracking entries, the
 *      measured share beside the programmed one and the binomial standard error;
 *   2. switch latency, IPv4 and IPv6 targets on the same emulated links: the probes and the
 *      choice at the default pace, from the moment Wi-Fi's delay is raised above the exit
 *      threshold to the main-loop tick that switches to cellular.
 *
 *   build/bench/DualStackBench [connections] [trials]     (default 2000 and 5)
 */
#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "SwitchTrial.h"
#include "iptables/IptablesManager.h"
#include "platform/Platform.h"
#include "sls/SmartLinkSelection.h"
#include "support/CommandRecorder.h"
#include "support/ParametersTestPeer.h"
#include "util/Daemon.h"
#include "util/EmulatedLinks.h"

using namespace std::chrono;
using mlbd::test::EmulatedLinks;
using mlbd::test::Netns;

namespace {

constexpr uid_t kListed = 10001;

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// Tracked flows to `server` (as the tracking table prints it) by the mark they carry.
std::map<std::string, int> marksTo(const std::string& server) {
    std::map<std::string, int> out;
    FILE* p = popen(("grep -o 'dst=" + server +
                     " .* mark=[0-9]*' /proc/net/nf_conntrack | "
                     "grep -o 'mark=[0-9]*'")
                            .c_str(),
                    "r");
    char line[64];
    while (p && fgets(line, sizeof(line), p)) ++out[std::string(line, strcspn(line, "\n"))];
    if (p) pclose(p);
    return out;
}

// `count` connections to `addr` from a child running as kListed, held open until the child is
// killed (a packet of a closed socket no longer matches its UID, so it would leave unmarked and
// its flow be dropped by NAT, tracking entry and all); the child's pid once all are made.
template <typename Addr>
pid_t connectAs(const Addr& addr, int count) {
    int ready[2];
    if (pipe(ready) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kListed) != 0 || setuid(kListed) != 0) _exit(1);
        for (int i = 0; i < count; ++i) {
            const int fd = socket(reinterpret_cast<const sockaddr*>(&addr)->sa_family,
                                  SOCK_STREAM | SOCK_CLOEXEC, 0);
            connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
        }
        if (write(ready[1], "r", 1) != 1) _exit(1);
        for (;;) pause();
    }
    char byte;
    close(ready[1]);
    if (read(ready[0], &byte, 1) != 1) {
        kill(pid, SIGKILL);
        Netns::waitChild(pid);
    }
    close(ready[0]);
    return pid;
}

// Part 1, on the emulated links without delay.
void splitShares(Netns& net, const std::string& root, int connections) {
    const std::string ip = " && system/bin/ip-wrapper-1.0 ";
    Netns::run("cd " + root +
               " && ln -sf " MLBD_SOURCE_DIR "/tools/host/*-wrapper-1.0 system/bin/" + ip +
               "route add default dev wlan0 table wlan0" + ip +
               "route add default dev rmnet_data0 table rmnet_data0" + ip +
               "-6 route add default dev wlan0 table wlan0" + ip +
               "-6 route add default dev rmnet_data0 table rmnet_data0");
    Parameters* params = Parameters::instance();
    params->ipv6 = 1;
    ParametersTestPeer::uidWhitelist(params) = {std::to_string(kListed)};
    IptablesManager* mgr = IptablesManager::instance();
    mgr->setup_SLM_iptables_FWMARK_chains();
    mgr->setup_slm_whitelist();
    mgr->setup_uid_whitelist();
    printf("split shares, %d new connections per family and share (Wi-Fi share measured vs "
           "programmed, standard error of the programmed share)\n",
           connections);
    int n = 0;
    for (const float share : {0.1f, 0.3f, 0.5f, 0.8f}) {
        mlbd::test::setLinkRatios(mgr, share, 1.0f - share);
        ++n;  // a server address of its own per run: fd99::n, 10.99.0.n
        char v4[32], v6[32], full6[64];
        snprintf(v4, sizeof(v4), "10.99.0.%d", n);
        snprintf(v6, sizeof(v6), "fd99::%d", n);
        snprintf(full6, sizeof(full6), "fd99:0000:0000:0000:0000:0000:0000:%04x", n);
        sockaddr_in a4 = {AF_INET, htons(80), {}, {}};
        sockaddr_in6 a6 = {AF_INET6, htons(80), 0, {}, 0};
        inet_pton(AF_INET, v4, &a4.sin_addr);
        inet_pton(AF_INET6, v6, &a6.sin6_addr);
        // Listeners on port 80 of every address, never accepted from, one pair per run so that
        // their queues never fill.
        const int l4 = net.socketInPeer(AF_INET, SOCK_STREAM);
        const int l6 = net.socketInPeer(AF_INET6, SOCK_STREAM);
        const int one = 1;
        setsockopt(l6, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
        sockaddr_in any4 = {AF_INET, htons(80), {}, {}};
        sockaddr_in6 any6 = {AF_INET6, htons(80), 0, {}, 0};
        if (bind(l4, reinterpret_cast<sockaddr*>(&any4), sizeof(any4)) != 0 ||
            bind(l6, reinterpret_cast<sockaddr*>(&any6), sizeof(any6)) != 0 ||
            listen(l4, 4096) != 0 || listen(l6, 4096) != 0) {
            perror("DualStackBench: listeners");
            exit(1);
        }
        const pid_t clients[] = {connectAs(a4, connections), connectAs(a6, connections)};
        for (const auto& family : {std::make_pair("IPv4", std::string(v4)),
                                   std::make_pair("IPv6", std::string(full6))}) {
            auto marks = marksTo(family.second);
            const int wlan = marks["mark=90"], cell = marks["mark=92"];
            const double se = std::sqrt(share * (1 - share) / std::max(1, wlan + cell));
            printf("  %s programmed %.2f: measured %.3f (%d wlan0, %d rmnet_data0, %d other), "
                   "off by %.1f standard errors\n",
                   family.first, share, static_cast<double>(wlan) / std::max(1, wlan + cell), wlan,
                   cell, connections - wlan - cell,
                   std::fabs(static_cast<double>(wlan) / std::max(1, wlan + cell) - share) / se);
        }
        for (pid_t client : clients) kill(client, SIGKILL), Netns::waitChild(client);
        close(l4);
        close(l6);
    }
    IptablesManager::clean_SLM_iptables();
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    mlbd::initLogging();
    const int connections = argc > 1 ? atoi(argv[1]) : 2000;
    const int trials = argc > 2 ? atoi(argv[2]) : 5;
    std::string why;
    if (!Netns::enterPrivate(&why)) {
        fprintf(stderr, "DualStackBench: %s\n", why.c_str());
        return 1;
    }
    const std::string root = mlbd::test::makeRoot("");
    setenv("MLBD_ROOT", root.c_str(), 1);
    Netns net;
    EmulatedLinks links;
    if (root.empty() || !net.startPeer() || !links.start(net, 0, 0, &why) ||
        net.runInPeer("ip route add local 10.99.0.0/24 dev lo && ip -6 route add local fd99::/64 "
                      "dev lo") != 0) {
        fprintf(stderr, "DualStackBench: %s\n", why.c_str());
        return 1;
    }
    Netns::run("sysctl -qw net.ipv4.tcp_syn_retries=1 net.ipv6.conf.all.accept_dad=0");
    // The split tears its rules down at the end, and a rule manager is torn down for the life of
    // its process: the split runs in a child, so that the selection below still has one.
    const pid_t split = fork();
    if (split == 0) {
        splitShares(net, root, connections);
        fflush(stdout);
        _exit(0);
    }
    Netns::waitChild(split);

    // Part 2: the emulated links' responder serves both targets; the selection at the default pace.
    mlbd::ScopedCommandRecorder rules;  // the switch's rule commands are recorded, not run
    Parameters* params = Parameters::instance();
    params->ipv6 = 1;  // an IPv6 game server is probed over IPv6
    params->setGamingUids("4000000000");
    params->populateGamingUids();
    params->setServiceHighRtt(true);
    links.setDelay("rmnet_data0", 50);
    std::mt19937 random(42);
    printf("switch latency, Wi-Fi 20 ms raised to 300 ms, cellular 50 ms, %d trials per family\n",
           trials);
    for (const char* target : {"1.1.1.1", "fd99::1"}) {
        params->setRttTarget(target, 443);
        std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
        sls->createRttThreads();
        std::vector<double> latencies;
        for (int t = 0; t < trials; ++t) {
            const double latency = mlbd::bench::switchLatencyTrial(links, 300, random);
            if (latency < 0) break;
            latencies.push_back(latency);
        }
        printf("  target %-8s (%s): median %.2f s, min %.2f s, max %.2f s over %zu trials\n",
               target, strchr(target, ':') ? "IPv6" : "IPv4", median(latencies),
               latencies.empty() ? 0 : *std::min_element(latencies.begin(), latencies.end()),
               latencies.empty() ? 0 : *std::max_element(latencies.begin(), latencies.end()),
               latencies.size());
        SmartLinkSelection::cleanup();
        std::this_thread::sleep_for(seconds(2));  // the old probe threads finish
    }
    links.stop();
    Netns::run("rm -rf " + root);
    return 0;
}
