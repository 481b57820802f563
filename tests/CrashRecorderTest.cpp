// The crash flight recorder: child processes log from several threads and
// then die of a fatal signal; the dump they leave behind is decoded with the
// library's binary reader and must hold the last events of every thread, in
// order, while the child's wait status still names the signal.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/CaptureAppender.h"
#include "support/ChildProcess.h"
#include "support/Sanitizer.h"
#include "zvlog/AppContext.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/buffer/CrashRecorder.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using namespace zvtest;
namespace fs = std::filesystem;

namespace {

// Per worker thread: more than one block's worth, so that closed blocks and
// open ones both have to be in the dump.
constexpr int kManyEvents = 100000;
constexpr int kFewEvents = 200;

// ---- in the child ----

Logger* crashLogger() {
    Logger* l = Logger::getRepository()->getLogger("crash.events");
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    return l;
}

// Leaves the child as the crash found it, without a core file.
void prepareChild(bool install, const char* instance = "crashtest") {
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    getAppContext()->SetItem(AppInstance, instance);
    if (install && !LogBuffer::installCrashHandler()) {
        fprintf(stderr, "installCrashHandler failed\n");
        _exit(3);
    }
}

void idleForever() {
    for (;;) pause();
}

// Two threads log `events` each and stay alive, idle, with their blocks open.
void startWorkers(int events) {
    static std::atomic<int> done{0};
    for (int t = 1; t <= 2; ++t)
        std::thread([t, events] {
            Logger* l = crashLogger();
            for (int i = 0; i < events; ++i) ZVLOG_INFO(l, "thread %d event %d", t, i);
            done.fetch_add(1);
            idleForever();
        }).detach();
    while (done.load() < 2) usleep(1000);
}

// The ways to die. Instrumentation would report these before the signal
// came, so they are built without it.
#define ZVTEST_UNCHECKED [[gnu::noinline]] __attribute__((no_sanitize("address", "undefined")))

ZVTEST_UNCHECKED void writeThroughNull() {
    int* volatile p = nullptr;
    *static_cast<volatile int*>(p) = 1;
}

ZVTEST_UNCHECKED void touchTruncatedMapping() {
    const std::string path = temporaryPath("crash-bus");
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, 4096) != 0) _exit(4);
    void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (page == MAP_FAILED || ftruncate(fd, 0) != 0) _exit(4);
    unlink(path.c_str());
    *static_cast<volatile char*>(page) = 1;  // the page is past the end of the file now
}

ZVTEST_UNCHECKED void executeIllegalInstruction() { __builtin_trap(); }

ZVTEST_UNCHECKED void divideByZero() {
    volatile int zero = 0;
    volatile int one = 1;
    one = one / zero;
}

void callAbort() { abort(); }

ZVTEST_UNCHECKED int recurse(volatile char* caller, int depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    frame[1] = caller ? caller[0] : 0;
    if (depth < 0) return frame[1];  // never: keeps the recursion from being a loop
    return recurse(frame, depth + 1) + frame[1];
}

ZVTEST_UNCHECKED void overflowTheStack() { std::printf("%d", recurse(nullptr, 0)); }

void logAndCrash(void (*crash)(), const char* how, bool install = true) {
    prepareChild(install);
    startWorkers(kManyEvents);
    ZVLOG_WARN(crashLogger(), "crashing by %s", how);
    crash();
}

void segv() { logAndCrash(&writeThroughNull, "a write through a null pointer"); }
void bus() { logAndCrash(&touchTruncatedMapping, "a truncated mapping"); }
void ill() { logAndCrash(&executeIllegalInstruction, "an illegal instruction"); }
void fpe() { logAndCrash(&divideByZero, "a division by zero"); }
void abrt() { logAndCrash(&callAbort, "abort"); }
void overflow() { logAndCrash(&overflowTheStack, "a stack overflow"); }
void segvWithoutRecorder() { logAndCrash(&writeThroughNull, "a write through a null pointer", false); }

// While the crash happens, another thread holds both locks of the block
// store (the pool's and the recent list's), and a third is stuck inside a
// logging call, in an appender, on its third event.
void storeHeldAndThreadStuck() {
    prepareChild(true);
    startWorkers(kManyEvents);

    static std::atomic<bool> stuck{false};
    static std::atomic<int> appended{0};
    Logger* stuckLogger = Logger::getRepository()->getLogger("crash.stuck");
    stuckLogger->setLevel(LEVEL_ALL);
    stuckLogger->setAdditivity(false);
    auto* appender = new CaptureAppender("stuck");
    appender->onAppend = [](const LoggingEvent*) {
        if (appended.fetch_add(1) == 2) {
            stuck.store(true);
            idleForever();
        }
    };
    stuckLogger->addAppender(*appender);
    std::thread([stuckLogger] {
        for (int i = 0; i < 3; ++i) ZVLOG_INFO(stuckLogger, "stuck thread event %d", i);
    }).detach();
    while (!stuck.load()) usleep(1000);

    // Logged before the hold: a first event takes a block from the store.
    ZVLOG_WARN(crashLogger(), "crashing by %s", "a write through a null pointer");
    static std::atomic<bool> held{false};
    std::thread([] {
        binary::BlockStoreHold hold;
        held.store(true);
        idleForever();
    }).detach();
    while (!held.load()) usleep(1000);
    writeThroughNull();
}

// Two threads die at once: one of a stack overflow, one of a null write.
void twoThreadsCrashAtOnce() {
    prepareChild(true);
    static std::atomic<int> ready{0};
    auto work = [](int t, void (*crash)()) {
        Logger* l = crashLogger();
        for (int i = 0; i < kFewEvents; ++i) ZVLOG_INFO(l, "thread %d event %d", t, i);
        ready.fetch_add(1);
        while (ready.load() < 2) {
        }
        crash();
    };
    std::thread(work, 1, &overflowTheStack).detach();
    std::thread(work, 2, &writeThroughNull).detach();
    idleForever();
}

// The program's own handlers, installed before the recorder: each says
// whether the dump was already on disk when it ran.
char dumpPath[4096];

void sayWhetherDumped(const char* who) {
    struct stat st {};
    const char* dump = stat(dumpPath, &st) != 0 ? "missing" : st.st_size > 0 ? "written" : "empty";
    char line[128];
    const int n = snprintf(line, sizeof line, "%s handler ran, dump %s\n", who, dump);
    if (write(STDOUT_FILENO, line, static_cast<size_t>(n)) < 0) _exit(5);
}

void ownSegvHandler(int signal, siginfo_t*, void*) {
    sayWhetherDumped("own SIGSEGV");
    ::signal(signal, SIG_DFL);  // the fault comes back and ends the process
}

void ownAbortHandler(int) { sayWhetherDumped("own SIGABRT"); }  // abort goes on to the default

void chained(int signal, void (*crash)(), const char* how) {
    struct sigaction own {};
    sigemptyset(&own.sa_mask);
    if (signal == SIGSEGV) {
        own.sa_sigaction = &ownSegvHandler;
        own.sa_flags = SA_SIGINFO;
    } else {
        own.sa_handler = &ownAbortHandler;
    }
    sigaction(signal, &own, nullptr);
    prepareChild(true);
    snprintf(dumpPath, sizeof dumpPath, "%s", crashDumpSharedName());
    startWorkers(kFewEvents);
    ZVLOG_WARN(crashLogger(), "crashing by %s", how);
    crash();
}

// The dump itself faults: a third thread's buffer pointer is made bad, so
// the handler crashes reading it, after the two workers' blocks.
void faultWhileDumping() {
    struct sigaction own {};
    sigemptyset(&own.sa_mask);
    own.sa_sigaction = &ownSegvHandler;
    own.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &own, nullptr);
    prepareChild(true);
    snprintf(dumpPath, sizeof dumpPath, "%s", crashDumpSharedName());
    startWorkers(kFewEvents);
    static std::atomic<bool> poisoned{false};
    std::thread([] {
        ZVLOG_INFO(crashLogger(), "poisoned thread event %d", 0);
        peekThreadRecord()->buffer = reinterpret_cast<LogBufferImpl*>(uintptr_t{8});
        poisoned.store(true);
        idleForever();
    }).detach();
    while (!poisoned.load()) usleep(1000);
    ZVLOG_WARN(crashLogger(), "crashing by %s", "a write through a null pointer");
    writeThroughNull();
}

void chainedSegv() { chained(SIGSEGV, &writeThroughNull, "a write through a null pointer"); }
void chainedAbort() { chained(SIGABRT, &callAbort, "abort"); }

// Switched on under one instance name, crashing under another.
void renamedAfterInstall() {
    prepareChild(true, "before");
    getAppContext()->SetItem(AppInstance, "crashtest");
    startWorkers(kFewEvents);
    ZVLOG_WARN(crashLogger(), "crashing by %s", "a write through a null pointer");
    writeThroughNull();
}

void printPidAndCrash() {
    printf("%u", static_cast<unsigned>(getpid()));
    fflush(stdout);
    segv();
}

const bool scenarios = runRequestedScenario({
    {"segv", segv},
    {"bus", bus},
    {"ill", ill},
    {"fpe", fpe},
    {"abrt", abrt},
    {"overflow", overflow},
    {"segvWithoutRecorder", segvWithoutRecorder},
    {"storeHeldAndThreadStuck", storeHeldAndThreadStuck},
    {"twoThreadsCrashAtOnce", twoThreadsCrashAtOnce},
    {"chainedSegv", chainedSegv},
    {"chainedAbort", chainedAbort},
    {"faultWhileDumping", faultWhileDumping},
    {"renamedAfterInstall", renamedAfterInstall},
    {"printPidAndCrash", printPidAndCrash},
});

// ---- in the test ----

// AddressSanitizer would take the faults itself and end the child with its
// own exit status; the recorder is what is being tested, so the child leaves
// them to it (and to the default actions after it).
ChildResult runCrashingChild(const std::string& scenario, const std::string& home) {
    std::vector<std::string> environment{"QMR_HOME=" + home};
    if (kSanitizer) {
        const char* inherited = getenv("ASAN_OPTIONS");
        environment.push_back(std::string("ASAN_OPTIONS=") + (inherited ? inherited : "") +
                              ":handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0");
    }
    return runChild(scenario, environment);
}

std::string rendered(const DecodedEvent& decoded) {
    LocationRecord site;
    LoggingEvent event;
    toLoggingEvent(decoded, site, event);
    std::string text;
    renderMessage(&event, text);
    return text;
}

struct Dump {
    bool ok = false;
    std::string firstError;
    size_t streams = 0;
    // Each thread's messages in the order decoded, the threads ordered by
    // their first message.
    std::vector<std::vector<std::string>> threads;
};

Dump readDump(const std::string& path) {
    Dump d;
    const DecodeResult r = decodeFile(path.c_str());
    d.ok = r.ok() && r.streams > 0;
    d.firstError = r.errors.empty() ? "" : r.errors[0];
    d.streams = r.streams;
    std::map<uint32_t, std::vector<std::string>> byThread;
    for (const DecodedEvent& e : r.events)
        if (e.loggerName.rfind("crash.", 0) == 0) byThread[e.threadId].push_back(rendered(e));
    for (auto& [thread, messages] : byThread) d.threads.push_back(std::move(messages));
    std::sort(d.threads.begin(), d.threads.end());
    return d;
}

std::vector<std::string> workerEvents(int thread, int count) {
    std::vector<std::string> events;
    for (int i = 0; i < count; ++i) events.push_back("thread " + std::to_string(thread) + " event " + std::to_string(i));
    return events;
}

// "" when the threads hold exactly the expected messages; else the first
// difference, without printing tens of thousands of lines.
std::string compareThreads(const std::vector<std::vector<std::string>>& got,
                           std::vector<std::vector<std::string>> expected) {
    std::sort(expected.begin(), expected.end());
    if (got.size() != expected.size())
        return std::to_string(got.size()) + " threads in the dump, expected " + std::to_string(expected.size());
    for (size_t t = 0; t < got.size(); ++t) {
        const std::vector<std::string>& g = got[t];
        const std::vector<std::string>& x = expected[t];
        const size_t common = std::min(g.size(), x.size());
        for (size_t i = 0; i < common; ++i)
            if (g[i] != x[i]) return "thread of \"" + x[0] + "\": at " + std::to_string(i) + " \"" + g[i] + "\", expected \"" + x[i] + "\"";
        if (g.size() != x.size())
            return "thread of \"" + x[0] + "\": " + std::to_string(g.size()) + " events, expected " + std::to_string(x.size());
    }
    return "";
}

std::string savedLine(int signal, const std::string& path) {
    return "zvlog: signal " + std::to_string(signal) + " (SIG" + sigabbrev_np(signal) + "): recent events saved to '" +
           path + "'\n";
}

// The child ended by `signal` after saying that it saved its events to
// `path`; the dump there, which must read without error.
Dump expectDumpedCrash(const ChildResult& r, int signal, const std::string& path) {
    EXPECT_FALSE(r.exited) << "status " << r.status << ", stderr: " << r.err;
    EXPECT_EQ(r.status, signal);
    EXPECT_EQ(r.err, savedLine(signal, path));
    Dump dump = readDump(path);
    EXPECT_TRUE(dump.ok) << dump.firstError;
    return dump;
}

class CrashRecorder : public ::testing::Test {
protected:
    void SetUp() override {
        ZVTEST_SKIP_UNDER_THREAD_SANITIZER("the recorder reads other threads' buffers without their locks, by design");
    }
};

TEST_F(CrashRecorder, EachFatalSignalLeavesTheLastEventsOfEveryThreadAndStillEndsTheProcess) {
    struct Way {
        const char* scenario;
        int signal;
        const char* how;
    };
    const Way ways[] = {
        {"segv", SIGSEGV, "a write through a null pointer"},
        {"bus", SIGBUS, "a truncated mapping"},
        {"ill", SIGILL, "an illegal instruction"},
        {"fpe", SIGFPE, "a division by zero"},
        {"abrt", SIGABRT, "abort"},
        {"overflow", SIGSEGV, "a stack overflow"},
    };
    for (const Way& way : ways) {
        SCOPED_TRACE(way.scenario);
        const std::string home = temporaryDirectory("crash-way");
        const ChildResult r = runCrashingChild(way.scenario, home);
        const std::string path = home + "/zvlog-crashtest.dmp";
        const Dump dump = expectDumpedCrash(r, way.signal, path);
        EXPECT_EQ(directoryEntries(home), std::vector<std::string>{"zvlog-crashtest.dmp"});
        // Two workers' closed and open blocks, and the crashing thread's.
        EXPECT_GE(dump.streams, 5u);
        EXPECT_EQ(compareThreads(dump.threads, {workerEvents(1, kManyEvents), workerEvents(2, kManyEvents),
                                                {std::string("crashing by ") + way.how}}),
                  "");
#ifdef ZVLOG_DUMP_PROGRAM
        // zvlog-dump shows the same: both workers' last events, then the
        // crashing thread's, the last event of all.
        const ChildResult shown = zvtest::runProgram(ZVLOG_DUMP_PROGRAM, {"--logger", "crash", "--pattern", "%m\n", path});
        EXPECT_TRUE(shown.succeeded()) << shown.err;
        const std::string last = "thread 1 event " + std::to_string(kManyEvents - 1) + "\n";
        EXPECT_NE(shown.out.find(last), std::string::npos);
        EXPECT_NE(shown.out.find("thread 2 event " + std::to_string(kManyEvents - 1) + "\n"), std::string::npos);
        EXPECT_EQ(std::count(shown.out.begin(), shown.out.end(), '\n'), 2 * kManyEvents + 1);
        EXPECT_TRUE(shown.out.ends_with(std::string("crashing by ") + way.how + "\n")) << shown.out.substr(
            shown.out.size() > 200 ? shown.out.size() - 200 : 0);
#endif
        fs::remove_all(home);
    }
}

TEST_F(CrashRecorder, OffUnlessSwitchedOn) {
    const std::string home = temporaryDirectory("crash-off");
    const ChildResult r = runCrashingChild("segvWithoutRecorder", home);
    EXPECT_FALSE(r.exited);
    EXPECT_EQ(r.status, SIGSEGV);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(directoryEntries(home), std::vector<std::string>{});
    fs::remove_all(home);
}

TEST_F(CrashRecorder, HeldBlockStoreAndAThreadStuckInLoggingDoNotStopTheDump) {
    const std::string home = temporaryDirectory("crash-held");
    const ChildResult r = runCrashingChild("storeHeldAndThreadStuck", home);
    const Dump dump = expectDumpedCrash(r, SIGSEGV, home + "/zvlog-crashtest.dmp");
    // The closed blocks are read past the held locks; the stuck thread's
    // events before the one it is stuck in are there, that one is not.
    EXPECT_EQ(compareThreads(dump.threads, {workerEvents(1, kManyEvents), workerEvents(2, kManyEvents),
                                            {"stuck thread event 0", "stuck thread event 1"},
                                            {"crashing by a write through a null pointer"}}),
              "");
    fs::remove_all(home);
}

TEST_F(CrashRecorder, TwoThreadsCrashingAtOnceWriteOneDumpWithBoth) {
    const std::string home = temporaryDirectory("crash-two");
    const ChildResult r = runCrashingChild("twoThreadsCrashAtOnce", home);
    const Dump dump = expectDumpedCrash(r, SIGSEGV, home + "/zvlog-crashtest.dmp");
    EXPECT_EQ(compareThreads(dump.threads, {workerEvents(1, kFewEvents), workerEvents(2, kFewEvents)}), "");
    fs::remove_all(home);
}

TEST_F(CrashRecorder, HandlersInstalledBeforeRunAfterTheDump) {
    struct Case {
        const char* scenario;
        int signal;
        const char* said;
        const char* last;
    };
    const Case cases[] = {
        {"chainedSegv", SIGSEGV, "own SIGSEGV handler ran, dump written\n", "crashing by a write through a null pointer"},
        {"chainedAbort", SIGABRT, "own SIGABRT handler ran, dump written\n", "crashing by abort"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.scenario);
        const std::string home = temporaryDirectory("crash-chain");
        const ChildResult r = runCrashingChild(c.scenario, home);
        EXPECT_EQ(r.out, c.said);
        const Dump dump = expectDumpedCrash(r, c.signal, home + "/zvlog-crashtest.dmp");
        EXPECT_EQ(compareThreads(dump.threads, {workerEvents(1, kFewEvents), workerEvents(2, kFewEvents), {c.last}}),
                  "");
        fs::remove_all(home);
    }
}

TEST_F(CrashRecorder, AFaultWhileDumpingPassesTheSignalOnAndKeepsWhatWasWritten) {
    const std::string home = temporaryDirectory("crash-refault");
    const ChildResult r = runCrashingChild("faultWhileDumping", home);
    EXPECT_FALSE(r.exited) << "status " << r.status << ", stderr: " << r.err;
    EXPECT_EQ(r.status, SIGSEGV);
    // The program's handler still ran, once, and no dump was reported.
    EXPECT_EQ(r.out, "own SIGSEGV handler ran, dump written\n");
    EXPECT_EQ(r.err, "");
    const Dump dump = readDump(home + "/zvlog-crashtest.dmp");
    EXPECT_TRUE(dump.ok) << dump.firstError;
    EXPECT_EQ(compareThreads(dump.threads, {workerEvents(1, kFewEvents), workerEvents(2, kFewEvents)}), "");
    fs::remove_all(home);
}

TEST_F(CrashRecorder, DumpNameFollowsTheInstanceNameSetAfterSwitchingOn) {
    const std::string home = temporaryDirectory("crash-renamed");
    const ChildResult r = runCrashingChild("renamedAfterInstall", home);
    EXPECT_EQ(r.status, SIGSEGV);
    EXPECT_EQ(directoryEntries(home), std::vector<std::string>{"zvlog-crashtest.dmp"});
    const Dump dump = readDump(home + "/zvlog-crashtest.dmp");
    EXPECT_TRUE(dump.ok) << dump.firstError;
    EXPECT_EQ(dump.threads.size(), 3u);
    fs::remove_all(home);
}

TEST_F(CrashRecorder, SharedNameLockedByAnotherDumpGivesTheProcessItsOwnName) {
    const std::string home = temporaryDirectory("crash-locked");
    const std::string shared = home + "/zvlog-crashtest.dmp";
    const int fd = holdFirstByteLock(shared, "another dump");
    ASSERT_GE(fd, 0);

    const ChildResult r = runCrashingChild("printPidAndCrash", home);
    close(fd);
    EXPECT_EQ(r.status, SIGSEGV);
    EXPECT_EQ(readFile(shared), "another dump");
    const std::string own = home + "/zvlog-crashtest-" + r.out + ".dmp";
    EXPECT_EQ(r.err, savedLine(SIGSEGV, own));
    const Dump dump = readDump(own);
    EXPECT_TRUE(dump.ok) << dump.firstError;
    EXPECT_EQ(compareThreads(dump.threads, {workerEvents(1, kManyEvents), workerEvents(2, kManyEvents),
                                            {"crashing by a write through a null pointer"}}),
              "");
    fs::remove_all(home);
}

}  // namespace
