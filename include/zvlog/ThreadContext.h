// The calling thread: its identifier and the back-trace of its stack at the
// moment the context was made.
#pragma once

#include <vector>

#include "zvlog/CContext.h"
#include "zvlog/Export.h"

// ThreadID: the library's own thread number (from 1, as in log events), or
// the OS thread id for a thread that is already ending. ThreadBacktrace: a
// vector item pointing at the context's own list of pointer items, the return
// addresses of the stack, at most 100, the constructor's own frame left out:
// the first is in the function that made the context.
class ZVLOG_API CThreadContext : public CContext {
public:
    static constexpr int MaxFrames = 100;

    CThreadContext();
    ~CThreadContext() override;

    // Appends one string item per address:
    //   "<symbol>+0x<offset hex>[ <file>(<line>)]"  the address's symbol is known
    //   "<[ <file>(<line>)]"    the address lies in a loaded object without a symbol
    //                           for it (the text "<Unknown> 0x%p" cut to one byte)
    //   "0x<address hex>"       the address lies in no loaded object
    // File and line are those of the call the return address follows, given
    // where the object carries line information. Returns true; false only for
    // a null argument.
    static bool GetSymbolNames(const std::vector<CDataItem>* addresses, std::vector<CDataItem>* names);

private:
    std::vector<CDataItem> backtrace_;
};
