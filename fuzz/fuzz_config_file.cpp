// The configuration file reader: the input is the whole of "/vendor/etc/sla/mlbd.conf", read by
// a fresh parameter store exactly as at start-up (line split, comment cut, trimming, key table,
// number conversion). Then every value the file can set is read back the way the daemon uses it:
// the slots, the module's protocol and port commands in a short buffer, the whitelist split, and
// the interface descriptions of "interface_0" to "interface_3" through the interface parser.
#include "FuzzCommon.h"
#include "FuzzRoot.h"
#include "parameters/Parameters.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mlbd_fuzz::writeFile(MLBD_CONF_PATH, data, size);
    Parameters params;
    size_t sink = 0;
    for (int id = 0; id <= OPER_MAX_ID + 1; ++id) sink += params.get(static_cast<OperId>(id));
    char buf[64];
    sink += strlen(params.getStatsProtocols(buf, sizeof(buf)));
    sink += strlen(params.getStatsPorts(buf, sizeof(buf)));
    params.populateuidwhitelist();
    sink += params.getUidWhitelist().size() + params.getGamingRttServer().size();
    for (const std::string* text :
         {&params.interface_0, &params.interface_1, &params.interface_2, &params.interface_3}) {
        InterfaceInfo_t* rec = params.parseInterfaceParams(*text);
        if (rec != nullptr) sink += strlen(rec->name) + strlen(rec->routeTable) + rec->cost;
        delete rec;
    }
    mlbd_fuzz::gSink = sink;
    return 0;
}
