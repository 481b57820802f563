// The thread layer: Mutex, Event, Thread, the thread list, thread-local data,
// the fatal system-error path and the SparseArray behind the thread list.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zvlog/MultiThreading.h"
#include "zvlog/SparseArray.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/Fatal.h"

using namespace zvs::zvlib::MultiThreading;
using zvs::zvlib::SparseArray;
using zvs::zvlib::zvSetExitFunction;
using zvs::zvlib::zvFatalSystemError;
using zvs::zvlib::zvlog::detail::raisedMessageCount;
using Clock = std::chrono::steady_clock;

namespace {

unsigned int osThreadId() { return static_cast<unsigned int>(syscall(SYS_gettid)); }

long long millisSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Polls until the condition holds or two seconds passed.
template <class F>
bool eventually(F condition) {
    const auto start = Clock::now();
    while (!condition()) {
        if (millisSince(start) > 2000) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

const std::string kClass = "zvs::zvlib::MultiThreading::Thread::";

// The thread layer's traces as "level function: text" lines.
std::mutex traceMutex;
std::vector<std::string> traces;

void collectTrace(unsigned char level, const char* function, const char* text) {
    std::lock_guard<std::mutex> lock(traceMutex);
    traces.push_back(std::to_string(level) + " " + function + ": " + text);
}

class TraceCapture {
public:
    TraceCapture() {
        std::lock_guard<std::mutex> lock(traceMutex);
        traces.clear();
        setTraceHook(&collectTrace);
    }
    ~TraceCapture() { setTraceHook(nullptr); }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(traceMutex);
        return traces;
    }
    // How often the debug-level line of Thread::method with this text was traced.
    long count(const char* method, const std::string& text) {
        const std::vector<std::string> all = lines();
        return std::count(all.begin(), all.end(), "143 " + kClass + method + ": " + text);
    }
};

std::string pointerText(const void* p) {
    char buffer[32];
    snprintf(buffer, sizeof buffer, "%p", p);
    return buffer;
}

const void* address(Thread::Function f) { return reinterpret_cast<const void*>(f); }

}  // namespace

// ------------------------------------------------------------ identifiers

TEST(MultiThreadingCurrentThreadIdTest, IsTheOsIdOfEachThreadAndOfAForkedChild) {
    EXPECT_EQ(currentThreadId(), osThreadId());
    unsigned int other = 0, otherOs = 1;
    std::thread t([&] {
        other = currentThreadId();
        otherOs = osThreadId();
    });
    t.join();
    EXPECT_EQ(other, otherOs);
    EXPECT_NE(other, currentThreadId());

    // The parent's cached id must not leak into the child.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(currentThreadId() == osThreadId() ? 0 : 3);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ------------------------------------------------------------ fatal paths

namespace {

struct Probe {
    Event go{Event::ManualReset};
    std::atomic<int> runs{0};
    unsigned int seenId = 0;
    Thread* seenCurrent = nullptr;
    std::string seenName;
    bool named = false;
    unsigned int exitCode = 0;
};

unsigned int probeFunction(void* argument) {
    auto* p = static_cast<Probe*>(argument);
    p->runs++;
    p->seenId = currentThreadId();
    p->seenCurrent = Thread::Current();
    p->named = ThreadList::getName(p->seenId, p->seenName);
    p->go.wait(5000);
    return p->exitCode;
}

}  // namespace

// Each scenario runs in a fresh process: what it prints on standard error and
// the status it ends with.
TEST(MultiThreadingFatalSystemErrorTest, EachScenarioPrintsItsTextAndEndsWithItsStatus) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        void (*run)();
        int status;
        const char* err;  // a regular expression
    } scenarios[] = {
        {[] {
             atexit([] { fputs("exit handlers ran\n", stderr); });
             zvFatalSystemError(9, "test::plain");
         },
         1, "Fatal system error 9 in test::plain\nexit handlers ran\n"},
        {[] {
             zvSetExitFunction([](int status) { _exit(40 + status); });
             zvFatalSystemError(5, "test::withExitFunction");
         },
         41, "Fatal system error 5 in test::withExitFunction\n"},
        // A second fatal error during the first ends at once.
        {[] {
             zvSetExitFunction([](int) { zvFatalSystemError(7, "test::inner"); });
             atexit([] { fputs("exit handlers ran\n", stderr); });
             zvFatalSystemError(6, "test::outer");
         },
         1, "^Fatal system error 6 in test::outer\nFatal system error 7 in test::inner\n$"},
        // The holder of a non-recursive mutex entering it again.
        {[] {
             Mutex m(Mutex::NonRecursive);
             m.lock();
             m.lock();
         },
         1, "Fatal system error 36 in zvs::zvlib::MultiThreading::Mutex::lock\n"},
        {[] {
             Mutex m;  // non-recursive by default
             MutexLock hold(m);
             m.tryLock();
         },
         1, "Fatal system error 36 in zvs::zvlib::MultiThreading::Mutex::tryLock\n"},
        // Unnamed threads are numbered from 0 in start order, per process.
        {[] {
             Probe first, second;
             Thread one(&probeFunction, nullptr), two(&probeFunction, "");
             one.Start(&first);
             two.Start(&second);
             first.go.set();
             second.go.set();
             one.WaitForExit();
             two.WaitForExit();
             fprintf(stderr, "names: [%s] [%s]\n", first.seenName.c_str(), second.seenName.c_str());
             exit(0);
         },
         0, "names: \\[QMR-Thread-0\\] \\[QMR-Thread-1\\]\n"},
    };
    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(scenario.err);
        EXPECT_EXIT(scenario.run(), testing::ExitedWithCode(scenario.status), scenario.err);
    }
}

// ------------------------------------------------------------ Mutex

TEST(MultiThreadingMutexTest, RecursiveHolderMayReenterAndReleasesOnLastUnlock) {
    Mutex m(Mutex::Recursive);
    auto otherThreadGetsIt = [&] {
        bool got = false;
        std::thread t([&] {
            got = m.tryLock();
            if (got) {
                EXPECT_TRUE(m.heldByCurrentThread());
                m.unlock();
            }
        });
        t.join();
        return got;
    };
    m.lock();
    m.lock();
    EXPECT_TRUE(m.tryLock());
    EXPECT_TRUE(m.heldByCurrentThread());
    EXPECT_FALSE(otherThreadGetsIt());
    m.unlock();
    m.unlock();
    EXPECT_FALSE(otherThreadGetsIt());
    m.unlock();
    EXPECT_FALSE(m.heldByCurrentThread());
    EXPECT_TRUE(otherThreadGetsIt());
    EXPECT_TRUE(m.tryLock());  // free again after the other thread's unlock
    m.unlock();
}

TEST(MultiThreadingMutexTest, ExcludesOtherThreadsUnderContention) {
    for (Mutex::Mode mode : {Mutex::NonRecursive, Mutex::Recursive}) {
        Mutex m(mode);
        long counter = 0;
        std::atomic<int> inside{0};
        std::atomic<int> overlaps{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 50000; ++i) {
                    MutexLock lock(m);
                    if (inside.fetch_add(1) != 0) overlaps++;
                    ++counter;
                    inside.fetch_sub(1);
                }
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(counter, 200000) << "mode " << mode;
        EXPECT_EQ(overlaps.load(), 0) << "mode " << mode;
        EXPECT_FALSE(m.heldByCurrentThread());
    }
}

// ------------------------------------------------------------ Event

TEST(MultiThreadingEventTest, AutoResetIsConsumedOnceManualResetStaysSet) {
    Event autoReset(Event::AutoReset);
    EXPECT_FALSE(autoReset.tryWait());
    for (int i = 0; i < 1000; ++i) autoReset.set();  // nobody waits: the sets merge
    EXPECT_TRUE(autoReset.wait(Event::Infinite));
    EXPECT_FALSE(autoReset.isSet());
    EXPECT_FALSE(autoReset.wait(0));

    Event manual(Event::ManualReset);
    manual.set();
    EXPECT_TRUE(manual.wait(0));
    EXPECT_TRUE(manual.wait(10, 100));
    EXPECT_TRUE(manual.tryWait());
    manual.reset();
    EXPECT_FALSE(manual.tryWait());

    Event initiallyAuto(Event::AutoReset, true), initiallyManual(Event::ManualReset, true);
    EXPECT_TRUE(initiallyAuto.tryWait());
    EXPECT_FALSE(initiallyAuto.tryWait());
    EXPECT_TRUE(initiallyManual.tryWait());
    EXPECT_TRUE(initiallyManual.tryWait());
}

TEST(MultiThreadingEventTest, TimesOutWithFalseAfterTheTimeout) {
    for (unsigned spin : {0u, 200000u}) {  // a spin longer than the timeout stops at it
        Event e(Event::AutoReset);
        const auto start = Clock::now();
        EXPECT_FALSE(e.wait(60, spin));
        const long long elapsed = millisSince(start);
        EXPECT_GE(elapsed, 60) << "spin " << spin;
        EXPECT_LT(elapsed, 1500) << "spin " << spin;
    }
}

// Three waiters with a timeout far beyond the two seconds `eventually` allows:
// each release is the work of a set.
TEST(MultiThreadingEventTest, ASetReleasesOneWaiterOfAnAutoResetEventAndEveryWaiterOfAManualOne) {
    for (Event::ResetMode mode : {Event::AutoReset, Event::ManualReset}) {
        SCOPED_TRACE(mode == Event::AutoReset ? "auto reset" : "manual reset");
        Event e(mode);
        std::atomic<int> released{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] {
                if (e.wait(10000)) released++;
            });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(released.load(), 0);
        const int perSet = mode == Event::AutoReset ? 1 : 3;
        for (int expected = perSet; expected <= 3; expected += perSet) {
            e.set();
            EXPECT_TRUE(eventually([&] { return released.load() >= expected; }));
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            EXPECT_EQ(released.load(), expected);
        }
        for (auto& t : waiters) t.join();
        EXPECT_EQ(e.isSet(), mode == Event::ManualReset) << "a released waiter consumes an auto-reset event";
    }
}

TEST(MultiThreadingEventTest, PingPongLosesNoWakeUps) {
    // A lost wake-up would show as a wait that only ends at its timeout.
    auto promptWait = [](Event& e, unsigned spin) {
        const auto start = Clock::now();
        return e.wait(2000, spin) && millisSince(start) < 1000;
    };
    for (unsigned spin : {0u, 20u}) {
        Event ping(Event::AutoReset), pong(Event::AutoReset);
        const int rounds = 10000;
        std::atomic<int> missed{0};
        std::thread partner([&] {
            for (int i = 0; i < rounds && missed.load() == 0; ++i) {
                if (!promptWait(ping, spin)) missed++;
                pong.set();
            }
        });
        for (int i = 0; i < rounds && missed.load() == 0; ++i) {
            ping.set();
            if (!promptWait(pong, spin)) missed++;
        }
        partner.join();
        EXPECT_EQ(missed.load(), 0) << "spin " << spin;
        EXPECT_FALSE(ping.isSet());
        EXPECT_FALSE(pong.isSet());
    }
}

// ------------------------------------------------------------ Thread

namespace {

unsigned int terminatingFunction(void*) { throw Thread::TerminateException(); }

std::string runAndGetName(const char* name) {
    Probe probe;
    probe.go.set();
    Thread t(&probeFunction, name);
    t.Start(&probe);
    t.WaitForExit();
    return probe.named ? probe.seenName : "<not registered>";
}

}  // namespace

TEST(MultiThreadingThreadTest, RunsRegisteredTracedAndReportsItsExitCode) {
    TraceCapture capture;
    const size_t before = ThreadList::size();
    Probe probe;
    probe.exitCode = 42;
    Thread t(&probeFunction, "Worker");
    EXPECT_EQ(t.GetState(), Thread::StateConstructed);
    t.Start(&probe);
    EXPECT_EQ(t.GetState(), Thread::StateStarted);

    // Known and listed as soon as Start returns.
    const unsigned int id = t.GetThreadId();
    EXPECT_NE(id, 0u);
    EXPECT_NE(id, currentThreadId());
    std::string name;
    EXPECT_TRUE(ThreadList::getName(id, name));
    EXPECT_EQ(name, "Worker");
    EXPECT_EQ(ThreadList::size(), before + 1);

    probe.go.set();
    EXPECT_EQ(t.WaitForExit(), 42u);
    const std::string start = "143 " + kClass + "Start: ", wait = "143 " + kClass + "WaitForExit: ";
    const std::string ids = std::to_string(id);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                   start + "Starting thread for function " + pointerText(address(&probeFunction)),
                                   start + "Thread started with id " + ids, wait + "Waiting for thread with id " + ids,
                                   wait + "Thread with id " + ids + " exited with code 42"}));
    EXPECT_EQ(t.GetExitCode(), 42u);
    EXPECT_EQ(t.WaitForExit(), 42u) << "a second wait reports the same code";
    EXPECT_EQ(probe.runs.load(), 1);
    EXPECT_EQ(probe.seenId, id);
    EXPECT_EQ(probe.seenCurrent, &t);
    EXPECT_EQ(probe.seenName, "Worker");
    EXPECT_EQ(Thread::Current(), nullptr);
    EXPECT_FALSE(ThreadList::getName(id, name));
    EXPECT_EQ(ThreadList::size(), before);
}

// Waiting before the start and starting again while running each raise
// message 1112 once and change nothing.
TEST(MultiThreadingThreadTest, WaitBeforeStartAndSecondStartRaise1112AndChangeNothing) {
    TraceCapture capture;
    Probe first, second;
    first.exitCode = 11;
    second.go.set();
    Thread t(&probeFunction, "Misused");
    const unsigned long long raisedBefore = raisedMessageCount(1112);
    EXPECT_EQ(t.WaitForExit(), 0u);
    EXPECT_EQ(raisedMessageCount(1112), raisedBefore + 1);
    EXPECT_EQ(t.GetState(), Thread::StateConstructed);
    EXPECT_EQ(capture.count("WaitForExit", "Thread not started yet"), 1);

    t.Start(&first);
    const unsigned int id = t.GetThreadId();
    t.Start(&second);
    EXPECT_EQ(raisedMessageCount(1112), raisedBefore + 2);
    EXPECT_EQ(t.GetThreadId(), id);
    std::string name;
    EXPECT_TRUE(ThreadList::getName(id, name)) << "the first run goes on";
    first.go.set();
    EXPECT_EQ(t.WaitForExit(), 11u);
    EXPECT_EQ(first.runs.load(), 1);
    EXPECT_EQ(second.runs.load(), 0);
    EXPECT_EQ(capture.count("Start", "Thread already started"), 1);
    EXPECT_EQ(raisedMessageCount(1112), raisedBefore + 2);
}

TEST(MultiThreadingThreadTest, TerminateExceptionEndsWithCodeZeroAndLeavesTheList) {
    TraceCapture capture;
    const size_t before = ThreadList::size();
    Thread t(&terminatingFunction, "Terminated");
    t.Start(nullptr);
    const unsigned int id = t.GetThreadId();
    EXPECT_EQ(t.WaitForExit(), 0u);
    std::string name;
    EXPECT_FALSE(ThreadList::getName(id, name));
    EXPECT_EQ(ThreadList::size(), before);
    EXPECT_EQ(capture.count("RunThread", "Thread with id " + std::to_string(id) + " is exiting due to TerminateException"),
              1);
}

TEST(MultiThreadingThreadTest, NamesAreCutTo251CharactersAndDotsAndSetNameNamesTheNextStart) {
    std::string pattern;
    for (int i = 0; i < 300; ++i) pattern += static_cast<char>('a' + i % 26);
    EXPECT_EQ(runAndGetName(pattern.c_str()), pattern.substr(0, 251) + "...");
    EXPECT_EQ(runAndGetName(pattern.substr(0, 255).c_str()), pattern.substr(0, 251) + "...");
    EXPECT_EQ(runAndGetName(pattern.substr(0, 254).c_str()), pattern.substr(0, 254));

    TraceCapture capture;
    Probe probe;
    probe.go.set();
    Thread t(&probeFunction, "Before");
    t.SetName("After");
    t.Start(&probe);
    t.WaitForExit();
    EXPECT_EQ(probe.seenName, "After");
    ASSERT_FALSE(capture.lines().empty());
    EXPECT_EQ(capture.lines()[0], "143 " + kClass + "SetName: Setting Name for Thread Function[" +
                                      pointerText(address(&probeFunction)) + "] to [After]");
}

TEST(MultiThreadingThreadTest, UsesTheRequestedStackSize) {
    struct StackProbe {
        static unsigned int run(void* argument) {
            pthread_attr_t attributes;
            size_t size = 0;
            if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
                pthread_attr_getstacksize(&attributes, &size);
                pthread_attr_destroy(&attributes);
            }
            *static_cast<size_t*>(argument) = size;
            return 0;
        }
    };
    size_t size = 0;
    Thread t(&StackProbe::run, "SmallStack", 256 * 1024);
    t.Start(&size);
    t.WaitForExit();
    EXPECT_GE(size, 256u * 1024);
    EXPECT_LT(size, 1536u * 1024) << "far below the default stack";
}

TEST(MultiThreadingThreadTest, DestroyingAnUnwaitedThreadWaitsForIt) {
    struct Slow {
        static unsigned int run(void* argument) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            static_cast<std::atomic<bool>*>(argument)->store(true);
            return 0;
        }
    };
    std::atomic<bool> finished{false};
    {
        Thread t(&Slow::run, "Unwaited");
        t.Start(&finished);
    }
    EXPECT_TRUE(finished.load());
}

// ------------------------------------------------------------ ThreadLocal

namespace {

std::atomic<int> constructed{0};
std::atomic<int> destroyed{0};
std::atomic<int> destroyedWhileListed{0};

struct Counted {
    Counted() { constructed++; }
    ~Counted() {
        destroyed++;
        std::string name;
        if (ThreadList::getName(currentThreadId(), name)) destroyedWhileListed++;
    }
};

void resetCounts() {
    constructed = 0;
    destroyed = 0;
    destroyedWhileListed = 0;
}

struct LocalUse {
    ThreadLocal* slot;
    void* before = reinterpret_cast<void*>(1);
    void* first = nullptr;
    void* second = nullptr;
};

void useSlot(LocalUse& use) {
    use.before = use.slot->peek();
    use.first = use.slot->get();
    use.second = use.slot->get();
}

unsigned int useSlotInLibraryThread(void* argument) {
    useSlot(*static_cast<LocalUse*>(argument));
    return 0;
}

}  // namespace

TEST(MultiThreadingThreadLocalTest, EachThreadGetsItsOwnInstanceDestroyedAtItsExit) {
    resetCounts();
    {
        ThreadLocal slot(new DataCreatorImpl<Counted>());
        LocalUse mainUse{&slot};
        useSlot(mainUse);
        EXPECT_EQ(mainUse.before, nullptr);
        EXPECT_NE(mainUse.first, nullptr);
        EXPECT_EQ(mainUse.first, mainUse.second);
        EXPECT_EQ(slot.peek(), mainUse.first);

        LocalUse libraryUse{&slot};
        Thread t(&useSlotInLibraryThread, "LocalUser");
        t.Start(&libraryUse);
        t.WaitForExit();
        EXPECT_EQ(libraryUse.before, nullptr);
        EXPECT_NE(libraryUse.first, mainUse.first);
        EXPECT_EQ(libraryUse.first, libraryUse.second);
        EXPECT_EQ(constructed.load(), 2);
        EXPECT_EQ(destroyed.load(), 1);
        EXPECT_EQ(destroyedWhileListed.load(), 1) << "destroyed before the thread left the list";

        std::vector<std::thread> plain;
        std::vector<LocalUse> uses(4, LocalUse{&slot});
        for (auto& use : uses) plain.emplace_back([&use] { useSlot(use); });
        for (auto& t2 : plain) t2.join();
        for (auto& use : uses) {
            EXPECT_EQ(use.before, nullptr);
            EXPECT_EQ(use.first, use.second);
        }
        EXPECT_EQ(constructed.load(), 6);
        EXPECT_EQ(destroyed.load(), 5);
        EXPECT_EQ(destroyedWhileListed.load(), 1);
        EXPECT_EQ(slot.peek(), mainUse.first) << "the main thread's instance is untouched";
    }
    EXPECT_EQ(destroyed.load(), 6) << "deleting the slot destroys the calling thread's instance";
}

// ------------------------------------------------------------ SparseArray

TEST(MultiThreadingSparseArrayTest, GrowsAtThe256thAndThe512thItemAndKeepsEveryItem) {
    SparseArray<uint64_t, uint64_t> array;
    auto key = [](uint64_t i) { return i * 7919 + 3; };
    for (uint64_t i = 0; i < 255; ++i) array.insert(key(i))->value = i;
    EXPECT_EQ(array.mask(), 255u);
    array.insert(key(255))->value = 255;
    EXPECT_EQ(array.mask(), 511u);
    for (uint64_t i = 256; i < 511; ++i) array.insert(key(i))->value = i;
    EXPECT_EQ(array.mask(), 511u);
    array.insert(key(511))->value = 511;
    EXPECT_EQ(array.mask(), 1023u);
    EXPECT_EQ(array.size(), 512u);
    for (uint64_t i = 0; i < 512; ++i) {
        auto* node = array.find(key(i));
        ASSERT_NE(node, nullptr) << i;
        EXPECT_EQ(node->value, i);
    }
    size_t visited = 0;
    array.forEach([&](uint64_t, uint64_t) { ++visited; });
    EXPECT_EQ(visited, 512u);
}

TEST(MultiThreadingSparseArrayTest, InsertFindAndRemove) {
    SparseArray<uint64_t, int> array;
    bool created = false;
    auto* node = array.insert(10, &created);
    EXPECT_TRUE(created);
    node->value = 5;
    EXPECT_EQ(array.insert(10, &created), node);
    EXPECT_FALSE(created);
    EXPECT_EQ(array.insert(10)->value, 5);

    int removed = 0;
    EXPECT_FALSE(array.remove(11, &removed));
    EXPECT_EQ(array.size(), 1u);
    EXPECT_TRUE(array.remove(10, &removed));
    EXPECT_EQ(removed, 5);
    EXPECT_EQ(array.find(10), nullptr);
    EXPECT_FALSE(array.remove(10));
    EXPECT_EQ(array.size(), 0u);
    EXPECT_EQ(array.insert(12), node) << "a removed node is reused first";
    EXPECT_EQ(array.insert(12)->value, 0) << "value-initialised";
}

TEST(MultiThreadingSparseArrayTest, IteratesBucketByBucketThenAlongTheChain) {
    SparseArray<uint64_t, int> array;
    for (uint64_t k : {257u, 2u, 1u, 0u, 513u}) array.insert(k)->value = static_cast<int>(k);
    std::vector<uint64_t> order;
    array.forEach([&](uint64_t key, int value) {
        EXPECT_EQ(static_cast<uint64_t>(value), key);
        order.push_back(key);
    });
    EXPECT_EQ(order, (std::vector<uint64_t>{0, 257, 1, 513, 2}));
    for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(array.at(i)->key, order[i]);
    EXPECT_EQ(array.at(order.size()), nullptr);
}
