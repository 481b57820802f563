// Appenders removed and deleted while other threads log through them, on
// every delivery path: direct, asynchronous and raw (whole blocks). Once
// removeAppender has returned, nothing may call the appender again.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "zvlog/Appender.h"
#include "zvlog/Layout.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"

using namespace zvs::zvlib::zvlog;

namespace {

std::atomic<unsigned long> callsAfterDeath{0};
std::atomic<unsigned long> calls{0};

// Counts what reaches it; a call that arrives after its destructor began is
// counted as a fault (the destructor poisons the object once its queue is
// delivered).
class CountingAppender : public Appender {
public:
    explicit CountingAppender(const char* name) : Appender(name) {}
    ~CountingAppender() override {
        setAsynchronous(false);  // delivers what is queued
        alive_.store(false);
    }
    void append(const LoggingEvent*) override { note(); }
    void append(const void*, unsigned int) override { note(); }

private:
    void note() {
        if (!alive_.load()) callsAfterDeath.fetch_add(1);
        calls.fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<bool> alive_{true};
};

enum class Path { Direct, Asynchronous, Raw };

CountingAppender* makeAppender(Path path) {
    auto* a = new CountingAppender("churn");
    if (path == Path::Asynchronous) a->setAsynchronous(true);
    if (path == Path::Raw) a->setLayout(new BinaryLayout());
    return a;
}

class AppenderLifetime : public ::testing::TestWithParam<Path> {};

TEST_P(AppenderLifetime, RemovedAndDeletedWhileOtherThreadsLog) {
    Logger* logger = Logger::getRepository()->getLogger("lifetime.churn");
    logger->setAdditivity(false);
    logger->setLevel(LEVEL_INFO);
    callsAfterDeath = 0;
    calls = 0;

    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 2; ++t)
        loggers.emplace_back([&] {
            for (int i = 0; !stop.load(std::memory_order_relaxed); ++i) {
                ZVLOG_INFO(logger, "event %d", i);
                // Closing the block hands it to the raw appenders.
                if (i % 8 == 0) Appender::flushOutput();
            }
        });

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(800);
    int rounds = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        CountingAppender* a = makeAppender(GetParam());
        logger->addAppender(*a);
        for (int spin = 0; spin < 20; ++spin) std::this_thread::yield();
        logger->removeAppender(*a);
        delete a;
        ++rounds;
    }
    stop = true;
    for (std::thread& t : loggers) t.join();
    logger->setLevel(LEVEL_OFF);

    EXPECT_EQ(callsAfterDeath.load(), 0u) << "after " << rounds << " rounds";
    EXPECT_GT(calls.load(), 0u) << "the appenders were never reached: the test proves nothing";
}

INSTANTIATE_TEST_SUITE_P(EveryPath, AppenderLifetime,
                         ::testing::Values(Path::Direct, Path::Asynchronous, Path::Raw),
                         [](const auto& info) {
                             switch (info.param) {
                             case Path::Direct: return "Direct";
                             case Path::Asynchronous: return "Asynchronous";
                             default: return "Raw";
                             }
                         });

}  // namespace
