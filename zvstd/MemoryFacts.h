// Memory figures of the process and of the system, under the names of the
// memory report: what the report prints comes from here.
#pragma once

#include <cstdint>

#include "zvlog/Export.h"

namespace zvs::zvlib {

// Linux has no pool quotas: those figures are always 0.
struct ProcessMemoryFigures {
    uint64_t pageFaultCount = 0;      // minor + major faults (getrusage)
    uint64_t peakWorkingSetSize = 0;  // VmHWM, bytes
    uint64_t workingSetSize = 0;      // VmRSS, bytes
    uint64_t quotaPeakPagedPoolUsage = 0;
    uint64_t quotaPagedPoolUsage = 0;
    uint64_t quotaPeakNonPagedPoolUsage = 0;
    uint64_t quotaNonPagedPoolUsage = 0;
    uint64_t pagefileUsage = 0;      // VmSize, bytes
    uint64_t peakPagefileUsage = 0;  // VmPeak, bytes
};

struct SystemMemoryFigures {
    uint64_t memoryLoad = 0;    // percent of physical memory in use
    uint64_t totalPhys = 0;     // sysinfo totalram
    uint64_t availPhys = 0;     // sysinfo freeram + bufferram
    uint64_t totalPageFile = 0; // swap total
    uint64_t availPageFile = 0; // swap free
    // The process's address space: its RLIMIT_AS when one is set, else the
    // user address space of the architecture (47 bits on x86-64, 48 on
    // arm64); available is that less VmSize.
    uint64_t totalVirtual = 0;
    uint64_t availVirtual = 0;
    uint64_t availExtendedVirtual = 0;  // no such thing here: 0
};

// False when /proc/self/status cannot be read. errno is preserved.
ZVLOG_API bool zvProcessMemory(ProcessMemoryFigures& figures);
// False when sysinfo fails. errno is preserved.
ZVLOG_API bool zvSystemMemory(SystemMemoryFigures& figures);

}  // namespace zvs::zvlib
