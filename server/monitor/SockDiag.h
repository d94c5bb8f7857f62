/*
 * Client of the kernel's NETLINK_SOCK_DIAG interface: destroys the TCP and UDP sockets of one
 * application UID (so that the application reconnects over a newly chosen link) and dumps the
 * live TCP sockets together with their kernel TCP statistics.
 *
 * Each user constructs its own object on its own stack for one operation; nothing is shared and
 * nothing is locked. Results are 0 or a negative errno, except open() (bool) and
 * killSocketsForUID() (see below).
 */
#pragma once

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <functional>

namespace android {
namespace net {

/*
 * The kernel's struct tcp_info in its newer, longer form, as carried by the INET_DIAG_INFO
 * attribute of a TCP dump reply. Older kernels send a shorter structure, so a pointer to it is
 * always handed out with the number of bytes the kernel sent; see tcpInfoHasField().
 *
 * The structure is packed with 4-byte alignment because it is read in place from the receive
 * buffer, where netlink attributes are only 4-byte aligned; the offsets are the kernel's.
 */
struct tcp_info_ext {
    uint8_t tcpi_state;
    uint8_t tcpi_ca_state;
    uint8_t tcpi_retransmits;
    uint8_t tcpi_probes;
    uint8_t tcpi_backoff;
    uint8_t tcpi_options;
    uint8_t tcpi_snd_wscale : 4, tcpi_rcv_wscale : 4;
    uint8_t tcpi_delivery_rate_app_limited : 1, tcpi_fastopen_client_fail : 2;

    uint32_t tcpi_rto;
    uint32_t tcpi_ato;
    uint32_t tcpi_snd_mss;
    uint32_t tcpi_rcv_mss;

    uint32_t tcpi_unacked;
    uint32_t tcpi_sacked;
    uint32_t tcpi_lost;
    uint32_t tcpi_retrans;
    uint32_t tcpi_fackets;

    uint32_t tcpi_last_data_sent;
    uint32_t tcpi_last_ack_sent;
    uint32_t tcpi_last_data_recv;
    uint32_t tcpi_last_ack_recv;

    uint32_t tcpi_pmtu;
    uint32_t tcpi_rcv_ssthresh;
    uint32_t tcpi_rtt;
    uint32_t tcpi_rttvar;
    uint32_t tcpi_snd_ssthresh;
    uint32_t tcpi_snd_cwnd;
    uint32_t tcpi_advmss;
    uint32_t tcpi_reordering;

    uint32_t tcpi_rcv_rtt;
    uint32_t tcpi_rcv_space;

    uint32_t tcpi_total_retrans;

    uint64_t tcpi_pacing_rate;
    uint64_t tcpi_max_pacing_rate;
    uint64_t tcpi_bytes_acked;
    uint64_t tcpi_bytes_received;
    uint32_t tcpi_segs_out;
    uint32_t tcpi_segs_in;

    uint32_t tcpi_notsent_bytes;
    uint32_t tcpi_min_rtt;
    uint32_t tcpi_data_segs_in;
    uint32_t tcpi_data_segs_out;

    uint64_t tcpi_delivery_rate;

    uint64_t tcpi_busy_time;
    uint64_t tcpi_rwnd_limited;
    uint64_t tcpi_sndbuf_limited;

    uint32_t tcpi_delivered;
    uint32_t tcpi_delivered_ce;

    uint64_t tcpi_bytes_sent;
    uint64_t tcpi_bytes_retrans;
    uint32_t tcpi_dsack_dups;
    uint32_t tcpi_reord_seen;

    uint32_t tcpi_rcv_ooopack;

    uint32_t tcpi_snd_wnd;
} __attribute__((packed, aligned(4)));

static_assert(offsetof(tcp_info_ext, tcpi_last_ack_recv) == 56, "kernel tcp_info layout");
static_assert(offsetof(tcp_info_ext, tcpi_rtt) == 68, "kernel tcp_info layout");
static_assert(offsetof(tcp_info_ext, tcpi_pacing_rate) == 104, "kernel tcp_info layout");
static_assert(offsetof(tcp_info_ext, tcpi_segs_out) == 136, "kernel tcp_info layout");
static_assert(offsetof(tcp_info_ext, tcpi_segs_in) == 140, "kernel tcp_info layout");
static_assert(offsetof(tcp_info_ext, tcpi_rcv_ooopack) == 224, "kernel tcp_info layout");
static_assert(sizeof(tcp_info_ext) == 232, "kernel tcp_info layout");

// True when a field at `offset` of `size` bytes may be read from statistics of `len` bytes: the
// pointer must be present and the field must end strictly before the end of what the kernel sent.
inline bool tcpInfoHasField(const tcp_info_ext* info, uint32_t len, size_t offset, size_t size) {
    return info != nullptr && offset + size < len;
}

class SockDiag {
  public:
    // Decides, for (protocol, dumped socket), whether the socket is to be destroyed.
    using DestroyFilter = std::function<bool(uint8_t proto, const inet_diag_msg* msg)>;
    // Receives each dumped TCP socket with its statistics (null and 0 when the reply had none).
    // The pointers are valid only during the call.
    using TcpInfoReader =
            std::function<void(const inet_diag_msg* msg, const tcp_info_ext* info, uint32_t len)>;

    SockDiag() = default;
    virtual ~SockDiag();

    SockDiag(const SockDiag&) = delete;
    SockDiag& operator=(const SockDiag&) = delete;

    // Opens and connects the dump socket and the destroy socket. False, with both closed, when
    // either fails; false, changing nothing, when both are already open.
    bool open();

    // Writes one dump request (filling iov[0] with it) on the dump socket.
    int sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                        iovec* iov, int iovcnt);
    // Reads a dump to its end, destroying every socket for which shouldDestroy holds.
    int readDiagMsg(uint8_t proto, const DestroyFilter& shouldDestroy);
    // Reads a TCP dump requested with INET_DIAG_INFO to its end, handing each socket to callback.
    int readDiagMsgWithTcpInfo(const TcpInfoReader& callback);
    // Dumps the IPv4, then the IPv6 TCP sockets in the states ESTABLISHED, SYN_SENT, SYN_RECV.
    int getLiveTcpInfos(const TcpInfoReader& callback);

    static bool isLoopbackSocket(const inet_diag_msg* msg);

    // Asks the kernel to destroy the socket described by msg.
    int sockDestroy(uint8_t proto, const inet_diag_msg* msg);
    // Destroys all IPv4 and IPv6 sockets of protocol proto that belong to uid.
    int destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback);

    /*
     * Walks the netlink messages of one received buffer of a dump reply, handing every message
     * that is neither NLMSG_DONE nor NLMSG_ERROR to onMessage. The walk stops at a message whose
     * length is below a netlink header or beyond the buffer. Sets *finished when the dump ended
     * (DONE or ERROR) and returns 0, or the kernel's error carried by an NLMSG_ERROR.
     */
    static int walkDumpBuffer(const uint8_t* buf, size_t len,
                              const std::function<void(const nlmsghdr*)>& onMessage,
                              bool* finished);
    /*
     * Finds the INET_DIAG_INFO attribute (the last one, if several) after the inet_diag_msg of a
     * message whose nlmsg_len has been checked against the buffer. Returns null and *len = 0
     * when there is none.
     */
    static const tcp_info_ext* findTcpInfo(const nlmsghdr* nlh, uint32_t* len);

  protected:
    // Reads the dump socket until the dump ends, handing every message to onMessage; -ETIMEDOUT
    // when it has not ended within a second.
    int readDump(const std::function<void(const nlmsghdr*)>& onMessage);

    // The sockets are protected so that tests can serve crafted replies from socketpairs.
    int mDumpSock = -1;
    int mDestroySock = -1;
    int mDestroyedCount = 0;
    // Destroys of the current destroySockets call that the kernel refused, and the last error
    // (a negative errno), e.g. -EPERM without CAP_NET_ADMIN.
    int mRefusedCount = 0;
    int mRefusalError = 0;
};

// Destroys every TCP, then every UDP socket of the UID given as decimal text, loopback included.
// Returns the result of the UDP pass, or -1 when the netlink sockets could not be opened.
int killSocketsForUID(const char* uid);

}  // namespace net
}  // namespace android
