/*
 * The daemon's process-wide store of configuration and run-time switches.
 *
 * Values come from three layers applied by reset(): built-in defaults, the configuration file,
 * then system properties. Control commands change flags and user-id lists at run time, from
 * their own thread, while the main loop, the rule code, the probes and the monitors read them:
 *
 * - flags and numbers are relaxed atomics (Relaxed<T>): cheap to read, written whole;
 * - the texts and user-id lists that change at run time (the three UID lists and their texts,
 *   the gaming UIDs, the RTT server) are private, replaced under one lock and read as copies;
 * - the interface map is built once by the constructor and never changed afterwards, so any
 *   thread may walk it without a lock; the records it holds live as long as the store;
 * - the other texts (protocols, ports, interface descriptions, ...) are written only while the
 *   store is being built, before any other thread exists.
 */
#pragma once

#include <stdint.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "parameters/Relaxed.h"
#include "platform/Platform.h"

// Index of the 32-bit tuning slots. Ids 11 to 28 are spare: no key sets them and they read 0,
// except slot 14, which reset() sets to 1.
enum OperId {
    OPER_SLA_ENABLED = 0,
    OPER_WIFI_THRESHOLD = 1,
    OPER_WAN_THRESHOLD = 2,
    OPER_MINI_EST_INTERVAL = 3,
    OPER_MINI_STALE_INTERVAL = 4,
    OPER_IDEAL_EST_WINDOW = 5,
    OPER_MINI_RATE_WINDOW = 6,
    OPER_CELLULAR_SOCK_ASSIGN_RATE = 7,
    OPER_SOCK_ACTIVE_TIME = 8,
    OPER_SOCK_STALE_TIME = 9,
    OPER_UPDATE_PM_FREQ = 10,
    OPER_SPARE_11,
    OPER_SPARE_12,
    OPER_SPARE_13,
    OPER_SPARE_14,
    OPER_SPARE_15,
    OPER_SPARE_16,
    OPER_SPARE_17,
    OPER_SPARE_18,
    OPER_SPARE_19,
    OPER_SPARE_20,
    OPER_SPARE_21,
    OPER_SPARE_22,
    OPER_SPARE_23,
    OPER_SPARE_24,
    OPER_SPARE_25,
    OPER_SPARE_26,
    OPER_SPARE_27,
    OPER_SPARE_28,
    OPER_MAX_ID = OPER_SPARE_28,
};

// One managed network interface.
struct InterfaceInfo_t {
    char name[128];
    char routeTable[128];
    bool metered;
    bool dblWlan;
    bool isDefault;
    int32_t cost;
    int32_t bias;
    char fwmark[128];
};

// The configuration file read at start-up.
#define MLBD_CONF_PATH "/vendor/etc/sla/mlbd.conf"
// Default RTT server: a public DNS resolver that answers TCP on port 443.
#define DEFAULT_RTT_SERVER "1.1.1.1"

class Parameters {
  public:
    static Parameters* instance();

    // Builds a store from the defaults, the configuration file and the properties, then the
    // interface map. instance() is the normal way in; tests build their own.
    Parameters();
    ~Parameters();
    Parameters(const Parameters&) = delete;
    Parameters& operator=(const Parameters&) = delete;

    void reset();
    uint32_t get(OperId id);
    int getSLAVendorProp();

    bool isServiceHighRtt() { return serviceHighRtt; }
    bool isGamingRunning() { return gamingRunning; }
    bool isVoipRunning() { return voipRunning; }
    bool isGamingConnectStatus() { return gamingConnectStatus; }
    void setServiceHighRtt(bool value) { serviceHighRtt = value & 1; }
    void setGamingRunning(bool value) { gamingRunning = value & 1; }
    void setVoipRunning(bool value) { voipRunning = value & 1; }
    void setGamingConnectStatus(bool value) { gamingConnectStatus = value & 1; }

    // Run-time texts and lists: setters replace them under the lock, getters return copies.
    std::string getGamingUids() const;
    void setGamingUids(const char* text);
    void populateGamingUids();
    void setuidwhitelist(const char* text);
    void populateuidwhitelist();
    void setDblWlanUidWhitelist(const char* text);
    void populateDblWlanUidWhitelist();
    void setGamingRttServer(const char* text);
    std::string getGamingRttServer() const;
    // The probe target, address text and port, read or replaced together.
    void getRttTarget(std::string* server, int32_t* port) const;
    void setRttTarget(const char* server, int32_t port);
    std::string getUidWhitelistText() const;
    std::string getDblWlanUidWhitelistText() const;
    std::vector<std::string> getGamingUidList() const;
    std::vector<std::string> getUidWhitelist() const;
    std::vector<std::string> getDblWlanUidWhitelist() const;
    void updateuidwhitelist();

    // The current Wi-Fi and cellular interface names the platform reports, cut to 15
    // characters; set by the control thread, read as copies.
    void setWlanInterface(const char* name);
    void setDataInterface(const char* name);
    std::string getWlanInterface() const;
    std::string getDataInterface() const;

    // "protocols=<list>" and "ports=<list>" for the kernel module's control file, cut to fit
    // `size` bytes (the lists come from the configuration file and may be of any length).
    char* getStatsProtocols(char* buf, size_t size);
    char* getStatsPorts(char* buf, size_t size);

    // Configuration file.
    bool setValue(const char* key, const char* value);
    void readMlbdConfFile(const char* path);
    void fromVector(std::vector<std::string>& lines);
    static std::string& trim(std::string& s);

    // Interface list. The map is complete once the constructor has returned and never changes
    // afterwards; its records live as long as the store.
    const std::map<std::string, InterfaceInfo_t*>& interfaces() const { return interfaces_; }
    InterfaceInfo_t* findInterface(const std::string& name) const;
    InterfaceInfo_t* parseInterfaceParams(std::string description);
    bool validateInterfaceParams(InterfaceInfo_t* rec);
    void populatIfaceslist(std::string mode);
    void updateIfaces();

    std::vector<std::string> ifaceNames;
    uint8_t spare = 0;
    mlbd::Relaxed<uint32_t> operValues[OPER_MAX_ID + 1] = {};
    char ifacesProp[PROP_VALUE_MAX] = {};
    char modeProp[PROP_VALUE_MAX] = {};
    std::string protocols;
    std::string ports;
    mlbd::Relaxed<int32_t> estimatePackNum = 0;
    mlbd::Relaxed<int32_t> minRatioChange = 0;
    mlbd::Relaxed<int32_t> bestEstCacheSize = 0;
    mlbd::Relaxed<int32_t> initWwanPercentage = 0;
    mlbd::Relaxed<bool> serviceHighRtt = false;
    mlbd::Relaxed<bool> gamingRunning = false;
    mlbd::Relaxed<bool> gamingConnectStatus = false;
    mlbd::Relaxed<bool> voipRunning = false;
    std::string gaming_whitelist;
    mlbd::Relaxed<int32_t> rttServerPort = 0;
    mlbd::Relaxed<int32_t> ping_period_ms = 0;
    mlbd::Relaxed<int32_t> rtt_noresponse_timeout_ms = 0;
    mlbd::Relaxed<int32_t> rtt_hist = 0;
    mlbd::Relaxed<int32_t> rtt_w2c_th_wifi_ms = 0;
    mlbd::Relaxed<int32_t> rtt_w2c_th_c_ms = 0;
    mlbd::Relaxed<int32_t> rtt_delta_ms = 0;
    mlbd::Relaxed<int32_t> rtt_c2w_th_wifi_ms = 0;
    mlbd::Relaxed<int32_t> rtt_c2w_th_wifi_min_ms = 0;
    mlbd::Relaxed<int32_t> rtt_c2w_th_c_ms = 0;
    mlbd::Relaxed<int32_t> t_hyst_s = 0;
    mlbd::Relaxed<int32_t> min_ping_times = 0;
    mlbd::Relaxed<int32_t> ping_interval_ms = 0;
    mlbd::Relaxed<int32_t> alpha_percent = 0;
    mlbd::Relaxed<int32_t> n_hyst = 0;
    mlbd::Relaxed<int32_t> rtt_min_cap_ms = 0;
    mlbd::Relaxed<int32_t> gaming_poll_freq_cnt = 0;
    std::string gaming_uid_list;
    std::string ifacesList;
    std::string interface_0;
    std::string interface_1;
    std::string interface_2;
    std::string interface_3;
    mlbd::Relaxed<int32_t> num_interfaces = 0;
    mlbd::Relaxed<int32_t> rtt_entry_threshold = 0;
    mlbd::Relaxed<int32_t> rtt_exit_threshold = 0;
    mlbd::Relaxed<int32_t> wifiIfaceCount = 0;
    mlbd::Relaxed<int32_t> wifiRttPenaltyMs = 0;
    char lastUidWhitelistProp[128] = {};

    // Dual-stack steering ("ipv6", off unless set): IPv6 rules beside the IPv4 ones, IPv6 probe
    // targets and the masquerade of 464XLAT companions. "rtt_server6" is the default probe target
    // of a link without an IPv4 address while the target is still the configured "rtt_server"
    // (rttServerDefault); both texts are written only while the store is built.
    mlbd::Relaxed<int32_t> ipv6 = 0;
    std::string rttServer6;
    std::string rttServerDefault;
    bool isIpv6Enabled() const { return ipv6 != 0; }

    // Selection that follows the game (0 or absent: off). "failback_interval_s": while the game
    // sits on a metered link and an unmetered one is managed, probe every that many seconds and
    // return once the unmetered link has stayed below the entry threshold for a while.
    // "stall_leave_ms": the game's own connection without an ACK for that long while data is
    // outstanding counts its link as failed at once and probes the others.
    mlbd::Relaxed<int32_t> failback_interval_s = 0;
    mlbd::Relaxed<int32_t> stall_leave_ms = 0;
    // "slow_leave_checks": the game's own round-trip time on the link that carries it, above the
    // exit threshold at that many socket-monitor checks in a row (one a second, and one every
    // 250 ms while that RTT is past half the threshold), counts as that link's figure for the
    // choice, which runs at once instead of at the next main-loop cycle. A stall
    // (stall_leave_ms) must then be confirmed by a failed probe of the link.
    // With it the links that do not carry the game are probed now and then, so that their
    // figures are fresh when the choice needs them, and a link's first probe result (or the
    // first after a failure) is taken as it is rather than smoothed against a made-up 1000 ms.
    mlbd::Relaxed<int32_t> slow_leave_checks = 0;

    // Robustness keys beyond the base set:
    // "frontend_timeout_ms": the longest a packet-filter or routing front-end may run before it
    //   is killed with its process group (default 30000; 0 or less: no limit).
    // "control_reaccept": when not 0, the control thread accepts the next client once the one
    //   it serves has gone; 0 (the default) serves a single client for the process's life.
    static constexpr int32_t kDefaultFrontendTimeoutMs = 30000;
    mlbd::Relaxed<int32_t> frontend_timeout_ms = kDefaultFrontendTimeoutMs;
    mlbd::Relaxed<int32_t> control_reaccept = 0;

  private:
    friend struct ParametersTestPeer;
    std::string* interfaceString(int index);
    void buildInterfaceMap();
    bool addNewInterfacetoMap(InterfaceInfo_t* rec);

    std::map<std::string, InterfaceInfo_t*> interfaces_;

    // Guards the run-time texts and lists below.
    mutable std::mutex textMutex_;
    std::vector<std::string> gamingUidList;
    std::vector<std::string> uidWhitelist;
    std::vector<std::string> dblWlanUidWhitelist;
    std::string gamingUids;
    std::string rttServer;
    char dataInterface[16] = {};
    char wlanInterface[16] = {};
    std::string uid_whitelist;
    std::string dblWlanUidWhitelistStr;

    static Parameters* sInstance;
};
