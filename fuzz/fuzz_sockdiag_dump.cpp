// The socket-diagnostics dump readers: the walk over netlink messages, the per-message steps and
// the walk over the INET_DIAG_INFO attributes.
//
// Input: one mode byte, then length-prefixed chunks. Each chunk is walked once in a heap buffer of
// exactly its size (so that any read past it is caught), and the chunks are also served, one
// datagram each, to readDiagMsg and readDiagMsgWithTcpInfo over socketpairs.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "FuzzCommon.h"
#include "monitor/SockDiag.h"

using android::net::SockDiag;
using android::net::tcp_info_ext;

namespace {

// A SockDiag whose netlink sockets are the given socketpair ends.
struct FuzzSockDiag : SockDiag {
    FuzzSockDiag(int dump, int destroy) {
        mDumpSock = dump;
        mDestroySock = destroy;
    }
};

// Reads the addresses of a dumped socket and every byte of its statistics.
void touch(const inet_diag_msg* msg, const tcp_info_ext* info, uint32_t len) {
    size_t sum = SockDiag::isLoopbackSocket(msg);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(info);
    for (uint32_t i = 0; bytes != nullptr && i < len; i++) sum += bytes[i];
    mlbd_fuzz::gSink = sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    const auto chunks = mlbd_fuzz::splitChunks(data + 1, size - 1, 6, 8192);
    for (const auto& chunk : chunks) {
        std::unique_ptr<uint8_t[]> buf(new uint8_t[chunk.size() + 1]);
        std::copy(chunk.begin(), chunk.end(), buf.get());
        bool finished = false;
        SockDiag::walkDumpBuffer(
                buf.get(), chunk.size(),
                [](const nlmsghdr* nlh) {
                    uint32_t len = 0;
                    const tcp_info_ext* info = SockDiag::findTcpInfo(nlh, &len);
                    if (nlh->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
                        touch(static_cast<const inet_diag_msg*>(NLMSG_DATA(nlh)), info, len);
                    }
                },
                &finished);
    }

    // The same bytes through the socket readers. Nobody reads the destroy requests: once their
    // queue is full, writes fail at once.
    int dump[2], destroy[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dump) != 0) return 0;
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, destroy);
    FuzzSockDiag sd(dump[0], destroy[0]);
    for (const auto& chunk : chunks) {
        if (!chunk.empty())
            send(dump[1], chunk.data(), chunk.size(), MSG_DONTWAIT);  // "" reads as the end
    }
    // A kernel error waiting on the destroy socket, for the first destroy request to find.
    static const uint8_t kError[36] = {36, 0, 0, 0, 2, 0, 0,    0,    0,    0,
                                       0,  0, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff};
    if (mode & 0x80) send(destroy[1], kError, sizeof(kError), MSG_DONTWAIT);
    close(dump[1]);  // the reader ends at the end of what was sent
    if (mode & 1) {
        sd.readDiagMsgWithTcpInfo(touch);
    } else {
        sd.readDiagMsg(mode & 2 ? 17 : 6, [mode](uint8_t, const inet_diag_msg* msg) {
            touch(msg, nullptr, 0);
            return (mode & 4) != 0 || SockDiag::isLoopbackSocket(msg);
        });
    }
    close(destroy[1]);
    return 0;
}
