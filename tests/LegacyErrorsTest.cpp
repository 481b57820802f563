// The legacy error log and the fatal-error path: exact console lines and
// error-log events of issueMessage, level names, the 2048-character cut, the
// fatal-error actions 1, 2 and 3 in child processes, and ZVException.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/CaptureAppender.h"
#include "support/ChildProcess.h"
#include "support/LoggerCapture.h"
#include "zvlog/AppContext.h"
#include "zvlog/LegacyErrors.h"
#include "zvlog/Message.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvs::zvlib::zvlog::msg::Action;
using zvs::zvlib::zvlog::msg::Severity;

// Looked up by the fatal path among the program's own symbols.
extern "C" __attribute__((visibility("default"))) void _zvTryDebugHook() { fprintf(stderr, "debug hook\n"); }

namespace {

const char* const kThreadName = "/opt\\zv/bin\\capture";  // the error log shows "capture"

std::string programString() {
    const CContextItem* item = getAppContext()->GetItem(BuildProgramString);
    return item && item->GetType() == CDataItem::TypeString ? item->GetValue().str : "";
}

// The error log's events.
class ErrorLogCapture : public zvtest::LoggerCapture {
public:
    explicit ErrorLogCapture(unsigned char level = LEVEL_ALL) : LoggerCapture("zvserr.log", level) {}
};

// The console line without its time, which is checked for form and nearness.
std::string consoleLineWithoutTime(const std::string& out) {
    std::smatch m;
    if (!std::regex_match(out, m, std::regex("\n(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)  ([\\s\\S]*)"))) return "<" + out + ">";
    tm parts{};
    strptime(m[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    parts.tm_isdst = -1;
    const double age = difftime(time(nullptr), mktime(&parts));
    EXPECT_LE(age, 5.0);
    EXPECT_GE(age, -1.0);
    return m[2].str();
}

std::string issueCapturingStdout(unsigned int number, const char* code, const std::string& text, unsigned char level) {
    testing::internal::CaptureStdout();
    issueMessage(number, code, text.c_str(), level);
    return testing::internal::GetCapturedStdout();
}

class NamedMainThread : public testing::Environment {
    void SetUp() override { LoggerRepository::setThreadName(kThreadName); }
};
testing::Environment* const namedMainThread = testing::AddGlobalTestEnvironment(new NamedMainThread);

TEST(LegacyErrors, IssueMessageStripsTheTextAndWritesConsoleLineAndErrorLogEvent) {
    ErrorLogCapture log;
    const std::string out = issueCapturingStdout(1113, "QMR-01113", "Disk full. \n", 239);
    EXPECT_EQ(consoleLineWithoutTime(out), "ERROR   QMR-01113  Disk full.\n");
    auto events = log.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].message, "ERROR   QMR-01113  " + programString() + ", capture:  Disk full.");
    EXPECT_EQ(events[0].level, 239);
    EXPECT_EQ(log.locations(), std::vector<std::string>{"zvlog/LegacyErrorHandling|logMessage|240"});

    // Only the trailing run goes; blanks and full stops inside stay.
    EXPECT_EQ(consoleLineWithoutTime(issueCapturingStdout(7, "QMR-00007", "a. b .\n\n. ", 239)),
              "ERROR   QMR-00007  a. b.\n");
    EXPECT_EQ(consoleLineWithoutTime(issueCapturingStdout(7, "QMR-00007", "...", 239)), "ERROR   QMR-00007  .\n");
}

TEST(LegacyErrors, LevelCodesAreNamedAndLoggedAtTheirOwnLevel) {
    const struct {
        unsigned char code;
        const char* name;
    } rows[] = {{1, "INFO"},     {191, "INFO"},   {222, "INFO"},   {223, "WARNING"},
                {238, "WARNING"}, {239, "ERROR"}, {254, "ERROR"}};
    for (const auto& row : rows) {
        ErrorLogCapture log;
        const std::string out = issueCapturingStdout(1113, "QMR-01113", "level", row.code);
        char expected[64];
        snprintf(expected, sizeof expected, "%-7s QMR-01113  level.\n", row.name);
        EXPECT_EQ(consoleLineWithoutTime(out), expected) << int(row.code);
        auto events = log.events();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].level, row.code);
        EXPECT_EQ(events[0].message.substr(0, 8), std::string(expected).substr(0, 8));
    }
}

TEST(LegacyErrors, NoReportWritesOnlyTheErrorLogAndADisabledLoggerNothing) {
    {
        ErrorLogCapture log;
        testing::internal::CaptureStdout();
        issueMessageNoReport(1113, "QMR-01113", "quiet.", 223);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        auto events = log.events();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].message, "WARNING QMR-01113  " + programString() + ", capture:  quiet.");
    }
    {
        ErrorLogCapture log(LEVEL_WARN);
        const std::string out = issueCapturingStdout(1113, "QMR-01113", "not logged", 191);
        EXPECT_EQ(consoleLineWithoutTime(out), "INFO    QMR-01113  not logged.\n");
        EXPECT_TRUE(log.events().empty());
    }
}

TEST(LegacyErrors, ErrorLogCutsLongTextsTo2048CharactersAndStripsAgain) {
    ErrorLogCapture log;
    // The cut falls just after " ..": the logged text ends with the x's.
    const std::string text = std::string(2045, 'x') + " ..." + std::string(951, 'y');
    ASSERT_EQ(text.size(), 3000u);
    const std::string out = issueCapturingStdout(1113, "QMR-01113", text, 239);
    EXPECT_EQ(consoleLineWithoutTime(out), "ERROR   QMR-01113  " + text + ".\n");
    auto events = log.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].message, "ERROR   QMR-01113  " + programString() + ", capture:  " + std::string(2045, 'x') + ".");

    const std::string plain(3000, 'z');
    issueCapturingStdout(1113, "QMR-01113", plain, 239);
    events = log.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].message, "ERROR   QMR-01113  " + programString() + ", capture:  " + std::string(2048, 'z') + ".");
}

TEST(LegacyErrors, ErrnoSurvivesIssueMessage) {
    ErrorLogCapture log;
    errno = EAGAIN;
    testing::internal::CaptureStdout();
    issueMessage(1113, "QMR-01113", "errno", 239);
    issueMessageNoReport(1113, "QMR-01113", "errno", 239);
    const int after = errno;
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(after, EAGAIN);
}

TEST(LegacyErrors, ZVExceptionKeepsItsFieldsAndLogsOnceWhenMade) {
    zvtest::LoggerCapture log("ZVException", LEVEL_ALL);
    {
        ZVException e("Table is locked", 1234567, "QMR-34567", "zvlog/zvlog", 812, "CTable::Open");
        ZVException copy(e);
        EXPECT_STREQ(copy.what(), "Table is locked");
        EXPECT_EQ(copy.GetNumber(), 1234567u);
        EXPECT_STREQ(copy.GetCode(), "QMR-34567");
    }
    EXPECT_EQ(log.messages(),
              std::vector<std::string>{"ZVException: zvlog/zvlog:812  [QMR-34567] Table is locked\nCTable::Open"});
}

// ---- the fatal-error path, in child processes ------------------------------

const char* const kFatalText = "Invalid or missing configuration value fatal for test";

void exitFunction(int status) { fprintf(stderr, "exit function %d\n", status); }
void fatalCallback(unsigned int number, const char* text) { fprintf(stderr, "fatal %u %s\n", number, text); }
void idlCallback(const char* text) { fprintf(stderr, "idl %s\n", text); }
void vamCallback() { fprintf(stderr, "vam\n"); }

// Message 1113 (severity "ZVError") with "ZVError" standing for a severity
// whose only action is "ZVFatalErrorAbend".
void raiseFatal(FATALERROR_ACTION action, int times, bool process) {
    zvSetExitFunction(&exitFunction);
    zvSetFatalErrorCallback(&fatalCallback);
    zvSetIDLFatalErrorCallback(&idlCallback);
    zvSetVAMFatalErrorCallback(&vamCallback);
    zvSetFatalErrorAction(action);
    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    static Severity fatal;
    Action abend;
    zvs::zvlib::zvlog::msg::bindAction("ZVFatalErrorAbend", abend);
    fatal.actions.push_back(abend);
    for (Severity* s : factory->impl()->severities)
        if (s->name == "ZVError") s->redirect.store(&fatal);
    for (int i = 0; i < times; ++i) {
        CMessage* message = factory->CreateMessage(
            new CSourceContext("zvtest.legacy", "tests/LegacyErrorsTest", "raiseFatal", 1), 1113, "fatal", "test");
        if (process) {
            // Held by duplicate detection: issued under the repetition lock.
            CMessageFactory::ProcessMessage(message, CMessageFactory::IssueMessage);
            fprintf(stderr, "processed\n");
        } else {
            fprintf(stderr, "Issue returned %s\n", message->Issue(kAllActions) ? "true" : "false");
            delete message;
        }
    }
}

void scenarioReturn() { raiseFatal(FATALERROR_RETURN, 2, false); }
void scenarioExit() { raiseFatal(FATALERROR_EXIT, 1, true); }
void scenarioQuiet() { raiseFatal(FATALERROR_EXIT_QUIET, 1, false); }

// The first caller of the error log is a thread without a record of its own.
void scenarioUnnamedThread() {
    CMessageFactory::GetDefaultFactory();
    ErrorLogCapture log;
    std::thread([] { issueMessage(1113, "QMR-01113", "from a fresh thread", 239); }).join();
    for (const auto& e : log.events()) fprintf(stderr, "%s\n", e.message.c_str());
    for (const auto& l : log.locations()) fprintf(stderr, "%s\n", l.c_str());
}

std::string fatalLine(const std::string& out) { return consoleLineWithoutTime(out); }

const std::string kFatalCallbacks = std::string("debug hook\nidl ") + kFatalText + "\nvam\nfatal 1113 " + kFatalText + "\n";
const char* const k1668 = "ERROR   QMR-01668  The process is ending because of a fatal error.\n";

TEST(LegacyErrorsProcess, FatalActionReturnGoesBackToTheCallerAndCallsIdlAndVamOnlyOnce) {
    const std::string log = zvtest::temporaryPath("zvrepo-fatal");
    zvtest::ChildResult child = zvtest::runChild(
        "return", {"ZVREPO_TEST_LOG=" + log, "LD_LIBRARY_PATH=" + zvtest::programDirectory()});
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, kFatalCallbacks + "Issue returned false\n" + "debug hook\nfatal 1113 " + kFatalText +
                             "\nIssue returned false\n");
    // Message 1668 each time.
    const size_t second = child.out.find("\n", 1);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(fatalLine(child.out.substr(0, second + 1)), k1668);
    EXPECT_EQ(fatalLine(child.out.substr(second + 1)), k1668);
    const char* const repository = "ZVREPO_Enabled 0\nZVREPO_SetProcessState 8\nZVREPO_Shutdown\n";
    EXPECT_EQ(zvtest::readFile(log), std::string(repository) + repository);
    unlink(log.c_str());
}

TEST(LegacyErrorsProcess, FatalActionExitCallsTheExitFunctionWith1AndExitsWith1) {
    const std::string log = zvtest::temporaryPath("zvrepo-fatal");
    zvtest::ChildResult child = zvtest::runChild(
        "exit", {"ZVREPO_TEST_LOG=" + log, "LD_LIBRARY_PATH=" + zvtest::programDirectory(), "ZVREPO_TEST_DISABLED=1"});
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err, kFatalCallbacks + "exit function 1\n");
    EXPECT_EQ(fatalLine(child.out), k1668);
    // A repository module that is not enabled hears nothing more.
    EXPECT_EQ(zvtest::readFile(log), "ZVREPO_Enabled 0\n");
    unlink(log.c_str());
}

TEST(LegacyErrorsProcess, FatalActionQuietExitsWith1WithoutMessage1668) {
    zvtest::ChildResult child = zvtest::runChild("quiet");
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err, kFatalCallbacks + "exit function 1\n");
    EXPECT_EQ(child.out, "");
}

TEST(LegacyErrorsProcess, AFirstCallerWithoutThreadRecordLogsWithoutName) {
    zvtest::ChildResult child = zvtest::runChild("unnamed-thread");
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "ERROR   QMR-01113  " + programString() +
                             ":  from a fresh thread.\nzvlog/LegacyErrorHandling|logMessage|245\n");
    EXPECT_EQ(consoleLineWithoutTime(child.out), "ERROR   QMR-01113  from a fresh thread.\n");
}

// Last in the file: every other initializer of this file has run.
const bool scenarioHook = zvtest::runRequestedScenario({{"return", &scenarioReturn},
                                                       {"exit", &scenarioExit},
                                                       {"quiet", &scenarioQuiet},
                                                       {"unnamed-thread", &scenarioUnnamedThread}});

}  // namespace
