// The library clock and its time thread.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;

namespace {

long long systemMicros() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec * 1000000ll + ts.tv_nsec / 1000;
}

long long clockMicros() {
    timeval32_t t;
    LoggingTime::getCurrentTime(&t);
    return t.tv_sec * 1000000ll + t.tv_usec;
}

// Waits for a condition that the time thread brings about once it gets to
// run; a loaded machine may delay it, so the deadline is generous.
template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST(LoggingTime, TimeThreadFallsAsleepWhenNobodyReadsAndReadersStillGetTheCurrentTime) {
    ASSERT_TRUE(zvlogInitialized());
    clockMicros();  // a read: the thread runs at 1 ms
    // 8 idle refreshes at each of 1, 8 and 64 ms: about 584 ms without readers.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    ASSERT_TRUE(eventually([] { return LoggingTime::isTimeThreadAsleep(); }));
    // Asleep, the thread refreshes nothing: the reader refreshes the value
    // itself, so it is current however long the thread slept.
    long long before = systemMicros();
    long long read = clockMicros();
    long long after = systemMicros();
    EXPECT_GE(read, before - 1);
    EXPECT_LE(read, after);
    EXPECT_TRUE(eventually([] { return !LoggingTime::isTimeThreadAsleep(); }));
}

// Busy readers keep the thread at its 1 ms timeout and see the time move on
// in small steps; the cached value never runs ahead of the system time and
// never goes back. How stale it may get depends on when the machine lets the
// thread run, so that is not asserted.
TEST(LoggingTime, BusyReadersKeepTheThreadAtOneMillisecond) {
    long long previous = 0, distinct = 0;
    bool ordered = true, behind = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline &&
           (distinct < 50 || LoggingTime::timeThreadTimeoutMs() != 1u)) {
        const long long read = clockMicros();
        const long long now = systemMicros();
        if (read < previous) ordered = false;
        if (read > now) behind = false;
        if (read != previous) ++distinct;
        previous = read;
    }
    EXPECT_TRUE(ordered);
    EXPECT_TRUE(behind);
    EXPECT_GE(distinct, 50);
    EXPECT_EQ(LoggingTime::timeThreadTimeoutMs(), 1u);
}

TEST(LoggingTime, AllFormsAgree) {
    timeval32_t t32;
    struct timeval tv;
    struct timespec ts;
    long long seconds = 0;
    LoggingTime::getCurrentTime(&t32);
    LoggingTime::getCurrentTime(&tv);
    LoggingTime::getCurrentTime(&ts);
    long long s = LoggingTime::time(&seconds);
    EXPECT_EQ(s, seconds);
    EXPECT_LE(static_cast<long long>(t32.tv_sec), s);
    EXPECT_LE(s - t32.tv_sec, 1);
    EXPECT_LE(tv.tv_sec - t32.tv_sec, 1);
    EXPECT_EQ(ts.tv_nsec % 1000, 0);
    EXPECT_LT(t32.tv_usec, 1000000u);
    EXPECT_EQ(LoggingTime::time(nullptr) >= s, true);
    // Elapsed time is in microseconds and moves on with the clock. Either
    // reading may lag by what the cached value lags, so "at least" is waited
    // for and the upper bound only catches a wrong unit.
    const auto start = std::chrono::steady_clock::now();
    const unsigned long long e1 = LoggingTime::getElapsedTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    unsigned long long e2 = 0;
    EXPECT_TRUE(eventually([&] { return (e2 = LoggingTime::getElapsedTime()) - e1 >= 30000u; }));
    const auto passed = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_LE(e2 - e1, 10 * static_cast<unsigned long long>(passed.count()) + 100000u);
}

}  // namespace
