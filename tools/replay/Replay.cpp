/*
 * The replay engine: one discrete-event simulation per trace, driving the daemon's selection and
 * monitor code through their seams.
 */
#include "Replay.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <errno.h>
#include <ftw.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <set>

#include "iptables/IptablesManager.h"
#include "iptables/execnetd.h"
#include "monitor/SlaTcpSocketMonitor.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"
#include "sls/SmartLinkSelection.h"
#include "sls/Tcping.h"

namespace mlbd {
namespace replay {

namespace {

constexpr int64_t kMs = 1000;  // virtual time is kept in microseconds
constexpr int64_t kSecond = 1000 * kMs;
// The probe's connect and receive time-outs.
constexpr int64_t kProbeTimeoutUs = 500 * kMs;
constexpr int kProbeExchanges = 10;
// IPv4 and TCP headers with timestamps; a SYN carries 8 more bytes of options.
constexpr int64_t kHeaderBytes = 52;
constexpr int64_t kSynBytes = 60;
// The kernel's lower bound of the retransmission time-out, and the first SYN's time-out.
constexpr int64_t kRtoMinUs = 200 * kMs;
constexpr int64_t kSynRtoUs = kSecond;
// The game gives up on a connection (connect, or an answer) after 3 s and reconnects 0.2 s later.
constexpr int64_t kGameTimeoutUs = 3 * kSecond;
constexpr int64_t kGameReconnectUs = 200 * kMs;
// The VoIP monitor samples the signal twice a second.
constexpr int64_t kVoipSampleUs = 500 * kMs;
// The kernel clock's reading when the replay starts, ms.
constexpr int64_t kUptimeAtStartMs = 600000;
// The game's server, as the monitor's dump shows it.
constexpr const char* kGameServer = "10.200.0.1";
// Process and thread ids of the log lines.
constexpr int kPid = 4242;
constexpr int kMainTid = 4242, kControlTid = 4243, kMonitorTid = 4244, kProbeTid0 = 4300;

constexpr int64_t kRtoMaxUs = 120 * kSecond;

// The kernel's retransmission time-out: the smoothed RTT plus its (four times scaled) mean
// deviation, at least the lower bound.
int64_t retransmitTimeoutUs(uint32_t srtt8, uint32_t mdev) {
    return (srtt8 >> 3) + std::max<int64_t>(mdev, kRtoMinUs);
}

enum EventType {
    kEnd,
    kSlsStart,
    kCallStart,
    kCallEnd,
    kLoopTick,
    kChoice,  // a choice wanted before the next cycle, run by the main loop's pause
    kMonitorPoll,
    kMonitorQuick,  // a quick check between two polls (slow_leave_checks)
    kVoipSample,
    kProbeCheck,
    kProbeDone,
    kGameConnect,
    kGameConnected,
    kGameConnectFail,
    kGameSend,
    kGameSpurious,
    kGameAnswer,
    kGameTimeout,
    kGameReset,
};

struct Event {
    int64_t t;
    uint64_t order;
    EventType type;
    int64_t a;     // thread index, attempt number
    uint64_t gen;  // connection generation
    uint64_t seq;  // request number
    bool operator>(const Event& o) const { return t != o.t ? t > o.t : order > o.order; }
};

struct ProbeOutcome {
    int64_t durationUs = 0;
    int result = -1;           // what Tcping reports
    uint32_t kernelRttUs = 0;  // the connection's smoothed RTT, on success
    int failure = 0;           // 0 none, 1 connect, 2 receive
    int64_t bytes = 0;
};

struct VirtualThread {
    std::shared_ptr<InterfaceRtt> rec;
    uint32_t intervalMs = 0;
    ProbeOutcome pending;
};

struct GameConn {
    uint64_t gen = 0;
    std::string link;
    bool alive = false;
    bool established = false;
    int64_t startUs = 0;
    std::vector<int64_t> synTimes;
    uint32_t segsOut = 0, segsIn = 0;
    uint32_t srtt8 = 0, mdev = 0;
    int64_t lastAckUs = 0;
    uint64_t seq = 0;
    bool waiting = false;
    bool inFlight = false;  // a request sent and not yet answered
};

class Sim;
Sim* gSim = nullptr;
int gTid = kMainTid;
int64_t gNowUs = 0;
struct timeval gEpoch = {1700000000, 0};

struct timeval virtualTimeOfDay() {
    struct timeval tv = gEpoch;
    tv.tv_sec += gNowUs / kSecond;
    tv.tv_usec += gNowUs % kSecond;
    if (tv.tv_usec >= 1000000) {
        tv.tv_sec += 1;
        tv.tv_usec -= 1000000;
    }
    return tv;
}

FILE* gLog = nullptr;

char priorityLetter(int priority) {
    static const char kLetters[] = "??VDIWEF";
    return priority >= 2 && priority <= 7 ? kLetters[priority] : 'F';
}

// The daemon's log format (logcat threadtime) with the virtual time as the stamp.
void writeLine(int priority, const char* tag, const char* message) {
    if (gLog == nullptr) return;
    const int64_t ms = gNowUs / kMs;
    const int64_t day = ms / 86400000, inDay = ms % 86400000;
    char head[96];
    snprintf(head, sizeof(head),
             "01-%02d %02d:%02d:%02d.%03d %5d %5d %c %-8s: ", static_cast<int>(1 + day % 28),
             static_cast<int>(inDay / 3600000), static_cast<int>(inDay / 60000 % 60),
             static_cast<int>(inDay / 1000 % 60), static_cast<int>(inDay % 1000), kPid, gTid,
             priorityLetter(priority), tag ? tag : "mlbd");
    const char* p = message ? message : "";
    size_t len = strlen(p);
    while (len > 0 && p[len - 1] == '\n') --len;
    size_t start = 0;
    do {
        const char* nl = static_cast<const char*>(memchr(p + start, '\n', len - start));
        const size_t end = nl ? static_cast<size_t>(nl - p) : len;
        fputs(head, gLog);
        fwrite(p + start, 1, end - start, gLog);
        fputc('\n', gLog);
        start = end + 1;
    } while (start <= len);
}

#ifdef __ANDROID__
void replayLogger(const struct __android_log_message* m) {
    writeLine(m ? m->priority : ANDROID_LOG_INFO, m ? m->tag : nullptr, m ? m->message : "");
}
#else
void replayLogger(const struct __android_logger_data* data, const char* message) {
    writeLine(data ? data->priority : ANDROID_LOG_INFO, data ? data->tag : nullptr, message);
}
#endif

bool isCellularName(const std::string& name) {
    return name.compare(0, 10, "rmnet_data") == 0 || name.compare(0, 5, "ccmni") == 0;
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\u%04x", c);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string seconds(int64_t ms) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.3f", static_cast<double>(ms) / 1000.0);
    return buf;
}

class Sim {
  public:
    Sim(const Trace& trace, const ReplayOptions& options, Summary* summary)
        : trace_(trace),
          options_(options),
          summary_(summary),
          rng_(trace.seed * 7919ULL + options.seed) {}

    ~Sim();
    bool run(std::string* why);

    // Seams.
    bool startThread(const std::shared_ptr<InterfaceRtt>& rec, pthread_t* handle);
    void resetSockets(const char* uid);
    int dump(const android::net::SockDiag::TcpInfoReader& reader);

  private:
    void schedule(int64_t t, EventType type, int64_t a = 0, uint64_t gen = 0, uint64_t seq = 0) {
        queue_.push(Event{t, order_++, type, a, gen, seq});
    }
    double uniform() { return std::uniform_real_distribution<double>(0.0, 1.0)(rng_); }
    const TraceLink* link(const std::string& name) const { return trace_.find(name); }
    // Whether one packet sent on `l` at `us` gets through.
    bool passes(const TraceLink* l, int64_t us) {
        const LinkPoint& p = l->at(us / kMs);
        return p.up && (p.loss <= 0 || uniform() >= p.loss);
    }
    int64_t rttUs(const TraceLink* l, int64_t us) const {
        return static_cast<int64_t>(l->at(us / kMs).rttMs * kMs);
    }
    ProbeOutcome probe(const TraceLink* l, int64_t start, int64_t exchangeCostUs);
    std::string steered() const;
    void noteSteering();
    void gameConnect();
    void gameDrop(bool reconnect);
    void gameSend(int64_t attempt);
    void takeGame();
    void handle(const Event& e);
    void finish();

    const Trace& trace_;
    const ReplayOptions& options_;
    Summary* summary_;
    std::mt19937_64 rng_;
    std::priority_queue<Event, std::vector<Event>, std::greater<Event>> queue_;
    uint64_t order_ = 0;
    Parameters* params_ = nullptr;
    std::shared_ptr<SmartLinkSelection> sls_;
    std::unique_ptr<SlaTcpSocketMonitor> monitor_;
    std::vector<VirtualThread> threads_;
    bool steering_ = false;  // the selection chains steer the game
    bool voipMonitor_ = false;
    GameConn conn_;
    uint64_t nextGen_ = 1;
    std::vector<std::pair<int64_t, std::string>> steeredAt_;  // ms, link
    std::shared_ptr<InterfaceRtt> lastCurrent_;
    std::string root_;
    std::set<size_t> notChosen_;  // changes of the steered link that the choice did not make
};

bool Sim::startThread(const std::shared_ptr<InterfaceRtt>& rec, pthread_t* handle) {
    VirtualThread t;
    t.rec = rec;
    // The thread body reads the pause once, when it starts.
    t.intervalMs = static_cast<uint32_t>(params_->ping_interval_ms.load());
    threads_.push_back(t);
    *handle = static_cast<pthread_t>(kProbeTid0 + threads_.size() - 1);
    schedule(gNowUs + options_.probePhaseUs, kProbeCheck,
             static_cast<int64_t>(threads_.size() - 1));
    return true;
}

void Sim::resetSockets(const char* uid) {
    if (strtoul(uid, nullptr, 10) != trace_.gameUid) return;
    summary_->socketResets++;
    // The rule commands before the resets take their time on the main loop.
    schedule(gNowUs + options_.switchCostUs, kGameReset, 0, conn_.gen);
}

int Sim::dump(const android::net::SockDiag::TcpInfoReader& reader) {
    if (!trace_.game || !conn_.alive) return 0;
    inet_diag_msg msg;
    memset(&msg, 0, sizeof(msg));
    msg.idiag_family = AF_INET;
    msg.idiag_state = conn_.established ? 1 : 2;  // ESTABLISHED or SYN_SENT
    msg.id.idiag_dport = htons(static_cast<uint16_t>(trace_.gamePort));
    msg.id.idiag_sport = htons(40000);
    inet_pton(AF_INET, kGameServer, &msg.id.idiag_dst[0]);
    msg.idiag_uid = trace_.gameUid;
    android::net::tcp_info_ext info;
    memset(&info, 0, sizeof(info));
    info.tcpi_state = msg.idiag_state;
    if (conn_.established) {
        info.tcpi_segs_out = conn_.segsOut;
        info.tcpi_segs_in = conn_.segsIn;
        info.tcpi_rtt = conn_.srtt8 >> 3;
        info.tcpi_last_ack_recv = static_cast<uint32_t>((gNowUs - conn_.lastAckUs) / kMs);
        info.tcpi_unacked = conn_.inFlight ? 1 : 0;
    } else {
        uint32_t syns = 0;
        for (int64_t s : conn_.synTimes) syns += s <= gNowUs ? 1 : 0;
        info.tcpi_segs_out = syns;
        // A connecting socket has never received an ACK: the kernel reports the time since its
        // clock's origin, which grows by the poll interval from one dump to the next.
        info.tcpi_last_ack_recv = static_cast<uint32_t>(kUptimeAtStartMs + gNowUs / kMs);
    }
    reader(&msg, &info, sizeof(info));
    return 0;
}

ProbeOutcome Sim::probe(const TraceLink* l, int64_t start, int64_t exchangeCostUs) {
    ProbeOutcome out;
    // The connection: one SYN (its retransmission would come after the time-out).
    out.bytes += kSynBytes;
    const int64_t h = rttUs(l, start);
    if (!passes(l, start) || !passes(l, start + h) || h > kProbeTimeoutUs) {
        out.durationUs = kProbeTimeoutUs;
        out.failure = 1;
        return out;
    }
    out.bytes += kSynBytes + kHeaderBytes;
    uint32_t srtt8 = 0, mdev = 0;
    kernelRttSample(&srtt8, &mdev, static_cast<uint32_t>(h));
    int64_t t = start + h;
    for (int i = 0; i < kProbeExchanges; ++i) {
        const int64_t sent = t;
        int64_t rto = retransmitTimeoutUs(srtt8, mdev);
        int64_t attempt = t;
        bool done = false;
        while (attempt - sent < kProbeTimeoutUs) {
            out.bytes += 28 + kHeaderBytes;
            const int64_t r = rttUs(l, attempt);
            if (passes(l, attempt) && passes(l, attempt + r)) {
                if (attempt + r - sent <= kProbeTimeoutUs) {
                    out.bytes += 30 + kHeaderBytes;
                    kernelRttSample(&srtt8, &mdev, static_cast<uint32_t>(r));
                    t = attempt + r + exchangeCostUs;
                    done = true;
                }
                break;
            }
            attempt += rto;
            rto *= 2;
        }
        if (!done) {
            out.durationUs = sent + kProbeTimeoutUs - start;
            out.failure = 2;
            return out;
        }
    }
    out.bytes += 4 * kHeaderBytes;  // the close
    out.durationUs = t - start;
    out.kernelRttUs = srtt8 >> 3;
    return out;
}

std::string Sim::steered() const {
    if (steering_ && sls_ && sls_->current) return sls_->current->name;
    return trace_.defaultLink;
}

void Sim::noteSteering() {
    const std::string now = steered();
    if (steeredAt_.empty() || steeredAt_.back().second != now) {
        if (!steeredAt_.empty()) summary_->linkChanges++;
        steeredAt_.emplace_back(gNowUs / kMs, now);
    }
}

void Sim::gameConnect() {
    conn_ = GameConn();
    conn_.gen = nextGen_++;
    conn_.link = steered();
    conn_.alive = true;
    conn_.startUs = gNowUs;
    summary_->gameConnections++;
    const TraceLink* l = link(conn_.link);
    // SYNs at 0 and 1 s (the next would come after the game's 3 s time-out).
    for (int64_t at = gNowUs; at < gNowUs + kGameTimeoutUs;
         at += kSynRtoUs * (at == gNowUs ? 1 : 2)) {
        conn_.synTimes.push_back(at);
        const int64_t r = rttUs(l, at);
        if (passes(l, at) && passes(l, at + r) && at + r < gNowUs + kGameTimeoutUs) {
            schedule(at + r, kGameConnected, 0, conn_.gen, static_cast<uint64_t>(r));
            return;
        }
    }
    schedule(gNowUs + kGameTimeoutUs, kGameConnectFail, 0, conn_.gen);
}

void Sim::gameDrop(bool reconnect) {
    conn_.alive = false;
    if (reconnect) schedule(gNowUs + kGameReconnectUs, kGameConnect);
}

void Sim::gameSend(int64_t attempt) {
    const TraceLink* l = link(conn_.link);
    conn_.segsOut++;
    conn_.inFlight = true;
    const int64_t r = rttUs(l, gNowUs);
    const int64_t rto =
            std::min<int64_t>(retransmitTimeoutUs(conn_.srtt8, conn_.mdev) << attempt, kRtoMaxUs);
    if (passes(l, gNowUs) && passes(l, gNowUs + r)) {
        schedule(gNowUs + r, kGameAnswer, r, conn_.gen, conn_.seq);
        // A retransmission time-out that expires before the answer arrives sends again.
        if (rto < r) schedule(gNowUs + rto, kGameSpurious, 0, conn_.gen, conn_.seq);
    } else {
        schedule(gNowUs + rto, kGameSend, attempt + 1, conn_.gen, conn_.seq);
    }
}

void Sim::takeGame() {
    // As both start commands do: probe the default server until the monitor finds the game's,
    // and steer the game's (or the call's) UID.
    gTid = kControlTid;
    params_->setRttTarget(DEFAULT_RTT_SERVER, 443);
    const std::string uid = std::to_string(trace_.gameUid);
    params_->setGamingUids(uid.c_str());
    params_->populateGamingUids();
    params_->setGamingConnectStatus(true);
}

void Sim::handle(const Event& e) {
    switch (e.type) {
        case kEnd:
            break;
        case kSlsStart: {
            // What starting selection for the game does, without the rules being run and with
            // the monitor's thread and the probe threads replaced by virtual ones.
            takeGame();
            SmartLinkSelection::takeChoiceRequest();  // none left from an earlier trace
            IptablesManager* rules = IptablesManager::instance();
            rules->setup_slm_whitelist();
            rules->setup_SLS_iptables_UID_chains();
            SmartLinkSelection::Init();
            sls_ = SmartLinkSelection::instance();
            sls_->setClock(&virtualTimeOfDay);
            sls_->lastSwitchTime = virtualTimeOfDay();
            sls_->threadStop();
            sls_->createRttThreads();
            voipMonitor_ = true;
            monitor_.reset(new SlaTcpSocketMonitor(
                    [](const android::net::SockDiag::TcpInfoReader& r) { return gSim->dump(r); }));
            monitor_->resumePolling();
            params_->setGamingRunning(true);
            steering_ = true;
            // Resuming wakes the monitor's thread: its first poll comes at once.
            schedule(gNowUs, kMonitorPoll);
            if (!trace_.rssi.empty()) schedule(gNowUs, kVoipSample);
            break;
        }
        case kCallStart: {
            takeGame();
            sls_ = SmartLinkSelection::instance();
            sls_->setClock(&virtualTimeOfDay);
            if (!steering_) sls_->lastSwitchTime = virtualTimeOfDay();
            sls_->threadStop();
            sls_->createRttThreads();
            sls_->threadResume();
            if (!voipMonitor_ && !trace_.rssi.empty()) schedule(gNowUs, kVoipSample);
            voipMonitor_ = true;
            params_->setVoipRunning(true);
            steering_ = true;
            break;
        }
        case kCallEnd: {
            gTid = kControlTid;
            params_->setVoipRunning(false);
            params_->setServiceHighRtt(false);
            params_->setGamingUids(nullptr);
            params_->setGamingConnectStatus(false);
            sls_->threadStop();
            sls_->threadDestory();
            steering_ = false;
            voipMonitor_ = false;
            // The VoIP monitor's end resets the call's sockets.
            for (const std::string& uid : params_->getGamingUidList()) resetSockets(uid.c_str());
            // The end of the call, not the choice, hands the game back to the default route.
            noteSteering();
            if (steeredAt_.size() > 1 && steeredAt_.back().first == gNowUs / kMs) {
                notChosen_.insert(steeredAt_.size() - 1);
            }
            break;
        }
        case kLoopTick:
        case kChoice: {
            gTid = kMainTid;
            SmartLinkSelection::slsChooseInterface();
            const bool switched = sls_ && sls_->current != lastCurrent_;
            if (switched) {
                summary_->switches.push_back(SwitchRecord{
                        gNowUs / kMs, lastCurrent_ ? lastCurrent_->name : "", sls_->current->name});
                lastCurrent_ = sls_->current;
            }
            noteSteering();
            if (e.type == kChoice) break;
            const int64_t period = std::max<uint32_t>(1, params_->get(OPER_MINI_EST_INTERVAL));
            schedule(gNowUs + period * kMs + options_.loopCostUs +
                             (switched ? options_.switchCostUs : 0),
                     kLoopTick);
            break;
        }
        case kMonitorPoll:
        case kMonitorQuick: {
            // A poll, or one of the quick checks the monitor's wait makes between two polls
            // (e.a: its number since the poll).
            if (!monitor_) break;
            gTid = kMonitorTid;
            const bool quick = e.type == kMonitorQuick;
            const int64_t n = quick ? e.a : 0;
            monitor_->poll();
            quick ? monitor_->quickCheck() : monitor_->selectServer();
            if (SmartLinkSelection::takeChoiceRequest())
                schedule(gNowUs + options_.loopCostUs, kChoice);
            if (!quick) schedule(gNowUs + kSecond + options_.monitorCostUs, kMonitorPoll);
            if ((n + 1) * SlaTcpSocketMonitor::kQuickCheckMs < 1000 && monitor_->slowWatching()) {
                schedule(gNowUs + SlaTcpSocketMonitor::kQuickCheckMs * kMs, kMonitorQuick, n + 1);
            }
            break;
        }
        case kVoipSample: {
            if (!voipMonitor_) break;
            // The VoIP monitor's rule: -70 dBm or weaker costs Wi-Fi 200 ms; a reading of 0 or
            // above (no station) leaves the penalty.
            int32_t rssi = 0;
            for (const auto& r : trace_.rssi) {
                if (r.first > gNowUs / kMs) break;
                rssi = r.second;
            }
            if (rssi <= -70) {
                params_->wifiRttPenaltyMs = 200;
            } else if (rssi < 0) {
                params_->wifiRttPenaltyMs = 0;
            }
            schedule(gNowUs + kVoipSampleUs, kVoipSample);
            break;
        }
        case kProbeCheck: {
            VirtualThread& t = threads_[static_cast<size_t>(e.a)];
            gTid = kProbeTid0 + static_cast<int>(e.a);
            if (t.rec->takeProbeTurn()) {
                std::string server;
                int32_t port = 0;
                params_->getRttTarget(&server, &port);
                __android_log_print(ANDROID_LOG_DEBUG, "Mlbd-Tcping",
                                    "populateTcpingSocket server is %s", server.c_str());
                const TraceLink* l = link(t.rec->name);
                t.pending = l ? probe(l, gNowUs, options_.probeExchangeCostUs) : ProbeOutcome();
                if (!l) t.pending.durationUs = 0;
                summary_->probes++;
                summary_->probeBytes += t.pending.bytes;
                schedule(gNowUs + t.pending.durationUs, kProbeDone, e.a);
            } else {
                // The pause, then the thread leaves unless it is still alive.
                // An idle thread only sleeps: none of a probe's work around the pause.
                schedule(gNowUs + t.intervalMs * kMs, kProbeDone, e.a, 1);
            }
            break;
        }
        case kProbeDone: {
            VirtualThread& t = threads_[static_cast<size_t>(e.a)];
            gTid = kProbeTid0 + static_cast<int>(e.a);
            if (e.gen == 1) {
                // The end of a pause.
                if (t.rec->alive) schedule(gNowUs, kProbeCheck, e.a);
                break;
            }
            int result = -1;
            if (t.pending.failure == 1) {
                __android_log_print(ANDROID_LOG_ERROR, "Mlbd-Tcping",
                                    "connect failed of client!\n");
            } else if (t.pending.failure == 2) {
                __android_log_print(ANDROID_LOG_ERROR, "Mlbd-Tcping",
                                    "recieve failed %d,error is %d", -1, EAGAIN);
            } else {
                sls_tcping_info info;
                info.ifaceName = t.rec->name.c_str();
                result = Tcping::reportRtt(&info, t.pending.kernelRttUs);
            }
            t.rec->setSpeed(result);
            // A failed probe that confirms a stall asks for the choice at once.
            if (SmartLinkSelection::takeChoiceRequest())
                schedule(gNowUs + options_.loopCostUs, kChoice);
            schedule(gNowUs + t.intervalMs * kMs + options_.probePauseCostUs, kProbeDone, e.a, 1);
            break;
        }
        case kGameConnect:
            gameConnect();
            break;
        case kGameConnected:
            if (e.gen != conn_.gen || !conn_.alive) break;
            conn_.established = true;
            conn_.segsOut = static_cast<uint32_t>(conn_.synTimes.size()) + 1;  // SYNs and the ACK
            conn_.segsIn = 1;
            conn_.lastAckUs = gNowUs;
            kernelRttSample(&conn_.srtt8, &conn_.mdev, static_cast<uint32_t>(e.seq));
            conn_.seq = 1;
            conn_.waiting = true;
            schedule(gNowUs, kGameSend, 0, conn_.gen, conn_.seq);
            schedule(gNowUs + kGameTimeoutUs, kGameTimeout, 0, conn_.gen, conn_.seq);
            break;
        case kGameConnectFail:
            if (e.gen != conn_.gen || !conn_.alive || conn_.established) break;
            gameDrop(true);
            break;
        case kGameSend:
            if (e.gen != conn_.gen || !conn_.alive || e.seq != conn_.seq || !conn_.waiting) break;
            gameSend(e.a);
            break;
        case kGameSpurious:
            if (e.gen != conn_.gen || !conn_.alive || e.seq != conn_.seq || !conn_.waiting) break;
            conn_.segsOut++;
            break;
        case kGameAnswer:
            if (e.gen != conn_.gen || !conn_.alive || e.seq != conn_.seq || !conn_.waiting) break;
            conn_.waiting = false;
            conn_.inFlight = false;
            conn_.segsIn++;
            conn_.segsOut++;  // its ACK
            conn_.lastAckUs = gNowUs;
            kernelRttSample(&conn_.srtt8, &conn_.mdev, static_cast<uint32_t>(e.a));
            conn_.seq++;
            conn_.waiting = true;
            schedule(gNowUs + trace_.gameEveryMs * kMs, kGameSend, 0, conn_.gen, conn_.seq);
            schedule(gNowUs + trace_.gameEveryMs * kMs + kGameTimeoutUs, kGameTimeout, 0, conn_.gen,
                     conn_.seq);
            break;
        case kGameReset:
            // Destroying the sockets ends a connection that is being made as well.
            if (conn_.alive) gameDrop(true);
            break;
        case kGameTimeout:
            if (e.gen != conn_.gen || !conn_.alive || e.seq != conn_.seq || !conn_.waiting) break;
            gameDrop(true);
            break;
    }
}

bool Sim::run(std::string* why) {
    // The configuration file and properties the daemon would read, in a scratch root.
    char root[256];
    snprintf(root, sizeof(root), "%s/mlbd-replay-XXXXXX", mlbd::scratchDirectory().c_str());
    if (mkdtemp(root) == nullptr) {
        *why = std::string("cannot make a scratch folder: ") + strerror(errno);
        return false;
    }
    const std::string r(root);
    root_ = r;
    mkdir((r + "/properties").c_str(), 0755);
    mkdir((r + "/vendor").c_str(), 0755);
    mkdir((r + "/vendor/etc").c_str(), 0755);
    mkdir((r + "/vendor/etc/sla").c_str(), 0755);
    mkdir((r + "/proc").c_str(), 0755);
    mkdir((r + "/proc/sla").c_str(), 0755);
    std::string ifaces;
    for (const TraceLink& l : trace_.links) ifaces += (ifaces.empty() ? "" : ",") + l.name;
    {
        std::ofstream(r + "/properties/vendor.sla.ifaces") << ifaces;
        std::ofstream(r + "/properties/vendor.sla.mode") << "1";
        std::ofstream(r + "/proc/sla/sla_voip_state") << "0,0";
        std::ofstream conf(r + "/vendor/etc/sla/mlbd.conf");
        for (const std::string& line : options_.config) conf << line << "\n";
    }
    setenv("MLBD_ROOT", r.c_str(), 1);
    gLog = options_.log;
    gNowUs = 0;
    gTid = kMainTid;
    __android_log_set_logger(replayLogger);
    __android_log_set_minimum_priority(gLog ? ANDROID_LOG_VERBOSE : ANDROID_LOG_SILENT);
    static bool made = false;
    params_ = Parameters::instance();
    if (made) {
        params_->reset();
        params_->wifiRttPenaltyMs = 0;
        params_->setGamingConnectStatus(false);
    }
    made = true;
    std::string have;
    for (const auto& e : params_->interfaces()) have += (have.empty() ? "" : ",") + e.first;
    std::string want = ifaces;
    {
        std::vector<std::string> names;
        for (const TraceLink& l : trace_.links) names.push_back(l.name);
        std::sort(names.begin(), names.end());
        want.clear();
        for (const std::string& n : names) want += (want.empty() ? "" : ",") + n;
    }
    if (have != want) {
        *why = "the links (" + want + ") are not those of the first trace of this process (" +
               have + ")";
        return false;
    }

    summary_->durationMs = trace_.durationMs;
    steeredAt_.clear();
    noteSteering();
    const int64_t period = std::max<uint32_t>(1, params_->get(OPER_MINI_EST_INTERVAL));
    const int64_t loopPhase =
            options_.loopPhaseMs >= 0
                    ? options_.loopPhaseMs
                    : static_cast<int64_t>(rng_() % static_cast<uint64_t>(period));
    schedule(loopPhase * kMs, kLoopTick);
    if (trace_.game) {
        schedule(trace_.slsStartMs * kMs, kSlsStart);
        schedule(trace_.gameStartMs * kMs, kGameConnect);
    }
    if (trace_.callStartMs >= 0) {
        schedule(trace_.callStartMs * kMs, kCallStart);
        schedule(trace_.callEndMs * kMs, kCallEnd);
    }
    const int64_t end = trace_.durationMs * kMs;
    schedule(end, kEnd);
    while (!queue_.empty()) {
        const Event e = queue_.top();
        queue_.pop();
        if (e.t > end) break;
        gNowUs = e.t;
        summary_->events++;
        if (e.type == kEnd) break;
        handle(e);
    }
    gNowUs = end;
    finish();

    // The instance and its records go; the next replay in this process starts afresh.
    monitor_.reset();
    SmartLinkSelection::cleanup();
    sls_.reset();
    lastCurrent_.reset();
    threads_.clear();
    return true;
}

Sim::~Sim() {
    if (root_.empty()) return;
    // The scratch root holds only what run() wrote: remove it bottom-up.
    nftw(
            root_.c_str(),
            [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 8,
            FTW_DEPTH | FTW_PHYS);
}

void Sim::finish() {
    Summary& s = *summary_;
    const int64_t endMs = trace_.durationMs;
    const int32_t exitMs = params_->rtt_exit_threshold;
    // Time steered to a metered link, and on a link that is down or above the exit threshold.
    for (size_t i = 0; i < steeredAt_.size(); ++i) {
        const int64_t from = steeredAt_[i].first;
        const int64_t to = i + 1 < steeredAt_.size() ? steeredAt_[i + 1].first : endMs;
        const std::string& name = steeredAt_[i].second;
        const InterfaceInfo_t* info = params_->findInterface(name);
        if (isCellularName(name) || (info && info->metered)) s.meteredMs += to - from;
        const TraceLink* l = link(name);
        if (!l) continue;
        for (size_t p = 0; p < l->points.size(); ++p) {
            const int64_t a = std::max(from, l->points[p].atMs);
            const int64_t b =
                    std::min(to, p + 1 < l->points.size() ? l->points[p + 1].atMs : endMs);
            if (b > a && (!l->points[p].up || l->points[p].rttMs > exitMs)) s.aboveExitMs += b - a;
        }
    }
    // Each change of the game's link is explained by at most one leave or return.
    std::vector<bool> explained(steeredAt_.size(), false);
    for (const Expectation& e : trace_.expect) {
        ExpectationResult r;
        r.expectation = e;
        const int64_t until = e.untilMs >= 0 ? e.untilMs : endMs;
        if (e.kind == Expectation::kStay) {
            for (size_t i = 1; i < steeredAt_.size(); ++i) {
                if (steeredAt_[i].first >= e.atMs && steeredAt_[i].first < until) r.falseSwitches++;
            }
        } else {
            // The link at the start of the window, then the first change that does it.
            std::string at = steeredAt_.front().second;
            size_t i = 1;
            for (; i < steeredAt_.size() && steeredAt_[i].first <= e.atMs; ++i) {
                at = steeredAt_[i].second;
            }
            const bool leave = e.kind == Expectation::kLeave;
            if (leave ? at != e.link : at == e.link) {
                r.resultMs = 0;  // nothing to do: already off (or back on) the link
            } else {
                for (; i < steeredAt_.size() && steeredAt_[i].first < until; ++i) {
                    if (leave ? steeredAt_[i].second != e.link : steeredAt_[i].second == e.link) {
                        r.resultMs = steeredAt_[i].first - e.atMs;
                        explained[i] = true;
                        break;
                    }
                }
                r.missed = r.resultMs < 0;
            }
            (leave ? s.missedLeaves : s.missedReturns) += r.missed ? 1 : 0;
        }
        s.results.push_back(r);
    }
    for (size_t i = 1; i < steeredAt_.size(); ++i) {
        s.falseSwitches += explained[i] || notChosen_.count(i) ? 0 : 1;
    }
}

}  // namespace

void kernelRttSample(uint32_t* srtt8, uint32_t* mdev, uint32_t sampleUs) {
    // As the kernel's estimator: srtt kept eight times scaled, the mean deviation four times.
    int64_t m = sampleUs;
    if (*srtt8 != 0) {
        m -= (*srtt8 >> 3);
        *srtt8 = static_cast<uint32_t>(static_cast<int64_t>(*srtt8) + m);
        if (m < 0) m = -m;
        m -= (*mdev >> 2);
        *mdev = static_cast<uint32_t>(static_cast<int64_t>(*mdev) + m);
    } else {
        *srtt8 = static_cast<uint32_t>(m << 3);
        *mdev = static_cast<uint32_t>(m << 1);
    }
    if (*srtt8 == 0) *srtt8 = 1;
}

bool runReplay(const Trace& trace, const ReplayOptions& options, Summary* summary,
               std::string* why) {
    *summary = Summary();
    Sim sim(trace, options, summary);
    gSim = &sim;
    SmartLinkSelection::setThreadStarter(
            [](const std::shared_ptr<InterfaceRtt>& rec, pthread_t* handle) {
                return gSim->startThread(rec, handle);
            });
    SmartLinkSelection::setSocketKiller([](const char* uid) {
        gSim->resetSockets(uid);
        return 0;
    });
    // The rules are never run: their command lines are dropped.
    mlbd::setCommandSink([](const char*) {});
    const bool ok = sim.run(why);
    mlbd::setCommandSink(nullptr);
    gSim = nullptr;
    gLog = nullptr;
    return ok;
}

std::string summaryJson(const Summary& s) {
    const double minutes = static_cast<double>(s.durationMs) / 60000.0;
    std::string o = "{";
    o += "\"trace\":" + jsonString(s.trace);
    o += ",\"duration_s\":" + seconds(s.durationMs);
    o += ",\"switches\":" + std::to_string(s.switches.size());
    o += ",\"switch_list\":[";
    for (size_t i = 0; i < s.switches.size(); ++i) {
        o += (i ? "," : "") + std::string("{\"t_s\":") + seconds(s.switches[i].atMs) +
             ",\"from\":" + jsonString(s.switches[i].from) +
             ",\"to\":" + jsonString(s.switches[i].to) + "}";
    }
    o += "],\"link_changes\":" + std::to_string(s.linkChanges);
    o += ",\"socket_resets\":" + std::to_string(s.socketResets);
    char buf[64];
    snprintf(buf, sizeof(buf), "%.2f", minutes > 0 ? s.socketResets * 60.0 / minutes : 0.0);
    o += ",\"resets_per_hour\":" + std::string(buf);
    o += ",\"game_connections\":" + std::to_string(s.gameConnections);
    o += ",\"time_on_metered_s\":" + seconds(s.meteredMs);
    o += ",\"time_above_exit_s\":" + seconds(s.aboveExitMs);
    o += ",\"probes\":" + std::to_string(s.probes);
    o += ",\"probe_bytes\":" + std::to_string(s.probeBytes);
    snprintf(buf, sizeof(buf), "%.1f", minutes > 0 ? s.probes / minutes : 0.0);
    o += ",\"probes_per_min\":" + std::string(buf);
    snprintf(buf, sizeof(buf), "%.0f", minutes > 0 ? s.probeBytes / minutes : 0.0);
    o += ",\"probe_bytes_per_min\":" + std::string(buf);
    o += ",\"false_switches\":" + std::to_string(s.falseSwitches);
    o += ",\"missed_leaves\":" + std::to_string(s.missedLeaves);
    o += ",\"missed_returns\":" + std::to_string(s.missedReturns);
    o += ",\"expectations\":[";
    for (size_t i = 0; i < s.results.size(); ++i) {
        const ExpectationResult& r = s.results[i];
        static const char* kKinds[] = {"leave", "stay", "return"};
        o += (i ? "," : "") + std::string("{\"kind\":\"") + kKinds[r.expectation.kind] + "\"";
        if (!r.expectation.link.empty()) o += ",\"link\":" + jsonString(r.expectation.link);
        o += ",\"at_s\":" + seconds(r.expectation.atMs);
        if (r.expectation.kind == Expectation::kStay) {
            o += ",\"false_switches\":" + std::to_string(r.falseSwitches);
        } else {
            o += std::string(",\"missed\":") + (r.missed ? "true" : "false");
            o += ",\"time_s\":" + (r.resultMs >= 0 ? seconds(r.resultMs) : std::string("null"));
        }
        o += "}";
    }
    o += "],\"events\":" + std::to_string(s.events) + "}";
    return o;
}

}  // namespace replay
}  // namespace mlbd
