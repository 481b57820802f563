// The library clock's cached value, read inline on the logging path. The
// time thread (LoggingTime.cpp) keeps it fresh; see LoggingTime::getCurrentTime.
#pragma once

#include <atomic>
#include <cstdint>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog::libclock {

// Seconds since 1970 in the high 32 bits, microseconds in the low 32 bits.
extern std::atomic<uint64_t> packedTime;
// Raised by readers, cleared by the time thread: a refresh without readers
// in between counts as idle.
extern std::atomic<bool> readSinceRefresh;
extern std::atomic<bool> asleep;
// True while the time thread keeps the cached value fresh; otherwise every
// read takes the system time.
extern std::atomic<bool> cachedClock;

// The system time, or the time thread woken, whichever the state asks for.
uint64_t readPackedSlow();

inline uint64_t readPacked() {
    if (__builtin_expect(cachedClock.load(std::memory_order_relaxed) && !asleep.load(std::memory_order_relaxed), 1)) {
        const uint64_t value = packedTime.load(std::memory_order_relaxed);
        if (!readSinceRefresh.load(std::memory_order_relaxed)) readSinceRefresh.store(true, std::memory_order_relaxed);
        return value;
    }
    return readPackedSlow();
}

}  // namespace zvs::zvlib::zvlog::libclock
