// The base of every output destination: name, threshold, filters, layout,
// statistics, and optional delivery on a thread of its own.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "zvlog/Export.h"
#include "zvlog/Filter.h"
#include "zvlog/Layout.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/MultiThreading.h"

namespace zvs::zvlib::zvlog {

void restartAsyncDeliveryInChild();

class ZVLOG_API Appender {
public:
    enum DeliveryMode : unsigned int { DELIVERY_DIRECT = 0, DELIVERY_RAW = 1 };

    explicit Appender(const char* name);
    virtual ~Appender();
    Appender(const Appender&) = delete;
    Appender& operator=(const Appender&) = delete;

    virtual void reset();
    virtual void close();
    virtual bool requiresLayout() const;
    virtual void append(const void* data, unsigned int length) = 0;
    virtual void append(const LoggingEvent* event) = 0;
    virtual void activateOptions();

    static Appender* findAppender(const char* name);
    static const std::vector<Appender*>& getAllAppenders();
    // Delivers the pending events of every thread's event buffer now: the
    // blocks that hold events go to the raw appenders and the dump.
    static void flushOutput();

    const char* getName() const { return name_.c_str(); }
    void setName(const char* name);
    unsigned char getThreshold() const { return threshold_; }
    void setThreshold(unsigned char level);
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled);
    Layout* getLayout() const { return layout_; }
    // Does not destroy the layout it replaces; picks raw delivery for a layout
    // that cannot lay out single events.
    void setLayout(Layout* layout);
    unsigned int getDeliveryMode() const { return deliveryMode_; }

    void addFilter(Filter* filter);  // takes ownership
    void clearFilters();
    Filter* getFilter() const { return filters_; }

    void setAsynchronous(bool on);
    bool isAsynchronous() const { return async_.on.load(std::memory_order_acquire); }

    unsigned long long getEventsIssued() const { return eventsIssued_.load(std::memory_order_relaxed); }
    unsigned long long getEventsFiltered() const { return eventsFiltered_.load(std::memory_order_relaxed); }
    unsigned long long getHighWaterMark() const { return async_.highWater; }

    // Delivery of one event that passed the logger's checks.
    void deliver(const LoggingEvent* event);
    // Delivery of a closed event-buffer block holding eventCount events.
    void deliverRaw(const void* data, unsigned int length, unsigned int eventCount);

    // The appender section of the summary report.
    static void appendSummary(std::string& text);

protected:
    MultiThreading::Mutex& mutex() { return mutex_; }

private:
    friend void restartAsyncDeliveryInChild();
    friend class Logger;
    // deliver(), with the usual case (no filter, synchronous) inline for the
    // logger's own path; defined in the library.
    inline void deliverInline(const LoggingEvent* event);
    // The synchronous append: under the appender's lock, counted.
    inline void appendUnderLock(const LoggingEvent* event);
    struct AsyncQueue;
    struct AsyncState {
        std::atomic<bool> on{false};
        // Lock holder, signals, queues and thread; kept until the appender
        // goes, so that a producer racing a switch-off never sees it freed.
        AsyncQueue* queue = nullptr;
        alignas(64) unsigned long long highWater = 0;
    };
    static unsigned int deliveryThread(void* self);
    template <class Change>
    void underLockHolder(Change&& change);
    int runFilters(const LoggingEvent* event) const;
    inline void countIssued(unsigned long long n);

    // Read by every delivery.
    AsyncState async_;
    Filter* filters_ = nullptr;
    Layout* layout_ = nullptr;
    std::string name_;
    unsigned char threshold_ = 1;
    bool enabled_ = true;
    unsigned int deliveryMode_ = DELIVERY_DIRECT;
    // Written per event, by the logging threads or the delivery thread.
    alignas(64) MultiThreading::Mutex mutex_{MultiThreading::Mutex::NonRecursive};
    alignas(64) std::atomic<unsigned long long> eventsIssued_{0};
    std::atomic<unsigned long long> eventsFiltered_{0};
};

}  // namespace zvs::zvlib::zvlog
