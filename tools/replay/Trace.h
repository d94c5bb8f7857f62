/*
 * Link traces for the selection lab: what each link's round-trip time, loss and up/down state are
 * over time, what the game sends, and what a good selector is expected to do.
 *
 * A trace is plain text, one directive per line, "#" starts a comment. Times carry a unit ("ms"
 * or "s"), rates a "%". The format is described in README.md ("Selection lab"). Parsing expands
 * every directive (steps, ramps, seeded jitter, seeded Gilbert-Elliott loss bursts, hand-over
 * gaps) into one piecewise-constant timeline per link, so the replay and the link emulator see
 * exactly the same link behaviour for the same trace and seed.
 */
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace mlbd {
namespace replay {

// The state of one link from `atMs` until the next breakpoint.
struct LinkPoint {
    int64_t atMs = 0;
    double rttMs = 0;  // round trip, ms
    double loss = 0;   // chance that one packet is lost, each direction, 0..1
    bool up = true;    // a link that is down loses everything
};

struct TraceLink {
    std::string name;
    std::vector<LinkPoint> points;  // sorted by atMs, the first at 0

    // The state in force at `ms` (the last breakpoint at or before it).
    const LinkPoint& at(int64_t ms) const;
};

// What a good selector does about the game's link.
struct Expectation {
    enum Kind { kLeave, kStay, kReturn };
    Kind kind = kStay;
    std::string link;      // the link to leave or to return to (empty for stay)
    int64_t atMs = 0;      // when the degradation or the recovery (or the stay window) begins
    int64_t untilMs = -1;  // end of its window; -1: the end of the trace
};

struct Trace {
    int64_t durationMs = 60000;
    uint64_t seed = 1;
    std::vector<TraceLink> links;  // in declaration order
    std::string defaultLink;       // carries the game while no link is chosen
    // The game: one small request and its answer on one TCP connection, the next request
    // `everyMs` after the answer, from `gameStartMs` on.
    bool game = false;  // a "game" line was given
    uint32_t gameUid = 10050;
    uint32_t gamePort = 5000;
    int64_t gameEveryMs = 100;
    int64_t gameStartMs = 0;
    int64_t slsStartMs = 0;  // smart link selection starts for the game
    // A call runs in [callStartMs, callEndMs) (-1: none); the Wi-Fi signal, dBm, over time.
    int64_t callStartMs = -1;
    int64_t callEndMs = -1;
    std::vector<std::pair<int64_t, int32_t>> rssi;
    std::vector<Expectation> expect;

    const TraceLink* find(const std::string& name) const;
};

// Parses `text` (the trace file's content). On failure returns false with "line N: why".
bool parseTrace(const std::string& text, Trace* out, std::string* why);
bool loadTrace(const std::string& path, Trace* out, std::string* why);

// "250ms", "1.5s" -> milliseconds; false when malformed.
bool parseDurationMs(const std::string& text, int64_t* ms);

}  // namespace replay
}  // namespace mlbd
