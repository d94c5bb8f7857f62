/*
 * The socket-diagnostics dump readers: the walk over netlink messages, the per-message steps and
 * the walk over the INET_DIAG_INFO attributes.
 *
 * Input: one mode byte, then length-prefixed chunks. Each chunk is walked once in a heap buffer of
 * exactly its size (so that any read past it is caught), and the chunks are also served, one
 * datagram each, to readDiagMsg and readDiagMsgWithTcpInfo over socketpairs.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "FuzzCommon.h"
#include "monitor/SockDiag.h"

using android::net::SockDiag;
using android::net::tcp_info_ext;

namespace {

// A SockDiag whose netlink sockets are socketpairs fed by the fuzzer.
class FuzzSockDiag : public SockDiag {
  public:
    bool attach(int* dumpPeer, int* destroyPeer) {
        int dump[2];
        int destroy[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dump) != 0) return false;
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, destroy) != 0) {
            close(dump[0]);
            close(dump[1]);
            return false;
        }
        // Nobody reads the destroy requests: once the queue is full, writes fail at once.
        fcntl(destroy[0], F_SETFL, O_NONBLOCK);
        mDumpSock = dump[0];
        mDestroySock = destroy[0];
        *dumpPeer = dump[1];
        *destroyPeer = destroy[1];
        return true;
    }
};

volatile uint32_t gSink;

void touchMessage(const inet_diag_msg* msg) {
    uint32_t sum = msg->idiag_family + msg->idiag_state + msg->idiag_uid + msg->idiag_inode;
    for (uint32_t w : msg->id.idiag_src) sum += w;
    for (uint32_t w : msg->id.idiag_dst) sum += w;
    sum += SockDiag::isLoopbackSocket(msg);
    gSink = sum;
}

void touchInfo(const tcp_info_ext* info, uint32_t len) {
    if (info == nullptr) return;
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(info);
    uint32_t sum = 0;
    for (uint32_t i = 0; i < len; i++) sum += bytes[i];
    if (android::net::tcpInfoHasField(info, len, offsetof(tcp_info_ext, tcpi_rcv_ooopack), 4)) {
        sum += info->tcpi_rcv_ooopack + info->tcpi_rtt + info->tcpi_segs_out;
    }
    gSink = sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    auto chunks = mlbd_fuzz::splitChunks(data + 1, size - 1, 6, 8192);

    // Exact-size buffers: the walk and the attribute search must stay inside them.
    for (const auto& chunk : chunks) {
        std::unique_ptr<uint8_t[]> buf(new uint8_t[chunk.size() + 1]);
        std::copy(chunk.begin(), chunk.end(), buf.get());
        bool finished = false;
        SockDiag::walkDumpBuffer(
                buf.get(), chunk.size(),
                [](const nlmsghdr* nlh) {
                    if (nlh->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
                        touchMessage(reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(nlh)));
                    }
                    uint32_t len = 0;
                    const tcp_info_ext* info = SockDiag::findTcpInfo(nlh, &len);
                    touchInfo(info, len);
                },
                &finished);
    }

    // The same bytes through the socket readers.
    FuzzSockDiag sd;
    int dumpPeer = -1;
    int destroyPeer = -1;
    if (!sd.attach(&dumpPeer, &destroyPeer)) return 0;
    for (const auto& chunk : chunks) {
        if (!chunk.empty()) send(dumpPeer, chunk.data(), chunk.size(), MSG_DONTWAIT);
    }
    // A kernel error waiting on the destroy socket, for the first destroy request to find.
    if (mode & 0x80) {
        static const uint8_t kError[36] = {36, 0, 0, 0, 2, 0, 0,    0,    0,    0,
                                           0,  0, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff};
        send(destroyPeer, kError, sizeof(kError), MSG_DONTWAIT);
    }
    close(dumpPeer);  // the reader ends at the end of what was sent
    if (mode & 1) {
        sd.readDiagMsgWithTcpInfo(
                [](const inet_diag_msg* msg, const tcp_info_ext* info, uint32_t len) {
                    touchMessage(msg);
                    touchInfo(info, len);
                });
    } else {
        sd.readDiagMsg(mode & 2 ? 17 : 6, [mode](uint8_t, const inet_diag_msg* msg) {
            touchMessage(msg);
            return (mode & 4) != 0 || SockDiag::isLoopbackSocket(msg);
        });
    }
    close(destroyPeer);
    return 0;
}
