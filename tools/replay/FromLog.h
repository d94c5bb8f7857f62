/*
 * Rebuilding a link trace from a daemon log, for what-if replays under other settings.
 */
#pragma once

#include <string>

namespace mlbd {
namespace replay {

// Reads a daemon log (host stderr or logcat -v threadtime) and writes into `trace` a trace
// (Trace.h) of what it shows: each link's probe results as its round-trip time (a missed probe as
// the link being down until its next result), the game's own RTT on the link that carried it
// while no probe ran, and the game's port. False, with the reason, when the log shows no link.
bool traceFromLog(const std::string& path, std::string* trace, std::string* why);

}  // namespace replay
}  // namespace mlbd
