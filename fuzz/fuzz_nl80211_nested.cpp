// The split of a nested attribute into its list of items, two levels deep (as the controller's
// multicast group list is read), with the typed readers on each item.
#include "FuzzCommon.h"

using android::wificond::NL80211NestedAttr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<NL80211NestedAttr> items, inner;
    if (!NL80211NestedAttr(std::vector<uint8_t>(data, data + size))
                 .GetListOfNestedAttributes(&items)) {
        return 0;
    }
    for (const NL80211NestedAttr& item : items) {
        mlbd_fuzz::readAttribute(item, 1);
        mlbd_fuzz::readAttribute(item, 2);
        item.GetListOfNestedAttributes(&inner);
    }
    return 0;
}
