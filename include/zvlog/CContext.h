// Context items and contexts: named, typed facts about the circumstances of
// a message, gathered into nested contexts.
#pragma once

#include <cstdint>
#include <vector>

#include "zvlog/CDataItem.h"
#include "zvlog/Export.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/SparseArray.h"

// The CRC-32 (IEEE 802.3, reflected) of a name, masked to 28 bits.
constexpr uint32_t zvContextItemCrc(const char* name) {
    uint32_t crc = 0xFFFFFFFFu;
    for (const char* p = name; *p; ++p) {
        crc ^= static_cast<unsigned char>(*p);
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc & 0x0FFFFFFFu;
}

// Identifiers of the registered context items, in registration order. Each is
// the CRC of its name, except three fixed values.
enum ContextItemID : uint32_t {
    ContextItemNone = 0,
    // application
    AppInstance = zvContextItemCrc("AppInstance"),
    AppInstanceDescription = zvContextItemCrc("AppInstanceDescription"),
    AppOperatingNormally = zvContextItemCrc("AppOperatingNormally"),
    AppStartTime = zvContextItemCrc("AppStartTime"),
    // build
    BuildApplication = zvContextItemCrc("BuildApplication"),
    BuildConfig = zvContextItemCrc("BuildConfig"),
    BuildDBMS = zvContextItemCrc("BuildDBMS"),
    BuildDBMSVersion = zvContextItemCrc("BuildDBMSVersion"),
    BuildDateTime = zvContextItemCrc("BuildDateTime"),
    BuildHostName = zvContextItemCrc("BuildHostName"),
    BuildOS = zvContextItemCrc("BuildOS"),
    BuildOSArch = zvContextItemCrc("BuildOSArch"),
    BuildProgramString = zvContextItemCrc("BuildProgramString"),
    BuildProgramType = 20986301,  // fixed: stored by callers
    BuildVersion = zvContextItemCrc("BuildVersion"),
    // error
    ErrAppErrorMessage = zvContextItemCrc("ErrAppErrorMessage"),
    ErrAppErrorText = zvContextItemCrc("ErrAppErrorText"),
    ErrOSErrorCode = zvContextItemCrc("ErrOSErrorCode"),
    ErrOSErrorText = zvContextItemCrc("ErrOSErrorText"),
    ErrSQLErrorCode = zvContextItemCrc("ErrSQLErrorCode"),
    ErrSQLErrorText = zvContextItemCrc("ErrSQLErrorText"),
    // message
    MessageDetails = zvContextItemCrc("MessageDetails"),
    MessageTime = zvContextItemCrc("MessageTime"),
    // process
    ProcessClockTime = zvContextItemCrc("ProcessClockTime"),
    ProcessCommandLine = zvContextItemCrc("ProcessCommandLine"),
    ProcessExecutable = zvContextItemCrc("ProcessExecutable"),
    ProcessExecutableBase = zvContextItemCrc("ProcessExecutableBase"),
    ProcessExecutableDir = zvContextItemCrc("ProcessExecutableDir"),
    ProcessHostName = zvContextItemCrc("ProcessHostName"),
    ProcessID = zvContextItemCrc("ProcessID"),
    ProcessMemoryPhysical = zvContextItemCrc("ProcessMemoryPhysical"),
    ProcessMemoryVirtual = zvContextItemCrc("ProcessMemoryVirtual"),
    ProcessOSArch = zvContextItemCrc("ProcessOSArch"),
    ProcessOSName = zvContextItemCrc("ProcessOSName"),
    ProcessOSUptime = zvContextItemCrc("ProcessOSUptime"),
    ProcessOSVersion = zvContextItemCrc("ProcessOSVersion"),
    ProcessSystemTime = zvContextItemCrc("ProcessSystemTime"),
    ProcessUserTime = zvContextItemCrc("ProcessUserTime"),
    ProcessWorkingDir = zvContextItemCrc("ProcessWorkingDir"),
    // source
    SourceMethod = 53171622,  // fixed: stored by callers
    SourceID = zvContextItemCrc("SourceID"),
    SourceLine = zvContextItemCrc("SourceLine"),
    SourceModule = zvContextItemCrc("SourceModule"),
    // thread
    ThreadBacktrace = zvContextItemCrc("ThreadBacktrace"),
    ThreadID = zvContextItemCrc("ThreadID"),
    // filesystem
    DirProcessHome = zvContextItemCrc("DirProcessHome"),
    DirProcessBin = zvContextItemCrc("DirProcessBin"),
    DirProcessLib = zvContextItemCrc("DirProcessLib"),
    DirProcessHtDocs = zvContextItemCrc("DirProcessHtDocs"),
    DirProcessConf = zvContextItemCrc("DirProcessConf"),
    DirProcessConfQmr = 160402521,  // fixed: stored by callers
    DirProcessConfLogging = zvContextItemCrc("DirProcessConfLogging"),
    DirProcessSSL = zvContextItemCrc("DirProcessSSL"),
    DirProcessLibConf = zvContextItemCrc("DirProcessLibConf"),
    DirProcessData = zvContextItemCrc("DirProcessData"),
    DirProcessDb = zvContextItemCrc("DirProcessDb"),
    DirProcessSql = zvContextItemCrc("DirProcessSql"),
    DirProcessRun = zvContextItemCrc("DirProcessRun"),
    DirProcessLog = zvContextItemCrc("DirProcessLog"),
    DirProcessLock = zvContextItemCrc("DirProcessLock"),
    DirProcessCheckPt = zvContextItemCrc("DirProcessCheckPt"),
    DirProcessReport = zvContextItemCrc("DirProcessReport"),
    DirProcessTemp = zvContextItemCrc("DirProcessTemp"),
    DirProcessDef = zvContextItemCrc("DirProcessDef"),
    DirProcessDmp = zvContextItemCrc("DirProcessDmp"),
    DirProcessWlt = zvContextItemCrc("DirProcessWlt"),
    DirProcessCrd = zvContextItemCrc("DirProcessCrd"),
    DirProcessDistPaths = zvContextItemCrc("DirProcessDistPaths"),
    DirProcessGlobals = zvContextItemCrc("DirProcessGlobals"),
    DirStructureIsLegacy = zvContextItemCrc("DirStructureIsLegacy"),
    // Not registered: set by the configuration and by the installation's
    // logging mode.
    ErrXMLFileName = zvContextItemCrc("ErrXMLFileName"),
    SCALoggingMode = zvContextItemCrc("SCALoggingMode"),
};

// The registered names, in registration order (70 of them).
ZVLOG_API extern const char* const zvContextItemNames[70];

// A data item tagged with its identifier, with a lock of its own so that a
// shared item's value can change while other threads read it.
class ZVLOG_API CContextItem : public CDataItem {
public:
    // The value as the matching CDataItem constructor takes it: a literal
    // is kept, a char* lvalue copied and owned.
    template <class T>
    CContextItem(ContextItemID id, T&& value) : CDataItem(static_cast<T&&>(value)), id_(id) {}
    CContextItem(ContextItemID id, const CDataItem& value) : CDataItem(value), id_(id) {}
    ~CContextItem() override;

    ContextItemID GetID() const { return id_; }
    zvs::zvlib::MultiThreading::Mutex& GetLock() const { return lock_; }
    // Whole-item assignment under the item's lock.
    void Assign(const CDataItem& value);

private:
    ContextItemID id_;
    mutable zvs::zvlib::MultiThreading::Mutex lock_{zvs::zvlib::MultiThreading::Mutex::Recursive};
};

class ZVLOG_API CContext {
public:
    CContext();
    virtual ~CContext();
    CContext(const CContext&) = delete;
    CContext& operator=(const CContext&) = delete;

    // Own items; with the flag, plus each child's own items (one level deep).
    virtual unsigned int GetItemCount(bool includeChildren) const;
    // The identifier of the index-th item (own items first, then the
    // children's), or 0.
    virtual ContextItemID GetItemID(unsigned int index);
    // The item with that identifier here or, depth-first, in a child.
    virtual CContextItem* GetItem(ContextItemID id) const;

    // The CRC of the name (never a table lookup); records the name.
    static ContextItemID GetContextItemID(const char* name);
    // The name of a registered identifier, or null.
    static const char* GetContextItemName(ContextItemID id);

    bool GetDeleteWithParent() const { return deleteWithParent_; }
    void SetDeleteWithParent(bool on) { deleteWithParent_ = on; }
    const std::vector<CContext*>& GetChildren() const { return children_; }

protected:
    // Stores the item under its identifier; an existing item's node gets the
    // new pointer and the old item is neither deleted nor freed.
    void AddItem(CContextItem* item);
    bool RemoveItem(ContextItemID id);
    void AddContext(CContext* child);
    bool RemoveContext(const CContext* child);

    zvs::zvlib::SparseArray<uint32_t, CContextItem*> items_;
    std::vector<CContext*> children_;
    bool deleteWithParent_ = true;
};
