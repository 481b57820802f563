#include "zvstd/Backtrace.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <mutex>

#ifdef ZVLOG_HAVE_LIBDW
#include <elfutils/libdwfl.h>
#endif

namespace zvs::zvlib {

namespace {

// The full symbol table names versioned symbols "name@@VERSION": the version
// is left off, as the dynamic linker's answer does.
std::string demangle(const char* versionedName) {
    std::string name = versionedName;
    size_t at = name.find('@');
    if (at != std::string::npos && at > 0) name.resize(at);
    int status = 0;
    char* plain = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    if (status != 0 || !plain) return name;
    std::string result = plain;
    free(plain);
    return result;
}

#ifdef ZVLOG_HAVE_LIBDW

// Separate debug files only from the local build-id tree: never ask a
// debuginfod server from inside a logging call.
int findLocalDebuginfo(Dwfl_Module* module, void** userData, const char* moduleName, Dwarf_Addr base,
                       const char* file, const char* debugLink, GElf_Word crc, char** debugFileName) {
    return dwfl_build_id_find_debuginfo(module, userData, moduleName, base, file, debugLink, crc,
                                        debugFileName);
}

const Dwfl_Callbacks kCallbacks = {
    .find_elf = dwfl_linux_proc_find_elf,
    .find_debuginfo = findLocalDebuginfo,
    .section_address = nullptr,
    .debuginfo_path = nullptr,
};

// One session for the process: reading the modules' symbol tables and DWARF
// is far dearer than a lookup. It is refreshed when an address falls outside
// every module it knows (a module loaded since).
std::mutex sessionMutex;
Dwfl* session = nullptr;

void reportModules() {
    dwfl_report_begin(session);
    dwfl_linux_proc_report(session, getpid());
    dwfl_report_end(session, nullptr, nullptr);
}

Dwfl_Module* moduleOf(Dwarf_Addr address) {
    if (!session) {
        session = dwfl_begin(&kCallbacks);
        if (!session) return nullptr;
        reportModules();
    }
    Dwfl_Module* module = dwfl_addrmodule(session, address);
    if (!module) {
        reportModules();
        module = dwfl_addrmodule(session, address);
    }
    return module;
}

void resolveWithDwarf(uintptr_t address, SymbolInfo& info) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    Dwfl_Module* module = moduleOf(address);
    if (!module) return;
    info.inModule = true;
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* name = dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
    if (name) {
        info.symbol = demangle(name);
        info.offset = offset;
    }
    if (Dwfl_Line* line = dwfl_module_getsrc(module, address > 0 ? address - 1 : address)) {
        int lineNumber = 0;
        const char* file = dwfl_lineinfo(line, nullptr, &lineNumber, nullptr, nullptr, nullptr);
        if (file && lineNumber > 0) {
            info.file = file;
            info.line = lineNumber;
        }
    }
}

#endif

}  // namespace

__attribute__((noinline)) int zvCaptureBacktrace(void** frames, int maxFrames, int skip) {
    if (!frames || maxFrames <= 0) return 0;
    if (skip < 0) skip = 0;
    int savedErrno = errno;
    // Room for a few frames beneath this one that are not ours: a wrapper of
    // backtrace() put in front of glibc's (a sanitizer's, a preloaded one's)
    // shows up as frames of its own.
    constexpr int kForeign = 4;
    int wanted = maxFrames + skip + 1 + kForeign;
    void** all = static_cast<void**>(malloc(sizeof(void*) * static_cast<size_t>(wanted)));
    int stored = 0;
    if (all) {
        int captured = backtrace(all, wanted);
        // Our caller's frame is the one that returns where this call does;
        // counting from the top would take the wrappers' frames for callers.
        void* const intoCaller = __builtin_extract_return_addr(__builtin_return_address(0));
        int first = 1;
        for (int i = 0; i < captured && i <= 1 + kForeign; ++i)
            if (all[i] == intoCaller) {
                first = i;
                break;
            }
        for (int i = first + skip; i < captured && stored < maxFrames; ++i) frames[stored++] = all[i];
        free(all);
    }
    errno = savedErrno;
    return stored;
}

bool zvResolveAddress(const void* address, SymbolInfo& info) {
    int savedErrno = errno;
    info = SymbolInfo();
    uintptr_t value = reinterpret_cast<uintptr_t>(address);
#ifdef ZVLOG_HAVE_LIBDW
    resolveWithDwarf(value, info);
#endif
    // The dynamic symbol table: all there is without elfutils, and a second
    // chance for an object whose full symbol table was stripped.
    if (info.symbol.empty()) {
        Dl_info dl;
        if (dladdr(address, &dl) && dl.dli_fname) {
            info.inModule = true;
            if (dl.dli_sname && dl.dli_saddr) {
                info.symbol = demangle(dl.dli_sname);
                info.offset = value - reinterpret_cast<uintptr_t>(dl.dli_saddr);
            }
        }
    }
    errno = savedErrno;
    return info.inModule;
}

}  // namespace zvs::zvlib
