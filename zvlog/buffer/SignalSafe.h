// Small helpers for code that runs inside a signal handler: nothing here
// allocates, takes a lock or touches stdio.
#pragma once

#include <time.h>

#include <cstdint>

namespace zvs::zvlib::zvlog::signalsafe {

inline int64_t monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// A short sleep between two looks at something another thread is finishing.
inline void pauseBriefly() {
    timespec pause{0, 200000};  // 0.2 ms
    nanosleep(&pause, nullptr);
}

// Calls `done` until it says true or `budgetMs` have passed; its last answer.
template <class Done>
bool waitUntil(Done done, unsigned budgetMs) {
    const int64_t deadline = monotonicMs() + budgetMs;
    for (;;) {
        if (done()) return true;
        if (monotonicMs() >= deadline) return false;
        pauseBriefly();
    }
}

}  // namespace zvs::zvlib::zvlog::signalsafe
