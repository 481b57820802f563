// Logging helpers around the core: the calling thread's back-trace as text
// for a log message, and logger names derived from identifiers.
#pragma once

#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

// The calling thread's recorded back-trace, one symbol per line after the
// first frame; "<Unavailable>" when there is none.
class ZVLOG_API LoggingCallStack {
public:
    LoggingCallStack();
    // The pointer describes this object's own text.
    LoggingCallStack(const LoggingCallStack&) = delete;
    LoggingCallStack& operator=(const LoggingCallStack&) = delete;
    const char* text() const { return pointer_; }
    // Counts the terminating zero.
    unsigned int length() const { return length_; }

private:
    std::string text_;
    const char* pointer_;
    unsigned int length_;
};

// Copies the text into one process-wide buffer with every "_" turned into
// "." and returns the buffer (valid until the next call).
ZVLOG_API const char* getLoggerName(const char* identifier);

}  // namespace zvs::zvlib::zvlog
