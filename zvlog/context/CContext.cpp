#include "zvlog/CContext.h"

#include <iterator>
#include <map>
#include <mutex>

// The registered items, in registration order: the order of the enum and of
// the name table.
#define ZVLOG_CONTEXT_ITEMS(X)                                                                          \
    X(AppInstance) X(AppInstanceDescription) X(AppOperatingNormally) X(AppStartTime)                    \
    X(BuildApplication) X(BuildConfig) X(BuildDBMS) X(BuildDBMSVersion) X(BuildDateTime)                \
    X(BuildHostName) X(BuildOS) X(BuildOSArch) X(BuildProgramString) X(BuildProgramType)                \
    X(BuildVersion)                                                                                     \
    X(ErrAppErrorMessage) X(ErrAppErrorText) X(ErrOSErrorCode) X(ErrOSErrorText) X(ErrSQLErrorCode)     \
    X(ErrSQLErrorText)                                                                                  \
    X(MessageDetails) X(MessageTime)                                                                    \
    X(ProcessClockTime) X(ProcessCommandLine) X(ProcessExecutable) X(ProcessExecutableBase)             \
    X(ProcessExecutableDir) X(ProcessHostName) X(ProcessID) X(ProcessMemoryPhysical)                    \
    X(ProcessMemoryVirtual) X(ProcessOSArch) X(ProcessOSName) X(ProcessOSUptime) X(ProcessOSVersion)    \
    X(ProcessSystemTime) X(ProcessUserTime) X(ProcessWorkingDir)                                        \
    X(SourceMethod) X(SourceID) X(SourceLine) X(SourceModule)                                           \
    X(ThreadBacktrace) X(ThreadID)                                                                      \
    X(DirProcessHome) X(DirProcessBin) X(DirProcessLib) X(DirProcessHtDocs) X(DirProcessConf)           \
    X(DirProcessConfQmr) X(DirProcessConfLogging) X(DirProcessSSL) X(DirProcessLibConf)                 \
    X(DirProcessData) X(DirProcessDb) X(DirProcessSql) X(DirProcessRun) X(DirProcessLog)                \
    X(DirProcessLock) X(DirProcessCheckPt) X(DirProcessReport) X(DirProcessTemp) X(DirProcessDef)       \
    X(DirProcessDmp) X(DirProcessWlt) X(DirProcessCrd) X(DirProcessDistPaths) X(DirProcessGlobals)      \
    X(DirStructureIsLegacy)

#define ZVLOG_ITEM_NAME(id) #id,
#define ZVLOG_ITEM_ID(id) id,

const char* const zvContextItemNames[70] = {ZVLOG_CONTEXT_ITEMS(ZVLOG_ITEM_NAME)};

namespace {

constexpr ContextItemID kRegisteredIds[] = {ZVLOG_CONTEXT_ITEMS(ZVLOG_ITEM_ID)};
static_assert(std::size(kRegisteredIds) == std::size(zvContextItemNames));

// Identifier -> name; the names are not owned. Created and filled once,
// never freed: items may be named during the process's exit.
std::mutex gNamesMutex;
std::map<uint32_t, const char*>* gNames = nullptr;

std::map<uint32_t, const char*>& namesLocked() {
    if (!gNames) {
        gNames = new std::map<uint32_t, const char*>;
        for (size_t i = 0; i < std::size(kRegisteredIds); ++i) (*gNames)[kRegisteredIds[i]] = zvContextItemNames[i];
    }
    return *gNames;
}

}  // namespace

#undef ZVLOG_ITEM_NAME
#undef ZVLOG_ITEM_ID
#undef ZVLOG_CONTEXT_ITEMS

// ---- identifiers and names ------------------------------------------------

ContextItemID CContext::GetContextItemID(const char* name) {
    if (!name) return ContextItemNone;
    // Computed, never looked up: the three fixed identifiers do not follow.
    const auto id = static_cast<ContextItemID>(zvContextItemCrc(name));
    std::lock_guard<std::mutex> lock(gNamesMutex);
    namesLocked()[id] = name;
    return id;
}

const char* CContext::GetContextItemName(ContextItemID id) {
    std::lock_guard<std::mutex> lock(gNamesMutex);
    const auto& names = namesLocked();
    auto it = names.find(id);
    return it == names.end() ? nullptr : it->second;
}

// ---- CContextItem ---------------------------------------------------------

CContextItem::~CContextItem() {}

void CContextItem::Assign(const CDataItem& value) {
    zvs::zvlib::MultiThreading::MutexLock lock(lock_);
    CDataItem::operator=(value);
}

// ---- CContext -------------------------------------------------------------

CContext::CContext() {
    std::lock_guard<std::mutex> lock(gNamesMutex);
    namesLocked();
}

CContext::~CContext() {
    items_.forEach([](uint32_t, CContextItem* item) { delete item; });
    items_.clear();
    for (size_t i = 0; i < children_.size(); ++i) {
        CContext* child = children_[i];
        if (!child || !child->deleteWithParent_) continue;
        // A child added more than once is deleted once.
        bool seen = false;
        for (size_t j = 0; j < i && !seen; ++j) seen = children_[j] == child;
        if (!seen) delete child;
    }
}

void CContext::AddItem(CContextItem* item) {
    if (!item) return;
    // An existing node takes the new pointer; the old item stays with its maker.
    items_.insert(item->GetID())->value = item;
}

bool CContext::RemoveItem(ContextItemID id) {
    CContextItem* item = nullptr;
    if (!items_.remove(id, &item)) return false;
    delete item;
    return true;
}

void CContext::AddContext(CContext* child) { children_.push_back(child); }

bool CContext::RemoveContext(const CContext* child) {
    for (auto it = children_.begin(); it != children_.end(); ++it) {
        if (*it == child) {
            children_.erase(it);
            return true;
        }
    }
    return false;
}

unsigned int CContext::GetItemCount(bool includeChildren) const {
    auto count = static_cast<unsigned int>(items_.size());
    if (includeChildren)
        for (const CContext* child : children_) count += child->GetItemCount(false);
    return count;
}

ContextItemID CContext::GetItemID(unsigned int index) {
    const unsigned int own = GetItemCount(false);
    if (index < own) {
        const auto* node = items_.at(index);
        return node ? static_cast<ContextItemID>(node->key) : ContextItemNone;
    }
    unsigned int rest = index - own;
    for (CContext* child : children_) {
        const unsigned int count = child->GetItemCount(false);
        if (rest < count) return child->GetItemID(rest);
        rest -= count;
    }
    return ContextItemNone;
}

CContextItem* CContext::GetItem(ContextItemID id) const {
    if (const auto* node = items_.find(id); node && node->value) return node->value;
    for (const CContext* child : children_)
        if (CContextItem* item = child->GetItem(id)) return item;
    return nullptr;
}
