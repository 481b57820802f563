#include "zvlog/ThreadContext.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include "zvlog/MultiThreading.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvstd/Backtrace.h"

namespace {

unsigned long long threadNumber() {
    // A thread that is already ending has no record any more.
    if (zvs::zvlib::zvlog::ThreadRecord* record = zvs::zvlib::zvlog::currentThreadRecord())
        return record->number;
    return zvs::zvlib::MultiThreading::currentThreadId();
}

std::string frameText(const void* address) {
    zvs::zvlib::SymbolInfo info;
    zvs::zvlib::zvResolveAddress(address, info);
    char buffer[64];
    std::string text;
    if (!info.symbol.empty()) {
        snprintf(buffer, sizeof buffer, "+0x%lx", info.offset);
        text = info.symbol + buffer;
    } else if (info.inModule) {
        // The object is known but has no symbol here: the text has always
        // been "<Unknown> 0x%p" written into a one-byte limit, so "<".
        snprintf(buffer, sizeof buffer, "<Unknown> 0x%p", address);
        text.assign(buffer, 1);
    } else {
        // "0x%p" as the original printed it: glibc's %p brings its own "0x".
        snprintf(buffer, sizeof buffer, "0x%lx", reinterpret_cast<unsigned long>(address));
        text = buffer;
    }
    if (info.line > 0) {
        snprintf(buffer, sizeof buffer, "(%d)", info.line);
        text += ' ';
        text += info.file;
        text += buffer;
    }
    return text;
}

}  // namespace

// Not inlined: its own frame is the one the capture leaves out.
__attribute__((noinline)) CThreadContext::CThreadContext() {
    int savedErrno = errno;
    void* frames[MaxFrames];
    int count = zvs::zvlib::zvCaptureBacktrace(frames, MaxFrames, 1);
    backtrace_.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) backtrace_.emplace_back(static_cast<const void*>(frames[i]));
    AddItem(new CContextItem(ThreadID, threadNumber()));
    AddItem(new CContextItem(ThreadBacktrace, &backtrace_));
    errno = savedErrno;
}

CThreadContext::~CThreadContext() = default;

bool CThreadContext::GetSymbolNames(const std::vector<CDataItem>* addresses, std::vector<CDataItem>* names) {
    if (!addresses || !names) return false;
    int savedErrno = errno;
    // Items have no move: growing the vector would copy every owned string.
    names->reserve(names->size() + addresses->size());
    for (const CDataItem& address : *addresses) {
        std::string text = frameText(static_cast<const void*>(address));
        names->emplace_back(CDataItem::SafeStrdup(text.c_str()), true);
    }
    errno = savedErrno;
    return true;
}
