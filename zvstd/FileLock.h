// File locking and file facts for the writer appenders.
#pragma once

#include "zvlog/Export.h"

namespace zvs::zvlib {

// An exclusive lock on the first byte of the open file, waiting until it is
// granted. The lock belongs to the open file description, not the process.
ZVLOG_API bool zvLockFileFirstByte(int fd);
ZVLOG_API void zvUnlockFileFirstByte(int fd);
ZVLOG_API bool zvIsRegularFile(int fd);
ZVLOG_API bool zvTruncateFile(int fd);

}  // namespace zvs::zvlib
