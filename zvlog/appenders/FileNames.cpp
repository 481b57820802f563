#include "zvlog/appenders/FileNames.h"

#include <cstring>

#include "zvlog/AppContext.h"

namespace zvs::zvlib::zvlog {

namespace {

bool isSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace

std::string contextItemText(unsigned int id) {
    const CContextItem* item = getAppContext()->GetItem(static_cast<ContextItemID>(id));
    if (!item) return std::string();
    MultiThreading::MutexLock lock(item->GetLock());
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

std::string replaceFileNameTokens(const char* name, bool second) {
    std::string out;
    if (!name) return out;
    // Items are read only when their token occurs: most names carry none.
    for (const char* p = name; *p; ++p) {
        if (p[0] == '%' && p[1] != '\0') {
            switch (p[1]) {
            case 'P':
                out += contextItemText(ProcessID);
                ++p;
                continue;
            case 'A':
                out += contextItemText(ProcessExecutableBase);
                ++p;
                continue;
            case 'D':
                out += contextItemText(DirProcessLog);
                ++p;
                continue;
            case 'I':
                if (!second) break;
                {
                    std::string instance = contextItemText(AppInstance);
                    out += instance.empty() ? contextItemText(ProcessExecutableBase) : instance;
                }
                ++p;
                continue;
            default:
                break;
            }
        }
        out += *p;
    }
    return out;
}

std::string expandFileName(const char* name, bool second) {
    if (!name) name = "";
    // The second expansion works on the result of the first, which already
    // has its directory; an empty name stays empty (no file).
    if (second || !*name || std::strstr(name, "%D") || std::strpbrk(name, "/\\"))
        return replaceFileNameTokens(name, second);
    return replaceFileNameTokens(("%D" + std::string(name)).c_str(), second);
}

std::string joinPath(const std::string& directory, const char* name) {
    std::string path = directory;
    if (!path.empty() && !isSeparator(path.back())) path += '/';
    path += name ? name : "";
    return path;
}

}  // namespace zvs::zvlib::zvlog
