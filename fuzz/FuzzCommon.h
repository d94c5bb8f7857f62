/*
 * Helpers shared by the fuzz targets: quiet logging (the log lines are still formatted, so that
 * their code runs, but nothing is written) and the split of one input into several datagrams.
 * Every target includes this header once, so it also defines the targets' LLVMFuzzerInitialize.
 */
#pragma once

#include <android-base/logging.h>
#include <android/log.h>
#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace mlbd_fuzz {

inline void silenceLogs() {
#ifndef __ANDROID__
    // The host's liblog prints to stderr; on a device the lines go to the log buffer.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
#endif
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
}

// Splits data into at most maxChunks pieces, each preceded in the input by its 16-bit
// little-endian length (a length beyond what is left takes the rest), each at most maxSize bytes.
inline std::vector<std::vector<uint8_t>> splitChunks(const uint8_t* data, size_t size,
                                                     size_t maxChunks, size_t maxSize) {
    std::vector<std::vector<uint8_t>> chunks;
    size_t pos = 0;
    while (pos + 2 <= size && chunks.size() < maxChunks) {
        size_t len = data[pos] | (static_cast<size_t>(data[pos + 1]) << 8);
        pos += 2;
        if (len > size - pos) len = size - pos;
        if (len > maxSize) len = maxSize;
        chunks.emplace_back(data + pos, data + pos + len);
        pos += len;
    }
    return chunks;
}

}  // namespace mlbd_fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    mlbd_fuzz::silenceLogs();
    return 0;
}
