#include "zvlog/Appender.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "zvlog/Logger.h"
#include "zvlog/appenders/AppenderDelivery.h"
#include "zvlog/appenders/AsyncQueue.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/Library.h"
#include "zvlog/core/RawDelivery.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvstd/MutexInline.h"

namespace zvs::zvlib::zvlog {

using MultiThreading::Mutex;
using MultiThreading::MutexLock;
using MultiThreading::Thread;

namespace {

struct Registry {
    Mutex mutex{Mutex::Recursive};
    std::vector<Appender*> appenders;  // in creation order, not owned
};

Registry& registry() {
    static Registry* r = new Registry();  // outlives every appender
    return *r;
}

}  // namespace

Appender::Appender(const char* name) : name_(name ? name : "") {
    LibraryState::ensureInitialized();
    Registry& r = registry();
    MutexLock lock(r.mutex);
    r.appenders.push_back(this);
}

Appender::~Appender() {
    // Derived appenders switch delivery off in their own destructors; this
    // is the last guard before the layout and filters go.
    setAsynchronous(false);
    delete layout_;
    layout_ = nullptr;
    clearFilters();
    {
        Registry& r = registry();
        MutexLock lock(r.mutex);
        r.appenders.erase(std::remove(r.appenders.begin(), r.appenders.end(), this), r.appenders.end());
    }
    if (AsyncQueue* q = async_.queue) {
        q->discardAll();
        delete q;
    }
}

void Appender::reset() {}
void Appender::close() { setAsynchronous(false); }
bool Appender::requiresLayout() const { return true; }
void Appender::activateOptions() {}

Appender* Appender::findAppender(const char* name) {
    Registry& r = registry();
    MutexLock lock(r.mutex);
    for (Appender* a : r.appenders)
        if (a->name_ == (name ? name : "")) return a;
    return nullptr;
}

const std::vector<Appender*>& Appender::getAllAppenders() { return registry().appenders; }

void Appender::flushOutput() {
    ThreadRecord* r = peekThreadRecord();
    if (r && insideLogging(r)) return;  // from inside an appender: the caller's event is not whole yet
    if (r && r->buffer) {
        enterLogging(r);  // what the flush delivers may not log back into this buffer
        r->buffer->flush();
        leaveLogging(r);
    }
    flushOtherThreadBuffers();
}

// Under the registry's lock: a configuration names its appenders while
// other threads may be looking them up by name.
void Appender::setName(const char* name) {
    MutexLock lock(registry().mutex);
    name_ = name ? name : "";
}

// While asynchronous, settings change under the queue's lock holder.
template <class Change>
void Appender::underLockHolder(Change&& change) {
    if (async_.on.load(std::memory_order_acquire)) {
        std::lock_guard<QueueLock> lock(async_.queue->lock);
        change();
    } else {
        change();
    }
}

void Appender::setThreshold(unsigned char level) {
    underLockHolder([&] { threshold_ = level; });
}

void Appender::setEnabled(bool enabled) {
    underLockHolder([&] { enabled_ = enabled; });
}

void Appender::setLayout(Layout* layout) {
    underLockHolder([&] {
        layout_ = layout;
        deliveryMode_ = (layout && !layout->canLayoutEvents()) ? DELIVERY_RAW : DELIVERY_DIRECT;
    });
}

void Appender::addFilter(Filter* filter) {
    if (!filter) return;
    filter->next = nullptr;
    underLockHolder([&] {
        Filter** tail = &filters_;
        while (*tail) tail = &(*tail)->next;
        *tail = filter;
    });
}

void Appender::clearFilters() {
    Filter* f = filters_;
    filters_ = nullptr;
    while (f) {
        Filter* next = f->next;
        delete f;
        f = next;
    }
}

int Appender::runFilters(const LoggingEvent* event) const {
    for (const Filter* f = filters_; f; f = f->next) {
        int decision = f->decide(event);
        if (decision != Filter::NEUTRAL) return decision;
    }
    return Filter::NEUTRAL;
}

void Appender::deliver(const LoggingEvent* event) {
    if (filters_ && runFilters(event) == Filter::DENY) {
        eventsFiltered_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (async_.on.load(std::memory_order_acquire)) {
        AsyncQueue* q = async_.queue;
        std::lock_guard<QueueLock> lock(q->lock);
        // Only the first event of a batch wakes the delivery thread: while
        // the queue holds events, their wake is pending or the thread is
        // about to take them.
        if (q->push(*event)) q->wake.set();
        return;
    }
    appendUnderLock(event);
}

void Appender::deliverRaw(const void* data, unsigned int length, unsigned int eventCount) {
    MutexLock lock(mutex_);
    append(data, length);
    countIssued(eventCount);
}

unsigned int Appender::deliveryThread(void* self) {
    auto* appender = static_cast<Appender*>(self);
    AsyncQueue* q = appender->async_.queue;
    // Appends on this thread count as being inside a logging call, as they do
    // for direct delivery: whatever an appender logs is dropped.
    ThreadRecord* record = currentThreadRecord();
    if (record) enterLogging(record);
    for (;;) {
        const bool stopping = q->awaitBatch();
        const size_t n = q->working.size();
        if (n > appender->async_.highWater) appender->async_.highWater = n;
        q->deliverBatch([appender](const LoggingEvent* e) { appender->append(e); });
        appender->countIssued(n);
        if (stopping) break;
    }
    if (record) leaveLogging(record);
    return 0;
}

void Appender::setAsynchronous(bool on) {
    if (LibraryState::singleThreaded() || on == async_.on.load(std::memory_order_acquire)) return;
    if (on) {
        if (!async_.queue) async_.queue = new AsyncQueue();
        AsyncQueue* q = async_.queue;
        {
            // What a producer racing the last switch-off queued is dropped:
            // the queue starts empty, as its wake does.
            std::lock_guard<QueueLock> lock(q->lock);
            q->discardIncoming();
        }
        q->stop.reset();
        q->wake.reset();
        q->thread = new Thread(&Appender::deliveryThread, "LogAppenderThread");
        async_.on.store(true, std::memory_order_release);
        q->thread->Start(this);
    } else {
        AsyncQueue* q = async_.queue;
        async_.on.store(false, std::memory_order_release);
        q->stop.set();
        q->wake.set();
        q->thread->WaitForExit();
        delete q->thread;
        q->thread = nullptr;
        // Events that arrived after the thread's last pass are discarded.
        std::lock_guard<QueueLock> lock(q->lock);
        q->discardAll();
    }
}

// In a child forked without exec, an asynchronous appender's delivery thread
// is gone. What it had queued are the parent's events, which the parent
// writes: the child drops them. The queue's lock and signals may have been in
// use by threads that the child does not have, so they start afresh, and so
// does the thread. The child has one thread here: no lock is needed, and none
// could be trusted.
void restartAsyncDeliveryInChild() {
    for (Appender* a : registry().appenders) {
        if (!a->async_.on.load(std::memory_order_relaxed)) continue;
        Appender::AsyncQueue* q = a->async_.queue;
        new (&q->lock) QueueLock();
        new (&q->stop) MultiThreading::Event(MultiThreading::Event::ManualReset);
        new (&q->wake) MultiThreading::Event(MultiThreading::Event::AutoReset);
        q->discardIncoming();
        q->working.clear();
        q->thread = new Thread(&Appender::deliveryThread, "LogAppenderThread");
        q->thread->Start(a);
    }
}

void Appender::appendSummary(std::string& text) {
    struct Row {
        std::string name;
        unsigned char threshold;
        bool enabled;
        unsigned long long issued;
        unsigned long long filtered;
    };
    std::vector<Row> rows;
    {
        Registry& r = registry();
        MutexLock lock(r.mutex);
        for (Appender* a : r.appenders)
            rows.push_back({a->name_, a->threshold_, a->enabled_, a->getEventsIssued(), a->getEventsFiltered()});
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.name < b.name; });
    auto heading = [&](const Row& row) {
        text += "  ";
        text += row.name;
        text += " (";
        text += getLevelName(row.threshold);
        text += ")";
        text += row.enabled ? "" : " - Disabled";
        text += "\r\n";
    };
    char line[128];
    bool first = true;
    for (const Row& row : rows) {
        if (row.issued == 0 && row.filtered == 0) continue;
        if (first) text += "\r\nActive appenders:\r\n", first = false;
        heading(row);
        snprintf(line, sizeof line, "    Events issued:   %" PRIu64 "\r\n", static_cast<uint64_t>(row.issued));
        text += line;
        snprintf(line, sizeof line, "    Events filtered: %" PRIu64 "\r\n", static_cast<uint64_t>(row.filtered));
        text += line;
        text += "\r\n";
    }
    first = true;
    for (const Row& row : rows) {
        if (row.issued != 0 || row.filtered != 0) continue;
        if (first) text += "\r\nIdle appenders:\r\n", first = false;
        heading(row);
    }
}

// A closed block goes to every enabled raw-mode appender attached to any
// logger, once each. Each logger's appenders are called under that logger's
// lock, as single events are: once removeAppender has returned, the appender
// is never called again from here, and its owner may delete it.
void deliverRawBlock(const unsigned char* stream, uint32_t length, uint32_t eventCount) {
    if (!LibraryState::initialized()) return;
    std::vector<Appender*> delivered;
    for (Logger* logger : Logger::getRepository()->getCurrentLoggers()) {
        if (!logger->isAttached()) continue;
        Mutex& m = logger->mutex();
        const bool take = !m.heldByCurrentThread();  // a configuration holds every logger's lock
        if (take) m.lock();
        for (Appender* a : logger->getAllAppenders()) {
            if (!a->isEnabled() || a->getDeliveryMode() != Appender::DELIVERY_RAW ||
                std::find(delivered.begin(), delivered.end(), a) != delivered.end())
                continue;
            delivered.push_back(a);
            a->deliverRaw(stream, length, eventCount);
        }
        if (take) m.unlock();
    }
}

}  // namespace zvs::zvlib::zvlog
