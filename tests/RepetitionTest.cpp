// Duplicate suppression: repeats are counted, not issued; a different message
// or the "MessageRepititionThread" reports the count (message 1971), within
// the report gate, and the thread reports a last time when the process ends.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/ConsoleText.h"
#include "support/LoggerCapture.h"
#include "zvlog/LegacyErrors.h"
#include "zvlog/Message.h"
#include "zvlog/SourceContext.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;

namespace {

CMessageFactory* factory() { return CMessageFactory::GetDefaultFactory(); }

// Message 1113 (severity "ZVError": "Log", "ZVError") through ProcessMessage.
void raise(const std::string& value, const std::string& item) {
    CMessage* message = factory()->CreateMessage(
        new CSourceContext("zvtest.repetition", "tests/RepetitionTest", "raise", 9), 1113, value.c_str(), item.c_str());
    EXPECT_EQ(CMessageFactory::ProcessMessage(message, CMessageFactory::IssueMessage), nullptr);
}

std::string logged(const std::string& value, const std::string& item) {
    return "QMR-01113: Invalid or missing configuration value " + value + " for " + item;
}
std::string report(unsigned count) {
    return "QMR-01971: ERROR message QMR-01113 was repeated " + std::to_string(count) + " times";
}

void setIntervals(unsigned long first, unsigned long second, unsigned long third) {
    unsigned long* intervals = factory()->impl()->repetition.intervalsMs;
    intervals[0] = first, intervals[1] = second, intervals[2] = third;
}

// The lines of the action log "zvmsg.action". Each test starts with a
// message of its own, so that the one held before is replaced (and reported)
// before the capture begins, and the thread starts a new cycle.
class Repetition : public testing::Test {
protected:
    void SetUp() override {
        zvtest::stdoutOf([] { raise("start of", testing::UnitTest::GetInstance()->current_test_info()->name()); });
        capture_ = std::make_unique<zvtest::LoggerCapture>("zvmsg.action", LEVEL_INFO);
    }
    void TearDown() override {
        capture_.reset();
        setIntervals(30000, 120000, 600000);
        factory()->SetReportType(0x7fff);
    }
    std::vector<std::string> lines() const { return capture_->messages(); }
    bool waitForLines(size_t count) const {
        for (int i = 0; i < 500 && capture_->size() < count; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return capture_->size() >= count;
    }

private:
    std::unique_ptr<zvtest::LoggerCapture> capture_;
};

TEST_F(Repetition, ADifferentMessageReportsTheHeldOnesRepeatsAtOnceThenIsIssued) {
    const std::string out = zvtest::stdoutOf([] {
        raise("a", "1");
        raise("a", "1");
        raise("b", "2");
    });
    EXPECT_EQ(lines(), (std::vector<std::string>{logged("a", "1"), report(1), logged("b", "2")}));
    // The report's own legacy line names the level recorded for the held message.
    EXPECT_NE(zvtest::withoutTimes(out).find("\n<time>  INFO    QMR-01971  ERROR message QMR-01113 was repeated 1 times.\n"),
              std::string::npos)
        << out;
}

TEST_F(Repetition, TenEqualMessagesAreIssuedOnceAndTheThreadReportsNine) {
    setIntervals(200, 300, 300);
    testing::internal::CaptureStdout();
    for (int i = 0; i < 10; ++i) raise("ten", "times");  // wakes the thread: a new cycle of 200 ms
    ASSERT_TRUE(waitForLines(2));
    // A count of 0 reports nothing at the next interval.
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(lines(), (std::vector<std::string>{logged("ten", "times"), report(9)}));
}

TEST_F(Repetition, AReportTypeOutsideTheMessagesScopeSuppressesTheReportButResetsTheCount) {
    setIntervals(150, 60000, 60000);
    testing::internal::CaptureStdout();
    for (int i = 0; i < 3; ++i) raise("gated", "x");
    factory()->SetReportType(0x8000);  // 1113 reports to "All" (0x7fff)
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    factory()->SetReportType(0x7fff);
    raise("gated", "x");
    raise("other", "y");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(lines(), (std::vector<std::string>{logged("gated", "x"), report(1), logged("other", "y")}));
}

// ---- child processes -------------------------------------------------------

void scenarioExitReport() {
    for (int i = 0; i < 3; ++i) raise("at", "exit");
}

// Message 12420 (severity "ZVStore") never passes issueMessage: no level name.
void scenarioNoLevelName() {
    for (int i = 0; i < 2; ++i) {
        CMessage* message = factory()->CreateMessage(
            new CSourceContext("zvtest.repetition", "tests/RepetitionTest", "store", 3), 12420, "path", 260u);
        CMessageFactory::ProcessMessage(message, CMessageFactory::IssueMessage);
    }
    raise("after", "store");
}

// The thread reports a last time when the process exits; before any level
// name was recorded the report names no level.
TEST(RepetitionProcess, ConsoleLinesOfAChild) {
    const std::pair<const char*, const char*> cases[] = {
        {"exit-report",
         "\n<time>  ERROR   QMR-01113  Invalid or missing configuration value at for exit.\n"
         "\n<time>  INFO    QMR-01971  ERROR message QMR-01113 was repeated 2 times.\n"},
        {"no-level-name",
         "\n<time>  INFO    QMR-01971   message QMR-12420 was repeated 1 times.\n"
         "\n<time>  ERROR   QMR-01113  Invalid or missing configuration value after for store.\n"},
    };
    for (const auto& [scenario, out] : cases) {
        const zvtest::ChildResult child = zvtest::runChild(scenario);
        EXPECT_TRUE(child.succeeded()) << scenario;
        EXPECT_EQ(zvtest::withoutTimes(child.out), out);
        EXPECT_EQ(child.err, "") << scenario;
    }
}

// Last in the file: every other initializer of this file has run.
const bool scenarioHook =
    zvtest::runRequestedScenario({{"exit-report", &scenarioExitReport}, {"no-level-name", &scenarioNoLevelName}});

}  // namespace
