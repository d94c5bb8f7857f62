/*
 * The clock for every interval the daemon measures (hysteresis periods, log throttling): one that
 * never steps. The wall clock is set from the network after boot and corrected later, so an
 * interval taken on it can come out negative or hours long. CLOCK_BOOTTIME is monotonic and, on
 * a phone, also counts the time spent in suspend, so a period keeps its length in wall time.
 * Wall-clock time stays where it is data: log stamps and the kernel module's samples.
 */
#pragma once

#include <sys/time.h>
#include <time.h>

namespace mlbd {

// Now on the interval clock, as a timeval (the type the time-of-day code already uses).
inline struct timeval intervalClockNow() {
    struct timespec ts;
    if (clock_gettime(CLOCK_BOOTTIME, &ts) != 0) clock_gettime(CLOCK_MONOTONIC, &ts);
    struct timeval tv;
    tv.tv_sec = ts.tv_sec;
    tv.tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
    return tv;
}

}  // namespace mlbd
