// Pieces of the thread layer shared between its source files; not exported.
#pragma once

namespace zvs::zvlib::MultiThreading::detail {

constexpr unsigned char kTraceDebug = 143;
constexpr unsigned char kTraceWarn = 223;
constexpr unsigned char kTraceError = 239;

// Formats and hands a trace to the hook; does nothing (not even the
// formatting) while no hook is set.
void trace(unsigned char level, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Destroys the calling thread's instances of every live ThreadLocal. A library
// thread runs it before it leaves the thread list; other threads get the same
// clean-up from the thread-specific-data destructors.
void destroyThreadLocals();

}  // namespace zvs::zvlib::MultiThreading::detail
