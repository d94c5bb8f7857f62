/*
 * The TCP probe of smart link selection: a connection bound to one interface, ten 28-byte
 * request / 30-byte response exchanges over it, and the kernel's smoothed RTT of the connection
 * (TCP_INFO), in milliseconds. No ICMP is sent.
 */
#pragma once

#include <netinet/in.h>
#include <stdint.h>

// One probe's working record.
struct sls_tcping_info {
    int32_t sockfd = -1;              // the probe socket, -1 when none could be made
    sockaddr_in serverAddr = {};      // where to connect
    const char* ifaceName = nullptr;  // interface to bind to; null: unbound
    const char* server = nullptr;     // the server's dotted-quad address
    uint32_t flag = 0;                // set by the probe thread, not consulted
    uint32_t minCapMs = 0;            // rtt_min_cap_ms at thread start, not consulted
    uint32_t rtt = 0;                 // the last result, ms
    uint32_t port = 0;                // the server's TCP port, host order
    // With the "ipv6" key set, a server given as an IPv6 address is probed over IPv6, here.
    bool ipv6 = false;
    sockaddr_in6 serverAddr6 = {};
};

class Tcping {
  public:
    // One probe: the RTT in milliseconds, or -1 on any failure (the socket is always closed).
    int updateTcpingRtt(sls_tcping_info* info);
    // Makes the socket (time-outs, device binding); 0, or -1 with the socket closed.
    int populateTcpingSocket(sls_tcping_info* info);
    // Connects, exchanges and reads the RTT; the RTT in ms or -1. Closes the socket.
    int getTcpingRtt(sls_tcping_info* info);
    // The result of a probe whose connection's kernel RTT (tcpi_rtt) was `kernelRttUs`: in ms,
    // with the Wi-Fi penalty of a call added, logged. Also used by tools that simulate probes.
    static int reportRtt(sls_tcping_info* info, uint32_t kernelRttUs);
    // Fills the first length - 2 bytes with random letters and digits and a zero at
    // length - 1; the byte at length - 2 keeps what the caller put there.
    static void genRandomString(int length, char* buffer);
};
