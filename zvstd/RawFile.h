// Unbuffered files written in one go, such as the event-buffer dump. Every
// call returns 0 or the errno value of its failure. Apart from the
// std::string overload, they allocate nothing and use only
// async-signal-safe calls, so the crash handler writes its dump with them.
#pragma once

#include <cstddef>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib {

// Opens the file for writing, creating it (mode 0644) but keeping what it
// holds; fd receives the descriptor.
ZVLOG_API int zvOpenFileForWriting(const char* path, int& fd);
inline int zvOpenFileForWriting(const std::string& path, int& fd) { return zvOpenFileForWriting(path.c_str(), fd); }
// Takes the exclusive lock on the file's first byte without waiting; EAGAIN
// while another open file holds it. The lock goes with the descriptor.
ZVLOG_API int zvTryLockFileFirstByte(int fd);
ZVLOG_API int zvTruncateFileTo0(int fd);
// Writes all the bytes, continuing after partial writes and interrupts.
ZVLOG_API int zvWriteAll(int fd, const void* data, size_t length);
ZVLOG_API int zvCloseFile(int fd);

}  // namespace zvs::zvlib
