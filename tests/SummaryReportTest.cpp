// The summary report, byte for byte, in a process of its own so that every
// logger and appender in it is known.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/CaptureAppender.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::CaptureAppender;

TEST(SummaryReport, MatchesTheLayoutByteForByte) {
    LoggerRepository* repo = Logger::getRepository();
    Logger* busy = repo->getLogger("rpt.busy");
    Logger* quiet = repo->getLogger("rpt.quiet");
    (void)quiet;
    busy->setLevel(LEVEL_DEBUG);
    CaptureAppender active("rpt-active");
    CaptureAppender disabled("rpt-disabled");
    disabled.setEnabled(false);
    disabled.setThreshold(LEVEL_ERROR);
    CaptureAppender binary("rpt-binary");
    binary.setLayout(new BinaryLayout());
    auto* f = new LevelMatchFilter();
    f->setLevelToMatch(LEVEL_DEBUG);
    f->setAcceptOnMatch("false");
    active.addFilter(f);
    busy->addAppender(active);
    busy->addAppender(binary);
    repo->getRootLogger()->addAppender(disabled);

    ZVLOG_INFO(busy, "one");
    ZVLOG_DEBUG(busy, "two");
    ZVLOG_WARN(busy, "three %d", 3);
    Appender::flushOutput();  // closes this thread's block: the totals count it
    ASSERT_EQ(binary.rawBlocks().size(), 1u);
    const std::string bytes = std::to_string(binary.rawBlocks()[0].size());

    std::string report;
    repo->getSummaryReport(report);
    const std::string expected =
        "\r\nActive loggers:\r\n"
        "  root (WARN)\r\n"
        "    Events logged: 0\r\n"
        "    Events issued: 3\r\n"
        "\r\n"
        "  rpt.busy (DEBUG)\r\n"
        "    Events logged: 3\r\n"
        "    Events issued: 6\r\n"
        "\r\n"
        "Total events:  3\r\n"
        "Total bytes:   " + bytes + "\r\n"
        "\r\nIdle loggers:\r\n"
        "  ZVException (WARN)\r\n"
        "  rpt (WARN)\r\n"
        "  rpt.quiet (WARN)\r\n"
        "  zvlog (WARN)\r\n"
        "  zvlog.std (WARN)\r\n"
        "  zvlog.std.application (OFF)\r\n"
        "  zvlog.std.application.calltrace (OFF)\r\n"
        "  zvlog.std.system (OFF)\r\n"
        "  zvlog.std.system.calltrace (OFF)\r\n"
        "  zvlog.std.utility (OFF)\r\n"
        "  zvlog.std.utility.calltrace (OFF)\r\n"
        "  zvmsg (WARN)\r\n"
        "  zvmsg.action (WARN)\r\n"
        "  zvserr (WARN)\r\n"
        "  zvserr.log (WARN)\r\n"
        "  zvstd (WARN)\r\n"
        "  zvstd.multithreading (WARN)\r\n"
        "\r\nActive appenders:\r\n"
        "  rpt-active (ALL)\r\n"
        "    Events issued:   2\r\n"
        "    Events filtered: 1\r\n"
        "\r\n"
        "  rpt-binary (ALL)\r\n"
        "    Events issued:   3\r\n"
        "    Events filtered: 0\r\n"
        "\r\n"
        "\r\nIdle appenders:\r\n"
        "  rpt-disabled (ERROR) - Disabled\r\n";
    EXPECT_EQ(report, expected);
    busy->removeAllAppenders();
    repo->getRootLogger()->removeAllAppenders();
}

TEST(SummaryReport, HeadingsAreLeftOutWhenTheirListIsEmpty) {
    LoggerRepository* repo = Logger::getRepository();
    // Every logger of this process has now seen traffic or not; give each
    // idle one a visit so that the idle heading must disappear.
    for (Logger* l : repo->getCurrentLoggers()) {
        if (l->getEventsLogged() || l->getEventsIssued()) continue;
        l->setLevel(LEVEL_ALL);
        ZVLOG_INFO(l, "visit");
    }
    std::string report;
    repo->getSummaryReport(report);
    EXPECT_EQ(report.find("Idle loggers:"), std::string::npos) << report;
    EXPECT_NE(report.find("Active loggers:"), std::string::npos);
}

// Counts read while other threads log are never torn or lost: the last report
// after they end counts every event exactly (a race the thread sanitizer
// reports if the report reads a counter its writers update under a lock it
// does not take).
TEST(SummaryReport, WrittenWhileThreadsLogCountsEveryEvent) {
    LoggerRepository* repo = Logger::getRepository();
    Logger* busy = repo->getLogger("rpt.concurrent");
    busy->setAdditivity(false);
    busy->setLevel(LEVEL_INFO);
    CaptureAppender sink("rpt-concurrent");
    sink.onAppend = [](const LoggingEvent*) {};
    busy->addAppender(sink);
    constexpr int kPerThread = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([busy] {
            for (int i = 0; i < kPerThread; ++i) ZVLOG_INFO(busy, "event %d", i);
        });
    std::string report;
    for (int i = 0; i < 50; ++i) {
        report.clear();
        repo->getSummaryReport(report);
    }
    for (std::thread& t : threads) t.join();
    report.clear();
    repo->getSummaryReport(report);
    EXPECT_NE(report.find("  rpt.concurrent (INFO)\r\n    Events logged: 10000\r\n    Events issued: 10000\r\n"),
              std::string::npos)
        << report;
    busy->removeAllAppenders();
    busy->setLevel(LEVEL_OFF);
}
