/*
 * rtt-responder: the server end of the daemon's TCP round-trip probe.
 *
 * The probe connects to ADDRESS:PORT through one link, then ten times sends a 28-byte text and
 * waits for exactly 30 bytes back before it reads the connection's smoothed RTT from TCP_INFO.
 * This server answers every full 28 bytes received on a connection with 30 bytes: the 28 bytes
 * and two zero bytes. A probe's text may arrive split over several reads; bytes are accumulated
 * per connection until 28 are there.
 *
 * Single-threaded: one poll loop over the listening socket and up to kMaxConnections
 * connections; a connection beyond that is accepted and closed at once. A peer that does not read
 * its answers stops being read once kMaxPendingOut bytes wait for it.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "StopSignals.h"

namespace {

constexpr size_t kProbeBytes = 28;
constexpr size_t kAnswerBytes = 30;
constexpr size_t kMaxConnections = 256;
constexpr size_t kMaxPendingOut = 64 * 1024;

void usage(FILE* out) {
    fprintf(out,
            "Usage: rtt-responder [--address A] [--port P]\n"
            "\n"
            "Server end of mlbd's TCP round-trip probe. Listens on A:P (IPv4 or IPv6) and, on\n"
            "every connection, answers each 28 bytes received with 30 bytes (the 28 bytes and\n"
            "two zero bytes), however the 28 bytes are split over TCP segments. Serves up to\n"
            "256 connections at once; further ones are closed as soon as they are accepted.\n"
            "\n"
            "Options:\n"
            "  --address A   address to listen on (default 0.0.0.0)\n"
            "  --port P      TCP port, 0..65535 (default 443; 0 picks a free port)\n"
            "  --help        this text\n"
            "Prints \"rtt-responder listening on A:P\" on stderr once it accepts connections;\n"
            "stops on SIGINT or SIGTERM.\n");
}

struct Connection {
    int fd = -1;
    size_t partial = 0;  // bytes of the current 28-byte probe received so far
    std::string out;     // answers not yet sent
};

// A listening socket on address:port, or -1 with a message printed.
int listenOn(const std::string& address, const std::string& port, std::string* shown) {
    struct addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* res = nullptr;
    int rc = getaddrinfo(address.c_str(), port.c_str(), &hints, &res);
    if (rc != 0 || res == nullptr) {
        fprintf(stderr, "rtt-responder: bad address %s: %s\n", address.c_str(), gai_strerror(rc));
        return -1;
    }
    int fd = socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int one = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        bind(fd, res->ai_addr, res->ai_addrlen) != 0 || listen(fd, 128) != 0) {
        fprintf(stderr, "rtt-responder: cannot listen on %s:%s: %s\n", address.c_str(),
                port.c_str(), strerror(errno));
        if (fd >= 0) close(fd);
        freeaddrinfo(res);
        return -1;
    }
    const bool v6 = res->ai_family == AF_INET6;
    freeaddrinfo(res);
    // The port actually bound, for --port 0.
    struct sockaddr_storage ss = {};
    socklen_t len = sizeof(ss);
    unsigned boundPort = 0;
    if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&ss), &len) == 0) {
        boundPort = v6 ? ntohs(reinterpret_cast<struct sockaddr_in6*>(&ss)->sin6_port)
                       : ntohs(reinterpret_cast<struct sockaddr_in*>(&ss)->sin_port);
    }
    *shown = (v6 ? "[" + address + "]" : address) + ":" + std::to_string(boundPort);
    return fd;
}

// Reads what is there and queues the answers; false when the connection is to be closed.
bool readProbes(Connection& c) {
    char buf[4096];
    for (;;) {
        ssize_t n = recv(c.fd, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
        if (n == 0) return false;
        for (ssize_t i = 0; i < n;) {
            size_t take = kProbeBytes - c.partial;
            if (take > static_cast<size_t>(n - i)) take = static_cast<size_t>(n - i);
            c.out.append(buf + i, take);
            c.partial += take;
            i += static_cast<ssize_t>(take);
            if (c.partial == kProbeBytes) {
                c.out.append(kAnswerBytes - kProbeBytes, '\0');
                c.partial = 0;
            }
        }
        if (c.out.size() >= kMaxPendingOut) return true;  // let the peer read first
    }
}

// Sends the complete answers queued; false on a send error.
bool flushAnswers(Connection& c) {
    // Bytes of an unfinished probe sit at the end of `out` and are not sent yet.
    const size_t ready = c.out.size() - c.partial;
    size_t sent = 0;
    while (sent < ready) {
        ssize_t n = send(c.fd, c.out.data() + sent, ready - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    c.out.erase(0, sent);
    return true;
}

int serve(int listener) {
    std::vector<Connection> conns;
    std::vector<struct pollfd> fds;
    sigset_t unblocked;
    sigprocmask(SIG_SETMASK, nullptr, &unblocked);
    sigdelset(&unblocked, SIGINT);
    sigdelset(&unblocked, SIGTERM);
    while (!gStop) {
        fds.clear();
        fds.push_back({listener, POLLIN, 0});
        for (const Connection& c : conns) {
            short events = c.out.size() - c.partial > 0 ? POLLOUT : 0;
            if (c.out.size() < kMaxPendingOut) events |= POLLIN;
            fds.push_back({c.fd, events, 0});
        }
        // The stop signals are blocked except while waiting here, so none is missed.
        if (ppoll(fds.data(), fds.size(), nullptr, &unblocked) < 0) {
            if (errno == EINTR) continue;
            fprintf(stderr, "rtt-responder: poll: %s\n", strerror(errno));
            return 1;
        }
        for (size_t i = conns.size(); i-- > 0;) {
            Connection& c = conns[i];
            const short rev = fds[i + 1].revents;
            bool keep = true;
            if (rev & (POLLIN | POLLHUP | POLLERR)) keep = readProbes(c);
            if (keep) keep = flushAnswers(c);
            if (!keep) {
                close(c.fd);
                conns[i] = std::move(conns.back());
                conns.pop_back();
            }
        }
        if (fds[0].revents & POLLIN) {
            for (;;) {
                int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (fd < 0) {
                    if (errno == EINTR || errno == ECONNABORTED) continue;
                    if (errno != EAGAIN && errno != EWOULDBLOCK) {
                        fprintf(stderr, "rtt-responder: accept: %s\n", strerror(errno));
                    }
                    break;
                }
                if (conns.size() >= kMaxConnections) {
                    close(fd);
                    continue;
                }
                Connection c;
                c.fd = fd;
                conns.push_back(std::move(c));
            }
        }
    }
    for (Connection& c : conns) close(c.fd);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string address = "0.0.0.0";
    std::string port = "443";
    static const struct option kOptions[] = {
            {"address", required_argument, nullptr, 'a'},
            {"port", required_argument, nullptr, 'p'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "a:p:h", kOptions, nullptr)) != -1) {
        switch (c) {
            case 'a':
                address = optarg;
                break;
            case 'p': {
                char* end = nullptr;
                errno = 0;
                long v = strtol(optarg, &end, 10);
                if (end == optarg || *end != '\0' || errno != 0 || v < 0 || v > 65535) {
                    fprintf(stderr, "rtt-responder: --port must be 0..65535\n");
                    return 2;
                }
                port = std::to_string(v);
                break;
            }
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind != argc) {
        fprintf(stderr, "rtt-responder: unexpected argument %s\n", argv[optind]);
        return 2;
    }

    installStopSignals();

    std::string shown;
    int listener = listenOn(address, port, &shown);
    if (listener < 0) return 1;
    fprintf(stderr, "rtt-responder listening on %s\n", shown.c_str());
    int rc = serve(listener);
    close(listener);
    return rc;
}
