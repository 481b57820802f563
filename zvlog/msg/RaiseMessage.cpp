#include "zvlog/msg/RaiseMessage.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <mutex>

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

}  // namespace

// Until the message catalog is in place a raised message is one line on
// standard error: its code, where it was raised and its arguments.
void raiseMessage(unsigned int number, const MessageSource& source,
                  std::initializer_list<MessageArgument> arguments, RaiseMode /*mode*/) {
    const int savedErrno = errno;
    {
        std::lock_guard<std::mutex> lock(countsMutex());
        ++counts()[number];
    }
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
    errno = savedErrno;
}

unsigned long long raisedMessageCount(unsigned int number) {
    std::lock_guard<std::mutex> lock(countsMutex());
    auto it = counts().find(number);
    return it == counts().end() ? 0 : it->second;
}

}  // namespace zvs::zvlib::zvlog::detail
