/*
 * mlbdctl status: reads the daemon's chains, marks, routing rules and tracked connections back
 * from the kernel and reports them per link, with a health verdict.
 *
 * What the daemon keeps in the kernel, and what is checked here:
 *   mangle OUTPUT          one "-j vexa_SLM_wapper"
 *   vexa_SLM_wapper        "-m owner --uid-owner UID -j vexa_SLM" per steered UID
 *   vexa_SLM               "-j vexa_SLS", CONNMARK --restore-mark, "-j vexa_SLA", in this order
 *   vexa_SLS               at most one "-j vexa_sls_uid_<link>": the link selected for games
 *   vexa_SLA               the split: "-m statistic --probability P -j vexa_fw_<link>[_wrapper]"
 *   vexa_fw_<link>         MARK, CONNMARK --save-mark, ACCEPT: the link's mark (one per link)
 *   vexa_fw_<link>_wrapper "--uid-owner UID -j vexa_fw_<link>": UIDs allowed on that link
 *   vexa_sls_<link>        UDP but DNS, and TCP, "-j vexa_fw_<link>", then ACCEPT
 *   vexa_sls_uid_<link>    "--uid-owner UID -j vexa_sls_<link>" per gaming UID
 *   nat POSTROUTING        one "-j vexa_nat_POSTROUTING_SLM"
 *   vexa_nat_POSTROUTING_SLM  "-o <link> -j MASQUERADE" per link
 *   ip rules               "fwmark <mark> lookup <table>" at priority 30000, one per link
 * With "ipv6=1" in the configuration the same holds for ip6tables and "ip -6 rule", and the IPv4
 * nat chain also holds "-o v4-<link> -j MASQUERADE" per link (the 464XLAT companion).
 * The links are the vexa_fw_<link> chains that are not some other link's _wrapper chain.
 */
#include "mlbdctl_status.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "platform/Platform.h"

extern char** environ;

namespace mlbd {
namespace {

// How long one front-end run may take (iptables may wait for the xtables lock).
constexpr int kToolTimeoutMs = 10000;
// Output beyond this is not a listing we can use.
constexpr size_t kMaxToolOutput = 32u << 20;
constexpr const char* kRulePriority = "30000";
constexpr const char* kLinkChainPrefix = "vexa_fw_";
constexpr const char* kWrapperSuffix = "_wrapper";
constexpr const char* kSelectionUidPrefix = "vexa_sls_uid_";
constexpr const char* kNatChain = "vexa_nat_POSTROUTING_SLM";

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string join(const std::vector<std::string>& items, const char* separator) {
    std::string out;
    for (const std::string& item : items) out += (out.empty() ? "" : separator) + item;
    return out;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string firstLine(const std::string& text) {
    for (std::string line : lines(text)) {
        while (!line.empty() && isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
        if (!line.empty()) return line;
    }
    return "";
}

// ---- Running the front-ends ----

long long nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Starts argv[0] directly (no shell) in its own process group, stdout and stderr on the pipes.
int spawn(const std::vector<std::string>& argv, int outFd, int errFd, pid_t* pid) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    int rc = posix_spawn_file_actions_init(&actions);
    if (rc != 0) return rc;
    rc = posix_spawnattr_init(&attr);
    if (rc != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return rc;
    }
    rc = posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    if (rc == 0) rc = posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
    if (rc == 0) {
        rc = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    // Its own group, so that a run past the time limit is ended together with its children.
    if (rc == 0) rc = posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    if (rc == 0) rc = posix_spawnattr_setpgroup(&attr, 0);
    if (rc == 0) rc = posix_spawn(pid, args[0], &actions, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return rc;
}

// Runs argv and collects its standard output. False, with one line in *why, when it could not
// be started, did not exit with 0, wrote too much, or did not finish within timeoutMs.
bool runTool(const std::vector<std::string>& argv, int timeoutMs, std::string* out,
             std::string* why) {
    std::vector<std::string> shownWords = argv;
    shownWords[0] = shownWords[0].substr(shownWords[0].rfind('/') + 1);
    const std::string shown = join(shownWords, " ");
    out->clear();

    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0) {
        *why = std::string("pipe: ") + strerror(errno);
        return false;
    }
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        *why = std::string("pipe: ") + strerror(errno);
        close(outPipe[0]);
        close(outPipe[1]);
        return false;
    }
    pid_t pid = -1;
    const int rc = spawn(argv, outPipe[1], errPipe[1], &pid);
    close(outPipe[1]);
    close(errPipe[1]);
    if (rc != 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        *why = "cannot run " + argv[0] + ": " + strerror(rc);
        return false;
    }

    std::string err;
    std::string trouble;  // set when the run has to be cut short
    const long long deadline = nowMs() + timeoutMs;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    for (int open = 2; open > 0 && trouble.empty();) {
        const long long left = deadline - nowMs();
        if (left <= 0) {
            trouble = "no answer within " + std::to_string(timeoutMs / 1000) + " s";
            break;
        }
        const int ready = poll(fds, 2, static_cast<int>(left));
        if (ready < 0 && errno != EINTR) trouble = std::string("poll: ") + strerror(errno);
        if (ready <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[65536];
            const ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
            if (got > 0) {
                std::string& sink = i == 0 ? *out : err;
                sink.append(buffer, static_cast<size_t>(got));
                if (sink.size() > kMaxToolOutput) trouble = "more output than expected";
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (pollfd& p : fds) {
        if (p.fd >= 0) close(p.fd);
    }

    int status = 0;
    pid_t reaped = 0;
    while (trouble.empty()) {
        reaped = waitpid(pid, &status, WNOHANG);
        if (reaped != 0 && !(reaped < 0 && errno == EINTR)) break;
        if (nowMs() >= deadline) {
            trouble = "no answer within " + std::to_string(timeoutMs / 1000) + " s";
        } else {
            usleep(5000);
        }
    }
    if (!trouble.empty()) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        *why = shown + ": " + trouble;
        return false;
    }
    if (reaped < 0) {
        *why = shown + ": " + strerror(errno);
        return false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        const std::string said = firstLine(err);
        *why = shown + " failed (" +
               (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                  : "signal " + std::to_string(WTERMSIG(status))) +
               ")" + (said.empty() ? "" : ": " + said);
        return false;
    }
    return true;
}

// Whether the configuration file sets "ipv6" to a non-zero number (its last "ipv6=" line, as
// the daemon reads it; a comment takes the character before its '#' along).
bool ipv6InConfiguration(const std::string& path) {
    std::ifstream file(path);
    bool on = false;
    for (std::string line; std::getline(file, line);) {
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash == 0 ? 0 : hash - 1);
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        key.erase(0, key.find_first_not_of(" \t"));
        key.erase(key.find_last_not_of(" \t") + 1);
        if (key == "ipv6") on = strtol(line.c_str() + eq + 1, nullptr, 10) != 0;
    }
    return on;
}

// ---- Parsing the listings ----

// Splits an "iptables -S" line into words; a double-quoted word (a comment) stays one word.
std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isspace(static_cast<unsigned char>(line[i]))) ++i;
        if (i == line.size()) break;
        std::string word;
        bool quoted = false;
        for (; i < line.size() && (quoted || !isspace(static_cast<unsigned char>(line[i]))); ++i) {
            if (line[i] == '\\' && quoted && i + 1 < line.size()) {
                word += line[++i];
            } else if (line[i] == '"') {
                quoted = !quoted;
            } else {
                word += line[i];
            }
        }
        words.push_back(word);
    }
    return words;
}

// One rule: the words after "-A CHAIN".
struct Rule {
    std::vector<std::string> words;

    // The word after the first `option`, or "".
    std::string value(const char* option) const {
        for (size_t i = 0; i + 1 < words.size(); ++i) {
            if (words[i] == option) return words[i + 1];
        }
        return "";
    }
    bool has(const char* word) const {
        for (const std::string& w : words) {
            if (w == word) return true;
        }
        return false;
    }
    std::string target() const { return value("-j"); }
    // "-j CHAIN" and nothing else.
    bool isBareJump(const std::string& chain) const {
        return words.size() == 2 && words[0] == "-j" && words[1] == chain;
    }
};

struct Table {
    std::set<std::string> chains;
    std::map<std::string, std::vector<Rule>> rules;

    bool hasChain(const std::string& chain) const { return chains.count(chain) != 0; }
    const std::vector<Rule>& of(const std::string& chain) const {
        static const std::vector<Rule> kNone;
        auto it = rules.find(chain);
        return it == rules.end() ? kNone : it->second;
    }
};

Table parseTable(const std::string& listing) {
    Table table;
    for (const std::string& line : lines(listing)) {
        std::vector<std::string> words = splitWords(line);
        if (words.size() < 2) continue;
        if (words[0] == "-N" || words[0] == "-P") {
            table.chains.insert(words[1]);
        } else if (words[0] == "-A") {
            table.chains.insert(words[1]);
            table.rules[words[1]].push_back(Rule{{words.begin() + 2, words.end()}});
        }
    }
    return table;
}

struct Mark {
    bool valid = false;
    uint32_t value = 0;
    uint32_t mask = 0xffffffff;

    std::string text() const {
        char buffer[32];
        if (mask == 0xffffffff) {
            snprintf(buffer, sizeof(buffer), "0x%x", value);
        } else {
            snprintf(buffer, sizeof(buffer), "0x%x/0x%x", value, mask);
        }
        return buffer;
    }
    bool sameAs(const Mark& other) const {
        return valid && other.valid && value == other.value && mask == other.mask;
    }
};

bool parseNumber(const std::string& text, uint32_t* number) {
    if (text.empty() || text[0] == '-' || text[0] == '+') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || parsed > 0xffffffffULL) return false;
    *number = static_cast<uint32_t>(parsed);
    return true;
}

// "0x5a", "0x5a/0xffffffff" or "90".
Mark parseMark(const std::string& text) {
    Mark mark;
    const size_t slash = text.find('/');
    mark.valid = parseNumber(text.substr(0, slash), &mark.value) &&
                 (slash == std::string::npos || parseNumber(text.substr(slash + 1), &mark.mask));
    return mark;
}

// An "ip rule show" line with a fwmark at the daemon's priority.
struct IpRule {
    Mark mark;
    std::string table;
    std::string line;
};

std::vector<IpRule> parseIpRules(const std::string& listing) {
    std::vector<IpRule> rules;
    for (const std::string& line : lines(listing)) {
        std::vector<std::string> words = splitWords(line);
        if (words.empty() || words[0] != std::string(kRulePriority) + ":") continue;
        IpRule rule;
        bool hasMark = false;
        for (size_t i = 1; i + 1 < words.size(); ++i) {
            if (words[i] == "fwmark") {
                rule.mark = parseMark(words[i + 1]);
                hasMark = true;
            } else if (words[i] == "lookup" || words[i] == "table") {
                rule.table = words[i + 1];
            }
        }
        if (!hasMark) continue;
        rule.line = join(words, " ");
        rules.push_back(rule);
    }
    return rules;
}

// The conntrack entries per connection mark ("mark=N" in decimal), and their total.
void countConnections(const std::string& table, std::map<uint32_t, long>* perMark, long* total) {
    *total = 0;
    for (const std::string& line : lines(table)) {
        std::vector<std::string> words = splitWords(line);
        if (words.empty()) continue;
        ++*total;
        for (const std::string& word : words) {
            uint32_t mark = 0;
            if (startsWith(word, "mark=") && parseNumber(word.substr(5), &mark)) {
                ++(*perMark)[mark];
                break;
            }
        }
    }
}

// ---- The model ----

struct Split {
    std::string chain;
    bool viaWrapper = false;
    double probability = 1.0;
    double share = 0.0;
};

struct Link {
    std::string name;
    Mark mark;
    std::vector<std::pair<std::string, std::string>> tables;  // as the kernel lists it, its name
    std::vector<Split> splits;
    bool gaming = false;
    bool wrapper = false;
    std::vector<std::string> wrapperUids;
    bool selectionChains = false;
    std::vector<std::string> gamingUids;
    long connections = -1;  // -1: unknown

    std::string chain() const { return kLinkChainPrefix + name; }
    std::string wrapperChain() const { return chain() + kWrapperSuffix; }
    double share() const {
        double sum = 0;
        for (const Split& s : splits) sum += s.share;
        return sum;
    }
};

struct Status {
    bool present = false;
    std::vector<Link> links;
    std::vector<std::string> steeredUids;
    std::string gamingLink;
    bool anySplit = false;
    double unsplit = 1.0;
    bool conntrackReadable = false;
    long conntrackEntries = 0;
    std::vector<std::string> problems;
    // The IPv6 side beside the IPv4 one: "off", "ok", "missing" or "half-programmed".
    std::string ipv6 = "off";
    std::shared_ptr<const Status> ipv6Status;
};

// The platform's 464XLAT interface of a link: "v4-" and the name, cut to the kernel's 15
// characters.
std::string companionOf(const std::string& link) {
    return ("v4-" + link).substr(0, 15);
}

// Flags a rule that should be there exactly once.
void expectOnce(int count, const std::string& what, std::vector<std::string>* problems) {
    if (count == 0) problems->push_back(what + " missing");
    if (count > 1) problems->push_back(what + " duplicated (" + std::to_string(count) + " rules)");
}

// The UIDs of "--uid-owner UID -j target" rules in `chain`, in order and without repeats;
// rules of any other shape are flagged.
std::vector<std::string> uidsOf(const Table& mangle, const std::string& chain,
                                const std::string& target, std::vector<std::string>* problems) {
    std::vector<std::string> uids;
    int unexpected = 0;
    for (const Rule& rule : mangle.of(chain)) {
        const std::string uid = rule.value("--uid-owner");
        if (uid.empty() || rule.target() != target || rule.has("!")) {
            ++unexpected;
        } else if (std::find(uids.begin(), uids.end(), uid) == uids.end()) {
            uids.push_back(uid);
        }
    }
    if (unexpected > 0) {
        problems->push_back(chain + ": " + std::to_string(unexpected) + " unexpected rule(s)");
    }
    return uids;
}

// The names of the managed links: vexa_fw_<link> chains that are not another one's _wrapper.
std::vector<std::string> linkNames(const Table& mangle) {
    std::vector<std::string> names;
    for (const std::string& chain : mangle.chains) {
        if (!startsWith(chain, kLinkChainPrefix)) continue;
        if (endsWith(chain, kWrapperSuffix) &&
            mangle.hasChain(chain.substr(0, chain.size() - strlen(kWrapperSuffix)))) {
            continue;
        }
        names.push_back(chain.substr(strlen(kLinkChainPrefix)));
    }
    return names;
}

void checkSkeleton(const Table& mangle, const Table& nat, std::vector<std::string>* problems) {
    for (const char* chain : {"vexa_SLM_wapper", "vexa_SLM", "vexa_SLS", "vexa_SLA"}) {
        if (!mangle.hasChain(chain))
            problems->push_back(std::string("chain ") + chain + " missing");
    }
    if (!nat.hasChain(kNatChain)) {
        problems->push_back(std::string("chain ") + kNatChain + " missing (nat)");
    }
    int hooks = 0;
    for (const Rule& rule : mangle.of("OUTPUT")) hooks += rule.target() == "vexa_SLM_wapper";
    expectOnce(hooks, "mangle OUTPUT -j vexa_SLM_wapper", problems);
    hooks = 0;
    for (const Rule& rule : nat.of("POSTROUTING")) hooks += rule.target() == kNatChain;
    expectOnce(hooks, std::string("nat POSTROUTING -j ") + kNatChain, problems);

    // vexa_SLM: selection first, then the restore of established connections' marks, then the
    // split.
    int counts[3] = {0, 0, 0};
    int firstAt[3] = {-1, -1, -1};
    int unexpected = 0;
    const std::vector<Rule>& slm = mangle.of("vexa_SLM");
    for (size_t i = 0; i < slm.size(); ++i) {
        int kind = -1;
        if (slm[i].isBareJump("vexa_SLS")) {
            kind = 0;
        } else if (slm[i].target() == "CONNMARK" && slm[i].has("--restore-mark")) {
            kind = 1;
        } else if (slm[i].isBareJump("vexa_SLA")) {
            kind = 2;
        }
        if (kind < 0) {
            ++unexpected;
            continue;
        }
        if (counts[kind]++ == 0) firstAt[kind] = static_cast<int>(i);
    }
    expectOnce(counts[0], "vexa_SLM -j vexa_SLS", problems);
    expectOnce(counts[1], "vexa_SLM CONNMARK --restore-mark", problems);
    expectOnce(counts[2], "vexa_SLM -j vexa_SLA", problems);
    if (firstAt[0] >= 0 && firstAt[1] >= 0 && firstAt[2] >= 0 &&
        !(firstAt[0] < firstAt[1] && firstAt[1] < firstAt[2])) {
        problems->push_back("vexa_SLM rules out of order");
    }
    if (unexpected > 0) {
        problems->push_back("vexa_SLM: " + std::to_string(unexpected) + " unexpected rule(s)");
    }
}

// The mark chain of `link`: its MARK, CONNMARK --save-mark and ACCEPT rules.
void readMarkChain(const Table& mangle, Link* link, std::vector<std::string>* problems) {
    int marks = 0, saves = 0, accepts = 0, unexpected = 0;
    for (const Rule& rule : mangle.of(link->chain())) {
        if (rule.target() == "MARK") {
            ++marks;
            std::string text = rule.value("--set-xmark");
            if (text.empty()) text = rule.value("--set-mark");
            if (!link->mark.valid) link->mark = parseMark(text);
        } else if (rule.target() == "CONNMARK" && rule.has("--save-mark")) {
            ++saves;
        } else if (rule.isBareJump("ACCEPT")) {
            ++accepts;
        } else {
            ++unexpected;
        }
    }
    const std::string chain = link->chain();
    expectOnce(marks, chain + " MARK", problems);
    if (marks > 0 && !link->mark.valid) problems->push_back(chain + ": unreadable MARK rule");
    expectOnce(saves, chain + " CONNMARK --save-mark", problems);
    expectOnce(accepts, chain + " -j ACCEPT", problems);
    if (unexpected > 0) {
        problems->push_back(chain + ": " + std::to_string(unexpected) + " unexpected rule(s)");
    }
}

// The selection chains of `link` (present only while link selection is set up).
void readSelectionChains(const Table& mangle, bool expected, Link* link,
                         std::vector<std::string>* problems) {
    const std::string marker = "vexa_sls_" + link->name;
    const std::string uidChain = kSelectionUidPrefix + link->name;
    link->selectionChains = mangle.hasChain(marker) && mangle.hasChain(uidChain);
    if (!expected) return;
    if (!mangle.hasChain(marker)) problems->push_back("chain " + marker + " missing");
    if (!mangle.hasChain(uidChain)) problems->push_back("chain " + uidChain + " missing");
    if (mangle.hasChain(uidChain)) link->gamingUids = uidsOf(mangle, uidChain, marker, problems);
    if (!mangle.hasChain(marker)) return;
    int udp = 0, tcp = 0, accepts = 0, unexpected = 0;
    for (const Rule& rule : mangle.of(marker)) {
        const bool toLink = rule.target() == link->chain();
        if (toLink && rule.value("-p") == "udp" && rule.has("!") && rule.value("--dport") == "53") {
            ++udp;
        } else if (toLink && rule.value("-p") == "tcp" && rule.words.size() == 4) {
            ++tcp;
        } else if (rule.isBareJump("ACCEPT")) {
            ++accepts;
        } else {
            ++unexpected;
        }
    }
    expectOnce(udp, marker + " UDP (but DNS) rule", problems);
    expectOnce(tcp, marker + " TCP rule", problems);
    expectOnce(accepts, marker + " -j ACCEPT", problems);
    if (unexpected > 0) {
        problems->push_back(marker + ": " + std::to_string(unexpected) + " unexpected rule(s)");
    }
}

// The split cascade: rule k takes P_k of what the rules before it left.
void readSplit(const Table& mangle, Status* status) {
    std::map<std::string, Link*> byChain;
    for (Link& link : status->links) {
        byChain[link.chain()] = &link;
        byChain[link.wrapperChain()] = &link;
    }
    double left = 1.0;
    for (const Rule& rule : mangle.of("vexa_SLA")) {
        Split split;
        split.chain = rule.target();
        const std::string p = rule.value("--probability");
        if (!p.empty()) split.probability = strtod(p.c_str(), nullptr);
        const double taken = std::isfinite(split.probability)
                                     ? std::min(1.0, std::max(0.0, split.probability))
                                     : 0.0;
        split.share = left * taken;
        left -= split.share;
        auto it = byChain.find(split.chain);
        if (it == byChain.end()) {
            status->problems.push_back("vexa_SLA: rule to " +
                                       (split.chain.empty() ? "no chain" : split.chain) +
                                       ", not a link's mark chain");
            continue;
        }
        if (!mangle.hasChain(split.chain)) {
            status->problems.push_back("vexa_SLA jumps to " + split.chain +
                                       ", which does not exist");
        }
        split.viaWrapper = split.chain == it->second->wrapperChain();
        it->second->splits.push_back(split);
        status->anySplit = true;
    }
    status->unsplit = left;
    for (const Link& link : status->links) {
        if (link.splits.size() > 1) {
            status->problems.push_back("vexa_SLA: " + std::to_string(link.splits.size()) +
                                       " split rules for " + link.name);
        }
    }
}

void readSelection(const Table& mangle, Status* status) {
    const std::vector<Rule>& sls = mangle.of("vexa_SLS");
    if (sls.size() > 1) {
        status->problems.push_back("vexa_SLS holds " + std::to_string(sls.size()) +
                                   " rules (at most one expected)");
    }
    for (const Rule& rule : sls) {
        const std::string target = rule.target();
        Link* chosen = nullptr;
        for (Link& link : status->links) {
            if (rule.isBareJump(kSelectionUidPrefix + link.name)) chosen = &link;
        }
        if (chosen == nullptr) {
            status->problems.push_back("vexa_SLS: rule to " +
                                       (target.empty() ? "no chain" : target) +
                                       ", not a link's selection chain");
        } else if (!mangle.hasChain(target)) {
            status->problems.push_back("vexa_SLS jumps to " + target + ", which does not exist");
        } else {
            chosen->gaming = true;
            if (status->gamingLink.empty()) status->gamingLink = chosen->name;
        }
    }
}

// One family's rules: `ipv6` selects the IPv6 listings; `companions` expects the masquerade of
// each link's v4- companion (IPv4 with the IPv6 side on).
Status analyse(const KernelListings& listings, bool ipv6, bool companions) {
    Status status;
    const Table mangle = parseTable(ipv6 ? listings.mangle6 : listings.mangle);
    const Table nat = parseTable(ipv6 ? listings.nat6 : listings.nat);
    const std::vector<IpRule> ipRules = parseIpRules(ipv6 ? listings.ipRules6 : listings.ipRules);
    std::map<uint32_t, long> perMark;
    status.conntrackReadable = listings.conntrackReadable;
    if (listings.conntrackReadable) {
        countConnections(listings.conntrack, &perMark, &status.conntrackEntries);
    }

    for (const Table* table : {&mangle, &nat}) {
        for (const std::string& chain : table->chains) status.present |= startsWith(chain, "vexa_");
    }
    std::vector<std::string>* problems = &status.problems;
    if (!status.present) {
        problems->push_back("no mlbd chains (vexa_*) in the mangle or nat table");
        if (!ipRules.empty()) {
            problems->push_back(std::to_string(ipRules.size()) +
                                " fwmark rule(s) left at ip rule "
                                "priority " +
                                kRulePriority);
        }
        return status;
    }

    checkSkeleton(mangle, nat, problems);
    if (mangle.hasChain("vexa_SLM_wapper")) {
        status.steeredUids = uidsOf(mangle, "vexa_SLM_wapper", "vexa_SLM", problems);
    }
    bool selection = false;
    for (const std::string& chain : mangle.chains) {
        selection |= startsWith(chain, "vexa_sls_");
    }
    for (const std::string& name : linkNames(mangle)) {
        Link link;
        link.name = name;
        readMarkChain(mangle, &link, problems);
        link.wrapper = mangle.hasChain(link.wrapperChain());
        if (link.wrapper) {
            link.wrapperUids = uidsOf(mangle, link.wrapperChain(), link.chain(), problems);
        }
        readSelectionChains(mangle, selection, &link, problems);
        int routes = 0;
        for (const IpRule& rule : ipRules) {
            if (!rule.mark.sameAs(link.mark)) continue;
            ++routes;
            auto known = listings.tableNames.find(rule.table);
            link.tables.emplace_back(rule.table, known != listings.tableNames.end() ? known->second
                                                 : isNumber(rule.table)             ? ""
                                                                                    : rule.table);
        }
        if (link.mark.valid) {
            expectOnce(routes,
                       std::string("ip rule priority ") + kRulePriority + " fwmark " +
                               link.mark.text() + " (" + name + ")",
                       problems);
        }
        int masquerades = 0;
        for (const Rule& rule : nat.of(kNatChain)) {
            masquerades += rule.target() == "MASQUERADE" && rule.value("-o") == name;
        }
        expectOnce(masquerades, std::string(kNatChain) + " -o " + name + " -j MASQUERADE",
                   problems);
        if (companions) {
            masquerades = 0;
            for (const Rule& rule : nat.of(kNatChain)) {
                masquerades +=
                        rule.target() == "MASQUERADE" && rule.value("-o") == companionOf(name);
            }
            expectOnce(masquerades,
                       std::string(kNatChain) + " -o " + companionOf(name) + " -j MASQUERADE",
                       problems);
        }
        if (link.mark.valid && listings.conntrackReadable) {
            auto it = perMark.find(link.mark.value);
            link.connections = it == perMark.end() ? 0 : it->second;
        }
        for (const Link& other : status.links) {
            if (other.mark.sameAs(link.mark)) {
                problems->push_back("links " + other.name + " and " + name + " share mark " +
                                    link.mark.text());
            }
        }
        status.links.push_back(link);
    }
    if (status.links.empty()) problems->push_back("no link mark chains (vexa_fw_*)");

    // Rules of the daemon's kinds that belong to no link.
    for (const IpRule& rule : ipRules) {
        bool owned = false;
        for (const Link& link : status.links) owned |= rule.mark.sameAs(link.mark);
        if (!owned) problems->push_back("ip rule of no link: " + rule.line);
    }
    for (const Rule& rule : nat.of(kNatChain)) {
        bool owned = false;
        for (const Link& link : status.links) {
            owned |= rule.target() == "MASQUERADE" &&
                     (rule.value("-o") == link.name ||
                      (companions && rule.value("-o") == companionOf(link.name)));
        }
        if (!owned)
            problems->push_back(std::string(kNatChain) +
                                ": rule of no link: " + join(rule.words, " "));
    }
    std::set<std::string> known = {"vexa_SLM_wapper", "vexa_SLM", "vexa_SLS", "vexa_SLA"};
    for (const Link& link : status.links) {
        known.insert({link.chain(), link.wrapperChain(), "vexa_sls_" + link.name,
                      kSelectionUidPrefix + link.name});
    }
    for (const std::string& chain : mangle.chains) {
        if (startsWith(chain, "vexa_") && known.count(chain) == 0) {
            problems->push_back("chain " + chain + " belongs to no link");
        }
    }
    readSplit(mangle, &status);
    readSelection(mangle, &status);
    return status;
}

// ---- Output ----

std::string fixed(double value, int decimals) {
    if (!std::isfinite(value)) return "nan";
    char buffer[64];
    snprintf(buffer, sizeof(buffer), "%.*f", decimals, value);
    return buffer;
}

// Prints rows as left-aligned columns two blanks apart.
void appendColumns(const std::vector<std::vector<std::string>>& rows, const std::string& indent,
                   std::string* out) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    for (const auto& row : rows) {
        std::string line = indent;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        *out += line + "\n";
    }
}

std::string tableText(const Link& link) {
    std::vector<std::string> tables;
    for (const auto& table : link.tables) {
        tables.push_back(table.second.empty() || table.second == table.first
                                 ? table.first
                                 : table.first + " (" + table.second + ")");
    }
    return tables.empty() ? "-" : join(tables, ", ");
}

std::string uidText(const std::vector<std::string>& uids) {
    return uids.empty() ? "(none)" : join(uids, ", ");
}

// The IPv6 side's verdict, its problems added to the IPv4 report's: "missing" when wanted but
// absent or unreadable, "half-programmed" when its rules are faulty, unwanted, or differ from the
// IPv4 ones in links, marks, tables, split or gaming link.
std::string compareFamilies(const KernelListings& listings, Status& v4, const Status& v6) {
    if (!listings.ipv6Read || !v6.present) {
        if (!listings.ipv6Expected) return "off";
        if (v4.present) {
            v4.problems.push_back(listings.ipv6Read
                                          ? "IPv6 steering missing (ipv6=1 in mlbd.conf)"
                                          : "IPv6 rules unreadable: " + listings.ipv6ReadError);
        }
        return "missing";
    }
    std::vector<std::string> found;
    if (!listings.ipv6Expected) found.push_back("IPv6 rules present while ipv6 is off");
    if (!v4.present) {
        found.push_back("IPv6 rules present without IPv4 ones");
        v4.present = true;
    }
    for (const std::string& problem : v6.problems) found.push_back("IPv6: " + problem);
    auto shape = [](const Status& s) {
        std::string text;
        for (const Link& link : s.links) {
            text += link.name + " " + link.mark.text() + " " + tableText(link) + " split";
            for (const Split& split : link.splits) text += " " + fixed(split.probability, 6);
            text += link.gaming ? " gaming; " : "; ";
        }
        return text;
    };
    if (shape(v4) != shape(v6)) {
        found.push_back("IPv6 links, marks, tables, split or gaming link differ from IPv4");
    }
    v4.problems.insert(v4.problems.end(), found.begin(), found.end());
    return found.empty() ? "ok" : "half-programmed";
}

// The per-link table; true when a split goes through a _wrapper chain.
bool appendLinks(const Status& status, std::string* out) {
    std::vector<std::vector<std::string>> rows = {
            {"LINK", "MARK", "ROUTE TABLE", "SPLIT P", "SHARE", "GAMING", "CONNECTIONS"}};
    bool anyWrapper = false;
    for (const Link& link : status.links) {
        std::vector<std::string> probabilities;
        for (const Split& split : link.splits) {
            probabilities.push_back(fixed(split.probability, 6) + (split.viaWrapper ? "*" : ""));
            anyWrapper |= split.viaWrapper;
        }
        rows.push_back({link.name, link.mark.valid ? link.mark.text() : "?", tableText(link),
                        probabilities.empty() ? "-" : join(probabilities, ", "),
                        link.splits.empty() ? "-" : fixed(link.share() * 100, 1) + "%",
                        link.gaming ? "yes" : "-",
                        link.connections < 0 ? "?" : std::to_string(link.connections)});
    }
    if (status.links.empty()) {
        *out += "Links: none (no vexa_fw_<link> chain)\n";
    } else {
        appendColumns(rows, "", out);
    }
    return anyWrapper;
}

std::string renderText(const Status& status) {
    std::string out;
    if (!status.present) {
        out += "mlbd steering: absent: no vexa_ chains in the kernel (is mlbd running?)\n";
        for (size_t i = 1; i < status.problems.size(); ++i) out += "  " + status.problems[i] + "\n";
        return out;
    }
    const bool anyWrapper = appendLinks(status, &out);
    if (status.ipv6Status && status.ipv6Status->present) {
        out += "IPv6 (ip6tables, ip -6 rule):\n";
        appendLinks(*status.ipv6Status, &out);
    }
    if (anyWrapper) {
        out += "  * through the link's _wrapper chain: only its whitelisted UIDs take the share\n";
    }
    if (status.anySplit) {
        out += "Not split (default route): " + fixed(status.unsplit * 100, 1) +
               "% of new web connections\n";
    } else {
        out += "Split: no split rules in vexa_SLA (none programmed yet)\n";
    }
    out += "Gaming link: " +
           (status.gamingLink.empty() ? std::string("none")
                                      : status.gamingLink + " (vexa_SLS -> " + kSelectionUidPrefix +
                                                status.gamingLink + ")") +
           "\n";
    out += "UID lists:\n";
    std::vector<std::vector<std::string>> rows = {
            {"steered", "vexa_SLM_wapper", uidText(status.steeredUids)}};
    for (const Link& link : status.links) {
        if (link.wrapper) {
            rows.push_back(
                    {"allowed on " + link.name, link.wrapperChain(), uidText(link.wrapperUids)});
        }
    }
    for (const Link& link : status.links) {
        if (link.selectionChains) {
            rows.push_back({"gaming via " + link.name, kSelectionUidPrefix + link.name,
                            uidText(link.gamingUids)});
        }
    }
    appendColumns(rows, "  ", &out);
    out += status.conntrackReadable
                   ? "Tracked connections: " + std::to_string(status.conntrackEntries) +
                             " in nf_conntrack\n"
                   : std::string("Tracked connections: nf_conntrack not readable\n");
    // The families' verdict follows the count once the IPv6 side is on.
    const std::string families = status.ipv6 == "off"  ? ""
                                 : status.ipv6 == "ok" ? " (IPv4 and IPv6)"
                                                       : " (IPv6 " + status.ipv6 + ")";
    if (status.problems.empty()) {
        out += "Health: OK" + families + "\n";
    } else {
        out += "Health: " + std::to_string(status.problems.size()) + " problem(s)" + families +
               "\n";
        for (const std::string& problem : status.problems) out += "  - " + problem + "\n";
    }
    return out;
}

Json::Value jsonStrings(const std::vector<std::string>& items) {
    Json::Value out(Json::arrayValue);
    for (const std::string& item : items) out.append(item);
    return out;
}

// A number, or null where it is not finite.
Json::Value jsonNumber(double value) {
    return std::isfinite(value) ? Json::Value(value) : Json::Value();
}

Json::Value jsonTextOrNull(bool present, const std::string& text) {
    return present ? Json::Value(text) : Json::Value();
}

Json::Value jsonLinks(const Status& status) {
    Json::Value out(Json::arrayValue);
    for (const Link& link : status.links) {
        Json::Value splits(Json::arrayValue);
        for (const Split& split : link.splits) {
            Json::Value entry;
            entry["chain"] = split.chain;
            entry["probability"] = jsonNumber(split.probability);
            entry["share"] = jsonNumber(split.share);
            entry["whitelisted_only"] = split.viaWrapper;
            splits.append(entry);
        }
        Json::Value tables(Json::arrayValue);
        for (const auto& table : link.tables) {
            Json::Value entry;
            entry["table"] = table.first;
            entry["name"] = jsonTextOrNull(!table.second.empty(), table.second);
            tables.append(entry);
        }
        Json::Value entry;
        entry["name"] = link.name;
        entry["mark"] = jsonTextOrNull(link.mark.valid, link.mark.valid ? link.mark.text() : "");
        entry["mark_decimal"] = link.mark.valid ? Json::Value(link.mark.value) : Json::Value();
        entry["route_tables"] = tables;
        entry["split"] = splits;
        entry["share"] = link.splits.empty() ? Json::Value() : jsonNumber(link.share());
        entry["gaming"] = link.gaming;
        entry["whitelist_chain"] =
                jsonTextOrNull(link.wrapper, link.wrapper ? link.wrapperChain() : "");
        entry["whitelist_uids"] = jsonStrings(link.wrapperUids);
        entry["gaming_uids"] = jsonStrings(link.gamingUids);
        entry["connections"] = link.connections < 0
                                       ? Json::Value()
                                       : Json::Value(static_cast<Json::Int64>(link.connections));
        out.append(entry);
    }
    return out;
}

std::string renderJson(const Status& status) {
    Json::Value out;
    out["present"] = status.present;
    out["links"] = jsonLinks(status);
    out["unsplit_share"] = status.anySplit ? jsonNumber(status.unsplit) : Json::Value();
    out["gaming_link"] = jsonTextOrNull(!status.gamingLink.empty(), status.gamingLink);
    out["steered_uids"] = jsonStrings(status.steeredUids);
    out["conntrack_entries"] =
            status.conntrackReadable
                    ? Json::Value(static_cast<Json::Int64>(status.conntrackEntries))
                    : Json::Value();
    out["ipv6"] = status.ipv6;
    if (status.ipv6Status && status.ipv6Status->present) {
        out["ipv6_links"] = jsonLinks(*status.ipv6Status);
    }
    out["healthy"] = status.problems.empty();
    out["problems"] = jsonStrings(status.problems);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    writer["precision"] = 6;
    writer["precisionType"] = "decimal";
    return Json::writeString(writer, out) + "\n";
}

}  // namespace

StatusReport describeStatus(const KernelListings& listings, bool json) {
    Status status = analyse(listings, false, listings.ipv6Expected);
    Status ipv6;
    if (listings.ipv6Read) ipv6 = analyse(listings, true, false);
    status.ipv6 = compareFamilies(listings, status, ipv6);
    if (status.ipv6 != "off") status.ipv6Status = std::make_shared<Status>(std::move(ipv6));
    StatusReport report;
    report.present = status.present;
    report.healthy = status.present && status.problems.empty();
    report.text = json ? renderJson(status) : renderText(status);
    return report;
}

int statusMain(const std::vector<std::string>& args) {
    bool json = false;
    for (const std::string& arg : args) {
        if (arg == "--json") {
            json = true;
        } else if (arg == "--help" || arg == "-h") {
            printf("Usage: mlbdctl status [--json]\n\n"
                   "Reads the daemon's chains, marks, routing rules and tracked connections\n"
                   "from the kernel (not from the daemon) and reports them per link.\n"
                   "Exit: 0 healthy, 1 the kernel could not be read, 2 bad arguments,\n"
                   "3 steering absent or rules missing, duplicated or stray.\n");
            return kStatusHealthy;
        } else {
            fprintf(stderr,
                    "mlbdctl: status: unknown argument '%s' (usage: mlbdctl status "
                    "[--json])\n",
                    arg.c_str());
            return kStatusBadUsage;
        }
    }

    const std::string iptables = devicePath("/system/bin/iptables-wrapper-1.0");
    const std::string ip = devicePath("/system/bin/ip-wrapper-1.0");
    KernelListings listings;
    std::string why;
    if (!runTool({iptables, "-w", "-t", "mangle", "-S"}, kToolTimeoutMs, &listings.mangle, &why) ||
        !runTool({iptables, "-w", "-t", "nat", "-S"}, kToolTimeoutMs, &listings.nat, &why) ||
        !runTool({ip, "-4", "rule", "show"}, kToolTimeoutMs, &listings.ipRules, &why)) {
        fprintf(stderr, "mlbdctl: status: %s\n", why.c_str());
        return kStatusReadFailed;
    }
    // The IPv6 side: wanted when the configuration sets "ipv6"; read whenever its front-end
    // is there, so that rules left behind by an earlier configuration show too.
    listings.ipv6Expected = ipv6InConfiguration(devicePath("/vendor/etc/sla/mlbd.conf"));
    const std::string ip6tables = devicePath("/system/bin/ip6tables-wrapper-1.0");
    if (access(ip6tables.c_str(), X_OK) != 0) {
        listings.ipv6ReadError = ip6tables + ": " + strerror(errno);
    } else {
        listings.ipv6Read = runTool({ip6tables, "-w", "-t", "mangle", "-S"}, kToolTimeoutMs,
                                    &listings.mangle6, &listings.ipv6ReadError) &&
                            runTool({ip6tables, "-w", "-t", "nat", "-S"}, kToolTimeoutMs,
                                    &listings.nat6, &listings.ipv6ReadError) &&
                            runTool({ip, "-6", "rule", "show"}, kToolTimeoutMs, &listings.ipRules6,
                                    &listings.ipv6ReadError);
    }
    std::ifstream conntrack(devicePath("/proc/net/nf_conntrack"));
    if (conntrack) {
        std::ostringstream text;
        text << conntrack.rdbuf();
        listings.conntrack = text.str();
        listings.conntrackReadable = !conntrack.bad();
    }
    // Where the ip front-end maps table names to numbers (the host stand-in does), name them.
    bool numericTables = false;
    for (const std::string* rules : {&listings.ipRules, &listings.ipRules6}) {
        for (const IpRule& rule : parseIpRules(*rules)) numericTables |= isNumber(rule.table);
    }
    if (numericTables) {
        for (const std::string& name : linkNames(parseTable(listings.mangle))) {
            std::string id;
            std::string ignored;
            if (runTool({ip, "--table-id", name}, 2000, &id, &ignored) && isNumber(firstLine(id))) {
                listings.tableNames[firstLine(id)] = name;
            }
        }
    }

    const StatusReport report = describeStatus(listings, json);
    fputs(report.text.c_str(), stdout);
    if (fflush(stdout) != 0) {
        fprintf(stderr, "mlbdctl: status: writing the report: %s\n", strerror(errno));
        return kStatusReadFailed;
    }
    return report.healthy ? kStatusHealthy : kStatusUnhealthy;
}

}  // namespace mlbd
