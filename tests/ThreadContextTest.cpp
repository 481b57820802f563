// The thread context (identifier, back-trace, symbol names), the logging call
// stack built from it, and logger names derived from identifiers.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zvlog/LoggingCallStack.h"
#include "zvlog/ThreadContext.h"
#include "zvlog/core/ThreadRecord.h"

using zvs::zvlib::zvlog::getLoggerName;
using zvs::zvlib::zvlog::LoggingCallStack;

extern "C" {
__attribute__((visibility("default"))) char zvtestMarker[16] = "marker";
}

namespace zvtest {

struct Capture {
    std::vector<std::string> names;
    size_t frames = 0;
    int line = 0;
};

std::vector<std::string> namesOf(CThreadContext& context) {
    std::vector<std::string> result;
    CContextItem* item = context.GetItem(ThreadBacktrace);
    if (!item || item->GetType() != CDataItem::TypeVector) return result;
    std::vector<CDataItem> names;
    EXPECT_TRUE(CThreadContext::GetSymbolNames(*item, &names));
    for (const CDataItem& name : names) result.emplace_back(static_cast<const char*>(name));
    return result;
}

__attribute__((noinline)) Capture captureInKnownFunction() {
    Capture capture;
    CThreadContext context; capture.line = __LINE__;
    capture.names = namesOf(context);
    capture.frames = static_cast<std::vector<CDataItem>*>(*context.GetItem(ThreadBacktrace))->size();
    return capture;
}

__attribute__((noinline)) size_t captureAtDepth(int depth) {
    size_t count;
    if (depth > 0) {
        count = captureAtDepth(depth - 1);
    } else {
        CThreadContext context;
        count = static_cast<std::vector<CDataItem>*>(*context.GetItem(ThreadBacktrace))->size();
    }
    asm volatile("" : "+r"(count)::"memory");  // no tail call: every depth keeps its frame
    return count;
}

struct CallStackCapture {
    std::string text;
    unsigned int length = 0;
    std::vector<std::string> contextNames;  // a thread context made in the same function
};

__attribute__((noinline)) CallStackCapture callStackHere() {
    CallStackCapture capture;
    CThreadContext context;
    LoggingCallStack stack;
    capture.text = stack.text();
    capture.length = stack.length();
    capture.contextNames = namesOf(context);
    return capture;
}

std::vector<std::string> lines(const std::string& text, bool* allEndWithCrLf) {
    std::vector<std::string> result;
    *allEndWithCrLf = true;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find("\r\n", at);
        if (end == std::string::npos) {
            *allEndWithCrLf = false;
            result.push_back(text.substr(at));
            break;
        }
        result.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    return result;
}

}  // namespace zvtest

TEST(ThreadContext, BacktraceStartsInTheFunctionThatMadeTheContext) {
    zvtest::Capture capture = zvtest::captureInKnownFunction();
    ASSERT_FALSE(capture.names.empty());
    EXPECT_EQ(capture.names.size(), capture.frames);
    const std::string& first = capture.names[0];
    EXPECT_EQ(first.rfind("zvtest::captureInKnownFunction()+0x", 0), 0u) << first;
#ifdef ZVTEST_FRAMES_HAVE_LINES
    std::string place = "ThreadContextTest.cpp(" + std::to_string(capture.line) + ")";
    EXPECT_TRUE(first.ends_with(place)) << first << " / " << place;
#endif
    // The caller, a test body, follows.
    ASSERT_GE(capture.names.size(), 2u);
    EXPECT_NE(capture.names[1].find("ThreadContext_BacktraceStartsInTheFunctionThatMadeTheContext"),
              std::string::npos)
        << capture.names[1];
}

TEST(ThreadContext, HoldsTheThreadNumberAndAtMostOneHundredAddresses) {
    CThreadContext context;
    EXPECT_EQ(context.GetItemCount(false), 2u);
    const CContextItem* id = context.GetItem(ThreadID);
    ASSERT_NE(id, nullptr);
    EXPECT_EQ(id->GetType(), CDataItem::TypeUInt64);
    EXPECT_EQ(static_cast<unsigned long long>(*id), zvs::zvlib::zvlog::currentThreadRecord()->number);

    const CContextItem* trace = context.GetItem(ThreadBacktrace);
    ASSERT_NE(trace, nullptr);
    ASSERT_EQ(trace->GetType(), CDataItem::TypeVector);
    auto* frames = static_cast<std::vector<CDataItem>*>(*trace);
    ASSERT_GE(frames->size(), 4u);
    for (const CDataItem& frame : *frames) EXPECT_EQ(frame.GetType(), CDataItem::TypePointer);

    size_t shallow = zvtest::captureAtDepth(0);
    EXPECT_EQ(zvtest::captureAtDepth(10), shallow + 10);
    EXPECT_EQ(zvtest::captureAtDepth(150), 100u);

    unsigned long long otherId = 0, otherNumber = 0;
    std::thread other([&] {
        CThreadContext there;
        otherId = *there.GetItem(ThreadID);
        otherNumber = zvs::zvlib::zvlog::currentThreadRecord()->number;
    });
    other.join();
    EXPECT_EQ(otherId, otherNumber);
    EXPECT_NE(otherId, static_cast<unsigned long long>(*id));
}

TEST(ThreadContext, SymbolNamesForDataAndUnknownAddresses) {
    Dl_info info;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&zvtest::captureInKnownFunction), &info), 0);
    std::vector<CDataItem> addresses;
    addresses.emplace_back(static_cast<const void*>(zvtestMarker + 3));
    addresses.emplace_back(reinterpret_cast<const void*>(0x10));
    addresses.emplace_back(static_cast<const void*>(info.dli_fbase));  // the ELF header: no symbol

    std::vector<CDataItem> names;
    names.emplace_back("kept");
    ASSERT_TRUE(CThreadContext::GetSymbolNames(&addresses, &names));
    ASSERT_EQ(names.size(), 4u);  // appended
    EXPECT_STREQ(static_cast<const char*>(names[0]), "kept");
    EXPECT_STREQ(static_cast<const char*>(names[1]), "zvtestMarker+0x3");
    EXPECT_STREQ(static_cast<const char*>(names[2]), "0x10");
    EXPECT_STREQ(static_cast<const char*>(names[3]), "<");
    for (size_t i = 1; i < names.size(); ++i) EXPECT_TRUE(names[i].IsOwned());

    EXPECT_FALSE(CThreadContext::GetSymbolNames(nullptr, &names));
    EXPECT_FALSE(CThreadContext::GetSymbolNames(&addresses, nullptr));
}

TEST(LoggingCallStack, OneLinePerFrameAfterTheFirst) {
    zvtest::CallStackCapture capture = zvtest::callStackHere();
    EXPECT_EQ(capture.length, capture.text.size() + 1);
    bool crlf = false;
    std::vector<std::string> lines = zvtest::lines(capture.text, &crlf);
    EXPECT_TRUE(crlf) << capture.text;
    // The call stack's own constructor is left out: it starts in the caller,
    // and below that it is the same stack as a context made beside it.
    ASSERT_EQ(lines.size(), capture.contextNames.size());
    EXPECT_EQ(lines[0].rfind("zvtest::callStackHere()+0x", 0), 0u) << lines[0];
    EXPECT_EQ(capture.text.find("LoggingCallStack::LoggingCallStack"), std::string::npos);
    for (size_t i = 1; i < lines.size(); ++i) EXPECT_EQ(lines[i], capture.contextNames[i]) << i;
    for (const std::string& line : lines) {
        EXPECT_FALSE(line.empty());
        EXPECT_EQ(line.find('\n'), std::string::npos);
    }
}

TEST(LoggingCallStack, LoggerNamesTurnUnderscoresIntoDots) {
    EXPECT_STREQ(getLoggerName("zvlog_std_utility"), "zvlog.std.utility");
    EXPECT_STREQ(getLoggerName("zvlog"), "zvlog");
    EXPECT_STREQ(getLoggerName("_a__b_"), ".a..b.");
    EXPECT_STREQ(getLoggerName(""), "");
}
