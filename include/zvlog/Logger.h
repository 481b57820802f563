// Loggers named by dotted names, and the repository that owns them.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "zvlog/Export.h"
#include "zvlog/Level.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/MultiThreading.h"

namespace zvs::zvlib::zvlog {

class Appender;
class LogBuffer;
class LoggerRepository;

namespace detail {
// An exported effective-level byte (zvlog_std_..._effective_level) as a call
// site tests it: one relaxed byte load, since the configuring thread may be
// writing it.
inline unsigned char loadLevelByte(unsigned char& byte) {
    return std::atomic_ref<unsigned char>(byte).load(std::memory_order_relaxed);
}
}  // namespace detail

class ZVLOG_API Logger {
public:
    // The inline level test of every call site: one byte load, one compare.
    // The byte changes while other threads test it; a relaxed atomic load is
    // the same single load, and a call site may see a new level a moment late.
    bool isEnabledFor(unsigned char level) const { return level >= effectiveLevel_.load(std::memory_order_relaxed); }
    unsigned char getEffectiveLevel() const { return effectiveLevel_.load(std::memory_order_relaxed); }

    Logger* getChild(const char* suffix) const;
    const char* getName() const { return name_; }
    Logger* getParent() const { return parent_; }
    unsigned short getIndex() const { return index_; }

    unsigned char getLevel() const { return level_; }
    void setLevel(unsigned char level);
    bool getAdditivity() const { return additivity_.load(std::memory_order_relaxed); }
    void setAdditivity(bool additive);

    // Attaching the same appender twice makes it receive events twice.
    void addAppender(Appender& appender);
    Appender* getAppender(const char* name);
    bool isAttached() const;
    bool isAttached(Appender& appender) const;
    bool removeAppender(Appender& appender);
    bool removeAppender(const char* name);
    void removeAllAppenders();
    std::vector<Appender*> getAllAppenders() const;

    unsigned long long getEventsLogged() const {
        return eventsLogged_.load(std::memory_order_relaxed) + eventsLoggedLocked_.load(std::memory_order_relaxed);
    }
    unsigned long long getEventsIssued() const { return eventsIssued_.load(std::memory_order_relaxed); }

    static LoggerRepository* getRepository();

    // The per-thread guard around a logging call: while one is alive on a
    // thread, logging calls on that thread are dropped. It saves errno on entry
    // and restores it on exit.
    class ZVLOG_API LoggingRecursionCheck {
    public:
        LoggingRecursionCheck();
        ~LoggingRecursionCheck();
        LoggingRecursionCheck(const LoggingRecursionCheck&) = delete;
        LoggingRecursionCheck& operator=(const LoggingRecursionCheck&) = delete;
        // The thread's event buffer, or null when the thread was already logging.
        LogBuffer* getBuffer() const { return buffer_; }

    private:
        LogBuffer* buffer_;
        int savedErrno_;
    };

    // Delivers an event up the ancestry (used by the logging entry points).
    void doAppend(const LoggingEvent* event);
    MultiThreading::Mutex& mutex() { return mutex_; }

private:
    friend class LoggerRepository;
    Logger(const char* name, const char* parentName, unsigned short index, unsigned char* externalByte);
    ~Logger();
    void setEffectiveLevel(unsigned char value);

    // Read by every call site and every delivery: kept apart from what
    // delivering threads write, so that a busy logger does not slow the
    // inline tests of other threads.
    alignas(64) std::atomic<unsigned char> effectiveLevel_{LEVEL_OFF};  // mirrored into the external byte
    unsigned char level_ = LEVEL_INHERIT;
    // Read by delivering threads while a configuration may change it.
    std::atomic<bool> additivity_{true};
    unsigned short index_;
    std::atomic<unsigned int> appenderCount_{0};
    unsigned char* externalLevel_;  // a standard logger's exported byte, or null
    Logger* parent_ = nullptr;
    const char* name_;
    const char* parentName_;
    std::vector<Appender*> appenders_;
    // Written per event. The lock word has a line of its own: a thread that
    // waits for it reads it over and over, and would take the line away from
    // the holder's counters each time.
    alignas(64) MultiThreading::Mutex mutex_{MultiThreading::Mutex::NonRecursive};
    // Written under the logger's lock, read by reports without it.
    alignas(64) std::atomic<unsigned long long> eventsIssued_{0};
    // Events logged at this logger while its mutex was held for delivery:
    // one writer at a time, so no locked instruction.
    std::atomic<unsigned long long> eventsLoggedLocked_{0};
    // The others (the logger had no appender of its own).
    alignas(64) std::atomic<unsigned long long> eventsLogged_{0};
};

class ZVLOG_API LoggerRepository {
public:
    using ConfigurationCallback = void (*)(LoggerRepository*);

    Logger* getRootLogger() const { return root_; }
    // Public lookup by name (creating the logger and its ancestors).
    Logger* getLogger(const char* name) { return getLogger(name, nullptr); }
    // The same; a new logger keeps its effective level in *externalByte.
    Logger* getLogger(const char* name, unsigned char* externalByte);
    Logger* exists(const char* name);
    // A standard logger: kept at "OFF" in *externalByte until configured.
    Logger* getStandardLogger(const char* name, unsigned char* externalByte);
    // The interned name of the logger with that index, or null.
    const char* getLoggerName(unsigned short index);
    std::vector<Logger*> getCurrentLoggers();

    void setThreshold(unsigned char level);
    unsigned char getThreshold() const { return threshold_; }
    void updateEffectiveLevels();

    void addConfiguration(ConfigurationCallback callback);
    void clearConfiguration(ConfigurationCallback callback);
    // Closes and detaches every appender, resets levels and runs the
    // registered configuration callbacks.
    void resetConfiguration();
    // Replaces one appender by another on every logger that holds it.
    void replaceAppender(Appender* oldAppender, Appender* newAppender);
    // Whether the configuration callbacks changed since the last reset (and clears it).
    bool testAndClearConfigurationSignal();

    static void setThreadName(const char* name);
    static const char* getThreadName();
    static void threadComplete();

    void shutdown();
    void getSummaryReport(std::string& text);

    // Process-wide totals of closed event-buffer blocks.
    static unsigned long long totalEvents();
    static unsigned long long totalBytes();

    MultiThreading::Mutex& mutex() { return mutex_; }

private:
    friend class LibraryState;
    friend class Logger;
    LoggerRepository();
    ~LoggerRepository();
    Logger* getLoggerLocked(const char* name, unsigned char* externalByte, bool* created);
    void updateEffectiveLevelsLocked();
    void closeAllAppendersLocked();

    struct Impl;
    MultiThreading::Mutex mutex_{MultiThreading::Mutex::NonRecursive};
    Impl* impl_;
    Logger* root_ = nullptr;
    std::atomic<unsigned int> loggerCounter_{0};
    unsigned char threshold_ = LEVEL_ALL;
};

}  // namespace zvs::zvlib::zvlog
