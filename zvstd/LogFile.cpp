#include "zvstd/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace zvs::zvlib {

namespace {

// statx asks only for what a writer needs: on ext4 a full stat of a file
// that is being written costs about twice as much (its block count).
bool facts(int dirFd, const char* path, int flags, LogFileFacts& out) {
    struct statx sx;
    if (statx(dirFd, path, flags | AT_STATX_SYNC_AS_STAT, STATX_INO | STATX_SIZE, &sx) != 0) return false;
    out.device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    out.inode = sx.stx_ino;
    out.size = sx.stx_size;
    return true;
}

}  // namespace

int zvOpenLogFile(const char* path, bool truncate, bool mustExist) {
    int flags = O_WRONLY | O_APPEND | O_CLOEXEC;
    if (!mustExist) flags |= O_CREAT;
    if (truncate) flags |= O_TRUNC;
    for (;;) {
        const int fd = open(path, flags, 0644);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

int zvCreateLogFile(const char* path) {
    for (;;) {
        const int fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | O_CREAT | O_EXCL, 0644);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

int zvReopenLogFile(int fd) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    for (;;) {
        const int own = open(link, O_WRONLY | O_APPEND | O_CLOEXEC);
        if (own >= 0 || errno != EINTR) return own;
    }
}

void zvCloseLogFile(int fd) {
    if (fd >= 0) close(fd);
}

bool zvLogFileFacts(int fd, LogFileFacts& out) { return facts(fd, "", AT_EMPTY_PATH, out); }

bool zvLogFileFacts(const char* path, LogFileFacts& out) { return facts(AT_FDCWD, path, 0, out); }

// With O_APPEND the kernel places each write() at the end of the file under
// the inode's lock, so one call never interleaves with another process's.
bool zvWriteLogFile(int fd, const void* data, size_t n) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t done = ::write(fd, p, n);
        if (done < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (done == 0) return false;
        p += done;
        n -= static_cast<size_t>(done);
    }
    return true;
}

int zvRemoveLogFile(const char* path) { return unlink(path) == 0 ? 0 : errno; }

int zvRenameLogFile(const char* from, const char* to) { return rename(from, to) == 0 ? 0 : errno; }

}  // namespace zvs::zvlib
