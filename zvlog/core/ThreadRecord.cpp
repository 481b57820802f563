#include "zvlog/core/ThreadRecord.h"

#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <new>
#include <vector>

#include "zvlog/Logger.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/buffer/CrashRecorder.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/buffer/SignalSafe.h"
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

// Every live record, for a flush of all buffers.
struct Records {
    std::mutex mutex;
    std::vector<ThreadRecord*> list;
};

Records& records() {
    static Records* r = new Records();  // outlives every thread
    return *r;
}

// Every live record again, in a table that a signal handler can read: the
// list above needs its mutex, which the crashing thread may hold.
std::atomic<ThreadRecord*> crashSlots[kCrashSlots];
// Set while a crash dump visits the records: an ending thread waits before
// its record goes.
std::atomic<bool> crashVisit{false};
// The records a crash dump claimed (one dump at a time).
ThreadRecord* crashClaimed[kCrashSlots];

void takeCrashSlot(ThreadRecord* r) {
    for (unsigned i = 0; i < kCrashSlots; ++i) {
        ThreadRecord* none = nullptr;
        if (crashSlots[i].load(std::memory_order_relaxed) == nullptr &&
            crashSlots[i].compare_exchange_strong(none, r, std::memory_order_release)) {
            r->crashSlot = static_cast<int>(i);
            return;
        }
    }
}

// Paired with the visit's store of crashVisit and loads of the slots (all
// sequentially consistent): either the visit no longer sees the record, or
// this thread sees the visit and waits for it.
void leaveCrashSlot(ThreadRecord* r) {
    if (r->crashSlot < 0) return;
    crashSlots[r->crashSlot].store(nullptr, std::memory_order_seq_cst);
    r->crashSlot = -1;
    while (crashVisit.load(std::memory_order_seq_cst)) signalsafe::pauseBriefly();
}

// Orders every other running thread's earlier stores before its later loads,
// as a full fence in each of them would. False when the kernel offers no
// such barrier.
bool processWideBarrier() {
    static const int command = [] {
        if (syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0)
            return int{MEMBARRIER_CMD_PRIVATE_EXPEDITED};
        const long supported = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
        return supported > 0 && (supported & MEMBARRIER_CMD_GLOBAL) ? int{MEMBARRIER_CMD_GLOBAL} : 0;
    }();
    return command != 0 && syscall(SYS_membarrier, command, 0, 0) == 0;
}

}  // namespace

void waitWhileFlushed(ThreadRecord* r) {
    const int depth = r->depth.load(std::memory_order_relaxed);
    do {
        r->depth.store(depth - 1, std::memory_order_release);
        while (r->flushClaim.load(std::memory_order_acquire)) sched_yield();
        r->depth.store(depth, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    } while (r->flushClaim.load(std::memory_order_acquire));
}

// Claims every other thread that has a buffer and makes the claims and the
// threads' depths visible to each other with one barrier. From then on a
// claimed thread that is outside logging stays outside until its claim ends:
// its open block is taken, and the claim ends. A thread inside a logging call
// is waited for (it stops at its next entry) for a few milliseconds at most.
// The blocks are handed on (delivered to raw appenders, kept for the dump)
// after every claim has ended.
void flushOtherThreadBuffers() {
    ThreadRecord* self = tlsThreadRecord;
    std::vector<unsigned char*> taken;
    {
        Records& all = records();
        std::lock_guard<std::mutex> lock(all.mutex);
        std::vector<ThreadRecord*> pending;
        for (ThreadRecord* r : all.list)
            if (r != self && std::atomic_ref<LogBufferImpl*>(r->buffer).load(std::memory_order_acquire))
                pending.push_back(r);
        if (pending.empty()) return;
        for (ThreadRecord* r : pending) r->flushClaim.store(true, std::memory_order_relaxed);
        const bool ordered = processWideBarrier();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
        while (ordered && !pending.empty()) {
            auto outside = [&](ThreadRecord* r) {
                if (r->depth.load(std::memory_order_acquire) != 0) return false;
                if (unsigned char* block = r->buffer->detachBlock()) taken.push_back(block);
                r->flushClaim.store(false, std::memory_order_release);
                return true;
            };
            pending.erase(std::remove_if(pending.begin(), pending.end(), outside), pending.end());
            if (pending.empty() || std::chrono::steady_clock::now() > deadline) break;
            sched_yield();
        }
        for (ThreadRecord* r : pending) r->flushClaim.store(false, std::memory_order_release);
    }
    for (unsigned char* block : taken) LogBufferImpl::handOn(block);
}

void forgetOtherThreadsInChild() {
    Records& all = records();
    new (&all.mutex) std::mutex();
    ThreadRecord* self = tlsThreadRecord;
    all.list.clear();
    if (self) all.list.push_back(self);
    for (std::atomic<ThreadRecord*>& slot : crashSlots)
        if (slot.load(std::memory_order_relaxed) != self) slot.store(nullptr, std::memory_order_relaxed);
}

void prepareThreadVisitAtCrash() { processWideBarrier(); }

void visitThreadsAtCrash(ThreadRecord* self, unsigned waitMs, void (*held)(void* context), CrashThreadVisitor visit,
                         void* context) {
    crashVisit.store(true, std::memory_order_seq_cst);
    unsigned claimed = 0;
    for (std::atomic<ThreadRecord*>& slot : crashSlots) {
        ThreadRecord* r = slot.load(std::memory_order_seq_cst);
        if (r == nullptr || r == self || !std::atomic_ref<LogBufferImpl*>(r->buffer).load(std::memory_order_acquire))
            continue;
        r->flushClaim.store(true, std::memory_order_relaxed);
        crashClaimed[claimed++] = r;
    }
    // As in a flush: after the barrier a claimed thread seen outside logging
    // stays outside. Without the barrier no thread counts as settled.
    const bool ordered = processWideBarrier();
    auto outside = [](const ThreadRecord* r) { return r->depth.load(std::memory_order_acquire) == 0; };
    if (ordered && claimed > 0)
        signalsafe::waitUntil(
            [&] {
                for (unsigned i = 0; i < claimed; ++i)
                    if (!outside(crashClaimed[i])) return false;
                return true;
            },
            waitMs);
    held(context);
    for (unsigned i = 0; i < claimed; ++i) visit(context, crashClaimed[i], ordered && outside(crashClaimed[i]));
    if (self && self->buffer) visit(context, self, true);
    for (unsigned i = 0; i < claimed; ++i) crashClaimed[i]->flushClaim.store(false, std::memory_order_release);
    crashVisit.store(false, std::memory_order_seq_cst);
}

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
    {
        Records& all = records();
        std::lock_guard<std::mutex> lock(all.mutex);
        all.list.push_back(r);
    }
    takeCrashSlot(r);
    tlsThreadRecord = r;
    tlsHolder.record = r;
    return r;
}

ThreadRecord* peekThreadRecord() { return tlsThreadRecord; }

LogBufferImpl* createThreadBuffer(ThreadRecord* record) {
    auto* buffer = new LogBufferImpl(record);
    // A flush of every thread's buffers reads the pointer on its own thread,
    // and then uses the buffer: it must see it whole.
    std::atomic_ref<LogBufferImpl*>(record->buffer).store(buffer, std::memory_order_release);
    return buffer;
}

Logger::LoggingRecursionCheck::LoggingRecursionCheck() : buffer_(nullptr), savedErrno_(errno) {
    ThreadRecord* r = currentThreadRecord();
    if (r && !insideLogging(r)) {
        enterLogging(r);
        r->savedErrno = savedErrno_;
        buffer_ = threadBuffer(r);
    }
    errno = savedErrno_;
}

Logger::LoggingRecursionCheck::~LoggingRecursionCheck() {
    if (buffer_) {
        ThreadRecord* r = tlsThreadRecord;
        if (r) leaveLogging(r);
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
    {
        // After this, no flush of all buffers looks at this one.
        Records& all = records();
        std::lock_guard<std::mutex> lock(all.mutex);
        all.list.erase(std::remove(all.list.begin(), all.list.end(), r), all.list.end());
    }
    leaveCrashSlot(r);
    crashRecorderThreadEnds();
    tlsThreadRecord = nullptr;
    tlsHolder.record = nullptr;
    // Closing the buffer hands its last block on; logging from what that
    // triggers is dropped, as the thread is still marked as logging.
    r->depth.store(1, std::memory_order_relaxed);
    delete r->buffer;
    delete r;
    // A library thread may log again after its record went (for instance
    // from a later thread-exit hook): it gets a fresh record unless the
    // thread itself is ending.
}

}  // namespace zvs::zvlib::zvlog
