/*
 * link-emulator: userspace delay lines standing in for a phone's Wi-Fi and cellular links.
 *
 * Each link is a pair of layer-3 TUN devices: NAME in the emulator's own network namespace (the
 * "device", e.g. wlan0) and PEERNAME in a peer namespace standing for the network behind that
 * link. Every packet read from one is written to the other. Packets from the device toward the
 * network wait `delay`, so a link's round-trip time grows by exactly that; both directions pass a
 * rate limit (serialization at `rate`) and lose packets at random with probability `loss`. The
 * settings of each link can be changed while it runs, through a UNIX control socket.
 *
 * Single-threaded: one ppoll loop over the TUN descriptors, the control socket and its clients,
 * woken no later than the next packet's departure. Each direction of a link is a FIFO whose
 * departure times never decrease, so packets keep their order.
 *
 * The same binary is the control client: `link-emulator set ...` and `link-emulator show`.
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "StopSignals.h"
#include "replay/Trace.h"

namespace {

// Per direction: packets beyond these bounds are dropped, as is a packet that would wait more
// than kMaxRateBacklogNs behind the rate limit (a router buffer of one second).
constexpr size_t kMaxQueuePackets = 4096;
constexpr size_t kMaxQueueBytes = 8u << 20;
constexpr int64_t kMaxRateBacklogNs = 1000000000;
constexpr int kReadBatch = 64;  // packets read from one TUN before looking at the others
constexpr size_t kMaxPacket = 65536;

// Control connections: one line each, answered and closed.
constexpr size_t kMaxClients = 16;
constexpr size_t kMaxLine = 1024;
constexpr int64_t kClientTimeoutNs = 5000000000;
constexpr int kClientWaitSeconds = 3;  // the client's connect, send and receive timeout

constexpr int64_t kMaxDelayUs = 60000000;
constexpr double kMaxRateBps = 100e9;
const char kDefaultSocket[] = "/run/link-emulator.sock";

void usage(FILE* out) {
    fprintf(out,
            "Usage:\n"
            "  link-emulator run --peer-netns PATH [--control SOCKPATH]\n"
            "                    --link NAME:PEERNAME[:delay=D][:rate=R][:loss=L] [--link ...]\n"
            "  link-emulator set NAME KEY=VALUE... [--control SOCKPATH]\n"
            "  link-emulator show [--control SOCKPATH]\n"
            "  link-emulator play TRACE [--control SOCKPATH]\n"
            "\n"
            "run: emulates network links between this process's network namespace (the device)\n"
            "and the namespace PATH (the networks behind the links; e.g. /run/netns/X,\n"
            "/proc/PID/ns/net or /proc/PID/fd/N). For each --link it creates a layer-3 TUN\n"
            "device NAME here and PEERNAME in PATH, brings both up, and forwards every packet\n"
            "between them. Addresses and routes are the caller's, e.g.\n"
            "    ip addr add 10.77.1.2 peer 10.77.1.1 dev wlan0           (here)\n"
            "    ip addr add 10.77.1.1 peer 10.77.1.2 dev wlan0-net       (in PATH)\n"
            "Prints \"link-emulator ready\" on stdout once every device exists and the control\n"
            "socket listens. Stops on SIGINT or SIGTERM: the devices vanish and the control\n"
            "socket file is removed.\n"
            "\n"
            "Settings of a link (on --link, separated by ':', or with set, separated by spaces):\n"
            "  delay=D   one-way delay of packets going from NAME to PEERNAME (device to\n"
            "            network) only; the way back has none. So delay=150ms makes the link's\n"
            "            RTT 150 ms longer. Milliseconds, \"ms\" optional, 0..60000 (default 0).\n"
            "            A change applies to packets arriving after it.\n"
            "  rate=R    rate limit of each direction on its own: a packet leaves no earlier than\n"
            "            the previous one plus its size*8/R. kbit without a suffix, or with\n"
            "            kbit, mbit or gbit; 0 or unlimited means no limit (the default).\n"
            "  loss=L    chance of dropping each packet, either direction, in percent, \"%%\"\n"
            "            optional, 0..100 (default 0).\n"
            "Each direction keeps its packets in order and holds at most 4096 packets or 8 MiB,\n"
            "and at most 1 s of backlog behind the rate limit; more is dropped.\n"
            "\n"
            "set: changes some settings of the running emulator's link NAME, e.g.\n"
            "    link-emulator set wlan0 delay=150ms rate=2000kbit loss=1%%\n"
            "show: prints each link's settings and packet counters; \"up\" is NAME to PEERNAME,\n"
            "    \"down\" the way back; dropped counts loss, full queues and failed writes.\n"
            "play: plays a selection-lab trace (see README.md, \"Selection lab\") on the running\n"
            "    emulator: from its start, each change of a link's round trip, loss or up/down\n"
            "    state is set at its time (delay=RTT, loss=LOSS, a link that is down loses\n"
            "    100%%). Prints \"play start EPOCH_US\" first, and ends with the trace.\n"
            "set and show exit 0 when the emulator accepted the command, 1 otherwise (error\n"
            "text on stderr), and give up after 3 s.\n"
            "\n"
            "The control socket is a UNIX stream socket; a client sends one line (\"set NAME\n"
            "KEY=VALUE...\" or \"show\") and gets \"ok\", the show lines, or \"error: REASON\".\n"
            "SOCKPATH defaults to $LINK_EMULATOR_SOCKET, or %s when that is unset.\n"
            "Needs CAP_NET_ADMIN and CAP_SYS_ADMIN (TUN devices, setns).\n",
            kDefaultSocket);
}

int64_t monoNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Settings {
    int64_t delayUs = 0;
    uint64_t rateBps = 0;  // 0: unlimited
    double lossPercent = 0;
};

// A non-negative decimal number and the text after it.
bool parseNumber(const std::string& text, double* value, std::string* suffix) {
    if (text.empty() || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '.')) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    *value = strtod(text.c_str(), &end);
    if (end == text.c_str() || errno != 0 || !std::isfinite(*value)) return false;
    *suffix = end;
    return true;
}

// Applies one KEY=VALUE to `s`; false with a reason when it is not valid.
bool applySetting(const std::string& item, Settings* s, std::string* why) {
    const size_t eq = item.find('=');
    const std::string key = item.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
    double v = 0;
    std::string suffix;
    if (eq == std::string::npos) {
        *why = "expected KEY=VALUE, got '" + item + "'";
    } else if (key == "delay") {
        if (!parseNumber(value, &v, &suffix) || (suffix != "" && suffix != "ms") ||
            v * 1000 > kMaxDelayUs) {
            *why = "delay must be 0..60000 ms, e.g. delay=20ms";
        } else {
            s->delayUs = std::llround(v * 1000);
            return true;
        }
    } else if (key == "rate") {
        if (value == "unlimited") {
            s->rateBps = 0;
            return true;
        }
        double unit = 0;  // bit/s per unit given
        if (parseNumber(value, &v, &suffix)) {
            if (suffix == "" || suffix == "kbit") unit = 1e3;
            if (suffix == "mbit") unit = 1e6;
            if (suffix == "gbit") unit = 1e9;
        }
        if (unit == 0 || v * unit > kMaxRateBps || (v != 0 && v * unit < 1000)) {
            *why = "rate must be 0 (unlimited) or 1kbit..100gbit, e.g. rate=2000kbit";
        } else {
            s->rateBps = static_cast<uint64_t>(std::llround(v * unit));
            return true;
        }
    } else if (key == "loss") {
        if (!parseNumber(value, &v, &suffix) || (suffix != "" && suffix != "%") || v > 100) {
            *why = "loss must be 0..100 percent, e.g. loss=0.5%";
        } else {
            s->lossPercent = v;
            return true;
        }
    } else {
        *why = "unknown setting '" + key + "' (delay, rate or loss)";
    }
    return false;
}

std::string formatSettings(const Settings& s) {
    char delay[32], rate[32], loss[32];
    if (s.delayUs % 1000 == 0) {
        snprintf(delay, sizeof(delay), "%lldms", static_cast<long long>(s.delayUs / 1000));
    } else {
        snprintf(delay, sizeof(delay), "%.3fms", static_cast<double>(s.delayUs) / 1000);
    }
    if (s.rateBps == 0) {
        snprintf(rate, sizeof(rate), "unlimited");
    } else if (s.rateBps % 1000000 == 0) {
        snprintf(rate, sizeof(rate), "%llumbit",
                 static_cast<unsigned long long>(s.rateBps / 1000000));
    } else if (s.rateBps % 1000 == 0) {
        snprintf(rate, sizeof(rate), "%llukbit", static_cast<unsigned long long>(s.rateBps / 1000));
    } else {
        snprintf(rate, sizeof(rate), "%.3fkbit", static_cast<double>(s.rateBps) / 1000);
    }
    snprintf(loss, sizeof(loss), "%g%%", s.lossPercent);
    return std::string("delay=") + delay + " rate=" + rate + " loss=" + loss;
}

bool validIfName(const std::string& name) {
    if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == "..") return false;
    for (char c : name) {
        if (c <= ' ' || c > '~' || c == '/' || c == ':' || c == '%') return false;
    }
    return true;
}

bool printable(const std::string& s) {
    for (char c : s) {
        if ((c < ' ' && c != '\t') || c > '~') return false;
    }
    return true;
}

std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    size_t pos = 0;
    while ((pos = line.find_first_not_of(" \t\r", pos)) != std::string::npos) {
        size_t end = line.find_first_of(" \t\r", pos);
        if (end == std::string::npos) end = line.size();
        words.push_back(line.substr(pos, end - pos));
        pos = end;
    }
    return words;
}

bool fillUnixAddress(const std::string& path, struct sockaddr_un* sa) {
    *sa = {};
    sa->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(sa->sun_path)) return false;
    memcpy(sa->sun_path, path.data(), path.size());
    return true;
}

// A TUN device NAME (layer 3, no packet information) in the calling thread's network namespace,
// brought up; its non-blocking descriptor, or -1 with a reason.
int openTun(const std::string& name, std::string* why) {
    int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *why = std::string("open /dev/net/tun: ") + strerror(errno);
        return -1;
    }
    struct ifreq ifr = {};
    // Exclusive: never attach to a persistent device somebody else made.
    ifr.ifr_flags = static_cast<short>(IFF_TUN | IFF_NO_PI | IFF_TUN_EXCL);
    memcpy(ifr.ifr_name, name.data(), name.size());
    if (ioctl(fd, TUNSETIFF, &ifr) != 0) {
        *why = "cannot create TUN device " + name + ": " + strerror(errno) +
               (errno == EBUSY ? " (an interface of that name exists)" : "");
        close(fd);
        return -1;
    }
    // Interface ioctls act in the namespace of the socket they go through.
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0 || ioctl(s, SIOCGIFFLAGS, &ifr) != 0 ||
        (ifr.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &ifr) != 0)) {
        *why = "cannot bring " + name + " up: " + strerror(errno);
        if (s >= 0) close(s);
        close(fd);
        return -1;
    }
    close(s);
    return fd;
}

struct Packet {
    int64_t due;  // CLOCK_MONOTONIC ns
    std::vector<uint8_t> bytes;
};

// One way through a link: packets read from `from`, held, then written to `to`.
struct Direction {
    int from = -1;
    int to = -1;
    bool delayed = false;  // the device-to-network way, which carries the link's delay
    bool broken = false;   // `from` failed (device deleted): no longer read
    std::deque<Packet> queue;
    size_t queuedBytes = 0;
    int64_t busyUntil = 0;  // end of the serialization of the last packet accepted
    uint64_t forwarded = 0;
    uint64_t dropped = 0;
};

struct Link {
    std::string name;
    std::string peerName;
    Settings settings;
    Direction up;    // NAME -> PEERNAME
    Direction down;  // PEERNAME -> NAME
};

struct Client {
    int fd;
    std::string in;
    int64_t deadline;
};

class Emulator {
  public:
    explicit Emulator(std::vector<Link> links) : links_(std::move(links)), rng_(seed()) {}

    ~Emulator() {
        for (Link& link : links_) {
            if (link.up.from >= 0) close(link.up.from);
            if (link.down.from >= 0) close(link.down.from);
        }
        for (Client& c : clients_) close(c.fd);
        if (listener_ >= 0) {
            close(listener_);
            // Only our own socket file: a newer emulator may have replaced it.
            struct stat st;
            if (lstat(socketPath_.c_str(), &st) == 0 && st.st_ino == socketInode_) {
                unlink(socketPath_.c_str());
            }
        }
    }

    // Creates the devices: the peer's from inside the namespace at peerPath, then ours.
    bool createDevices(const std::string& peerPath) {
        int self = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        int peer = open(peerPath.c_str(), O_RDONLY | O_CLOEXEC);
        if (self < 0 || peer < 0 || setns(peer, CLONE_NEWNET) != 0) {
            fprintf(stderr, "link-emulator: cannot enter the network namespace %s: %s\n",
                    peerPath.c_str(), strerror(errno));
            if (self >= 0) close(self);
            if (peer >= 0) close(peer);
            return false;
        }
        std::string why;
        bool ok = true;
        for (Link& link : links_) {
            link.down.from = link.up.to = openTun(link.peerName, &why);
            if (!(ok = link.down.from >= 0)) break;
        }
        if (setns(self, CLONE_NEWNET) != 0) {
            fprintf(stderr, "link-emulator: cannot return to its own namespace: %s\n",
                    strerror(errno));
            _exit(1);  // never go on in the wrong namespace
        }
        close(self);
        close(peer);
        for (Link& link : links_) {
            if (!ok) break;
            link.up.from = link.down.to = openTun(link.name, &why);
            ok = link.up.from >= 0;
        }
        if (!ok) {
            fprintf(stderr, "link-emulator: %s\n", why.c_str());
            return false;
        }
        for (Link& link : links_) {
            link.up.delayed = true;
            fprintf(stderr, "link-emulator: %s <-> %s %s\n", link.name.c_str(),
                    link.peerName.c_str(), formatSettings(link.settings).c_str());
        }
        return true;
    }

    bool listenControl(const std::string& path) {
        struct sockaddr_un sa;
        if (!fillUnixAddress(path, &sa)) {
            fprintf(stderr, "link-emulator: bad control socket path %s\n", path.c_str());
            return false;
        }
        struct stat st;
        if (lstat(path.c_str(), &st) == 0) {
            if (!S_ISSOCK(st.st_mode)) {
                fprintf(stderr, "link-emulator: %s exists and is not a socket\n", path.c_str());
                return false;
            }
            int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const bool alive = probe >= 0 && connect(probe, reinterpret_cast<struct sockaddr*>(&sa),
                                                     sizeof(sa)) == 0;
            if (probe >= 0) close(probe);
            if (alive) {
                fprintf(stderr, "link-emulator: another emulator listens on %s\n", path.c_str());
                return false;
            }
            unlink(path.c_str());  // stale, left by an emulator that was killed
        }
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (listener_ < 0 ||
            bind(listener_, reinterpret_cast<struct sockaddr*>(&sa), sizeof(sa)) != 0) {
            fprintf(stderr, "link-emulator: cannot bind %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        socketPath_ = path;
        if (lstat(path.c_str(), &st) == 0) socketInode_ = st.st_ino;
        chmod(path.c_str(), 0600);
        if (listen(listener_, 64) != 0) {
            fprintf(stderr, "link-emulator: listen: %s\n", strerror(errno));
            return false;
        }
        return true;
    }

    int run() {
        sigset_t unblocked;
        sigprocmask(SIG_SETMASK, nullptr, &unblocked);
        sigdelset(&unblocked, SIGINT);
        sigdelset(&unblocked, SIGTERM);
        std::vector<struct pollfd> fds;
        while (!gStop) {
            int64_t now = monoNs();
            int64_t wake = INT64_MAX;
            for (Link& link : links_) {
                for (Direction* d : {&link.up, &link.down}) {
                    release(*d, now);
                    if (!d->queue.empty()) wake = std::min(wake, d->queue.front().due);
                }
            }
            for (const Client& c : clients_) wake = std::min(wake, c.deadline);

            fds.clear();
            fds.push_back({listener_, POLLIN, 0});
            for (const Link& link : links_) {
                fds.push_back({link.up.broken ? -1 : link.up.from, POLLIN, 0});
                fds.push_back({link.down.broken ? -1 : link.down.from, POLLIN, 0});
            }
            for (const Client& c : clients_) fds.push_back({c.fd, POLLIN, 0});
            struct timespec timeout = {};
            if (wake > now && wake != INT64_MAX) {
                timeout.tv_sec = (wake - now) / 1000000000;
                timeout.tv_nsec = (wake - now) % 1000000000;
            }
            // The stop signals are blocked except while waiting here, so none is missed.
            int r = ppoll(fds.data(), fds.size(), wake == INT64_MAX ? nullptr : &timeout,
                          &unblocked);
            if (r < 0) {
                if (errno == EINTR) continue;
                fprintf(stderr, "link-emulator: poll: %s\n", strerror(errno));
                return 1;
            }
            for (size_t i = 0; i < links_.size(); ++i) {
                if (fds[1 + 2 * i].revents != 0) receive(links_[i], links_[i].up);
                if (fds[2 + 2 * i].revents != 0) receive(links_[i], links_[i].down);
            }
            serveClients(fds, 1 + 2 * links_.size());
            if (fds[0].revents & POLLIN) acceptClients();
        }
        fprintf(stderr, "link-emulator: stopping\n");
        return 0;
    }

  private:
    static uint64_t seed() {
        std::random_device rd;
        return (static_cast<uint64_t>(rd()) << 32) ^ rd();
    }

    void receive(const Link& link, Direction& d) {
        static uint8_t buf[kMaxPacket];
        for (int i = 0; i < kReadBatch; ++i) {
            ssize_t n = read(d.from, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
            if (n <= 0) {
                fprintf(stderr, "link-emulator: %s: device gone (%s), no longer read\n",
                        (d.delayed ? link.name : link.peerName).c_str(),
                        n < 0 ? strerror(errno) : "end of file");
                d.broken = true;
                return;
            }
            enqueue(link.settings, d, buf, static_cast<size_t>(n), monoNs());
        }
    }

    void enqueue(const Settings& s, Direction& d, const uint8_t* data, size_t len, int64_t now) {
        if (s.lossPercent > 0 &&
            std::uniform_real_distribution<double>(0, 100)(rng_) < s.lossPercent) {
            ++d.dropped;
            return;
        }
        const int64_t start = std::max(now, d.busyUntil);
        if ((s.rateBps != 0 && start - now > kMaxRateBacklogNs) ||
            d.queue.size() >= kMaxQueuePackets || d.queuedBytes + len > kMaxQueueBytes) {
            ++d.dropped;
            return;
        }
        // Serialization at the rate first, then the delay on top.
        d.busyUntil = start;
        if (s.rateBps != 0) d.busyUntil += static_cast<int64_t>(len * 8000000000ull / s.rateBps);
        int64_t due = d.busyUntil + (d.delayed ? s.delayUs * 1000 : 0);
        // A shortened delay must not let a packet overtake the ones still held.
        if (!d.queue.empty()) due = std::max(due, d.queue.back().due);
        d.queue.push_back({due, std::vector<uint8_t>(data, data + len)});
        d.queuedBytes += len;
    }

    static void release(Direction& d, int64_t now) {
        while (!d.queue.empty() && d.queue.front().due <= now) {
            const std::vector<uint8_t>& bytes = d.queue.front().bytes;
            ssize_t n;
            do {
                n = write(d.to, bytes.data(), bytes.size());
            } while (n < 0 && errno == EINTR);
            // A device that is down refuses packets (EIO): they are lost, as on a real link.
            if (n == static_cast<ssize_t>(bytes.size())) {
                ++d.forwarded;
            } else {
                ++d.dropped;
            }
            d.queuedBytes -= bytes.size();
            d.queue.pop_front();
        }
    }

    void acceptClients() {
        for (;;) {
            int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                return;
            }
            if (clients_.size() >= kMaxClients) {
                reply(fd, "error: busy\n");
                continue;
            }
            clients_.push_back({fd, std::string(), monoNs() + kClientTimeoutNs});
        }
    }

    // Reads the clients that have something; answers each complete line and closes.
    void serveClients(const std::vector<struct pollfd>& fds, size_t first) {
        const int64_t now = monoNs();
        for (size_t i = clients_.size(); i-- > 0;) {
            Client& c = clients_[i];
            bool done = false;
            if (fds[first + i].revents != 0) {
                char buf[512];
                ssize_t n = recv(c.fd, buf, sizeof(buf), 0);
                if (n > 0) c.in.append(buf, static_cast<size_t>(n));
                const size_t nl = c.in.find('\n');
                if (nl != std::string::npos) {
                    reply(c.fd, command(c.in.substr(0, nl)));
                    done = true;
                } else if (c.in.size() > kMaxLine) {
                    reply(c.fd, "error: line too long\n");
                    done = true;
                } else if (n == 0 && !c.in.empty()) {
                    reply(c.fd, command(c.in));  // the last line without its newline
                    done = true;
                } else if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                    close(c.fd);
                    done = true;
                }
            }
            if (!done && now >= c.deadline) {
                reply(c.fd, "error: no command received\n");
                done = true;
            }
            if (done) {
                clients_[i] = clients_.back();
                clients_.pop_back();
            }
        }
    }

    // Sends the whole answer (waiting at most a second for a client that does not read) and
    // closes the connection.
    static void reply(int fd, const std::string& text) {
        const int flags = fcntl(fd, F_GETFL);
        if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
        struct timeval tv = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        size_t sent = 0;
        while (sent < text.size()) {
            ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            sent += static_cast<size_t>(n);
        }
        // Closing with unread bytes would reset the connection and lose the answer: read what
        // the client sent beyond its line first.
        char junk[4096];
        for (int i = 0; i < 16 && recv(fd, junk, sizeof(junk), MSG_DONTWAIT) > 0; ++i) {
        }
        close(fd);
    }

    std::string command(std::string line) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!printable(line)) return "error: unprintable bytes in the command\n";
        const std::vector<std::string> words = splitWords(line);
        if (words.empty()) return "error: empty command\n";
        if (words[0] == "show" && words.size() == 1) {
            std::string out;
            for (const Link& link : links_) out += showLine(link);
            return out;
        }
        if (words[0] != "set") return "error: unknown command (set or show)\n";
        if (words.size() < 3) return "error: usage: set NAME KEY=VALUE...\n";
        auto it = std::find_if(links_.begin(), links_.end(),
                               [&](const Link& l) { return l.name == words[1]; });
        if (it == links_.end()) return "error: no link " + words[1] + "\n";
        Settings s = it->settings;
        std::string why;
        for (size_t i = 2; i < words.size(); ++i) {
            if (!applySetting(words[i], &s, &why)) return "error: " + why + "\n";
        }
        it->settings = s;
        fprintf(stderr, "link-emulator: %s now %s\n", it->name.c_str(), formatSettings(s).c_str());
        return "ok\n";
    }

    static std::string showLine(const Link& link) {
        char counters[256];
        snprintf(counters, sizeof(counters),
                 " up.forwarded=%llu up.dropped=%llu up.queued=%zu"
                 " down.forwarded=%llu down.dropped=%llu down.queued=%zu",
                 static_cast<unsigned long long>(link.up.forwarded),
                 static_cast<unsigned long long>(link.up.dropped), link.up.queue.size(),
                 static_cast<unsigned long long>(link.down.forwarded),
                 static_cast<unsigned long long>(link.down.dropped), link.down.queue.size());
        return link.name + " peer=" + link.peerName + " " + formatSettings(link.settings) +
               counters + "\n";
    }

    std::vector<Link> links_;
    std::mt19937_64 rng_;
    int listener_ = -1;
    std::string socketPath_;
    ino_t socketInode_ = 0;
    std::vector<Client> clients_;
};

// NAME:PEERNAME[:KEY=VALUE]...
bool parseLink(const std::string& text, Link* link, std::string* why) {
    std::vector<std::string> parts;
    size_t pos = 0;
    for (;;) {
        size_t colon = text.find(':', pos);
        parts.push_back(text.substr(pos, colon - pos));
        if (colon == std::string::npos) break;
        pos = colon + 1;
    }
    if (parts.size() < 2 || !validIfName(parts[0]) || !validIfName(parts[1])) {
        *why = "--link " + text + ": expected NAME:PEERNAME[:KEY=VALUE]... with interface names";
        return false;
    }
    link->name = parts[0];
    link->peerName = parts[1];
    for (size_t i = 2; i < parts.size(); ++i) {
        if (!applySetting(parts[i], &link->settings, why)) {
            *why = "--link " + text + ": " + *why;
            return false;
        }
    }
    return true;
}

int runEmulator(int argc, char** argv, const std::string& defaultSocket) {
    std::string peerPath;
    std::string socketPath = defaultSocket;
    std::vector<Link> links;
    static const struct option kOptions[] = {
            {"peer-netns", required_argument, nullptr, 'p'},
            {"control", required_argument, nullptr, 'c'},
            {"link", required_argument, nullptr, 'l'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "p:c:l:h", kOptions, nullptr)) != -1) {
        switch (c) {
            case 'p':
                peerPath = optarg;
                break;
            case 'c':
                socketPath = optarg;
                break;
            case 'l': {
                Link link;
                std::string why;
                if (!parseLink(optarg, &link, &why)) {
                    fprintf(stderr, "link-emulator: %s\n", why.c_str());
                    return 2;
                }
                for (const Link& other : links) {
                    if (other.name == link.name || other.peerName == link.peerName) {
                        fprintf(stderr, "link-emulator: --link %s: name used twice\n", optarg);
                        return 2;
                    }
                }
                links.push_back(std::move(link));
                break;
            }
            case 'h':
                usage(stdout);
                return 0;
            default:
                fprintf(stderr, "link-emulator: see link-emulator --help\n");
                return 2;
        }
    }
    if (optind != argc || peerPath.empty() || links.empty()) {
        fprintf(stderr, "link-emulator: run needs --peer-netns PATH and at least one --link%s\n",
                optind != argc ? " and no other arguments" : "");
        return 2;
    }

    installStopSignals();

    // Wake-ups as close to a packet's departure as the kernel allows (the default slack is
    // 50 us).
    prctl(PR_SET_TIMERSLACK, 1);
    Emulator emulator(std::move(links));
    if (!emulator.createDevices(peerPath) || !emulator.listenControl(socketPath)) return 1;
    printf("link-emulator ready\n");
    fflush(stdout);
    return emulator.run();
}

// Sends one command line to the running emulator and prints its answer (unless `quiet`).
int runClient(const std::string& socketPath, const std::string& line, bool quiet = false) {
    struct sockaddr_un sa;
    if (!fillUnixAddress(socketPath, &sa)) {
        fprintf(stderr, "link-emulator: bad control socket path %s\n", socketPath.c_str());
        return 1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct timeval tv = {kClientWaitSeconds, 0};
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0) {
        fprintf(stderr, "link-emulator: socket: %s\n", strerror(errno));
        if (fd >= 0) close(fd);
        return 1;
    }
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof(sa)) != 0) {
        const int err = errno;
        fprintf(stderr, "link-emulator: no emulator at %s: %s\n", socketPath.c_str(),
                err == EAGAIN ? "timed out" : strerror(err));
        close(fd);
        return 1;
    }
    const std::string request = line + "\n";
    std::string answer;
    bool timedOut = false;
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
        timedOut = true;
    } else {
        char buf[4096];
        for (;;) {
            ssize_t n = recv(fd, buf, sizeof(buf), 0);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) timedOut = true;
            if (n <= 0 || answer.size() > (1u << 20)) break;
            answer.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    if (answer.empty()) {
        fprintf(stderr, "link-emulator: no answer from %s%s\n", socketPath.c_str(),
                timedOut ? " (timed out)" : "");
        return 1;
    }
    if (answer.compare(0, 6, "error:") == 0) {
        answer = answer.substr(0, answer.find('\n'));
        fprintf(stderr, "link-emulator: %s\n", answer.c_str());
        return 1;
    }
    if (!quiet) fputs(answer.c_str(), stdout);
    return 0;
}

// Plays a trace's link changes on the running emulator, each at its time from now.
int playTrace(const std::string& socketPath, const std::string& path) {
    mlbd::replay::Trace trace;
    std::string why;
    if (!mlbd::replay::loadTrace(path, &trace, &why)) {
        fprintf(stderr, "link-emulator: %s: %s\n", path.c_str(), why.c_str());
        return 2;
    }
    struct Step {
        int64_t atMs;
        std::string line;
    };
    std::vector<Step> steps;
    for (const mlbd::replay::TraceLink& link : trace.links) {
        for (const mlbd::replay::LinkPoint& p : link.points) {
            char line[128];
            snprintf(line, sizeof(line), "set %s delay=%lldms loss=%g%%", link.name.c_str(),
                     static_cast<long long>(llround(p.rttMs)), p.up ? p.loss * 100.0 : 100.0);
            steps.push_back(Step{p.atMs, line});
        }
    }
    std::stable_sort(steps.begin(), steps.end(),
                     [](const Step& a, const Step& b) { return a.atMs < b.atMs; });
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    struct timeval wall;
    gettimeofday(&wall, nullptr);
    printf("play start %lld\n", static_cast<long long>(wall.tv_sec) * 1000000LL + wall.tv_usec);
    fflush(stdout);
    auto sleepUntil = [&start](int64_t ms) {
        struct timespec at = start;
        at.tv_sec += ms / 1000;
        at.tv_nsec += (ms % 1000) * 1000000L;
        if (at.tv_nsec >= 1000000000L) {
            at.tv_sec += 1;
            at.tv_nsec -= 1000000000L;
        }
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
        }
    };
    int failures = 0;
    for (const Step& step : steps) {
        sleepUntil(step.atMs);
        if (runClient(socketPath, step.line, true) != 0) ++failures;
    }
    sleepUntil(trace.durationMs);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const char* env = getenv("LINK_EMULATOR_SOCKET");
    const std::string defaultSocket = env != nullptr && *env != '\0' ? env : kDefaultSocket;
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "run") return runEmulator(argc - 1, argv + 1, defaultSocket);
    if (mode == "--help" || mode == "-h" || mode == "help") {
        usage(stdout);
        return 0;
    }
    if (mode == "play") {
        std::string socketPath = defaultSocket, trace;
        for (int i = 2; i < argc; ++i) {
            const std::string arg = argv[i];
            if (arg == "--control" && i + 1 < argc) {
                socketPath = argv[++i];
            } else if (trace.empty() && arg.compare(0, 1, "-") != 0) {
                trace = arg;
            } else {
                fprintf(stderr, "link-emulator: usage: play TRACE [--control SOCKPATH]\n");
                return 2;
            }
        }
        if (trace.empty()) {
            fprintf(stderr, "link-emulator: usage: play TRACE [--control SOCKPATH]\n");
            return 2;
        }
        return playTrace(socketPath, trace);
    }
    if (mode != "set" && mode != "show") {
        fprintf(stderr, "link-emulator: %s; see link-emulator --help\n",
                mode.empty() ? "no command given (run, set or show)"
                             : ("unknown command " + mode).c_str());
        return 2;
    }

    // set NAME KEY=VALUE... / show, with --control SOCKPATH anywhere.
    std::string socketPath = defaultSocket;
    std::vector<std::string> words = {mode};
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        } else if (arg == "--control" && i + 1 < argc) {
            socketPath = argv[++i];
        } else if (arg.compare(0, 10, "--control=") == 0) {
            socketPath = arg.substr(10);
        } else if (arg.compare(0, 1, "-") == 0 || !printable(arg) || splitWords(arg).size() != 1) {
            fprintf(stderr, "link-emulator: bad argument '%s'\n", printable(arg) ? argv[i] : "?");
            return 2;
        } else {
            words.push_back(arg);
        }
    }
    if (mode == "show" && words.size() != 1) {
        fprintf(stderr, "link-emulator: show takes no arguments\n");
        return 2;
    }
    if (mode == "set") {
        Settings check;
        std::string why;
        if (words.size() < 3 || !validIfName(words[1])) {
            fprintf(stderr, "link-emulator: usage: set NAME KEY=VALUE... [--control SOCKPATH]\n");
            return 2;
        }
        for (size_t i = 2; i < words.size(); ++i) {
            if (!applySetting(words[i], &check, &why)) {
                fprintf(stderr, "link-emulator: %s\n", why.c_str());
                return 2;
            }
        }
    }
    std::string line;
    for (const std::string& w : words) line += (line.empty() ? "" : " ") + w;
    return runClient(socketPath, line);
}
