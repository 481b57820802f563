// Files and directories, and the system's text for an error number.
#pragma once

#include <ctime>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib {

ZVLOG_API bool zvPathExists(const std::string& path);
ZVLOG_API bool zvIsDirectory(const std::string& path);
// Creates one directory (mode 0755); 0 on success, else the errno value.
ZVLOG_API int zvMakeDirectory(const std::string& path);
// The system's text for an error number (strerror_r).
ZVLOG_API std::string zvErrorText(int error);
// The wall-clock time (CLOCK_REALTIME).
ZVLOG_API timespec zvRealTime();

}  // namespace zvs::zvlib
