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

// The calling thread's record pointer; null until the thread's first use.
ZVLOG_API extern __thread ThreadRecord* tlsThreadRecord __attribute__((tls_model("initial-exec")));

ZVLOG_API ThreadRecord* createThreadRecord();

// The calling thread's record, created on first use and released at thread
// exit (its buffer's block is closed then); null while the thread is ending.
inline ThreadRecord* currentThreadRecord() {
    ThreadRecord* r = tlsThreadRecord;
    return __builtin_expect(r != nullptr, 1) ? r : createThreadRecord();
}
// The record if the thread already has one, else null.
ZVLOG_API ThreadRecord* peekThreadRecord();
ZVLOG_API LogBufferImpl* createThreadBuffer(ThreadRecord* record);

// The record's buffer, created on first use.
inline LogBufferImpl* threadBuffer(ThreadRecord* record) {
    return __builtin_expect(record->buffer != nullptr, 1) ? record->buffer : createThreadBuffer(record);
}

}  // namespace zvs::zvlib::zvlog
