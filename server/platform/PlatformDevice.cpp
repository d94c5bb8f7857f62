/*
 * Device implementation of the platform glue: real system properties, exact paths, and the
 * platform log as it is.
 */
#include <cutils/properties.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <stdlib.h>

#include "Platform.h"

namespace mlbd {

int getProperty(const char* key, char* value, const char* defaultValue) {
    return property_get(key, value, defaultValue);
}

std::string devicePath(const char* path) {
    return path;
}

void initLogging() {}

bool isControlClientUid(uid_t uid) {
    // AID_ROOT and AID_SYSTEM.
    return uid == 0 || uid == 1000;
}

std::string scratchDirectory() {
    const char* dir = getenv("TMPDIR");
    return dir && *dir ? dir : "/data/local/tmp";
}

int inheritedControlSocket(const char* name) {
    const int fd = android_get_control_socket(name);
    if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

}  // namespace mlbd
