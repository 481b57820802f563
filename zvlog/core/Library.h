// Library start-up: the two lazy initialisation phases and the run state.
#pragma once

#include <atomic>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

class LoggerRepository;

enum class LibraryRunState : int { Uninitialized = 0, Started = 1, Stopping = 2, Stopped = 3 };

class ZVLOG_API LibraryState {
public:
    // Runs both initialisation phases once; safe against concurrent first calls.
    static void ensureInitialized();
    static LoggerRepository* repository();
    static bool initialized() { return initialized_.load(std::memory_order_acquire); }
    static bool singleThreaded() { return singleThreaded_.load(std::memory_order_relaxed); }
    static LibraryRunState state() { return state_.load(std::memory_order_acquire); }
    static void setState(LibraryRunState s) { state_.store(s, std::memory_order_release); }
    static bool running() { return state() == LibraryRunState::Started; }

private:
    static void phase1();
    static void phase2();
    static std::atomic<bool> initialized_;
    static std::atomic<bool> singleThreaded_;
    static std::atomic<LibraryRunState> state_;
    static std::atomic<LoggerRepository*> repository_;
};

// While a configuration is loaded (every logger's lock taken, appenders
// detached and attached), a logger without appenders may be about to get
// some: delivery then waits for the logger's lock instead of passing it by.
ZVLOG_API void beginReconfiguration();
ZVLOG_API void endReconfiguration();
bool reconfiguring();

// Start-up discovery, run again by every configuration reset once a program
// has called ZVLOG_Enable: the drop-in files are applied anew.
using ConfigurationDiscovery = void (*)();
void setConfigurationDiscovery(ConfigurationDiscovery discovery);

// In a child forked without exec, before it goes on: the library's threads
// are started again (the clock's, each asynchronous appender's).
void restartClockInChild();
void restartAsyncDeliveryInChild();

}  // namespace zvs::zvlib::zvlog
