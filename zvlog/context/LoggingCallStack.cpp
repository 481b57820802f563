#include "zvlog/LoggingCallStack.h"

#include <cerrno>
#include <string>
#include <vector>

#include "zvlog/ThreadContext.h"

namespace zvs::zvlib::zvlog {

namespace {

constexpr char kUnavailable[] = "<Unavailable>";
// Fewer than four return addresses are no back-trace worth printing.
constexpr size_t kMinimumBytes = 32;

}  // namespace

// The calling thread's context is made here, on demand: a context captured
// earlier would show the stack of that earlier moment. Its first frame is this
// constructor, which the text leaves out.
__attribute__((noinline)) LoggingCallStack::LoggingCallStack()
    : pointer_(kUnavailable), length_(sizeof kUnavailable) {
    int savedErrno = errno;
    CThreadContext context;
    CContextItem* item = context.GetItem(ThreadBacktrace);
    std::vector<CDataItem>* frames = nullptr;
    if (item && item->GetType() == CDataItem::TypeVector) frames = *item;
    if (frames && frames->size() * sizeof(void*) >= kMinimumBytes) {
        std::vector<CDataItem> names;
        if (CThreadContext::GetSymbolNames(frames, &names)) {
            for (size_t i = 1; i < names.size(); ++i) {
                const char* name = names[i];
                text_ += name && *name ? name : "<Unknown>";
                text_ += "\r\n";
            }
            pointer_ = text_.c_str();
            length_ = static_cast<unsigned int>(text_.size() + 1);
        }
    }
    errno = savedErrno;
}

const char* getLoggerName(const char* identifier) {
    // One buffer for the process, made on first use so that static
    // initialisers in any order can call this.
    static std::string buffer;
    buffer = identifier ? identifier : "";
    for (char& c : buffer)
        if (c == '_') c = '.';
    return buffer.c_str();
}

}  // namespace zvs::zvlib::zvlog
