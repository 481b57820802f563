// Severity actions: the binding table, the exact console texts of the report
// actions, the report gate, logging, storing, throwing, the repository
// module and ending the process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <regex>
#include <string>
#include <vector>

#include "support/CaptureAppender.h"
#include "support/ChildProcess.h"
#include "support/ConsoleText.h"
#include "support/LoggerCapture.h"
#include "zvlog/AppContext.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/LegacyErrors.h"
#include "zvlog/Message.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/zvlog.h"
#include "zvstd/Console.h"

using namespace zvs::zvlib::zvlog;
using zvs::zvlib::zvlog::msg::Action;
using zvs::zvlib::zvlog::msg::Severity;
using zvtest::LoggerCapture;

namespace {

CMessageFactory* factory() { return CMessageFactory::GetDefaultFactory(); }

// Message 1113 ("Invalid or missing configuration value {0} for {1}", class
// CF: severity "ZVError").
CMessage* makeMessage(const char* value = "alpha", const char* item = "beta") {
    return factory()->CreateMessage(new CSourceContext("zvtest.actions", "tests/ActionsTest", "ActionsTest::make", 42),
                                    1113, value, item);
}
const char* const kText = "Invalid or missing configuration value alpha for beta";

// A severity of the test's own actions, standing in for "ZVError" while it
// lives.
class TestSeverity {
public:
    explicit TestSeverity(std::initializer_list<const char*> actions) {
        for (const char* name : actions) {
            Action action;
            EXPECT_TRUE(zvs::zvlib::zvlog::msg::bindAction(name, action)) << name;
            severity_.actions.push_back(action);
        }
        for (Severity* s : factory()->impl()->severities)
            if (s->name == "ZVError") target_ = s;
        target_->redirect.store(&severity_);
    }
    ~TestSeverity() { target_->redirect.store(nullptr); }

private:
    Severity severity_;
    Severity* target_ = nullptr;
};

std::string issueCapturingStdout(const CMessage& message, bool expected, CActionAttribute mask = kAllActions) {
    bool result = !expected;
    const std::string out = zvtest::stdoutOf([&] { result = message.Issue(mask); });
    EXPECT_EQ(result, expected);
    return out;
}

TEST(Actions, BindingTableGivesEachNameItsAttributeAndUnknownNamesNothing) {
    const struct {
        const char* name;
        CActionAttribute attributes;
    } table[] = {{"Report", 4},  {"ReportSourceContext", 4}, {"ReportAllContext", 4}, {"ReportMemory", 4},
                 {"RecordMessage", 4}, {"Log", 4},           {"Pause", 2},            {"Debug", 2},
                 {"End", 1},     {"Core", 4},                {"Bundle", 4},           {"ZVInfo", 4},
                 {"ZVInfoNoReport", 4}, {"ZVWarn", 4},       {"ZVError", 4},          {"ThrowException", 4},
                 {"StoreMessage", 4}, {"ZVFatalErrorAbend", 1}};
    for (const auto& row : table) {
        Action action;
        action.attributes = 4;
        ASSERT_TRUE(zvs::zvlib::zvlog::msg::bindAction(row.name, action)) << row.name;
        EXPECT_EQ(action.name, row.name);
        EXPECT_EQ(action.attributes, row.attributes) << row.name;
        EXPECT_NE(action.member, nullptr) << row.name;
    }
    for (const char* unknown : {"report", "Report ", "Abend", ""}) {
        Action action;
        action.attributes = 4;
        EXPECT_FALSE(zvs::zvlib::zvlog::msg::bindAction(unknown, action)) << unknown;
        EXPECT_EQ(action.attributes, 4u);
        EXPECT_EQ(action.member, nullptr);
        EXPECT_EQ(action.plain, nullptr);
    }
}

TEST(Actions, NoOpActionsFailAndRunOnlyWhenTheMaskMeetsTheirAttribute) {
    CMessage* message = makeMessage();
    for (const char* name : {"Core", "Bundle", "Pause", "Debug"}) {
        TestSeverity severity{name};
        EXPECT_EQ(issueCapturingStdout(*message, false), "") << name;
    }
    {
        // "Pause" is interactive (2): a pass for the other actions skips it.
        TestSeverity severity{"Report", "Pause"};
        EXPECT_EQ(issueCapturingStdout(*message, true, 4), std::string("QMR-01113: ") + kText + "\n");
        EXPECT_EQ(issueCapturingStdout(*message, false, 2), "");
    }
    delete message;
}

TEST(Actions, ReportGateSilencesLegacyEntriesButNotTheReportLine) {
    CMessage* message = makeMessage();
    LoggerCapture errorLog("zvserr.log", LEVEL_ALL);
    TestSeverity severity{"Report", "ZVError", "ReportSourceContext", "ReportMemory", "RecordMessage"};
    factory()->SetReportType(0x8000);
    const std::string out = issueCapturingStdout(*message, true);
    factory()->SetReportType(0x7fff);
    EXPECT_EQ(out, std::string("QMR-01113: ") + kText + "\n");
    EXPECT_TRUE(errorLog.events().empty());
    delete message;
}

TEST(Actions, LegacyActionsWriteTheirLevelToConsoleAndErrorLog) {
    const struct {
        const char* action;
        const char* level;
        unsigned char code;
        bool console;
    } rows[] = {{"ZVInfo", "INFO", 191, true},
                {"ZVInfoNoReport", "INFO", 191, false},
                {"ZVWarn", "WARNING", 223, true},
                {"ZVError", "ERROR", 239, true}};
    CMessage* message = makeMessage();
    for (const auto& row : rows) {
        LoggerCapture errorLog("zvserr.log", LEVEL_ALL);
        TestSeverity severity{row.action};
        char line[128];
        snprintf(line, sizeof line, "\n<time>  %-7s QMR-01113  %s.\n", row.level, kText);
        EXPECT_EQ(zvtest::withoutTimes(issueCapturingStdout(*message, true)), row.console ? line : "");
        auto events = errorLog.events();
        ASSERT_EQ(events.size(), 1u) << row.action;
        EXPECT_EQ(events[0].level, row.code);
        EXPECT_EQ(events[0].message.substr(0, 19), std::string(row.level) + std::string(8 - strlen(row.level), ' ') +
                                                      "QMR-01113  ");
    }
    delete message;
}

TEST(Actions, LogWritesCodeAndTextAtInfoFromItsFixedLocation) {
    CMessage* message = makeMessage();
    TestSeverity severity{"Log"};
    {
        LoggerCapture log("zvmsg.action", LEVEL_INFO);
        EXPECT_TRUE(message->Issue(kAllActions));
        auto events = log.events();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].message, std::string("QMR-01113: ") + kText);
        EXPECT_EQ(events[0].level, LEVEL_INFO);
        EXPECT_EQ(events[0].loggerName, "zvmsg.action");
        EXPECT_EQ(log.locations(), std::vector<std::string>{"zvlog/msgAction|CAction::Log|236"});
    }
    {
        LoggerCapture log("zvmsg.action", LEVEL_WARN);
        EXPECT_TRUE(message->Issue(kAllActions));
        EXPECT_TRUE(log.events().empty());
    }
    delete message;
}

// A source context with one item of every type after its own four.
class ItemsSource : public CSourceContext {
public:
    ItemsSource() : CSourceContext("zvtest.actions", "tests/ActionsTest", "ActionsTest::items", 77) {
        static const char* const text = "text";
        static const char* const two = "two";
        array_.push_back(CDataItem(1));
        array_.push_back(CDataItem(two));
        add("TestString", CDataItem(text));
        add("TestInt32", CDataItem(-5));
        add("TestUInt32", CDataItem(7u));
        add("TestInt64", CDataItem(-9000000000LL));
        add("TestUInt64", CDataItem(18000000000ULL));
        add("TestBool", CDataItem(true));
        add("TestDate", CDataItem(timespec{1700000000, 123}));
        add("TestDuration", CDataItem(timespec{90061, 5}));
        add("TestShortDuration", CDataItem(timespec{3725, 0}));
        add("TestPointer", CDataItem(reinterpret_cast<const void*>(uintptr_t{0xDEADBEEF})));
        add("TestArray", CDataItem(&array_));
        extras_.push_back(new CContextItem(static_cast<ContextItemID>(0x0ABCDEF1), CDataItem(3u)));  // no name
    }
    ~ItemsSource() override {
        for (CContextItem* item : extras_) delete item;
    }
    unsigned int GetItemCount(bool children) const override {
        return CSourceContext::GetItemCount(children) + static_cast<unsigned>(extras_.size());
    }
    ContextItemID GetItemID(unsigned int index) override {
        if (index < 4) return CSourceContext::GetItemID(index);
        return index - 4 < extras_.size() ? extras_[index - 4]->GetID() : ContextItemNone;
    }
    CContextItem* GetItem(ContextItemID id) const override {
        for (CContextItem* item : extras_)
            if (item->GetID() == id) return item;
        return CSourceContext::GetItem(id);
    }

private:
    void add(const char* name, const CDataItem& value) {
        extras_.push_back(new CContextItem(CContext::GetContextItemID(name), value));
    }
    std::vector<CDataItem> array_;
    std::vector<CContextItem*> extras_;
};

TEST(Actions, ReportSourceContextPrintsEveryItemTypeAndTheArguments) {
    CMessage* message = factory()->CreateMessage(new ItemsSource(), 1113, "alpha", "beta");
    TestSeverity severity{"ReportSourceContext"};
    const std::string blank(24, ' ');
    EXPECT_EQ(issueCapturingStdout(*message, true),
              "\nSource Context :\n"
              "  SourceModule            : [zvtest.actions]\n"
              "  SourceID                : [tests/ActionsTest]\n"
              "  SourceMethod            : [ActionsTest::items]\n"
              "  SourceLine              : [77]\n"
              "  TestString              : [text]\n"
              "  TestInt32               : [-5]\n"
              "  TestUInt32              : [7]\n"
              "  TestInt64               : [-9000000000]\n"
              "  TestUInt64              : [18000000000]\n"
              "  TestBool                : [true]\n"
              "  TestDate                : [1700000000.000000123] (2023-11-14 22:13:20 UTC)\n"
              "  TestDuration            : [90061.000000005] (1d 01:01:01)\n"
              "  TestShortDuration       : [3725.000000000] (01:02:05)\n"
              "  TestPointer             : [0x00000000DEADBEEF]\n"
              "  TestArray               : [2] elements\n"
              "  " + blank + ": [1]\n"
              "  " + blank + ": [two]\n"
              "  " + blank + ": [3]\n"
              "  ConfigValue             : [alpha]\n"
              "  ConfigItem              : [beta]\n");
    delete message;
}

TEST(Actions, ReportAllContextPrintsTheApplicationContextsWithTypeLabels) {
    CMessage* message = makeMessage();
    TestSeverity severity{"ReportAllContext"};
    const std::string out = issueCapturingStdout(*message, true);
    EXPECT_NE(out.find("  AppOperatingNormally    : Boolean     : [true]\n"), std::string::npos) << out;
    EXPECT_NE(out.find("  ProcessID               : uint32_t    : [" + std::to_string(getpid()) + "]\n"),
              std::string::npos);
    EXPECT_TRUE(std::regex_search(out, std::regex("\n  AppStartTime            : DateTime    : \\[\\d+\\.\\d{9}\\] "
                                                  "\\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC\\)\n")));
    EXPECT_TRUE(std::regex_search(out, std::regex("\n  BuildProgramString      : string      : \\[[^\n]+\\]\n")));
    // The source context is not the application's.
    EXPECT_EQ(out.find("SourceModule"), std::string::npos);
    delete message;
}

TEST(Actions, ReportMemoryPrintsOverviewProcessAndSystemFiguresByTheirNames) {
    CMessage* message = makeMessage();
    TestSeverity severity{"ReportMemory"};
    const std::string out = issueCapturingStdout(*message, true);
    const std::string number = "\\[\\d+\\]\n";
    auto figure = [&](const char* name) {
        char head[64];
        snprintf(head, sizeof head, "  %-24s: ", name);
        return std::string(head) + number;
    };
    auto zero = [&](const char* name) {
        char line[64];
        snprintf(line, sizeof line, "  %-24s: \\[0\\]\n", name);
        return std::string(line);
    };
    const std::string pattern =
        "\nProcess Overview :\n"
        "  AppStartTime            : \\[\\d+\\.\\d{9}\\][^\n]*\n"
        "  ProcessID               : \\[" + std::to_string(getpid()) + "\\]\n"
        "  ProcessClockTime        : \\[\\d+\\.\\d{9}\\][^\n]*\n"
        "  ProcessMemoryPhysical   : " + number +
        "  ProcessMemoryVirtual    : " + number +
        "  ProcessSystemTime       : \\[\\d+\\.\\d{9}\\][^\n]*\n"
        "  ProcessUserTime         : \\[\\d+\\.\\d{9}\\][^\n]*\n"
        "\nProcess Memory Details :\n" +
        figure("PageFaultCount") + figure("PeakWorkingSetSize") + figure("WorkingSetSize") +
        zero("QuotaPeakPagedPoolUsage") + zero("QuotaPagedPoolUsage") + zero("QuotaPeakNonPagedPoolUsage") +
        zero("QuotaNonPagedPoolUsage") + figure("PagefileUsage") + figure("PeakPagefileUsage") +
        "\nSystem Memory Details :\n" + figure("dwMemoryLoad") + figure("ullTotalPhys") + figure("ullAvailPhys") +
        figure("ullTotalPageFile") + figure("ullAvailPageFile") + figure("ullTotalVirtual") +
        figure("ullAvailVirtual") + zero("ullAvailExtendedVirtual");
    EXPECT_TRUE(std::regex_match(out, std::regex(pattern))) << out;
    // The working set is the process's resident size: not nothing.
    std::smatch m;
    ASSERT_TRUE(std::regex_search(out, m, std::regex("  WorkingSetSize +: \\[(\\d+)\\]")));
    EXPECT_GT(std::stoull(m[1].str()), 1024u * 1024u);
    delete message;
}

TEST(Actions, ThrowExceptionRaisesZVExceptionFromTheSourceContextAndLogsItOnce) {
    CMessage* message = makeMessage();
    LoggerCapture log("ZVException", LEVEL_ALL);
    TestSeverity severity{"ThrowException"};
    try {
        message->Issue(kAllActions);
        ADD_FAILURE() << "no exception";
    } catch (const ZVException& e) {
        EXPECT_STREQ(e.what(), kText);
        EXPECT_EQ(e.GetNumber(), 1113u);
        EXPECT_STREQ(e.GetCode(), "QMR-01113");
    }
    auto events = log.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].message, std::string("ZVException: tests/ActionsTest:42  [QMR-01113] ") + kText +
                                     "\nActionsTest::make");
    ASSERT_EQ(log.locations().size(), 1u);
    EXPECT_EQ(log.locations()[0].rfind("zvlog/LegacyErrorHandling|zvs::zvlib::zvlog::ZVException::ZVException|", 0),
              0u);
    delete message;
}

TEST(Actions, StoreMessageAddsACopyToTheThreadsServiceMessages) {
    CMessage* message = makeMessage("stored", "copy");
    TestSeverity severity{"StoreMessage"};
    CErrorContext& errors = CErrorContext::GetContext();
    const size_t before = errors.GetServiceMessages().size();
    EXPECT_TRUE(message->Issue(kAllActions));
    ASSERT_EQ(errors.GetServiceMessages().size(), before + 1);
    const CMessage* copy = errors.GetServiceMessages().back();
    EXPECT_NE(copy, message);
    EXPECT_EQ(copy->GetMessageID(), 1113u);
    EXPECT_STREQ(copy->Format(), "Invalid or missing configuration value stored for copy");
    EXPECT_TRUE(*copy == *message);
    delete message;
    // The copy outlives the original it was made from.
    EXPECT_STREQ(copy->Format(), "Invalid or missing configuration value stored for copy");
}

TEST(Actions, ConsolePrintGrowsItsBufferAndCutsWhatExceedsTheLargest) {
    const std::string medium(5000, 'm'), huge(2 * 1048576, 'h');
    EXPECT_EQ(zvtest::stdoutOf([&] { zvs::zvlib::zvConsolePrint("<%s>", medium.c_str()); }), "<" + medium + ">");
    const std::string out = zvtest::stdoutOf([&] { zvs::zvlib::zvConsolePrint("<%s>\n", huge.c_str()); });
    EXPECT_EQ(out.size(), 1048575u);
    EXPECT_EQ(out, "<" + std::string(1048571, 'h') + "...");
}

// ---- paths that end the process or load the repository module --------------

void exitFunction(int status) { fprintf(stderr, "exit function %d\n", status); }

void issueWith(std::initializer_list<const char*> actions) {
    CMessage* message = makeMessage();
    TestSeverity severity(actions);
    const bool result = message->Issue(kAllActions);
    fprintf(stderr, "Issue returned %s\n", result ? "true" : "false");
    delete message;
}

void scenarioEnd() {
    zvSetExitFunction(&exitFunction);
    issueWith({"End"});
}
void scenarioRecord() { issueWith({"RecordMessage", "RecordMessage"}); }

TEST(ActionsProcess, EndRunsTheExitFunctionAndExitsWith12) {
    zvtest::ChildResult child = zvtest::runChild("end");
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 12);
    EXPECT_EQ(child.err, "exit function 12\n");
    EXPECT_EQ(child.out, "");
}

TEST(ActionsProcess, RecordMessageHandsTheMessageToTheRepositoryModuleWhenThereIsOne) {
    const std::string log = zvtest::temporaryPath("zvrepo-record");
    const std::string logVariable = "ZVREPO_TEST_LOG=" + log;
    const std::string path = "LD_LIBRARY_PATH=" + zvtest::programDirectory();
    const std::string record = "ZVREPO_Enabled 0\nZVREPO_RecordMessage 1113 QMR-01113\n";
    const struct {
        std::vector<std::string> environment;
        std::string log;
    } runs[] = {
        {{logVariable}, ""},  // the module is not on the search path
        {{logVariable, path}, record + record},
        // A module that says it is not enabled gets no message.
        {{logVariable, path, "ZVREPO_TEST_DISABLED=1"}, "ZVREPO_Enabled 0\nZVREPO_Enabled 0\n"},
    };
    for (const auto& run : runs) {
        SCOPED_TRACE(run.environment.back());
        const zvtest::ChildResult child = zvtest::runChild("record", run.environment);
        EXPECT_TRUE(child.succeeded());
        EXPECT_EQ(child.err, "Issue returned true\n");
        EXPECT_EQ(zvtest::readFile(log), run.log);
        unlink(log.c_str());
    }
}

// Last in the file: every other initializer of this file has run.
const bool scenarioHook = zvtest::runRequestedScenario({{"end", &scenarioEnd}, {"record", &scenarioRecord}});

}  // namespace
