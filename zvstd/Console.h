// Text for the console: the one print routine of the library's reports.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "zvlog/Export.h"

namespace zvs::zvlib {

// The first and the largest size of the formatting buffer. A text that does
// not fit into the largest is cut and ends with "...".
constexpr size_t kConsoleBufferInitial = 256;
constexpr size_t kConsoleBufferLimit = 1048576;

// Formats like printf into the buffer (doubling from 256 bytes up to
// 1048576) and writes the text to standard output, flushed. errno is
// preserved.
ZVLOG_API void zvConsolePrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
ZVLOG_API void zvConsolePrintV(const char* format, va_list arguments);

}  // namespace zvs::zvlib
