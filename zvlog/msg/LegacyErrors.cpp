// The legacy error log ("zvserr.log"), the fatal-error path and ZVException.
#include "zvlog/LegacyErrors.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "zvlog/AppContext.h"
#include "zvlog/Appender.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/Message.h"
#include "zvlog/SourceContext.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvstd/Console.h"
#include "zvstd/Fatal.h"
#include "zvstd/ModuleLoader.h"

using zvs::zvlib::MultiThreading::MutexLock;
using zvs::zvlib::zvlog::Logger;

namespace {

std::atomic<int> fatalAction{FATALERROR_EXIT};
std::atomic<void (*)(unsigned int, const char*)> fatalCallback{nullptr};
std::atomic<void (*)(const char*)> idlCallback{nullptr};
std::atomic<void (*)()> vamCallback{nullptr};

const char* levelName(unsigned char level) {
    if (level < 223) return "INFO";
    if (level < 239) return "WARNING";
    return "ERROR";
}

// The console line ends in its own full stop: the text's own trailing blanks,
// full stops and line feeds go.
void stripTrailing(std::string& text) {
    size_t end = text.size();
    while (end > 0 && (text[end - 1] == ' ' || text[end - 1] == '.' || text[end - 1] == '\n')) --end;
    text.resize(end);
}

// What the error log needs once per process, taken by the first caller.
struct ErrorLog {
    Logger* logger;
    std::string program;     // BuildProgramString
    std::string threadName;  // the first caller's, after its last "/" or "\"
    bool haveThreadName;
};
std::atomic<ErrorLog*> errorLogState{nullptr};

// Both fetched when the library loads, not on first use: an entry may be
// written while the thread holds the repository's lock (a logger being
// created reports a bad name), and the lookup would take that lock again.
Logger* const errorLogger = Logger::getRepository()->getLogger("zvserr.log");
Logger* const exceptionLogger = Logger::getRepository()->getLogger("ZVException");

const ErrorLog& errorLog() {
    if (ErrorLog* kept = errorLogState.load(std::memory_order_acquire)) return *kept;
    Logger* logger = errorLogger ? errorLogger : Logger::getRepository()->getLogger("zvserr.log");
    auto* mine = new ErrorLog{logger, std::string(), std::string(), false};
    if (CAppContext* app = getAppContext()) {
        if (const CContextItem* item = app->GetItem(BuildProgramString)) {
            MutexLock lock(item->GetLock());
            if (item->GetType() == CDataItem::TypeString && item->GetValue().str) mine->program = item->GetValue().str;
        }
    }
    // A thread without a record of its own has no name; neither has one
    // whose name ends in a separator.
    if (const zvs::zvlib::zvlog::ThreadRecord* record = zvs::zvlib::zvlog::peekThreadRecord()) {
        const std::string& name = record->name;
        const size_t separator = name.find_last_of("/\\");
        mine->threadName = separator == std::string::npos ? name : name.substr(separator + 1);
        mine->haveThreadName = !mine->threadName.empty();
    }
    ErrorLog* expected = nullptr;
    if (errorLogState.compare_exchange_strong(expected, mine, std::memory_order_acq_rel)) return *mine;
    delete mine;  // another thread was first
    return *expected;
}

void writeErrorLog(const char* code, std::string text, unsigned char level, const char* name) {
    const ErrorLog& log = errorLog();
    if (text.size() > 2048) {
        text.resize(2048);
        stripTrailing(text);
    }
    Logger* logger = log.logger;
    if (log.haveThreadName)
        ZVLOG_LOG_AT(logger, level, "zvlog/LegacyErrorHandling", "logMessage", 240, "%-7s %9s  %s, %s:  %s.", name,
                     code, log.program.c_str(), log.threadName.c_str(), text.c_str());
    else
        ZVLOG_LOG_AT(logger, level, "zvlog/LegacyErrorHandling", "logMessage", 245, "%-7s %9s  %s:  %s.", name, code,
                     log.program.c_str(), text.c_str());
}

// Fetched once per process, so that the repetition state exists for the
// level names; not a function-local static, which a first call made while
// the factory loads would re-enter.
void ensureDefaultFactory() {
    static std::atomic<bool> done{false};
    if (done.load(std::memory_order_acquire)) return;
    CMessageFactory::GetDefaultFactory();
    done.store(true, std::memory_order_release);
}

void legacyEntry(unsigned int number, const char* code, const char* text, unsigned char level, bool console) {
    const int savedErrno = errno;
    ensureDefaultFactory();
    std::string stripped = text ? text : "";
    stripTrailing(stripped);
    if (!code) code = "";
    const char* name = levelName(level);
    if (console) {
        char when[32];
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
        zvs::zvlib::zvConsolePrint("\n%-19s  %-7s %9s  %s.\n", when, name, code, stripped.c_str());
    }
    zvs::zvlib::zvlog::msg::recordLevelName(number, name);
    writeErrorLog(code, std::move(stripped), level, name);
    errno = savedErrno;
}

// ---- fatal errors ---------------------------------------------------------

std::atomic<bool> firstFatalDone{false};
// Set while the thread runs the fatal path (step 7 on): a fatal error raised
// from inside it (by the exit function, say) ends at once instead of
// running the whole path again.
thread_local bool inFatalProcessing = false;

using DebugHook = void (*)();
DebugHook debugHook() {
    static std::mutex lock;
    static bool looked = false;
    static DebugHook hook = nullptr;
    std::lock_guard<std::mutex> guard(lock);
    if (!looked) {
        looked = true;
        hook = reinterpret_cast<DebugHook>(zvs::zvlib::zvFindSymbol(zvs::zvlib::zvLoadModule(nullptr), "_zvTryDebugHook"));
    }
    return hook;
}

void notifyRepository(int action) {
    void* module = zvs::zvlib::zvLoadModule("zvrepo");
    if (!module) return;
    auto enabled = reinterpret_cast<bool (*)(int)>(zvs::zvlib::zvFindSymbol(module, "ZVREPO_Enabled"));
    auto setState = reinterpret_cast<void (*)(int)>(zvs::zvlib::zvFindSymbol(module, "ZVREPO_SetProcessState"));
    if (!enabled || !enabled(0)) return;
    if (setState) setState(8);
    if (action == FATALERROR_RETURN || action == FATALERROR_EXIT || action == FATALERROR_EXIT_QUIET) {
        if (auto shutdown = reinterpret_cast<void (*)()>(zvs::zvlib::zvFindSymbol(module, "ZVREPO_Shutdown")))
            shutdown();
    }
}

// The last word of a process ending by a fatal error.
void issueFatalMessage() {
    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    if (!factory) return;
    CMessage* message = CMessageFactory::ProcessMessage(
        factory->CreateMessage(new CSourceContext("zvmsg.legacy", "zvlog/LegacyErrorHandling", "processFatalError", 397),
                               1668),
        CMessageFactory::ReturnMessage);
    if (!message) return;
    if ((message->GetReportMask() & factory->GetReportType()) != 0) {
        char code[10];
        message->GetMessageCode(code);
        const char* text = message->Format(kDefaultCharSet);
        issueMessage(message->GetMessageID(), code, text ? text : "Formatting error", 254);
    }
    delete message;
}

[[noreturn]] void exitProcess(int status) {
    fflush(stdout);
    fflush(stderr);
    if (zvs::zvlib::ExitFunction exitFunction = zvs::zvlib::zvGetExitFunction()) exitFunction(status);
    exit(status);
}

}  // namespace

void zvSetFatalErrorAction(FATALERROR_ACTION action) { fatalAction.store(action); }
void zvSetFatalErrorCallback(void (*callback)(unsigned int, const char*)) { fatalCallback.store(callback); }
void zvSetIDLFatalErrorCallback(void (*callback)(const char*)) { idlCallback.store(callback); }
void zvSetVAMFatalErrorCallback(void (*callback)()) { vamCallback.store(callback); }
void zvSetExitFunction(void (*function)(int)) { zvs::zvlib::zvSetExitFunction(function); }

void issueMessage(unsigned int number, const char* code, const char* text, unsigned char level) {
    legacyEntry(number, code, text, level, true);
}

void issueMessageNoReport(unsigned int number, const char* code, const char* text, unsigned char level) {
    legacyEntry(number, code, text, level, false);
}

namespace zvs::zvlib::zvlog::msg {

void processFatalError(unsigned int number, const char* text) {
    const int action = fatalAction.load();
    if (inFatalProcessing) {
        if (action == FATALERROR_RETURN) return;
        fflush(stdout);
        _Exit(1);
    }

    notifyRepository(action);
    if (DebugHook hook = debugHook()) hook();
    if (action == FATALERROR_RETURN) Logger::getRepository()->shutdown();

    char* copy = text ? strdup(text) : nullptr;
    const char* kept = copy ? copy : "Out of memory";
    if (!firstFatalDone.exchange(true)) {
        if (auto idl = idlCallback.load()) idl(kept);
        if (auto vam = vamCallback.load()) vam();
    }
    if (auto callback = fatalCallback.load()) callback(number, kept);
    free(copy);

    inFatalProcessing = true;
    if (action != FATALERROR_EXIT_QUIET) issueFatalMessage();
    LoggerRepository::threadComplete();
    Logger::getRepository()->shutdown();

    if (action == FATALERROR_EXIT || action == FATALERROR_EXIT_QUIET) exitProcess(1);
    inFatalProcessing = false;
}

}  // namespace zvs::zvlib::zvlog::msg

// ---- ZVException -----------------------------------------------------------

ZVException::ZVException(const char* text, unsigned int number, const char* code, const char* sourceFile,
                         unsigned short line, const char* detail)
    : text_(text ? text : ""), number_(number), code_{} {
    if (code) strncpy(code_, code, sizeof code_ - 1);
    Logger* logger = exceptionLogger ? exceptionLogger : Logger::getRepository()->getLogger("ZVException");
    ZVLOG_LOG_AT(logger, zvs::zvlib::zvlog::LEVEL_ERROR, "zvlog/LegacyErrorHandling",
                 "zvs::zvlib::zvlog::ZVException::ZVException", __LINE__, "ZVException: %s:%hu  [%s] %s\n%s",
                 sourceFile ? sourceFile : "", line, code_, text_.c_str(), detail ? detail : "");
}
