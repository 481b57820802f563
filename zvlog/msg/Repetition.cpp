// Duplicate suppression: the message issued last is held, equal ones that
// follow are only counted, and the "MessageRepititionThread" summarises the
// count now and then.
//
// The thread is stopped when the process exits (or the library is unloaded):
// a handler registered with atexit when the thread starts sets the stop
// event and waits for the thread's last report. A thread that calls exit
// while it holds the repetition lock (a held message's "End" or fatal action)
// cannot wait for that report, which needs the lock; the process then ends
// without it.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "zvlog/ErrorContext.h"
#include "zvlog/SourceContext.h"
#include "zvlog/msg/MessageInternals.h"

namespace zvs::zvlib::zvlog::msg {

namespace {

using MultiThreading::MutexLock;
using MultiThreading::Thread;

// The number of the held message, for issueMessage's level-name record,
// which must not wait for the repetition lock (its caller may hold it).
std::atomic<bool> haveHeld{false};
std::atomic<unsigned int> heldNumber{0};

std::atomic<CMessageFactory::Impl*> threadFactory{nullptr};
std::mutex stopMutex;

const char* loadLevelName(Repetition& r) {
    return std::atomic_ref<const char*>(r.heldLevelName).load(std::memory_order_acquire);
}

void hold(Repetition& r, CMessage* message) {
    r.held = message;
    r.count = 0;
    heldNumber.store(message->GetMessageID(), std::memory_order_release);
    haveHeld.store(true, std::memory_order_release);
}

// A successful test of the stop event sets it again in mode 1, so that it
// stays set for every one who tests it.
bool stopRequested(Repetition& r) {
    if (!r.stop.tryWait()) return false;
    if (r.stopMode == 1) r.stop.set();
    return true;
}

unsigned int repetitionThread(void* argument) {
    CMessageFactory::Impl& factory = *static_cast<CMessageFactory::Impl*>(argument);
    Repetition& r = factory.repetition;
    for (;;) {
        // A new held message restarts the cycle: 30 s, 2 min, then every 10.
        auto intervalMs = [&r](int i) { return r.intervalsMs[i].load(std::memory_order_relaxed); };
        unsigned long interval = intervalMs(0);
        while (!r.wake.wait(interval)) {
            {
                MutexLock lock(r.lock);
                emitRepetitionReport(factory);
            }
            interval = interval <= intervalMs(0) ? intervalMs(1) : intervalMs(2);
        }
        if (stopRequested(r)) break;
    }
    if (r.stopMode == 1) r.stop.set();
    MutexLock lock(r.lock);
    emitRepetitionReport(factory);
    return 0;
}

void stopAtExit() {
    if (CMessageFactory::Impl* factory = threadFactory.load(std::memory_order_acquire)) stopRepetition(*factory);
}

void startThread(CMessageFactory::Impl& factory) {
    Repetition& r = factory.repetition;
    if (r.thread || r.stop.isSet()) return;
    threadFactory.store(&factory, std::memory_order_release);
    static std::once_flag exitHook;
    std::call_once(exitHook, [] { atexit(&stopAtExit); });
    r.thread = new Thread(&repetitionThread, "MessageRepititionThread");
    r.thread->Start(&factory);
}

// Unlocks on every way out, an exception of "ThrowException" included.
class Unlock {
public:
    explicit Unlock(MultiThreading::Mutex& m) : m_(m) {}
    ~Unlock() { m_.unlock(); }

private:
    MultiThreading::Mutex& m_;
};

}  // namespace

bool processWithRepetition(CMessageFactory::Impl& factory, CMessage* message) {
    Repetition& r = factory.repetition;
    // An action of the message being issued raised another one on this
    // thread: that one is issued directly.
    if (r.lock.heldByCurrentThread()) return false;
    if (!r.lock.tryLock()) return false;
    Unlock unlock(r.lock);
    if (r.held && *message == *r.held) {
        ++r.count;
        delete message;
        return true;
    }
    if (r.held) {
        emitRepetitionReport(factory);
        delete r.held;
        hold(r, message);
        r.wake.set();
    } else {
        hold(r, message);
        startThread(factory);
    }
    message->Issue(kAllActions);
    return true;
}

void emitRepetitionReport(CMessageFactory::Impl& factory) {
    Repetition& r = factory.repetition;
    const unsigned int count = r.count;
    if (count == 0) return;
    r.count = 0;
    const CMessage* held = r.held;
    if (!held || (held->GetReportMask() & factory.reportType.load()) == 0) return;
    CMessageFactory* maker = held->GetFactory();
    if (!maker) return;

    // As the typed constructors do: the last system error goes into the
    // thread's error context first.
    const int savedErrno = errno;
    CErrorContext::GetContext().SetItem(ErrOSErrorCode, CDataItem(static_cast<unsigned int>(savedErrno)));
    errno = savedErrno;

    char code[10];
    held->GetMessageCode(code);
    const char* levelName = loadLevelName(r);
    const char* const firstArgument = levelName ? levelName : "";
    std::unique_ptr<CMessage> report(CMessageFactory::ProcessMessage(
        maker->CreateMessage(
            new CSourceContext("zvmsg", "zvlog/zvmsg", "CMessageFactoryImpl::RepetitionReport", 750), 1971,
            firstArgument, static_cast<const char*>(code), count),
        CMessageFactory::ReturnMessage));
    if (report) report->Issue(kAllActions);
    errno = savedErrno;
}

void stopRepetition(CMessageFactory::Impl& factory) {
    Repetition& r = factory.repetition;
    std::lock_guard<std::mutex> guard(stopMutex);
    r.stopMode = 1;
    r.stop.set();
    r.wake.set();
    Thread* thread = r.thread;
    if (!thread) return;
    // Its last report needs the lock this thread holds, or it is this thread.
    if (r.lock.heldByCurrentThread() || Thread::Current() == thread) return;
    thread->WaitForExit();
    r.thread = nullptr;
    delete thread;
    // The exit hook must not reach a factory that may be gone by then.
    CMessageFactory::Impl* expected = &factory;
    threadFactory.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel);
}

void recordLevelName(unsigned int number, const char* levelName) {
    if (!haveHeld.load(std::memory_order_acquire) || heldNumber.load(std::memory_order_acquire) != number) return;
    CMessageFactory* factory = CMessageFactory::PeekDefaultFactory();
    if (!factory || !factory->impl()) return;
    std::atomic_ref<const char*>(factory->impl()->repetition.heldLevelName)
        .store(levelName, std::memory_order_release);
}

}  // namespace zvs::zvlib::zvlog::msg
