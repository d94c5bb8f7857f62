/*
 * A trace rebuilt from a daemon log: what the daemon saw of each link becomes the link's
 * behaviour, so that the same situation can be replayed under other settings.
 */
#include "FromLog.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

namespace mlbd {
namespace replay {

namespace {

// Longest line read; longer ones are cut.
constexpr size_t kMaxLine = 4096;
// The probe's handshake and ten exchanges: its result stands for the link from that long before.
constexpr int kProbeRoundTrips = 11;

// "MM-DD HH:MM:SS.mmm" (optionally "YYYY-" first) at the start of the line: milliseconds since
// the start of the year (months taken as 31 days, which only has to keep the order).
bool stamp(const char* line, int64_t* ms) {
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, milli = 0, n = 0;
    if (sscanf(line, "%d-%d-%d %d:%d:%d.%d%n", &y, &mo, &d, &h, &mi, &s, &milli, &n) == 7 &&
        y > 1000) {
    } else if (sscanf(line, "%d-%d %d:%d:%d.%d%n", &mo, &d, &h, &mi, &s, &milli, &n) != 6) {
        return false;
    }
    if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60 || milli > 999) {
        return false;
    }
    *ms = ((((mo * 31LL + d) * 24 + h) * 60 + mi) * 60 + s) * 1000 + milli;
    return true;
}

// The text after `key` up to the first of `stops` (or the end).
bool after(const std::string& line, const char* key, const char* stops, std::string* out) {
    const size_t at = line.find(key);
    if (at == std::string::npos) return false;
    const size_t from = at + strlen(key);
    const size_t to = line.find_first_of(stops, from);
    *out = line.substr(from, to == std::string::npos ? std::string::npos : to - from);
    return !out->empty();
}

bool validName(const std::string& n) {
    if (n.empty() || n.size() > 15) return false;
    for (char c : n) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') {
            return false;
        }
    }
    return true;
}

struct Change {
    int64_t atMs;
    std::string link;
    std::string what;  // "rtt=Xms up" or "down"
    bool fromGame;     // the game's own (smoothed) RTT, not a probe
};

}  // namespace

bool traceFromLog(const std::string& path, std::string* trace, std::string* why) {
    std::ifstream in(path);
    if (!in) {
        *why = "cannot read " + path;
        return false;
    }
    std::vector<std::string> links;
    std::map<std::string, int> firstRtt;
    std::vector<Change> changes;
    std::map<std::string, bool> down;
    std::string chosen, port = "5000";
    int64_t t0 = -1, last = 0, slsStart = -1, callStart = -1, callEnd = -1;
    auto addLink = [&](const std::string& n) {
        if (validName(n) && std::find(links.begin(), links.end(), n) == links.end()) {
            links.push_back(n);
        }
    };
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() > kMaxLine) line.resize(kMaxLine);
        int64_t ms = 0;
        if (!stamp(line.c_str(), &ms)) continue;
        if (t0 < 0) t0 = ms;
        ms -= t0;
        if (ms < 0) continue;  // a log that wraps the year is cut there
        last = std::max(last, ms);
        std::string v, n;
        if (after(line, "addNewInterfacetoMap Added ", " ", &n)) {
            addLink(n);
        } else if (after(line, "TCPing cacla rtt is ", ",", &v) &&
                   after(line, ",device is ", " \r", &n) && validName(n)) {
            addLink(n);
            const int rtt = std::max(1, std::min(60000, atoi(v.c_str())));
            changes.push_back({std::max<int64_t>(0, ms - kProbeRoundTrips * rtt), n,
                               "rtt=" + std::to_string(rtt) + "ms up", false});
            down[n] = false;
        } else if ((after(line, "Ping Miss for RTT interface (", ")", &n) ||
                    after(line, "Ping FAIL for RTT interface (", ")", &n)) &&
                   validName(n)) {
            addLink(n);
            if (!down[n]) changes.push_back({std::max<int64_t>(0, ms - 500), n, "down", false});
            down[n] = true;
        } else if (after(line, "perform switch ", " \r", &n) && validName(n)) {
            chosen = n;
        } else if (after(line, "map server is ", "\r", &v)) {
            std::string p;
            if (after(line, "port is ", ",", &p) && atoi(p.c_str()) > 0) port = p;
            if (slsStart < 0) slsStart = ms;
        } else if (after(line, "checkGamingServerRtt rtt is ", ",", &v)) {
            if (slsStart < 0) slsStart = ms;
            // The game's own RTT stands for its link while no probe measures that link.
            // Before any switch the game follows the default route (named once all is read).
            const int rtt = atoi(v.c_str());
            if (rtt > 0 && rtt <= 60000) {
                changes.push_back({ms, chosen, "rtt=" + std::to_string(rtt) + "ms up", true});
                if (!chosen.empty()) down[chosen] = false;
            }
        } else if (after(line, "msg.id=8, ", "\r", &v) && after(line, "msg.message=[", "]", &v)) {
            if (atoi(v.c_str()) != 0 && callStart < 0) {
                callStart = ms;
            } else if (atoi(v.c_str()) == 0 && callStart >= 0 && callEnd < 0) {
                callEnd = ms;
            }
        }
    }
    if (links.empty()) {
        *why = "the log shows no link (no interface list, probe or switch lines)";
        return false;
    }
    // The game's link before any switch: the default route, Wi-Fi if there is one.
    std::string defaultLink = links[0];
    for (const std::string& l : links) {
        if (l.compare(0, 4, "wlan") == 0) {
            defaultLink = l;
            break;
        }
    }
    std::ostringstream out;
    out << "# Rebuilt from " << path << " by mlbd-replay --from-log\n";
    out << "duration " << last + 1000 << "ms\n";
    for (Change& c : changes) {
        if (c.link.empty()) c.link = defaultLink;
    }
    std::stable_sort(changes.begin(), changes.end(),
                     [](const Change& a, const Change& b) { return a.atMs < b.atMs; });
    // The game's RTT is the kernel's smoothed value and lags the link: for a few seconds after a
    // probe of the same link, the probe is the better witness.
    std::map<std::string, std::vector<int64_t>> probed;
    for (const Change& c : changes) {
        if (!c.fromGame) probed[c.link].push_back(c.atMs);
    }
    changes.erase(std::remove_if(changes.begin(), changes.end(),
                                 [&](const Change& c) {
                                     if (!c.fromGame) return false;
                                     const std::vector<int64_t>& p = probed[c.link];
                                     auto it = std::lower_bound(p.begin(), p.end(), c.atMs - 3000);
                                     return it != p.end() && *it <= c.atMs;
                                 }),
                  changes.end());
    // Each link starts as it was first seen.
    for (const Change& c : changes) {
        if (!firstRtt.count(c.link) && c.what != "down")
            firstRtt[c.link] = atoi(c.what.c_str() + 4);
    }
    for (const std::string& l : links) {
        out << "link " << l << " rtt=" << (firstRtt.count(l) ? firstRtt[l] : 50) << "ms\n";
    }
    out << "default " << defaultLink << "\n";
    if (slsStart >= 0) {
        out << "game port=" << port << " every=100ms\n";
        out << "sls " << slsStart << "ms\n";
    }
    if (callStart >= 0)
        out << "call " << callStart << "ms " << (callEnd > callStart ? callEnd : last + 1000)
            << "ms\n";
    for (const Change& c : changes) {
        if (std::find(links.begin(), links.end(), c.link) == links.end()) continue;
        out << "at " << c.atMs << "ms " << c.link << " " << c.what << "\n";
    }
    *trace = out.str();
    return true;
}

}  // namespace replay
}  // namespace mlbd
