// Threads, locks, signals and the thread list of the library's platform layer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::MultiThreading {

// The calling thread's OS identifier (gettid), cached per thread.
ZVLOG_API unsigned int currentThreadId();

// The thread layer traces through the logging core without depending on it:
// the core installs this hook at start-up (logger "zvstd.multithreading").
using TraceHook = void (*)(unsigned char level, const char* function, const char* text);
ZVLOG_API void setTraceHook(TraceHook hook);

namespace detail {
struct MutexAccess;
}

// A lock with an owner. In mode NonRecursive a second lock by the holder is a
// fatal error (code 36); in mode Recursive the holder may lock again.
class ZVLOG_API Mutex {
public:
    enum Mode : int { Recursive = 0, NonRecursive = 1 };

    explicit Mutex(Mode mode = NonRecursive);
    virtual ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock();
    bool tryLock();
    void unlock();
    bool heldByCurrentThread() const;
    Mode mode() const { return mode_; }

private:
    friend struct detail::MutexAccess;  // the library's inline lock and unlock
    void lockContended();
    void wakeOne();

    // 0 free, 1 held, 2 held with sleepers (futex word).
    std::atomic<int> state_{0};
    std::atomic<unsigned int> owner_{0};
    unsigned int count_ = 0;
    Mode mode_;
};

// Scope guard for Mutex.
class MutexLock {
public:
    explicit MutexLock(Mutex& m) : m_(m) { m_.lock(); }
    ~MutexLock() { m_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_;
};

// A signal with auto- or manual-reset semantics, as the library's threads use
// them. set() costs no system call while nobody waits.
class ZVLOG_API Event {
public:
    enum ResetMode : int { AutoReset = 0, ManualReset = 1 };
    static constexpr unsigned long Infinite = ~0ul;

    explicit Event(ResetMode mode, bool initiallySet = false);
    virtual ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void set();
    void reset();
    // Waits until set or until timeoutMs passed; true when set. An auto-reset
    // event is consumed by the waiter that sees it. spinMicros lets a busy
    // consumer poll briefly before it sleeps.
    bool wait(unsigned long timeoutMs = Infinite, unsigned spinMicros = 0);
    // Tests without waiting (consumes an auto-reset event).
    bool tryWait();
    bool isSet() const { return signaled_.load(std::memory_order_acquire); }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    std::atomic<bool> signaled_{false};
    std::atomic<int> waiters_{0};
    ResetMode mode_;
};

// A library thread. Start() runs the function on a new OS thread that is
// registered in the thread list under its name while it runs.
class ZVLOG_API Thread {
public:
    using Function = unsigned int (*)(void* argument);
    // Thrown by a thread function to end its thread early; not an error.
    class TerminateException {};

    static constexpr unsigned int StateConstructed = 0xbad00102u;
    static constexpr unsigned int StateStarted = 0xbad00103u;

    Thread(Function function, const char* name, unsigned int stackSize = 0);
    // A started thread that was never waited for is joined here, not leaked.
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    void Start(void* argument);
    // Waits for the thread's end and returns its exit code (0 when not started).
    unsigned int WaitForExit();
    void SetName(const char* name);

    const std::string& GetName() const { return name_; }
    unsigned int GetState() const { return state_; }
    unsigned int GetThreadId() const { return threadId_.load(std::memory_order_acquire); }
    unsigned int GetExitCode() const { return exitCode_; }
    // The Thread object running the calling thread, or null for threads the
    // library did not start.
    static Thread* Current();

private:
    struct StartBlock;
    static void* RunThread(void* startBlock);

    Function function_;
    std::string name_;
    unsigned int state_ = StateConstructed;
    unsigned int stackSize_;
    unsigned long handle_ = ~0ul;  // pthread_t
    std::atomic<unsigned int> threadId_{0};
    unsigned int exitCode_ = 0;
};

// Makes and destroys one kind of per-thread datum.
class ZVLOG_API DataCreator {
public:
    virtual ~DataCreator();
    virtual void* create() = 0;
    virtual void destroy(void* data) = 0;
};

template <class T>
class DataCreatorImpl final : public DataCreator {
public:
    void* create() override { return new T(); }
    void destroy(void* data) override { delete static_cast<T*>(data); }
};

// One slot of thread-local storage. Each thread gets its own instance from the
// creator on first get(); the instance is destroyed when the thread ends,
// whether or not the library started the thread.
class ZVLOG_API ThreadLocal {
public:
    explicit ThreadLocal(DataCreator* creator);  // takes ownership
    ~ThreadLocal();
    ThreadLocal(const ThreadLocal&) = delete;
    ThreadLocal& operator=(const ThreadLocal&) = delete;

    void* get();         // creates on first use
    void* peek() const;  // null when this thread has none yet

private:
    static void destroyInstance(void* record);
    DataCreator* creator_;
    unsigned int key_;
};

// The process-wide list of threads the library started, keyed by OS id.
class ZVLOG_API ThreadList {
public:
    // The registered name of a running library thread; false if absent.
    static bool getName(unsigned int threadId, std::string& name);
    static size_t size();
};

}  // namespace zvs::zvlib::MultiThreading
