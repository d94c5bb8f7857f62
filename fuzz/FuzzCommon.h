// Helpers shared by the fuzz targets: quiet logging (the log lines are still formatted, so that
// their code runs, but nothing is written), the split of one input into several datagrams, and
// every typed attribute reader. Every target includes this header once, so it also defines the
// targets' LLVMFuzzerInitialize.
#pragma once

#include <android-base/logging.h>
#include <android/log.h>
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <vector>

#include "wificond/net/nl80211_attribute.h"

namespace mlbd_fuzz {

// Results land here so that the reads producing them are not optimised away.
inline volatile size_t gSink;

// Splits data into at most maxChunks pieces, each preceded in the input by its 16-bit
// little-endian length (a length beyond what is left takes the rest), each at most maxSize bytes.
inline std::vector<std::vector<uint8_t>> splitChunks(const uint8_t* data, size_t size,
                                                     size_t maxChunks, size_t maxSize) {
    std::vector<std::vector<uint8_t>> chunks;
    for (size_t pos = 0; pos + 2 <= size && chunks.size() < maxChunks;) {
        size_t len = std::min(
                {static_cast<size_t>(data[pos] | data[pos + 1] << 8), size - pos - 2, maxSize});
        pos += 2;
        chunks.emplace_back(data + pos, data + pos + len);
        pos += len;
    }
    return chunks;
}

// Reads the first attribute of type `id` that `holder` (a packet or a nested attribute) holds
// with every typed reader, and as a nested attribute with the readers on what that holds.
template <typename Holder>
void readAttribute(const Holder& holder, int id) {
    unsigned int u32 = 0;
    unsigned short u16 = 0;
    signed char s8 = 0;
    std::string text;
    std::vector<uint8_t> raw;
    holder.GetAttributeValue(id, &u32);
    holder.GetAttributeValue(id, &u16);
    holder.GetAttributeValue(id, &s8);
    holder.GetAttributeValue(id, &text);
    holder.GetAttributeValue(id, &raw);
    android::wificond::NL80211NestedAttr nested(0);
    if (holder.GetAttribute(id, &nested)) nested.GetAttributeValue(id, &text);
    gSink = u32 + u16 + s8 + text.size() + raw.size() + nested.GetConstData().size();
}

}  // namespace mlbd_fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
#ifndef __ANDROID__
    // The host's liblog prints to stderr; on a device the lines go to the log buffer.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
#endif
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
    return 0;
}
