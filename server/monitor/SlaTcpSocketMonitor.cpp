/*
 * The gaming TCP socket monitor: the polling thread, the dump into the per-port map, and the
 * checks that start and stop RTT probing.
 */
#include "monitor/SlaTcpSocketMonitor.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <limits>

#include "parameters/Parameters.h"
#include "sls/SmartLinkSelection.h"

#define LOG_TAG "Mlbd-SocketMonitor"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

using android::net::SockDiag;
using android::net::tcp_info_ext;

namespace {

constexpr int64_t kPollIntervalMs = 1000;
// A busiest connection that showed no progress in this many checks in a row has stalled.
constexpr uint32_t kStalledChecks = 4;
// The least growth of the time since the last ACK that counts as no progress, milliseconds.
constexpr uint32_t kStalledAckGapMs = 1000;
// Connections to these ports are the game's web traffic, not its server.
constexpr uint16_t kHttpPort = 80;
constexpr uint16_t kHttpsPort = 443;

std::mutex sInstanceLock;
SlaTcpSocketMonitor* sInstance = nullptr;

// The seq_rtt averaging works over three sample slots shared by every monitor of the process.
std::mutex sSampleLock;
int32_t sSeqRttSamples[3] = {0, 0, 0};
int32_t sSeqRttSampleCount = 0;

int32_t saturateToInt32(int64_t value) {
    if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

// The first UID of a comma-separated list: its decimal prefix, 0 when there is none.
int32_t leadingUid(const std::string& text) {
    return saturateToInt32(strtoll(text.c_str(), nullptr, 10));  // strtoll saturates as well
}

// The 32-bit statistic at `offset`, or 0 when the kernel's statistics do not reach past its end.
uint32_t statistic(const tcp_info_ext* info, uint32_t len, size_t offset) {
    uint32_t value = 0;
    if (android::net::tcpInfoHasField(info, len, offset, sizeof(value))) {
        memcpy(&value, reinterpret_cast<const uint8_t*>(info) + offset, sizeof(value));
    }
    return value;
}

}  // namespace

SlaTcpSocketMonitor* SlaTcpSocketMonitor::instance() {
    std::lock_guard<std::mutex> guard(sInstanceLock);
    if (sInstance == nullptr) sInstance = new SlaTcpSocketMonitor();
    return sInstance;
}

void SlaTcpSocketMonitor::finalize() {
    std::lock_guard<std::mutex> guard(sInstanceLock);
    delete sInstance;
    sInstance = nullptr;
}

SlaTcpSocketMonitor::SlaTcpSocketMonitor() : SlaTcpSocketMonitor(DumpSource()) {
    std::lock_guard<std::mutex> guard(lock_);
    thread_ = std::thread(&SlaTcpSocketMonitor::threadLoop, this);
}

SlaTcpSocketMonitor::SlaTcpSocketMonitor(DumpSource source)
    : params_(Parameters::instance()), source_(std::move(source)) {
    sockets.max_load_factor(1.0f);
    std::lock_guard<std::mutex> guard(lock_);
    pollIntervalMs = kPollIntervalMs;
    paused = true;
    running = true;
    // Read once: a game started later under another UID is watched only by a new monitor (each
    // start of smart link selection makes one).
    gamingUid = leadingUid(params_->getGamingUids());
    rttThreshold = params_->rtt_exit_threshold;
}

SlaTcpSocketMonitor::~SlaTcpSocketMonitor() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        paused = true;
        running = false;
    }
    wakeUp_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void SlaTcpSocketMonitor::threadLoop() {
    auto isRunning = [this] {
        std::lock_guard<std::mutex> guard(lock_);
        return running;
    };
    while (isRunning()) {
        poll();
        selectServer();
        waitForNextPoll();
    }
}

void SlaTcpSocketMonitor::resumePolling() {
    bool wasPaused;
    {
        std::lock_guard<std::mutex> guard(lock_);
        wasPaused = paused;
        paused = false;
    }
    if (wasPaused) wakeUp_.notify_all();
}

void SlaTcpSocketMonitor::waitForNextPoll() {
    // The flags are read and the wait begun under one hold of the lock, so that a resume or a
    // stop that comes in between cannot be missed.
    std::unique_lock<std::mutex> guard(lock_);
    if (!running) return;
    if (paused) {
        wakeUp_.wait(guard);
        return;
    }
    const Clock::time_point start = Clock::now();
    for (int64_t at = kQuickCheckMs; at < pollIntervalMs && slowWatching(); at += kQuickCheckMs) {
        if (wakeUp_.wait_until(guard, start + std::chrono::milliseconds(at),
                               [this] { return !running || paused; })) {
            return;
        }
        guard.unlock();
        poll();
        quickCheck();
        guard.lock();
    }
    wakeUp_.wait_until(guard, start + std::chrono::milliseconds(pollIntervalMs));
}

bool SlaTcpSocketMonitor::slowWatching() const {
    return params_->slow_leave_checks > 0 && slowLastRttMs > rttThreshold / 2 &&
           slowChecks < static_cast<uint32_t>(params_->slow_leave_checks.load());
}

void SlaTcpSocketMonitor::quickCheck() {
    std::lock_guard<std::mutex> guard(lock_);
    SlsSocket sock{};
    if (busiest(&sock)) checkSlowLeave(&sock);
}

bool SlaTcpSocketMonitor::busiest(SlsSocket* sock) const {
    if (sockets.empty()) return false;
    *sock = sockets.begin()->second;
    for (const auto& entry : sockets) {
        if (entry.second.sent_cnt >= sock->sent_cnt) *sock = entry.second;
    }
    return true;
}

void SlaTcpSocketMonitor::poll() {
    std::lock_guard<std::mutex> guard(lock_);
    if (paused) return;
    SockDiag diag;
    if (!source_ && !diag.open()) {
        // Without its sockets the dump could only fail: the cycle ends here, and the map stays
        // as it was, as after a failed dump.
        LOGE("Error opening sock diag for polling TCP socket info");
        return;
    }
    const Clock::time_point now = Clock::now();
    const SockDiag::TcpInfoReader reader = [this, now](const inet_diag_msg* msg,
                                                       const tcp_info_ext* info, uint32_t len) {
        updateSocketStats(now, msg, info, len);
    };
    int ret = source_ ? source_(reader) : diag.getLiveTcpInfos(reader);
    if (ret != 0) {
        LOGE("Failed to poll TCP socket info: %s", strerror(-ret));
        return;
    }
    // Only a complete dump tells which connections are gone.
    for (auto it = sockets.begin(); it != sockets.end();) {
        if (it->second.update_time < now) {
            it = sockets.erase(it);
        } else {
            ++it;
        }
    }
    lastPollTime = now;
}

void SlaTcpSocketMonitor::updateSocketStats(Clock::time_point now, const inet_diag_msg* msg,
                                            const tcp_info_ext* info, uint32_t len) {
    if (msg == nullptr || static_cast<int64_t>(msg->idiag_uid) != gamingUid) return;
    char server[INET6_ADDRSTRLEN] = {};
    if ((msg->idiag_family != AF_INET && msg->idiag_family != AF_INET6) ||
        inet_ntop(msg->idiag_family, msg->id.idiag_dst, server, sizeof(server)) == nullptr) {
        return;
    }
    const uint16_t port = ntohs(msg->id.idiag_dport);
    // IPv4-mapped destinations are the IPv4 connections of dual-stack sockets.
    if (port == kHttpPort || port == kHttpsPort || strncmp(server, "::ffff", 6) == 0) return;

    SlsSocket& entry = sockets[port];
    entry.sent_cnt = statistic(info, len, offsetof(tcp_info_ext, tcpi_segs_out));
    entry.recv_cnt = statistic(info, len, offsetof(tcp_info_ext, tcpi_segs_in));
    memset(entry.server, 0, sizeof(entry.server));
    memcpy(entry.server, server, sizeof(entry.server));
    entry.port = port;
    entry.uid = msg->idiag_uid;
    entry.rtt = statistic(info, len, offsetof(tcp_info_ext, tcpi_rtt));
    entry.seq_rtt = statistic(info, len, offsetof(tcp_info_ext, tcpi_rcv_ooopack));
    entry.last_ack_recv_time = statistic(info, len, offsetof(tcp_info_ext, tcpi_last_ack_recv));
    entry.unacked = statistic(info, len, offsetof(tcp_info_ext, tcpi_unacked));
    entry.update_time = now;
    LOGD("map server is %s , port is %d,total sent_cnt %d", entry.server,
         static_cast<int>(entry.port), static_cast<int>(entry.sent_cnt));
}

void SlaTcpSocketMonitor::selectServer() {
    std::lock_guard<std::mutex> guard(lock_);
    SlsSocket busiest{};
    if (!this->busiest(&busiest)) return;
    const std::string current = params_->getGamingRttServer();
    checkGamingServerConnectStatus(&busiest);
    checkGamingServerRtt(&busiest);
    checkSlowLeave(&busiest);
    if (current != busiest.server) {
        // Address and port change together, under the store's lock; the probes pick the new
        // target up from their next cycle on.
        params_->setRttTarget(busiest.server, static_cast<int32_t>(busiest.port));
        LOGD("selectServer update is %s", busiest.server);
    }
}

void SlaTcpSocketMonitor::checkGamingServerConnectStatus(SlsSocket* sock) {
    if (sock == nullptr) return;
    const uint32_t seq = sock->seq_rtt;
    const uint32_t rttMs = sock->rtt / 1000;
    const bool sameRecv = prevRecvCnt == sock->recv_cnt;
    const uint32_t ackGap = sock->last_ack_recv_time - prevLastAckRecvTime;
    // No new segment, no ACK for a second, and the same delay figure as last time.
    const bool stalled = sameRecv && ackGap >= kStalledAckGapMs &&
                         (seq != 0 ? prevSeqRtt == seq : prevRttMs == rttMs);
    if (stalled) {
        staleCount++;
    } else {
        params_->setGamingConnectStatus(true);
        staleCount = 0;
    }
    checkStallLeave(sock, sameRecv);
    prevRecvCnt = sock->recv_cnt;
    prevLastAckRecvTime = sock->last_ack_recv_time;
    prevRttMs = rttMs;
    prevSeqRtt = seq;

    if (staleCount == kStalledChecks && params_->isGamingConnectStatus() &&
        !params_->isServiceHighRtt()) {
        params_->setGamingConnectStatus(false);
        SmartLinkSelection::instance()->threadResume();
        params_->setServiceHighRtt(true);
        staleCount = 0;
        LOGD("checkGamingServerRtt creat rtt theads");
    }
    LOGD("checkGamingServerConnectStatus prev_recv_cnt %d,last_ack_recv_time %d,prev_seq_rtt %d",
         static_cast<int>(sock->recv_cnt), static_cast<int>(sock->last_ack_recv_time),
         static_cast<int>(seq));
}

void SlaTcpSocketMonitor::checkStallLeave(const SlsSocket* sock, bool sameRecv) {
    const int32_t limitMs = params_->stall_leave_ms;
    if (limitMs <= 0) return;
    // An established connection (it has received something) with data in flight and no ACK
    // for limitMs: its link carries nothing now. Reported once per stall.
    const bool stalled = sameRecv && sock->recv_cnt > 0 && sock->unacked > 0 &&
                         sock->last_ack_recv_time >= static_cast<uint32_t>(limitMs);
    if (!stalled) {
        stallLeaveReported = false;
        return;
    }
    if (stallLeaveReported) {
        params_->setGamingConnectStatus(false);
        return;
    }
    stallLeaveReported = true;
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::instance();
    // The link that carries the game counts as failed for the choice until its next good probe.
    InterfaceRtt* rec = sls->gameLinkRecord();
    // With slow_leave_checks, whose choice follows at once, the link's own next probe must fail
    // as well: after a short outage the connection may still wait out its retransmission
    // back-off on a link that works again.
    const bool confirm = params_->slow_leave_checks > 0;
    if (rec != nullptr) (confirm ? rec->stallSuspect : rec->stalled) = true;
    sls->threadResume();
    // The connection's RTT, unchanged while it is stalled, must not stop the probes again until
    // the connection moves.
    params_->setServiceHighRtt(true);
    params_->setGamingConnectStatus(false);
    staleCount = 0;
    // The choice (which runs only while serviceHighRtt is set) need not wait for the main loop's
    // next cycle; with the confirmation it is asked for by the failed probe.
    if (!confirm) SmartLinkSelection::requestChoice();
    LOGD("checkStallLeave no ACK for %d ms with %d in flight: %s counted as failed, probing",
         static_cast<int>(sock->last_ack_recv_time), static_cast<int>(sock->unacked),
         rec != nullptr ? rec->name.c_str() : "no link");
}

void SlaTcpSocketMonitor::checkSlowLeave(const SlsSocket* sock) {
    const int32_t checks = params_->slow_leave_checks;
    if (checks <= 0) return;
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::existing();
    InterfaceRtt* rec = sls ? sls->gameLinkRecord() : nullptr;
    const int32_t rttMs = saturateToInt32(sock->rtt / 1000);
    // The kernel's smoothed RTT of an established connection, measured over the link that
    // carries the game since at least the previous check: the first check after a switch sees
    // a connection that may still be the old link's.
    const bool sameLink = rec != nullptr && rec == slowLink;
    slowLink = rec;
    slowLastRttMs = sameLink && sock->recv_cnt > 0 ? rttMs : 0;
    if (!sameLink || sock->recv_cnt == 0 || rttMs <= rttThreshold) {
        slowChecks = 0;
        if (rec != nullptr && rec->slowEvidenceMs > 0 && (!sameLink || rttMs <= rttThreshold)) {
            rec->slowEvidenceMs = 0;
        }
        return;
    }
    if (++slowChecks < static_cast<uint32_t>(checks)) return;
    const bool first = rec->slowEvidenceMs == 0;
    rec->slowEvidenceMs = rttMs;
    if (!first) return;
    // Probing runs meanwhile for the other links' figures, and the choice runs at once.
    sls->threadResume();
    params_->setServiceHighRtt(true);
    SmartLinkSelection::requestChoice();
    LOGD("checkSlowLeave game RTT %d ms over %s above %d ms at %u checks: the choice runs now",
         static_cast<int>(rttMs), rec->name.c_str(), static_cast<int>(rttThreshold),
         static_cast<unsigned>(slowChecks));
}

void SlaTcpSocketMonitor::checkGamingServerRtt(SlsSocket* sock) {
    if (sock == nullptr) return;
    // The Wi-Fi penalty counts only during a call, and only while the selection steers the
    // traffic over Wi-Fi, as for the probes: outside a call (the penalty is not cleared when the
    // VoIP monitor stops) a weak signal would make even a cellular connection look slow and keep
    // probing running for the whole session. Before the first switch the link is not known;
    // during a call the probes run and the choice is made every cycle anyway.
    std::shared_ptr<SmartLinkSelection> sls = SmartLinkSelection::existing();
    const bool penalised = params_->isVoipRunning() && sls && sls->wifiChosen;
    const int32_t rtt = saturateToInt32(static_cast<int64_t>(sock->rtt / 1000) +
                                        (penalised ? params_->wifiRttPenaltyMs.load() : 0));
    // Every third call averages the slots; the average is carried on in slot 0 and the calls in
    // between only collect samples (and report 0).
    int32_t seqAvg;
    {
        std::lock_guard<std::mutex> guard(sSampleLock);
        if (sSeqRttSampleCount >= 3) {
            seqAvg = (sSeqRttSamples[0] + sSeqRttSamples[1] + sSeqRttSamples[2]) / 3;
            sSeqRttSamples[0] = seqAvg;
            sSeqRttSampleCount = 1;
        } else {
            seqAvg = 0;
            sSeqRttSamples[sSeqRttSampleCount] = static_cast<int32_t>(sock->seq_rtt / 100);
            sSeqRttSampleCount++;
        }
    }
    LOGD("checkGamingServerRtt rtt is %d,tcp_seq_rtt is %d", rtt, seqAvg);

    const bool connected = params_->isGamingConnectStatus();
    if ((rtt > rttThreshold || seqAvg > rttThreshold) && !params_->isServiceHighRtt() &&
        connected) {
        SmartLinkSelection::instance()->threadResume();
        params_->setServiceHighRtt(true);
        LOGD("checkGamingServerRtt creat rtt theads , rtt is %d", rtt);
        return;
    }
    // Reached also when a high measure could not start probing: then one low measure beside it
    // stops probing.
    const bool low = (rtt != 0 && rtt < rttThreshold) || (seqAvg != 0 && seqAvg < rttThreshold);
    if (low && params_->isServiceHighRtt() && connected) {
        SmartLinkSelection::instance()->threadStop();
        params_->setServiceHighRtt(false);
        LOGD("checkGamingServerRtt stop rtt theads , rtt is %d", rtt);
    }
}

std::unordered_map<uint64_t, SlaTcpSocketMonitor::SlsSocket> SlaTcpSocketMonitor::getSockets()
        const {
    std::lock_guard<std::mutex> guard(lock_);
    return sockets;
}
