/*
 * Parameter store: defaults, configuration file, interface list and user-id lists.
 */
#include "Parameters.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>

#define LOG_TAG "Mlbd-SlaParameters"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)

Parameters* Parameters::sInstance = nullptr;

namespace {

// The interface strings interface_0 .. interface_3 are all there is.
constexpr int kMaxInterfaces = 4;
// The longest UID text accepted on the two whitelists.
constexpr size_t kMaxWhitelistUidLength = 5;
// A configuration file is read up to this many bytes; anything beyond is ignored with a log line.
constexpr size_t kMaxConfBytes = 4 * 1024 * 1024;

// atoi's semantics (leading blanks, a sign, digits up to the first non-digit, 0 for no number)
// without its undefined behaviour on out-of-range text.
int32_t toInt(const char* text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

// Splits at ',' keeping empty fields between commas; a trailing ',' adds no field.
std::vector<std::string> splitFields(const std::string& text) {
    std::vector<std::string> fields;
    std::istringstream in(text);
    std::string field;
    while (std::getline(in, field, ',')) fields.push_back(field);
    return fields;
}

void copyName(char* dst, size_t size, const std::string& src) {
    size_t n = strnlen(src.c_str(), size - 1);
    memcpy(dst, src.c_str(), n);
    dst[n] = '\0';
}

// One configuration key: a tuning slot, an int field, a text field or a text setter (for the
// texts that are guarded at run time).
struct ConfKey {
    const char* name;
    int slot;
    mlbd::Relaxed<int32_t> Parameters::*intField;
    std::string Parameters::*textField;
    void (Parameters::*textSetter)(const char*);
};

constexpr ConfKey slotKey(const char* name, int slot) {
    return {name, slot, nullptr, nullptr, nullptr};
}
constexpr ConfKey intKey(const char* name, mlbd::Relaxed<int32_t> Parameters::*field) {
    return {name, -1, field, nullptr, nullptr};
}
constexpr ConfKey textKey(const char* name, std::string Parameters::*field) {
    return {name, -1, nullptr, field, nullptr};
}
constexpr ConfKey setterKey(const char* name, void (Parameters::*setter)(const char*)) {
    return {name, -1, nullptr, nullptr, setter};
}

const ConfKey kConfKeys[] = {
        slotKey("SLAEnabled", OPER_SLA_ENABLED),
        slotKey("wifi_threshold", OPER_WIFI_THRESHOLD),
        slotKey("wan_threshold", OPER_WAN_THRESHOLD),
        slotKey("mini_est_interval", OPER_MINI_EST_INTERVAL),
        slotKey("mini_stale_interval", OPER_MINI_STALE_INTERVAL),
        slotKey("ideal_est_window", OPER_IDEAL_EST_WINDOW),
        slotKey("mini_rate_window", OPER_MINI_RATE_WINDOW),
        slotKey("CellularSockAssignRate", OPER_CELLULAR_SOCK_ASSIGN_RATE),
        slotKey("SockActiveTime", OPER_SOCK_ACTIVE_TIME),
        slotKey("SockStaleTime", OPER_SOCK_STALE_TIME),
        slotKey("update_pm_freq", OPER_UPDATE_PM_FREQ),
        textKey("protocols", &Parameters::protocols),
        textKey("ports", &Parameters::ports),
        intKey("estimate_pack_num", &Parameters::estimatePackNum),
        intKey("min_ratio_change", &Parameters::minRatioChange),
        intKey("best_est_cache_size", &Parameters::bestEstCacheSize),
        intKey("init_wwan_percentage", &Parameters::initWwanPercentage),
        textKey("gaming_whitelist", &Parameters::gaming_whitelist),
        setterKey("rtt_server", &Parameters::setGamingRttServer),
        intKey("ping_period_ms", &Parameters::ping_period_ms),
        intKey("rtt_noresponse_timeout_ms", &Parameters::rtt_noresponse_timeout_ms),
        intKey("rtt_hist", &Parameters::rtt_hist),
        intKey("rtt_w2c_th_wifi_ms", &Parameters::rtt_w2c_th_wifi_ms),
        intKey("rtt_w2c_th_c_ms", &Parameters::rtt_w2c_th_c_ms),
        intKey("rtt_delta_ms", &Parameters::rtt_delta_ms),
        intKey("rtt_c2w_th_wifi_ms", &Parameters::rtt_c2w_th_wifi_ms),
        intKey("rtt_c2w_th_wifi_min_ms", &Parameters::rtt_c2w_th_wifi_min_ms),
        intKey("rtt_c2w_th_c_ms", &Parameters::rtt_c2w_th_c_ms),
        intKey("t_hyst_s", &Parameters::t_hyst_s),
        intKey("min_ping_times", &Parameters::min_ping_times),
        intKey("ping_interval_ms", &Parameters::ping_interval_ms),
        intKey("alpha_percent", &Parameters::alpha_percent),
        intKey("n_hyst", &Parameters::n_hyst),
        intKey("rtt_min_cap_ms", &Parameters::rtt_min_cap_ms),
        intKey("gaming_poll_freq_cnt", &Parameters::gaming_poll_freq_cnt),
        textKey("gaming_uid_list", &Parameters::gaming_uid_list),
        textKey("interface_0", &Parameters::interface_0),
        textKey("interface_1", &Parameters::interface_1),
        textKey("interface_2", &Parameters::interface_2),
        textKey("interface_3", &Parameters::interface_3),
        intKey("num_interfaces", &Parameters::num_interfaces),
        intKey("rtt_entry_threshold", &Parameters::rtt_entry_threshold),
        intKey("rtt_exit_threshold", &Parameters::rtt_exit_threshold),
        setterKey("uid_whitelist", &Parameters::setuidwhitelist),
        // Dual-stack steering.
        intKey("ipv6", &Parameters::ipv6),
        textKey("rtt_server6", &Parameters::rttServer6),
        // Selection that follows the game.
        intKey("failback_interval_s", &Parameters::failback_interval_s),
        intKey("stall_leave_ms", &Parameters::stall_leave_ms),
        intKey("slow_leave_checks", &Parameters::slow_leave_checks),
        // Robustness keys beyond the base set (see Parameters.h).
        intKey("frontend_timeout_ms", &Parameters::frontend_timeout_ms),
        intKey("control_reaccept", &Parameters::control_reaccept),
};

}  // namespace

Parameters* Parameters::instance() {
    if (sInstance == nullptr) {
        sInstance = new Parameters();
        sInstance->populateuidwhitelist();
    }
    return sInstance;
}

Parameters::Parameters() {
    reset();
    buildInterfaceMap();
}

Parameters::~Parameters() {
    for (auto& entry : interfaces_) delete entry.second;
}

void Parameters::reset() {
    spare = 0;
    char enabled[128] = {};
    mlbd::getProperty("vendor.sla.enabled", enabled, "0");
    operValues[OPER_SLA_ENABLED] = static_cast<uint32_t>(toInt(enabled));
    operValues[OPER_SPARE_14] = 1;
    operValues[OPER_UPDATE_PM_FREQ] = 500;
    operValues[OPER_WIFI_THRESHOLD] = 1600;
    operValues[OPER_WAN_THRESHOLD] = 500;
    operValues[OPER_MINI_EST_INTERVAL] = 1000;
    operValues[OPER_MINI_STALE_INTERVAL] = 1500;
    operValues[OPER_IDEAL_EST_WINDOW] = 500;
    operValues[OPER_MINI_RATE_WINDOW] = 50;
    operValues[OPER_CELLULAR_SOCK_ASSIGN_RATE] = 50;
    operValues[OPER_SOCK_ACTIVE_TIME] = 2000;
    protocols = "http,https";
    ports = "80,443";
    estimatePackNum = 5;
    minRatioChange = 2;
    bestEstCacheSize = 0;
    initWwanPercentage = 0;
    serviceHighRtt = false;
    gamingRunning = false;
    voipRunning = false;
    setGamingRttServer(DEFAULT_RTT_SERVER);
    memset(dataInterface, 0, sizeof(dataInterface));
    memset(wlanInterface, 0, sizeof(wlanInterface));
    min_ping_times = 5;
    ping_interval_ms = 500;
    alpha_percent = 60;
    n_hyst = 1;
    rtt_min_cap_ms = 10;
    gaming_poll_freq_cnt = 5;
    rttServerPort = 443;
    num_interfaces = 2;
    rtt_entry_threshold = 90;
    rtt_exit_threshold = 130;
    wifiIfaceCount = 0;
    frontend_timeout_ms = kDefaultFrontendTimeoutMs;
    control_reaccept = 0;
    strcpy(lastUidWhitelistProp, "0");
    memset(ifacesProp, 0, sizeof(ifacesProp));
    memset(modeProp, 0, sizeof(modeProp));

    ipv6 = 0;
    rttServer6.clear();
    failback_interval_s = 0;
    stall_leave_ms = 0;
    slow_leave_checks = 0;
    readMlbdConfFile(mlbd::devicePath(MLBD_CONF_PATH).c_str());
    rttServerDefault = getGamingRttServer();
    in6_addr parsed;
    if (!rttServer6.empty() && inet_pton(AF_INET6, rttServer6.c_str(), &parsed) != 1) {
        LOGE("%s rtt_server6 '%.64s' is not an IPv6 address: no IPv6 default probe target", "reset",
             rttServer6.c_str());
        rttServer6.clear();
    }
    if (isIpv6Enabled()) {
        LOGI("%s ipv6 steering on, IPv6 default probe target %s", "reset",
             rttServer6.empty() ? "none" : rttServer6.c_str());
    }
    updateIfaces();
    updateuidwhitelist();
}

uint32_t Parameters::get(OperId id) {
    // Unsigned comparison: a negative id is out of range as well.
    if (static_cast<unsigned>(id) > OPER_MAX_ID) return 0xFFFFFFFF;
    return operValues[id];
}

int Parameters::getSLAVendorProp() {
    char value[128] = {};
    mlbd::getProperty("vendor.sla.enabled", value, "0");
    int mode = toInt(value);
    operValues[OPER_SLA_ENABLED] = static_cast<uint32_t>(mode);
    return mode;
}

void Parameters::setWlanInterface(const char* name) {
    if (name == nullptr) return;
    std::lock_guard<std::mutex> lock(textMutex_);
    copyName(wlanInterface, sizeof(wlanInterface), name);
}

void Parameters::setDataInterface(const char* name) {
    if (name == nullptr) return;
    std::lock_guard<std::mutex> lock(textMutex_);
    copyName(dataInterface, sizeof(dataInterface), name);
}

std::string Parameters::getWlanInterface() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return wlanInterface;
}

std::string Parameters::getDataInterface() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return dataInterface;
}

char* Parameters::getStatsProtocols(char* buf, size_t size) {
    snprintf(buf, size, "%s=%s", "protocols", protocols.c_str());
    return buf;
}

char* Parameters::getStatsPorts(char* buf, size_t size) {
    snprintf(buf, size, "%s=%s", "ports", ports.c_str());
    return buf;
}

// ---- Configuration file ----

std::string& Parameters::trim(std::string& s) {
    // The character before '#' goes with the comment: "key=value #note" leaves "key=value".
    size_t hash = s.find('#');
    if (hash != std::string::npos && hash >= 1) s.erase(hash - 1);
    size_t first = s.find_first_not_of(" \t");
    if (first == std::string::npos) {
        s.clear();
        return s;
    }
    s.erase(0, first);
    s.erase(s.find_last_not_of(" \t") + 1);
    return s;
}

bool Parameters::setValue(const char* key, const char* value) {
    for (const ConfKey& k : kConfKeys) {
        if (strcmp(k.name, key) != 0) continue;
        if (k.slot >= 0) {
            operValues[k.slot] = static_cast<uint32_t>(toInt(value));
        } else if (k.intField != nullptr) {
            this->*k.intField = toInt(value);
        } else if (k.textField != nullptr) {
            this->*k.textField = value;
        } else {
            (this->*k.textSetter)(value);
        }
        return true;
    }
    return false;
}

void Parameters::readMlbdConfFile(const char* path) {
    FILE* file = fopen(path, "rbe");
    if (file == nullptr) {
        LOGE("read mlbd conf file failed!");
        return;
    }
    // Read as it comes, so that a short file costs only its own size; reading past the limit
    // tells whether the file goes on beyond it.
    std::string text;
    char chunk[4096];
    for (size_t got;
         text.size() <= kMaxConfBytes && (got = fread(chunk, 1, sizeof(chunk), file)) > 0;) {
        text.append(chunk, got);
    }
    fclose(file);
    if (text.size() > kMaxConfBytes) {
        LOGE("%s mlbd conf file is larger than %zu bytes, the rest is ignored", "readMlbdConfFile",
             kMaxConfBytes);
        // Only whole lines within the limit count.
        text.resize(kMaxConfBytes);
        size_t lastNewline = text.rfind('\n');
        text.resize(lastNewline == std::string::npos ? 0 : lastNewline + 1);
    }
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        trim(line);
        if (line.empty() || line[0] == '#') continue;
        lines.push_back(line);
    }
    fromVector(lines);
}

void Parameters::fromVector(std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        if (line.empty()) continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        trim(key);
        trim(value);
        setValue(key.c_str(), value.c_str());
    }
}

// ---- Interface list ----

std::string* Parameters::interfaceString(int index) {
    switch (index) {
        case 0:
            return &interface_0;
        case 1:
            return &interface_1;
        case 2:
            return &interface_2;
        case 3:
            return &interface_3;
        default:
            return nullptr;
    }
}

void Parameters::updateIfaces() {
    if (ifacesProp[0] != '\0') return;
    mlbd::getProperty("vendor.sla.ifaces", ifacesProp, "");
    mlbd::getProperty("vendor.sla.mode", modeProp, "1");
    LOGD("%s %s mode = %s", "updateIfaces", ifacesProp, modeProp);
    ifacesList = ifacesProp;
    populatIfaceslist(modeProp);
}

void Parameters::populatIfaceslist(std::string mode) {
    ifaceNames = splitFields(ifacesList);
    if (ifaceNames.size() > kMaxInterfaces) {
        LOGE("%s %zu interfaces listed, only the first %d are used", "populatIfaceslist",
             ifaceNames.size(), kMaxInterfaces);
        ifaceNames.resize(kMaxInterfaces);
    }
    num_interfaces = static_cast<int32_t>(ifaceNames.size());
    if (num_interfaces == 0) return;

    for (int i = 0; i < num_interfaces; ++i) {
        const std::string& name = ifaceNames[i];
        const char* metered = "0";
        const char* fwmark = "0x5A";
        const char* isDefault = "0";
        const char* dblWlan = "0";
        if (name.compare(0, 5, "wlan0") == 0) {
            isDefault = "1";
        } else if (name.compare(0, 5, "wlan1") == 0) {
            fwmark = "0x5B";
            dblWlan = "1";
        } else if (name.compare(0, 10, "rmnet_data") == 0 || name.compare(0, 5, "ccmni") == 0) {
            metered = mode.c_str();
            fwmark = "0x5C";
        }
        *interfaceString(i) = name + "," + metered + "," + name + "," + fwmark + "," + isDefault +
                              ",0,0," + dblWlan;
    }
}

InterfaceInfo_t* Parameters::parseInterfaceParams(std::string description) {
    constexpr int kFields = 8;
    InterfaceInfo_t* rec = new InterfaceInfo_t();
    std::vector<std::string> fields = splitFields(description);
    int count = 0;
    for (const std::string& field : fields) {
        ++count;
        LOGD("parseInterfaceParams %s %d %d ", field.c_str(), count, kFields);
    }
    if (count == kFields) {
        copyName(rec->name, sizeof(rec->name), fields[0]);
        rec->metered = toInt(fields[1].c_str()) != 0;
        copyName(rec->routeTable, sizeof(rec->routeTable), fields[2]);
        copyName(rec->fwmark, sizeof(rec->fwmark), fields[3]);
        rec->isDefault = toInt(fields[4].c_str()) != 0;
        rec->cost = toInt(fields[5].c_str());
        rec->bias = toInt(fields[6].c_str());
        rec->dblWlan = toInt(fields[7].c_str()) != 0;
        // Counted before validation: a record that then fails still counts.
        if (!rec->metered) ++wifiIfaceCount;
        if (validateInterfaceParams(rec)) return rec;
    }
    delete rec;
    LOGE("%s Check mlbd.conf for interface errors", "parseInterfaceParams");
    return nullptr;
}

namespace {

// Interface names, route tables and marks are pasted into command lines, which are split at
// blanks, and a name also into a path under /proc/sla: a text with a blank or a control
// character (or, for a name, a '/') would split a command or leave that folder.
bool isCommandSafe(const char* text, bool isName) {
    for (const unsigned char* c = reinterpret_cast<const unsigned char*>(text); *c != 0; ++c) {
        if (*c <= ' ' || *c == 0x7F || (isName && *c == '/')) return false;
    }
    return true;
}

}  // namespace

bool Parameters::validateInterfaceParams(InterfaceInfo_t* rec) {
    static const char* kFn = "validateInterfaceParams";
    if (rec == nullptr) {
        LOGE("%s Interface Obj is NULL", kFn);
        return false;
    }
    bool noName = rec->name[0] == '\0';
    if (noName) LOGE("%s Interface name is NULL", kFn);
    const char* unsafe = !isCommandSafe(rec->name, true)          ? "name"
                         : !isCommandSafe(rec->routeTable, false) ? "routeTable"
                         : !isCommandSafe(rec->fwmark, false)     ? "fwmark"
                                                                  : nullptr;
    if (unsafe != nullptr) {
        LOGE("%s Interface %s of '%s' holds a blank, a control character or a '/'", kFn, unsafe,
             rec->name);
        noName = true;
    }
    if (rec->routeTable[0] == '\0') {
        LOGE("%s Interface routeTable is NULL", kFn);
        if (rec->fwmark[0] == '\0') LOGE("%s Interface fwmark is NULL", kFn);
        return false;
    }
    if (rec->fwmark[0] == '\0') {
        LOGE("%s Interface fwmark is NULL", kFn);
        return false;
    }
    if (noName) return false;
    LOGD("%s Interface name is       %s", kFn, rec->name);
    LOGD("%s Interface routeTable is %s", kFn, rec->routeTable);
    LOGD("%s Interface fwmark is     %s", kFn, rec->fwmark);
    LOGD("%s Interface default is    %d", kFn, rec->isDefault);
    LOGD("%s Interface metered is    %d", kFn, rec->metered);
    LOGD("%s Interface cost is       %d", kFn, rec->cost);
    LOGD("%s Interface bias is       %d", kFn, rec->bias);
    return true;
}

bool Parameters::addNewInterfacetoMap(InterfaceInfo_t* rec) {
    if (rec == nullptr) {
        LOGE("%s Add interface failed ", "addNewInterfacetoMap");
        return false;
    }
    InterfaceInfo_t*& slot = interfaces_[rec->name];
    // Nothing can hold a record yet while the map is being built, so a replaced one is freed.
    if (slot != nullptr && slot != rec) delete slot;
    slot = rec;
    LOGD("%s Added %s to list of interfaces ", "addNewInterfacetoMap", rec->name);
    return true;
}

void Parameters::buildInterfaceMap() {
    int added = 0;
    for (int i = 0; i < num_interfaces && i < kMaxInterfaces; ++i) {
        LOGD(" SLA processing iface %d", i);
        InterfaceInfo_t* rec = parseInterfaceParams(*interfaceString(i));
        if (rec != nullptr && addNewInterfacetoMap(rec)) ++added;
    }
    LOGD(" SlaParameters added ifaces = %d getNumInterfaces =%d", added, num_interfaces.load());
    if (added == num_interfaces) return;

    LOGE("%s Error when reading interfaces from config file - reset to defaults wlan0 and "
         "rmnet_data0",
         "Parameters");
    for (auto& entry : interfaces_) delete entry.second;
    interfaces_.clear();

    InterfaceInfo_t* wlan = new InterfaceInfo_t();
    strcpy(wlan->name, "wlan0");
    strcpy(wlan->routeTable, "wlan0");
    strcpy(wlan->fwmark, "0x5A");
    wlan->isDefault = true;
    ++wifiIfaceCount;
    addNewInterfacetoMap(wlan);

    InterfaceInfo_t* cell = new InterfaceInfo_t();
    strcpy(cell->name, "rmnet_data0");
    strcpy(cell->routeTable, "rmnet_data0");
    strcpy(cell->fwmark, "0x5C");
    cell->metered = true;
    cell->isDefault = true;
    addNewInterfacetoMap(cell);
}

// ---- User-id lists ----

InterfaceInfo_t* Parameters::findInterface(const std::string& name) const {
    auto it = interfaces_.find(name);
    return it == interfaces_.end() ? nullptr : it->second;
}

void Parameters::setuidwhitelist(const char* text) {
    std::lock_guard<std::mutex> lock(textMutex_);
    if (text != nullptr) uid_whitelist = text;
}

void Parameters::setDblWlanUidWhitelist(const char* text) {
    std::lock_guard<std::mutex> lock(textMutex_);
    if (text != nullptr) dblWlanUidWhitelistStr = text;
}

void Parameters::setGamingUids(const char* text) {
    std::lock_guard<std::mutex> lock(textMutex_);
    if (text != nullptr) gamingUids = text;
}

void Parameters::setGamingRttServer(const char* text) {
    std::lock_guard<std::mutex> lock(textMutex_);
    if (text != nullptr) rttServer = text;
}

void Parameters::setRttTarget(const char* server, int32_t port) {
    std::lock_guard<std::mutex> lock(textMutex_);
    if (server != nullptr) rttServer = server;
    rttServerPort = port;
}

void Parameters::getRttTarget(std::string* server, int32_t* port) const {
    std::lock_guard<std::mutex> lock(textMutex_);
    *server = rttServer;
    *port = rttServerPort;
}

std::string Parameters::getGamingRttServer() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return rttServer;
}

std::string Parameters::getGamingUids() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return gamingUids;
}

std::string Parameters::getUidWhitelistText() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return uid_whitelist;
}

std::string Parameters::getDblWlanUidWhitelistText() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return dblWlanUidWhitelistStr;
}

std::vector<std::string> Parameters::getGamingUidList() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return gamingUidList;
}

std::vector<std::string> Parameters::getUidWhitelist() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return uidWhitelist;
}

std::vector<std::string> Parameters::getDblWlanUidWhitelist() const {
    std::lock_guard<std::mutex> lock(textMutex_);
    return dblWlanUidWhitelist;
}

namespace {

// The fields of `text` of at most kMaxWhitelistUidLength characters; a longer one is logged.
std::vector<std::string> limitedFields(const std::string& text, const char* fn) {
    std::vector<std::string> list;
    for (std::string& field : splitFields(text)) {
        if (field.size() > kMaxWhitelistUidLength) {
            LOGE("%s token length error is %lu", fn, static_cast<unsigned long>(field.size()));
            continue;
        }
        list.push_back(std::move(field));
    }
    return list;
}

}  // namespace

// Each list is built from a copy of its text and swapped in whole, so a reader's copy is always
// one complete list.
void Parameters::populateuidwhitelist() {
    std::vector<std::string> list = limitedFields(getUidWhitelistText(), "populateuidwhitelist");
    std::lock_guard<std::mutex> lock(textMutex_);
    uidWhitelist.swap(list);
}

void Parameters::populateDblWlanUidWhitelist() {
    std::vector<std::string> list =
            limitedFields(getDblWlanUidWhitelistText(), "populateDblWlanUidWhitelist");
    std::lock_guard<std::mutex> lock(textMutex_);
    dblWlanUidWhitelist.swap(list);
}

void Parameters::populateGamingUids() {
    std::vector<std::string> list = splitFields(getGamingUids());
    std::lock_guard<std::mutex> lock(textMutex_);
    gamingUidList.swap(list);
}

void Parameters::updateuidwhitelist() {
    char value[128] = {};
    mlbd::getProperty("vendor.sla.uidwhitelist", value, "0");
    if (strcmp(value, lastUidWhitelistProp) == 0) return;
    LOGD("%s buffer=%s", "updateuidwhitelist", value);
    copyName(lastUidWhitelistProp, sizeof(lastUidWhitelistProp), value);
    setuidwhitelist(value);
    populateuidwhitelist();
}
