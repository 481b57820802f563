#include "zvstd/MemoryFacts.h"

#include <sys/resource.h>
#include <sys/sysinfo.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zvs::zvlib {

namespace {

// The user address space when no limit is set.
constexpr uint64_t kUserAddressSpace =
#if defined(__aarch64__)
    uint64_t{1} << 48;
#elif defined(__x86_64__)
    uint64_t{1} << 47;
#else
    uint64_t{1} << 32;
#endif

// "VmRSS:	    1234 kB" -> bytes.
bool readStatusField(const char* line, const char* field, uint64_t& bytes) {
    size_t n = strlen(field);
    if (strncmp(line, field, n) != 0 || line[n] != ':') return false;
    bytes = strtoull(line + n + 1, nullptr, 10) * 1024;
    return true;
}

}  // namespace

bool zvProcessMemory(ProcessMemoryFigures& figures) {
    const int savedErrno = errno;
    figures = ProcessMemoryFigures{};
    FILE* f = fopen("/proc/self/status", "re");
    if (!f) {
        errno = savedErrno;
        return false;
    }
    char line[256];
    while (fgets(line, sizeof line, f)) {
        readStatusField(line, "VmHWM", figures.peakWorkingSetSize) ||
            readStatusField(line, "VmRSS", figures.workingSetSize) ||
            readStatusField(line, "VmSize", figures.pagefileUsage) ||
            readStatusField(line, "VmPeak", figures.peakPagefileUsage);
    }
    fclose(f);
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) == 0)
        figures.pageFaultCount = static_cast<uint64_t>(usage.ru_minflt) + static_cast<uint64_t>(usage.ru_majflt);
    errno = savedErrno;
    return true;
}

bool zvSystemMemory(SystemMemoryFigures& figures) {
    const int savedErrno = errno;
    figures = SystemMemoryFigures{};
    struct sysinfo info {};
    if (sysinfo(&info) != 0) {
        errno = savedErrno;
        return false;
    }
    const uint64_t unit = info.mem_unit ? info.mem_unit : 1;
    figures.totalPhys = uint64_t{info.totalram} * unit;
    figures.availPhys = (uint64_t{info.freeram} + uint64_t{info.bufferram}) * unit;
    if (figures.availPhys > figures.totalPhys) figures.availPhys = figures.totalPhys;
    if (figures.totalPhys) figures.memoryLoad = (figures.totalPhys - figures.availPhys) * 100 / figures.totalPhys;
    figures.totalPageFile = uint64_t{info.totalswap} * unit;
    figures.availPageFile = uint64_t{info.freeswap} * unit;

    figures.totalVirtual = kUserAddressSpace;
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        uint64_t{limit.rlim_cur} < figures.totalVirtual)
        figures.totalVirtual = limit.rlim_cur;
    ProcessMemoryFigures process;
    zvProcessMemory(process);
    figures.availVirtual =
        process.pagefileUsage < figures.totalVirtual ? figures.totalVirtual - process.pagefileUsage : 0;
    errno = savedErrno;
    return true;
}

}  // namespace zvs::zvlib
