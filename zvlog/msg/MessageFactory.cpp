// The message factory: finds and loads the compiled catalog once per process,
// makes message definitions from it on demand, makes messages, and hands
// finished messages to duplicate detection and their severity's actions.
//
// The catalog's entry layout is described in catalog/README.md; this file
// reads exactly that.
#include <unicode/putil.h>
#include <unicode/udata.h>
#include <unicode/ures.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "zvlog/AppContext.h"
#include "zvlog/CSConverter.h"
#include "zvlog/CatalogVersion.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/Logger.h"
#include "zvlog/SourceContext.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/MessageTesting.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvunicode/IcuConverterPath.h"

namespace msg = zvs::zvlib::zvlog::msg;
using msg::Action;
using msg::MessageDetail;
using msg::Severity;
using zvs::zvlib::MultiThreading::MutexLock;

// Makes factories for GetDefaultFactory and the test hook (the constructor
// is private).
struct CMessageFactoryAccess {
    static CMessageFactory* make() { return new CMessageFactory(); }
};

namespace {

constexpr const char* kPackage = "zvMessage";
// From this number on a definition is only a pattern and its details.
constexpr unsigned int kPatternOnlyFrom = 10000000;
constexpr unsigned int kMissingArgument = 1425;

class KeepErrno {
public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }

private:
    int saved_;
};

// Where load failures are told: standard error (flushed at once), or a
// string for the test hook.
class Diagnostics {
public:
    explicit Diagnostics(std::string* sink) : sink_(sink) {}

    __attribute__((format(printf, 2, 3))) void write(const char* format, ...) {
        va_list args;
        va_start(args, format);
        if (sink_) {
            char buffer[2048];
            vsnprintf(buffer, sizeof buffer, format, args);
            *sink_ += buffer;
        } else {
            vfprintf(stderr, format, args);
            fflush(stderr);
        }
        va_end(args);
    }

    void cannotLoad(const char* what, UErrorCode status) {
        const unsigned long code = static_cast<unsigned long>(status);
        const char* text = CErrorContext::GetContext().OSErrorText(static_cast<unsigned int>(status));
        write("Cannot load ICU resource bundle '%s', error code %lu - %s\n", what, code, text ? text : "");
    }

    void wrongVersion(const char* received) {
        write("The ICU resource bundle, '%s', is the wrong version.  Expecting '%s' but received '%s'.\n", kPackage,
              ZVLOG_CATALOG_UUID, received);
    }

private:
    std::string* sink_;
};

// A catalog text in the platform's default code page.
bool toDefaultCodePage(const icu::UnicodeString& text, std::string& out) {
    CSConverter converter(ULIB_CS_PLATFORM_DEFAULT);
    return converter.isValid() && converter.fromUnicode(text, out);
}

bool readWhole(const std::string& path, std::vector<char>& bytes) {
    FILE* file = fopen(path.c_str(), "rb");
    if (!file) return false;
    bool read = false;
    if (fseek(file, 0, SEEK_END) == 0) {
        const long size = ftell(file);
        if (size > 0 && fseek(file, 0, SEEK_SET) == 0) {
            bytes.resize(static_cast<size_t>(size));
            read = fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
        }
    }
    fclose(file);
    if (!read) std::vector<char>().swap(bytes);
    return read;
}

// Class and code keys: the characters packed little end first.
uint32_t classKey(const char* text) {
    const auto* c = reinterpret_cast<const unsigned char*>(text);
    uint32_t key = c[0];
    if (c[0]) key |= static_cast<uint32_t>(c[1]) << 8;
    return key;
}

uint32_t codeKey(const char* text) {
    const auto* c = reinterpret_cast<const unsigned char*>(text);
    uint32_t key = 0;
    for (int i = 0; i < 3 && c[i]; ++i) key |= static_cast<uint32_t>(c[i]) << (8 * i);
    return key;
}

uint32_t reportScopeBits(const std::string& name) {
    static const struct {
        const char* name;
        uint32_t bits;
    } kScopes[] = {
        {"All", 0x7fff},          {"NonParallel", 0x7ff0},    {"ParallelMaster", 0x1}, {"ParallelWorker", 0x2},
        {"ParallelMapper", 0x4}, {"ParallelApplier", 0x8}, {"Parallel", 0xf},
    };
    for (const auto& scope : kScopes)
        if (name == scope.name) return scope.bits;
    return 0;
}

bool detailKind(const std::string& name, MessageDetail::Kind& kind) {
    static const struct {
        const char* name;
        MessageDetail::Kind kind;
    } kKinds[] = {
        {"Int32", MessageDetail::Int32},   {"UInt32", MessageDetail::UInt32},   {"Int64", MessageDetail::Int64},
        {"UInt64", MessageDetail::UInt64}, {"String", MessageDetail::String},   {"Pointer", MessageDetail::Pointer},
        {"DateTime", MessageDetail::DateTime},
    };
    for (const auto& k : kKinds)
        if (name == k.name) {
            kind = k.kind;
            return true;
        }
    return false;
}

// The strings of a resource that is either one string or an array of them
// (the resource compiler makes "{ "x" }" a plain string).
bool resourceStrings(const icu::ResourceBundle& resource, std::vector<std::string>& out) {
    const int32_t size = resource.getType() == URES_STRING ? 1 : resource.getSize();
    for (int32_t i = 0; i < size; ++i) {
        UErrorCode status = U_ZERO_ERROR;
        const icu::UnicodeString text = resource.getStringEx(i, status);
        std::string converted;
        if (U_FAILURE(status) || !toDefaultCodePage(text, converted)) return false;
        out.push_back(std::move(converted));
    }
    return true;
}

const char* internedDetailName(const std::string& name) {
    static std::mutex mutex;
    static auto* names = new std::set<std::string>();
    std::lock_guard<std::mutex> lock(mutex);
    return names->insert(name).first->c_str();
}

// One { item name, kind, display form } entry of a definition's details.
bool readDetail(const icu::ResourceBundle& entry, MessageDetail& detail) {
    std::vector<std::string> fields;
    if (entry.getType() != URES_ARRAY || !resourceStrings(entry, fields) || fields.size() < 2) return false;
    if (!detailKind(fields[1], detail.kind)) return false;
    detail.name = fields[0];
    // The name table keeps the pointer it is given: hand it one that lives
    // as long as the process.
    detail.id = CContext::GetContextItemID(internedDetailName(detail.name));
    detail.form = fields.size() > 2 ? atoi(fields[2].c_str()) : 0;
    return true;
}

bool readDetails(const icu::ResourceBundle& entry, int32_t index, std::vector<MessageDetail>& details) {
    if (index >= entry.getSize()) return true;  // a definition without arguments may leave them out
    UErrorCode status = U_ZERO_ERROR;
    const icu::ResourceBundle list = entry.get(index, status);
    if (U_FAILURE(status)) return false;
    if (list.getType() != URES_ARRAY && list.getType() != URES_TABLE) return false;
    for (int32_t i = 0; i < list.getSize(); ++i) {
        const icu::ResourceBundle item = list.get(i, status);
        MessageDetail detail;
        if (U_FAILURE(status) || !readDetail(item, detail)) return false;
        details.push_back(std::move(detail));
    }
    return true;
}

bool readString(const icu::ResourceBundle& entry, int32_t index, icu::UnicodeString& out) {
    UErrorCode status = U_ZERO_ERROR;
    out = entry.getStringEx(index, status);
    return U_SUCCESS(status);
}

// The first `width` characters of a catalog text into a blank-filled field.
bool readField(const icu::ResourceBundle& entry, int32_t index, char* field, size_t width) {
    icu::UnicodeString text;
    std::string converted;
    if (!readString(entry, index, text) || !toDefaultCodePage(text, converted)) return false;
    for (size_t i = 0; i < width && i < converted.size(); ++i) field[i] = converted[i];
    return true;
}

// The calling thread's own duplicate-suppression flag.
thread_local bool tSuppressDuplicates = true;
// Set while this thread loads the default catalog: whatever the load itself
// raises must not start a second load.
thread_local bool tLoadingDefault = false;
// Set while this thread raises message 1425, which must not raise itself.
thread_local bool tRaisingMissing = false;

std::atomic<CMessageFactory*> gDefaultFactory{nullptr};

// Reaches the protected child list of a message context.
struct ContextAccess : CContext {
    static bool removeChild(CContext* parent, const CContext* child) {
        bool (CContext::*remove)(const CContext*) = &ContextAccess::RemoveContext;
        return (parent->*remove)(child);
    }
};

}  // namespace

// ---- Loading ---------------------------------------------------------------

Severity* CMessageFactory::Impl::findSeverity(const char* name) const {
    if (!name) return nullptr;
    for (Severity* severity : severities)
        if (severity->name == name) return severity;
    return nullptr;
}

namespace {

// Calls `use` with each entry of a table and its key; false with the ICU
// error when the table or an entry cannot be read.
template <class Use>
bool forEachEntry(const icu::ResourceBundle& bundle, const char* table, UErrorCode& status, Use use) {
    const icu::ResourceBundle entries = bundle.get(table, status);
    for (int32_t i = 0; U_SUCCESS(status) && i < entries.getSize(); ++i) {
        const icu::ResourceBundle entry = entries.get(i, status);
        if (U_SUCCESS(status)) use(entry, entry.getKey() ? entry.getKey() : "");
    }
    return U_SUCCESS(status);
}

// Step 5 on: version, severities and their actions, class and code
// severities, issue limits.
bool readTables(CMessageFactory::Impl& impl, Diagnostics& diagnostics) {
    icu::ResourceBundle& bundle = *impl.bundle;
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString uuid = bundle.getStringEx("UUID", status);
    if (U_FAILURE(status)) {
        diagnostics.wrongVersion("<Not Found>");
        return false;
    }
    std::string received;
    if (!toDefaultCodePage(uuid, received) || received != ZVLOG_CATALOG_UUID) {
        diagnostics.wrongVersion(received.c_str());
        return false;
    }

    const icu::ResourceBundle severities = bundle.get("SeverityActions", status);
    if (U_FAILURE(status)) {
        diagnostics.cannotLoad(kPackage, status);
        return false;
    }
    for (int32_t i = 0; i < severities.getSize(); ++i) {
        const icu::ResourceBundle entry = severities.get(i, status);
        if (U_FAILURE(status)) {
            diagnostics.cannotLoad(kPackage, status);
            return false;
        }
        auto* severity = new Severity();
        severity->name = entry.getKey() ? entry.getKey() : "";
        impl.severities.push_back(severity);
        std::vector<std::string> names;
        if (!resourceStrings(entry, names)) {
            diagnostics.write("The ICU resource bundle, '%s', has an action of severity '%s' that cannot be read.\n",
                              kPackage, severity->name.c_str());
            return false;
        }
        for (const std::string& name : names) {
            Action action;
            action.name = name;
            action.attributes = 4;
            // An action that binds nothing would silently do nothing: a
            // catalog that names one is broken.
            if (!msg::bindAction(name.c_str(), action)) {
                diagnostics.write("The ICU resource bundle, '%s', names the unknown action '%s' for severity '%s'.\n",
                                  kPackage, name.c_str(), severity->name.c_str());
                return false;
            }
            severity->actions.push_back(std::move(action));
        }
    }

    // Class severities, code severities and issue limits: an entry whose
    // severity is unknown records nothing.
    const bool tablesRead =
        forEachEntry(bundle, "MessageClassSeverity", status,
                     [&](const icu::ResourceBundle& entry, const char* key) {
                         std::vector<std::string> names;
                         if (!resourceStrings(entry, names) || names.empty()) return;
                         if (Severity* severity = impl.findSeverity(names[0].c_str()))
                             impl.classSeverities[classKey(key)].severity = severity;
                     }) &&
        forEachEntry(bundle, "MessageCodeSeverity", status,
                     [&](const icu::ResourceBundle& entry, const char* key) {
                         std::vector<std::string> names;
                         if (strlen(key) < 2 || !resourceStrings(entry, names) || names.empty()) return;
                         if (Severity* severity = impl.findSeverity(names[0].c_str()))
                             impl.classSeverities[classKey(key)].codes[codeKey(key + 2)] = severity;
                     }) &&
        forEachEntry(bundle, "MessageMaxIssue", status, [&](const icu::ResourceBundle& entry, const char* key) {
            const auto number = static_cast<unsigned int>(atol(key));
            const unsigned int limit = entry.getUInt(status);
            if (U_SUCCESS(status)) impl.issueLimits.emplace(number, limit);  // the first entry wins
        });
    if (!tablesRead) {
        diagnostics.cannotLoad(kPackage, status);
        return false;
    }
    return true;
}

bool openBundle(CMessageFactory::Impl& impl, const char* packagePath, Diagnostics& diagnostics) {
    UErrorCode status = U_ZERO_ERROR;
    auto* bundle = new icu::ResourceBundle(packagePath, impl.locale, status);
    if (U_FAILURE(status)) {
        delete bundle;
        diagnostics.cannotLoad(packagePath, status);
        return false;
    }
    impl.bundle = bundle;
    return true;
}

// Steps 1 to 4 of the default load: the file named by the application in the
// library, executable and working directories, registered as the package's
// data; else those directories on ICU's data path, followed by the data
// directory of an installed library.
bool openDefaultCatalog(CMessageFactory::Impl& impl, Diagnostics& diagnostics) {
    const std::string directories[3] = {getAppContextText(DirProcessLib), getAppContextText(ProcessExecutableDir),
                                        getAppContextText(ProcessWorkingDir)};
    const std::string stem = getAppContextText(BuildApplication);
    bool registered = false;
    for (const std::string& directory : directories) {
        // A program that does not name itself has no catalog file of its own.
        if (stem.empty() || directory.empty()) continue;
        const std::string path = directory + "/" + stem + ".dat";
        if (!readWhole(path, impl.catalogBytes)) continue;
        UErrorCode status = U_ZERO_ERROR;
        udata_setAppData(kPackage, impl.catalogBytes.data(), &status);
        if (U_FAILURE(status)) {
            diagnostics.cannotLoad(path.c_str(), status);
            return false;
        }
        registered = true;
        break;
    }
    if (!registered) {
        // The platform's path separator: ICU splits its data path at it.
        const char* current = u_getDataDirectory();
        std::string path = current ? current : "";
        for (const std::string& directory : directories) {
            if (directory.empty()) continue;
            if (!path.empty()) path += U_PATH_SEP_CHAR;
            path += directory;
        }
        // Last, the catalog installed with the library: a program that ships
        // none of its own still gets the library's messages.
        const std::string installed = zvInstalledLibraryDataDirectory();
        if (!installed.empty()) {
            if (!path.empty()) path += U_PATH_SEP_CHAR;
            path += installed;
        }
        u_setDataDirectory(path.c_str());
    }
    return openBundle(impl, kPackage, diagnostics);
}

// Message 1425 for one argument that a message was made without.
void raiseMissingArgument(CMessageFactory& factory, unsigned int number, unsigned int position,
                          const MessageDetail& detail) {
    if (tRaisingMissing) return;
    tRaisingMissing = true;
    char unnamed[16];
    const char* name = detail.name.c_str();
    if (!*name) {
        snprintf(unnamed, sizeof unnamed, "0x%08x", static_cast<unsigned int>(detail.id));
        name = unnamed;
    }
    const CDataItem arguments[3] = {CDataItem(position), CDataItem(name), CDataItem(number)};
    CMessage* report = factory.CreateMessageFromItems(
        new CSourceContext("zvmsg", "zvlog/zvmsg", "CMessageFactory::CreateMessage", 1226), kMissingArgument,
        arguments, 3);
    CMessageFactory::ProcessMessage(report, CMessageFactory::IssueMessage);
    tRaisingMissing = false;
}

}  // namespace

// ---- The default factory ---------------------------------------------------

CMessageFactory::CMessageFactory() : impl_(new Impl()) {}

CMessageFactory::~CMessageFactory() {
    msg::Repetition& repetition = impl_->repetition;
    if (repetition.thread) {
        msg::stopRepetition(*impl_);
        delete repetition.thread;
        repetition.thread = nullptr;
    }
    delete repetition.held;
    repetition.held = nullptr;
    for (auto& entry : impl_->definitions) delete entry.second;
    delete impl_->bundle;
    for (Severity* severity : impl_->severities) delete severity;
    delete impl_;
}

CMessageFactory* CMessageFactory::PeekDefaultFactory() { return gDefaultFactory.load(std::memory_order_acquire); }

CMessageFactory* CMessageFactory::GetDefaultFactory() {
    if (CMessageFactory* factory = gDefaultFactory.load(std::memory_order_acquire)) return factory;
    // Something the load itself raised: no factory yet for it.
    if (tLoadingDefault) return nullptr;
    KeepErrno keepErrno;
    // Raised while the catalog loads (by the contexts it reads, say): issued
    // once the factory is in place, after the lock below is released.
    const zvs::zvlib::zvlog::detail::DeferredRaiseScope deferRaises;
    static std::mutex creation;
    std::lock_guard<std::mutex> lock(creation);
    if (CMessageFactory* factory = gDefaultFactory.load(std::memory_order_acquire)) return factory;

    tLoadingDefault = true;
    CMessageFactory* factory = CMessageFactoryAccess::make();
    Diagnostics diagnostics(nullptr);
    const bool loaded = openDefaultCatalog(*factory->impl_, diagnostics) && readTables(*factory->impl_, diagnostics);
    tLoadingDefault = false;
    if (!loaded) {
        // A broken installation: the reason is on standard error already.
        delete factory;
        zvs::zvlib::zvlog::Logger::getRepository()->shutdown();
        abort();
    }
    gDefaultFactory.store(factory, std::memory_order_release);
    return factory;
}

namespace zvs::zvlib::zvlog::msg::testing {

CMessageFactory* loadFactory(const char* packagePath, std::string* diagnosticsText) {
    KeepErrno keepErrno;
    CMessageFactory* factory = CMessageFactoryAccess::make();
    Diagnostics diagnostics(diagnosticsText);
    if (!openBundle(*factory->impl(), packagePath, diagnostics) || !readTables(*factory->impl(), diagnostics)) {
        delete factory;
        return nullptr;
    }
    return factory;
}

}  // namespace zvs::zvlib::zvlog::msg::testing

// ---- Definitions -----------------------------------------------------------

namespace {

// Builds one definition from the catalog; null when the entry cannot be read.
// Ends the process when the catalog does not know the number.
CMessageDefinition* buildDefinition(CMessageFactory::Impl& impl, unsigned int number) {
    char key[24];
    snprintf(key, sizeof key, "%lu", static_cast<unsigned long>(number));
    UErrorCode status = U_ZERO_ERROR;
    const icu::ResourceBundle entry = impl.bundle->get(key, status);
    if (status == U_MISSING_RESOURCE_ERROR) {
        fprintf(stderr,
                "The ICU resource bundle, '%s', is missing message number %lu. Please ensure the bundle is the "
                "correct version.\n",
                kPackage, static_cast<unsigned long>(number));
        fflush(stderr);
        abort();
    }
    if (U_FAILURE(status)) return nullptr;

    auto definition = std::make_unique<CMessageDefinition>();
    definition->number = number;
    if (number >= kPatternOnlyFrom) {
        if (!readString(entry, 0, definition->pattern) || !readDetails(entry, 1, definition->details)) return nullptr;
        return definition.release();
    }

    if (!readField(entry, 0, definition->messageClass, 2) || !readField(entry, 1, definition->code, 3) ||
        !readString(entry, 3, definition->pattern) || !readDetails(entry, 6, definition->details))
        return nullptr;
    const icu::ResourceBundle scopes = entry.get(2, status);
    std::vector<std::string> scopeNames;
    if (U_FAILURE(status) || !resourceStrings(scopes, scopeNames)) return nullptr;
    for (const std::string& name : scopeNames) definition->reportMask |= reportScopeBits(name);

    // The class decides; a code entry of that class overrides it for that code.
    const auto found = impl.classSeverities.find(classKey(definition->messageClass));
    if (found != impl.classSeverities.end()) {
        const auto code = found->second.codes.find(codeKey(definition->code));
        definition->severity = code != found->second.codes.end() ? code->second : found->second.severity;
    }
    return definition.release();
}

const CMessageDefinition* findDefinition(CMessageFactory::Impl& impl, unsigned int number) {
    MutexLock lock(impl.cacheLock);
    const auto found = impl.definitions.find(number);
    if (found != impl.definitions.end()) return found->second;
    CMessageDefinition* definition = buildDefinition(impl, number);
    if (definition) impl.definitions.emplace(number, definition);
    return definition;
}

}  // namespace

// ---- Making messages ---------------------------------------------------------

CMessage* CMessageFactory::CreateMessage(CSourceContext* source, unsigned int number, ...) {
    KeepErrno keepErrno;
    const CMessageDefinition* definition = findDefinition(*impl_, number);
    if (!definition) {
        delete source;
        return nullptr;
    }
    auto* context = new CMessageContext(source);
    va_list arguments;
    va_start(arguments, number);
    for (const MessageDetail& detail : definition->details) {
        switch (detail.kind) {
        case MessageDetail::Int32:
            context->AppendDetail(CDataItem(va_arg(arguments, int)));
            break;
        case MessageDetail::UInt32:
            context->AppendDetail(CDataItem(va_arg(arguments, unsigned int)));
            break;
        case MessageDetail::Int64:
            context->AppendDetail(CDataItem(va_arg(arguments, long long)));
            break;
        case MessageDetail::UInt64:
            context->AppendDetail(CDataItem(va_arg(arguments, unsigned long long)));
            break;
        case MessageDetail::String:
            context->AppendDetail(CDataItem(CDataItem::SafeStrdup(va_arg(arguments, const char*)), true));
            break;
        case MessageDetail::Pointer:
            context->AppendDetail(CDataItem(va_arg(arguments, const void*)));
            break;
        case MessageDetail::DateTime:
            context->AppendDetail(CDataItem(va_arg(arguments, timeval)));
            break;
        }
    }
    va_end(arguments);
    return new CMessage(this, definition, context);
}

CMessage* CMessageFactory::CreateMessageFromItems(CSourceContext* source, unsigned int number,
                                                  const CDataItem* arguments, unsigned int count) {
    KeepErrno keepErrno;
    const CMessageDefinition* definition = findDefinition(*impl_, number);
    if (!definition) {
        delete source;
        return nullptr;
    }
    if (!arguments) count = 0;
    std::vector<CDataItem> values(arguments, arguments + count);
    const size_t expected = definition->details.size();
    static const char* const kMissing = "<Missing>";
    for (size_t i = count; i < expected; ++i) values.emplace_back(kMissing);
    auto* context = new CMessageContext(source);
    context->SetDetails(values);
    auto* message = new CMessage(this, definition, context);
    for (size_t i = count; i < expected; ++i)
        raiseMissingArgument(*this, number, static_cast<unsigned int>(i + 1), definition->details[i]);
    return message;
}

CMessage* CMessageFactory::CreateMessage(const CMessage* other) {
    if (!other) return nullptr;
    KeepErrno keepErrno;
    const CMessageDefinition* definition =
        other->GetFactory() == this ? other->GetDefinition() : findDefinition(*impl_, other->GetMessageID());
    if (!definition) return nullptr;
    CMessageContext* from = other->GetContext();
    CSourceContext* source = nullptr;
    if (const auto* otherSource = dynamic_cast<const CSourceContext*>(from->GetCaller()))
        source = new CSourceContext(*otherSource);
    auto* context = new CMessageContext(source);
    if (CContextItem* details = from->GetItem(MessageDetails)) {
        MutexLock lock(details->GetLock());
        context->SetDetails(from->GetDetails());
    }
    CContextItem* time = from->GetItem(MessageTime);
    CContextItem* copyTime = context->GetItem(MessageTime);
    if (time && copyTime) {
        CDataItem value(timespec{});
        {
            MutexLock lock(time->GetLock());
            value = *time;
        }
        copyTime->Assign(value);
    }
    return new CMessage(this, definition, context);
}

// ---- Processing ----------------------------------------------------------------

CMessage* CMessageFactory::ProcessMessage(CMessage* message, MessageDisposition disposition) {
    if (!message) return nullptr;
    if (disposition == ReturnMessage) return message;
    if (disposition != IssueMessage) return nullptr;
    KeepErrno keepErrno;
    Impl& impl = *message->GetFactory()->impl_;
    if (impl.suppressDuplicates.load(std::memory_order_relaxed) && GetSuppressDuplicateMessages() &&
        !impl.repetition.stop.isSet()) {
        {
            // Only looked at here: Issue consumes the count.
            MutexLock lock(impl.limitLock);
            const auto limit = impl.issueLimits.find(message->GetMessageID());
            if (limit != impl.issueLimits.end() && limit->second == 0) {
                delete message;
                return nullptr;
            }
        }
        if (!msg::processWithRepetition(impl, message)) {
            // The repetition lock was busy: issued without detection, the
            // issue limit still counting.
            message->Issue(kAllActions);
            delete message;
        }
        return nullptr;
    }
    message->IssueActions(kAllActions);
    delete message;
    return nullptr;
}

bool CMessageFactory::RemoveContext(const CErrorContext* context) {
    if (!context) return false;
    msg::Repetition& repetition = impl_->repetition;
    // A thread that holds the lock already (issuing the held message) must
    // not take it again.
    const bool locked = !repetition.lock.heldByCurrentThread();
    if (locked) repetition.lock.lock();
    const bool removed = repetition.held && repetition.held->GetContext() &&
                         ContextAccess::removeChild(repetition.held->GetContext(), context);
    if (locked) repetition.lock.unlock();
    return removed;
}

// ---- Settings --------------------------------------------------------------------

void CMessageFactory::SuppressDuplicateMessages(bool on) {
    impl_->suppressDuplicates.store(on, std::memory_order_relaxed);
}

bool CMessageFactory::GetSuppressDuplicateMessages() { return tSuppressDuplicates; }

void CMessageFactory::SetThreadSuppressDuplicateMessages(bool on) { tSuppressDuplicates = on; }

void CMessageFactory::SetReportType(CMessageReportType type) {
    impl_->reportType.store(type, std::memory_order_relaxed);
}

CMessageReportType CMessageFactory::GetReportType() const { return impl_->reportType.load(std::memory_order_relaxed); }

void CMessageFactory::RunningAsService() {
    CMessageFactory* factory = GetDefaultFactory();
    if (!factory) return;
    Impl& impl = *factory->impl_;
    if (Severity* store = impl.findSeverity(SeverityNames::ZVStore)) {
        for (const char* name : {SeverityNames::ZVInfo, SeverityNames::ZVInfoNoReport, SeverityNames::ZVWarn,
                                 SeverityNames::ZVWarnNoReport, SeverityNames::ZVError})
            if (Severity* severity = impl.findSeverity(name)) severity->redirect.store(store);
    }
    factory->SuppressDuplicateMessages(false);
}

CMessageFactory::operator icu::ResourceBundle*() const { return impl_->bundle; }

CMessageFactory::FatalErrorAsException::FatalErrorAsException() {
    CMessageFactory* factory = GetDefaultFactory();
    if (!factory) return;
    Severity* fatal = factory->impl_->findSeverity(SeverityNames::ZVFatal);
    if (fatal) fatal->redirect.store(factory->impl_->findSeverity(SeverityNames::ZVException));
}

CMessageFactory::FatalErrorAsException::~FatalErrorAsException() {
    CMessageFactory* factory = PeekDefaultFactory();
    if (!factory) return;
    if (Severity* fatal = factory->impl_->findSeverity(SeverityNames::ZVFatal)) fatal->redirect.store(nullptr);
}
