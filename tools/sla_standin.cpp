/*
 * sla-standin: a userspace stand-in for the SLA kernel module, for Linux hosts that lack it.
 *
 * It serves <root>/proc/sla to mlbd running with MLBD_ROOT=<root>: "config" is a FIFO whose
 * NUL-terminated commands it applies, every interface named by "iface=" gets its statistics file
 * "<iface>_mmap" (20480 bytes: header slot and a ring of 1279 16-byte records, little-endian),
 * and "sla_voip_state" carries a VoIP peer given on the command line. See usage() for what it
 * approximates.
 *
 * Single-threaded: one poll loop reads the FIFO and, once per interval, appends one closing
 * record per interface from the received-byte counters of its own network namespace.
 */
#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

namespace {

// The statistics file: slot 0 header, slots 1..1279 records of 16 bytes.
constexpr uint32_t kMagic = 0x686A7379;
constexpr size_t kFileBytes = 20480;
constexpr uint32_t kLastSlot = 1279;
constexpr uint8_t kKindStart = 0;
constexpr uint8_t kKindClosing = 2;

// A command longer than this without its NUL is dropped.
constexpr size_t kMaxCommand = 4096;
constexpr size_t kMaxIfaceName = 15;

volatile sig_atomic_t gStop = 0;

void onSignal(int) {
    gStop = 1;
}

void usage(FILE* out) {
    fprintf(out,
            "Usage: sla-standin [--root DIR] [--interval-ms N] [--voip-state TEXT | --voip-file "
            "PATH] [--iface NAME]... [--verbose]\n"
            "\n"
            "Userspace stand-in for the SLA kernel module, for hosts without it. Serves\n"
            "DIR/proc/sla (DIR defaults to $MLBD_ROOT) to mlbd run with MLBD_ROOT=DIR:\n"
            "  config            a FIFO; applies each NUL- (or newline-) terminated command:\n"
            "                    protocols=, ports= (recorded only), iface=NAME (creates\n"
            "                    NAME_mmap at once), enable=1|0, voip_uid=UID, voip_enable=1|0\n"
            "  NAME_mmap         20480 bytes in the module's layout (magic 0x686A7379, "
            "writeIndex,\n"
            "                    ring of 1279 records: u64 timestampMs, u32 bytes, kind, flags);\n"
            "                    while enabled, one closing record (kind 2, flags 0) per interval\n"
            "  sla_voip_state    while voip_enable=1: the text of --voip-state, or the content\n"
            "                    of --voip-file read afresh each interval; empty otherwise\n"
            "\n"
            "What it approximates: the module counts the received bytes of the configured\n"
            "protocols and ports per measurement interval. The stand-in counts ALL bytes\n"
            "received by the interface (its rx_bytes counter in /proc/self/net/dev, i.e. in the\n"
            "stand-in's own network namespace; run it in the daemon's namespace), closes an\n"
            "interval every --interval-ms whether or not traffic flowed (an interval of 0\n"
            "bytes when the interface does not exist), writes no intermediate records and no\n"
            "flags, and does not follow any UID's flows: the VoIP peer is what it is given.\n"
            "Timestamps are gettimeofday milliseconds, as the daemon expects.\n"
            "\n"
            "Options:\n"
            "  --root DIR         root to serve (default: $MLBD_ROOT; required)\n"
            "  --interval-ms N    measurement interval, 10..10000 ms (default 100)\n"
            "  --voip-state TEXT  VoIP peer, e.g. 10.0.0.2,5060\n"
            "  --voip-file PATH   read the VoIP peer from PATH\n"
            "  --iface NAME       create NAME_mmap at start (zeroed header until enable=1), as\n"
            "                     iface=NAME would; may be given several times\n"
            "  --verbose          print each interface's received rate once a second\n"
            "  --help             this text\n"
            "Stops on SIGINT or SIGTERM; the files stay in place.\n");
}

uint64_t wallMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

uint64_t monoMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

bool readWholeFile(const char* path, std::string* out, size_t limit) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out->clear();
    char buf[4096];
    while (out->size() < limit) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

// Received bytes per interface in this process's network namespace.
std::map<std::string, uint64_t> readRxCounters() {
    std::map<std::string, uint64_t> rx;
    std::string text;
    if (!readWholeFile("/proc/self/net/dev", &text, 1 << 20)) return rx;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;  // the two heading lines
        size_t first = line.find_first_not_of(' ');
        if (first == std::string::npos || first >= colon) continue;
        std::string name = line.substr(first, colon - first);
        rx[name] = strtoull(line.c_str() + colon + 1, nullptr, 10);
    }
    return rx;
}

void storeLe32(uint8_t* p, uint32_t v) {
    uint32_t le = htole32(v);
    __atomic_store_n(reinterpret_cast<uint32_t*>(p), le, __ATOMIC_RELEASE);
}

void storeLe64(uint8_t* p, uint64_t v) {
    uint64_t le = htole64(v);
    __atomic_store_n(reinterpret_cast<uint64_t*>(p), le, __ATOMIC_RELEASE);
}

struct Iface {
    std::string name;
    uint8_t* map = nullptr;
    uint32_t slot = 0;  // slot of the newest record
    uint64_t lastRx = 0;
    bool haveRx = false;
    uint64_t reportBytes = 0;
};

class StandIn {
  public:
    StandIn(std::string dir, uint32_t intervalMs, std::string voipText, std::string voipFile,
            bool verbose)
        : dir_(std::move(dir)),
          intervalMs_(intervalMs),
          voipText_(std::move(voipText)),
          voipFile_(std::move(voipFile)),
          verbose_(verbose) {}

    ~StandIn() {
        for (auto& entry : ifaces_) munmap(entry.second.map, kFileBytes);
        if (fifo_ >= 0) close(fifo_);
    }

    bool start(const std::vector<std::string>& ifaces) {
        const std::string config = dir_ + "/config";
        struct stat st;
        if (lstat(config.c_str(), &st) == 0 && !S_ISFIFO(st.st_mode)) unlink(config.c_str());
        if (mkfifo(config.c_str(), 0622) != 0 && errno != EEXIST) {
            fprintf(stderr, "sla-standin: mkfifo %s: %s\n", config.c_str(), strerror(errno));
            return false;
        }
        chmod(config.c_str(), 0622);
        // Read and write: holding a write end means the FIFO never reports end-of-file when the
        // daemon closes after each command.
        fifo_ = open(config.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fifo_ < 0) {
            fprintf(stderr, "sla-standin: open %s: %s\n", config.c_str(), strerror(errno));
            return false;
        }
        writeVoipState("");
        for (const std::string& name : ifaces) addIface(name);
        fprintf(stderr, "sla-standin: serving %s, interval %u ms\n", dir_.c_str(), intervalMs_);
        return true;
    }

    int run() {
        uint64_t nextTick = monoMs() + intervalMs_;
        uint64_t nextReport = monoMs() + 1000;
        while (!gStop) {
            uint64_t now = monoMs();
            int timeout = nextTick > now ? static_cast<int>(nextTick - now) : 0;
            struct pollfd pfd = {fifo_, POLLIN, 0};
            int r = poll(&pfd, 1, timeout);
            if (r < 0 && errno != EINTR) {
                fprintf(stderr, "sla-standin: poll: %s\n", strerror(errno));
                return 1;
            }
            if (r > 0 && (pfd.revents & POLLIN)) readCommands();
            now = monoMs();
            if (now >= nextTick) {
                tick();
                nextTick += intervalMs_;
                if (nextTick <= now) nextTick = now + intervalMs_;  // fell behind: resync
            }
            if (verbose_ && now >= nextReport) {
                report(now - nextReport + 1000);
                nextReport = now + 1000;
            }
        }
        fprintf(stderr, "sla-standin: stopping\n");
        return 0;
    }

  private:
    void readCommands() {
        char buf[4096];
        for (;;) {
            ssize_t n = read(fifo_, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            for (ssize_t i = 0; i < n; ++i) {
                char c = buf[i];
                if (c == '\0' || c == '\n') {
                    if (!dropping_ && !pending_.empty()) apply(pending_);
                    pending_.clear();
                    dropping_ = false;
                } else if (!dropping_) {
                    pending_.push_back(c);
                    if (pending_.size() > kMaxCommand) {
                        fprintf(stderr, "sla-standin: command too long, dropped\n");
                        pending_.clear();
                        dropping_ = true;
                    }
                }
            }
        }
    }

    static bool printable(const std::string& s) {
        for (char c : s) {
            if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) {
                return false;
            }
        }
        return true;
    }

    void apply(const std::string& raw) {
        std::string cmd = raw;
        while (!cmd.empty() && (cmd.back() == ' ' || cmd.back() == '\r')) cmd.pop_back();
        if (!printable(cmd)) {
            fprintf(stderr, "sla-standin: ignored a command with unprintable bytes\n");
            return;
        }
        fprintf(stderr, "sla-standin: command \"%s\"\n", cmd.c_str());
        size_t eq = cmd.find('=');
        std::string key = eq == std::string::npos ? cmd : cmd.substr(0, eq);
        std::string value = eq == std::string::npos ? "" : cmd.substr(eq + 1);
        if (key == "protocols") {
            protocols_ = value;  // counted traffic is not filtered: see --help
        } else if (key == "ports") {
            ports_ = value;
        } else if (key == "iface") {
            addIface(value);
        } else if (key == "enable") {
            setEnabled(atoi(value.c_str()) != 0);
        } else if (key == "voip_uid") {
            voipUid_ = value;
        } else if (key == "voip_enable") {
            voipEnabled_ = atoi(value.c_str()) != 0;
            writeVoipState(voipEnabled_ ? voipContent() : "");
        } else {
            fprintf(stderr, "sla-standin: unknown command ignored\n");
        }
    }

    void addIface(const std::string& name) {
        if (name.empty() || name.size() > kMaxIfaceName || name.find('/') != std::string::npos ||
            name == "." || name == "..") {
            fprintf(stderr, "sla-standin: bad interface name ignored\n");
            return;
        }
        if (ifaces_.count(name) != 0) return;
        const std::string path = dir_ + "/" + name + "_mmap";
        // Never truncated once sized: the daemon may hold a mapping of it at any time.
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0) {
            fprintf(stderr, "sla-standin: open %s: %s\n", path.c_str(), strerror(errno));
            return;
        }
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
            (static_cast<size_t>(st.st_size) != kFileBytes && ftruncate(fd, kFileBytes) != 0)) {
            fprintf(stderr, "sla-standin: cannot size %s\n", path.c_str());
            close(fd);
            return;
        }
        fchmod(fd, 0644);
        void* m = mmap(nullptr, kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (m == MAP_FAILED) {
            fprintf(stderr, "sla-standin: mmap %s: %s\n", path.c_str(), strerror(errno));
            return;
        }
        Iface& iface = ifaces_[name];
        iface.name = name;
        iface.map = static_cast<uint8_t*>(m);
        if (enabled_) {
            startRing(iface, readRxCounters());
        } else {
            storeLe32(iface.map, 0);  // not ready until enabled
        }
    }

    void setEnabled(bool enable) {
        if (enable == enabled_) return;
        enabled_ = enable;
        if (!enable) return;  // the rings keep their last records; no new ones
        std::map<std::string, uint64_t> rx = readRxCounters();
        for (auto& entry : ifaces_) startRing(entry.second, rx);
    }

    // A fresh ring: one start record in slot 1, then the magic.
    void startRing(Iface& iface, const std::map<std::string, uint64_t>& rx) {
        storeLe32(iface.map, 0);
        memset(iface.map + 16, 0, kFileBytes - 16);
        writeRecord(iface, 1, wallMs(), 0, kKindStart);
        storeLe32(iface.map + 8, 1);
        storeLe32(iface.map, kMagic);
        auto it = rx.find(iface.name);
        iface.haveRx = it != rx.end();
        iface.lastRx = iface.haveRx ? it->second : 0;
    }

    // Fields first, timestamp last (0 marks an unwritten slot), then the index moves.
    static void writeRecord(Iface& iface, uint32_t slot, uint64_t ts, uint32_t bytes,
                            uint8_t kind) {
        uint8_t* rec = iface.map + 16 * static_cast<size_t>(slot);
        storeLe32(rec + 8, bytes);
        rec[12] = 0;
        rec[13] = 0;
        rec[14] = kind;
        rec[15] = 0;
        storeLe64(rec, ts);
        iface.slot = slot;
    }

    void tick() {
        if (voipEnabled_ && !voipFile_.empty()) writeVoipState(voipContent());
        if (!enabled_ || ifaces_.empty()) return;
        std::map<std::string, uint64_t> rx = readRxCounters();
        const uint64_t ts = wallMs();
        for (auto& entry : ifaces_) {
            Iface& iface = entry.second;
            uint64_t delta = 0;
            auto it = rx.find(iface.name);
            if (it != rx.end()) {
                // A counter that went backwards belongs to a re-created interface.
                if (iface.haveRx && it->second >= iface.lastRx) delta = it->second - iface.lastRx;
                iface.lastRx = it->second;
                iface.haveRx = true;
            } else {
                iface.haveRx = false;
            }
            const uint32_t bytes = delta > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(delta);
            const uint32_t slot = iface.slot % kLastSlot + 1;
            writeRecord(iface, slot, ts, bytes, kKindClosing);
            // The header names slot 1279 as 0.
            storeLe32(iface.map + 8, slot % kLastSlot);
            iface.reportBytes += bytes;
        }
    }

    void report(uint64_t periodMs) {
        if (!enabled_ || ifaces_.empty() || periodMs == 0) return;
        std::string line = "sla-standin: received";
        for (auto& entry : ifaces_) {
            char part[96];
            snprintf(part, sizeof(part), " %s %llu kbit/s", entry.first.c_str(),
                     static_cast<unsigned long long>(entry.second.reportBytes * 8000 / 1024 /
                                                     periodMs));
            line += part;
            entry.second.reportBytes = 0;
        }
        fprintf(stderr, "%s\n", line.c_str());
    }

    std::string voipContent() {
        if (voipFile_.empty()) return voipText_;
        std::string text;
        if (!readWholeFile(voipFile_.c_str(), &text, 256)) return "";
        return text;
    }

    void writeVoipState(const std::string& text) {
        if (text == lastVoip_ && voipWritten_) return;
        const std::string path = dir_ + "/sla_voip_state";
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0) {
            fprintf(stderr, "sla-standin: open %s: %s\n", path.c_str(), strerror(errno));
            return;
        }
        if (!text.empty() && write(fd, text.data(), text.size()) < 0) {
            fprintf(stderr, "sla-standin: write %s: %s\n", path.c_str(), strerror(errno));
        }
        close(fd);
        lastVoip_ = text;
        voipWritten_ = true;
    }

    std::string dir_;
    uint32_t intervalMs_;
    std::string voipText_;
    std::string voipFile_;
    bool verbose_;
    int fifo_ = -1;
    std::string pending_;
    bool dropping_ = false;
    std::map<std::string, Iface> ifaces_;
    bool enabled_ = false;
    std::string protocols_;
    std::string ports_;
    std::string voipUid_;
    bool voipEnabled_ = false;
    std::string lastVoip_;
    bool voipWritten_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    const char* envRoot = getenv("MLBD_ROOT");
    std::string root = envRoot != nullptr ? envRoot : "";
    long intervalMs = 100;
    std::string voipText;
    std::string voipFile;
    bool verbose = false;
    std::vector<std::string> ifaces;

    static const struct option kOptions[] = {
            {"root", required_argument, nullptr, 'r'},
            {"interval-ms", required_argument, nullptr, 'i'},
            {"voip-state", required_argument, nullptr, 's'},
            {"voip-file", required_argument, nullptr, 'f'},
            {"iface", required_argument, nullptr, 'n'},
            {"verbose", no_argument, nullptr, 'v'},
            {"help", no_argument, nullptr, 'h'},
            {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "r:i:s:f:n:vh", kOptions, nullptr)) != -1) {
        switch (c) {
            case 'r':
                root = optarg;
                break;
            case 'i': {
                char* end = nullptr;
                intervalMs = strtol(optarg, &end, 10);
                if (end == optarg || *end != '\0' || intervalMs < 10 || intervalMs > 10000) {
                    fprintf(stderr, "sla-standin: --interval-ms must be 10..10000\n");
                    return 2;
                }
                break;
            }
            case 's':
                voipText = optarg;
                break;
            case 'f':
                voipFile = optarg;
                break;
            case 'n':
                ifaces.push_back(optarg);
                break;
            case 'v':
                verbose = true;
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind != argc || root.empty()) {
        if (root.empty()) fprintf(stderr, "sla-standin: no root: give --root or MLBD_ROOT\n");
        usage(stderr);
        return 2;
    }

    const std::string dir = root + "/proc/sla";
    for (const std::string& d : {root + "/proc", dir}) {
        if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST) {
            fprintf(stderr, "sla-standin: mkdir %s: %s\n", d.c_str(), strerror(errno));
            return 1;
        }
    }

    struct sigaction sa = {};
    sa.sa_handler = onSignal;  // no SA_RESTART: poll returns and the loop sees the flag
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    StandIn standIn(dir, static_cast<uint32_t>(intervalMs), voipText, voipFile, verbose);
    if (!standIn.start(ifaces)) return 1;
    return standIn.run();
}
