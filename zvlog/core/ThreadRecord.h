// The logging core's record of one thread: its number, name, recursion depth
// and event buffer.
#pragma once

#include <atomic>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

class LogBufferImpl;

struct ThreadRecord {
    unsigned int number;       // from 1 in the order records are created
    unsigned int osThreadId;   // gettid
    // > 0 while the thread is inside a logging call. Written by the thread
    // alone (enterLogging, leaveLogging); read by a flush of every thread's
    // buffer, which works only on a thread that is not inside one.
    std::atomic<int> depth{0};
    // Set by such a flush while it looks at this thread's buffer.
    std::atomic<bool> flushClaim{false};
    int savedErrno = 0;
    std::string name;
    LogBufferImpl* buffer = nullptr;  // created on the thread's first event
};

ZVLOG_API void waitWhileFlushed(ThreadRecord* record);

// The thread enters a logging call (or a nested one). The thread's own plain
// stores and loads: a flush on another thread pays for the ordering between
// them with a process-wide barrier, so the logging call pays nothing.
inline void enterLogging(ThreadRecord* r) {
    r->depth.store(r->depth.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (__builtin_expect(r->flushClaim.load(std::memory_order_acquire), 0)) waitWhileFlushed(r);
}

inline void leaveLogging(ThreadRecord* r) {
    r->depth.store(r->depth.load(std::memory_order_relaxed) - 1, std::memory_order_release);
}

inline bool insideLogging(const ThreadRecord* r) { return r->depth.load(std::memory_order_relaxed) != 0; }

// Delivers the pending events of every other thread's buffer now: each block
// that holds events and whose thread is not inside a logging call is closed
// and handed on. A thread inside one is waited for briefly.
ZVLOG_API void flushOtherThreadBuffers();

// In a child forked without exec: only the calling thread exists.
void forgetOtherThreadsInChild();

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
