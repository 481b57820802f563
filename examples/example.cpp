// A first look at zvlog: start-up from zvlog.xml, loggers by dotted name, a
// console appender with a pattern layout, filters, an asynchronous appender,
// and the summary report.
#include <cstdio>
#include <string>
#include <thread>

#include "zvlog/AppContext.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/LegacyErrors.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/SourceContext.h"
#include "zvlog/zvMessage.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;

// What the build context reports for this program (it links with -rdynamic).
ZVLOG_DEFINE_BUILD_CONTEXT("zvcapture", "0.1.0", "RelWithDebInfo", "PostgreSQL", "15");

namespace {

// A context item as text, looked up through the application context.
void printItem(const char* label, ContextItemID id) {
    CContextItem* item = getAppContext()->GetItem(id);
    if (!item) {
        printf("  %-24s <none>\n", label);
        return;
    }
    zvs::zvlib::MultiThreading::MutexLock lock(item->GetLock());
    switch (item->GetType()) {
    case CDataItem::TypeString:
        printf("  %-24s %s\n", label, static_cast<const char*>(*item));
        break;
    case CDataItem::TypeBool:
        printf("  %-24s %s\n", label, static_cast<bool>(*item) ? "true" : "false");
        break;
    default:
        printf("  %-24s %llu\n", label, static_cast<unsigned long long>(*item));
        break;
    }
}

// Where a message is raised from; the message owns it.
CSourceContext* here(unsigned int line) { return new CSourceContext("example", "examples/example", "main", line); }

// One catalogued message of each severity that lets the process go on. Each
// severity's actions come from the catalog: logging on "zvmsg.action", the
// console line and the error log "zvserr.log", storing, throwing.
void raiseCatalogedMessages() {
    const auto issue = CMessageFactory::IssueMessage;
    printf("Catalogued messages:\n");
    fflush(stdout);
    _MSG_String(here(__LINE__), 1001, "EXTA", issue);                        // ZVInfo
    _MSG_String_String(here(__LINE__), 1002, "EXTA", "zvlog.xml", issue);    // ZVInfoNoReport
    _MSG_String_UInt32(here(__LINE__), 1003, "EXTA", 42u, issue);            // ZVWarn
    // The same message right again is counted, not issued: the repetition
    // report follows (at the latest when the process ends).
    _MSG_String_UInt32(here(__LINE__), 1003, "EXTA", 42u, issue);
    _MSG_String_UInt32(here(__LINE__), 1004, "EXTA", 3u, issue);             // ZVWarnNoReport
    _MSG_String_UInt64(here(__LINE__), 1005, "REPA", 4711ull, issue);        // ZVError
    _MSG_String_String(here(__LINE__), 1006, "REPA", "table locked", issue); // ZVStore
    const CErrorContext& errors = CErrorContext::GetContext();
    printf("  stored for the caller: %zu message(s)\n", errors.GetServiceMessages().size());
    try {
        _MSG_String_String(here(__LINE__), 1007, "REPA", "ORDERS", issue);   // ZVException
    } catch (const ZVException& e) {
        printf("  caught %s: %s\n", e.GetCode(), e.what());
    }
    printf("\n");
}

}  // namespace

int main() {
    // The one start-up call of every program of the suite: the drop-in files,
    // then zvlog.xml, watched every second for as long as `configurator`
    // lives (main's end).
    DOMConfigurator configurator;
    ZVLOG_Enable(&configurator, 1000);

    // Where this process runs, as every message will describe it.
    printf("Process context:\n");
    printItem("ProcessHostName", ProcessHostName);
    printItem("ProcessExecutableBase", ProcessExecutableBase);
    printItem("ProcessID", ProcessID);
    printItem("BuildProgramString", BuildProgramString);
    printItem("BuildVersion", BuildVersion);
    printItem("DirProcessLog", DirProcessLog);
    printItem("DirStructureIsLegacy", DirStructureIsLegacy);
    printf("\n");

    LoggerRepository* repo = Logger::getRepository();

    raiseCatalogedMessages();

    // Configured from the files: the standard loggers at INFO, the program's
    // own logger at DEBUG, one logger from the drop-in file. (Run from
    // elsewhere or with QMR_HOME set, no file is found and these stay off.)
    printf("From zvlog.xml and qmr-example.xml:\n");
    fflush(stdout);
    Logger* configured = repo->getLogger("example.config");
    ZVLOG_STD(utility, LEVEL_INFO, "standard utility logger enabled by %s", "zvlog.xml");
    ZVLOG_STD(application, LEVEL_DEBUG, "not shown: the standard loggers are at INFO");
    ZVLOG_DEBUG(configured, "the program's own logger at DEBUG");
    ZVLOG_WARN(configured, "the password %s is filtered out", "hunter2");
    ZVLOG_INFO(repo->getLogger("example.dropin"), "configured by the drop-in file");
    fflush(stdout);
    printf("\n");

    // Everything reaches standard output through the root's appender.
    ConsoleAppender console(stdout);
    console.setName("console");
    console.setLayout(new PatternLayout("%d{%H:%M:%S} %-5p %c [%t] - %m%n"));
    repo->getRootLogger()->addAppender(console);

    // The capture process logs at DEBUG; its reader is noisy, so keep only
    // warnings from it, and drop anything that mentions a password.
    Logger* capture = repo->getLogger("capture");
    Logger* reader = capture->getChild("reader");
    capture->setLevel(LEVEL_DEBUG);
    reader->setLevel(LEVEL_WARN);
    auto* noSecrets = new StringMatchFilter();
    noSecrets->setStringToMatch("password");
    noSecrets->setAcceptOnMatch("false");
    console.addFilter(noSecrets);

    ZVLOG_INFO(capture, "capture process %s starting, %d tables", "EXTA", 12);
    ZVLOG_DEBUG(capture, "checkpoint at sequence %llu", 4096ull);
    ZVLOG_INFO(reader, "not shown: the reader only passes warnings");
    ZVLOG_WARN(reader, "transaction log %s is %.1f%% full", "redo01.log", 91.5);
    ZVLOG_ERROR(capture, "login with password %s refused", "hunter2");  // filtered

    // The delivery process writes through its own asynchronous appender on
    // standard error: the logging threads only queue their events.
    ConsoleAppender errors(stderr);
    errors.setName("errors");
    errors.setLayout(new PatternLayout("%p %c{1} [%t] %m%n"));
    errors.setThreshold(LEVEL_ERROR);
    errors.setAsynchronous(true);
    Logger* delivery = repo->getLogger("delivery.applier");
    delivery->setLevel(LEVEL_INFO);
    delivery->setAdditivity(false);
    delivery->addAppender(errors);
    delivery->addAppender(console);

    std::thread workers[2];
    for (int w = 0; w < 2; ++w) {
        workers[w] = std::thread([delivery, w] {
            LoggerRepository::setThreadName(w == 0 ? "applier-1" : "applier-2");
            for (int i = 0; i < 3; ++i) ZVLOG_INFO(delivery, "applied batch %d", i);
            ZVLOG_ERROR(delivery, "row %d of table %s conflicts", 100 + w, "ORDERS");
        });
    }
    for (std::thread& t : workers) t.join();
    errors.setAsynchronous(false);  // delivers what is still queued

    // A size-rolling log file: a bare name lands in the process's log
    // directory, and several processes of the suite may share it.
    RollingFileAppender rolling("file");
    rolling.setFile("zvlog_example.log");
    rolling.setMaxFileSize("64KB");
    rolling.setMaxBackupIndex(9);
    rolling.setLayout(new PatternLayout("%d %-5p %c [%t] - %m%n"));
    Logger* records = repo->getLogger("capture.records");
    records->setLevel(LEVEL_INFO);
    records->setAdditivity(false);
    records->addAppender(rolling);
    for (int i = 1; i <= 2000; ++i) ZVLOG_INFO(records, "record %d of %d from table %s", i, 2000, "ORDERS");
    rolling.close();
    printf("\nWrote 2000 records to %s and its backups\n", rolling.getFile().c_str());

    // What the thread's event buffer holds, in the binary form, for a reader.
    if (LogBuffer::saveAllToFile()) printf("Saved the event buffer to the log directory's zvlog-*.dmp\n");

    std::string report;
    repo->getSummaryReport(report);
    fflush(stdout);
    printf("\nSummary report:%s", report.c_str());
    repo->shutdown();
    return 0;
}
