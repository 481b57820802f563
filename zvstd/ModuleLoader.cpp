#include "zvstd/ModuleLoader.h"

#include <dlfcn.h>
#include <link.h>

#include <cerrno>
#include <string>

namespace zvs::zvlib {

void* zvLoadModule(const char* name) {
    int savedErrno = errno;
    void* module;
    if (!name || !*name) {
        module = dlopen(nullptr, RTLD_NOW);
    } else {
        std::string file = std::string("lib") + name + ".so";
        module = dlopen(file.c_str(), RTLD_NOW);
    }
    errno = savedErrno;
    return module;
}

void zvUnloadModule(void* module) {
    if (!module) return;
    int savedErrno = errno;
    dlclose(module);
    errno = savedErrno;
}

void* zvFindSymbol(void* module, const char* name) {
    if (!module || !name) return nullptr;
    int savedErrno = errno;
    void* symbol = dlsym(module, name);
    void* result = nullptr;
    if (symbol) {
        // The object that holds the definition must be the module itself.
        // (A data symbol the program references directly is copied into the
        // program by a copy relocation and counts as the program's.)
        Dl_info info;
        link_map* owner = nullptr;
        link_map* self = nullptr;
        if (dladdr1(symbol, &info, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP) && owner &&
            dlinfo(module, RTLD_DI_LINKMAP, &self) == 0 && owner == self)
            result = symbol;
    }
    dlerror();  // leave no pending error text behind
    errno = savedErrno;
    return result;
}

std::string zvModulePathOf(const void* address) {
    int savedErrno = errno;
    std::string path;
    Dl_info info;
    if (address && dladdr(address, &info) && info.dli_fname) path = info.dli_fname;
    errno = savedErrno;
    return path;
}

}  // namespace zvs::zvlib
