// The queue of an asynchronous appender: copies of events in chunks that
// are recycled, so that a growing backlog never moves the events already
// queued and a warm queue allocates nothing.
#pragma once

#include <cstddef>

#include "zvlog/LoggingEvent.h"

namespace zvs::zvlib::zvlog {

class EventQueue {
public:
    static constexpr size_t kChunkEvents = 256;
    // Free chunks kept for reuse; the rest of a flood's chunks are released.
    static constexpr size_t kSpareChunks = 64;

    struct Chunk {
        LoggingEvent events[kChunkEvents];
        size_t count = 0;
        Chunk* next = nullptr;
    };

    EventQueue() = default;
    ~EventQueue() {
        freeList(head_);
        freeList(spare_);
    }
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    void push(const LoggingEvent& event) {
        if (!tail_ || tail_->count == kChunkEvents) addChunk();
        tail_->events[tail_->count++] = event;
        ++size_;
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    // Visits the events in order.
    template <class F>
    void forEach(F&& f) const {
        for (const Chunk* c = head_; c; c = c->next)
            for (size_t i = 0; i < c->count; ++i) f(c->events[i]);
    }

    // Moves every queued event to `to` (which must be empty), keeping this
    // queue's spare chunks.
    void moveTo(EventQueue& to) {
        to.head_ = head_;
        to.tail_ = tail_;
        to.size_ = size_;
        head_ = tail_ = nullptr;
        size_ = 0;
    }

    // Empties the queue; its chunks go to `spares` for reuse.
    void clearInto(EventQueue& spares) {
        while (head_) {
            Chunk* c = head_;
            head_ = c->next;
            c->count = 0;
            if (spares.spareCount_ < kSpareChunks) {
                c->next = spares.spare_;
                spares.spare_ = c;
                ++spares.spareCount_;
            } else {
                delete c;
            }
        }
        tail_ = nullptr;
        size_ = 0;
    }

private:
    void addChunk() {
        Chunk* c = spare_;
        if (c) {
            spare_ = c->next;
            --spareCount_;
            c->next = nullptr;
        } else {
            c = new Chunk();
        }
        if (tail_)
            tail_->next = c;
        else
            head_ = c;
        tail_ = c;
    }

    static void freeList(Chunk* c) {
        while (c) {
            Chunk* next = c->next;
            delete c;
            c = next;
        }
    }

    Chunk* head_ = nullptr;
    Chunk* tail_ = nullptr;
    size_t size_ = 0;
    Chunk* spare_ = nullptr;
    size_t spareCount_ = 0;
};

}  // namespace zvs::zvlib::zvlog
