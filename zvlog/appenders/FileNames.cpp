#include "zvlog/appenders/FileNames.h"

#include <cstring>

#include "zvlog/AppContext.h"

namespace zvs::zvlib::zvlog {

namespace {

bool isSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace


std::string replaceFileNameTokens(const char* name, bool second) {
    std::string out;
    if (!name) return out;
    // Items are read only when their token occurs: most names carry none.
    for (const char* p = name; *p; ++p) {
        if (p[0] == '%' && p[1] != '\0') {
            switch (p[1]) {
            case 'P':
                out += getAppContextText(ProcessID);
                ++p;
                continue;
            case 'A':
                out += getAppContextText(ProcessExecutableBase);
                ++p;
                continue;
            case 'D':
                out += getAppContextText(DirProcessLog);
                ++p;
                continue;
            case 'I':
                if (!second) break;
                {
                    std::string instance = getAppContextText(AppInstance);
                    out += instance.empty() ? getAppContextText(ProcessExecutableBase) : instance;
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
