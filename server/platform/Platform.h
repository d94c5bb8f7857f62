/*
 * Platform glue: the only code that differs between the device build and the host build.
 *
 * On the device, properties come from the system property service and every fixed path is used
 * as it stands. On a Linux host (the development build), a property NAME is the content of the
 * file $MLBD_ROOT/properties/NAME, every fixed path is prefixed with $MLBD_ROOT, and all log lines
 * (both __android_log_print and the libbase stream logger) go to stderr in logcat's threadtime
 * format.
 *
 * Logging itself is not wrapped: the code calls __android_log_print from <android/log.h> and
 * LOG(...) from <android-base/logging.h> on both builds.
 */
#pragma once

#include <sys/types.h>

#include <string>

#ifndef PROP_VALUE_MAX
// The platform's full property value size (terminating NUL included).
#define PROP_VALUE_MAX 92
#endif

namespace mlbd {

// Reads property `key` into `value` (at least PROP_VALUE_MAX bytes), falling back to
// `defaultValue` (may be null for "") when the property is unset. Always NUL-terminates and
// returns the length of the stored text, as property_get does.
int getProperty(const char* key, char* value, const char* defaultValue);

// The path under which the daemon finds a fixed device path such as "/proc/sla/config".
std::string devicePath(const char* path);

// Sets up logging for the process; called once at the top of main().
void initLogging();

// Whether a peer of the control socket running as `uid` may send commands: root and the system
// user; on a host also the user the daemon runs as.
bool isControlClientUid(uid_t uid);

// A folder for scratch files: $TMPDIR, else /tmp on a host and /data/local/tmp on a device.
std::string scratchDirectory();

// The listening socket init made for the service's "socket NAME ..." line, passed in the
// environment as ANDROID_SOCKET_NAME; -1 when there is none (or it is not a UNIX stream socket).
// The descriptor is made close-on-exec.
int inheritedControlSocket(const char* name);

}  // namespace mlbd
