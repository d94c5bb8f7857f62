/*
 * mlbdctl status: what the daemon has programmed into the kernel, read back from the kernel.
 *
 * The daemon is not asked anything: the mangle and nat tables are listed with the same iptables
 * front-end the daemon uses, the policy-routing rules with its ip front-end, and the tracked
 * connections are counted in nf_conntrack. From these it reports, per managed link, the packet
 * mark, the routing table, the split (probability and effective share of new web connections),
 * whether the link is the one selected for games, the UID lists, the tracked connections
 * carrying the link's mark, and a health verdict on the rules (missing or duplicated). With the
 * configuration's "ipv6" key set it also reads the IPv6 side (ip6tables, "ip -6 rule") and the
 * masquerade of each link's v4- companion, and the verdict names a family that is missing or
 * programmed differently from the other (half-programmed).
 */
#pragma once

#include <map>
#include <string>
#include <vector>

namespace mlbd {

// Everything status reads from the kernel, as raw text.
struct KernelListings {
    std::string mangle;   // "iptables -t mangle -S"
    std::string nat;      // "iptables -t nat -S"
    std::string ipRules;  // "ip -4 rule show"
    bool conntrackReadable = false;
    std::string conntrack;  // the nf_conntrack table
    // Numeric routing table -> interface name, where the ip front-end maps names to numbers.
    std::map<std::string, std::string> tableNames;
    // The IPv6 side: wanted ("ipv6" set in the configuration file), and its listings when they
    // could be read ("ip6tables -t mangle -S", "-t nat -S", "ip -6 rule show"), else why not.
    bool ipv6Expected = false;
    bool ipv6Read = false;
    std::string ipv6ReadError;
    std::string mangle6, nat6, ipRules6;
};

struct StatusReport {
    std::string text;      // the table form, or one JSON object
    bool present = false;  // any of the daemon's chains exists
    bool healthy = false;  // present, and no rule missing, duplicated or stray
};

// Builds the report from listings; runs nothing.
StatusReport describeStatus(const KernelListings& listings, bool json);

// Exit codes of "mlbdctl status".
constexpr int kStatusHealthy = 0;
constexpr int kStatusReadFailed = 1;  // a front-end could not be run, failed or timed out
constexpr int kStatusBadUsage = 2;
constexpr int kStatusUnhealthy = 3;  // steering absent, or rules missing or duplicated

// "mlbdctl status [--json]": `args` are the words after "status". Prints the report on stdout,
// or one line on stderr when the kernel could not be read; returns one of the codes above.
int statusMain(const std::vector<std::string>& args);

}  // namespace mlbd
