/*
 * Trace parsing and expansion into per-link timelines.
 */
#include "Trace.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

namespace mlbd {
namespace replay {

namespace {

// The longest trace accepted (a day), and the most breakpoints per link, so that a hostile file
// cannot make the expansion run away.
constexpr int64_t kMaxDurationMs = 24LL * 3600 * 1000;
constexpr size_t kMaxPoints = 2000000;

enum EventKind { kRtt, kLoss, kUp, kJitter, kBurst };

struct Event {
    int64_t t;
    int order;  // declaration order breaks ties: a later line wins at the same instant
    EventKind kind;
    double value;
};

std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

bool parseNumber(const std::string& text, const char* unit, double* value) {
    const size_t n = strlen(unit);
    if (text.size() <= n || text.compare(text.size() - n, n, unit) != 0) return false;
    const std::string digits = text.substr(0, text.size() - n);
    char* end = nullptr;
    *value = strtod(digits.c_str(), &end);
    return end != nullptr && *end == '\0' && !digits.empty() && std::isfinite(*value);
}

bool parsePercent(const std::string& text, double* fraction) {
    double v = 0;
    if (!parseNumber(text, "%", &v) || v < 0 || v > 100) return false;
    *fraction = v / 100.0;
    return true;
}

// key=value pairs after the positional words.
bool keyValues(const std::vector<std::string>& w, size_t from,
               std::map<std::string, std::string>* kv, std::vector<std::string>* flags) {
    for (size_t i = from; i < w.size(); ++i) {
        const size_t eq = w[i].find('=');
        if (eq == std::string::npos) {
            flags->push_back(w[i]);
        } else {
            (*kv)[w[i].substr(0, eq)] = w[i].substr(eq + 1);
        }
    }
    return true;
}

}  // namespace

bool parseDurationMs(const std::string& text, int64_t* ms) {
    double v = 0;
    if (parseNumber(text, "ms", &v)) {
        // "ms" is tried first: "5ms" also ends in "s".
    } else if (parseNumber(text, "s", &v)) {
        v *= 1000.0;
    } else {
        return false;
    }
    if (v < 0 || v > static_cast<double>(kMaxDurationMs)) return false;
    *ms = static_cast<int64_t>(llround(v));
    return true;
}

const LinkPoint& TraceLink::at(int64_t ms) const {
    // The last point at or before ms; the first point is at 0.
    auto it = std::upper_bound(points.begin(), points.end(), ms,
                               [](int64_t t, const LinkPoint& p) { return t < p.atMs; });
    return it == points.begin() ? points.front() : *(it - 1);
}

const TraceLink* Trace::find(const std::string& name) const {
    for (const TraceLink& l : links) {
        if (l.name == name) return &l;
    }
    return nullptr;
}

bool parseTrace(const std::string& text, Trace* out, std::string* why) {
    Trace t;
    std::map<std::string, std::vector<Event>> events;
    std::map<std::string, LinkPoint> initial;
    std::istringstream in(text);
    int lineNo = 0;
    int order = 0;
    auto fail = [&](const std::string& what) {
        *why = "line " + std::to_string(lineNo) + ": " + what;
        return false;
    };
    auto needLink = [&](const std::string& name) { return initial.count(name) != 0; };
    // Each randomised directive draws from its own generator, seeded by the trace's seed and its
    // line, so that editing one directive leaves the others' draws as they were.
    auto rngFor = [&](int line) { return std::mt19937_64(t.seed * 1000003ULL + line); };
    struct Deferred {
        int line;
        std::vector<std::string> w;
    };
    std::vector<Deferred> randomised;  // expanded once the seed and duration are known

    for (std::string line; std::getline(in, line);) {
        ++lineNo;
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        const std::vector<std::string> w = words(line);
        if (w.empty()) continue;
        const std::string& d = w[0];
        std::map<std::string, std::string> kv;
        std::vector<std::string> flags;
        if (d == "duration" && w.size() == 2) {
            if (!parseDurationMs(w[1], &t.durationMs) || t.durationMs == 0) {
                return fail("bad duration '" + w[1] + "'");
            }
        } else if (d == "seed" && w.size() == 2) {
            char* end = nullptr;
            t.seed = strtoull(w[1].c_str(), &end, 10);
            if (*end != '\0') return fail("bad seed");
        } else if (d == "link" && w.size() >= 2) {
            if (needLink(w[1])) return fail("link " + w[1] + " declared twice");
            if (w[1].empty() || w[1].size() > 15) return fail("bad link name");
            LinkPoint p;
            p.rttMs = 20;
            keyValues(w, 2, &kv, &flags);
            int64_t ms = 0;
            if (kv.count("rtt") && !parseDurationMs(kv["rtt"], &ms)) return fail("bad rtt");
            if (kv.count("rtt")) p.rttMs = static_cast<double>(ms);
            if (kv.count("loss") && !parsePercent(kv["loss"], &p.loss)) return fail("bad loss");
            for (const std::string& f : flags) {
                if (f != "down") return fail("unknown word '" + f + "'");
                p.up = false;
            }
            initial[w[1]] = p;
            t.links.push_back(TraceLink{w[1], {}});
            if (t.defaultLink.empty()) t.defaultLink = w[1];
        } else if (d == "default" && w.size() == 2) {
            if (!needLink(w[1])) return fail("unknown link " + w[1]);
            t.defaultLink = w[1];
        } else if (d == "game") {
            t.game = true;
            keyValues(w, 1, &kv, &flags);
            if (!flags.empty()) return fail("unknown word '" + flags[0] + "'");
            for (const auto& e : kv) {
                if (e.first == "uid" || e.first == "port") {
                    char* end = nullptr;
                    const unsigned long v = strtoul(e.second.c_str(), &end, 10);
                    if (*end != '\0' || v == 0 || (e.first == "port" && v > 65535) ||
                        v > 0x7FFFFFFF) {
                        return fail("bad " + e.first);
                    }
                    (e.first == "uid" ? t.gameUid : t.gamePort) = static_cast<uint32_t>(v);
                } else if (e.first == "every") {
                    if (!parseDurationMs(e.second, &t.gameEveryMs)) return fail("bad every");
                } else if (e.first == "start") {
                    if (!parseDurationMs(e.second, &t.gameStartMs)) return fail("bad start");
                } else {
                    return fail("unknown game setting '" + e.first + "'");
                }
            }
        } else if (d == "sls" && w.size() == 2) {
            if (!parseDurationMs(w[1], &t.slsStartMs)) return fail("bad time");
        } else if (d == "at" && w.size() >= 4) {
            int64_t at = 0;
            if (!parseDurationMs(w[1], &at)) return fail("bad time '" + w[1] + "'");
            if (!needLink(w[2])) return fail("unknown link " + w[2]);
            keyValues(w, 3, &kv, &flags);
            std::vector<Event>& ev = events[w[2]];
            for (const auto& e : kv) {
                int64_t ms = 0;
                double loss = 0;
                if (e.first == "rtt" && parseDurationMs(e.second, &ms)) {
                    ev.push_back({at, order++, kRtt, static_cast<double>(ms)});
                } else if (e.first == "loss" && parsePercent(e.second, &loss)) {
                    ev.push_back({at, order++, kLoss, loss});
                } else {
                    return fail("bad setting '" + e.first + "=" + e.second + "'");
                }
            }
            for (const std::string& f : flags) {
                if (f != "down" && f != "up") return fail("unknown word '" + f + "'");
                ev.push_back({at, order++, kUp, f == "up" ? 1.0 : 0.0});
            }
        } else if (d == "ramp" && w.size() == 5) {
            int64_t from = 0, to = 0, a = 0, b = 0;
            const size_t dots = w[4].find("..");
            if (!parseDurationMs(w[1], &from) || !parseDurationMs(w[2], &to) || to <= from) {
                return fail("bad ramp times");
            }
            if (!needLink(w[3])) return fail("unknown link " + w[3]);
            if (w[4].compare(0, 4, "rtt=") != 0 || dots == std::string::npos ||
                !parseDurationMs(w[4].substr(4, dots - 4), &a) ||
                !parseDurationMs(w[4].substr(dots + 2), &b)) {
                return fail("ramp wants rtt=Ams..Bms");
            }
            // A ramp is a staircase of 100 ms steps, ending on its last value.
            if (events[w[3]].size() + static_cast<size_t>((to - from) / 100) > kMaxPoints) {
                return fail("too many changes");
            }
            for (int64_t s = from; s < to; s += 100) {
                const double v = a + (b - a) * static_cast<double>(s - from) / (to - from);
                events[w[3]].push_back({s, order, kRtt, floor(v + 0.5)});
            }
            events[w[3]].push_back({to, order++, kRtt, static_cast<double>(b)});
        } else if ((d == "jitter" || d == "gilbert" || d == "gaps") && w.size() >= 5) {
            int64_t from = 0, to = 0;
            if (!parseDurationMs(w[1], &from) || !parseDurationMs(w[2], &to) || to <= from) {
                return fail("bad window");
            }
            if (!needLink(w[3])) return fail("unknown link " + w[3]);
            randomised.push_back({lineNo, w});
        } else if (d == "call" && w.size() == 3) {
            if (!parseDurationMs(w[1], &t.callStartMs) || !parseDurationMs(w[2], &t.callEndMs) ||
                t.callEndMs <= t.callStartMs) {
                return fail("bad call window");
            }
        } else if (d == "rssi" && w.size() == 3) {
            int64_t at = 0;
            char* end = nullptr;
            const long v = strtol(w[2].c_str(), &end, 10);
            if (!parseDurationMs(w[1], &at) || *end != '\0' || v < -200 || v > 100) {
                return fail("bad rssi");
            }
            t.rssi.emplace_back(at, static_cast<int32_t>(v));
        } else if (d == "expect" && w.size() >= 2) {
            Expectation e;
            size_t i = 2;
            if (w[1] == "leave" || w[1] == "return") {
                e.kind = w[1] == "leave" ? Expectation::kLeave : Expectation::kReturn;
                if (w.size() < 3 || !needLink(w[2])) return fail("expect wants a known link");
                e.link = w[2];
                i = 3;
            } else if (w[1] != "stay") {
                return fail("expect leave, stay or return");
            }
            for (; i + 1 < w.size(); i += 2) {
                int64_t ms = 0;
                if (!parseDurationMs(w[i + 1], &ms)) return fail("bad time '" + w[i + 1] + "'");
                if (w[i] == "at" || w[i] == "from") {
                    e.atMs = ms;
                } else if (w[i] == "until") {
                    e.untilMs = ms;
                } else {
                    return fail("unknown word '" + w[i] + "'");
                }
            }
            if (i != w.size()) return fail("dangling word '" + w.back() + "'");
            t.expect.push_back(e);
        } else {
            return fail("unknown or incomplete directive '" + d + "'");
        }
    }
    if (t.links.empty()) {
        *why = "no link declared";
        return false;
    }

    for (const Deferred& r : randomised) {
        lineNo = r.line;
        const std::vector<std::string>& w = r.w;
        int64_t from = 0, to = 0;
        parseDurationMs(w[1], &from);
        parseDurationMs(w[2], &to);
        to = std::min(to, t.durationMs);
        std::map<std::string, std::string> kv;
        std::vector<std::string> flags;
        keyValues(w, 4, &kv, &flags);
        if (!flags.empty()) return fail("unknown word '" + flags[0] + "'");
        auto number = [&](const char* key, const char* unit, double def, double* v) {
            if (!kv.count(key)) {
                *v = def;
                return true;
            }
            if (strcmp(unit, "%") == 0) return parsePercent(kv[key], v);
            int64_t ms = 0;
            if (!parseDurationMs(kv[key], &ms)) return false;
            *v = static_cast<double>(ms);
            return true;
        };
        std::mt19937_64 rng = rngFor(r.line);
        std::uniform_real_distribution<double> uniform(0.0, 1.0);
        std::vector<Event>& ev = events[w[3]];
        const int o = order++;
        if (w[0] == "jitter") {
            // Extra delay from a Lomax (Pareto II) law: heavy-tailed, mostly small. One draw per
            // step, capped.
            double scale = 0, step = 0, cap = 0, shape = 1.5;
            if (!number("scale", "ms", 5, &scale) || !number("step", "ms", 100, &step) ||
                !number("cap", "ms", 1000, &cap) || step < 1) {
                return fail("bad jitter setting");
            }
            if (kv.count("shape")) shape = strtod(kv["shape"].c_str(), nullptr);
            if (!(shape > 0.1 && shape < 100)) return fail("bad shape");
            for (int64_t s = from; s < to; s += static_cast<int64_t>(step)) {
                const double u = std::max(1e-12, 1.0 - uniform(rng));
                ev.push_back(
                        {s, o, kJitter, std::min(cap, floor(scale * (pow(u, -1.0 / shape) - 1)))});
                if (ev.size() > kMaxPoints) return fail("too many changes");
            }
            ev.push_back({to, o, kJitter, 0});
        } else if (w[0] == "gilbert") {
            // Gilbert-Elliott: per step, good -> bad with p, bad -> good with r; in the bad state
            // packets are lost with bad-loss, in the good state at the link's own loss rate.
            double p = 0, rr = 0, bad = 0, step = 0;
            if (!number("p", "%", 0.01, &p) || !number("r", "%", 0.3, &rr) ||
                !number("bad-loss", "%", 1.0, &bad) || !number("step", "ms", 10, &step) ||
                step < 1 || rr <= 0) {
                return fail("bad gilbert setting");
            }
            bool inBad = false;
            for (int64_t s = from; s < to; s += static_cast<int64_t>(step)) {
                const bool next = inBad ? uniform(rng) >= rr : uniform(rng) < p;
                if (next != inBad) ev.push_back({s, o, kBurst, next ? bad : -1.0});
                if (ev.size() > kMaxPoints) return fail("too many changes");
                inBad = next;
            }
            ev.push_back({to, o, kBurst, -1.0});
        } else {
            // Hand-over gaps: the link is down for about `length` roughly every `every`.
            double every = 0, length = 0;
            if (!number("every", "ms", 20000, &every) || !number("length", "ms", 800, &length) ||
                every < 10 || length < 1) {
                return fail("bad gaps setting");
            }
            for (double s = from + every * (0.5 + 0.5 * uniform(rng)); s < to;
                 s += every * (0.75 + 0.5 * uniform(rng))) {
                const double len = length * (0.5 + uniform(rng));
                ev.push_back({static_cast<int64_t>(s), o, kUp, 0.0});
                ev.push_back({static_cast<int64_t>(s + len), o, kUp, 1.0});
                if (ev.size() > kMaxPoints) return fail("too many changes");
            }
        }
    }

    for (TraceLink& link : t.links) {
        LinkPoint base = initial[link.name];
        double jitter = 0, burst = -1, loss = base.loss, rtt = base.rttMs;
        bool up = base.up;
        std::vector<Event>& ev = events[link.name];
        std::stable_sort(ev.begin(), ev.end(), [](const Event& a, const Event& b) {
            return a.t != b.t ? a.t < b.t : a.order < b.order;
        });
        auto emit = [&](int64_t at) {
            LinkPoint p;
            p.atMs = at;
            p.rttMs = rtt + jitter;
            p.loss = burst >= 0 ? std::max(burst, loss) : loss;
            p.up = up;
            if (!link.points.empty() && link.points.back().atMs == at) {
                link.points.back() = p;
            } else if (link.points.empty() || link.points.back().rttMs != p.rttMs ||
                       link.points.back().loss != p.loss || link.points.back().up != p.up) {
                link.points.push_back(p);
            }
        };
        emit(0);
        for (const Event& e : ev) {
            if (e.t > t.durationMs) break;
            switch (e.kind) {
                case kRtt:
                    rtt = e.value;
                    break;
                case kLoss:
                    loss = e.value;
                    break;
                case kUp:
                    up = e.value != 0;
                    break;
                case kJitter:
                    jitter = e.value;
                    break;
                case kBurst:
                    burst = e.value;
                    break;
            }
            emit(e.t);
            if (link.points.size() > kMaxPoints) {
                *why = "link " + link.name + ": too many changes";
                return false;
            }
        }
    }
    for (const Expectation& e : t.expect) {
        if (e.atMs > t.durationMs) {
            *why = "an expectation begins after the end of the trace";
            return false;
        }
    }
    std::sort(t.rssi.begin(), t.rssi.end());
    *out = std::move(t);
    return true;
}

bool loadTrace(const std::string& path, Trace* out, std::string* why) {
    std::ifstream in(path);
    if (!in) {
        *why = "cannot read " + path;
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return parseTrace(text.str(), out, why);
}

}  // namespace replay
}  // namespace mlbd
