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
    // Created on the thread's first event. Set once by the thread (a release
    // store), which reads it plainly; other threads load it with acquire.
    LogBufferImpl* buffer = nullptr;
    // Its place in the table a crash dump reads (-1: none was free).
    int crashSlot = -1;
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

// For a dump written by a signal handler on the thread of `self` (null for a
// thread without a record): without allocating and without the records'
// mutex, claims every other thread that has a buffer, as a flush does, so
// that it stops at its next logging call; waits up to `waitMs` for those
// inside a logging call to leave it; calls `held` once, while the threads
// are held; visits every such record and then `self`'s, each with `settled`
// true when the thread is outside logging (or is the caller) and its buffer
// holds still; and ends the claims. A thread that ends meanwhile keeps its
// record until the visit is over. Threads beyond the table's capacity
// (kCrashSlots) are not visited.
using CrashThreadVisitor = void (*)(void* context, const ThreadRecord* record, bool settled);
ZVLOG_API void visitThreadsAtCrash(ThreadRecord* self, unsigned waitMs, void (*held)(void* context),
                                   CrashThreadVisitor visit, void* context);
constexpr unsigned kCrashSlots = 2048;
// Makes the first use of what visitThreadsAtCrash needs happen now, outside
// any signal handler.
void prepareThreadVisitAtCrash();

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
