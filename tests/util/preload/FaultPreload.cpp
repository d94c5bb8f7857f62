// The fault library preloaded into the daemon by tests: a wall clock that steps and a
// capability that goes away, as the file named by $MLBD_FAULTS says (see util/FaultPreload.h).
// Without that variable, or with a file of zeros, every call passes straight through.
#include "util/FaultPreload.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

using mlbd::test::FaultState;

namespace {

const FaultState* faults() {
    static const FaultState* const mapped = []() -> const FaultState* {
        const char* path = getenv(mlbd::test::kFaultFileEnv);
        const int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
        if (fd < 0) return nullptr;
        void* p = mmap(nullptr, sizeof(FaultState), PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        return p == MAP_FAILED ? nullptr : static_cast<const FaultState*>(p);
    }();
    return mapped;
}

// Read without a lock: the test process writes the file while the daemon runs.
int64_t realtimeOffset() {
    const FaultState* f = faults();
    return f != nullptr ? __atomic_load_n(&f->realtimeOffsetS, __ATOMIC_RELAXED) : 0;
}

template <typename Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// CAP_NET_ADMIN in or out of the calling thread's effective set (it stays permitted).
void setNetAdmin(bool on) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0) return;
    const uint32_t bit = 1u << CAP_NET_ADMIN;
    if (((data[0].effective & bit) != 0) == on || (data[0].permitted & bit) == 0) return;
    data[0].effective = on ? data[0].effective | bit : data[0].effective & ~bit;
    syscall(SYS_capset, &header, data);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, struct timespec* ts) {
    static const auto real = next<int (*)(clockid_t, struct timespec*)>("clock_gettime");
    const int ret = real(clock, ts);
    if (ret == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        ts->tv_sec += realtimeOffset();
    }
    return ret;
}

int gettimeofday(struct timeval* tv, void* tz) {
    static const auto real = next<int (*)(struct timeval*, void*)>("gettimeofday");
    const int ret = real(tv, tz);
    if (ret == 0) tv->tv_sec += realtimeOffset();
    return ret;
}

time_t time(time_t* out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

int socket(int domain, int type, int protocol) {
    static const auto real = next<int (*)(int, int, int)>("socket");
    if (domain == AF_NETLINK && protocol == NETLINK_SOCK_DIAG) {
        const FaultState* f = faults();
        setNetAdmin(f == nullptr || __atomic_load_n(&f->noNetAdmin, __ATOMIC_RELAXED) == 0);
    }
    return real(domain, type, protocol);
}

}  // extern "C"
