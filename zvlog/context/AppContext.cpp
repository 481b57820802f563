#include "zvlog/AppContext.h"

#include <string>

#include "zvlog/zvMessage.h"
#include "zvlog/buffer/CrashRecorder.h"
#include "zvlog/context/ProgramTables.h"
#include "zvlog/msg/RaiseMessage.h"

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
    } else {
        MutexLock lock(item->GetLock());
        if (item->GetType() == CDataItem::TypeString) static_cast<CDataItem&>(*item) = text;  // an owned copy
    }
    // The crash recorder keeps its file names made in advance.
    if (id == AppInstance || id == DirProcessLog || id == ProcessExecutableBase)
        zvs::zvlib::zvlog::crashRecorderNamesChanged();
    return true;
}

CAppContext* getAppContext() {
    // Building the context builds the filesystem hierarchy, which may raise;
    // raising needs the factory, which needs this context.
    const zvs::zvlib::zvlog::detail::DeferredRaiseScope deferRaises;
    static CAppContext* const context = new CAppContext();
    return context;
}

// The terms come from the catalog, so that every program of the suite names
// the product and its objects alike.
bool CAppContext::AddTerms() {
    const char* dbms = "";
    if (CContextItem* item = GetItem(BuildDBMS)) {
        zvs::zvlib::MultiThreading::MutexLock lock(item->GetLock());
        if (item->GetType() == CDataItem::TypeString && static_cast<const char*>(*item))
            dbms = static_cast<const char*>(*item);
    }
    const std::string buildDbms = dbms;
    const int numbers[8] = {
        10000027, 10000028, buildDbms == "MSSQL" ? 10000036 : 10000029, 10000030, 10000031, 10000032, 10000033,
        buildDbms == zvs::zvlib::zvlog::detail::kOwnDatabaseKey ? 10000037 : 10000034,
    };
    for (int i = 0; i < 8; ++i) {
        // The message made for the text owns its source context.
        auto* source = new CSourceContext("zvlog.context", "zvlog/msgContext", "CAppContext::AddTerms", __LINE__);
        const char* text = _TSTR_ContextItem(source, numbers[i]);
        SetItem(static_cast<ContextItemID>(kTermItems[i]), text ? text : "");
    }
    return true;
}

// An item of the application context as text: a string as it stands, a
// number in decimal, "" for anything else or an absent item.
std::string getAppContextText(ContextItemID id) {
    const CContextItem* item = getAppContext()->GetItem(id);
    if (!item) return std::string();
    zvs::zvlib::MultiThreading::MutexLock lock(item->GetLock());
    switch (item->GetType()) {
    case CDataItem::TypeString: {
        const char* text = *item;
        return text ? text : "";
    }
    case CDataItem::TypeInt:
    case CDataItem::TypeInt64:
        return std::to_string(static_cast<long long>(*item));
    case CDataItem::TypeUInt:
    case CDataItem::TypeUInt64:
        return std::to_string(static_cast<unsigned long long>(*item));
    default:
        return std::string();
    }
}
