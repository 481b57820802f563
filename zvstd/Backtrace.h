// Capturing the calling thread's stack and resolving code addresses to
// symbols, source files and lines.
#pragma once

#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib {

// Stores up to maxFrames return addresses of the calling stack, leaving out
// this function's own frame and the `skip` frames above it (the callers that
// capture on someone else's behalf). Returns the number stored.
ZVLOG_API int zvCaptureBacktrace(void** frames, int maxFrames, int skip);

struct SymbolInfo {
    bool inModule = false;     // the address lies in a loaded object
    std::string symbol;        // demangled; empty when the object has no symbol for it
    unsigned long offset = 0;  // from the symbol's start
    std::string file;          // source file, when line information is known
    int line = 0;              // 0 when unknown
};

// Resolves a return address. The symbol is the one containing the address;
// file and line are those of the instruction before it (the call). Symbols
// come from the full symbol table and file and line from DWARF where elfutils
// is built in, otherwise from the dynamic symbol table only. Returns
// info.inModule.
ZVLOG_API bool zvResolveAddress(const void* address, SymbolInfo& info);

}  // namespace zvs::zvlib
