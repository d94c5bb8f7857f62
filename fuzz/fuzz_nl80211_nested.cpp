/*
 * The split of a nested attribute into its list of items, two levels deep (as the controller's
 * multicast group list is read), with the typed readers on each item.
 */
#include <string>
#include <vector>

#include "FuzzCommon.h"
#include "wificond/net/nl80211_attribute.h"

using namespace android::wificond;

namespace {
volatile size_t gSink;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    NL80211NestedAttr outer(std::vector<uint8_t>(data, data + size));
    std::vector<NL80211NestedAttr> items;
    if (!outer.GetListOfNestedAttributes(&items)) return 0;
    size_t sum = items.size();
    for (const NL80211NestedAttr& item : items) {
        std::string name;
        unsigned int id = 0;
        item.GetAttributeValue(1, &name);
        item.GetAttributeValue(2, &id);
        sum += name.size() + id;
        std::vector<NL80211NestedAttr> inner;
        if (item.GetListOfNestedAttributes(&inner)) sum += inner.size();
    }
    gSink = sum;
    return 0;
}
