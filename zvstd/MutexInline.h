// Mutex's lock, unlock and owner test, inline, for the library's own paths
// that take a lock for every event. Mutex's exported functions are made of
// the same pieces; this header is not installed.
#pragma once

#include "zvlog/MultiThreading.h"
#include "zvstd/Fatal.h"

namespace zvs::zvlib::MultiThreading::detail {

// The caller's id lives in static TLS: every lock and unlock asks for it.
extern constinit thread_local unsigned int tlsThreadId __attribute__((tls_model("initial-exec")));
// Asks the system for the caller's id and keeps it.
[[gnu::noinline]] unsigned int fetchThreadId();

[[gnu::always_inline]] inline unsigned int selfId() {
    const unsigned int id = tlsThreadId;
    return ZVLOG_LIKELY(id != 0) ? id : fetchThreadId();
}

// The lock is a futex word: taking a free lock is one compare-and-swap,
// releasing it one exchange, and only contention reaches the kernel.
//
// The owner word is only ever set to the caller's own id by the caller, so a
// relaxed read that finds the caller's id is exact: nobody else can have put
// it there.
struct MutexAccess {
    [[gnu::always_inline]] static void lock(Mutex& m) {
        const unsigned int self = selfId();
        if (ZVLOG_UNLIKELY(m.owner_.load(std::memory_order_relaxed) == self)) {
            if (m.mode_ == Mutex::NonRecursive) zvFatalSystemError(36, "zvs::zvlib::MultiThreading::Mutex::lock");
            ++m.count_;
            return;
        }
        int expected = 0;
        if (ZVLOG_UNLIKELY(!m.state_.compare_exchange_strong(expected, 1, std::memory_order_acquire)))
            m.lockContended();
        m.owner_.store(self, std::memory_order_relaxed);
        m.count_ = 1;
    }

    // Only the holder may unlock; the count is the holder's own.
    [[gnu::always_inline]] static void unlock(Mutex& m) {
        if (--m.count_ == 0) {
            m.owner_.store(0, std::memory_order_relaxed);
            if (ZVLOG_UNLIKELY(m.state_.exchange(0, std::memory_order_release) == 2)) m.wakeOne();
        }
    }

    [[gnu::always_inline]] static bool held(const Mutex& m) {
        return m.owner_.load(std::memory_order_relaxed) == selfId();
    }

    // Locks m unless the calling thread holds it already; true when it did.
    [[gnu::always_inline]] static bool lockUnlessHeld(Mutex& m) {
        if (held(m)) return false;
        lock(m);
        return true;
    }
};

// MutexLock with the lock and unlock inline.
class InlineMutexLock {
public:
    [[gnu::always_inline]] explicit InlineMutexLock(Mutex& m) : m_(m) { MutexAccess::lock(m_); }
    [[gnu::always_inline]] ~InlineMutexLock() { MutexAccess::unlock(m_); }
    InlineMutexLock(const InlineMutexLock&) = delete;
    InlineMutexLock& operator=(const InlineMutexLock&) = delete;

private:
    Mutex& m_;
};

// Holds the mutex unless the calling thread holds it already.
class InlineMutexHold {
public:
    [[gnu::always_inline]] explicit InlineMutexHold(Mutex& m) : m_(m), took_(MutexAccess::lockUnlessHeld(m)) {}
    [[gnu::always_inline]] ~InlineMutexHold() {
        if (took_) MutexAccess::unlock(m_);
    }
    InlineMutexHold(const InlineMutexHold&) = delete;
    InlineMutexHold& operator=(const InlineMutexHold&) = delete;

private:
    Mutex& m_;
    bool took_;
};

}  // namespace zvs::zvlib::MultiThreading::detail
