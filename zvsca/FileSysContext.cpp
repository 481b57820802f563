#include "zvlog/FileSysContext.h"

#include "zvsca/FilesysHierarchy.h"

using zvs::zvlib::sca::FilesysHierarchy;

namespace {

struct DirectoryItem {
    ContextItemID id;
    const char* entry;
};

constexpr DirectoryItem kDirectoryItems[] = {
    {DirProcessHome, "Home"},
    {DirProcessBin, "Bin"},
    {DirProcessLib, "Lib"},
    {DirProcessHtDocs, "HtDocs"},
    {DirProcessConf, "Conf"},
    {DirProcessConfQmr, "ConfQmr"},
    {DirProcessConfLogging, "ConfLogging"},
    {DirProcessSSL, "SSL"},
    {DirProcessLibConf, "LibConf"},
    {DirProcessData, "Data"},
    {DirProcessDb, "Db"},
    {DirProcessSql, "Sql"},
    {DirProcessRun, "Run"},
    {DirProcessLog, "Log"},
    {DirProcessLock, "Lock"},
    {DirProcessCheckPt, "CheckPt"},
    {DirProcessReport, "Report"},
    {DirProcessTemp, "Temp"},
    {DirProcessDef, "Def"},
    {DirProcessDmp, "Dmp"},
    {DirProcessWlt, "Wlt"},
    {DirProcessCrd, "Crd"},
    {DirProcessDistPaths, "DistPaths"},
    {DirProcessGlobals, "Globals"},
};

}  // namespace

CFileSysContext::CFileSysContext() {
    const FilesysHierarchy& hierarchy = FilesysHierarchy::getInstance(FilesysHierarchy::executableDirectory());
    // The paths live as long as the hierarchy, which outlives every context,
    // so the items only point at them. UTF-8 is the platform's default
    // character set: no conversion.
    for (const DirectoryItem& item : kDirectoryItems) {
        const char* const path = hierarchy.getPath(item.entry).c_str();
        AddItem(new CContextItem(item.id, path));
    }
    AddItem(new CContextItem(DirStructureIsLegacy, hierarchy.isLegacy()));
}

CFileSysContext::~CFileSysContext() = default;
