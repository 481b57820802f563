#include "zvstd/Files.h"

#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstring>

namespace zvs::zvlib {

bool zvPathExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool zvIsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int zvMakeDirectory(const std::string& path) { return mkdir(path.c_str(), 0755) == 0 ? 0 : errno; }

std::string zvErrorText(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof buffer);  // the GNU form returns the text
}

timespec zvRealTime() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts;
}

}  // namespace zvs::zvlib
