// The property texts: "vendor.sla.ifaces" (the interface list), "vendor.sla.mode" and
// "vendor.sla.uidwhitelist", read by a fresh parameter store through the platform glue (so with
// the property size cut) and turned into the interface map and the whitelist. Then the UID list
// texts that reach the same splitters at run time (the double-Wi-Fi whitelist and the gaming
// UIDs) and the UID check that guards every rule.
//
// Input: length-prefixed chunks (FuzzCommon's split): ifaces, mode, uidwhitelist, double-Wi-Fi
// whitelist, gaming UIDs. A missing chunk leaves its property unset.
#include "FuzzCommon.h"
#include "FuzzRoot.h"
#include "iptables/IptablesManager.h"
#include "parameters/Parameters.h"

namespace {

const char* const kProperties[] = {"vendor.sla.ifaces", "vendor.sla.mode",
                                   "vendor.sla.uidwhitelist"};

size_t checkUids(const std::vector<std::string>& uids) {
    size_t valid = 0;
    for (const std::string& uid : uids) valid += IptablesManager::isValidUidText(uid);
    return valid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto chunks = mlbd_fuzz::splitChunks(data, size, 5, 4096);
    const std::string& root = mlbd_fuzz::fuzzRoot();
    for (size_t i = 0; i < 3; ++i) {
        const std::string path = std::string("/properties/") + kProperties[i];
        if (i < chunks.size()) {
            mlbd_fuzz::writeFile(path, chunks[i].data(), chunks[i].size());
        } else {
            unlink((root + path).c_str());
        }
    }
    Parameters params;
    params.populateuidwhitelist();
    size_t sink = params.num_interfaces + checkUids(params.getUidWhitelist());
    for (const auto& entry : params.interfaces()) {
        const InterfaceInfo_t* rec = entry.second;
        sink += strlen(rec->name) + strlen(rec->routeTable) + strlen(rec->fwmark) + rec->metered;
    }
    if (chunks.size() > 3) {
        const std::string text(chunks[3].begin(), chunks[3].end());
        params.setDblWlanUidWhitelist(text.c_str());
        params.populateDblWlanUidWhitelist();
        sink += checkUids(params.getDblWlanUidWhitelist());
    }
    if (chunks.size() > 4) {
        const std::string text(chunks[4].begin(), chunks[4].end());
        params.setGamingUids(text.c_str());
        params.populateGamingUids();
        sink += checkUids(params.getGamingUidList());
    }
    mlbd_fuzz::gSink = sink;
    return 0;
}
