/*
 * The gaming TCP socket monitor.
 *
 * While smart link selection runs, a thread dumps the game's TCP connections once a second
 * (SockDiag::getLiveTcpInfos), keeps the latest statistics of each destination port, makes the
 * busiest connection's server the target of the RTT probes, and decides when probing is worth
 * doing: it resumes the probe threads when that connection stalls or is slow, and stops them when
 * it is fast again.
 *
 * Threads: the polling thread runs poll(), selectServer() and the wait; the control thread makes
 * the monitor, resumes it and finalizes it. Every field is guarded by the monitor's lock, which
 * poll() and selectServer() hold for their whole run and the wait releases. The static instance
 * pointer has its own lock; the pointer returned by instance() stays valid until finalize(), and
 * both are called from the control thread.
 */
#pragma once

#include <linux/inet_diag.h>
#include <netinet/in.h>
#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "monitor/SockDiag.h"

class Parameters;

class SlaTcpSocketMonitor {
  public:
    using Clock = std::chrono::steady_clock;

    // The latest statistics of the game's connections to one destination port.
    struct SlsSocket {
        uint32_t sent_cnt;              // tcpi_segs_out
        uint32_t recv_cnt;              // tcpi_segs_in
        char server[INET6_ADDRSTRLEN];  // destination address as text
        uint32_t port;                  // destination port, host order
        uint32_t uid;
        uint32_t rtt;                   // tcpi_rtt, microseconds
        uint32_t seq_rtt;               // tcpi_rcv_ooopack, logged as tcp_seq_rtt
        uint32_t last_ack_recv_time;    // tcpi_last_ack_recv, milliseconds since the last ACK
        uint32_t unacked;               // tcpi_unacked, segments in flight
        Clock::time_point update_time;  // the dump that last refreshed the entry
    };

    // The monitor, made (thread started, paused) on the first call after a finalize().
    static SlaTcpSocketMonitor* instance();
    // Stops and joins the thread and forgets the monitor, if there is one.
    static void finalize();

    // One dump of TCP sockets handed to the reader; 0 or a negative errno, as
    // SockDiag::getLiveTcpInfos.
    using DumpSource = std::function<int(const android::net::SockDiag::TcpInfoReader& reader)>;

    // instance() is the normal way in; tests make their own.
    SlaTcpSocketMonitor();
    // A monitor without a thread, driven by its owner (poll(), selectServer()), whose dumps come
    // from `source` instead of the kernel: the same rules on a simulated clock and network.
    explicit SlaTcpSocketMonitor(DumpSource source);
    ~SlaTcpSocketMonitor();
    SlaTcpSocketMonitor(const SlaTcpSocketMonitor&) = delete;
    SlaTcpSocketMonitor& operator=(const SlaTcpSocketMonitor&) = delete;

    // Lets a paused monitor dump once a second, waking its thread at once.
    void resumePolling();
    // One dump of the game's connections into the map, then the ageing of what it did not show.
    void poll();
    // Waits for the next poll: until resumed while paused, else at most pollIntervalMs.
    void waitForNextPoll();
    // The dump callback: records one socket of the game seen at `now`. Called with the lock held.
    void updateSocketStats(Clock::time_point now, const inet_diag_msg* msg,
                           const android::net::tcp_info_ext* info, uint32_t len);
    // Picks the busiest connection, runs the two checks on it and makes it the probe target.
    void selectServer();
    // The busiest connection (most segments sent; among equal counts the entry met last), false
    // when the map is empty. Called with the lock held.
    bool busiest(SlsSocket* sock) const;
    // Stall detection on (a copy of) the busiest connection. Called with the lock held.
    void checkGamingServerConnectStatus(SlsSocket* sock);
    // RTT-based start and stop of probing. Called with the lock held.
    void checkGamingServerRtt(SlsSocket* sock);
    // stall_leave_ms: a stalled connection counts its link as failed. Called with the lock held.
    void checkStallLeave(const SlsSocket* sock, bool sameRecv);
    // slow_leave_checks: the game's own RTT as evidence about its link. Called with the lock held.
    void checkSlowLeave(const SlsSocket* sock);
    // slow_leave_checks: while the game's RTT on its link has risen past half the exit threshold
    // without being taken as evidence yet, the monitor checks it every kQuickCheckMs between its
    // polls (quickCheck: a dump and checkSlowLeave on the busiest connection only).
    static constexpr int64_t kQuickCheckMs = 250;
    bool slowWatching() const;
    void quickCheck();

    // A copy of the map, keyed by destination port.
    std::unordered_map<uint64_t, SlsSocket> getSockets() const;

  protected:
    void threadLoop();

    mutable std::mutex lock_;
    std::condition_variable wakeUp_;
    std::thread thread_;
    int64_t pollIntervalMs = 0;
    Clock::time_point lastPollTime;
    bool paused = false;
    bool running = false;
    int32_t gamingUid = 0;
    int32_t rttThreshold = 0;
    std::unordered_map<uint64_t, SlsSocket> sockets;
    uint32_t prevSeqRtt = 0;
    uint32_t prevRecvCnt = 0;
    uint32_t prevLastAckRecvTime = 0;
    uint32_t staleCount = 0;
    uint32_t prevRttMs = 0;
    // stall_leave_ms: the current stall has been reported to the choice.
    bool stallLeaveReported = false;
    // slow_leave_checks: checks in a row that found the game's RTT above the exit threshold, on
    // the link recorded beside them.
    uint32_t slowChecks = 0;
    const void* slowLink = nullptr;
    int32_t slowLastRttMs = 0;
    Parameters* const params_;
    const DumpSource source_;
};
