// A child forked without exec goes on logging: its clock moves, and an
// asynchronous appender set up before the fork delivers the child's events
// (and not the parent's queued ones a second time).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "zvlog/Appender.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingTime.h"

using namespace zvs::zvlib::zvlog;

namespace {

class CountingAppender : public Appender {
public:
    CountingAppender() : Appender("fork-counter") {}
    ~CountingAppender() override { setAsynchronous(false); }
    void append(const LoggingEvent*) override { count.fetch_add(1); }
    void append(const void*, unsigned int) override {}
    std::atomic<int> count{0};
};

long long clockMicros() {
    timeval32_t t;
    LoggingTime::getCurrentTime(&t);
    return t.tv_sec * 1000000ll + t.tv_usec;
}

// Runs `child` in a child forked now; its return value is the exit status.
// A child that hangs is ended by its alarm.
template <class Child>
int inForkedChild(Child child) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(10);
        _exit(child());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(Fork, ChildClockMovesOn) {
    clockMicros();  // the time thread is awake at the fork
    const int status = inForkedChild([] {
        // The cached value may lag on a loaded machine, but it must move on.
        const long long first = clockMicros();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (clockMicros() - first < 150000) {
            if (std::chrono::steady_clock::now() > deadline) return 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return 0;
    });
    EXPECT_EQ(status, 0) << "1: the child's clock stood still; 142: it hung";
}

TEST(Fork, AsynchronousAppenderDeliversTheChildsEventsOnly) {
    Logger* logger = Logger::getRepository()->getLogger("fork.async");
    logger->setAdditivity(false);
    logger->setLevel(LEVEL_INFO);
    CountingAppender appender;
    appender.setAsynchronous(true);
    logger->addAppender(appender);
    for (int i = 0; i < 1000; ++i) ZVLOG_INFO(logger, "parent %d", i);

    const int status = inForkedChild([&] {
        const int inherited = appender.count.load();
        for (int i = 0; i < 10; ++i) ZVLOG_INFO(logger, "child %d", i);
        appender.setAsynchronous(false);  // waits until the queue is delivered
        return appender.count.load() - inherited;
    });
    EXPECT_EQ(status, 10) << "the child's events that reached the appender (142: it hung)";

    appender.setAsynchronous(false);
    EXPECT_EQ(appender.count.load(), 1000);
    logger->removeAllAppenders();
    logger->setLevel(LEVEL_OFF);
}

}  // namespace
