#include "zvlog/core/ThreadRecord.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "zvlog/Logger.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/Library.h"

namespace zvs::zvlib::zvlog {

namespace {

std::atomic<unsigned int> recordCounter{0};

// The hot path reads the plain pointer; the holder's destructor releases the
// record when the thread ends, for library threads and foreign ones alike.
__thread bool tlsReleased __attribute__((tls_model("initial-exec"))) = false;

struct RecordHolder {
    ThreadRecord* record = nullptr;
    ~RecordHolder() {
        LoggerRepository::threadComplete();
        tlsReleased = true;
    }
};
thread_local RecordHolder tlsHolder;

}  // namespace

ZVLOG_API __thread ThreadRecord* tlsThreadRecord __attribute__((tls_model("initial-exec"))) = nullptr;

ThreadRecord* createThreadRecord() {
    if (tlsReleased) return nullptr;  // the thread is ending
    auto* r = new ThreadRecord();
    r->number = recordCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    r->osThreadId = MultiThreading::currentThreadId();
    if (!MultiThreading::ThreadList::getName(r->osThreadId, r->name)) {
        char buf[32];
        snprintf(buf, sizeof buf, "%u", r->osThreadId);
        r->name = buf;
    }
    tlsThreadRecord = r;
    tlsHolder.record = r;
    return r;
}

ThreadRecord* peekThreadRecord() { return tlsThreadRecord; }

LogBufferImpl* createThreadBuffer(ThreadRecord* record) {
    record->buffer = new LogBufferImpl(record);
    return record->buffer;
}

Logger::LoggingRecursionCheck::LoggingRecursionCheck() : buffer_(nullptr), savedErrno_(errno) {
    ThreadRecord* r = currentThreadRecord();
    if (r && r->depth == 0) {
        ++r->depth;
        r->savedErrno = savedErrno_;
        buffer_ = threadBuffer(r);
    }
    errno = savedErrno_;
}

Logger::LoggingRecursionCheck::~LoggingRecursionCheck() {
    if (buffer_) {
        ThreadRecord* r = tlsThreadRecord;
        if (r) --r->depth;
    }
    errno = savedErrno_;
}

void LoggerRepository::setThreadName(const char* name) {
    ThreadRecord* r = currentThreadRecord();
    if (r) r->name = name ? name : "";
}

const char* LoggerRepository::getThreadName() {
    ThreadRecord* r = currentThreadRecord();
    return r ? r->name.c_str() : "";
}

void LoggerRepository::threadComplete() {
    ThreadRecord* r = tlsThreadRecord;
    if (!r) return;
    tlsThreadRecord = nullptr;
    tlsHolder.record = nullptr;
    // Closing the buffer hands its last block on; logging from what that
    // triggers is dropped, as the thread is still marked as logging.
    r->depth = 1;
    delete r->buffer;
    delete r;
    // A library thread may log again after its record went (for instance
    // from a later thread-exit hook): it gets a fresh record unless the
    // thread itself is ending.
}

}  // namespace zvs::zvlib::zvlog
