/*
 * Host implementation of the platform glue.
 *
 * - Properties: the value of property NAME is the content of $MLBD_ROOT/properties/NAME with one
 *   trailing newline dropped, cut at the first NUL and at PROP_VALUE_MAX - 1 characters; a missing
 *   or unreadable file gives the default. The file is read afresh at every call.
 * - Paths: every fixed device path is prefixed with $MLBD_ROOT (unset or empty: no prefix).
 * - Logging: every line of every priority goes to stderr in logcat's threadtime format,
 *   "MM-DD HH:MM:SS.mmm  PID  TID P TAG: message", one output line per line of the message.
 */
#include <android-base/logging.h>
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Platform.h"

namespace mlbd {

namespace {

// A property file larger than this is read only up to it; the value is cut far below anyway.
constexpr size_t kMaxPropertyFileBytes = 4096;

std::string rootPrefix() {
    const char* root = getenv("MLBD_ROOT");
    return root ? std::string(root) : std::string();
}

char priorityLetter(int priority) {
    switch (priority) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        default:
            return priority < ANDROID_LOG_VERBOSE ? 'V' : 'F';
    }
}

// Writes one log record to stderr; the record is built whole and written with one call so that
// lines of concurrent threads never interleave.
void writeRecord(int priority, const char* tag, const char* message) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char head[128];
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &tm);
    snprintf(head, sizeof(head), "%s.%03ld %5d %5ld %c %-8s: ", stamp,
             static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()),
             static_cast<long>(syscall(SYS_gettid)), priorityLetter(priority), tag ? tag : "mlbd");

    std::string msg = message ? message : "";
    while (!msg.empty() && (msg.back() == '\n')) msg.pop_back();

    std::string out;
    size_t start = 0;
    do {
        size_t end = msg.find('\n', start);
        if (end == std::string::npos) end = msg.size();
        out += head;
        out.append(msg, start, end - start);
        out += '\n';
        start = end + 1;
    } while (start <= msg.size());

    const char* p = out.data();
    size_t left = out.size();
    while (left > 0) {
        ssize_t n = write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

#ifdef __ANDROID__
// The platform's liblog (device test builds, which use this glue for its MLBD_ROOT paths).
void liblogLogger(const struct __android_log_message* m) {
    writeRecord(m ? m->priority : ANDROID_LOG_INFO, m ? m->tag : nullptr, m ? m->message : "");
}
#else
// Debian's liblog.
void liblogLogger(const struct __android_logger_data* data, const char* message) {
    writeRecord(data ? data->priority : ANDROID_LOG_INFO, data ? data->tag : nullptr, message);
}
#endif

int severityToPriority(android::base::LogSeverity severity) {
    switch (severity) {
        case android::base::VERBOSE:
            return ANDROID_LOG_VERBOSE;
        case android::base::DEBUG:
            return ANDROID_LOG_DEBUG;
        case android::base::INFO:
            return ANDROID_LOG_INFO;
        case android::base::WARNING:
            return ANDROID_LOG_WARN;
        case android::base::ERROR:
            return ANDROID_LOG_ERROR;
        default:
            return ANDROID_LOG_FATAL;
    }
}

}  // namespace

int getProperty(const char* key, char* value, const char* defaultValue) {
    std::string content;
    bool found = false;
    // A key names one file in the properties folder, nothing else.
    if (key != nullptr && key[0] != '\0' && strchr(key, '/') == nullptr && strcmp(key, ".") != 0 &&
        strcmp(key, "..") != 0) {
        std::string path = rootPrefix() + "/properties/" + key;
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd >= 0) {
            found = true;
            char buf[512];
            while (content.size() < kMaxPropertyFileBytes) {
                ssize_t n = read(fd, buf, sizeof(buf));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) {
                    if (n < 0) found = false;
                    break;
                }
                content.append(buf, static_cast<size_t>(n));
            }
            close(fd);
        }
    }
    if (!found) content = defaultValue ? defaultValue : "";
    if (found && !content.empty() && content.back() == '\n') content.pop_back();

    size_t len = strnlen(content.c_str(), PROP_VALUE_MAX - 1);
    memcpy(value, content.c_str(), len);
    value[len] = '\0';
    return static_cast<int>(len);
}

std::string devicePath(const char* path) {
    return rootPrefix() + (path ? path : "");
}

void initLogging() {
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(liblogLogger);
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity severity,
                                const char* tag, const char*, unsigned int, const char* message) {
        writeRecord(severityToPriority(severity), tag, message);
    });
}

bool isControlClientUid(uid_t uid) {
    // 1000 is the platform's system user.
    return uid == 0 || uid == 1000 || uid == getuid();
}

std::string scratchDirectory() {
    const char* dir = getenv("TMPDIR");
#ifdef __ANDROID__
    return dir && *dir ? dir : "/data/local/tmp";
#else
    return dir && *dir ? dir : "/tmp";
#endif
}

int inheritedControlSocket(const char* name) {
    // The same convention as on a device, so that a host run can hand the daemon its socket.
    const char* text = getenv(("ANDROID_SOCKET_" + std::string(name)).c_str());
    if (text == nullptr || *text == '\0') return -1;
    char* end = nullptr;
    errno = 0;
    const long fd = strtol(text, &end, 10);
    if (*end != '\0' || errno != 0 || fd < 0 || fd > INT_MAX) return -1;
    int type = 0, domain = 0;
    socklen_t size = sizeof(type);
    if (getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_TYPE, &type, &size) != 0 ||
        type != SOCK_STREAM) {
        return -1;
    }
    size = sizeof(domain);
    if (getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 ||
        domain != AF_UNIX) {
        return -1;
    }
    fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
    return static_cast<int>(fd);
}

}  // namespace mlbd
