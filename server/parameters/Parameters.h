/*
 * The daemon's process-wide store of configuration and run-time switches.
 *
 * Values come from three layers applied by reset(): built-in defaults, the configuration file,
 * then system properties. Control commands change flags and user-id lists at run time.
 * There is no lock: the one-byte flags and 32-bit slots are read and written whole, and the
 * strings are replaced only by the control thread.
 */
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

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

    const char* getGamingUids() { return gamingUids.c_str(); }
    void setGamingUids(const char* text);
    void populateGamingUids();
    void setuidwhitelist(const char* text);
    void populateuidwhitelist();
    void setDblWlanUidWhitelist(const char* text);
    void populateDblWlanUidWhitelist();
    void setGamingRttServer(const char* text);
    void updateuidwhitelist();

    void setWlanInterface(const char* name);
    void setDataInterface(const char* name);
    const char* getWlanInterface() { return wlanInterface; }
    const char* getDataInterface() { return dataInterface; }

    // "protocols=<list>" and "ports=<list>" for the kernel module's control file, cut to fit
    // `size` bytes (the lists come from the configuration file and may be of any length).
    char* getStatsProtocols(char* buf, size_t size);
    char* getStatsPorts(char* buf, size_t size);

    // Configuration file.
    bool setValue(const char* key, const char* value);
    void readMlbdConfFile(const char* path);
    void fromVector(std::vector<std::string>& lines);
    static std::string& trim(std::string& s);

    // Interface list.
    InterfaceInfo_t* parseInterfaceParams(std::string description);
    bool addNewInterfacetoMap(InterfaceInfo_t* rec);
    bool validateInterfaceParams(InterfaceInfo_t* rec);
    void populatIfaceslist(std::string mode);
    void updateIfaces();

    std::vector<std::string> gamingUidList;
    std::vector<std::string> uidWhitelist;
    std::vector<std::string> dblWlanUidWhitelist;
    std::vector<std::string> ifaceNames;
    std::map<std::string, InterfaceInfo_t*> interfaces;
    uint8_t spare = 0;
    uint32_t operValues[OPER_MAX_ID + 1] = {};
    char dataInterface[16] = {};
    char wlanInterface[16] = {};
    char ifacesProp[PROP_VALUE_MAX] = {};
    char modeProp[PROP_VALUE_MAX] = {};
    std::string protocols;
    std::string ports;
    int32_t estimatePackNum = 0;
    int32_t minRatioChange = 0;
    int32_t bestEstCacheSize = 0;
    int32_t initWwanPercentage = 0;
    bool serviceHighRtt = false;
    bool gamingRunning = false;
    bool gamingConnectStatus = false;
    bool voipRunning = false;
    std::string gamingUids;
    std::string gaming_whitelist;
    std::string rttServer;
    int32_t rttServerPort = 0;
    int32_t ping_period_ms = 0;
    int32_t rtt_noresponse_timeout_ms = 0;
    int32_t rtt_hist = 0;
    int32_t rtt_w2c_th_wifi_ms = 0;
    int32_t rtt_w2c_th_c_ms = 0;
    int32_t rtt_delta_ms = 0;
    int32_t rtt_c2w_th_wifi_ms = 0;
    int32_t rtt_c2w_th_wifi_min_ms = 0;
    int32_t rtt_c2w_th_c_ms = 0;
    int32_t t_hyst_s = 0;
    int32_t min_ping_times = 0;
    int32_t ping_interval_ms = 0;
    int32_t alpha_percent = 0;
    int32_t n_hyst = 0;
    int32_t rtt_min_cap_ms = 0;
    int32_t gaming_poll_freq_cnt = 0;
    std::string gaming_uid_list;
    std::string uid_whitelist;
    std::string dblWlanUidWhitelistStr;
    std::string ifacesList;
    std::string interface_0;
    std::string interface_1;
    std::string interface_2;
    std::string interface_3;
    int32_t num_interfaces = 0;
    int32_t rtt_entry_threshold = 0;
    int32_t rtt_exit_threshold = 0;
    int32_t wifiIfaceCount = 0;
    int32_t wifiRttPenaltyMs = 0;
    char lastUidWhitelistProp[128] = {};

  private:
    std::string* interfaceString(int index);
    void buildInterfaceMap();

    static Parameters* sInstance;
};
