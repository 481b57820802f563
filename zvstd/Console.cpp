#include "zvstd/Console.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zvs::zvlib {

void zvConsolePrint(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zvConsolePrintV(format, arguments);
    va_end(arguments);
}

void zvConsolePrintV(const char* format, va_list arguments) {
    const int savedErrno = errno;
    char small[kConsoleBufferInitial];
    char* buffer = small;
    size_t size = sizeof small;
    int length;
    for (;;) {
        va_list copy;
        va_copy(copy, arguments);
        length = vsnprintf(buffer, size, format, copy);
        va_end(copy);
        if (length < 0) {  // an encoding error: print nothing rather than garbage
            length = 0;
            break;
        }
        if (static_cast<size_t>(length) < size) break;
        if (size >= kConsoleBufferLimit) {
            // Still too long at the largest size: what fits, ending in "...".
            length = static_cast<int>(size - 1);
            memcpy(buffer + length - 3, "...", 3);
            break;
        }
        size *= 2;
        char* larger = static_cast<char*>(buffer == small ? malloc(size) : realloc(buffer, size));
        if (!larger) {  // no memory for more: end what we have with "..."
            length = static_cast<int>(size / 2 - 1);
            memcpy(buffer + length - 3, "...", 3);
            break;
        }
        buffer = larger;
    }
    fwrite(buffer, 1, static_cast<size_t>(length), stdout);
    fflush(stdout);
    if (buffer != small) free(buffer);
    errno = savedErrno;
}

}  // namespace zvs::zvlib
