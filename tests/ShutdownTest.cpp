// Shutdown ends logging for good: a process of its own.
#include <gtest/gtest.h>

#include "support/CaptureAppender.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;

TEST(Shutdown, EveryByteReadsOffAndAppendersAreClosedAndDetached) {
    LoggerRepository* repo = Logger::getRepository();
    Logger* l = repo->getLogger("down.here");
    l->setLevel(LEVEL_ALL);
    zvlog_std_utility->setLevel(LEVEL_DEBUG);
    ASSERT_EQ(zvlog_std_utility_effective_level, LEVEL_DEBUG);

    struct ClosingAppender : zvtest::CaptureAppender {
        using CaptureAppender::CaptureAppender;
        int closes = 0;
        void close() override {
            ++closes;
            CaptureAppender::close();
        }
    } app("down-app");
    app.setAsynchronous(true);
    l->addAppender(app);
    repo->getRootLogger()->addAppender(app);
    ZVLOG_INFO(l, "before");

    repo->shutdown();

    EXPECT_EQ(app.closes, 1);  // attached twice, closed once
    EXPECT_FALSE(app.isAsynchronous());
    EXPECT_EQ(app.size(), 2u);  // queued before the shutdown: delivered
    EXPECT_FALSE(l->isAttached());
    EXPECT_FALSE(repo->getRootLogger()->isAttached());
    for (Logger* each : repo->getCurrentLoggers()) EXPECT_EQ(each->getEffectiveLevel(), LEVEL_OFF) << each->getName();
    EXPECT_EQ(zvlog_std_utility_effective_level, 255);
    EXPECT_EQ(zvlog_std_application_calltrace_effective_level, 255);
    ZVLOG_FATAL(l, "after");  // fails the inline test
    EXPECT_EQ(app.size(), 2u);

    // A later setLevel enables a logger again.
    l->setLevel(LEVEL_INFO);
    EXPECT_TRUE(l->isEnabledFor(LEVEL_INFO));
}
