#include "zvlog/core/Library.h"

#include <pthread.h>

#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingTime.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/core/RawDelivery.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvlog/zvlog.h"
#include "zvunicode/IcuConverterPath.h"

using zvs::zvlib::MultiThreading::Mutex;
using zvs::zvlib::MultiThreading::MutexLock;

namespace zvs::zvlib::zvlog {

std::atomic<bool> LibraryState::initialized_{false};
std::atomic<bool> LibraryState::singleThreaded_{false};
std::atomic<LibraryRunState> LibraryState::state_{LibraryRunState::Uninitialized};
std::atomic<LoggerRepository*> LibraryState::repository_{nullptr};

namespace {

std::atomic<bool> phase1Done{false};
std::atomic<bool> phase2Done{false};
std::atomic<Mutex*> phase1Lock{nullptr};
std::atomic<Mutex*> phase2Lock{nullptr};

// A lazily created process-wide lock, installed by compare-and-swap: the
// loser of a race deletes its own and uses the winner's.
Mutex& installedLock(std::atomic<Mutex*>& slot) {
    Mutex* m = slot.load(std::memory_order_acquire);
    if (m) return *m;
    Mutex* mine = new Mutex(Mutex::NonRecursive);
    if (slot.compare_exchange_strong(m, mine, std::memory_order_acq_rel)) return *mine;
    delete mine;
    return *m;
}

Logger* threadTraceLogger = nullptr;

void traceThreadLayer(unsigned char level, const char* /*function*/, const char* text) {
    Logger* logger = threadTraceLogger;
    if (!logger) return;
    ZVLOG_LOG_AT(logger, level, "zvstd/MultiThreading", "zvs::zvlib::MultiThreading::Thread", 0, "%s", text);
}

}  // namespace

void LibraryState::phase1() {
    if (phase1Done.load(std::memory_order_acquire)) return;
    MutexLock lock(installedLock(phase1Lock));
    if (phase1Done.load(std::memory_order_relaxed)) return;
    singleThreaded_.store(false, std::memory_order_relaxed);
    phase1Done.store(true, std::memory_order_release);
}

void LibraryState::phase2() {
    if (phase2Done.load(std::memory_order_acquire)) return;
    MutexLock lock(installedLock(phase2Lock));
    if (phase2Done.load(std::memory_order_relaxed)) return;
    LoggerRepository* repo = new LoggerRepository();
    repository_.store(repo, std::memory_order_release);
    initialized_.store(true, std::memory_order_release);
    state_.store(LibraryRunState::Started, std::memory_order_release);
    repo->updateEffectiveLevels();
    binary::setRawDeliveryHook(&deliverRawBlock);
    LoggingTime::initialize();
    // A child forked without exec keeps logging with threads of its own.
    ::pthread_atfork(nullptr, nullptr, [] {
        if (ThreadRecord* r = peekThreadRecord()) r->osThreadId = MultiThreading::currentThreadId();
        forgetOtherThreadsInChild();
        restartClockInChild();
        restartAsyncDeliveryInChild();
    });
    // ICU's data path changes here, at load, before any thread of the
    // program can be reading it.
    zvUseLibraryIcuConverters();
    threadTraceLogger = repo->getLogger("zvstd.multithreading");
    MultiThreading::setTraceHook(&traceThreadLayer);
    phase2Done.store(true, std::memory_order_release);
}

void LibraryState::ensureInitialized() {
    if (ZVLOG_LIKELY(phase2Done.load(std::memory_order_acquire))) return;
    phase1();
    phase2();
}

LoggerRepository* LibraryState::repository() {
    LoggerRepository* r = repository_.load(std::memory_order_acquire);
    if (ZVLOG_LIKELY(r != nullptr)) return r;
    ensureInitialized();
    return repository_.load(std::memory_order_acquire);
}

}  // namespace zvs::zvlib::zvlog

using zvs::zvlib::zvlog::LibraryState;
using zvs::zvlib::zvlog::Logger;

// The standard loggers exist from library load on. Their bytes read 255
// ("OFF") until a configuration gives the loggers a level or resets them.
unsigned char zvlog_std_utility_effective_level = 255;
unsigned char zvlog_std_utility_calltrace_effective_level = 255;
unsigned char zvlog_std_system_effective_level = 255;
unsigned char zvlog_std_system_calltrace_effective_level = 255;
unsigned char zvlog_std_application_effective_level = 255;
unsigned char zvlog_std_application_calltrace_effective_level = 255;

namespace {
Logger* standardLogger(const char* name, unsigned char* byte) {
    return LibraryState::repository()->getStandardLogger(name, byte);
}
}  // namespace

Logger* zvlog_std_utility = standardLogger("zvlog.std.utility", &zvlog_std_utility_effective_level);
Logger* zvlog_std_utility_calltrace =
    standardLogger("zvlog.std.utility.calltrace", &zvlog_std_utility_calltrace_effective_level);
Logger* zvlog_std_system = standardLogger("zvlog.std.system", &zvlog_std_system_effective_level);
Logger* zvlog_std_system_calltrace =
    standardLogger("zvlog.std.system.calltrace", &zvlog_std_system_calltrace_effective_level);
Logger* zvlog_std_application = standardLogger("zvlog.std.application", &zvlog_std_application_effective_level);
Logger* zvlog_std_application_calltrace =
    standardLogger("zvlog.std.application.calltrace", &zvlog_std_application_calltrace_effective_level);

bool zvlogInitialized() { return LibraryState::initialized(); }
bool zvlogIsSingleThreaded() { return LibraryState::singleThreaded(); }
