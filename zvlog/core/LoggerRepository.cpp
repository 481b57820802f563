#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <set>
#include <unordered_map>

#include "zvlog/Appender.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingTime.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/core/Library.h"
#include "zvlog/msg/RaiseMessage.h"

namespace zvs::zvlib::zvlog {

using MultiThreading::Mutex;
using MultiThreading::MutexLock;

namespace {

constexpr size_t kIndexChunk = 256;
constexpr size_t kParentNameLimit = 127;

std::atomic<ConfigurationDiscovery> configurationDiscovery{nullptr};

// A name whose parent part was too long, noted under the repository's lock
// and reported after it.
thread_local const char* pendingOverlongName = nullptr;

void reportOverlongName() {
    const char* name = pendingOverlongName;
    if (!name) return;
    pendingOverlongName = nullptr;
    detail::raiseMessage(1112, {"zvlog.std", "zvlog/zvlog", "zvs::zvlib::zvlog::LoggerName::LoggerName", 762},
                         {name});
}

// "  <name> (<level>)\r\n", for names of any length.
void appendNameLine(std::string& text, const std::string& name, const char* level) {
    text += "  ";
    text += name;
    text += " (";
    text += level;
    text += ")\r\n";
}

}  // namespace

struct LoggerRepository::Impl {
    std::set<std::string> interned;
    std::unordered_map<const char*, Logger*> byPointer;
    std::vector<Logger*> loggers;  // in creation order
    Mutex indexMutex{Mutex::NonRecursive};
    // Index to interned name, readable without a lock: chunks of 256 slots
    // allocated under the index mutex and never freed.
    std::atomic<std::atomic<const char*>*> indexChunks[65536 / kIndexChunk] = {};
    Mutex configMutex{Mutex::NonRecursive};
    std::vector<ConfigurationCallback> callbacks;
    std::atomic<bool> configSignal{false};

    const char* intern(const std::string& s) { return interned.insert(s).first->c_str(); }

    void setIndexName(unsigned short index, const char* name) {
        MutexLock lock(indexMutex);
        auto& slot = indexChunks[index / kIndexChunk];
        std::atomic<const char*>* chunk = slot.load(std::memory_order_acquire);
        if (!chunk) {
            chunk = new std::atomic<const char*>[kIndexChunk];
            for (size_t i = 0; i < kIndexChunk; ++i) chunk[i].store(nullptr, std::memory_order_relaxed);
            slot.store(chunk, std::memory_order_release);
        }
        chunk[index % kIndexChunk].store(name, std::memory_order_release);
    }
};

void setConfigurationDiscovery(ConfigurationDiscovery discovery) {
    configurationDiscovery.store(discovery, std::memory_order_release);
}

LoggerRepository::LoggerRepository() : impl_(new Impl()) {
    MutexLock lock(mutex_);
    bool created = false;
    root_ = getLoggerLocked("", nullptr, &created);
    root_->level_ = LEVEL_WARN;
    root_->setEffectiveLevel(LEVEL_WARN);
    setThreadName("main");
}

LoggerRepository::~LoggerRepository() = default;  // lives until the process ends

Logger* LoggerRepository::getLogger(const char* name, unsigned char* externalByte) {
    Logger* logger;
    {
        MutexLock lock(mutex_);
        bool created = false;
        logger = getLoggerLocked(name ? name : "", externalByte, &created);
    }
    reportOverlongName();
    return logger;
}

Logger* LoggerRepository::getStandardLogger(const char* name, unsigned char* externalByte) {
    MutexLock lock(mutex_);
    bool created = false;
    Logger* logger = getLoggerLocked(name, externalByte, &created);
    if (created) {
        logger->level_ = LEVEL_OFF;
        updateEffectiveLevelsLocked();
    }
    return logger;  // standard names are short: nothing to report
}

Logger* LoggerRepository::getLoggerLocked(const char* name, unsigned char* externalByte, bool* created) {
    // Call sites that pass a constant string pay one lookup; a pointer that
    // now holds another text (a reused buffer) falls through to the name.
    auto hit = impl_->byPointer.find(name);
    if (hit != impl_->byPointer.end() && std::strcmp(hit->second->name_, name) == 0) return hit->second;

    const char* interned = impl_->intern(name);
    auto found = impl_->byPointer.find(interned);
    if (found != impl_->byPointer.end()) {
        impl_->byPointer[name] = found->second;
        return found->second;
    }

    Logger* parent = nullptr;
    const char* parentName = "";
    const char* dot = std::strrchr(interned, '.');
    if (dot) {
        size_t parentLength = static_cast<size_t>(dot - interned);
        if (parentLength >= kParentNameLimit) {
            // Reported once the repository's lock is released: raising a
            // message may itself need loggers.
            pendingOverlongName = interned;
        } else {
            parentName = impl_->intern(std::string(interned, parentLength));
            bool parentCreated = false;
            parent = getLoggerLocked(parentName, nullptr, &parentCreated);
        }
    }
    if (!parent && *interned) parent = root_;

    unsigned short index = 0;
    if (*interned) index = static_cast<unsigned short>(loggerCounter_.fetch_add(1, std::memory_order_relaxed) + 1);
    Logger* logger = new Logger(interned, parentName, index, externalByte);
    logger->parent_ = parent;
    impl_->byPointer[interned] = logger;
    impl_->loggers.push_back(logger);
    impl_->setIndexName(index, interned);
    updateEffectiveLevelsLocked();
    impl_->byPointer[name] = logger;
    if (index == 0) root_ = logger;
    *created = true;
    return logger;
}

Logger* LoggerRepository::exists(const char* name) {
    MutexLock lock(mutex_);
    auto it = impl_->interned.find(name ? name : "");
    if (it == impl_->interned.end()) return nullptr;
    auto found = impl_->byPointer.find(it->c_str());
    return found == impl_->byPointer.end() ? nullptr : found->second;
}

const char* LoggerRepository::getLoggerName(unsigned short index) {
    std::atomic<const char*>* chunk = impl_->indexChunks[index / kIndexChunk].load(std::memory_order_acquire);
    return chunk ? chunk[index % kIndexChunk].load(std::memory_order_acquire) : nullptr;
}

std::vector<Logger*> LoggerRepository::getCurrentLoggers() {
    MutexLock lock(mutex_);
    return impl_->loggers;
}

void LoggerRepository::setThreshold(unsigned char level) {
    MutexLock lock(mutex_);
    threshold_ = level;
    updateEffectiveLevelsLocked();
}

void LoggerRepository::updateEffectiveLevels() {
    MutexLock lock(mutex_);
    updateEffectiveLevelsLocked();
}

void LoggerRepository::updateEffectiveLevelsLocked() {
    if (!LibraryState::initialized()) return;  // until then each logger keeps its own byte
    for (Logger* logger : impl_->loggers) {
        const Logger* from = logger;
        while (from->level_ == LEVEL_INHERIT && from->parent_) from = from->parent_;
        logger->setEffectiveLevel(std::max(from->level_, threshold_));
    }
}

void LoggerRepository::addConfiguration(ConfigurationCallback callback) {
    MutexLock lock(impl_->configMutex);
    if (std::find(impl_->callbacks.begin(), impl_->callbacks.end(), callback) == impl_->callbacks.end())
        impl_->callbacks.push_back(callback);
    impl_->configSignal.store(true, std::memory_order_release);
}

void LoggerRepository::clearConfiguration(ConfigurationCallback callback) {
    MutexLock lock(impl_->configMutex);
    auto it = std::find(impl_->callbacks.begin(), impl_->callbacks.end(), callback);
    if (it != impl_->callbacks.end()) impl_->callbacks.erase(it);
    impl_->configSignal.store(true, std::memory_order_release);
}

bool LoggerRepository::testAndClearConfigurationSignal() {
    return impl_->configSignal.exchange(false, std::memory_order_acq_rel);
}

// Detaches every appender from every logger (each under its logger's lock,
// never together with the repository's), then closes each appender once.
void LoggerRepository::closeAllAppendersLocked() {
    std::vector<Logger*> loggers;
    {
        MutexLock lock(mutex_);
        loggers = impl_->loggers;
    }
    std::vector<Appender*> detached;
    for (Logger* logger : loggers) {
        for (Appender* a : logger->getAllAppenders())
            if (std::find(detached.begin(), detached.end(), a) == detached.end()) detached.push_back(a);
        logger->removeAllAppenders();
    }
    for (Appender* a : detached) a->close();
}

void LoggerRepository::resetConfiguration() {
    closeAllAppendersLocked();
    {
        MutexLock lock(mutex_);
        for (Logger* logger : impl_->loggers) {
            logger->level_ = logger == root_ ? LEVEL_WARN : LEVEL_INHERIT;
            logger->setEffectiveLevel(logger->level_);
            updateEffectiveLevelsLocked();
            logger->additivity_.store(true, std::memory_order_relaxed);
        }
    }
    if (ConfigurationDiscovery discovery = configurationDiscovery.load(std::memory_order_acquire)) discovery();
    MutexLock lock(impl_->configMutex);
    for (ConfigurationCallback callback : impl_->callbacks) callback(this);
    impl_->configSignal.store(false, std::memory_order_release);
}

void LoggerRepository::replaceAppender(Appender* oldAppender, Appender* newAppender) {
    std::vector<Logger*> loggers = getCurrentLoggers();
    for (Logger* logger : loggers) {
        MultiThreading::Mutex& m = logger->mutex_;
        bool taken = !m.heldByCurrentThread();
        if (taken) m.lock();
        for (Appender*& a : logger->appenders_)
            if (a == oldAppender) a = newAppender;
        if (taken) m.unlock();
    }
}

void LoggerRepository::shutdown() {
    {
        MutexLock lock(mutex_);
        for (Logger* logger : impl_->loggers) {
            logger->level_ = LEVEL_OFF;
            logger->setEffectiveLevel(LEVEL_OFF);
        }
        updateEffectiveLevelsLocked();
    }
    if (LibraryState::running()) {
        if (!LibraryState::singleThreaded()) {
            LibraryState::setState(LibraryRunState::Stopping);
            LoggingTime::stopTimeThread();
        }
        LibraryState::setState(LibraryRunState::Stopped);
    }
    closeAllAppendersLocked();
}

unsigned long long LoggerRepository::totalEvents() { return binary::totalEvents(); }
unsigned long long LoggerRepository::totalBytes() { return binary::totalBytes(); }

void LoggerRepository::getSummaryReport(std::string& text) {
    struct Row {
        std::string name;
        unsigned char level;
        unsigned long long logged;
        unsigned long long issued;
    };
    std::vector<Row> rows;
    unsigned long long events;
    unsigned long long bytes;
    {
        MutexLock lock(mutex_);
        rows.reserve(impl_->loggers.size());
        for (Logger* l : impl_->loggers)
            rows.push_back({*l->name_ ? l->name_ : "root", l->effectiveLevel_, l->getEventsLogged(), l->getEventsIssued()});
        events = totalEvents();
        bytes = totalBytes();
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.name < b.name; });

    char line[512];
    bool first = true;
    for (const Row& r : rows) {
        if (r.logged == 0 && r.issued == 0) continue;
        if (first) text += "\r\nActive loggers:\r\n", first = false;
        appendNameLine(text, r.name, getLevelName(r.level));
        snprintf(line, sizeof line, "    Events logged: %" PRIu64 "\r\n", static_cast<uint64_t>(r.logged));
        text += line;
        snprintf(line, sizeof line, "    Events issued: %" PRIu64 "\r\n", static_cast<uint64_t>(r.issued));
        text += line;
        text += "\r\n";
    }
    snprintf(line, sizeof line, "Total events:  %" PRIu64 "\r\n", static_cast<uint64_t>(events));
    text += line;
    snprintf(line, sizeof line, "Total bytes:   %" PRIu64 "\r\n", static_cast<uint64_t>(bytes));
    text += line;
    first = true;
    for (const Row& r : rows) {
        if (r.logged != 0 || r.issued != 0) continue;
        if (first) text += "\r\nIdle loggers:\r\n", first = false;
        appendNameLine(text, r.name, getLevelName(r.level));
    }
    Appender::appendSummary(text);
}

}  // namespace zvs::zvlib::zvlog
