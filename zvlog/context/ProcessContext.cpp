#include "zvlog/ProcessContext.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "zvstd/ProcessFacts.h"

namespace {

using zvs::zvlib::MultiThreading::MutexLock;

constexpr size_t kCommandLineLimit = 4095;
constexpr size_t kPathBuffer = 4096;

// Copies into a fixed buffer, cut to fit.
void copyInto(char* buffer, size_t size, const std::string& text) {
    size_t n = text.size() < size - 1 ? text.size() : size - 1;
    memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

// The program file never changes: its path, base name and directory are
// worked out once and shared.
struct ExecutablePaths {
    char path[kPathBuffer];
    char base[kPathBuffer];
    char directory[kPathBuffer];

    ExecutablePaths() {
        std::string file = zvs::zvlib::zvExecutablePath();
        std::string dir, base;
        zvs::zvlib::zvSplitExecutablePath(file.c_str(), dir, base);
        copyInto(path, sizeof path, file);
        copyInto(this->base, sizeof this->base, base);
        copyInto(directory, sizeof directory, dir);
    }
};

const ExecutablePaths& executablePaths() {
    static const ExecutablePaths paths;
    return paths;
}

char commandLine[kCommandLineLimit + 1];
char workingDirectory[kPathBuffer];

// An item that holds a string the context does not own.
CContextItem* sharedString(ContextItemID id, const char* text) {
    const char* const& literal = text;
    return new CContextItem(id, literal);
}

// An item that holds an owned copy.
CContextItem* ownedString(ContextItemID id, const std::string& text) {
    const char* copy = text.c_str();
    return new CContextItem(id, copy);
}

unsigned int kibibytes(const char* field) {
    unsigned long long value = zvs::zvlib::zvProcessStatusKiB(field);
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

}  // namespace

const char* getProcessExecutableBase() { return executablePaths().base; }

CProcessContext::CProcessContext() {
    int savedErrno = errno;
    AddItem(ownedString(ProcessOSName, zvs::zvlib::zvOSName()));
    AddItem(ownedString(ProcessOSArch, zvs::zvlib::zvOSArch()));
    zvs::zvlib::OSRelease release = zvs::zvlib::zvOSRelease();
    char version[64];
    snprintf(version, sizeof version, "%u.%u.%u", release.major, release.minor, release.build);
    AddItem(ownedString(ProcessOSVersion, version));
    AddItem(new CContextItem(OSMajorVersion, release.major));
    AddItem(new CContextItem(OSMinorVersion, release.minor));
    AddItem(new CContextItem(OSBuildNumber, release.build));
    AddItem(ownedString(OSServicePack, release.detail));
    AddItem(ownedString(ProcessHostName, zvs::zvlib::zvHostName()));
    AddItem(new CContextItem(ProcessID, zvs::zvlib::zvProcessId()));

    const ExecutablePaths& paths = executablePaths();
    AddItem(sharedString(ProcessExecutable, paths.path));
    AddItem(sharedString(ProcessExecutableBase, paths.base));
    AddItem(sharedString(ProcessExecutableDir, paths.directory));
    copyInto(commandLine, sizeof commandLine, zvs::zvlib::zvCommandLine(kCommandLineLimit));
    AddItem(sharedString(ProcessCommandLine, commandLine));

    // Recomputed on each lookup; made here with their current values.
    AddItem(sharedString(ProcessWorkingDir, workingDirectory));
    AddItem(new CContextItem(ProcessUserTime, timespec{}));
    AddItem(new CContextItem(ProcessSystemTime, timespec{}));
    AddItem(new CContextItem(ProcessClockTime, timespec{}));
    AddItem(new CContextItem(ProcessOSUptime, timespec{}));
    AddItem(new CContextItem(ProcessMemoryVirtual, 0u));
    AddItem(new CContextItem(ProcessMemoryPhysical, 0u));
    for (ContextItemID id : {ProcessWorkingDir, ProcessUserTime, ProcessSystemTime, ProcessClockTime,
                             ProcessOSUptime, ProcessMemoryVirtual, ProcessMemoryPhysical})
        GetItem(id);
    errno = savedErrno;
}

CProcessContext::~CProcessContext() = default;

CContextItem* CProcessContext::GetItem(ContextItemID id) const {
    switch (id) {
    case ProcessWorkingDir:
    case ProcessUserTime:
    case ProcessSystemTime:
    case ProcessClockTime:
    case ProcessOSUptime:
    case ProcessMemoryVirtual:
    case ProcessMemoryPhysical:
        break;
    default:
        return CContext::GetItem(id);
    }
    auto* node = items_.find(id);
    if (!node || !node->value) return CContext::GetItem(id);
    CContextItem* item = node->value;
    CDataItem& value = *item;
    MutexLock lock(item->GetLock());
    switch (id) {
    case ProcessWorkingDir: {
        // A failed lookup leaves "" (the buffer keeps the shared pointer valid).
        std::string directory;
        zvs::zvlib::zvWorkingDirectory(directory);
        copyInto(workingDirectory, sizeof workingDirectory, directory);
        const char* const& text = workingDirectory;
        if (value.GetType() == CDataItem::TypeString) value = text;
        break;
    }
    case ProcessUserTime:
        value = zvs::zvlib::zvProcessUserTime();
        break;
    case ProcessSystemTime:
        value = zvs::zvlib::zvProcessSystemTime();
        break;
    case ProcessClockTime:
        value = zvs::zvlib::zvProcessClockTime();
        break;
    case ProcessOSUptime:
        value = zvs::zvlib::zvOSUptime();
        break;
    case ProcessMemoryVirtual:
        value = kibibytes("VmSize");
        break;
    case ProcessMemoryPhysical:
        value = kibibytes("VmRSS");
        break;
    default:
        break;
    }
    return item;
}
