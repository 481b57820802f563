// The logging core's record of one thread: its number, name, recursion depth
// and event buffer.
#pragma once

#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

class LogBufferImpl;

struct ThreadRecord {
    unsigned int number;       // from 1 in the order records are created
    unsigned int osThreadId;   // gettid
    int depth = 0;             // > 0 while the thread is inside a logging call
    int savedErrno = 0;
    std::string name;
    LogBufferImpl* buffer = nullptr;  // created on the thread's first event
};

// The calling thread's record, created on first use and released at thread
// exit (its buffer's block is closed then).
ZVLOG_API ThreadRecord* currentThreadRecord();
// The record if the thread already has one, else null.
ZVLOG_API ThreadRecord* peekThreadRecord();
// The record's buffer, created on first use.
ZVLOG_API LogBufferImpl* threadBuffer(ThreadRecord* record);

}  // namespace zvs::zvlib::zvlog
