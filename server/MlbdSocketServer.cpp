/*
 * The control socket: one listening UNIX stream socket, one server thread that serves a single
 * client for the life of the process (or, with "control_reaccept", one client after another),
 * and the dispatch of record ids to the commands.
 */
#include "MlbdSocketServer.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "iptables/IptablesManager.h"
#include "parameters/Parameters.h"
#include "platform/Platform.h"

#define LOG_TAG "Mlbd-MlbdSocket-Server"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

// The Parameters object of ids 2 and 3 (and of the commands' checks); null until stored.
std::atomic<Parameters*> gParams{nullptr};

// The listening descriptor (-1 when none), and whether stopSocketThreads() has run; both
// guarded by gListenMutex, so that the socket is never published after the stop and never
// closed twice.
std::mutex gListenMutex;
int gListenFd = -1;
bool gStopped = false;

// Size of the peer address the server thread passes to accept().
constexpr socklen_t kAddressSize = sizeof(sockaddr_un);

// Waits for one client that may send commands: any other peer is logged and closed. Returns
// the connection, or -1 when accept() failed (the listening socket was shut down, or worse).
int acceptClient(int listenFd) {
    for (;;) {
        sockaddr_un peer;
        memset(&peer, 0, sizeof(peer));
        socklen_t length = kAddressSize;
        const int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return -1;
        }
        ucred cred;
        socklen_t credLength = sizeof(cred);
        const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLength) == 0;
        if (known && mlbd::isControlClientUid(cred.uid)) return fd;
        LOGE("refusing control client pid=%d uid=%d: only root and system may send commands",
             known ? static_cast<int>(cred.pid) : -1, known ? static_cast<int>(cred.uid) : -1);
        close(fd);
    }
}

// Closes the listening socket once, whoever gets there first; `stop` also keeps the server
// thread from publishing a socket it has yet to make.
void closeListening(bool stop) {
    std::lock_guard<std::mutex> lock(gListenMutex);
    gStopped = gStopped || stop;
    if (gListenFd >= 1) {
        // Wakes the server thread if it is still waiting in accept() on its own descriptor.
        shutdown(gListenFd, SHUT_RDWR);
        close(gListenFd);
        gListenFd = -1;
    }
}

}  // namespace

void setCommandParameters(Parameters* params) {
    gParams = params;
}

Parameters* commandParameters() {
    return gParams;
}

int createSocket(const char* path) {
    if (path == nullptr) {
        LOGE("NULL params\n");
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        LOGE("Failed to open socket '%s', error=%s\n", path, strerror(errno));
        return -1;
    }
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    // A path that does not fit is refused rather than cut: a cut path would unlink and bind
    // some other file.
    if (strlen(path) >= sizeof(address.sun_path)) {
        LOGE("Failed to open socket '%s', error=%s\n", path, strerror(ENAMETOOLONG));
        close(fd);
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path));
    if (unlink(path) != 0 && errno != ENOENT) {
        LOGE("Failed to unlink old socket '%s', error=%s\n", path, strerror(errno));
        close(fd);
        return -1;
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        LOGE("Failed to bind socket '%s', error=%s\n", path, strerror(errno));
        unlink(path);
        close(fd);
        return -1;
    }
    chmod(path, 0666);
    LOGD("Created socket success with '%s', sockfd=%d\n", path, fd);
    return fd;
}

int createSocketThreads(Parameters* params) {
    pthread_t thread;
    const int rc = pthread_create(&thread, nullptr, socketThreadHandle, nullptr);
    if (rc != 0) {
        LOGE("create thread fail, error=%s", strerror(rc));
        return -1;
    }
    LOGD("create handle thread(thread id=%lu) for handle msg\n",
         static_cast<unsigned long>(thread));
    setCommandParameters(params);
    return static_cast<int>(thread);
}

void* socketThreadHandle(void*) {
    msg_t buffer;
    memset(&buffer, 0, sizeof(buffer));

    // A socket init made for the service comes first; without one the daemon makes its own.
    int fd = mlbd::inheritedControlSocket("mlbd");
    if (fd >= 0) {
        LOGD("Using the control socket from init, sockfd=%d\n", fd);
    } else {
        fd = createSocket(mlbd::devicePath(MLBD_SOCKET_PATH).c_str());
    }
    Parameters* params = Parameters::instance();
    if (fd < 0) {
        LOGE("create socket failed\n");
        return nullptr;
    }
    const useconds_t pauseUs = static_cast<useconds_t>(params->ping_interval_ms.load()) * 1000u;

    // The thread waits on a descriptor of its own: stopSocketThreads() may close the shared
    // one at any time, and its number could then be reused by something else.
    int acceptFd;
    {
        std::lock_guard<std::mutex> lock(gListenMutex);
        if (gStopped) {
            close(fd);
            return nullptr;
        }
        gListenFd = fd;
        acceptFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    }
    // With "control_reaccept" set, a client that has gone is followed by the next one; what
    // earlier clients set stays as it is.
    const bool reaccept = params->control_reaccept != 0;
    const bool listening = acceptFd >= 0 && listen(acceptFd, 2) == 0;
    for (;;) {
        const int client = listening ? acceptClient(acceptFd) : -1;
        if (client < 0) {
            const int error = errno;
            bool stopped;
            {
                std::lock_guard<std::mutex> lock(gListenMutex);
                stopped = gStopped;
            }
            // The shut-down ends the wait for a client by shutting the socket down: not a
            // failure.
            if (stopped) {
                LOGD("control socket closed at shut-down, no further client is served\n");
            } else {
                LOGE("accept fail, error=%s\n", strerror(error));
            }
            if (acceptFd >= 0) close(acceptFd);
            closeListening(false);
            return nullptr;
        }
        if (!reaccept) {
            close(acceptFd);
            acceptFd = -1;
        }

        const char* goneReason = nullptr;
        for (;;) {
            const ssize_t received = recvfrom(client, &buffer, sizeof(buffer), 0, nullptr, nullptr);
            const int receiveError = errno;
            handleReceived(buffer, received);
            if (reaccept && (received == 0 || (received < 0 && receiveError != EINTR))) {
                goneReason = received == 0 ? "end of stream" : strerror(receiveError);
                break;
            }
            // The client has gone and no other is ever served: nothing can arrive any more, so
            // the thread rests instead of polling a closed connection (a spin with a pause of 0).
            if (received == 0) {
                for (;;) sleep(600);
            }
            usleep(pauseUs);
        }
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG,
                            "control client gone (%s), accepting the next one\n", goneReason);
        close(client);
        // A record half received from the last client is not completed by the next one.
        memset(&buffer, 0, sizeof(buffer));
    }
    return nullptr;
}

void handleReceived(const msg_t& buffer, ssize_t received) {
    if (received < 1 || buffer.length >= 1024) return;
    // The text is read only within its field, whether or not it holds a zero.
    LOGD("recv msg: msg.id=%d, msg.length=%d, msg.message=[%.*s]\n", buffer.id, buffer.length,
         static_cast<int>(strnlen(buffer.message, sizeof(buffer.message))), buffer.message);
    handleMessage(buffer);
}

void handleMessage(msg_t msg) {
    // The handlers take zero-terminated text: a field without a zero ends at its last byte.
    char text[sizeof(msg.message) + 1];
    memcpy(text, msg.message, sizeof(msg.message));
    text[sizeof(msg.message)] = '\0';

    // A command never overlaps the teardown of the rules (see clean_SLM_iptables).
    std::lock_guard<std::recursive_mutex> lock(IptablesManager::lifecycleMutex());
    Parameters* params = gParams;
    switch (msg.id) {
        case MLBD_CMD_UID_WHITELIST:
            setUidWhitelist(text);
            break;
        case MLBD_CMD_WLAN_INTERFACE:
            if (params != nullptr) params->setWlanInterface(text);
            break;
        case MLBD_CMD_DATA_INTERFACE:
            if (params != nullptr) params->setDataInterface(text);
            break;
        case MLBD_CMD_SLS_RTT:
            updateSlsInterfacesRtt(text);
            break;
        case MLBD_CMD_START_SLS:
            StartSlsServer(text);
            break;
        case MLBD_CMD_STOP_SLS:
            StopSlsServer();
            break;
        case MLBD_CMD_DBL_WLAN_UID_WHITELIST:
            setDblWlanUidWhitelist(text);
            break;
        case MLBD_CMD_VOIP_STATUS:
            setVoipStatus(text);
            break;
        case MLBD_CMD_VOIP_BSSID:
            setVoipBssidVaule(text);
            break;
        default:
            LOGE("unknow mesage!!!");
            break;
    }
}

void stopSocketThreads() {
    closeListening(true);
}
