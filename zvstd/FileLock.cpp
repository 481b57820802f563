#include "zvstd/FileLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zvs::zvlib {

namespace {

bool setLock(int fd, short type, int command) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 1;
    for (;;) {
        if (fcntl(fd, command, &fl) == 0) return true;
        if (errno != EINTR) return false;
    }
}

}  // namespace

bool zvLockFileFirstByte(int fd) { return setLock(fd, F_WRLCK, F_OFD_SETLKW); }

void zvUnlockFileFirstByte(int fd) { setLock(fd, F_UNLCK, F_OFD_SETLK); }

bool zvIsRegularFile(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

bool zvTruncateFile(int fd) { return ftruncate(fd, 0) == 0; }

}  // namespace zvs::zvlib
