/*
 * mlbdctl: sends commands to a running mlbd over its control socket.
 *
 *   mlbdctl whitelist 10010,10011
 *   mlbdctl start-sls 10050 -- rtt 200          several commands, one connection, in order
 *   printf 'voip 10123\nvoip 0\n' | mlbdctl -   a script on standard input
 *   mlbdctl status [--json]                    what the daemon has programmed, read from the
 *                                              kernel (see mlbdctl_status.h); sends nothing
 *
 * The daemon serves one client for its whole life: the first connection made after it started.
 * A later connection is accepted by the kernel but never read, so a platform client and mlbdctl
 * cannot both drive the same daemon, and a second mlbdctl run talks to nobody. Send everything
 * in one run (with "--" or a script). Arguments are checked before anything is sent; any error
 * is one line on stderr and a non-zero exit.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "MlbdSocketServer.h"
#include "mlbdctl_status.h"
#include "platform/Platform.h"

namespace {

// How long a connect may wait for the daemon before giving up.
constexpr int kConnectTimeoutMs = 3000;

enum class Arg { kNone, kUids, kUidsOrNull, kRtt, kCallUid, kBssid, kIface };

struct Command {
    const char* name;
    int32_t id;
    Arg arg;
    const char* help;
};

const Command kCommands[] = {
        {"whitelist", MLBD_CMD_UID_WHITELIST, Arg::kUidsOrNull,
         "UIDS|NULL   UIDs whose web connections are split across links"},
        {"wlan-iface", MLBD_CMD_WLAN_INTERFACE, Arg::kIface, "NAME        current Wi-Fi interface"},
        {"data-iface", MLBD_CMD_DATA_INTERFACE, Arg::kIface,
         "NAME        current cellular interface"},
        {"rtt", MLBD_CMD_SLS_RTT, Arg::kRtt,
         "MS          the game's RTT; above the exit threshold "
         "starts probing"},
        {"start-sls", MLBD_CMD_START_SLS, Arg::kUids, "UIDS        start link selection for games"},
        {"stop-sls", MLBD_CMD_STOP_SLS, Arg::kNone, "            stop link selection"},
        {"dbl-wlan-whitelist", MLBD_CMD_DBL_WLAN_UID_WHITELIST, Arg::kUidsOrNull,
         "UIDS|NULL   UIDs allowed on the second Wi-Fi"},
        {"voip", MLBD_CMD_VOIP_STATUS, Arg::kCallUid,
         "UID|0       a call starts (its UID) or ends"},
        {"bssid", MLBD_CMD_VOIP_BSSID, Arg::kBssid,
         "BSSID       the access point, aa:bb:cc:dd:ee:ff"},
};

void usage(FILE* out) {
    fprintf(out,
            "Usage: mlbdctl [--socket PATH] COMMAND [ARG] [-- COMMAND [ARG]]...\n"
            "       mlbdctl [--socket PATH] -          (one command per line on stdin)\n"
            "       mlbdctl status [--json]            (the steering as the kernel holds it)\n\n"
            "Commands:\n");
    for (const Command& c : kCommands) fprintf(out, "  %-19s %s\n", c.name, c.help);
    fprintf(out,
            "\nThe daemon serves only the first client that connects after it started, for its\n"
            "whole life; later connections are never read. Send all commands in one run.\n"
            "--socket defaults to %s.\n"
            "status reads the rules, routing rules and tracked connections from the kernel\n"
            "through the daemon's own front-ends; it sends nothing to the daemon. Exit: 0\n"
            "healthy, 1 the kernel could not be read, 3 steering absent or rules missing,\n"
            "duplicated or stray.\n",
            mlbd::devicePath(MLBD_SOCKET_PATH).c_str());
}

// A UID as the daemon accepts it: 1 to 10 digits, no leading zero (except "0").
bool isUid(const std::string& text) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != text.npos) {
        return false;
    }
    return text.size() == 1 || text[0] != '0';
}

bool isUidList(const std::string& text) {
    std::stringstream in(text);
    std::string uid;
    int count = 0;
    while (std::getline(in, uid, ',')) {
        if (!isUid(uid)) return false;
        ++count;
    }
    return count > 0 && text.back() != ',';
}

bool isBssid(const std::string& text) {
    if (text.size() != 17) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (i % 3 == 2 ? text[i] != ':' : !isxdigit(static_cast<unsigned char>(text[i]))) {
            return false;
        }
    }
    return true;
}

// Checks one command's argument; "" when good, else why not.
std::string check(const Command& c, const std::string& arg) {
    switch (c.arg) {
        case Arg::kNone:
            return arg.empty() ? "" : "takes no argument";
        case Arg::kUids:
            return isUidList(arg) ? "" : "needs comma-separated UIDs (1 to 10 digits each)";
        case Arg::kUidsOrNull:
            return arg == "NULL" || isUidList(arg) ? "" : "needs comma-separated UIDs or NULL";
        case Arg::kRtt:
            return !arg.empty() && arg.size() <= 9 &&
                                   arg.find_first_not_of("0123456789") == arg.npos
                           ? ""
                           : "needs a number of milliseconds";
        case Arg::kCallUid:
            return isUid(arg) ? "" : "needs the call's UID, or 0 when the call ends";
        case Arg::kBssid:
            return isBssid(arg) ? "" : "needs a BSSID like aa:bb:cc:dd:ee:ff";
        case Arg::kIface:
            return !arg.empty() && arg.size() < 16 && arg.find_first_of(" \t/") == arg.npos
                           ? ""
                           : "needs an interface name of 1 to 15 characters";
    }
    return "";
}

// Turns one command (name and its words) into a record; false with a reason.
bool encode(const std::vector<std::string>& words, msg_t* record, std::string* why) {
    for (const Command& c : kCommands) {
        if (words[0] != c.name) continue;
        if (words.size() > 2) {
            *why = words[0] + ": too many arguments";
            return false;
        }
        const std::string arg = words.size() == 2 ? words[1] : "";
        const std::string bad = check(c, arg);
        if (!bad.empty()) {
            *why = words[0] + " " + bad + (arg.empty() ? "" : ", not '" + arg + "'");
            return false;
        }
        memset(record, 0, sizeof(*record));
        record->id = c.id;
        record->length = static_cast<int32_t>(arg.size());
        memcpy(record->message, arg.data(), arg.size());
        return true;
    }
    *why = words[0] == "status" ? "status runs on its own: mlbdctl status [--json]"
                                : "unknown command '" + words[0] + "' (see mlbdctl --help)";
    return false;
}

int connectTo(const std::string& path, std::string* why) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        *why = "socket path too long: " + path;
        return -1;
    }
    memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *why = std::string("socket: ") + strerror(errno);
        return -1;
    }
    int rc = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    if (rc != 0 && errno == EAGAIN) {
        // The daemon's backlog is full: wait a little for room, then give up.
        pollfd p = {fd, POLLOUT, 0};
        rc = poll(&p, 1, kConnectTimeoutMs) == 1 ? 0 : (errno = ETIMEDOUT, -1);
    }
    if (rc != 0) {
        *why = "cannot connect to " + path + ": " + strerror(errno) +
               (errno == ENOENT || errno == ECONNREFUSED ? " (is mlbd running?)" : "");
        close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const msg_t& record, std::string* why) {
    const char* data = reinterpret_cast<const char*>(&record);
    for (size_t sent = 0; sent < sizeof(record);) {
        const ssize_t n = send(fd, data + sent, sizeof(record) - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EAGAIN) {
            // The daemon reads one record per pause; wait for room, but not for ever.
            pollfd p = {fd, POLLOUT, 0};
            if (poll(&p, 1, 30000) != 1) {
                *why = "the daemon is not reading its control socket";
                return false;
            }
        } else if (n < 0 && errno != EINTR) {
            *why = std::string("send: ") + strerror(errno);
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string path = mlbd::devicePath(MLBD_SOCKET_PATH);
    std::vector<std::vector<std::string>> commands(1);
    bool fromStdin = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            usage(stdout);
            return 0;
        } else if (word == "--socket" && i + 1 < argc && commands.back().empty()) {
            path = argv[++i];
        } else if (word == "-" && argc == i + 1 && commands.size() == 1 &&
                   commands.back().empty()) {
            fromStdin = true;
        } else if (word == "status" && commands.size() == 1 && commands.back().empty()) {
            return mlbd::statusMain(std::vector<std::string>(argv + i + 1, argv + argc));
        } else if (word == "--") {
            commands.emplace_back();
        } else {
            commands.back().push_back(word);
        }
    }
    if (fromStdin) {
        commands.clear();
        for (std::string line; std::getline(std::cin, line);) {
            std::istringstream words(line);
            std::vector<std::string> command;
            for (std::string w; words >> w;) command.push_back(w);
            if (!command.empty() && command[0][0] != '#') commands.push_back(command);
        }
    }

    // Every command is checked before anything is sent.
    std::vector<msg_t> records;
    for (const auto& words : commands) {
        std::string why;
        msg_t record;
        if (words.empty() || !encode(words, &record, &why)) {
            fprintf(stderr, "mlbdctl: %s\n",
                    words.empty() ? "no command given (see mlbdctl --help)" : why.c_str());
            return 2;
        }
        records.push_back(record);
    }
    std::string why;
    const int fd = connectTo(path, &why);
    if (fd < 0) {
        fprintf(stderr, "mlbdctl: %s\n", why.c_str());
        return 1;
    }
    for (const msg_t& record : records) {
        if (!sendAll(fd, record, &why)) {
            fprintf(stderr, "mlbdctl: %s\n", why.c_str());
            close(fd);
            return 1;
        }
    }
    close(fd);
    return 0;
}
