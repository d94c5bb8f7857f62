/*
 * Owner of every packet-filter chain and policy-routing rule of the daemon.
 *
 * The object carries no state: its constructor builds the fixed chain skeleton (mangle chains
 * vexa_SLM_wapper, vexa_SLM, vexa_SLS, vexa_SLA, nat chain vexa_nat_POSTROUTING_SLM, and the
 * hooks from OUTPUT and POSTROUTING) and its destructor removes every chain the daemon created.
 * The members add per-interface mark chains and ip rules, the ratio cascade, the UID whitelists
 * and the smart-link-selection chains. Every command goes through execnetd(); members return 0
 * when every command could be started and non-zero otherwise, after still attempting them all.
 *
 * With the "ipv6" key set, every operation runs the same commands for IPv6 once its IPv4 commands
 * are done: the same arguments through /system/bin/ip6tables-wrapper-1.0, "ip -6 rule" instead
 * of "ip -4 rule"; and each interface's masquerade also covers its 464XLAT companion v4-<iface>.
 * The IPv6 side is skipped (logged) when its front-end cannot be run, and its failures are
 * logged without changing any result: the IPv4 side never depends on it.
 *
 * UID texts are refused (logged at ERROR and skipped, without counting as a failure) unless they
 * are 1 to 10 decimal digits without a leading zero (or "0" itself) of at most 4294967294; see
 * isValidUidText().
 */
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "parameters/Parameters.h"
#include "parameters/Relaxed.h"
#include "stats/LinkStats.h"

class IptablesManager {
  public:
    // The process-wide instance, built (skeleton commands run) on the first call; null once
    // clean_SLM_iptables() has torn the rules down, so that nothing is ever programmed again.
    static IptablesManager* instance();
    // Tears the rules down and frees the instance; does nothing when there is none.
    static void clean_SLM_iptables();
    // Held by a control command for its whole run and by clean_SLM_iptables(): a command never
    // overlaps the teardown, and the instance it got stays valid while it runs. Recursive, as
    // the command's own calls take it again through instance().
    static std::recursive_mutex& lifecycleMutex();

    IptablesManager();
    ~IptablesManager();
    IptablesManager(const IptablesManager&) = delete;
    IptablesManager& operator=(const IptablesManager&) = delete;

    // Per-interface mark chains, ip rules and NAT rules.
    int create_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface);
    int remove_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface);
    int setup_SLM_iptables_FWMARK_chains();
    int cleanup_SLM_iptables_FWMARK_chains();

    // Ratio cascade in vexa_SLA.
    int set_SLA_ratio_iptables(std::map<std::string, linkStatsWrapper_t*>& wrappers);
    int get_nf_conntrack_mark_number(std::string fwmark);

    // UID whitelists and smart-link-selection chains.
    int setup_uid_whitelist();
    int setup_double_wlan_uid_whitelist();
    int setup_slm_whitelist();
    int setup_SLS_iptables_UID_chains();
    int create_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface);
    int remove_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface);
    int cleanup_SLS_iptables_UID_chains();
    int set_SLS_interface(const char* ifaceName);

    // True when `uid` may enter a command line: 1 to 10 decimal digits, no leading zero unless
    // it is "0" (iptables would read a leading zero as octal), and a user id (4294967294 at most).
    static bool isValidUidText(const std::string& uid);

  private:
    // Runs `operation` on every interface of the map, in name order, going on after failures;
    // logs `failedFormat` (caller, name) per failure and `allFailedFormat` (caller) at the end.
    int forEachInterface(int (IptablesManager::*operation)(InterfaceInfo_t*), const char* caller,
                         const char* failedFormat, const char* allFailedFormat);
    int whitelistForFlaggedInterfaces(bool metered, const std::vector<std::string>& uids);
    // Whether the IPv6 side is wanted ("ipv6" set) and its front-end can be run; logs why not.
    static bool ipv6FrontEndUsable(const char* when);

    // IPv6 side on: set at construction, reviewed at teardown.
    mlbd::Relaxed<bool> ipv6_{false};

    static IptablesManager* sInstance;
    static bool sTornDown;
};
