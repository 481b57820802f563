// Thread and the process-wide thread list.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "zvlog/MultiThreading.h"
#include "zvlog/SparseArray.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/Fatal.h"
#include "zvstd/MultiThreadingInternal.h"

namespace zvs::zvlib::MultiThreading {

static_assert(sizeof(unsigned long) == sizeof(pthread_t), "the handle field holds a pthread_t");

namespace {

using detail::kTraceDebug;
using detail::trace;
using zvlog::detail::MessageSource;
using zvlog::detail::raiseMessage;

constexpr const char* kComponent = "zvstd.multithreading";
constexpr const char* kSourceFile = "zvstd/MultiThreading";
constexpr const char* kStartFunction = "zvs::zvlib::MultiThreading::Thread::Start";
constexpr const char* kRunFunction = "zvs::zvlib::MultiThreading::Thread::RunThread";
constexpr const char* kWaitFunction = "zvs::zvlib::MultiThreading::Thread::WaitForExit";
constexpr const char* kSetNameFunction = "zvs::zvlib::MultiThreading::Thread::SetName";
constexpr unsigned long kNoHandle = ~0ul;

// Names this long or longer are cut so that the registered name stays below it.
constexpr size_t kMaxNameLength = 255;
constexpr size_t kCutNameLength = 251;

thread_local Thread* currentThread __attribute__((tls_model("initial-exec"))) = nullptr;
// Set when a library thread destroys its own Thread object: RunThread must
// not touch the object afterwards.
thread_local bool ownThreadObjectDestroyed __attribute__((tls_model("initial-exec"))) = false;

void issueWarning(int rc) {
    trace(detail::kTraceWarn, "zvs::zvlib::MultiThreading::Thread::IssueWarning",
          "WARNING: Unexpected error encountered, rc %d", rc);
}

void issueError(int rc) {
    trace(detail::kTraceError, "zvs::zvlib::MultiThreading::Thread::IssueError",
          "ERROR: Unexpected error encountered, rc %d", rc);
}

const void* functionAddress(Thread::Function function) {
    return reinterpret_cast<const void*>(function);
}

// ------------------------------------------------------------ thread list

struct ThreadProperties {
    std::string name;
    Thread* thread;
};

struct ThreadListState {
    Mutex mutex{Mutex::NonRecursive};
    SparseArray<uint64_t, ThreadProperties*> threads;
    long unnamedCounter = 0;  // numbers threads started without a name
};

// Never destroyed: library threads may still leave the list while the
// process runs its static destructors.
ThreadListState& threadList() {
    static ThreadListState* state = new ThreadListState();
    return *state;
}

void registerThread(unsigned int threadId, const std::string& givenName, Thread* thread) {
    ThreadListState& list = threadList();
    MutexLock lock(list.mutex);
    std::string name;
    if (givenName.empty()) {
        char buffer[40];
        snprintf(buffer, sizeof buffer, "QMR-Thread-%ld", list.unnamedCounter++);
        name = buffer;
    } else if (givenName.size() >= kMaxNameLength) {
        name.assign(givenName, 0, kCutNameLength);
        name += "...";
    } else {
        name = givenName;
    }
    auto* node = list.threads.insert(threadId);
    delete node->value;  // an entry left by an earlier thread with the same id
    node->value = new ThreadProperties{std::move(name), thread};
}

void unregisterThread(unsigned int threadId) {
    ThreadListState& list = threadList();
    ThreadProperties* properties = nullptr;
    {
        MutexLock lock(list.mutex);
        list.threads.remove(threadId, &properties);
    }
    delete properties;
}

}  // namespace

bool ThreadList::getName(unsigned int threadId, std::string& name) {
    ThreadListState& list = threadList();
    MutexLock lock(list.mutex);
    auto* node = list.threads.find(threadId);
    if (!node) return false;
    name = node->value->name;
    return true;
}

size_t ThreadList::size() {
    ThreadListState& list = threadList();
    MutexLock lock(list.mutex);
    return list.threads.size();
}

// ------------------------------------------------------------ Thread

// Shared by the starting and the started thread; the last one to let go of
// it frees it.
struct Thread::StartBlock {
    Thread* thread;
    Function function;
    std::string name;
    void* argument;
    std::atomic<int> registered{0};
    std::atomic<int> references{2};

    void release() {
        if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
};

Thread::Thread(Function function, const char* name, unsigned int stackSize)
    : function_(function), name_(name ? name : ""), stackSize_(stackSize) {}

// A started thread that nobody waited for is joined here rather than left to
// run on an object that no longer exists. A thread that destroys its own
// Thread object is detached instead.
Thread::~Thread() {
    if (state_ != StateStarted) return;
    if (currentThread == this) {
        ownThreadObjectDestroyed = true;
        currentThread = nullptr;
        pthread_detach(pthread_self());
    } else if (handle_ != kNoHandle) {
        int rc = pthread_join(static_cast<pthread_t>(handle_), nullptr);
        if (rc != 0) issueError(rc);
    }
}

void Thread::Start(void* argument) {
    if (state_ != StateConstructed) {
        trace(kTraceDebug, kStartFunction, "Thread already started");
        raiseMessage(1112, MessageSource{kComponent, kSourceFile, kStartFunction, __LINE__});
        return;
    }
    trace(kTraceDebug, kStartFunction, "Starting thread for function %p", functionAddress(function_));

    auto* block = new StartBlock{this, function_, name_, argument};

    pthread_attr_t attributes;
    int rc = pthread_attr_init(&attributes);
    if (rc != 0) zvFatalSystemError(static_cast<unsigned int>(rc), kStartFunction);
    if (stackSize_ != 0) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_t size = std::max<size_t>(stackSize_, static_cast<size_t>(PTHREAD_STACK_MIN));
        size = (size + page - 1) / page * page;
        rc = pthread_attr_setstacksize(&attributes, size);
        if (rc != 0) issueWarning(rc);  // runs with the default stack instead
    }

    // Started before the thread exists, so the thread function sees it.
    state_ = StateStarted;
    pthread_t handle;
    rc = pthread_create(&handle, &attributes, &Thread::RunThread, block);
    pthread_attr_destroy(&attributes);
    if (rc != 0) {
        delete block;
        zvFatalSystemError(static_cast<unsigned int>(rc), kStartFunction);
    }
    handle_ = static_cast<unsigned long>(handle);

    // Once Start returns, the thread's id is known and it is in the thread
    // list; this is also what numbers unnamed threads in start order.
    while (block->registered.load(std::memory_order_acquire) == 0) block->registered.wait(0);
    block->release();

    trace(kTraceDebug, kStartFunction, "Thread started with id %d", static_cast<int>(GetThreadId()));
}

void* Thread::RunThread(void* startBlock) {
    auto* block = static_cast<StartBlock*>(startBlock);
    Thread* self = block->thread;
    currentThread = self;

    const unsigned int threadId = currentThreadId();
    self->threadId_.store(threadId, std::memory_order_release);
    registerThread(threadId, block->name, self);

    const Function function = block->function;
    void* const argument = block->argument;
    block->registered.store(1, std::memory_order_release);
    block->registered.notify_all();
    block->release();

    unsigned int exitCode = 0;
    try {
        exitCode = function(argument);
    } catch (const TerminateException&) {
        trace(kTraceDebug, kRunFunction, "Thread with id %d is exiting due to TerminateException",
              static_cast<int>(threadId));
        exitCode = 0;
    }

    // Instances go while the thread still has its name: their destructors may log.
    detail::destroyThreadLocals();
    unregisterThread(threadId);
    if (!ownThreadObjectDestroyed) self->exitCode_ = exitCode;
    currentThread = nullptr;
    ownThreadObjectDestroyed = false;
    return reinterpret_cast<void*>(static_cast<uintptr_t>(exitCode));
}

unsigned int Thread::WaitForExit() {
    if (state_ != StateStarted) {
        trace(kTraceDebug, kWaitFunction, "Thread not started yet");
        raiseMessage(1112, MessageSource{kComponent, kSourceFile, kWaitFunction, __LINE__});
        return 0;
    }
    const int threadId = static_cast<int>(GetThreadId());
    trace(kTraceDebug, kWaitFunction, "Waiting for thread with id %d", threadId);
    if (handle_ != kNoHandle) {
        void* result = nullptr;
        int rc = pthread_join(static_cast<pthread_t>(handle_), &result);
        if (rc != 0) {
            issueError(rc);
        } else {
            handle_ = kNoHandle;  // joined: a second wait only reports
            exitCode_ = static_cast<unsigned int>(reinterpret_cast<uintptr_t>(result));
        }
    }
    trace(kTraceDebug, kWaitFunction, "Thread with id %d exited with code %u", threadId, exitCode_);
    return exitCode_;
}

// The registered name of a running thread stays the one it started with.
void Thread::SetName(const char* name) {
    trace(kTraceDebug, kSetNameFunction, "Setting Name for Thread Function[%p] to [%s]",
          functionAddress(function_), name ? name : "");
    name_ = name ? name : "";
}

Thread* Thread::Current() { return currentThread; }

}  // namespace zvs::zvlib::MultiThreading
