// What the message factory, the message objects, the severity actions, the
// repetition thread and the legacy error log share inside the library.
#pragma once

#include <atomic>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <unicode/locid.h>
#include <unicode/msgfmt.h>
#include <unicode/resbund.h>
#include <unicode/unistr.h>

#include "zvlog/CContext.h"
#include "zvlog/Message.h"
#include "zvlog/MultiThreading.h"

namespace zvs::zvlib::zvlog::msg {

// One argument of a catalog message: the context item it is stored under,
// its kind, and how Format shows it (0 natural, 1..4 hexadecimal in 2, 4, 8,
// 16 digits, 5 the raw 64-bit payload).
struct MessageDetail {
    enum Kind : int { Int32, UInt32, Int64, UInt64, String, Pointer, DateTime };
    ContextItemID id;
    std::string name;
    Kind kind;
    int form;
};

// Built per call of a plain-function action; freed after it.
struct IssueRecord {
    char messageClass[3];
    char code[4];
    const char* severityName;
    timespec time;
    const char* text;  // default code page, or "Formatting error"
    const char* appInstance;
    const char* appInstanceDescription;
};

struct Action;
using MemberOperation = bool (*)(const Action& action, const CMessage& message);
using PlainOperation = bool (*)(const IssueRecord& record);

// One action string of a severity, bound at catalog load.
struct Action {
    std::string name;
    CActionAttribute attributes = 4;
    MemberOperation member = nullptr;
    PlainOperation plain = nullptr;
};

// Binds an action name (exact, case-sensitive); false for an unknown name.
ZVLOG_API bool bindAction(const char* name, Action& action);

struct Severity {
    std::string name;
    std::vector<Action> actions;
    std::atomic<Severity*> redirect{nullptr};
};

// The repetition state: the message held by duplicate detection and how
// often it repeated since.
struct Repetition {
    MultiThreading::Mutex lock{MultiThreading::Mutex::NonRecursive};
    CMessage* held = nullptr;
    const char* heldLevelName = nullptr;  // set by issueMessage for the held number
    unsigned int count = 0;
    MultiThreading::Event wake{MultiThreading::Event::AutoReset};
    MultiThreading::Event stop{MultiThreading::Event::ManualReset};
    int stopMode = 0;  // 1: a successful test of stop sets it again
    MultiThreading::Thread* thread = nullptr;
    // 30000, 120000 and 600000 ms; tests shorten them, also while the
    // thread runs (it reads them at each wait).
    std::atomic<unsigned long> intervalsMs[3] = {30000, 120000, 600000};
};

}  // namespace zvs::zvlib::zvlog::msg

// One message number's definition, made once from the catalog.
struct CMessageDefinition {
    unsigned int number = 0;
    zvs::zvlib::zvlog::msg::Severity* severity = nullptr;
    char messageClass[3] = {' ', ' ', 0};
    char code[4] = {' ', ' ', ' ', 0};
    uint32_t reportMask = 0;
    icu::UnicodeString pattern;
    std::vector<zvs::zvlib::zvlog::msg::MessageDetail> details;
};

struct CMessageFactory::Impl {
    // Guards the definition cache (readers share it).
    zvs::zvlib::MultiThreading::Mutex cacheLock{zvs::zvlib::MultiThreading::Mutex::Recursive};
    std::map<unsigned int, CMessageDefinition*> definitions;
    icu::Locale locale;
    icu::ResourceBundle* bundle = nullptr;
    std::vector<char> catalogBytes;  // must outlive the bundle
    zvs::zvlib::zvlog::msg::Repetition repetition;
    std::atomic<bool> suppressDuplicates{true};
    // class (second << 8 | first) -> severity and code map (third << 16 | second << 8 | first)
    struct ClassSeverity {
        zvs::zvlib::zvlog::msg::Severity* severity = nullptr;
        std::map<uint32_t, zvs::zvlib::zvlog::msg::Severity*> codes;
    };
    std::map<uint32_t, ClassSeverity> classSeverities;
    zvs::zvlib::MultiThreading::Mutex limitLock{zvs::zvlib::MultiThreading::Mutex::NonRecursive};
    std::map<unsigned int, unsigned int> issueLimits;
    std::vector<zvs::zvlib::zvlog::msg::Severity*> severities;  // catalog order
    std::atomic<CMessageReportType> reportType{0x7fff};
    // Run before any severity's actions; empty unless a component adds to it.
    std::vector<zvs::zvlib::zvlog::msg::Action> processActions;

    zvs::zvlib::zvlog::msg::Severity* findSeverity(const char* name) const;
};

namespace zvs::zvlib::zvlog::msg {

// Duplicate detection for ProcessMessage: returns true when the message was
// taken care of (counted as a repeat and destroyed, or issued and held);
// false when the repetition lock was busy (the caller issues it directly).
bool processWithRepetition(CMessageFactory::Impl& factory, CMessage* message);
// Emits the repetition report for the held message (message 1971) and
// resets the count; the caller holds the repetition lock.
void emitRepetitionReport(CMessageFactory::Impl& factory);
// Stops the repetition thread (it reports a last time).
void stopRepetition(CMessageFactory::Impl& factory);
// issueMessage records the level name of the held message's number.
void recordLevelName(unsigned int number, const char* levelName);

// Fatal-error processing (returns only for fatal-error action 1).
void processFatalError(unsigned int number, const char* text);

}  // namespace zvs::zvlib::zvlog::msg
