// The queue of an asynchronous appender: compact copies of the queued events
// in anonymous memory that grows without copying, and the delivery thread's
// signals.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zvlog/Appender.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/buffer/BinaryFormat.h"
#include "zvlog/buffer/Block.h"

namespace zvs::zvlib::zvlog {

// Copies of events, in order, as variable-length records. An event whose
// arguments all lie in its buffer block keeps its attributes, its place in
// the block and one 32-bit word per argument (type and offset from the block
// start): 64 bytes for two arguments. Any other event is kept whole.
//
// The records live in one private anonymous mapping that grows with mremap,
// so growth moves no bytes; large mappings ask for huge pages, which fault
// in 2 MiB at a time. The memory stays with the records across batches
// (faulting fresh pages costs far more than writing the records), except
// what a past burst left far beyond the current need.
class EventRecords {
public:
    EventRecords() = default;
    ~EventRecords() { unmap(); }
    EventRecords(const EventRecords&) = delete;
    EventRecords& operator=(const EventRecords&) = delete;

    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }

    // Appends a copy of the event. Throws std::bad_alloc when the memory
    // cannot grow.
    void push(const LoggingEvent& event) {
        const unsigned n = event.argumentCount;
        if (n <= LoggingEvent::kMaxArguments) {
            const size_t bytes = (kHeadBytes + 4 * n + 7) & ~size_t{7};
            unsigned char* p = reserve(bytes);
            auto* words = reinterpret_cast<uint32_t*>(p + kHeadBytes);
            const uintptr_t base = reinterpret_cast<uintptr_t>(event.bufferBase);
            unsigned i = 0;
            for (; i < n; ++i) {
                const uintptr_t offset = reinterpret_cast<uintptr_t>(event.argumentValues[i]) - base;
                if (offset >= binary::kBlockSize) break;
                words[i] = static_cast<uint32_t>(offset) | uint32_t{event.argumentTypes[i]} << kTypeShift;
            }
            if (i == n) {
                auto* head = reinterpret_cast<Head*>(p);
                head->attributes = event.attributes;
                head->bufferBase = event.bufferBase;
                head->bufferOffset = event.bufferOffset;
                head->bufferLength = event.bufferLength;
                head->argumentCount = static_cast<uint16_t>(n);
                head->whole = 0;
                commit(bytes);
                return;
            }
        }
        unsigned char* p = reserve(kWholeBytes);
        reinterpret_cast<Head*>(p)->whole = 1;
        std::memcpy(p + kWholeOffset, &event, sizeof event);
        commit(kWholeBytes);
    }

    // Calls visit(const LoggingEvent&) with each event in order, rebuilt on
    // the stack.
    template <class Visit>
    void forEach(Visit&& visit) const {
        LoggingEvent e;
        for (const unsigned char* p = data_; p != data_ + used_;) {
            const auto* head = reinterpret_cast<const Head*>(p);
            if (head->whole) {
                std::memcpy(&e, p + kWholeOffset, sizeof e);
                p += kWholeBytes;
            } else {
                // At most kMaxArguments; the bound tells the compiler so.
                const unsigned n = std::min<unsigned>(head->argumentCount, LoggingEvent::kMaxArguments);
                const auto* words = reinterpret_cast<const uint32_t*>(p + kHeadBytes);
                const uintptr_t base = reinterpret_cast<uintptr_t>(head->bufferBase);
                for (unsigned i = 0; i < n; ++i) {
                    e.argumentTypes[i] = static_cast<unsigned char>(words[i] >> kTypeShift);
                    e.argumentValues[i] = reinterpret_cast<const void*>(base + (words[i] & kOffsetMask));
                }
                e.argumentCount = static_cast<unsigned short>(n);
                e.attributes = head->attributes;
                e.bufferBase = head->bufferBase;
                e.bufferOffset = head->bufferOffset;
                e.bufferLength = head->bufferLength;
                p += (kHeadBytes + 4 * n + 7) & ~size_t{7};
            }
            visit(static_cast<const LoggingEvent&>(e));
        }
    }

    // Forgets the records. Keeps the memory, unless less than an eighth of
    // a large mapping was used: then half of it goes back to the system.
    void clear();
    // Forgets the records and returns all memory.
    void unmap();
    void swap(EventRecords& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(used_, other.used_);
        std::swap(capacity_, other.capacity_);
        std::swap(count_, other.count_);
    }

private:
    struct Head {
        EventAttributes attributes;
        const unsigned char* bufferBase;
        uint32_t bufferOffset;
        uint32_t bufferLength;
        uint16_t argumentCount;
        uint8_t whole;  // 1: a whole LoggingEvent follows at kWholeOffset
    };
    // The argument words start in the head's tail padding.
    static constexpr size_t kHeadBytes = (offsetof(Head, whole) + 1 + 3) & ~size_t{3};
    static constexpr size_t kWholeOffset = (sizeof(Head) + 7) & ~size_t{7};
    static constexpr size_t kWholeBytes = (kWholeOffset + sizeof(LoggingEvent) + 7) & ~size_t{7};
    static constexpr unsigned kTypeShift = 24;
    static constexpr uint32_t kOffsetMask = (uint32_t{1} << kTypeShift) - 1;
    static_assert(binary::kBlockSize <= (uint32_t{1} << kTypeShift), "an offset in a block fits in 24 bits");
    static_assert(alignof(Head) <= 8 && alignof(LoggingEvent) <= 8);

    unsigned char* reserve(size_t bytes) {
        if (used_ + bytes > capacity_) [[unlikely]]
            grow(used_ + bytes);
        return data_ + used_;
    }
    void commit(size_t bytes) {
        used_ += bytes;
        ++count_;
        // The producer's next locked instruction waits for this record's
        // stores, which take a memory round trip on a line not yet cached:
        // the line a few records on is fetched now. (A prefetch past the
        // mapping's end does no harm.)
        __builtin_prefetch(data_ + used_ + 1024, 1, 3);
    }
    void grow(size_t needed);

    unsigned char* data_ = nullptr;
    size_t used_ = 0;
    size_t capacity_ = 0;
    size_t count_ = 0;
};

// The lock of a queue: producers hold it to add one event, the delivery
// thread to take the queue. Taking it free costs one exchange and leaving it
// one store, against two locked instructions for a MultiThreading::Mutex,
// whose release must look whether anybody sleeps. Here a waiter that sleeps
// says so beforehand, and a holder that misses it (its store and its look
// can pass each other) costs that waiter at most a millisecond. Not
// recursive.
class QueueLock {
public:
    void lock() {
        if (state_.exchange(1, std::memory_order_acquire) != 0) [[unlikely]]
            lockContended();
    }
    void unlock() {
        state_.store(0, std::memory_order_release);
        if (sleepers_.load(std::memory_order_relaxed) != 0) [[unlikely]]
            wakeSleeper();
    }

private:
    void lockContended();
    void wakeSleeper();
    std::atomic<uint32_t> state_{0};  // 1 while held (futex word)
    std::atomic<uint32_t> sleepers_{0};
};

// Queued events keep their buffer blocks alive. A run of events from one
// block holds one reference: the producer takes it for the first event of the
// run (lastBlock, reset whenever the delivery thread takes the queue), and the
// delivery thread drops it after the run's last event. Events without a block
// (null bufferBase) hold nothing.
struct Appender::AsyncQueue {
    // The producers' side, under lock.
    QueueLock lock;
    const unsigned char* lastBlock = nullptr;
    EventRecords incoming;
    // The delivery thread's side.
    alignas(64) EventRecords working;
    MultiThreading::Event stop{MultiThreading::Event::ManualReset};
    MultiThreading::Event wake{MultiThreading::Event::AutoReset};
    MultiThreading::Thread* thread = nullptr;
    std::chrono::steady_clock::time_point lastTake{};

    // Queues a copy of the event; the caller holds lock. True when the queue
    // was empty: only then may the delivery thread be waiting for a wake.
    bool push(const LoggingEvent& event) {
        const bool wasEmpty = incoming.empty();
        incoming.push(event);  // first: a failed push takes no reference
        if (event.bufferBase != lastBlock) {
            if (event.bufferBase) binary::retainBlock(event.bufferBase);
            lastBlock = event.bufferBase;
        }
        return wasEmpty;
    }
    // On the delivery thread: waits for events, lets more gather (see
    // kGatherTime) and makes the incoming events its batch; true when the
    // appender is switching off (this batch is the last).
    bool awaitBatch();
    // Calls append(const LoggingEvent*) for each event of the batch, drops
    // the block references and empties the batch; returns its size.
    template <class Append>
    size_t deliverBatch(Append&& append) {
        const size_t n = working.size();
        forEachReleasingRuns(working, append);
        working.clear();
        return n;
    }
    // Under lock: drops the incoming events and their block references.
    void discardIncoming() {
        forEachReleasingRuns(incoming, [](const LoggingEvent*) {});
        incoming.clear();
        lastBlock = nullptr;
    }
    // Under lock, with no delivery thread: drops the incoming events and
    // returns the memory of both sides.
    void discardAll() {
        discardIncoming();
        incoming.unmap();
        working.unmap();
    }

private:
    // Each run of events from one block drops its reference after its last
    // event was handled.
    template <class Handle>
    static void forEachReleasingRuns(const EventRecords& records, Handle&& handle) {
        const unsigned char* run = nullptr;
        records.forEach([&](const LoggingEvent& e) {
            if (e.bufferBase != run) {
                if (run) binary::releaseBlock(run);
                run = e.bufferBase;
            }
            handle(&e);
        });
        if (run) binary::releaseBlock(run);
    }
};

}  // namespace zvs::zvlib::zvlog
