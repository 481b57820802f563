#include "zvlog/AppContext.h"

#include <ctime>

namespace {

using zvs::zvlib::MultiThreading::MutexLock;

// The system time as the start time has always been kept: seconds held in 32
// bits, microseconds x 1000.
timespec startTime() {
    timespec now{};
    std::timespec_get(&now, TIME_UTC);
    timespec kept{};
    kept.tv_sec = static_cast<int>(now.tv_sec);
    kept.tv_nsec = now.tv_nsec / 1000 * 1000;
    return kept;
}

}  // namespace

CAppContext::CAppContext() {
    SetDeleteWithParent(false);
    static const char* const empty = "";
    instance_ = new CContextItem(AppInstance, empty);
    instanceDescription_ = new CContextItem(AppInstanceDescription, empty);
    AddItem(instance_);
    AddItem(instanceDescription_);
    AddItem(new CContextItem(AppStartTime, startTime()));
    AddItem(new CContextItem(AppOperatingNormally, true));
    AddContext(new CBuildContext());
    AddContext(new CProcessContext());
    AddContext(new CFileSysContext());
}

CAppContext::~CAppContext() = default;

bool CAppContext::SetItem(ContextItemID id, const char* text) {
    CContextItem* item = nullptr;
    if (id == AppInstance) {
        item = instance_;
    } else if (id == AppInstanceDescription) {
        item = instanceDescription_;
    } else if (auto* node = items_.find(id)) {
        item = node->value;
    }
    if (!item) {
        AddItem(new CContextItem(id, text));  // an owned copy
        return true;
    }
    MutexLock lock(item->GetLock());
    if (item->GetType() == CDataItem::TypeString) static_cast<CDataItem&>(*item) = text;  // an owned copy
    return true;
}

CAppContext* getAppContext() {
    static CAppContext* const context = new CAppContext();
    return context;
}
