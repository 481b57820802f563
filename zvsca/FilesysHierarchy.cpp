#include "zvsca/FilesysHierarchy.h"


#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "zvlog/Level.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/Files.h"
#include "zvstd/ProcessFacts.h"

namespace zvs::zvlib::sca {

namespace {

using zvlog::detail::MessageSource;
using zvlog::detail::raiseMessage;
using zvlog::detail::RaiseMode;

constexpr const char* kComponent = "FileSystem";
constexpr const char* kSourceFile = "zvsca/FilesysHierarchy";
constexpr unsigned int kPathTooLong = 12420;
constexpr unsigned int kCannotCreateDirectory = 12421;
// QMR_HOME must leave room for the folders below it.
constexpr unsigned int kMaxHomeLength = 240;
constexpr unsigned int kMaxPathLength = 260;

// How one entry is derived from another. A relative path starts with a
// separator; an empty legacy path means the entry is its base in that layout.
struct EntryRule {
    const char* name;
    const char* base;
    const char* legacyPath;
    const char* servicesPath;
    bool homeInLegacy;  // legacy layout: relative to Home instead of base
    bool create;
};

// In resolution order: every base precedes the entries derived from it.
constexpr EntryRule kRules[] = {
    {"Bin", "Home", "", "/bin/", false, false},
    {"Lib", "Home", "", "/lib/", false, false},
    {"Etc", "Home", "/diretc/", "/etc/", false, false},
    {"HtDocs", "Lib", "/dirsca/", "/htdocs", true, true},
    {"Conf", "Etc", "", "/conf", true, true},
    {"ConfQmr", "Conf", "/dirprm/", "/qmr", true, true},
    {"ConfLogging", "Conf", "/diretc/logging/", "/logging", true, true},
    {"Globals", "Conf", "", "/qmr", true, true},
    {"SSL", "Etc", "/diretc/", "/ssl", true, true},
    {"Var", "Home", "", "/var", false, false},
    {"LibConf", "Var", "/dirprm/", "/lib/conf/", true, true},
    {"Data", "Var", "", "/lib/data/", true, true},
    {"Db", "Var", "/dirprm/", "/lib/db/", true, true},
    {"Sql", "Var", "/dirsql/", "/lib/sql/", true, true},
    {"CheckPt", "Var", "/dirchk/", "/lib/checkpt/", true, true},
    {"Report", "Var", "/dirrpt/", "/lib/report/", true, true},
    {"Run", "Var", "/dirpcs/", "/run", true, true},
    {"Log", "Var", "", "/log", true, true},
    {"Lock", "Var", "/dirpcs/", "/lock", true, true},
    {"Temp", "Var", "/dirtmp/", "/temp", true, true},
    {"Def", "Var", "/dirdef/", "/lib/def/", true, true},
    {"Dmp", "Var", "/dirdmp/", "/log", true, true},
    {"Wlt", "Var", "/dirwlt/", "/lib/wallet/", true, true},
    {"Crd", "Var", "/dircrd/", "/lib/credential/", true, true},
    {"DistPaths", "Var", "", "/lib/distpaths/", true, true},
};

struct Preset {
    const char* variable;
    const char* entry;
};

constexpr Preset kPresets[] = {
    {"QMR_HOME", "Home"},         {"QMR_ETC_HOME", "Etc"}, {"QMR_CONF_HOME", "Conf"},
    {"QMR_SSL_HOME", "SSL"},      {"QMR_VAR_HOME", "Var"}, {"QMR_DATA_HOME", "Data"},
};

bool isSeparator(char c) { return c == '/' || c == '\\'; }

bool endsWithSeparator(std::string_view path) { return !path.empty() && isSeparator(path.back()); }

std::string withTrailingSeparator(std::string path) {
    if (!endsWithSeparator(path)) path += '/';
    return path;
}

// ".../bin/" with either separator on both sides.
bool endsWithBinFolder(std::string_view path) {
    const size_t n = path.size();
    return n >= 5 && isSeparator(path[n - 5]) && path.substr(n - 4, 3) == "bin" && isSeparator(path[n - 1]);
}

// The enclosing directory, with its trailing separator; "" when there is none.
std::string parentDirectory(const std::string& path) {
    size_t end = path.size();
    while (end > 0 && isSeparator(path[end - 1])) --end;
    while (end > 0 && !isSeparator(path[end - 1])) --end;
    return path.substr(0, end);
}

std::string normalizedSeparators(std::string path) {
    for (char& c : path)
        if (c == '\\') c = '/';
    return path;
}

bool isDirectory(const std::string& path) { return zvIsDirectory(path); }

bool exists(const std::string& path) { return zvPathExists(path); }

std::string executablePath() { return zvExecutablePath(); }

std::string executableBase() {
    const std::string path = executablePath();
    size_t start = path.size();
    while (start > 0 && !isSeparator(path[start - 1])) --start;
    std::string base = path.substr(start);
    const size_t dot = base.rfind('.');
    if (dot != std::string::npos) base.erase(dot);
    return base;
}

zvlog::Logger* fileSystemLogger() {
    return zvlog::Logger::getRepository()->getLogger("sca")->getChild("FileSystem");
}

class SavedErrno {
public:
    SavedErrno() : saved_(errno) {}
    ~SavedErrno() { errno = saved_; }

private:
    int saved_;
};

}  // namespace

FilesysHierarchy& FilesysHierarchy::getInstance(const std::string& hint) {
    // What construction raises waits until the instance exists: raising
    // reaches the factory, which reaches the application context, which
    // reaches this instance.
    const zvlog::detail::DeferredRaiseScope deferRaises;
    static FilesysHierarchy instance(hint);
    return instance;
}

// Without a known executable, Home falls back to the working directory.
std::string FilesysHierarchy::executableDirectory() {
    const std::string path = executablePath();
    size_t end = path.size();
    while (end > 0 && !isSeparator(path[end - 1])) --end;
    return end > 1 ? path.substr(0, end - 1) : end == 1 ? std::string("/") : std::string(".");
}

FilesysHierarchy::FilesysHierarchy(const std::string& hint) : FilesysHierarchy(hint, executableBase()) {}

FilesysHierarchy::FilesysHierarchy(const std::string& hint, const std::string& programBase) {
    SavedErrno savedErrno;
    serviceProgram_ = isServiceProgramName(programBase);
    legacy_ = std::getenv("QMR_FILESYSTEM_ISLEGACY") != nullptr;
    detectFilesysHierarchy(hint);
}

bool FilesysHierarchy::isServiceProgramName(const std::string& programBase) {
    return std::string_view(kServicePrograms).find(programBase) != std::string_view::npos;
}

const std::string& FilesysHierarchy::getPath(const std::string& name) const {
    static const std::string kNone;
    const auto it = entries_.find(name);
    return it == entries_.end() ? kNone : it->second;
}

void FilesysHierarchy::detectFilesysHierarchy(const std::string& hint) {
    entries_["Home"];
    for (const EntryRule& rule : kRules) entries_[rule.name];

    // An empty variable presets nothing.
    size_t homeLength = 0;
    for (const Preset& preset : kPresets) {
        const char* value = std::getenv(preset.variable);
        if (value == nullptr || *value == '\0') continue;
        entries_[preset.entry] = withTrailingSeparator(value);
        if (std::strcmp(preset.entry, "Home") == 0) homeLength = std::strlen(value);
        if (std::strcmp(preset.entry, "Var") == 0) varHomeFromEnvironment_ = true;
    }

    std::string& home = entries_["Home"];
    if (!home.empty()) {
        if (homeLength >= kMaxHomeLength)
            raiseMessage(kPathTooLong,
                         MessageSource{kComponent, kSourceFile,
                                       "zvs::zvlib::sca::FilesysHierarchy::detectFilesysHierarchy", __LINE__},
                         {"QMR_HOME", kMaxHomeLength}, RaiseMode::Store);
    } else {
        home = withTrailingSeparator(hint.empty() ? executableDirectory() : hint);
        // A program in the installation's bin folder: Home is its parent,
        // unless the catalog sits beside the program (a flat installation).
        if (endsWithBinFolder(home) && !exists(home + "zvMessage.dat")) home.erase(home.size() - 4);
    }

    if (!legacy_) legacy_ = !isDirectory(home + "bin") || !isDirectory(home + "lib");

    for (unsigned int i = 0; i < sizeof kRules / sizeof kRules[0]; ++i) setupRelative(i);
}

void FilesysHierarchy::setupRelative(unsigned int ruleIndex) {
    const EntryRule& rule = kRules[ruleIndex];
    std::string& value = entries_[rule.name];
    if (!value.empty()) return;

    std::string path = entries_[legacy_ && rule.homeInLegacy ? "Home" : rule.base];
    const char* relative = legacy_ ? rule.legacyPath : rule.servicesPath;
    if (*relative != '\0') {
        if (endsWithSeparator(path)) path.pop_back();
        path = withTrailingSeparator(path + relative);
        if (path.size() >= kMaxPathLength)
            raiseMessage(kPathTooLong,
                         MessageSource{kComponent, kSourceFile, "zvs::zvlib::sca::FilesysHierarchy::setupRelative",
                                       __LINE__},
                         {rule.name, kMaxPathLength}, RaiseMode::Store);
        if (rule.create) createSubdir(path);
    }
    value = std::move(path);
}

void FilesysHierarchy::createSubdir(const std::string& path) {
    if (legacy_) {
        ZVLOG_LOG_AT(fileSystemLogger(), zvlog::LEVEL_DEBUG, kSourceFile,
                     "zvs::zvlib::sca::FilesysHierarchy::createSubdir", __LINE__,
                     "Skipping subdirectory creation for standard deployments.");
        return;
    }
    if (!serviceProgram_) {
        if (!varHomeFromEnvironment_) return;
        std::string logFolder = normalizedSeparators(getPath("Var"));
        if (!endsWithSeparator(logFolder)) logFolder += '/';
        logFolder += "log/";
        if (!normalizedSeparators(path).starts_with(logFolder)) return;
    }
    makeSubdir(path);
}

void FilesysHierarchy::makeSubdir(const std::string& path) {
    int error = zvMakeDirectory(path);
    if (error == 0) return;
    if (error == ENOENT) {
        const std::string parent = parentDirectory(path);
        if (!parent.empty() && parent.size() < path.size()) {
            makeSubdir(parent);
            error = zvMakeDirectory(path);
            if (error == 0) return;
        }
    }
    if (error == EEXIST) return;

    const std::string errorText = zvErrorText(error);
    const char* text = errorText.c_str();
    ZVLOG_LOG_AT(fileSystemLogger(), zvlog::LEVEL_ERROR, kSourceFile,
                 "zvs::zvlib::sca::FilesysHierarchy::makeSubdir", __LINE__,
                 "Unable to auto create directory '%s': %s (%d).", path, text, error);
    raiseMessage(kCannotCreateDirectory,
                 MessageSource{kComponent, kSourceFile, "zvs::zvlib::sca::FilesysHierarchy::makeSubdir", __LINE__},
                 {path, text}, RaiseMode::Store);
}

void FilesysHierarchy::toLog() const {
    zvlog::Logger* logger = fileSystemLogger();
    const char* layout = legacy_ ? "Legacy" : "Microservices";
    const int count = static_cast<int>(entries_.size());
    ZVLOG_LOG_AT(logger, zvlog::LEVEL_INFO, kSourceFile, "zvs::zvlib::sca::FilesysHierarchy::toLog", __LINE__,
                 "Logging Filesystem Standard Hierarchy %s mapping of %d entries:", layout, count);
    for (const auto& [name, path] : entries_)
        ZVLOG_LOG_AT(logger, zvlog::LEVEL_INFO, kSourceFile, "zvs::zvlib::sca::FilesysHierarchy::toLog", __LINE__,
                     "%-15s -> '%s'", name, path);
    ZVLOG_LOG_AT(logger, zvlog::LEVEL_INFO, kSourceFile, "zvs::zvlib::sca::FilesysHierarchy::toLog", __LINE__,
                 "End logging Filesystem Standard Hierarchy mapping.");
}

}  // namespace zvs::zvlib::sca
