// The process-wide table of call-site location records and the event
// attributes' constructors. The logging call itself lives with the event
// buffer (LogBufferImpl.cpp), so that its event is encoded inline.
#include "zvlog/Log.h"
#include "zvlog/SparseArray.h"
#include "zvlog/core/CallSites.h"
#include "zvlog/core/FormatPlan.h"
#include "zvlog/core/ThreadRecord.h"

namespace zvs::zvlib::zvlog {

using MultiThreading::Mutex;
using MultiThreading::MutexLock;

namespace detail {
std::atomic<unsigned int> sequenceCounter{0};
}  // namespace detail

using detail::sequenceCounter;

namespace {

struct LocationTable {
    Mutex mutex{Mutex::NonRecursive};
    SparseArray<uint64_t, unsigned int> modules;  // module pointer -> index
    SparseArray<unsigned int, const LocationRecord*> records;  // key -> record
    unsigned int moduleCounter = 0;

    // A module pointer seen for the first time gets the next index.
    unsigned int moduleIndex(const char* module) {
        bool created = false;
        auto* node = modules.insert(reinterpret_cast<uint64_t>(module), &created);
        if (created) node->value = ++moduleCounter;
        return node->value;
    }
};

LocationTable& locations() {
    static LocationTable* table = new LocationTable();  // lives as long as the records
    return *table;
}

inline unsigned int makeKey(unsigned int moduleIndex, unsigned short line) { return (moduleIndex << 16) + line; }

}  // namespace

EventAttributes::EventAttributes(const char* const& format, const char* const& module, const char* const& method,
                                 unsigned short line, unsigned short argumentCount, unsigned short loggerIdx,
                                 unsigned char lvl)
    : loggerIndex(loggerIdx), level(lvl) {
    LocationTable& t = locations();
    {
        MutexLock lock(t.mutex);
        locationKey = makeKey(t.moduleIndex(module), line);
        bool created = false;
        auto* node = t.records.insert(locationKey, &created);
        if (created)
            node->value =
                new LocationRecord{format, module, method, line, argumentCount, format ? makeFormatPlan(format) : nullptr};
        location = node->value;
    }
    LoggingTime::getCurrentTime(&time);
    sequence = sequenceCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    ThreadRecord* r = currentThreadRecord();
    threadNumber = r ? r->number : 0;
}

EventAttributes::EventAttributes(const LocationRecord* record, unsigned int key, unsigned short loggerIdx,
                                 unsigned char lvl)
    : location(record), loggerIndex(loggerIdx), level(lvl), locationKey(key) {
    LoggingTime::getCurrentTime(&time);
    sequence = sequenceCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    ThreadRecord* r = currentThreadRecord();
    threadNumber = r ? r->number : 0;
}

namespace detail {

// Two sites on one line of one file would share a key; the later one gets a
// module index of its own so that a key always names exactly one record.
unsigned int registerCallSite(CallSite& site, const char* format, unsigned short count) {
    LocationTable& t = locations();
    MutexLock lock(t.mutex);
    unsigned int key = site.key.load(std::memory_order_relaxed);
    if (key) return key;
    site.record.format = format;
    site.record.argumentCount = count;
    if (format) site.record.plan = makeFormatPlan(format);
    key = makeKey(t.moduleIndex(site.record.module), site.record.line);
    bool created = false;
    auto* node = t.records.insert(key, &created);
    if (!created && node->value != &site.record) {
        key = makeKey(++t.moduleCounter, site.record.line);
        node = t.records.insert(key, &created);
    }
    node->value = &site.record;
    site.key.store(key, std::memory_order_release);
    return key;
}

}  // namespace detail
}  // namespace zvs::zvlib::zvlog
