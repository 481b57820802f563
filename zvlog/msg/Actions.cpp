// The severity actions: what issuing a message does, bound by name when the
// catalog is loaded.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "zvlog/AppContext.h"
#include "zvlog/Appender.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/LegacyErrors.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvstd/Console.h"
#include "zvstd/Fatal.h"
#include "zvstd/MemoryFacts.h"
#include "zvstd/ModuleLoader.h"

namespace zvs::zvlib::zvlog::msg {

namespace {

using MultiThreading::MutexLock;

const char* const kFormattingError = "Formatting error";

// Several actions write only for a message whose report scope meets the
// process's.
bool reportGateOpen(const CMessage& message) {
    const CMessageFactory* factory = message.GetFactory();
    return factory && (message.GetReportMask() & factory->GetReportType()) != 0;
}

const char* textOf(const CMessage& message) {
    const char* text = message.Format(kDefaultCharSet);
    return text ? text : kFormattingError;
}

// ---- item lines -----------------------------------------------------------

// Seconds of 10 years or more are a point in time (shown in UTC); fewer are
// a duration such as a process's CPU time (shown as days and a clock).
std::string readableTime(const timespec& t) {
    char text[64];
    constexpr long long kDateThreshold = 10LL * 365 * 86400;
    const long long seconds = static_cast<long long>(t.tv_sec);
    if (seconds >= kDateThreshold) {
        time_t when = static_cast<time_t>(seconds);
        tm parts{};
        gmtime_r(&when, &parts);
        strftime(text, sizeof text, " (%Y-%m-%d %H:%M:%S UTC)", &parts);
    } else if (seconds < 0) {
        text[0] = 0;
    } else if (seconds >= 86400) {
        snprintf(text, sizeof text, " (%lldd %02lld:%02lld:%02lld)", seconds / 86400, seconds / 3600 % 24,
                 seconds / 60 % 60, seconds % 60);
    } else {
        snprintf(text, sizeof text, " (%02lld:%02lld:%02lld)", seconds / 3600, seconds / 60 % 60, seconds % 60);
    }
    return text;
}

// "%p" of the Windows runtime: 16 upper-case hexadecimal digits.
unsigned long long addressOf(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// One item line: "  %-24s: " with the name (or blanks), the type label when
// asked for, and the value in the type's format. An array prints its count
// and then each element on a line of its own.
void printItem(const char* name, const CDataItem& item, bool labels) {
    char prefix[512];
    snprintf(prefix, sizeof prefix, "  %-24s: ", name ? name : "");
    const CDataItem::Value& v = item.GetValue();
    switch (item.GetType()) {
    case CDataItem::TypeString:
        zvConsolePrint("%s%s[%s]\n", prefix, labels ? "string      : " : "", v.str ? v.str : "");
        break;
    case CDataItem::TypeInt:
        zvConsolePrint("%s%s[%ld]\n", prefix, labels ? "int32_t     : " : "", static_cast<long>(v.i32));
        break;
    case CDataItem::TypeUInt:
        zvConsolePrint("%s%s[%lu]\n", prefix, labels ? "uint32_t    : " : "", static_cast<unsigned long>(v.u32));
        break;
    case CDataItem::TypeInt64:
        zvConsolePrint("%s%s[%" PRId64 "]\n", prefix, labels ? "int64_t     : " : "", static_cast<int64_t>(v.i64));
        break;
    case CDataItem::TypeUInt64:
        zvConsolePrint("%s%s[%" PRIu64 "]\n", prefix, labels ? "uint64_t    : " : "", static_cast<uint64_t>(v.u64));
        break;
    case CDataItem::TypeBool:
        zvConsolePrint("%s%s[%s]\n", prefix, labels ? "Boolean     : " : "", v.b ? "true" : "false");
        break;
    case CDataItem::TypeTimespec:
        zvConsolePrint("%s%s[%ld.%09ld]%s\n", prefix, labels ? "DateTime    : " : "", static_cast<long>(v.ts.tv_sec),
                       static_cast<long>(v.ts.tv_nsec), readableTime(v.ts).c_str());
        break;
    case CDataItem::TypePointer:
        zvConsolePrint("%s%s[0x%016llX]\n", prefix, labels ? "Pointer     : " : "", addressOf(v.ptr));
        break;
    case CDataItem::TypeVector: {
        const std::vector<CDataItem>* elements = v.vec;
        const unsigned count = elements ? static_cast<unsigned>(elements->size()) : 0u;
        zvConsolePrint("%s%s[%u] elements\n", prefix, labels ? "array       : " : "", count);
        for (unsigned i = 0; i < count; ++i) printItem(nullptr, (*elements)[i], labels);
        break;
    }
    default:
        zvConsolePrint("%s%s[0x%016llX]\n", prefix, labels ? "Unknown     : " : "", addressOf(v.ptr));
        break;
    }
}

// A context item is read under its own lock: other threads may change it.
void printContextItem(const CContextItem& item, bool labels) {
    MutexLock lock(item.GetLock());
    printItem(CContext::GetContextItemName(item.GetID()), item, labels);
}

void printOwnItems(CContext& context, bool labels) {
    const unsigned count = context.GetItemCount(false);
    for (unsigned i = 0; i < count; ++i) {
        const ContextItemID id = context.GetItemID(i);
        if (id == ContextItemNone) continue;
        if (const CContextItem* item = context.GetItem(id)) printContextItem(*item, labels);
    }
}

void printContextTree(CContext& context) {
    printOwnItems(context, true);
    for (CContext* child : context.GetChildren())
        if (child) printContextTree(*child);
}

// ---- the actions ----------------------------------------------------------

bool actReport(const Action&, const CMessage& message) {
    char code[10];
    message.GetMessageCode(code);
    zvConsolePrint("%s: %s\n", code, textOf(message));
    return true;
}

bool actReportSourceContext(const Action&, const CMessage& message) {
    if (!reportGateOpen(message)) return true;
    zvConsolePrint("\nSource Context :\n");
    CMessageContext* context = message.GetContext();
    if (!context) return true;
    if (CContext* source = context->GetCaller()) printOwnItems(*source, false);

    // The arguments, named by their details (the names their items were
    // registered under).
    const CContextItem* detailsItem = context->GetItem(MessageDetails);
    if (!detailsItem) return true;
    MutexLock lock(detailsItem->GetLock());
    const std::vector<CDataItem>& arguments = context->GetDetails();
    const CMessageDefinition* definition = message.GetDefinition();
    for (size_t i = 0; i < arguments.size(); ++i) {
        const char* name = nullptr;
        if (definition && i < definition->details.size()) {
            const MessageDetail& detail = definition->details[i];
            name = detail.name.empty() ? CContext::GetContextItemName(detail.id) : detail.name.c_str();
        }
        printItem(name, arguments[i], false);
    }
    return true;
}

bool actReportAllContext(const Action&, const CMessage&) {
    if (CAppContext* app = getAppContext()) printContextTree(*app);
    return true;
}

bool actReportMemory(const Action&, const CMessage& message) {
    if (!reportGateOpen(message)) return true;
    zvConsolePrint("\nProcess Overview :\n");
    static const ContextItemID kOverview[] = {AppStartTime,          ProcessID,         ProcessClockTime,
                                              ProcessMemoryPhysical, ProcessMemoryVirtual, ProcessSystemTime,
                                              ProcessUserTime};
    CContext* context = message.GetContext();
    if (!context) context = getAppContext();
    for (ContextItemID id : kOverview)
        if (const CContextItem* item = context->GetItem(id)) printContextItem(*item, false);

    auto line = [](const char* name, uint64_t value) {
        zvConsolePrint("  %-24s: [%" PRId64 "]\n", name, static_cast<int64_t>(value));
    };
    ProcessMemoryFigures process;
    if (zvProcessMemory(process)) {
        zvConsolePrint("\nProcess Memory Details :\n");
        line("PageFaultCount", process.pageFaultCount);
        line("PeakWorkingSetSize", process.peakWorkingSetSize);
        line("WorkingSetSize", process.workingSetSize);
        line("QuotaPeakPagedPoolUsage", process.quotaPeakPagedPoolUsage);
        line("QuotaPagedPoolUsage", process.quotaPagedPoolUsage);
        line("QuotaPeakNonPagedPoolUsage", process.quotaPeakNonPagedPoolUsage);
        line("QuotaNonPagedPoolUsage", process.quotaNonPagedPoolUsage);
        line("PagefileUsage", process.pagefileUsage);
        line("PeakPagefileUsage", process.peakPagefileUsage);
    }
    SystemMemoryFigures system;
    if (zvSystemMemory(system)) {
        zvConsolePrint("\nSystem Memory Details :\n");
        line("dwMemoryLoad", system.memoryLoad);
        line("ullTotalPhys", system.totalPhys);
        line("ullAvailPhys", system.availPhys);
        line("ullTotalPageFile", system.totalPageFile);
        line("ullAvailPageFile", system.availPageFile);
        line("ullTotalVirtual", system.totalVirtual);
        line("ullAvailVirtual", system.availVirtual);
        line("ullAvailExtendedVirtual", system.availExtendedVirtual);
    }
    return true;
}

// The optional repository module, looked up once per process.
struct RepositoryModule {
    bool (*enabled)(int) = nullptr;
    void (*record)(const CMessage*) = nullptr;
};

const RepositoryModule& repositoryModule() {
    static const RepositoryModule module = [] {
        RepositoryModule m;
        if (void* handle = zvLoadModule("zvrepo")) {
            m.enabled = reinterpret_cast<bool (*)(int)>(zvFindSymbol(handle, "ZVREPO_Enabled"));
            m.record = reinterpret_cast<void (*)(const CMessage*)>(zvFindSymbol(handle, "ZVREPO_RecordMessage"));
        }
        return m;
    }();
    return module;
}

bool actRecordMessage(const Action&, const CMessage& message) {
    if (!reportGateOpen(message)) return true;
    const RepositoryModule& module = repositoryModule();
    if (module.enabled && module.record && module.enabled(0)) module.record(&message);
    return true;
}

// Fetched when the library loads: a message may be raised, and this action
// run, while the thread holds the repository's lock (a logger being created
// reports a bad name), and the lookup would take that lock again.
Logger* const actionLogger = Logger::getRepository()->getLogger("zvmsg.action");

bool actLog(const Action&, const CMessage& message) {
    Logger* logger = actionLogger ? actionLogger : Logger::getRepository()->getLogger("zvmsg.action");
    if (!logger->isEnabledFor(LEVEL_INFO)) return true;
    char code[10];
    message.GetMessageCode(code);
    const char* text = textOf(message);
    ZVLOG_LOG_AT(logger, LEVEL_INFO, "zvlog/msgAction", "CAction::Log", 236, "%s: %s", code, text);
    return true;
}

// Accepted so that catalogs written for other platforms load; here they do
// nothing and report failure.
bool actNothing(const Action&, const CMessage&) { return false; }

bool actEnd(const Action&, const CMessage&) {
    fflush(stdout);
    if (ExitFunction exitFunction = zvGetExitFunction()) exitFunction(12);
    exit(12);
}

bool legacyEntry(const CMessage& message, unsigned char level, bool console) {
    if (!reportGateOpen(message)) return true;
    const char* text = textOf(message);
    char code[10];
    message.GetMessageCode(code);
    if (console)
        issueMessage(message.GetMessageID(), code, text, level);
    else
        issueMessageNoReport(message.GetMessageID(), code, text, level);
    return true;
}

bool actZVInfo(const Action&, const CMessage& m) { return legacyEntry(m, LEVEL_INFO, true); }
bool actZVInfoNoReport(const Action&, const CMessage& m) { return legacyEntry(m, LEVEL_INFO, false); }
bool actZVWarn(const Action&, const CMessage& m) { return legacyEntry(m, LEVEL_WARN, true); }
bool actZVError(const Action&, const CMessage& m) { return legacyEntry(m, LEVEL_ERROR, true); }

std::string stringItem(const CContext& context, ContextItemID id) {
    const CContextItem* item = context.GetItem(id);
    if (!item) return std::string();
    MutexLock lock(item->GetLock());
    if (item->GetType() != CDataItem::TypeString || !item->GetValue().str) return std::string();
    return item->GetValue().str;
}

// The source file and line of the thrower go into the exception's log line,
// the thrower's function name is its detail text.
bool actThrowException(const Action&, const CMessage& message) {
    std::string method, file;
    unsigned int line = 0;
    if (const CContext* context = message.GetContext()) {
        method = stringItem(*context, SourceMethod);
        file = stringItem(*context, SourceID);
        if (const CContextItem* item = context->GetItem(SourceLine)) {
            MutexLock lock(item->GetLock());
            line = static_cast<unsigned int>(*item);
        }
    }
    const std::string text = textOf(message);
    char code[10];
    message.GetMessageCode(code);
    throw ZVException(text.c_str(), message.GetMessageID(), code, file.c_str(), static_cast<unsigned short>(line),
                      method.c_str());
}

// The error context does not own its service messages: the copies that this
// action makes belong to the thread that made them and go when it ends. The
// slot is made when the library loads, so its key precedes the error
// context's and the copies go before the context their own contexts point
// into.
struct StoredCopies {
    std::vector<CMessage*> messages;
    ~StoredCopies() {
        for (CMessage* m : messages) delete m;
    }
};

MultiThreading::ThreadLocal& storedCopiesSlot() {
    static MultiThreading::ThreadLocal* const slot =
        new MultiThreading::ThreadLocal(new MultiThreading::DataCreatorImpl<StoredCopies>());
    return *slot;
}
[[maybe_unused]] const bool storedCopiesSlotAtLoad = (storedCopiesSlot(), true);

bool actStoreMessage(const Action&, const CMessage& message) {
    CMessageFactory* factory = CMessageFactory::PeekDefaultFactory();
    if (!factory) return true;
    CMessage* copy = factory->CreateMessage(&message);
    if (!copy) return true;
    static_cast<StoredCopies*>(storedCopiesSlot().get())->messages.push_back(copy);
    CErrorContext::GetContext().AddServiceMessage(copy);
    return true;
}

bool actFatalErrorAbend(const Action&, const CMessage& message) {
    Appender::flushOutput();
    fflush(stdout);
    fflush(stderr);
    const std::string text = textOf(message);
    processFatalError(message.GetMessageID(), text.c_str());
    return false;
}

struct Binding {
    const char* name;
    CActionAttribute attributes;
    MemberOperation operation;
};

// 1: ends the process, 2: interactive, 4: everything else.
constexpr Binding kBindings[] = {
    {"Report", 4, &actReport},
    {"ReportSourceContext", 4, &actReportSourceContext},
    {"ReportAllContext", 4, &actReportAllContext},
    {"ReportMemory", 4, &actReportMemory},
    {"RecordMessage", 4, &actRecordMessage},
    {"Log", 4, &actLog},
    {"Pause", 2, &actNothing},
    {"Debug", 2, &actNothing},
    {"End", 1, &actEnd},
    {"Core", 4, &actNothing},
    {"Bundle", 4, &actNothing},
    {"ZVInfo", 4, &actZVInfo},
    {"ZVInfoNoReport", 4, &actZVInfoNoReport},
    {"ZVWarn", 4, &actZVWarn},
    {"ZVError", 4, &actZVError},
    {"ThrowException", 4, &actThrowException},
    {"StoreMessage", 4, &actStoreMessage},
    {"ZVFatalErrorAbend", 1, &actFatalErrorAbend},
};

}  // namespace

bool bindAction(const char* name, Action& action) {
    action.name = name ? name : "";
    action.member = nullptr;
    action.plain = nullptr;
    if (!name) return false;
    for (const Binding& binding : kBindings) {
        if (strcmp(binding.name, name) != 0) continue;
        action.attributes = binding.attributes;
        action.member = binding.operation;
        return true;
    }
    return false;
}

}  // namespace zvs::zvlib::zvlog::msg
