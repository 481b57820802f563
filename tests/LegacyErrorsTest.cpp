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
#include "support/ConsoleText.h"
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

class NamedMainThread : public testing::Environment {
    void SetUp() override { LoggerRepository::setThreadName(kThreadName); }
};
testing::Environment* const namedMainThread = testing::AddGlobalTestEnvironment(new NamedMainThread);

// Each call's console line and error-log event (its text, empty for none, at
// the level of the call's code); the error log's level and errno must not
// matter.
TEST(LegacyErrors, ConsoleLineAndErrorLogEventOfEachCall) {
    const std::string logged = "QMR-01113  " + programString() + ", capture:  ";
    const struct {
        bool report;                // issueMessage, or issueMessageNoReport
        unsigned char loggerLevel;  // of the error log
        std::string text;
        unsigned char code;
        std::string console;  // after the time
        std::string event;
    } calls[] = {
        {true, LEVEL_ALL, "Disk full. \n", 239, "ERROR   QMR-01113  Disk full.\n", "ERROR   " + logged + "Disk full."},
        // Only the trailing run of blanks, line ends and full stops goes.
        {true, LEVEL_ALL, "a. b .\n\n. ", 239, "ERROR   QMR-01113  a. b.\n", "ERROR   " + logged + "a. b."},
        {true, LEVEL_ALL, "...", 239, "ERROR   QMR-01113  .\n", "ERROR   " + logged + "."},
        {true, LEVEL_ALL, "level", 1, "INFO    QMR-01113  level.\n", "INFO    " + logged + "level."},
        {true, LEVEL_ALL, "level", 191, "INFO    QMR-01113  level.\n", "INFO    " + logged + "level."},
        {true, LEVEL_ALL, "level", 222, "INFO    QMR-01113  level.\n", "INFO    " + logged + "level."},
        {true, LEVEL_ALL, "level", 223, "WARNING QMR-01113  level.\n", "WARNING " + logged + "level."},
        {true, LEVEL_ALL, "level", 238, "WARNING QMR-01113  level.\n", "WARNING " + logged + "level."},
        {true, LEVEL_ALL, "level", 254, "ERROR   QMR-01113  level.\n", "ERROR   " + logged + "level."},
        {false, LEVEL_ALL, "quiet.", 223, "", "WARNING " + logged + "quiet."},
        {true, LEVEL_WARN, "not logged", 191, "INFO    QMR-01113  not logged.\n", ""},
        // The error log cuts at 2048 characters (here just after " ..") and
        // strips again; the console keeps the whole text.
        {true, LEVEL_ALL, std::string(2045, 'x') + " ..." + std::string(951, 'y'), 239,
         "ERROR   QMR-01113  " + std::string(2045, 'x') + " ..." + std::string(951, 'y') + ".\n",
         "ERROR   " + logged + std::string(2045, 'x') + "."},
        {true, LEVEL_ALL, std::string(3000, 'z'), 239, "ERROR   QMR-01113  " + std::string(3000, 'z') + ".\n",
         "ERROR   " + logged + std::string(2048, 'z') + "."},
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(call.text.substr(0, 20) + " " + std::to_string(call.code));
        ErrorLogCapture log(call.loggerLevel);
        int errnoAfter = 0;
        const std::string out = zvtest::stdoutOf([&] {
            errno = EAGAIN;
            (call.report ? issueMessage : issueMessageNoReport)(1113, "QMR-01113", call.text.c_str(), call.code);
            errnoAfter = errno;
        });
        EXPECT_EQ(errnoAfter, EAGAIN);
        EXPECT_EQ(zvtest::withoutTimes(out), call.console.empty() ? "" : "\n<time>  " + call.console);
        const std::vector<zvtest::CapturedEvent> events = log.events();
        ASSERT_EQ(events.size(), call.event.empty() ? 0u : 1u);
        if (events.empty()) continue;
        EXPECT_EQ(events[0].message, call.event);
        EXPECT_EQ(events[0].level, call.code);
        EXPECT_EQ(log.locations(), std::vector<std::string>{"zvlog/LegacyErrorHandling|logMessage|240"});
    }
}

TEST(LegacyErrors, TheConsoleLineCarriesTheLocalTimeOfTheCall) {
    const std::string out = zvtest::stdoutOf([] { issueMessage(1113, "QMR-01113", "now", 239); });
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, std::regex("\n(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)  ERROR   QMR-01113  now\\.\n")))
        << out;
    tm parts{};
    strptime(m[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    parts.tm_isdst = -1;
    const double age = difftime(time(nullptr), mktime(&parts));
    EXPECT_LE(age, 5.0);
    EXPECT_GE(age, -1.0);
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

const std::string kFatalCallbacks = std::string("debug hook\nidl ") + kFatalText + "\nvam\nfatal 1113 " + kFatalText + "\n";
const std::string k1668 = "\n<time>  ERROR   QMR-01668  The process is ending because of a fatal error.\n";

// Each fatal-error action in a child: its status, standard error (the
// callbacks), the console lines and what the repository module heard.
TEST(LegacyErrorsProcess, FatalErrorActions) {
    const std::string log = zvtest::temporaryPath("zvrepo-fatal");
    const std::string module = "LD_LIBRARY_PATH=" + zvtest::programDirectory();
    const std::string told = "ZVREPO_Enabled 0\nZVREPO_SetProcessState 8\nZVREPO_Shutdown\n";
    const struct {
        const char* scenario;
        std::vector<std::string> environment;
        int status;
        std::string err, out, log;
    } cases[] = {
        // Back to the caller, which calls the IDL and VAM callbacks only once.
        {"return", {module}, 0,
         kFatalCallbacks + "Issue returned false\ndebug hook\nfatal 1113 " + kFatalText + "\nIssue returned false\n",
         k1668 + k1668, told + told},
        // A repository module that is not enabled hears nothing more.
        {"exit", {module, "ZVREPO_TEST_DISABLED=1"}, 1, kFatalCallbacks + "exit function 1\n", k1668,
         "ZVREPO_Enabled 0\n"},
        {"quiet", {}, 1, kFatalCallbacks + "exit function 1\n", "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        std::vector<std::string> environment = c.environment;
        environment.push_back("ZVREPO_TEST_LOG=" + log);
        const zvtest::ChildResult child = zvtest::runChild(c.scenario, environment);
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(child.status, c.status);
        EXPECT_EQ(child.err, c.err);
        EXPECT_EQ(zvtest::withoutTimes(child.out), c.out);
        EXPECT_EQ(zvtest::readFile(log), c.log);
        unlink(log.c_str());
    }
}

TEST(LegacyErrorsProcess, AFirstCallerWithoutThreadRecordLogsWithoutName) {
    zvtest::ChildResult child = zvtest::runChild("unnamed-thread");
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "ERROR   QMR-01113  " + programString() +
                             ":  from a fresh thread.\nzvlog/LegacyErrorHandling|logMessage|245\n");
    EXPECT_EQ(zvtest::withoutTimes(child.out), "\n<time>  ERROR   QMR-01113  from a fresh thread.\n");
}

// Last in the file: every other initializer of this file has run.
const bool scenarioHook = zvtest::runRequestedScenario({{"return", &scenarioReturn},
                                                       {"exit", &scenarioExit},
                                                       {"quiet", &scenarioQuiet},
                                                       {"unnamed-thread", &scenarioUnnamedThread}});

}  // namespace
