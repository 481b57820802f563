// The crash flight recorder. Everything the signal handler does is
// async-signal-safe: the file names are made in advance, the dump is written
// with open, fcntl, ftruncate, write and close, the blocks and the threads'
// buffers are read without allocating and without waiting on a lock that
// the crashing thread might hold.
#include "zvlog/buffer/CrashRecorder.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>

#include "zvlog/AppContext.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/appenders/FileNames.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/buffer/SignalSafe.h"
#include "zvlog/core/Library.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvstd/RawFile.h"

namespace zvs::zvlib::zvlog {

using namespace binary;

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr unsigned kSignalCount = sizeof kSignals / sizeof kSignals[0];

// How long the handler waits for one of the block store's locks, for other
// threads to leave the logging calls they are in, and, on a second crashing
// thread, for the first one's dump.
constexpr unsigned kLockWaitMs = 100;
constexpr unsigned kThreadWaitMs = 50;
constexpr unsigned kOtherDumpWaitMs = 10000;

constexpr size_t kAltStackSize = 64 * 1024;
constexpr size_t kPathCapacity = 4096 + 64;

// The names in force. One replaced by a change of the instance stays
// reachable from its successor: a handler may be reading it.
struct DumpNames {
    const DumpNames* previous;
    std::string shared;   // DirProcessLog/zvlog-%I.dmp
    std::string ownStem;  // DirProcessLog/zvlog-%I-  (then the process id and ".dmp")
};

std::mutex installMutex;  // switching on, and making the names
std::atomic<bool> installed{false};
struct sigaction previousActions[kSignalCount];
std::atomic<const DumpNames*> dumpNames{nullptr};

// The thread writing the dump (0: none yet); set for good by the first
// crashing thread, so a process writes one dump.
std::atomic<pid_t> dumper{0};
std::atomic<bool> dumpDone{false};

// 0: not looked at yet; 1: the stack below is ours; 2: none of ours.
__thread int tlsAltStackState __attribute__((tls_model("initial-exec"))) = 0;
__thread unsigned char* tlsAltStack __attribute__((tls_model("initial-exec"))) = nullptr;

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

void makeNames() {
    const std::string directory = getAppContextText(DirProcessLog);
    std::string shared = joinPath(directory, replaceFileNameTokens("zvlog-%I.dmp", true).c_str());
    std::string ownStem = joinPath(directory, replaceFileNameTokens("zvlog-%I-", true).c_str());
    const DumpNames* current = dumpNames.load(std::memory_order_relaxed);
    if (current && current->shared == shared && current->ownStem == ownStem) return;
    dumpNames.store(new DumpNames{current, std::move(shared), std::move(ownStem)}, std::memory_order_release);
}

// ---- what the handler uses: no allocation, no stdio, no locks ----

size_t copyText(char* to, size_t at, size_t capacity, const char* text) {
    while (*text && at + 1 < capacity) to[at++] = *text++;
    to[at] = 0;
    return at;
}

size_t copyNumber(char* to, size_t at, size_t capacity, unsigned long long value) {
    char digits[24];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0 && at + 1 < capacity) to[at++] = digits[--n];
    to[at] = 0;
    return at;
}

void printLine(const char* line) {
    zvWriteAll(STDERR_FILENO, line, strlen(line));
}

// As the dump on request chooses: the name the instance's processes share,
// unless it cannot be opened or another dump holds it; then this process's
// own, its id formatted now (a forked child has its own).
int openDump(const DumpNames& names, char* path, int& fd) {
    copyText(path, 0, kPathCapacity, names.shared.c_str());
    int error = zvOpenFileForWriting(path, fd);
    if (error == 0) {
        error = zvTryLockFileFirstByte(fd);
        if (error != EAGAIN) return zvTruncateFileTo0(fd);
        ::close(fd);
        fd = -1;
    }
    size_t at = copyText(path, 0, kPathCapacity, names.ownStem.c_str());
    at = copyNumber(path, at, kPathCapacity, static_cast<unsigned long long>(getpid()));
    copyText(path, at, kPathCapacity, ".dmp");
    error = zvOpenFileForWriting(path, fd);
    return error == 0 ? zvTruncateFileTo0(fd) : error;
}

struct DumpWriter {
    int fd;
    int error;

    void put(const void* data, size_t length) {
        if (error == 0) error = zvWriteAll(fd, data, length);
    }
};

void writeStream(void* context, const unsigned char* stream, uint32_t length) {
    static_cast<DumpWriter*>(context)->put(stream, length);
}

// Closed blocks are written once every other thread is held, so that none
// moves its events from its open block to the closed ones in between.
void writeClosedBlocks(void* context) { visitBlocksAtCrash(kLockWaitMs, &writeStream, context); }

void writeOpenBlock(void* context, const ThreadRecord* record, bool settled) {
    const LogBufferImpl* buffer =
        std::atomic_ref<LogBufferImpl*>(const_cast<ThreadRecord*>(record)->buffer).load(std::memory_order_acquire);
    const unsigned char* stream = nullptr;
    uint32_t length = 0;
    if (!buffer || !buffer->crashView(settled, stream, length)) return;
    auto* writer = static_cast<DumpWriter*>(context);
    writer->put(stream, length);
    writer->put(&kEnd, 1);
}

void reportFailure(const char* path, int error) {
    char line[kPathCapacity + 256];
    size_t at = copyText(line, 0, sizeof line, "Failed to save data to '");
    at = copyText(line, at, sizeof line, path);
    at = copyText(line, at, sizeof line, "', error ");
    at = copyNumber(line, at, sizeof line, static_cast<unsigned long long>(error));
    at = copyText(line, at, sizeof line, " - ");
    const char* text = strerrordesc_np(error);
    at = copyText(line, at, sizeof line, text ? text : "Unknown error");
    copyText(line, at, sizeof line, "\n");
    printLine(line);
}

void reportSaved(int signal, const char* path) {
    char line[kPathCapacity + 128];
    size_t at = copyText(line, 0, sizeof line, "zvlog: signal ");
    at = copyNumber(line, at, sizeof line, static_cast<unsigned long long>(signal));
    at = copyText(line, at, sizeof line, " (SIG");
    const char* name = sigabbrev_np(signal);
    at = copyText(line, at, sizeof line, name ? name : "?");
    at = copyText(line, at, sizeof line, "): recent events saved to '");
    at = copyText(line, at, sizeof line, path);
    copyText(line, at, sizeof line, "'\n");
    printLine(line);
}

void writeCrashDump(int signal) {
    const LibraryRunState state = LibraryState::state();
    if (state != LibraryRunState::Started && state != LibraryRunState::Stopping) return;
    const DumpNames* names = dumpNames.load(std::memory_order_acquire);
    if (!names) return;

    char path[kPathCapacity];
    int fd = -1;
    const int error = openDump(*names, path, fd);
    if (error != 0) {
        if (fd >= 0) ::close(fd);
        reportFailure(path, error);
        return;
    }
    DumpWriter writer{fd, 0};
    visitThreadsAtCrash(peekThreadRecord(), kThreadWaitMs, &writeClosedBlocks, &writeOpenBlock, &writer);
    if (::close(fd) != 0 && writer.error == 0) writer.error = errno;
    if (writer.error != 0)
        reportFailure(path, writer.error);
    else
        reportSaved(signal, path);
}

unsigned indexOf(int signal) {
    for (unsigned i = 0; i < kSignalCount; ++i)
        if (kSignals[i] == signal) return i;
    return 0;
}

// The handler that was there before takes the signal: a fault comes back
// when the faulting instruction runs again on return, a sent signal (kill,
// raise, abort) is sent again at once. Either way it meets the previous
// disposition: the program's own handler, or the default action with its
// core dump and its status.
void passOn(int signal, const siginfo_t* info, pid_t thread) {
    sigaction(signal, &previousActions[indexOf(signal)], nullptr);
    const bool fault = info != nullptr && info->si_code > 0 && signal != SIGABRT;
    if (!fault) syscall(SYS_tgkill, getpid(), thread, signal);
}

void onFatalSignal(int signal, siginfo_t* info, void*) {
    const int savedErrno = errno;
    const auto thread = static_cast<pid_t>(syscall(SYS_gettid));
    pid_t first = 0;
    if (dumper.compare_exchange_strong(first, thread, std::memory_order_acq_rel)) {
        writeCrashDump(signal);
        dumpDone.store(true, std::memory_order_release);
    } else if (first != thread) {
        // Another thread crashed first and is writing the dump.
        signalsafe::waitUntil([] { return dumpDone.load(std::memory_order_acquire); }, kOtherDumpWaitMs);
    }
    // else: a fault while this thread writes the dump; no second attempt.
    passOn(signal, info, thread);
    errno = savedErrno;
}

}  // namespace

bool installCrashRecorder() {
    const int savedErrno = errno;
    LibraryState::ensureInitialized();
    prepareThreadVisitAtCrash();
    bool ok = true;
    {
        std::lock_guard<std::mutex> lock(installMutex);
        makeNames();
        if (!installed.load(std::memory_order_relaxed)) {
            struct sigaction action {};
            action.sa_sigaction = &onFatalSignal;
            sigemptyset(&action.sa_mask);
            // Not deferred: a fault while the dump is written comes back into
            // the handler, which then passes it on at once instead of the
            // kernel ending the process past the program's own handler.
            action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
            unsigned done = 0;
            while (done < kSignalCount && sigaction(kSignals[done], &action, &previousActions[done]) == 0) ++done;
            if (done < kSignalCount) {
                while (done > 0) {
                    --done;
                    sigaction(kSignals[done], &previousActions[done], nullptr);
                }
                ok = false;
            } else {
                installed.store(true, std::memory_order_release);
            }
        }
    }
    if (ok) prepareThreadForCrashes();
    errno = savedErrno;
    return ok;
}

bool crashRecorderInstalled() { return installed.load(std::memory_order_acquire); }

void crashRecorderNamesChanged() {
    if (!installed.load(std::memory_order_acquire)) return;
    const int savedErrno = errno;
    std::lock_guard<std::mutex> lock(installMutex);
    makeNames();
    errno = savedErrno;
}

void prepareThreadForCrashes() {
    if (ZVLOG_LIKELY(tlsAltStackState != 0) || !installed.load(std::memory_order_acquire)) return;
    tlsAltStackState = 2;
    stack_t current{};
    if (sigaltstack(nullptr, &current) != 0 || !(current.ss_flags & SS_DISABLE)) return;  // the thread's own
    const size_t guard = pageSize();
    void* memory = mmap(nullptr, guard + kAltStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    auto* base = static_cast<unsigned char*>(memory);
    mprotect(base, guard, PROT_NONE);  // an overflow of the handler faults instead of running into other memory
    stack_t ours{};
    ours.ss_sp = base + guard;
    ours.ss_size = kAltStackSize;
    if (sigaltstack(&ours, nullptr) != 0) {
        munmap(base, guard + kAltStackSize);
        return;
    }
    tlsAltStack = base;
    tlsAltStackState = 1;
}

void crashRecorderThreadEnds() {
    if (tlsAltStackState != 1) return;
    const size_t guard = pageSize();
    stack_t current{};
    // Only the stack given here, and not while the thread runs on it.
    if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == tlsAltStack + guard &&
        !(current.ss_flags & SS_ONSTACK)) {
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        if (sigaltstack(&off, nullptr) == 0) munmap(tlsAltStack, guard + kAltStackSize);
    }
    tlsAltStack = nullptr;
    tlsAltStackState = 2;
}

const char* crashDumpSharedName() {
    const DumpNames* names = dumpNames.load(std::memory_order_acquire);
    return names ? names->shared.c_str() : "";
}

const char* crashDumpOwnNameStem() {
    const DumpNames* names = dumpNames.load(std::memory_order_acquire);
    return names ? names->ownStem.c_str() : "";
}

bool LogBuffer::installCrashHandler() { return installCrashRecorder(); }

}  // namespace zvs::zvlib::zvlog
