// Loading modules and finding their exported symbols. Nothing here raises an
// error: a missing module or symbol is simply null.
#pragma once

#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib {

// "lib<name>.so", or the main program when name is null or empty.
ZVLOG_API void* zvLoadModule(const char* name);
ZVLOG_API void zvUnloadModule(void* module);

// The address of an exported symbol that the module itself defines, or null.
// The dynamic linker would also answer with a definition from a library the
// module depends on (for the main program: from any global library, this one
// included); such a symbol does not belong to the module and is ignored.
ZVLOG_API void* zvFindSymbol(void* module, const char* name);

// The file name of the loaded object (the program or a shared library) whose
// mapping holds `address`, as the dynamic linker recorded it when it loaded
// the object (absolute, or relative to the directory that was current then);
// empty when no loaded object holds the address.
ZVLOG_API std::string zvModulePathOf(const void* address);

}  // namespace zvs::zvlib
