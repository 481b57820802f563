// Appenders: filter chains, raw delivery, asynchronous delivery across
// threads, and logging from inside an appender.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "support/CaptureAppender.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::CaptureAppender;

namespace {

Logger* fresh(const char* name) {
    Logger* l = Logger::getRepository()->getLogger(name);
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    return l;
}

TEST(Filters, AcceptSkipsTheRestOfTheChain) {
    Logger* l = fresh("filters.accept");
    CaptureAppender app("filters-accept");
    auto* match = new LevelMatchFilter();
    match->setLevelToMatch(LEVEL_INFO);
    match->setAcceptOnMatch("TRUE");
    app.addFilter(match);
    app.addFilter(new DenyAllFilter());
    l->addAppender(app);
    ZVLOG_INFO(l, "accepted");
    ZVLOG_WARN(l, "denied by the second filter");
    ASSERT_EQ(app.size(), 1u);
    EXPECT_EQ(app.events()[0].message, "accepted");
    EXPECT_EQ(app.getEventsFiltered(), 1u);
    EXPECT_EQ(app.getEventsIssued(), 1u);
    l->removeAllAppenders();
}

TEST(Filters, LevelRangeDeniesOutsideWhateverAcceptOnMatchSays) {
    Logger* l = fresh("filters.range");
    CaptureAppender app("filters-range");
    auto* range = new LevelRangeFilter();
    range->setLevelToMatchMin(LEVEL_DEBUG);
    range->setLevelToMatchMax(LEVEL_ERROR);
    range->setAcceptOnMatch("false");
    app.addFilter(range);
    l->addAppender(app);
    ZVLOG_INFO(l, "inside, but AcceptOnMatch is false");
    ZVLOG_FATAL(l, "above the range");
    ZVLOG_DATA(l, "below the range");
    EXPECT_EQ(app.size(), 0u);
    EXPECT_EQ(app.getEventsFiltered(), 3u);
    l->removeAllAppenders();
}

TEST(Filters, StringMatchSearchesTheRenderedMessage) {
    Logger* l = fresh("filters.string");
    CaptureAppender app("filters-string");
    auto* deny = new StringMatchFilter();
    deny->setStringToMatch("secret 42");
    deny->setAcceptOnMatch("no");
    app.addFilter(deny);
    l->addAppender(app);
    ZVLOG_INFO(l, "the secret %d is out", 42);  // matches only once rendered
    ZVLOG_INFO(l, "the Secret %d is out", 42);  // case matters
    ZVLOG_INFO(l, "nothing here");
    ASSERT_EQ(app.size(), 2u);
    EXPECT_EQ(app.events()[0].message, "the Secret 42 is out");
    l->removeAllAppenders();

    auto* empty = new StringMatchFilter();
    empty->setStringToMatch("");
    empty->setAcceptOnMatch("false");
    CaptureAppender app2("filters-string-empty");
    app2.addFilter(empty);
    l->addAppender(app2);
    ZVLOG_INFO(l, "%s", "");  // an empty message does not contain the empty text
    ZVLOG_INFO(l, "x");       // any other message does
    ASSERT_EQ(app2.size(), 1u);
    EXPECT_EQ(app2.events()[0].message, "");
    EXPECT_EQ(app2.getEventsFiltered(), 1u);
    l->removeAllAppenders();
}

TEST(Filters, ThreadNameMatchLooksAtTheLoggingThread) {
    Logger* l = fresh("filters.thread");
    CaptureAppender app("filters-thread");
    auto* f = new ThreadNameMatchFilter();
    f->setStringToMatch("worker-7");
    f->setAcceptOnMatch("false");
    app.addFilter(f);
    l->addAppender(app);
    std::thread t([&] {
        LoggerRepository::setThreadName("worker-7");
        ZVLOG_INFO(l, "from the worker");
    });
    t.join();
    ZVLOG_INFO(l, "from main");
    ASSERT_EQ(app.size(), 1u);
    EXPECT_EQ(app.events()[0].message, "from main");
    l->removeAllAppenders();
}

TEST(Appender, BinaryLayoutSwitchesToRawDeliveryOfWholeBlocks) {
    Logger* l = fresh("raw.delivery");
    CaptureAppender raw("raw-appender");
    raw.setLayout(new BinaryLayout());
    EXPECT_EQ(raw.getDeliveryMode(), Appender::DELIVERY_RAW);
    l->addAppender(raw);
    ZVLOG_INFO(l, "event %d", 1);
    ZVLOG_INFO(l, "event %d", 2);
    EXPECT_EQ(raw.size(), 0u);  // no single events
    Appender::flushOutput();
    auto blocks = raw.rawBlocks();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(static_cast<unsigned char>(blocks[0][0]), 0x3C);
    EXPECT_EQ(blocks[0].back(), '>');
    EXPECT_GE(raw.getEventsIssued(), 2u);
    raw.setLayout(nullptr);
    EXPECT_EQ(raw.getDeliveryMode(), Appender::DELIVERY_DIRECT);
    l->removeAllAppenders();
}

TEST(Appender, FindAppenderAndRegistryFollowConstructionAndDestruction) {
    size_t before = Appender::getAllAppenders().size();
    {
        CaptureAppender a("registry-x");
        EXPECT_EQ(Appender::findAppender("registry-x"), &a);
        EXPECT_EQ(Appender::getAllAppenders().size(), before + 1);
        EXPECT_EQ(Appender::getAllAppenders().back(), &a);
    }
    EXPECT_EQ(Appender::findAppender("registry-x"), nullptr);
    EXPECT_EQ(Appender::getAllAppenders().size(), before);
}

// Switched on twice, an appender has one delivery thread, named
// "LogAppenderThread", that is gone once it is switched off. (Order and
// counts of floods from several threads: AsyncAppenderTest.)
TEST(AsyncAppender, OneNamedDeliveryThreadPerAppender) {
    using zvs::zvlib::MultiThreading::ThreadList;
    Logger* l = fresh("async.threads");
    CaptureAppender app("async-threads");
    const size_t before = ThreadList::size();
    app.setAsynchronous(true);
    app.setAsynchronous(true);
    EXPECT_TRUE(app.isAsynchronous());
    EXPECT_EQ(ThreadList::size(), before + 1);
    l->addAppender(app);
    std::thread([l] { ZVLOG_INFO(l, "queued %d", 0); }).join();
    ZVLOG_INFO(l, "queued %d", 1);
    app.setAsynchronous(false);
    app.setAsynchronous(false);  // already off: nothing happens
    EXPECT_FALSE(app.isAsynchronous());
    EXPECT_EQ(ThreadList::size(), before);
    const auto events = app.events();
    ASSERT_EQ(events.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(events[i].message, "queued " + std::to_string(i));
        EXPECT_EQ(events[i].threadName, "LogAppenderThread");
    }
    EXPECT_EQ(l->getEventsLogged(), 2u);
    EXPECT_EQ(app.getEventsIssued(), 2u);
    EXPECT_GE(app.getHighWaterMark(), 1u);
    l->removeAllAppenders();
}

TEST(RecursionGuard, LoggingFromInsideAnAppenderIsDroppedAndErrnoSurvives) {
    Logger* l = fresh("recursion.guard");
    CaptureAppender app("recursion-app");
    int innerErrno = -1;
    app.onAppend = [&](const LoggingEvent*) {
        errno = 77;
        ZVLOG_ERROR(l, "from inside the appender");  // same logger, same appender
        innerErrno = errno;
        errno = 5;  // the appender disturbs errno; the caller must not see it
    };
    l->addAppender(app);
    unsigned long long loggedBefore = l->getEventsLogged();
    errno = 33;
    ZVLOG_INFO(l, "outer");
    EXPECT_EQ(errno, 33);
    EXPECT_EQ(innerErrno, 77);  // the dropped call left errno alone too
    ASSERT_EQ(app.size(), 1u);
    EXPECT_EQ(app.events()[0].message, "outer");
    EXPECT_EQ(l->getEventsLogged(), loggedBefore + 1);
    l->removeAllAppenders();

    // Through a delivery thread the guard holds as well.
    app.clear();
    app.setAsynchronous(true);
    l->addAppender(app);
    ZVLOG_INFO(l, "outer async");
    app.setAsynchronous(false);
    ASSERT_EQ(app.size(), 1u);
    EXPECT_EQ(app.events()[0].message, "outer async");
    l->removeAllAppenders();
}

TEST(WriterAppender, WithoutLayoutWritesTheBareMessageAndCrLf) {
    char* text = nullptr;
    size_t size = 0;
    FILE* mem = open_memstream(&text, &size);
    ASSERT_NE(mem, nullptr);
    {
        ConsoleAppender console(mem);
        Logger* l = fresh("writer.bare");
        l->addAppender(console);
        ZVLOG_INFO(l, "plain %s %d", "text", 7);
        console.setLayout(new PatternLayout("[%p] %m%n"));
        ZVLOG_WARN(l, "patterned");
        l->removeAllAppenders();
        fflush(mem);
        EXPECT_EQ(std::string(text, size), "plain text 7\r\n[WARN] patterned\r\n");
    }
    fclose(mem);  // the console appender never closes its stream
    free(text);
}

}  // namespace
