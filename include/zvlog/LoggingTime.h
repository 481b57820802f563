// The library clock: a cached wall-clock value refreshed by the "TimeThread".
#pragma once

#include <cstdint>

#include "zvlog/Export.h"

struct timeval;
struct timespec;

namespace zvs::zvlib::zvlog {

// Seconds since 1970-01-01 UTC and microseconds, both unsigned 32-bit.
struct timeval32_t {
    uint32_t tv_sec;
    uint32_t tv_usec;
};

class ZVLOG_API LoggingTime {
public:
    static void getCurrentTime(timeval32_t* out);
    static void getCurrentTime(struct timeval* out);
    static void getCurrentTime(struct timespec* out);
    static long long getCurrentTime();
    static long long time(long long* out);
    // Microseconds since the clock was initialised.
    static unsigned long long getElapsedTime();

    // Library start-up and shutdown drive these; programs do not call them.
    static void initialize();
    static void stopTimeThread();
    // For tests: whether the time thread is asleep, and its current timeout.
    static bool isTimeThreadAsleep();
    static unsigned int timeThreadTimeoutMs();
};

}  // namespace zvs::zvlib::zvlog
