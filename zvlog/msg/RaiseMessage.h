// The one way the library reports a failure of its own: a catalogued message
// raised with its number, the source context and typed arguments.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog::detail {

struct MessageSource {
    const char* component;  // e.g. "zvlog.std"
    const char* file;       // e.g. "zvlog/LogBufferImpl"
    const char* function;
    unsigned int line;
};

class MessageArgument {
public:
    enum Kind { Int32, UInt32, Int64, UInt64, String, Pointer };

    MessageArgument(int v) : kind(Int32), i64(v) {}
    MessageArgument(unsigned int v) : kind(UInt32), u64(v) {}
    MessageArgument(long v) : kind(Int64), i64(v) {}
    MessageArgument(long long v) : kind(Int64), i64(v) {}
    MessageArgument(unsigned long v) : kind(UInt64), u64(v) {}
    MessageArgument(unsigned long long v) : kind(UInt64), u64(v) {}
    MessageArgument(const char* v) : kind(String), text(v ? v : "<NIL>") {}
    MessageArgument(const std::string& v) : kind(String), text(v.c_str()) {}
    MessageArgument(const void* v) : kind(Pointer), ptr(v) {}

    Kind kind;
    union {
        int64_t i64;
        uint64_t u64;
        const char* text;
        const void* ptr;
    };
};

// Issue: the message is issued now. Store: it is kept in the calling
// thread's error context for the caller to issue (construction-time
// problems such as an over-long directory path).
enum class RaiseMode { Issue, Store };

// Raises catalogued message `number` through the default factory with the
// arguments in order. A raise nested too deeply inside another (a failure
// while making or issuing one) is printed to standard error instead. errno is
// preserved.
ZVLOG_API void raiseMessage(unsigned int number, const MessageSource& source,
                            std::initializer_list<MessageArgument> arguments = {},
                            RaiseMode mode = RaiseMode::Issue);

// While a thread builds something that the message factory itself needs (the
// factory, the application context, the filesystem hierarchy), raising a
// message there would re-enter that construction. Every raise made inside
// such a scope is kept, with copies of its arguments, and raised in order when
// the thread leaves its outermost scope. Put the scope around the guarded
// construction, never inside it, so that it ends after the construction has.
class ZVLOG_API DeferredRaiseScope {
public:
    DeferredRaiseScope();
    ~DeferredRaiseScope();
    DeferredRaiseScope(const DeferredRaiseScope&) = delete;
    DeferredRaiseScope& operator=(const DeferredRaiseScope&) = delete;
};

// How many times a message number was raised in this process (for tests and
// the summary of a run).
ZVLOG_API unsigned long long raisedMessageCount(unsigned int number);

}  // namespace zvs::zvlib::zvlog::detail
