// Facts about the running process and its system, as the process context
// reports them. Every function preserves errno and answers with an empty or
// zero value where the system has no answer.
#pragma once

#include <ctime>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib {

struct OSRelease {
    unsigned int major = 0;  // from the kernel release "major.minor.patch..."
    unsigned int minor = 0;
    unsigned int build = 0;  // the patch level
    std::string detail;      // the kernel's version string (build number and date)
};

// PRETTY_NAME of /etc/os-release, else "Linux".
ZVLOG_API std::string zvOSName();
// "x64", "x86", "arm64", or the machine name as the kernel gives it.
ZVLOG_API std::string zvOSArch();
ZVLOG_API OSRelease zvOSRelease();
// The canonical (fully qualified) name of this host, the plain host name when
// the resolver does not know it, "" when even that fails.
ZVLOG_API std::string zvHostName();
ZVLOG_API unsigned int zvProcessId();

// The program file's path, "" on failure.
ZVLOG_API std::string zvExecutablePath();
// Splits a program path at its last separator ("/" or "\", whichever stands
// later): directory is what precedes it ("" without one), baseName the last
// component less its extension (from its last ".").
ZVLOG_API void zvSplitExecutablePath(const char* path, std::string& directory, std::string& baseName);
// The arguments joined by one blank, cut to maxBytes.
ZVLOG_API std::string zvCommandLine(size_t maxBytes);
ZVLOG_API bool zvWorkingDirectory(std::string& directory);

// CPU time in user and in kernel mode, the time since the process started,
// and the time since the system booted (whole seconds).
ZVLOG_API timespec zvProcessUserTime();
ZVLOG_API timespec zvProcessSystemTime();
ZVLOG_API timespec zvProcessClockTime();
ZVLOG_API timespec zvOSUptime();

// A "kB" line of /proc/self/status, such as "VmSize" or "VmRSS", in KiB; 0 on
// failure.
ZVLOG_API unsigned long long zvProcessStatusKiB(const char* field);

}  // namespace zvs::zvlib
