#include "zvlog/LoggingTime.h"

#include <sys/time.h>

#include <atomic>

#include "zvlog/MultiThreading.h"
#include "zvlog/core/Clock.h"
#include "zvlog/core/Library.h"
#include "zvstd/Files.h"

namespace zvs::zvlib::zvlog {

namespace {

using MultiThreading::Event;
using MultiThreading::Thread;

using libclock::asleep;
using libclock::cachedClock;
using libclock::packedTime;
using libclock::readSinceRefresh;

std::atomic<unsigned int> currentTimeoutMs{1};
uint64_t startMicros = 0;
Event* wakeSignal = nullptr;
Thread* timeThread = nullptr;

constexpr uint64_t pack(uint64_t seconds, uint64_t micros) {
    seconds += micros / 1000000;
    micros %= 1000000;
    return (static_cast<uint64_t>(static_cast<uint32_t>(seconds)) << 32) | micros;
}

uint64_t systemPacked() {
    const timespec ts = zvs::zvlib::zvRealTime();
    return pack(static_cast<uint64_t>(ts.tv_sec), static_cast<uint64_t>(ts.tv_nsec) / 1000);
}

uint64_t refresh() {
    uint64_t fresh = systemPacked();
    uint64_t old = packedTime.load(std::memory_order_relaxed);
    // Never step backwards past a concurrent refresh that stored a later value.
    while (old < fresh && !packedTime.compare_exchange_weak(old, fresh, std::memory_order_relaxed)) {
    }
    return fresh;
}

unsigned int timeThreadLoop(void*) {
    unsigned int timeout = 1;
    unsigned int idle = 0;
    while (LibraryState::running()) {
        bool woken = wakeSignal->wait(asleep.load(std::memory_order_relaxed) ? Event::Infinite : timeout);
        if (!LibraryState::running()) break;
        if (woken) {
            asleep.store(false, std::memory_order_relaxed);
            idle = 0;
            timeout = 1;
        } else {
            refresh();
            if (readSinceRefresh.load(std::memory_order_relaxed)) {
                readSinceRefresh.store(false, std::memory_order_relaxed);
                idle = 0;
                timeout = 1;
            } else if (++idle >= 8) {
                if (timeout >= 64) {
                    asleep.store(true, std::memory_order_relaxed);
                } else {
                    timeout *= 8;
                    idle = 0;
                }
            }
        }
        currentTimeoutMs.store(timeout, std::memory_order_relaxed);
    }
    return 0;
}

}  // namespace

namespace libclock {

std::atomic<uint64_t> packedTime{0};
std::atomic<bool> readSinceRefresh{false};
std::atomic<bool> asleep{false};
std::atomic<bool> cachedClock{false};

uint64_t readPackedSlow() {
    if (!cachedClock.load(std::memory_order_relaxed)) return systemPacked();
    // Asleep: the reader wakes the time thread and reads the system time.
    wakeSignal->set();
    const uint64_t value = refresh();
    if (!readSinceRefresh.load(std::memory_order_relaxed)) readSinceRefresh.store(true, std::memory_order_relaxed);
    return value;
}

}  // namespace libclock

namespace {

using libclock::readPacked;

}  // namespace

void LoggingTime::initialize() {
    uint64_t now = refresh();
    startMicros = (now >> 32) * 1000000ull + (now & 0xffffffffu);
    if (LibraryState::singleThreaded() || timeThread) return;
    wakeSignal = new Event(Event::AutoReset);
    timeThread = new Thread(&timeThreadLoop, "TimeThread");
    timeThread->Start(nullptr);
    cachedClock.store(true, std::memory_order_release);
}

// A child forked without exec has none of the parent's threads: its clock
// would stand still. The parent's thread object and signal are left as they
// are (their memory is the child's copy); the child gets its own.
void restartClockInChild() {
    if (!timeThread || !cachedClock.load(std::memory_order_relaxed)) return;
    refresh();
    asleep.store(false, std::memory_order_relaxed);
    currentTimeoutMs.store(1, std::memory_order_relaxed);
    wakeSignal = new Event(Event::AutoReset);
    timeThread = new Thread(&timeThreadLoop, "TimeThread");
    timeThread->Start(nullptr);
}

void LoggingTime::stopTimeThread() {
    Thread* t = timeThread;
    if (!t) return;
    cachedClock.store(false, std::memory_order_release);
    wakeSignal->set();
    t->WaitForExit();
    // The thread and its signal stay allocated: late readers at process end
    // fall back to the system time once the library has stopped.
}

bool LoggingTime::isTimeThreadAsleep() { return asleep.load(std::memory_order_relaxed); }
unsigned int LoggingTime::timeThreadTimeoutMs() { return currentTimeoutMs.load(std::memory_order_relaxed); }

void LoggingTime::getCurrentTime(timeval32_t* out) {
    uint64_t v = readPacked();
    out->tv_sec = static_cast<uint32_t>(v >> 32);
    out->tv_usec = static_cast<uint32_t>(v);
}

void LoggingTime::getCurrentTime(struct timeval* out) {
    uint64_t v = readPacked();
    out->tv_sec = static_cast<time_t>(v >> 32);
    out->tv_usec = static_cast<suseconds_t>(v & 0xffffffffu);
}

void LoggingTime::getCurrentTime(struct timespec* out) {
    uint64_t v = readPacked();
    out->tv_sec = static_cast<time_t>(v >> 32);
    out->tv_nsec = static_cast<long>(v & 0xffffffffu) * 1000;
}

long long LoggingTime::getCurrentTime() { return static_cast<long long>(readPacked() >> 32); }

long long LoggingTime::time(long long* out) {
    long long s = getCurrentTime();
    if (out) *out = s;
    return s;
}

unsigned long long LoggingTime::getElapsedTime() {
    uint64_t v = readPacked();
    uint64_t now = (v >> 32) * 1000000ull + (v & 0xffffffffu);
    return now >= startMicros ? now - startMicros : 0;
}

}  // namespace zvs::zvlib::zvlog
