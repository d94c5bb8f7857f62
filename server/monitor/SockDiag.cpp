/*
 * NETLINK_SOCK_DIAG client: socket dumps, SOCK_DESTROY and the per-UID socket reset.
 *
 * Dump replies are parsed in place in one 8192-byte stack buffer. Every length the kernel sends
 * is checked against what was actually received before it is followed, so a broken or hostile
 * reply ends the walk of that buffer instead of reading past it.
 */
#include "SockDiag.h"

#include <android/log.h>
#include <errno.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace android {
namespace net {

namespace {

constexpr const char* kTag = "Mlbd-SockDiag";

// One 16-byte netlink header and one inet_diag_req_v2: the whole dump or destroy request.
struct DiagRequest {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};
static_assert(sizeof(DiagRequest) == 72, "dump and destroy requests are 72 bytes");
static_assert(sizeof(inet_diag_msg) == 72, "inet_diag_msg is 72 bytes");

// An acknowledgement or error as read back: the netlink header and the nlmsgerr.
constexpr size_t kAckSize = sizeof(nlmsghdr) + sizeof(nlmsgerr);
static_assert(kAckSize == 36, "acknowledgements are read as 36 bytes");

constexpr size_t kDumpBufferSize = 8192;
// The longest a dump may take, from its first read to its last part. A reply that never ends (no
// NLMSG_DONE, however it was broken) would otherwise hold the reader, and any lock it holds
// (the socket monitor's), for ever; a real dump of thousands of sockets takes milliseconds.
constexpr int kDumpTimeoutMs = 1000;
// The attributes of a dump reply start after the netlink header and the inet_diag_msg.
constexpr uint32_t kDiagMsgEnd = NLMSG_LENGTH(sizeof(inet_diag_msg));

// Consumes a netlink error that the kernel queued in answer to the last write, if there is one.
// Anything else that is queued (the start of a dump) is left where it is.
int checkError(int fd) {
    uint8_t buf[kAckSize];
    ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT | MSG_PEEK);
    if (n == -1) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
        return -errno;
    }
    if (n != static_cast<ssize_t>(kAckSize)) return 0;
    nlmsghdr nlh;
    memcpy(&nlh, buf, sizeof(nlh));
    if (nlh.nlmsg_type != NLMSG_ERROR) return 0;
    n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (n != static_cast<ssize_t>(kAckSize)) return n < 0 ? -errno : -EBADMSG;
    nlmsgerr err;
    memcpy(&err, buf + sizeof(nlmsghdr), sizeof(err));
    return err.error;
}

bool isMappedV4Loopback(const uint8_t* addr) {
    static const uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    // The last octet is what counts here: ::ffff:10.0.0.127 is taken as loopback.
    return memcmp(addr, kMappedPrefix, sizeof(kMappedPrefix)) == 0 && addr[15] == 127;
}

bool isV6Loopback(const uint8_t* addr) {
    static const uint8_t kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return memcmp(addr, kLoopback, sizeof(kLoopback)) == 0;
}

}  // namespace

SockDiag::~SockDiag() {
    close(mDumpSock);
    close(mDestroySock);
    mDumpSock = -1;
    mDestroySock = -1;
}

bool SockDiag::open() {
    if (mDumpSock != -1 && mDestroySock != -1) return false;
    close(mDumpSock);
    close(mDestroySock);

    mDumpSock = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    mDestroySock = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    sockaddr_nl nl = {};
    nl.nl_family = AF_NETLINK;
    if (mDumpSock == -1 || mDestroySock == -1 ||
        connect(mDumpSock, reinterpret_cast<sockaddr*>(&nl), sizeof(nl)) == -1 ||
        connect(mDestroySock, reinterpret_cast<sockaddr*>(&nl), sizeof(nl)) == -1) {
        int saved = errno;
        close(mDumpSock);
        close(mDestroySock);
        mDumpSock = -1;
        mDestroySock = -1;
        errno = saved;
        return false;
    }
    return true;
}

int SockDiag::sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                              iovec* iov, int iovcnt) {
    if (iov == nullptr || iovcnt < 1) return -EINVAL;
    DiagRequest request = {};
    request.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.req.sdiag_family = family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_ext = extensions;
    request.req.idiag_states = states;

    iov[0].iov_base = &request;
    iov[0].iov_len = sizeof(request);
    size_t len = 0;
    for (int i = 0; i < iovcnt; i++) len += iov[i].iov_len;
    request.nlh.nlmsg_len = static_cast<uint32_t>(len);

    ssize_t written = writev(mDumpSock, iov, iovcnt);
    if (written != static_cast<ssize_t>(len)) return written < 0 ? -errno : -EIO;
    return checkError(mDumpSock);
}

int SockDiag::walkDumpBuffer(const uint8_t* buf, size_t len,
                             const std::function<void(const nlmsghdr*)>& onMessage,
                             bool* finished) {
    *finished = false;
    size_t off = 0;
    while (off + sizeof(nlmsghdr) <= len) {
        const nlmsghdr* nlh = reinterpret_cast<const nlmsghdr*>(buf + off);
        uint32_t msgLen = nlh->nlmsg_len;
        if (msgLen < sizeof(nlmsghdr) || msgLen > len - off) break;
        if (nlh->nlmsg_type == NLMSG_DONE) {
            *finished = true;
            return 0;
        }
        if (nlh->nlmsg_type == NLMSG_ERROR) {
            *finished = true;
            // An error message too short to carry its error code is an error all the same.
            if (msgLen < NLMSG_LENGTH(sizeof(int32_t))) return -EBADMSG;
            int32_t err;
            memcpy(&err, buf + off + sizeof(nlmsghdr), sizeof(err));
            return err;
        }
        onMessage(nlh);
        off += NLMSG_ALIGN(msgLen);
    }
    return 0;
}

int SockDiag::readDump(const std::function<void(const nlmsghdr*)>& onMessage) {
    alignas(8) uint8_t buf[kDumpBufferSize];
    memset(buf, 0, sizeof(buf));
    const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kDumpTimeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        pollfd pfd = {mDumpSock, POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&pfd, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return -errno;
        if (ready == 0) return -ETIMEDOUT;
        const ssize_t bytesread = read(mDumpSock, buf, sizeof(buf));
        if (bytesread < 0) return -errno;
        if (bytesread == 0) return 0;
        if (bytesread >= static_cast<ssize_t>(sizeof(nlmsghdr))) {
            bool finished = false;
            int ret = walkDumpBuffer(buf, static_cast<size_t>(bytesread), onMessage, &finished);
            if (finished) return ret;
        }
    }
}

int SockDiag::readDiagMsg(uint8_t proto, const DestroyFilter& shouldDestroy) {
    return readDump([&](const nlmsghdr* nlh) {
        // A message too short to describe a socket is passed over.
        if (nlh->nlmsg_len < kDiagMsgEnd || !shouldDestroy) return;
        const inet_diag_msg* msg = reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(nlh));
        if (!shouldDestroy(proto, msg)) return;
        // A refusal does not end the walk: the other sockets are still tried.
        const int ret = sockDestroy(proto, msg);
        if (ret != 0) mRefusedCount++, mRefusalError = ret;
    });
}

const tcp_info_ext* SockDiag::findTcpInfo(const nlmsghdr* nlh, uint32_t* len) {
    *len = 0;
    if (nlh->nlmsg_len < kDiagMsgEnd) return nullptr;
    const uint8_t* attrs = reinterpret_cast<const uint8_t*>(nlh) + kDiagMsgEnd;
    size_t remaining = nlh->nlmsg_len - kDiagMsgEnd;
    const tcp_info_ext* info = nullptr;
    size_t off = 0;
    while (off + sizeof(nlattr) <= remaining) {
        nlattr attr;
        memcpy(&attr, attrs + off, sizeof(attr));
        if (attr.nla_len < sizeof(nlattr) || attr.nla_len > remaining - off) break;
        if (attr.nla_type == INET_DIAG_INFO) {
            info = reinterpret_cast<const tcp_info_ext*>(attrs + off + sizeof(nlattr));
            *len = attr.nla_len - sizeof(nlattr);
        }
        off += NLA_ALIGN(attr.nla_len);
    }
    return info;
}

int SockDiag::readDiagMsgWithTcpInfo(const TcpInfoReader& callback) {
    return readDump([&](const nlmsghdr* nlh) {
        if (nlh->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got nlmsg_type=%d",
                                nlh->nlmsg_type);
            return;
        }
        if (nlh->nlmsg_len < kDiagMsgEnd || !callback) return;
        uint32_t len = 0;
        const tcp_info_ext* info = findTcpInfo(nlh, &len);
        callback(reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(nlh)), info, len);
    });
}

int SockDiag::getLiveTcpInfos(const TcpInfoReader& callback) {
    static const struct {
        uint8_t family;
        const char* name;
    } kPasses[] = {{AF_INET, "IPv4"}, {AF_INET6, "IPv6"}};
    // The bit of INET_DIAG_INFO in the extension mask.
    const uint8_t extensions = 1 << (INET_DIAG_INFO - 1);
    // TCP_ESTABLISHED, TCP_SYN_SENT and TCP_SYN_RECV.
    const uint32_t states = (1 << 1) | (1 << 2) | (1 << 3);
    for (const auto& pass : kPasses) {
        iovec iov[1];
        int ret = sendDumpRequest(IPPROTO_TCP, pass.family, extensions, states, iov, 1);
        if (ret != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "Failed to dump %s sockets struct tcp_info: %s", pass.name,
                                strerror(-ret));
            return ret;
        }
        ret = readDiagMsgWithTcpInfo(callback);
        if (ret != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "Failed to read %s sockets struct tcp_info: %s", pass.name,
                                strerror(-ret));
            return ret;
        }
    }
    return 0;
}

bool SockDiag::isLoopbackSocket(const inet_diag_msg* msg) {
    if (msg == nullptr) return false;
    const uint8_t* src = reinterpret_cast<const uint8_t*>(msg->id.idiag_src);
    const uint8_t* dst = reinterpret_cast<const uint8_t*>(msg->id.idiag_dst);
    switch (msg->idiag_family) {
        case AF_INET:
            return src[0] == 127 || memcmp(src, dst, 4) == 0 || dst[0] == 127;
        case AF_INET6:
            return isMappedV4Loopback(src) || isMappedV4Loopback(dst) || isV6Loopback(src) ||
                   isV6Loopback(dst) || memcmp(src, dst, 16) == 0;
        default:
            return false;
    }
}

int SockDiag::sockDestroy(uint8_t proto, const inet_diag_msg* msg) {
    if (msg == nullptr) return 0;
    DiagRequest request = {};
    request.nlh.nlmsg_len = sizeof(request);
    request.nlh.nlmsg_type = SOCK_DESTROY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST;
    request.req.sdiag_family = msg->idiag_family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_states = 1u << (msg->idiag_state % 32);
    request.req.id = msg->id;

    ssize_t written = write(mDestroySock, &request, sizeof(request));
    if (written != static_cast<ssize_t>(sizeof(request))) return written < 0 ? -errno : -EIO;
    int ret = checkError(mDestroySock);
    if (ret != 0) return ret;
    mDestroyedCount++;
    return 0;
}

int SockDiag::destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback) {
    mDestroyedCount = 0;
    mRefusedCount = 0;
    DestroyFilter shouldDestroy = [uid, excludeLoopback](uint8_t, const inet_diag_msg* msg) {
        return msg != nullptr && msg->idiag_uid == uid &&
               !(excludeLoopback && isLoopbackSocket(msg));
    };
    static const struct {
        uint8_t family;
        const char* name;
    } kPasses[] = {{AF_INET, "IPv4"}, {AF_INET6, "IPv6"}};
    // Every TCP state, 0 to 11; for UDP this matches every socket.
    const uint32_t allStates = 0xfff;
    for (const auto& pass : kPasses) {
        iovec iov[1];
        int ret = sendDumpRequest(proto, pass.family, 0, allStates, iov, 1);
        if (ret != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "Failed to dump %s sockets for UID: %s",
                                pass.name, strerror(-ret));
            return ret;
        }
        ret = readDiagMsg(proto, shouldDestroy);
        if (ret != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "Failed to destroy %s sockets for UID: %s",
                                pass.name, strerror(-ret));
            return ret;
        }
    }
    if (mDestroyedCount > 0) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "Destroyed %d sockets for UID",
                            mDestroyedCount);
    }
    // The application keeps those connections on the link they were made on.
    if (mRefusedCount > 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "Kernel refused to destroy %d sockets of UID %u (protocol %u): %s",
                            mRefusedCount, uid, proto, strerror(-mRefusalError));
    }
    return 0;
}

int killSocketsForUID(const char* uid) {
    if (uid == nullptr) return -EINVAL;
    // UID texts come from the control socket. Text that is not a decimal UID would read as 0 and
    // reset root's sockets, so it resets nothing.
    size_t digits = strspn(uid, "0123456789");
    if (digits == 0 || digits > 10 || uid[digits] != '\0' ||
        strtoull(uid, nullptr, 10) > UINT32_MAX) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " SLA_GAMING refusing UID text \"%.32s\"",
                            uid);
        return -EINVAL;
    }
    SockDiag sd;
    if (!sd.open()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            " SLA_GAMING Error opening NETLINK_SOCK_DIAG socket: %s",
                            strerror(errno));
        return -1;
    }
    // Negative results go to strerror as they are: it prints "Unknown error -N" for them.
    int ret =
            sd.destroySockets(IPPROTO_TCP, static_cast<uint32_t>(strtoul(uid, nullptr, 10)), false);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " SLA_GAMING Error destroying TCP sockets: %s",
                            strerror(ret));
    } else {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " SLA_GAMING destroying TCP sockets: %s", uid);
    }
    ret = sd.destroySockets(IPPROTO_UDP, static_cast<uint32_t>(strtoul(uid, nullptr, 10)), false);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " SLA_GAMING Error destroying UDP sockets: %s",
                            strerror(ret));
    } else {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " SLA_GAMING destroying UDP sockets: %s", uid);
    }
    return ret;
}

}  // namespace net
}  // namespace android
