// The synchronous delivery of one event, inline on the logger's path: an
// appender without filters appends under its lock at once. Anything else
// (filters, a delivery thread) goes through Appender::deliver.
#pragma once

#include "zvlog/Appender.h"
#include "zvstd/MutexInline.h"

namespace zvs::zvlib::zvlog {

[[gnu::always_inline]] inline void Appender::deliverInline(const LoggingEvent* event) {
    if (ZVLOG_UNLIKELY(filters_ != nullptr || async_.on.load(std::memory_order_acquire))) {
        deliver(event);
        return;
    }
    appendUnderLock(event);
}

[[gnu::always_inline]] inline void Appender::appendUnderLock(const LoggingEvent* event) {
    MultiThreading::detail::InlineMutexLock lock(mutex_);
    append(event);
    countIssued(1);
}

// The issued count has one writer at a time (the holder of the appender's
// lock, or its delivery thread), so it needs no locked instruction.
[[gnu::always_inline]] inline void Appender::countIssued(unsigned long long n) {
    eventsIssued_.store(eventsIssued_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

}  // namespace zvs::zvlib::zvlog
