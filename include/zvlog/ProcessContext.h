// The running process and its system: identity fixed at construction, and
// times, memory, working directory and uptime recomputed on every lookup.
#pragma once

#include "zvlog/CContext.h"
#include "zvlog/Export.h"

// Items: ProcessOSName (PRETTY_NAME of /etc/os-release, else "Linux"),
// ProcessOSArch ("x64", "x86", "arm64" or the kernel's machine name),
// ProcessOSVersion ("major.minor.patch" of the kernel release) with the three
// numbers and the kernel's version string as unnamed items, ProcessHostName,
// ProcessID, ProcessExecutable, ProcessExecutableBase, ProcessExecutableDir,
// ProcessCommandLine (arguments joined by one blank, at most 4095 bytes), and
// computed on lookup: ProcessWorkingDir, ProcessUserTime, ProcessSystemTime,
// ProcessClockTime, ProcessOSUptime (timespecs; uptime in whole seconds),
// ProcessMemoryVirtual and ProcessMemoryPhysical (VmSize and VmRSS in KiB).
//
// The path, command-line and working-directory strings live in buffers shared
// by every process context: not owned by the items, and the latest lookup of
// the working directory wins.
class ZVLOG_API CProcessContext : public CContext {
public:
    // Items without a name in the name table, so printing by name skips them.
    static constexpr ContextItemID OSMajorVersion = static_cast<ContextItemID>(21939713);
    static constexpr ContextItemID OSMinorVersion = static_cast<ContextItemID>(66274866);
    static constexpr ContextItemID OSBuildNumber = static_cast<ContextItemID>(239974094);
    static constexpr ContextItemID OSServicePack = static_cast<ContextItemID>(222735531);

    CProcessContext();
    ~CProcessContext() override;

    // Recomputes the items that change over time, under the item's lock.
    CContextItem* GetItem(ContextItemID id) const override;
};

// The program file's base name without extension ("zvcapture" for
// /opt/zv/bin/zvcapture), in a static buffer.
ZVLOG_API const char* getProcessExecutableBase();
