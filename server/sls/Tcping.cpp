/*
 * The TCP probe: connect through one interface, ten small exchanges, read the kernel's RTT.
 */
#include "sls/Tcping.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "parameters/Parameters.h"

#define LOG_TAG "Mlbd-Tcping"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

// Exchanges per probe, and the request and response buffer (28 characters and a zero are sent;
// 30 bytes are awaited).
constexpr int kExchanges = 10;
constexpr int kBufferBytes = 30;
// Send, connect and receive each give up after half a second.
constexpr suseconds_t kTimeoutUs = 500000;

void closeSocket(sls_tcping_info* info) {
    if (info->sockfd >= 0) close(info->sockfd);
    info->sockfd = -1;
}

// Whether the interface lacks an IPv4 address (an IPv6-only link, whose IPv4 if any goes through
// the platform's 464XLAT interface). A probe bound to it could not reach an IPv4 target: the
// kernel would send on-link from no address and wait out the time-out.
bool lacksIpv4Address(const char* name) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    const bool lacks = ioctl(fd, SIOCGIFADDR, &request) != 0 && errno == EADDRNOTAVAIL;
    close(fd);
    return lacks;
}

// The IPv6 default target to probe instead of the configured IPv4 default target through a link
// without IPv4; null otherwise.
const char* ipv6DefaultTargetFor(const sls_tcping_info* info) {
    Parameters* params = Parameters::instance();
    if (!params->isIpv6Enabled() || params->rttServer6.empty() || info->server == nullptr ||
        info->ifaceName == nullptr || params->rttServerDefault != info->server ||
        !lacksIpv4Address(info->ifaceName)) {
        return nullptr;
    }
    return params->rttServer6.c_str();
}

}  // namespace

int Tcping::updateTcpingRtt(sls_tcping_info* info) {
    if (const char* target = ipv6DefaultTargetFor(info)) {
        LOGD("updateTcpingRtt %s has no IPv4 address, probing the IPv6 default target %s",
             info->ifaceName, target);
        sls_tcping_info over6 = *info;
        over6.server = target;
        const int rtt = populateTcpingSocket(&over6) < 0 ? -1 : getTcpingRtt(&over6);
        info->rtt = over6.rtt;
        return rtt;
    }
    if (populateTcpingSocket(info) < 0) return -1;
    return getTcpingRtt(info);
}

int Tcping::populateTcpingSocket(sls_tcping_info* info) {
    const char* server = info->server != nullptr ? info->server : "";
    // A target that cannot be reached by its nature is a miss with a clear line, not a
    // connection attempt to the broadcast address or to port 0.
    in_addr_t address = inet_addr(server);
    info->ipv6 = Parameters::instance()->isIpv6Enabled() &&
                 inet_pton(AF_INET6, server, &info->serverAddr6.sin6_addr) == 1;
    if ((address == INADDR_NONE && !info->ipv6) || info->port == 0 || info->port > 0xFFFF) {
        LOGE("populateTcpingSocket rtt server %s port %u is not an IPv4 address and port", server,
             info->port);
        return -1;
    }

    info->sockfd = socket(info->ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (info->sockfd < 0) {
        LOGE("create socket failed of client!\n");
        return -1;
    }
    memset(&info->serverAddr, 0, sizeof(info->serverAddr));
    info->serverAddr.sin_family = AF_INET;
    info->serverAddr.sin_port = htons(static_cast<uint16_t>(info->port));
    info->serverAddr.sin_addr.s_addr = address;
    info->serverAddr6.sin6_family = AF_INET6;
    info->serverAddr6.sin6_port = info->serverAddr.sin_port;

    // The send time-out also bounds the connect.
    struct timeval timeout = {0, kTimeoutUs};
    setsockopt(info->sockfd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (setsockopt(info->sockfd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
        LOGE("Set SocketTimeout failed.");
        closeSocket(info);
        return -1;
    }
    LOGD("populateTcpingSocket server is %s", server);
    if (info->ifaceName == nullptr) return 0;

    // The request carries at most 15 characters of the name.
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strncpy(request.ifr_name, info->ifaceName, IFNAMSIZ - 1);
    ioctl(info->sockfd, SIOCGIFINDEX, &request);
    if (setsockopt(info->sockfd, SOL_SOCKET, SO_BINDTODEVICE, &request, sizeof(request)) != 0) {
        LOGE("Set interface %s failed.", info->ifaceName);
        closeSocket(info);
        return -1;
    }
    return 0;
}

int Tcping::getTcpingRtt(sls_tcping_info* info) {
    const bool connected =
            info->ipv6
                    ? connect(info->sockfd, reinterpret_cast<const sockaddr*>(&info->serverAddr6),
                              sizeof(info->serverAddr6)) == 0
                    : connect(info->sockfd, reinterpret_cast<const sockaddr*>(&info->serverAddr),
                              sizeof(info->serverAddr)) == 0;
    if (!connected) {
        const int error = errno;
        if (Parameters::instance()->isIpv6Enabled()) {
            LOGD("getTcpingRtt %s to %s: %s", info->ifaceName != nullptr ? info->ifaceName : "",
                 info->server != nullptr ? info->server : "", strerror(error));
        }
        LOGE("connect failed of client!\n");
        closeSocket(info);
        return -1;
    }
    char buffer[kBufferBytes];
    for (int i = 0; i < kExchanges; ++i) {
        memset(buffer, 0, sizeof(buffer));
        genRandomString(kBufferBytes, buffer);
        // MSG_NOSIGNAL: a server that has closed the connection must not end the daemon.
        if (send(info->sockfd, buffer, strlen(buffer), MSG_NOSIGNAL) < 0) {
            LOGE("send data to server request failed %d\n", -1);
            closeSocket(info);
            return -1;
        }
        memset(buffer, 0, sizeof(buffer));
        // A server that closed (0 bytes) is not a failure; silence past the time-out is.
        if (recv(info->sockfd, buffer, sizeof(buffer), MSG_WAITALL) < 0) {
            LOGE("recieve failed %d,error is %d", -1, errno);
            closeSocket(info);
            return -1;
        }
        memset(buffer, 0, sizeof(buffer));
    }

    struct tcp_info tcpInfo;
    socklen_t length = sizeof(tcpInfo);
    memset(&tcpInfo, 0, sizeof(tcpInfo));
    if (getsockopt(info->sockfd, IPPROTO_TCP, TCP_INFO, &tcpInfo, &length) != 0) {
        closeSocket(info);
        return -1;
    }
    const uint32_t kernelRttUs = tcpInfo.tcpi_rtt;
    closeSocket(info);
    return reportRtt(info, kernelRttUs);
}

int Tcping::reportRtt(sls_tcping_info* info, uint32_t kernelRttUs) {
    // A link faster than a millisecond counts as 1 ms: 0 would read as no measurement.
    info->rtt = kernelRttUs < 1000 ? 1 : kernelRttUs / 1000;
    // During a call a weak Wi-Fi signal makes Wi-Fi look slower.
    Parameters* params = Parameters::instance();
    if (params->isVoipRunning() && info->ifaceName != nullptr &&
        strncmp(info->ifaceName, "wlan", 4) == 0) {
        info->rtt += static_cast<uint32_t>(params->wifiRttPenaltyMs.load());
    }
    LOGD("TCPing cacla rtt is %d,device is %s", static_cast<int>(info->rtt),
         info->ifaceName != nullptr ? info->ifaceName : "");
    return static_cast<int>(info->rtt);
}

void Tcping::genRandomString(int length, char* buffer) {
    // Seeded from the microseconds of the time of day, as a private generator: probe threads of
    // several interfaces call this at once.
    struct timeval now;
    gettimeofday(&now, nullptr);
    unsigned int seed = static_cast<unsigned int>(now.tv_usec);
    for (int i = 0; i < length - 2; ++i) {
        switch (rand_r(&seed) % 3) {
            case 0:
                buffer[i] = static_cast<char>('A' + rand_r(&seed) % 26);
                break;
            case 1:
                buffer[i] = static_cast<char>('a' + rand_r(&seed) % 26);
                break;
            default:
                buffer[i] = static_cast<char>('0' + rand_r(&seed) % 10);
                break;
        }
    }
    if (length >= 1) buffer[length - 1] = '\0';
}
