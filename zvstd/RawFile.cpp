#include "zvstd/RawFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace zvs::zvlib {

int zvOpenFileForWriting(const char* path, int& fd) {
    do {
        fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? errno : 0;
}

int zvTryLockFileFirstByte(int fd) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 1;
    for (;;) {
        if (fcntl(fd, F_OFD_SETLK, &fl) == 0) return 0;
        if (errno != EINTR) return errno == EACCES ? EAGAIN : errno;
    }
}

int zvTruncateFileTo0(int fd) {
    while (ftruncate(fd, 0) != 0)
        if (errno != EINTR) return errno;
    return 0;
}

int zvWriteAll(int fd, const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t n = ::write(fd, p, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}

int zvCloseFile(int fd) { return close(fd) == 0 ? 0 : errno; }

}  // namespace zvs::zvlib
