// The call site: what a disabled call evaluates, errno, location records,
// argument type deduction and event stamping.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "support/CaptureAppender.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::CaptureAppender;

namespace {

Logger* quietLogger(const char* name, unsigned char level) {
    Logger* l = Logger::getRepository()->getLogger(name);
    l->setLevel(level);
    l->setAdditivity(false);
    return l;
}

int sideEffects = 0;
int touch() { return ++sideEffects; }

// Records every event's attributes and argument types.
class AttributeAppender : public Appender {
public:
    AttributeAppender() : Appender("attributes") {}
    void append(const void*, unsigned int) override {}
    void append(const LoggingEvent* e) override {
        events.push_back(*e);
        std::string m;
        renderMessage(e, m);
        messages.push_back(m);
    }
    std::vector<LoggingEvent> events;
    std::vector<std::string> messages;
};

TEST(CallSite, DisabledCallEvaluatesNoArgumentAndErrnoIsUnchangedEitherWay) {
    Logger* l = quietLogger("site.disabled", LEVEL_WARN);
    CaptureAppender app("site-errno");
    l->addAppender(app);
    sideEffects = 0;
    errno = ENOENT;
    ZVLOG_DEBUG(l, "value %d", touch());
    ZVLOG_INFO(l, "value %d", touch());
    EXPECT_EQ(sideEffects, 0);
    EXPECT_EQ(errno, ENOENT);
    errno = EACCES;
    ZVLOG_WARN(l, "value %d", touch());
    EXPECT_EQ(sideEffects, 1);
    EXPECT_EQ(errno, EACCES);
    // Even when the appender's work fails with errno set.
    app.onAppend = [](const LoggingEvent*) { errno = EBADF; };
    errno = 0;
    ZVLOG_WARN(l, "x");
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(app.size(), 2u);
    l->removeAllAppenders();
}

TEST(CallSite, ArgumentTypesAreDeducedFromTheCppTypes) {
    Logger* l = quietLogger("site.types", LEVEL_ALL);
    AttributeAppender app;
    l->addAppender(app);
    short s = -2;
    unsigned short us = 3;
    long long ll = -5;
    unsigned long long ull = 6;
    std::string str = "std";
    std::u16string wide = u"w\u00e9";
    int x = 0;
    RawBytes raw{"\x01\x02", 2};
    timeval32_t tv{1700000000u, 5000u};
    ZVLOG_INFO(l, "%d %u %d %u %d %u %f %s %s %p %s %s %x %s %d", s, us, -4, 4u, ll, ull, 1.5, "lit", str, &x,
               wide, raw, 'A', tv, true);
    ASSERT_EQ(app.events.size(), 1u);
    const LoggingEvent& e = app.events[0];
    EXPECT_EQ(e.argumentCount, 15);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(e.argumentTypes), 15), "ghjkmnfsspurjtj");
    float f;
    std::memcpy(&f, e.argumentValues[6], 4);
    EXPECT_FLOAT_EQ(f, 1.5f);
    EXPECT_STREQ(static_cast<const char*>(e.argumentValues[8]), "std");
    uint32_t rawLength;
    std::memcpy(&rawLength, e.argumentValues[11], 4);
    EXPECT_EQ(rawLength, 2u);
    EXPECT_EQ(e.attributes.location->argumentCount, 15);
    EXPECT_STREQ(e.attributes.location->format, "%d %u %d %u %d %u %f %s %s %p %s %s %x %s %d");
    EXPECT_EQ(app.messages[0].substr(0, 30), "-2 3 -4 4 -5 6 1.500000 lit st");
    l->removeAllAppenders();
}

TEST(CallSite, EachCallSiteKeepsItsOwnLocationRecordAndKey) {
    Logger* l = quietLogger("site.records", LEVEL_ALL);
    AttributeAppender app;
    l->addAppender(app);
    for (int i = 0; i < 3; ++i) {
        ZVLOG_INFO(l, "first site %d", i);
        ZVLOG_INFO(l, "second site %d", i);
    }
    // Two sites on one line still get records of their own.
    ZVLOG_INFO(l, "same line a"); ZVLOG_INFO(l, "same line b");
    ASSERT_EQ(app.events.size(), 8u);
    const LocationRecord* first = app.events[0].attributes.location;
    const LocationRecord* second = app.events[1].attributes.location;
    EXPECT_NE(first, second);
    EXPECT_EQ(app.events[2].attributes.location, first);
    EXPECT_EQ(app.events[4].attributes.locationKey, app.events[0].attributes.locationKey);
    EXPECT_NE(app.events[1].attributes.locationKey, app.events[0].attributes.locationKey);
    EXPECT_EQ(app.events[0].attributes.locationKey & 0xffffu, first->line);
    EXPECT_STREQ(first->module, __FILE__);
    EXPECT_STREQ(first->method, "TestBody");
    EXPECT_NE(app.events[6].attributes.locationKey, app.events[7].attributes.locationKey);
    EXPECT_EQ(app.messages[6], "same line a");
    EXPECT_EQ(app.messages[7], "same line b");
    l->removeAllAppenders();
}

TEST(EventAttributes, RecordsAreKeyedByModulePointerAndLine) {
    static const char moduleA[] = "mod/equal";
    static const char moduleB[] = "mod/equal";  // equal text, another pointer
    const char* fmt = "f";
    const char* method = "m";
    const char* a = moduleA;
    const char* b = moduleB;
    EventAttributes e1(fmt, a, method, 10, 0, 0, LEVEL_INFO);
    EventAttributes e2(fmt, a, method, 11, 0, 0, LEVEL_INFO);
    EventAttributes e3(fmt, b, method, 10, 0, 0, LEVEL_INFO);
    EventAttributes e4(fmt, a, method, 10, 0, 0, LEVEL_INFO);
    EXPECT_NE(e1.location, e2.location);
    EXPECT_NE(e1.location, e3.location);
    EXPECT_EQ(e1.location, e4.location);
    EXPECT_EQ(e1.locationKey >> 16, e2.locationKey >> 16);
    EXPECT_NE(e1.locationKey >> 16, e3.locationKey >> 16);
    EXPECT_EQ(e1.locationKey & 0xffff, 10u);
    EXPECT_EQ(e4.sequence, e1.sequence + 3);
    EventAttributes empty;
    EXPECT_EQ(empty.location, nullptr);
    EXPECT_EQ(empty.sequence, 0u);
}

TEST(CallSite, SequenceNumbersAreUniqueAcrossThreadsAndThreadNumbersDiffer) {
    Logger* l = quietLogger("site.sequence", LEVEL_ALL);
    AttributeAppender app;
    l->addAppender(app);
    ZVLOG_INFO(l, "main");
    std::thread t([&] { ZVLOG_INFO(l, "other"); });
    t.join();
    ZVLOG_INFO(l, "main again");
    ASSERT_EQ(app.events.size(), 3u);
    EXPECT_LT(app.events[0].attributes.sequence, app.events[1].attributes.sequence);
    EXPECT_LT(app.events[1].attributes.sequence, app.events[2].attributes.sequence);
    EXPECT_NE(app.events[0].attributes.threadNumber, app.events[1].attributes.threadNumber);
    EXPECT_EQ(app.events[0].attributes.threadNumber, app.events[2].attributes.threadNumber);
    timeval32_t now;
    LoggingTime::getCurrentTime(&now);
    EXPECT_LE(now.tv_sec - app.events[2].attributes.time.tv_sec, 1u);
    l->removeAllAppenders();
}

}  // namespace
