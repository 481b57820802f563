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

TEST(LoggingTime, TimeThreadFallsAsleepWhenNobodyReadsAndReadersStillGetTheCurrentTime) {
    ASSERT_TRUE(zvlogInitialized());
    clockMicros();  // a read: the thread runs at 1 ms
    // 8 idle refreshes at each of 1, 8 and 64 ms: about 584 ms without readers.
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    EXPECT_TRUE(LoggingTime::isTimeThreadAsleep());
    long long before = systemMicros();
    long long read = clockMicros();
    long long after = systemMicros();
    EXPECT_GE(read, before - 1000);  // refreshed by the reader, not 900 ms old
    EXPECT_LE(read, after + 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(LoggingTime::isTimeThreadAsleep());
}

TEST(LoggingTime, BusyReadersSeeMillisecondResolution) {
    long long worst = 0;
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (std::chrono::steady_clock::now() < until) {
        long long lag = systemMicros() - clockMicros();
        if (lag > worst) worst = lag;
    }
    EXPECT_EQ(LoggingTime::timeThreadTimeoutMs(), 1u);
    EXPECT_LT(worst, 20000);  // one timeout plus scheduling on a loaded machine
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
    unsigned long long e1 = LoggingTime::getElapsedTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    unsigned long long e2 = LoggingTime::getElapsedTime();
    EXPECT_GE(e2 - e1, 25000u);
    EXPECT_LT(e2 - e1, 1000000u);
}

}  // namespace
