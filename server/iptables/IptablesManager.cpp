/*
 * Packet-filter chains and policy-routing rules of the daemon.
 *
 * Every rule is programmed by running the platform's iptables and ip front-ends through
 * execnetd(). A command that runs but fails (a chain that already exists, a rule that is not
 * there to delete) counts as success: only a command that could not be started is a failure, so
 * creating, flushing and deleting are issued freely and every sequence below is idempotent
 * enough to survive a restart without a clean stop.
 */
#include "IptablesManager.h"

#include <android/log.h>
#include <errno.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "execnetd.h"
#include "platform/Platform.h"

#define LOG_TAG "Mlbd-iptablesManager"

namespace {

constexpr size_t kCommandSize = 512;
constexpr size_t kChainSize = 128;

using CommandBuf = char[kCommandSize];
using ChainBuf = char[kChainSize];

// Formats into `buf`; a text that does not fit ends the process instead of running a cut
// command (a cut command could steer traffic somewhere unintended).
__attribute__((format(printf, 3, 4))) void formatChecked(char* buf, size_t size, const char* fmt,
                                                         ...) {
    memset(buf, 0, size);
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        __android_log_print(ANDROID_LOG_FATAL, LOG_TAG,
                            "formatChecked: text of %d characters does not fit in %zu bytes: "
                            "%.100s... aborting",
                            n, size, buf);
        abort();
    }
}

// Appends `text` to the NUL-terminated name in `buf`, silently cut at 127 characters.
void appendChainName(ChainBuf& buf, const char* text) {
    size_t used = strnlen(buf, kChainSize - 1);
    size_t room = kChainSize - 1 - used;
    size_t add = strnlen(text, room);
    memcpy(buf + used, text, add);
    buf[used + add] = '\0';
}

// Chain name = prefix + name, silently cut at 127 characters.
void buildChainName(ChainBuf& buf, const char* prefix, const char* name) {
    memset(buf, 0, kChainSize);
    appendChainName(buf, prefix);
    appendChainName(buf, name);
}

// The front-ends, by absolute path.
std::string iptablesTool() {
    return mlbd::devicePath("/system/bin/iptables-wrapper-1.0");
}

std::string ip6tablesTool() {
    return mlbd::devicePath("/system/bin/ip6tables-wrapper-1.0");
}

std::string ipTool() {
    return mlbd::devicePath("/system/bin/ip-wrapper-1.0");
}

// One command of an operation, as the IPv6 side repeats it: the arguments of the packet-filter
// front-end, or of the ip front-end.
struct MirroredCommand {
    bool ip;
    std::string args;
};

// While an operation runs with IPv6 steering on, the IPv4 commands it issues on this thread are
// also collected here, to be repeated for IPv6 once the IPv4 side is done (see DualStack).
thread_local std::vector<MirroredCommand>* tMirror = nullptr;

// Runs `tool` with the formatted arguments; the whole line is checked against the 511-character
// limit (an argument text that alone overflows ends the process just the same).
int runTool(const std::string& tool, bool ip, const char* fmt, va_list ap) {
    char args[kCommandSize];
    memset(args, 0, sizeof(args));
    int n = vsnprintf(args, sizeof(args), fmt, ap);
    CommandBuf command;
    if (n < 0 || static_cast<size_t>(n) >= sizeof(args)) {
        formatChecked(command, kCommandSize, "%s %s...", tool.c_str(), args);
    }
    formatChecked(command, kCommandSize, "%s %s", tool.c_str(), args);
    if (tMirror != nullptr) tMirror->push_back({ip, args});
    return execnetd(command);
}

// The packet-filter front-end; returns execnetd's result.
__attribute__((format(printf, 1, 2))) int ipt(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int rc = runTool(iptablesTool(), false, fmt, ap);
    va_end(ap);
    return rc;
}

// The routing front-end; returns execnetd's result.
__attribute__((format(printf, 1, 2))) int ipr(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int rc = runTool(ipTool(), true, fmt, ap);
    va_end(ap);
    return rc;
}

// The IPv6 form of a collected command: the same arguments through the IPv6 packet-filter
// front-end, or "-6" instead of "-4" for the ip front-end. Counted as execnetd counts.
int runIpv6(const MirroredCommand& command) {
    CommandBuf line;
    if (!command.ip) {
        formatChecked(line, kCommandSize, "%s %s", ip6tablesTool().c_str(), command.args.c_str());
    } else {
        const bool v4 = command.args.compare(0, 3, "-4 ") == 0;
        formatChecked(line, kCommandSize, "%s %s%s", ipTool().c_str(), v4 ? "-6 " : "",
                      command.args.c_str() + (v4 ? 3 : 0));
    }
    return execnetd(line);
}

// Scope of one operation: collects its IPv4 commands when `enabled` and no outer operation of
// this thread collects already, and on finish() runs their IPv6 forms after the IPv4 side. An
// IPv6 failure is logged under the operation's name and never changes the IPv4 result.
class DualStack {
  public:
    DualStack(bool enabled, const char* operation) : operation_(operation) {
        if (enabled && tMirror == nullptr) tMirror = &commands_;
        owner_ = tMirror == &commands_;
    }
    ~DualStack() { finish(); }
    DualStack(const DualStack&) = delete;
    DualStack& operator=(const DualStack&) = delete;

    // Leaves IPv4-only commands (the 464XLAT companion's masquerade) out of the IPv6 side.
    struct Ipv4Only {
        Ipv4Only() : saved(tMirror) { tMirror = nullptr; }
        ~Ipv4Only() { tMirror = saved; }
        std::vector<MirroredCommand>* saved;
    };

    void finish() {
        if (!owner_) return;
        owner_ = false;
        tMirror = nullptr;
        int failed = 0;
        for (const MirroredCommand& command : commands_) failed += runIpv6(command) != 0;
        if (failed != 0) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                "%s IPv6 side: %d of %zu commands could not be started", operation_,
                                failed, commands_.size());
        }
    }

  private:
    const char* operation_;
    bool owner_ = false;
    std::vector<MirroredCommand> commands_;
};

// Logs and refuses a UID text that must not enter a command line.
bool acceptUid(const char* function, const std::string& uid) {
    if (IptablesManager::isValidUidText(uid)) return true;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s refusing UID text \"%.32s\" (%zu bytes)",
                        function, uid.c_str(), uid.size());
    return false;
}

const std::map<std::string, InterfaceInfo_t*>& interfaceMap() {
    return Parameters::instance()->interfaces();
}

}  // namespace

IptablesManager* IptablesManager::sInstance = nullptr;
bool IptablesManager::sTornDown = false;

bool IptablesManager::isValidUidText(const std::string& uid) {
    if (uid.empty() || uid.size() > 10) return false;
    for (char c : uid) {
        if (c < '0' || c > '9') return false;
    }
    // Ten digits reach past the user ids: 4294967295 is the kernel's "no user", and above it
    // the number does not fit in 32 bits at all.
    return (uid.size() == 1 || uid[0] != '0') && strtoull(uid.c_str(), nullptr, 10) < 4294967295u;
}

std::recursive_mutex& IptablesManager::lifecycleMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

IptablesManager* IptablesManager::instance() {
    std::lock_guard<std::recursive_mutex> lock(lifecycleMutex());
    if (sInstance == nullptr && !sTornDown) sInstance = new IptablesManager();
    return sInstance;
}

void IptablesManager::clean_SLM_iptables() {
    std::lock_guard<std::recursive_mutex> lock(lifecycleMutex());
    if (sInstance == nullptr) return;
    delete sInstance;
    // Cleared so that a second call does nothing rather than free the object twice, and
    // marked so that no later call builds the skeleton again.
    sInstance = nullptr;
    sTornDown = true;
}

bool IptablesManager::ipv6FrontEndUsable(const char* when) {
    if (!Parameters::instance()->isIpv6Enabled()) return false;
    const std::string tool = ip6tablesTool();
    if (access(tool.c_str(), X_OK) == 0) return true;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s IPv6 steering skipped: %s cannot be run (%s); IPv4 steering goes on",
                        when, tool.c_str(), strerror(errno));
    return false;
}

IptablesManager::IptablesManager() : ipv6_(ipv6FrontEndUsable("IptablesManager")) {
    DualStack dualStack(ipv6_, "IptablesManager");
    ipt("-w -t mangle -N vexa_SLM");
    ipt("-w -t mangle -F vexa_SLM");
    ipt("-w -t mangle -N vexa_SLA");
    ipt("-w -t mangle -F vexa_SLA");
    ipt("-w -t mangle -N vexa_SLS");
    ipt("-w -t mangle -F vexa_SLS");
    ipt("-w -t mangle -N vexa_SLM_wapper");
    ipt("-w -t mangle -F vexa_SLM_wapper");
    ipt("-w -t mangle -I vexa_SLM 1 -j vexa_SLS");
    ipt("-w -t mangle -I vexa_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK "
        "--restore-mark");
    ipt("-w -t mangle -I vexa_SLM 3 -j vexa_SLA");
    ipt("-w -t mangle -D OUTPUT -j vexa_SLM_wapper");
    ipt("-w -t mangle -I OUTPUT -j vexa_SLM_wapper");
    // In nat the flush comes before the create.
    ipt("-w -t nat -F vexa_nat_POSTROUTING_SLM");
    ipt("-w -t nat -N vexa_nat_POSTROUTING_SLM");
    ipt("-w -t nat -D POSTROUTING -j vexa_nat_POSTROUTING_SLM");
    ipt("-w -t nat -I POSTROUTING -j vexa_nat_POSTROUTING_SLM");
}

IptablesManager::~IptablesManager() {
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "%s IptablesManager Distructor called ",
                        "~IptablesManager");
    // The IPv6 side goes whenever its front-end can be run now, also when it could not be
    // built at start: the deletions of what is not there are harmless.
    ipv6_ = ipv6FrontEndUsable("~IptablesManager");
    DualStack dualStack(ipv6_, "~IptablesManager");
    ipt("-w -t mangle -D OUTPUT -j vexa_SLM_wapper");
    ipt("-w -t nat -D POSTROUTING -j vexa_nat_POSTROUTING_SLM");
    ipt("-w -t nat -F vexa_nat_POSTROUTING_SLM");
    ipt("-w -t nat -X vexa_nat_POSTROUTING_SLM");
    ipt("-w -t mangle -F vexa_SLM_wapper");
    ipt("-w -t mangle -X vexa_SLM_wapper");
    ipt("-w -t mangle -F vexa_SLM");
    ipt("-w -t mangle -X vexa_SLM");
    ipt("-w -t mangle -F vexa_SLA");
    ipt("-w -t mangle -X vexa_SLA");
    ipt("-w -t mangle -F vexa_SLS");
    ipt("-w -t mangle -X vexa_SLS");
    // The per-interface chains go last: by now nothing refers to them any more.
    cleanup_SLS_iptables_UID_chains();
    cleanup_SLM_iptables_FWMARK_chains();
}

// ---- Per-interface mark chains and routing rules ----

int IptablesManager::create_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface) {
    if (iface == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "%s, Creating FWMARK Chain for a NULL iface",
                            "create_SLM_FWMARK_chain_for_iface");
        return -1;
    }
    ChainBuf chain;
    buildChainName(chain, "vexa_fw_", iface->name);
    ChainBuf wrapper;
    formatChecked(wrapper, kChainSize, "%s_wrapper", chain);

    DualStack dualStack(ipv6_, "create_SLM_FWMARK_chain_for_iface");
    int result = 0;
    ipt("-w -t mangle -N %s", chain);
    result += ipt("-w -t mangle -F %s", chain);
    if (iface->metered || iface->dblWlan) {
        ipt("-w -t mangle -N %s", wrapper);
        result += ipt("-w -t mangle -F %s", wrapper);
    }
    result += ipt("-w -t mangle -A %s -j MARK --set-mark %s", chain, iface->fwmark);
    result += ipt("-w -t mangle -A %s -j CONNMARK --save-mark", chain);
    result += ipt("-w -t mangle -A %s -j ACCEPT", chain);
    result += ipr("-4 rule add fwmark %s table %s prio 30000", iface->fwmark, iface->routeTable);
    result += ipt("-w -t nat -I vexa_nat_POSTROUTING_SLM -o %s -j MASQUERADE", iface->name);
    if (ipv6_) {
        // On an IPv6-only network the platform's 464XLAT interface v4-<iface> (a name of at
        // most 15 characters, as the kernel keeps it) carries the link's IPv4 traffic: a
        // connection rerouted there from another link's address must be rewritten too.
        DualStack::Ipv4Only ipv4Only;
        const std::string companion = ("v4-" + std::string(iface->name)).substr(0, IFNAMSIZ - 1);
        result +=
                ipt("-w -t nat -I vexa_nat_POSTROUTING_SLM -o %s -j MASQUERADE", companion.c_str());
    }
    dualStack.finish();
    if (result == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s Failue when creating FWMARK tables for interface %s ",
                        "create_SLM_FWMARK_chain_for_iface", iface->name);
    return -1;
}

int IptablesManager::remove_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface) {
    if (iface == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s, Remove FWMARK Chain for a NULL iface",
                            "remove_SLM_FWMARK_chain_for_iface");
        return -1;
    }
    ChainBuf chain;
    buildChainName(chain, "vexa_fw_", iface->name);
    ChainBuf wrapper;
    formatChecked(wrapper, kChainSize, "%s_wrapper", chain);

    DualStack dualStack(ipv6_, "remove_SLM_FWMARK_chain_for_iface");
    int result = 0;
    if (iface->metered || iface->dblWlan) {
        ipt("-w -t mangle -F %s", wrapper);
        result += ipt("-w -t mangle -X %s", wrapper);
    }
    result += ipt("-w -t mangle -F %s", chain);
    result += ipt("-w -t mangle -X %s", chain);
    result += ipr("-4 rule del fwmark %s prio 30000", iface->fwmark);
    // Flushes the MASQUERADE rules of every interface, not just this one; removal only happens
    // for all interfaces together at shut-down.
    result += ipt("-w -t nat -F vexa_nat_POSTROUTING_SLM");
    result += ipt("-w -t nat -X vexa_nat_POSTROUTING_SLM");
    dualStack.finish();
    if (result == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s Failure when creating FWMARK tables for interface %s ",
                        "remove_SLM_FWMARK_chain_for_iface", iface->name);
    return -1;
}

int IptablesManager::forEachInterface(int (IptablesManager::*operation)(InterfaceInfo_t*),
                                      const char* caller, const char* failedFormat,
                                      const char* allFailedFormat) {
    DualStack dualStack(ipv6_, caller);
    bool failed = false;
    for (auto& entry : interfaceMap()) {
        InterfaceInfo_t* iface = entry.second;
        if ((this->*operation)(iface) == 0) continue;
        if (iface != nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, failedFormat, caller, iface->name);
        }
        failed = true;
    }
    dualStack.finish();
    if (!failed) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, allFailedFormat, caller);
    return -1;
}

int IptablesManager::setup_SLM_iptables_FWMARK_chains() {
    return forEachInterface(&IptablesManager::create_SLM_FWMARK_chain_for_iface,
                            "setup_SLM_iptables_FWMARK_chains",
                            "%s Creating FWMARK for interface %s failed",
                            "%s Failure when creating FWMARK tables for all interfaces ");
}

int IptablesManager::cleanup_SLM_iptables_FWMARK_chains() {
    return forEachInterface(&IptablesManager::remove_SLM_FWMARK_chain_for_iface,
                            "cleanup_SLM_iptables_FWMARK_chains",
                            "%s Cleanup FWMARK for interface %s failed",
                            "%s Failure when cleaning FWMARK tables for all interfaces ");
}

// ---- Ratio rules ----

namespace {

#define SLA_RATIO_RULE                                                                         \
    "-w -t mangle -A vexa_SLA --match multiport -p tcp --dports 80,443,8080 -m state --state " \
    "NEW -m statistic --mode random --probability %f -j %s"

// Appends one ratio rule for `ws` and returns its result; `cumulative` carries the ratios of the
// rules before it. `meteredPass` selects the cellular form (always through the _wrapper chain).
int appendRatioRule(IptablesManager* self, linkStatsWrapper_t* ws, InterfaceInfo_t* iface,
                    bool meteredPass, float* cumulative) {
    char name[sizeof(ws->interfaceName) + 1] = {};
    memcpy(name, ws->interfaceName, sizeof(ws->interfaceName));

    ChainBuf chain;
    buildChainName(chain, "vexa_fw_", name);
    if (meteredPass) appendChainName(chain, "_wrapper");
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG,
                        "handle->interfaceRatio: %f handle->interfaceName: %s",
                        static_cast<double>(ws->interfaceRatio), name);

    const double remaining = 1.0 - static_cast<double>(*cumulative);
    float probability = 0.0f;
    if (remaining > 0.0) {
        probability = static_cast<float>(static_cast<double>(ws->interfaceRatio) / remaining);
    }
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "Updated Ratio: %f",
                        static_cast<double>(probability));

    int result;
    if (!meteredPass && iface->dblWlan) {
        result = ipt(SLA_RATIO_RULE "_wrapper", static_cast<double>(probability), chain);
    } else {
        result = ipt(SLA_RATIO_RULE, static_cast<double>(probability), chain);
    }
    int connections = self->get_nf_conntrack_mark_number(iface->fwmark);
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG,
                        "nf_conntrack interface %s fwmark %s socket number %d\n", name,
                        iface->fwmark, connections);
    *cumulative += ws->interfaceRatio;
    return result;
}

// The interface record of a ratio entry, or null (logged) when the map does not know it.
InterfaceInfo_t* recordFor(linkStatsWrapper_t* ws) {
    std::string name(ws->interfaceName, strnlen(ws->interfaceName, sizeof(ws->interfaceName)));
    auto& interfaces = interfaceMap();
    auto it = interfaces.find(name);
    if (it != interfaces.end() && it->second != nullptr) return it->second;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s no interface record for %s, skipped",
                        "set_SLA_ratio_iptables", name.c_str());
    return nullptr;
}

}  // namespace

int IptablesManager::set_SLA_ratio_iptables(std::map<std::string, linkStatsWrapper_t*>& wrappers) {
    DualStack dualStack(ipv6_, "set_SLA_ratio_iptables");
    int result = ipt("-w -t mangle -F vexa_SLA");
    if (!wrappers.empty()) {
        float cumulative = 0.0f;
        // Wi-Fi first, then cellular, so that cellular takes what the Wi-Fi draws leave.
        for (int pass = 0; pass < 2; ++pass) {
            const bool meteredPass = pass == 1;
            for (auto& entry : wrappers) {
                linkStatsWrapper_t* ws = entry.second;
                if (ws == nullptr) continue;
                InterfaceInfo_t* iface = recordFor(ws);
                if (iface == nullptr || iface->metered != meteredPass) continue;
                result += appendRatioRule(this, ws, iface, meteredPass, &cumulative);
            }
        }
    }
    dualStack.finish();
    if (result == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s Failure when setting SLA Ratios ",
                        "set_SLA_ratio_iptables");
    return -1;
}

int IptablesManager::get_nf_conntrack_mark_number(std::string fwmark) {
    const char* number = "0";
    if (fwmark == "0x5A") {
        number = "90";
    } else if (fwmark == "0x5B") {
        number = "91";
    } else if (fwmark == "0x5C") {
        number = "92";
    }
    const std::string pattern = std::string("mark=") + number;

    FILE* file = fopen(mlbd::devicePath("/proc/net/nf_conntrack").c_str(), "re");
    if (file == nullptr) return 0;
    int count = 0;
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, file) != -1) {
        if (strstr(line, pattern.c_str()) != nullptr) ++count;
    }
    free(line);
    fclose(file);
    return count;
}

// ---- Whitelist and selection chains ----

int IptablesManager::whitelistForFlaggedInterfaces(bool metered,
                                                   const std::vector<std::string>& uids) {
    DualStack dualStack(ipv6_, metered ? "setup_uid_whitelist" : "setup_double_wlan_uid_whitelist");
    int result = 0;
    for (auto& entry : interfaceMap()) {
        InterfaceInfo_t* iface = entry.second;
        if (iface == nullptr || !(metered ? iface->metered : iface->dblWlan)) continue;
        ChainBuf wrapper;
        formatChecked(wrapper, kChainSize, "vexa_fw_%s_wrapper", iface->name);
        result += ipt("-w -t mangle -F %s ", wrapper);
        for (const std::string& uid : uids) {
            if (!acceptUid(metered ? "setup_uid_whitelist" : "setup_double_wlan_uid_whitelist",
                           uid)) {
                continue;
            }
            result += ipt("-w -t mangle -A %s -m owner --uid-owner %s -j vexa_fw_%s", wrapper,
                          uid.c_str(), iface->name);
        }
    }
    return result;
}

int IptablesManager::setup_uid_whitelist() {
    return whitelistForFlaggedInterfaces(true, Parameters::instance()->getUidWhitelist());
}

int IptablesManager::setup_double_wlan_uid_whitelist() {
    return whitelistForFlaggedInterfaces(false, Parameters::instance()->getDblWlanUidWhitelist());
}

int IptablesManager::setup_slm_whitelist() {
    Parameters* parameters = Parameters::instance();
    DualStack dualStack(ipv6_, "setup_slm_whitelist");
    int result = ipt("-w -t mangle -F vexa_SLM_wapper");
    for (const std::vector<std::string>& list :
         {parameters->getDblWlanUidWhitelist(), parameters->getUidWhitelist(),
          parameters->getGamingUidList()}) {
        for (const std::string& uid : list) {
            if (!acceptUid("setup_slm_whitelist", uid)) continue;
            result += ipt("-w -t mangle -A vexa_SLM_wapper -m owner --uid-owner %s -j vexa_SLM",
                          uid.c_str());
        }
    }
    return result;
}

int IptablesManager::create_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface) {
    if (iface == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s, Creating UID Chain for a NULL iface",
                            "create_SLS_iptables_UID_for_interface");
        return -1;
    }
    ChainBuf fw, sls, uidChain;
    buildChainName(fw, "vexa_fw_", iface->name);
    buildChainName(sls, "vexa_sls_", iface->name);
    buildChainName(uidChain, "vexa_sls_uid_", iface->name);

    DualStack dualStack(ipv6_, "create_SLS_iptables_UID_for_interface");
    int result = 0;
    ipt("-w -t mangle -N %s", sls);
    result += ipt("-w -t mangle -F %s", sls);
    // All UDP but DNS, and all TCP: name resolution keeps following the default network.
    result += ipt("-w -t mangle -A %s -p udp ! --dport 53 -j %s", sls, fw);
    result += ipt("-w -t mangle -A %s -p tcp -j %s", sls, fw);
    result += ipt("-w -t mangle -A %s -j ACCEPT", sls);
    ipt("-w -t mangle -N %s", uidChain);
    result += ipt("-w -t mangle -F %s", uidChain);
    for (const std::string& uid : Parameters::instance()->getGamingUidList()) {
        if (!acceptUid("create_SLS_iptables_UID_for_interface", uid)) continue;
        result +=
                ipt("-w -t mangle -A %s -m owner --uid-owner %s -j %s", uidChain, uid.c_str(), sls);
    }
    dualStack.finish();
    if (result == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s Failue when creating UID tables for interface %s ",
                        "create_SLS_iptables_UID_for_interface", iface->name);
    return -1;
}

int IptablesManager::remove_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface) {
    if (iface == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s, Creating UID Chain for a NULL iface",
                            "remove_SLS_iptables_UID_for_interface");
        return -1;
    }
    ChainBuf sls, uidChain;
    buildChainName(sls, "vexa_sls_", iface->name);
    buildChainName(uidChain, "vexa_sls_uid_", iface->name);

    DualStack dualStack(ipv6_, "remove_SLS_iptables_UID_for_interface");
    int result = 0;
    result += ipt("-w -t mangle -F vexa_SLS");
    result += ipt("-w -t mangle -F %s", sls);
    result += ipt("-w -t mangle -F %s", uidChain);
    result += ipt("-w -t mangle -X %s", sls);
    result += ipt("-w -t mangle -X %s", uidChain);
    for (const std::string& uid : Parameters::instance()->getGamingUidList()) {
        if (!acceptUid("remove_SLS_iptables_UID_for_interface", uid)) continue;
        result += ipt("-w -t mangle -D vexa_SLM_wapper -m owner --uid-owner %s -j vexa_SLM",
                      uid.c_str());
    }
    dualStack.finish();
    if (result == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s Failue when creating UID tables for interface %s ",
                        "remove_SLS_iptables_UID_for_interface", iface->name);
    return -1;
}

int IptablesManager::setup_SLS_iptables_UID_chains() {
    return forEachInterface(&IptablesManager::create_SLS_iptables_UID_for_interface,
                            "setup_SLS_iptables_UID_chains",
                            "%s Creating UID chain for interface %s failed",
                            "%s Failure when creating SLS UID tables for all interfaces ");
}

int IptablesManager::cleanup_SLS_iptables_UID_chains() {
    return forEachInterface(&IptablesManager::remove_SLS_iptables_UID_for_interface,
                            "cleanup_SLS_iptables_UID_chains",
                            "%s Remove UID chain for interface %s failed",
                            "%s Failure when removing SLS UID tables for all interfaces ");
}

int IptablesManager::set_SLS_interface(const char* ifaceName) {
    ChainBuf uidChain;
    buildChainName(uidChain, "vexa_sls_uid_", ifaceName ? ifaceName : "");
    // Both lines carry two blanks after the tool's name.
    DualStack dualStack(ipv6_, "set_SLS_interface");
    int result = ipt(" -w -t mangle -F vexa_SLS");
    result += ipt(" -w -t mangle -A vexa_SLS -j %s", uidChain);
    dualStack.finish();
    if (result == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s Failue during SLS interface switch  %s %s ",
                        "set_SLS_interface", ifaceName ? ifaceName : "", uidChain);
    return -1;
}
