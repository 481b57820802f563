// Thread identifiers, the trace hook, Mutex and Event of the thread layer.
#include "zvlog/MultiThreading.h"

#include <sched.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <thread>

#include "zvstd/Fatal.h"
#include "zvstd/MultiThreadingInternal.h"
#include "zvstd/MutexInline.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace zvs::zvlib::MultiThreading {

namespace {

// The child of fork() is a new thread of a new process: it must not go on
// answering with its parent's id.
struct ForkGuard {
    ForkGuard() {
        ::pthread_atfork(nullptr, nullptr, [] { detail::tlsThreadId = 0; });
    }
} forkGuard;

std::atomic<TraceHook> traceHook{nullptr};

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#else
    std::this_thread::yield();
#endif
}

// Timeouts beyond this (about 35 years) are as good as Infinite and would
// overflow the clock's arithmetic.
constexpr unsigned long kMaxTimeoutMs = 1ul << 40;

}  // namespace

namespace detail {

constinit thread_local unsigned int tlsThreadId __attribute__((tls_model("initial-exec"))) = 0;

unsigned int fetchThreadId() {
    const auto id = static_cast<unsigned int>(::syscall(SYS_gettid));
    tlsThreadId = id;
    return id;
}

}  // namespace detail

using detail::MutexAccess;
using detail::selfId;

unsigned int currentThreadId() { return selfId(); }

void setTraceHook(TraceHook hook) { traceHook.store(hook, std::memory_order_release); }

namespace detail {

void trace(unsigned char level, const char* function, const char* format, ...) {
    TraceHook hook = traceHook.load(std::memory_order_acquire);
    if (!hook) return;
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    hook(level, function, text);
}

}  // namespace detail

// ---------------------------------------------------------------- Mutex

Mutex::Mutex(Mode mode) : mode_(mode) {}

Mutex::~Mutex() = default;

// Lock, unlock and the owner test are in MutexInline.h.
void Mutex::lock() { MutexAccess::lock(*this); }

void Mutex::lockContended() {
    // A short spin first: holders keep the lock for a few hundred cycles.
    for (int i = 0; i < 64; ++i) {
        cpuRelax();
        int expected = 0;
        if (state_.load(std::memory_order_relaxed) == 0 &&
            state_.compare_exchange_weak(expected, 1, std::memory_order_acquire))
            return;
    }
    while (state_.exchange(2, std::memory_order_acquire) != 0)
        ::syscall(SYS_futex, reinterpret_cast<int*>(&state_), FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
}

void Mutex::wakeOne() {
    ::syscall(SYS_futex, reinterpret_cast<int*>(&state_), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool Mutex::tryLock() {
    const unsigned int self = selfId();
    if (ZVLOG_UNLIKELY(owner_.load(std::memory_order_relaxed) == self)) {
        if (mode_ == NonRecursive) zvFatalSystemError(36, "zvs::zvlib::MultiThreading::Mutex::tryLock");
        ++count_;
        return true;
    }
    int expected = 0;
    if (!state_.compare_exchange_strong(expected, 1, std::memory_order_acquire)) return false;
    owner_.store(self, std::memory_order_relaxed);
    count_ = 1;
    return true;
}

void Mutex::unlock() { MutexAccess::unlock(*this); }

bool Mutex::heldByCurrentThread() const { return MutexAccess::held(*this); }

// ---------------------------------------------------------------- Event
//
// The signal is an atomic flag; the mutex and condition variable are only for
// sleepers. A sleeper counts itself in waiters_ before it looks at the flag
// (under the mutex), and set() stores the flag before it looks at waiters_:
// with both sides sequentially consistent, either the sleeper sees the flag or
// set() sees the sleeper and notifies under the mutex, so no wake-up is lost.

Event::Event(ResetMode mode, bool initiallySet) : mode_(mode) {
    signaled_.store(initiallySet, std::memory_order_relaxed);
}

Event::~Event() = default;

void Event::set() {
    // Setting a set event changes nothing: whoever set it notifies the sleepers.
    if (signaled_.load(std::memory_order_relaxed)) return;
    signaled_.store(true, std::memory_order_seq_cst);
    if (waiters_.load(std::memory_order_seq_cst) > 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (mode_ == ManualReset)
            cond_.notify_all();
        else
            cond_.notify_one();
    }
}

void Event::reset() { signaled_.store(false, std::memory_order_release); }

bool Event::tryWait() {
    if (!signaled_.load(std::memory_order_seq_cst)) return false;
    if (mode_ == ManualReset) return true;
    bool expected = true;
    return signaled_.compare_exchange_strong(expected, false, std::memory_order_acq_rel);
}

bool Event::wait(unsigned long timeoutMs, unsigned spinMicros) {
    if (tryWait()) return true;
    if (timeoutMs == 0) return false;

    using Clock = std::chrono::steady_clock;
    const bool infinite = timeoutMs == Infinite || timeoutMs > kMaxTimeoutMs;
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline =
        infinite ? Clock::time_point::max() : start + std::chrono::milliseconds(timeoutMs);

    if (spinMicros > 0) {
        Clock::time_point spinEnd = start + std::chrono::microseconds(spinMicros);
        if (deadline < spinEnd) spinEnd = deadline;
        for (unsigned i = 1;; ++i) {
            cpuRelax();
            if (tryWait()) return true;
            if ((i & 63) == 0) {
                if (Clock::now() >= spinEnd) break;
                // A thread that would set the event may be waiting for this
                // processor: a spin must not keep it off.
                sched_yield();
            }
        }
    }

    waiters_.fetch_add(1, std::memory_order_seq_cst);
    bool signaled = false;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            if (tryWait()) {
                signaled = true;
                break;
            }
            if (infinite) {
                cond_.wait(lock);
            } else if (cond_.wait_until(lock, deadline) == std::cv_status::timeout) {
                // A set() racing with the time-out still counts.
                signaled = tryWait();
                break;
            }
        }
    }
    waiters_.fetch_sub(1, std::memory_order_seq_cst);
    return signaled;
}

}  // namespace zvs::zvlib::MultiThreading
