// Loggers and the repository: the hierarchy, effective levels, delivery up
// the ancestry, the standard loggers and name handling.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/CaptureAppender.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::CaptureAppender;

namespace {

LoggerRepository* repo() { return Logger::getRepository(); }

TEST(Logger, MissingAncestorsAreCreatedInOrderAndEqualNamesGiveTheSameLogger) {
    Logger* c = repo()->getLogger("hier1.b.c");
    Logger* b = repo()->exists("hier1.b");
    Logger* a = repo()->exists("hier1");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->getParent(), repo()->getRootLogger());
    EXPECT_EQ(b->getParent(), a);
    EXPECT_EQ(c->getParent(), b);
    EXPECT_EQ(b->getIndex(), a->getIndex() + 1);
    EXPECT_EQ(c->getIndex(), a->getIndex() + 2);
    EXPECT_STREQ(repo()->getLoggerName(c->getIndex()), "hier1.b.c");
    EXPECT_STREQ(repo()->getLoggerName(0), "");
    EXPECT_EQ(repo()->getRootLogger()->getIndex(), 0);
    EXPECT_EQ(b->getChild("c"), c);
    EXPECT_STREQ(repo()->getRootLogger()->getChild("toplevel")->getName(), "toplevel");

    // A caller's buffer that later holds another name must not find the old logger.
    char name[32] = "hier1.b.c";
    EXPECT_EQ(repo()->getLogger(name), c);
    std::strcpy(name, "hier1.b.d");
    Logger* d = repo()->getLogger(name);
    EXPECT_NE(d, c);
    EXPECT_STREQ(d->getName(), "hier1.b.d");
    EXPECT_EQ(d->getParent(), b);
}

TEST(Logger, EffectiveLevelIsTheNearestSetAncestorsRaisedToTheRepositoryFloor) {
    Logger* parent = repo()->getLogger("inh");
    Logger* child = repo()->getLogger("inh.child");
    parent->setLevel(LEVEL_INFO);
    EXPECT_EQ(child->getLevel(), LEVEL_INHERIT);
    EXPECT_EQ(child->getEffectiveLevel(), LEVEL_INFO);
    EXPECT_TRUE(child->isEnabledFor(LEVEL_INFO));
    EXPECT_FALSE(child->isEnabledFor(LEVEL_DEBUG));
    repo()->setThreshold(LEVEL_ERROR);
    EXPECT_EQ(child->getEffectiveLevel(), LEVEL_ERROR);
    repo()->setThreshold(LEVEL_ALL);
    EXPECT_EQ(child->getEffectiveLevel(), LEVEL_INFO);
    parent->setLevel(LEVEL_INHERIT);
    EXPECT_EQ(child->getEffectiveLevel(), LEVEL_WARN) << "the root's";

    // At or above the threshold, also for levels without a name.
    child->setLevel(LEVEL_ERROR);
    EXPECT_TRUE(child->isEnabledFor(239));
    child->setLevel(240);
    EXPECT_FALSE(child->isEnabledFor(239));
    child->setLevel(LEVEL_INHERIT);
    EXPECT_STREQ(getLevelName(240), "<undefined>");
    EXPECT_STREQ(getLevelName(LEVEL_DATA), "DATA");
}

TEST(Logger, AdditivityOffStopsDeliveryAtThatLogger) {
    Logger* a = repo()->getLogger("add");
    Logger* ab = repo()->getLogger("add.b");
    Logger* abc = repo()->getLogger("add.b.c");
    CaptureAppender onA("add-a"), onAB("add-ab"), onABC("add-abc");
    a->addAppender(onA);
    ab->addAppender(onAB);
    abc->addAppender(onABC);
    a->setLevel(LEVEL_ALL);
    ab->setAdditivity(false);
    unsigned long long loggedBefore[3] = {a->getEventsLogged(), ab->getEventsLogged(), abc->getEventsLogged()};

    ZVLOG_INFO(abc, "one %d", 1);

    EXPECT_EQ(onABC.size(), 1u);
    EXPECT_EQ(onAB.size(), 1u);
    EXPECT_EQ(onA.size(), 0u);
    EXPECT_EQ(abc->getEventsLogged(), loggedBefore[2] + 1);
    EXPECT_EQ(ab->getEventsLogged(), loggedBefore[1]);
    EXPECT_EQ(a->getEventsLogged(), loggedBefore[0]);
    EXPECT_EQ(abc->getEventsIssued(), 1u);
    EXPECT_EQ(ab->getEventsIssued(), 1u);
    a->removeAllAppenders();
    ab->removeAllAppenders();
    abc->removeAllAppenders();
}

// An appender attached twice receives twice; a threshold or a disabled
// appender skips an event, but the visit counts; removal takes every entry.
TEST(Logger, DeliveryToItsAppenders) {
    Logger* l = repo()->getLogger("visits");
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    CaptureAppender twice("visits-twice"), high("visits-high"), off("visits-off");
    high.setThreshold(LEVEL_ERROR);
    off.setEnabled(false);
    for (Appender* a : {&twice, &twice, &high, &off}) l->addAppender(*a);
    EXPECT_EQ(l->getAppender("visits-twice"), &twice);
    EXPECT_EQ(l->getAppender("nope"), nullptr);
    ZVLOG_WARN(l, "w");
    ZVLOG_ERROR(l, "e");
    EXPECT_EQ(twice.size(), 4u);
    ASSERT_EQ(high.size(), 1u);
    EXPECT_EQ(high.events()[0].message, "e");
    EXPECT_EQ(off.size(), 0u);
    EXPECT_EQ(l->getEventsIssued(), 8u);
    EXPECT_TRUE(l->removeAppender("visits-twice"));
    EXPECT_FALSE(l->isAttached(twice));
    EXPECT_TRUE(l->isAttached(high));
    EXPECT_FALSE(l->removeAppender(twice));
    l->removeAllAppenders();
    EXPECT_FALSE(l->isAttached());
}

TEST(Logger, OverlongParentNameIsReportedAndTheLoggerHangsFromTheRoot) {
    std::string name(130, 'p');
    name += ".leaf";
    unsigned long long before = detail::raisedMessageCount(1112);
    testing::internal::CaptureStdout();
    Logger* l = repo()->getLogger(name.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(detail::raisedMessageCount(1112), before + 1);
    EXPECT_NE(out.find("QMR-01112"), std::string::npos) << out;
    EXPECT_EQ(l->getParent(), repo()->getRootLogger());
    EXPECT_EQ(l->getName(), name);
    // Exactly 126 characters before the dot are still fine.
    std::string ok(126, 'q');
    ok += ".leaf";
    Logger* l2 = repo()->getLogger(ok.c_str());
    EXPECT_EQ(detail::raisedMessageCount(1112), before + 1);
    EXPECT_EQ(std::string(l2->getParent()->getName()), std::string(126, 'q'));
}

TEST(StandardLoggers, BytesReadOffUntilConfiguredAndFollowTheirLoggers) {
    EXPECT_TRUE(zvlogInitialized());
    EXPECT_FALSE(zvlogIsSingleThreaded());
    unsigned char* bytes[] = {&zvlog_std_utility_effective_level,  &zvlog_std_utility_calltrace_effective_level,
                              &zvlog_std_system_effective_level,   &zvlog_std_system_calltrace_effective_level,
                              &zvlog_std_application_effective_level,
                              &zvlog_std_application_calltrace_effective_level};
    for (unsigned char* b : bytes) EXPECT_EQ(*b, 255);
    // Creating and levelling other loggers leaves them off.
    repo()->getLogger("unrelated.logger")->setLevel(LEVEL_DEBUG);
    for (unsigned char* b : bytes) EXPECT_EQ(*b, 255);

    EXPECT_STREQ(zvlog_std_utility->getName(), "zvlog.std.utility");
    EXPECT_STREQ(zvlog_std_application_calltrace->getName(), "zvlog.std.application.calltrace");
    EXPECT_EQ(zvlog_std_utility_calltrace->getParent(), zvlog_std_utility);

    CaptureAppender app("std-capture");
    zvlog_std_system->addAppender(app);
    ZVLOG_STD(system, LEVEL_FATAL, "not yet");
    EXPECT_EQ(app.size(), 0u);
    zvlog_std_system->setLevel(LEVEL_INFO);
    EXPECT_EQ(zvlog_std_system_effective_level, LEVEL_INFO);
    ZVLOG_STD(system, LEVEL_INFO, "now %s", "yes");
    ZVLOG_STD(system, LEVEL_DEBUG, "filtered");
    ASSERT_EQ(app.size(), 1u);
    EXPECT_EQ(app.events()[0].message, "now yes");
    EXPECT_EQ(app.events()[0].loggerName, "zvlog.std.system");
    // Unset, it inherits from its ancestors like any logger.
    zvlog_std_system->setLevel(LEVEL_INHERIT);
    EXPECT_EQ(zvlog_std_system_effective_level, repo()->getRootLogger()->getEffectiveLevel());
    zvlog_std_system->removeAllAppenders();
}

TEST(Repository, ConfigurationCallbacksRunOnceEachInOrderAtReset) {
    static std::string calls;
    calls.clear();
    auto first = +[](LoggerRepository*) { calls += "1"; };
    auto second = +[](LoggerRepository*) { calls += "2"; };
    LoggerRepository* r = repo();
    r->testAndClearConfigurationSignal();
    r->addConfiguration(first);
    r->addConfiguration(second);
    r->addConfiguration(first);  // already registered
    EXPECT_TRUE(r->testAndClearConfigurationSignal());
    Logger* l = r->getLogger("reset.me");
    l->setLevel(LEVEL_DEBUG);
    l->setAdditivity(false);
    CaptureAppender app("reset-app");
    l->addAppender(app);
    r->resetConfiguration();
    EXPECT_EQ(calls, "12");
    EXPECT_FALSE(l->isAttached());
    EXPECT_EQ(l->getLevel(), LEVEL_INHERIT);
    EXPECT_TRUE(l->getAdditivity());
    EXPECT_EQ(r->getRootLogger()->getLevel(), LEVEL_WARN);
    r->clearConfiguration(first);
    r->clearConfiguration(second);
}

}  // namespace
