// The file calls behind the file appenders: opening a log file for shared
// appending, telling whether a name still refers to an open file, whole-buffer
// writes, and the deletes and renames of a roll.
#pragma once

#include <cstddef>

#include "zvlog/Export.h"

namespace zvs::zvlib {

// What identifies a file (device and inode) and how long it is.
struct LogFileFacts {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    unsigned long long size = 0;

    bool sameFile(const LogFileFacts& other) const { return device == other.device && inode == other.inode; }
};

// Opens path for appending (O_WRONLY | O_APPEND | O_CLOEXEC, mode 0644),
// creating it when missing and truncating it when asked; with mustExist it is
// never created. The descriptor, or -1 with errno set.
ZVLOG_API int zvOpenLogFile(const char* path, bool truncate, bool mustExist = false);
// Creates path for appending; -1 with errno EEXIST when it exists already.
ZVLOG_API int zvCreateLogFile(const char* path);
// A descriptor of its own on the file that fd refers to, whatever name it has
// now: a new open file description, so that a lock taken through it is not
// shared with the processes that inherited fd. -1 when there is none.
ZVLOG_API int zvReopenLogFile(int fd);
ZVLOG_API void zvCloseLogFile(int fd);
// fstat of an open descriptor / stat of a name; false with errno set.
ZVLOG_API bool zvLogFileFacts(int fd, LogFileFacts& facts);
ZVLOG_API bool zvLogFileFacts(const char* path, LogFileFacts& facts);
// Writes all n bytes with as few write() calls as the system allows (one,
// unless interrupted or short of space); false on an error.
ZVLOG_API bool zvWriteLogFile(int fd, const void* data, size_t n);
// 0 on success, else the errno value (ENOENT for a missing file).
ZVLOG_API int zvRemoveLogFile(const char* path);
ZVLOG_API int zvRenameLogFile(const char* from, const char* to);

}  // namespace zvs::zvlib
