#include "zvstd/ProcessFacts.h"

#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zvs::zvlib {

namespace {

// Restores errno when it goes out of scope.
class ErrnoGuard {
public:
    ErrnoGuard() : saved_(errno) {}
    ~ErrnoGuard() { errno = saved_; }

private:
    int saved_;
};

bool readWholeFile(const char* path, std::string& content) {
    FILE* f = fopen(path, "re");
    if (!f) return false;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) content.append(chunk, n);
    fclose(f);
    return true;
}

timespec fromTimeval(const timeval& tv) {
    timespec ts{};
    ts.tv_sec = tv.tv_sec;
    ts.tv_nsec = tv.tv_usec * 1000;
    return ts;
}

}  // namespace

std::string zvOSName() {
    ErrnoGuard guard;
    std::string content;
    if (readWholeFile("/etc/os-release", content)) {
        size_t at = 0;
        while (at < content.size()) {
            size_t end = content.find('\n', at);
            if (end == std::string::npos) end = content.size();
            std::string line = content.substr(at, end - at);
            at = end + 1;
            if (line.compare(0, 12, "PRETTY_NAME=") != 0) continue;
            std::string value = line.substr(12);
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
                value.back() == value.front())
                value = value.substr(1, value.size() - 2);
            if (!value.empty()) return value;
        }
    }
    return "Linux";
}

std::string zvOSArch() {
    ErrnoGuard guard;
    utsname u;
    if (uname(&u) != 0) return "";
    std::string machine = u.machine;
    if (machine == "x86_64") return "x64";
    if (machine == "aarch64") return "arm64";
    if (machine.size() == 4 && machine[0] == 'i' && machine[1] >= '3' && machine[1] <= '6' &&
        machine.compare(2, 2, "86") == 0)
        return "x86";
    return machine;
}

OSRelease zvOSRelease() {
    ErrnoGuard guard;
    OSRelease release;
    utsname u;
    if (uname(&u) != 0) return release;
    // "6.1.0-18-amd64": the numbers end at the first character that is not a digit.
    const char* p = u.release;
    unsigned int* parts[] = {&release.major, &release.minor, &release.build};
    for (unsigned int* part : parts) {
        if (*p < '0' || *p > '9') break;
        char* end;
        *part = static_cast<unsigned int>(strtoul(p, &end, 10));
        p = end;
        if (*p != '.') break;
        ++p;
    }
    release.detail = u.version;
    return release;
}

std::string zvHostName() {
    ErrnoGuard guard;
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "";
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* result = nullptr;
    std::string canonical;
    if (getaddrinfo(name, nullptr, &hints, &result) == 0 && result) {
        if (result->ai_canonname && *result->ai_canonname) canonical = result->ai_canonname;
        freeaddrinfo(result);
    }
    return canonical.empty() ? std::string(name) : canonical;
}

unsigned int zvProcessId() { return static_cast<unsigned int>(getpid()); }

std::string zvExecutablePath() {
    ErrnoGuard guard;
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return "";
    return std::string(path, static_cast<size_t>(n));
}

void zvSplitExecutablePath(const char* path, std::string& directory, std::string& baseName) {
    directory.clear();
    baseName.clear();
    if (!path) return;
    const char* slash = strrchr(path, '/');
    const char* backslash = strrchr(path, '\\');
    const char* separator = slash > backslash ? slash : backslash;
    const char* name = path;
    if (separator) {
        directory.assign(path, static_cast<size_t>(separator - path));
        name = separator + 1;
    }
    const char* dot = strrchr(name, '.');
    baseName = dot ? std::string(name, static_cast<size_t>(dot - name)) : std::string(name);
}

std::string zvCommandLine(size_t maxBytes) {
    ErrnoGuard guard;
    std::string raw;
    if (!readWholeFile("/proc/self/cmdline", raw)) return "";
    // Each argument ends with a NUL; the last one's terminator is dropped.
    if (!raw.empty() && raw.back() == '\0') raw.pop_back();
    for (char& c : raw)
        if (c == '\0') c = ' ';
    if (raw.size() > maxBytes) raw.resize(maxBytes);
    return raw;
}

bool zvWorkingDirectory(std::string& directory) {
    ErrnoGuard guard;
    char buffer[PATH_MAX];
    if (!getcwd(buffer, sizeof buffer)) {
        directory.clear();
        return false;
    }
    directory = buffer;
    return true;
}

timespec zvProcessUserTime() {
    ErrnoGuard guard;
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) return timespec{};
    return fromTimeval(usage.ru_utime);
}

timespec zvProcessSystemTime() {
    ErrnoGuard guard;
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) return timespec{};
    return fromTimeval(usage.ru_stime);
}

timespec zvProcessClockTime() {
    ErrnoGuard guard;
    // Field 22 of /proc/self/stat is the start time in clock ticks after boot;
    // the boot-time clock counts from the same origin.
    std::string stat;
    if (!readWholeFile("/proc/self/stat", stat)) return timespec{};
    size_t close = stat.rfind(')');  // the command name may hold blanks and parentheses
    if (close == std::string::npos) return timespec{};
    const char* p = stat.c_str() + close + 1;
    for (int field = 3; field < 22; ++field) {
        while (*p == ' ') ++p;
        while (*p && *p != ' ') ++p;
    }
    unsigned long long startTicks = strtoull(p, nullptr, 10);
    long ticksPerSecond = sysconf(_SC_CLK_TCK);
    timespec now;
    if (ticksPerSecond <= 0 || clock_gettime(CLOCK_BOOTTIME, &now) != 0) return timespec{};
    long long startNs = static_cast<long long>(startTicks / ticksPerSecond) * 1000000000LL +
                        static_cast<long long>(startTicks % ticksPerSecond) * 1000000000LL / ticksPerSecond;
    long long elapsedNs = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec - startNs;
    if (elapsedNs < 0) elapsedNs = 0;
    timespec result{};
    result.tv_sec = elapsedNs / 1000000000LL;
    result.tv_nsec = elapsedNs % 1000000000LL;
    return result;
}

timespec zvOSUptime() {
    ErrnoGuard guard;
    struct sysinfo info;
    timespec result{};
    if (sysinfo(&info) == 0) result.tv_sec = info.uptime;
    return result;
}

unsigned long long zvProcessStatusKiB(const char* field) {
    ErrnoGuard guard;
    if (!field) return 0;
    std::string status = "\n";  // every line, the first too, then starts after a line feed
    if (!readWholeFile("/proc/self/status", status)) return 0;
    std::string key = std::string("\n") + field + ":";
    size_t at = status.find(key);
    if (at == std::string::npos) return 0;
    at += key.size();
    return strtoull(status.c_str() + at, nullptr, 10);  // "VmRSS:	    1234 kB"
}

}  // namespace zvs::zvlib
