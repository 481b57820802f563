// The fatal system-error path: the library does not run on without its
// threads, signals and locks.
#pragma once

#include "zvlog/Export.h"

namespace zvs::zvlib {

// Writes "Fatal system error <code> in <function>" to standard error, runs
// the program's exit function with 1 and ends the process with status 1.
[[noreturn]] ZVLOG_API void zvFatalSystemError(unsigned int code, const char* function);

// The function called with the exit status just before the library ends
// the process; none by default. The global zvSetExitFunction of
// zvlog/LegacyErrors.h sets this same one.
ZVLOG_API void zvSetExitFunction(void (*function)(int));
using ExitFunction = void (*)(int);
ZVLOG_API ExitFunction zvGetExitFunction();

}  // namespace zvs::zvlib
