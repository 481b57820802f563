#include "zvlog/msg/RaiseMessage.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <string>
#include <mutex>
#include <vector>

#include "zvlog/ErrorContext.h"
#include "zvlog/Message.h"
#include "zvlog/SourceContext.h"

namespace zvs::zvlib::zvlog::detail {

namespace {

std::mutex& countsMutex() {
    static std::mutex m;
    return m;
}

std::map<unsigned int, unsigned long long>& counts() {
    static auto* m = new std::map<unsigned int, unsigned long long>();
    return *m;
}

// A raise made while making or issuing another one (message 1425 for a missing
// argument, an appender that fails while logging the message) goes through
// the factory once more; deeper than that it is printed instead, so a failure
// that raises again cannot loop.
constexpr int kMaxRaiseDepth = 2;
thread_local int raiseDepth = 0;

class RaiseScope {
public:
    RaiseScope() { ++raiseDepth; }
    ~RaiseScope() { --raiseDepth; }
    RaiseScope(const RaiseScope&) = delete;
    RaiseScope& operator=(const RaiseScope&) = delete;
};

class KeepErrno {
public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

private:
    int saved_;
};

void appendArgument(std::string& line, const MessageArgument& a) {
    char buf[64];
    switch (a.kind) {
    case MessageArgument::Int32:
    case MessageArgument::Int64:
        snprintf(buf, sizeof buf, "%" PRId64, a.i64);
        line += buf;
        break;
    case MessageArgument::UInt32:
    case MessageArgument::UInt64:
        snprintf(buf, sizeof buf, "%" PRIu64, a.u64);
        line += buf;
        break;
    case MessageArgument::String:
        line += '\'';
        line += a.text;
        line += '\'';
        break;
    case MessageArgument::Pointer:
        snprintf(buf, sizeof buf, "%p", a.ptr);
        line += buf;
        break;
    }
}

// The fallback when the factory cannot be used (nested too deeply, or raised
// by the catalog's own load on this thread): one line on standard error with
// the code, where it was raised and the arguments.
template <class Arguments>
void printRaised(unsigned int number, const MessageSource& source, const Arguments& arguments) {
    char head[128];
    snprintf(head, sizeof head, "QMR-%05u: ", number % 100000);
    std::string line(head);
    line += source.component ? source.component : "";
    line += ' ';
    line += source.file ? source.file : "";
    line += ' ';
    line += source.function ? source.function : "";
    snprintf(head, sizeof head, " line %u", source.line);
    line += head;
    const char* separator = ": ";
    for (const MessageArgument& a : arguments) {
        line += separator;
        appendArgument(line, a);
        separator = ", ";
    }
    line += '\n';
    fwrite(line.data(), 1, line.size(), stderr);
    fflush(stderr);
}

// A raise kept until the thread leaves its outermost DeferredRaiseScope.
struct DeferredRaise {
    unsigned int number;
    std::string component, file, function;
    unsigned int line;
    std::vector<MessageArgument> arguments;
    std::vector<std::string> texts;  // what the String arguments point at
    RaiseMode mode;
};

thread_local int deferDepth = 0;
thread_local std::vector<DeferredRaise> deferred;

void keep(unsigned int number, const MessageSource& source, std::initializer_list<MessageArgument> arguments,
          RaiseMode mode) {
    DeferredRaise& d = deferred.emplace_back();
    d.number = number;
    d.component = source.component ? source.component : "";
    d.file = source.file ? source.file : "";
    d.function = source.function ? source.function : "";
    d.line = source.line;
    d.mode = mode;
    d.texts.reserve(arguments.size());
    for (const MessageArgument& a : arguments) {
        d.arguments.push_back(a);
        if (a.kind == MessageArgument::String) d.texts.emplace_back(a.text);
    }
    size_t text = 0;
    for (MessageArgument& a : d.arguments)
        if (a.kind == MessageArgument::String) a.text = d.texts[text++].c_str();
}

CDataItem toItem(const MessageArgument& a) {
    switch (a.kind) {
    case MessageArgument::Int32:
        return CDataItem(static_cast<int>(a.i64));
    case MessageArgument::UInt32:
        return CDataItem(static_cast<unsigned int>(a.u64));
    case MessageArgument::Int64:
        return CDataItem(static_cast<long long>(a.i64));
    case MessageArgument::UInt64:
        return CDataItem(static_cast<unsigned long long>(a.u64));
    case MessageArgument::String:
        return CDataItem(CDataItem::SafeStrdup(a.text), true);
    case MessageArgument::Pointer:
        break;
    }
    return CDataItem(a.ptr);
}

template <class Arguments>
void raiseNow(unsigned int number, const MessageSource& source, const Arguments& arguments, RaiseMode mode) {
    if (raiseDepth >= kMaxRaiseDepth) {
        printRaised(number, source, arguments);
        return;
    }
    const RaiseScope scope;
    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    if (!factory) {
        printRaised(number, source, arguments);
        return;
    }
    std::vector<CDataItem> items;
    items.reserve(arguments.size());
    for (const MessageArgument& a : arguments) items.push_back(toItem(a));
    // The message context owns the source context and deletes it.
    CMessage* message = factory->CreateMessageFromItems(
        new CSourceContext(source.component, source.file, source.function, source.line), number, items.data(),
        static_cast<unsigned int>(items.size()));
    if (!message) {
        printRaised(number, source, arguments);
        return;
    }
    if (mode == RaiseMode::Store) {
        CErrorContext& context = CErrorContext::GetContext();
        context += message;
        // A context that is issuing takes nothing.
        if (!context.Exists(message)) delete message;
    } else {
        CMessageFactory::ProcessMessage(message, CMessageFactory::IssueMessage);
    }
}

}  // namespace

void raiseMessage(unsigned int number, const MessageSource& source,
                  std::initializer_list<MessageArgument> arguments, RaiseMode mode) {
    const KeepErrno keepErrno;
    {
        std::lock_guard<std::mutex> lock(countsMutex());
        ++counts()[number];
    }
    if (deferDepth > 0) {
        keep(number, source, arguments, mode);
        return;
    }
    raiseNow(number, source, arguments, mode);
}

DeferredRaiseScope::DeferredRaiseScope() { ++deferDepth; }

DeferredRaiseScope::~DeferredRaiseScope() {
    if (--deferDepth > 0 || deferred.empty()) return;
    const KeepErrno keepErrno;
    // Raising may open scopes of its own, which find the list empty.
    std::vector<DeferredRaise> pending;
    pending.swap(deferred);
    try {
        for (const DeferredRaise& d : pending)
            raiseNow(d.number, MessageSource{d.component.c_str(), d.file.c_str(), d.function.c_str(), d.line},
                     d.arguments, d.mode);
    } catch (...) {
        // Nothing escapes into the code whose construction ended here.
    }
}

unsigned long long raisedMessageCount(unsigned int number) {
    std::lock_guard<std::mutex> lock(countsMutex());
    auto it = counts().find(number);
    return it == counts().end() ? 0 : it->second;
}

}  // namespace zvs::zvlib::zvlog::detail
