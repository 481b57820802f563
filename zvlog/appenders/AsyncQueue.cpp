#include "zvlog/appenders/AsyncQueue.h"

#include <sched.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <mutex>
#include <new>
#include <thread>

namespace zvs::zvlib::zvlog {

namespace {

constexpr size_t kFirstMapping = size_t{64} << 10;
// From this size on the mapping asks for huge pages: its fresh part then
// spans whole aligned 2 MiB pages.
constexpr size_t kHugePagesFrom = size_t{4} << 20;
// Mappings up to this size are kept whatever their use.
constexpr size_t kAlwaysKept = size_t{32} << 20;

// How long the delivery thread polls for more events before it sleeps: a
// busy producer then rarely pays for waking it.
constexpr unsigned kSpinMicros = 50;

// The delivery thread takes the queue at most this often. Taken after every
// event or two, the queue's lock, its wake and its records would move
// between two processors for each event, which costs a producer as much
// again as queuing it; a batch gathered over this time pays that once.
constexpr std::chrono::microseconds kGatherTime{20};

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#else
    std::this_thread::yield();
#endif
}

}  // namespace

void QueueLock::lockContended() {
    // Holders keep the lock for a few dozen instructions, unless they grow
    // the queue's memory or lose their processor.
    for (int i = 0; i < 256; ++i) {
        cpuRelax();
        if (state_.load(std::memory_order_relaxed) == 0 && state_.exchange(1, std::memory_order_acquire) == 0) return;
    }
    for (;;) {
        sleepers_.fetch_add(1, std::memory_order_seq_cst);
        // unlock() stores, then reads sleepers_ without a fence, so a holder
        // leaving just now may miss this sleeper: the wait has a time limit.
        const timespec limit{0, 1000000};
        ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&state_), FUTEX_WAIT_PRIVATE, 1u, &limit, nullptr, 0);
        sleepers_.fetch_sub(1, std::memory_order_relaxed);
        if (state_.exchange(1, std::memory_order_acquire) == 0) return;
    }
}

void QueueLock::wakeSleeper() {
    ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&state_), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool Appender::AsyncQueue::awaitBatch() {
    using Clock = std::chrono::steady_clock;
    wake.wait(MultiThreading::Event::Infinite, kSpinMicros);
    // Events are queued; producers add to them without waking anyone.
    const Clock::time_point gathered = lastTake + kGatherTime;
    for (unsigned i = 0; !stop.isSet(); ++i) {
        if (i % 16 == 0) {
            if (Clock::now() >= gathered) break;
            // The producers may be waiting for this processor (one core, or
            // more threads than cores): gathering must not keep them off it.
            sched_yield();
        }
        cpuRelax();
    }
    std::lock_guard<QueueLock> hold(lock);
    incoming.swap(working);
    lastBlock = nullptr;
    lastTake = Clock::now();
    return stop.isSet();
}

void EventRecords::grow(size_t needed) {
    size_t capacity = capacity_ ? capacity_ : kFirstMapping;
    while (capacity < needed) capacity *= 2;
    void* p = data_ ? ::mremap(data_, capacity_, capacity, MREMAP_MAYMOVE)
                    : ::mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    if (capacity >= kHugePagesFrom) ::madvise(p, capacity, MADV_HUGEPAGE);
    data_ = static_cast<unsigned char*>(p);
    capacity_ = capacity;
}

void EventRecords::clear() {
    if (capacity_ > kAlwaysKept && used_ < capacity_ / 8) {
        const size_t capacity = capacity_ / 2;
        if (::mremap(data_, capacity_, capacity, 0) != MAP_FAILED) capacity_ = capacity;
    }
    used_ = 0;
    count_ = 0;
}

void EventRecords::unmap() {
    if (data_) ::munmap(data_, capacity_);
    data_ = nullptr;
    used_ = capacity_ = count_ = 0;
}

}  // namespace zvs::zvlib::zvlog
