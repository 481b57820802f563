#include "zvlog/Logger.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "zvlog/Appender.h"
#include "zvlog/appenders/AppenderDelivery.h"
#include "zvlog/core/Library.h"
#include "zvstd/MutexInline.h"

namespace zvs::zvlib::zvlog {

using MultiThreading::MutexLock;

namespace {

// Locks a logger's mutex unless the calling thread already holds it (the
// configuration holds every logger's lock while it rebuilds them).
class LoggerLock {
public:
    explicit LoggerLock(MultiThreading::Mutex& m) : m_(m), taken_(!m.heldByCurrentThread()) {
        if (taken_) m_.lock();
    }
    ~LoggerLock() {
        if (taken_) m_.unlock();
    }

private:
    MultiThreading::Mutex& m_;
    bool taken_;
};

}  // namespace

Logger::Logger(const char* name, const char* parentName, unsigned short index, unsigned char* externalByte)
    : index_(index), externalLevel_(externalByte), name_(name), parentName_(parentName) {
    static_assert(alignof(Logger) == 64);
    static_assert(std::atomic<unsigned char>::is_always_lock_free && sizeof effectiveLevel_ == 1);
    if (externalByte) effectiveLevel_.store(detail::loadLevelByte(*externalByte), std::memory_order_relaxed);
}

Logger::~Logger() = default;

LoggerRepository* Logger::getRepository() { return LibraryState::repository(); }

void Logger::setEffectiveLevel(unsigned char value) {
    // Call sites on other threads load these bytes without a lock.
    effectiveLevel_.store(value, std::memory_order_relaxed);
    if (externalLevel_) std::atomic_ref<unsigned char>(*externalLevel_).store(value, std::memory_order_relaxed);
}

Logger* Logger::getChild(const char* suffix) const {
    std::string full;
    if (*name_) {
        full = name_;
        full += '.';
    }
    full += suffix ? suffix : "";
    return getRepository()->getLogger(full.c_str());
}

void Logger::setLevel(unsigned char level) {
    LoggerRepository* repo = getRepository();
    MutexLock lock(repo->mutex());
    level_ = level;
    setEffectiveLevel(level);
    repo->updateEffectiveLevelsLocked();
}

void Logger::setAdditivity(bool additive) { additivity_.store(additive, std::memory_order_relaxed); }

void Logger::addAppender(Appender& appender) {
    LoggerLock lock(mutex_);
    appenders_.push_back(&appender);
    appenderCount_.store(static_cast<unsigned int>(appenders_.size()), std::memory_order_release);
}

Appender* Logger::getAppender(const char* name) {
    LoggerLock lock(mutex_);
    for (Appender* a : appenders_)
        if (std::strcmp(a->getName(), name ? name : "") == 0) return a;
    return nullptr;
}

bool Logger::isAttached() const { return appenderCount_.load(std::memory_order_acquire) != 0; }

bool Logger::isAttached(Appender& appender) const {
    LoggerLock lock(const_cast<MultiThreading::Mutex&>(mutex_));
    return std::find(appenders_.begin(), appenders_.end(), &appender) != appenders_.end();
}

bool Logger::removeAppender(Appender& appender) {
    LoggerLock lock(mutex_);
    auto end = std::remove(appenders_.begin(), appenders_.end(), &appender);
    bool removed = end != appenders_.end();
    appenders_.erase(end, appenders_.end());
    appenderCount_.store(static_cast<unsigned int>(appenders_.size()), std::memory_order_release);
    return removed;
}

bool Logger::removeAppender(const char* name) {
    LoggerLock lock(mutex_);
    const char* n = name ? name : "";
    auto end = std::remove_if(appenders_.begin(), appenders_.end(),
                              [n](Appender* a) { return std::strcmp(a->getName(), n) == 0; });
    bool removed = end != appenders_.end();
    appenders_.erase(end, appenders_.end());
    appenderCount_.store(static_cast<unsigned int>(appenders_.size()), std::memory_order_release);
    return removed;
}

void Logger::removeAllAppenders() {
    LoggerLock lock(mutex_);
    appenders_.clear();
    appenderCount_.store(0, std::memory_order_release);
}

std::vector<Appender*> Logger::getAllAppenders() const {
    LoggerLock lock(const_cast<MultiThreading::Mutex&>(mutex_));
    return appenders_;
}

// Walks the ancestry: each logger's appenders under that logger's lock
// alone, until additivity stops the walk or the root is passed. A logger
// without appenders is passed without taking its lock.
namespace {
std::atomic<unsigned int> reconfigurations{0};
}  // namespace

// Taken before any logger's appenders change, so that a logging thread that
// reads the count those changes stored (acquire) also sees this.
void beginReconfiguration() { reconfigurations.fetch_add(1, std::memory_order_seq_cst); }
void endReconfiguration() { reconfigurations.fetch_sub(1, std::memory_order_release); }
bool reconfiguring() { return reconfigurations.load(std::memory_order_acquire) != 0; }

void Logger::doAppend(const LoggingEvent* event) {
    const unsigned char level = event->attributes.level;
    bool counted = false;
    Logger* current = this;
    for (;;) {
        // A logger without appenders is passed by, unless a configuration
        // is being loaded: then the lock is waited for and the appenders the
        // load leaves are used, so that no event falls between two
        // configurations.
        if (current->appenderCount_.load(std::memory_order_acquire) != 0 || ZVLOG_UNLIKELY(reconfiguring())) {
            MultiThreading::detail::InlineMutexLock lock(current->mutex_);
            for (Appender* a : current->appenders_) {
                if (a->isEnabled() && level >= a->getThreshold() &&
                    a->getDeliveryMode() == Appender::DELIVERY_DIRECT)
                    a->deliverInline(event);
                current->eventsIssued_.store(current->eventsIssued_.load(std::memory_order_relaxed) + 1,
                                             std::memory_order_relaxed);
            }
            if (current == this) {
                eventsLoggedLocked_.store(eventsLoggedLocked_.load(std::memory_order_relaxed) + 1,
                                          std::memory_order_relaxed);
                counted = true;
            }
        }
        if (!current->additivity_.load(std::memory_order_relaxed) || !current->parent_) break;
        current = current->parent_;
    }
    if (!counted) eventsLogged_.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace zvs::zvlib::zvlog
