// ZVLOG_Enable: the drop-in files of the installation, then the main
// configuration file, loaded and watched.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "zvlog/AppContext.h"
#include "zvlog/DOMConfigurator.h"
#include "zvlog/core/Library.h"
#include "zvsca/FilesysHierarchy.h"

namespace zvs::zvlib::zvlog {

namespace {

// Set while the drop-in pass runs: a drop-in that resets the configuration
// calls back into discovery, which must not start the pass again.
std::atomic<bool> dropInPassRunning{false};

struct DropInPlaces {
    std::string libraryDir;  // DirProcessLib + "utl/logging/"
    std::string confDir;     // DirProcessConfLogging
    std::string appPrefix;   // "app-" + BuildApplication
};

const DropInPlaces& dropInPlaces() {
    // The directory items end in a separator: joined as they stand.
    static const DropInPlaces places{getAppContextText(DirProcessLib) + "utl/logging/",
                                     getAppContextText(DirProcessConfLogging),
                                     "app-" + getAppContextText(BuildApplication)};
    return places;
}

bool endsWithXml(const char* name, size_t length) { return length >= 4 && std::strcmp(name + length - 4, ".xml") == 0; }

// The files directory + prefix + "*.xml", full names.
void listMatches(const std::string& directory, const std::string& prefix, std::vector<std::string>& out) {
    if (directory.empty()) return;
    DIR* dir = ::opendir(directory.c_str());
    if (!dir) return;
    while (const dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        const size_t length = std::strlen(name);
        if (length < prefix.size() + 4 || std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
        if (!endsWithXml(name, length)) continue;
        std::string full = directory + name;
        struct stat st;
        if (::stat(full.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) continue;
        out.push_back(std::move(full));
    }
    ::closedir(dir);
}

// Each directory in turn, its matches in byte-wise order of their full
// names, each file loaded by a configurator of its own.
void applyPrefix(const std::string& prefix) {
    const DropInPlaces& places = dropInPlaces();
    for (const std::string* directory : {&places.libraryDir, &places.confDir}) {
        std::vector<std::string> matches;
        listMatches(*directory, prefix, matches);
        std::sort(matches.begin(), matches.end());  // std::string compares bytes as unsigned
        for (const std::string& file : matches) {
            DOMConfigurator configurator;
            configurator.configure(file.c_str());
        }
    }
}

bool contextFlag(ContextItemID id) {
    const CContextItem* item = getAppContext()->GetItem(id);
    if (!item) return false;
    MultiThreading::MutexLock lock(item->GetLock());
    return static_cast<bool>(*item);
}

void runDropInPass() {
    bool expected = false;
    if (!dropInPassRunning.compare_exchange_strong(expected, true)) return;
    try {
        applyPrefix("qmr-");
        const bool legacyOnly = contextFlag(DirStructureIsLegacy) && !getAppContext()->GetItem(SCALoggingMode);
        if (!legacyOnly) {
            applyPrefix("sca-");
            applyPrefix(dropInPlaces().appPrefix);
        }
    } catch (...) {
    }
    dropInPassRunning.store(false);
}

// zvlog-<instance>.xml, zvlog-<application>.xml, zvlog.xml, each in the
// installation's "Conf" directory; worked out once per process.
const std::vector<std::string>& mainCandidates() {
    static const std::vector<std::string> candidates = [] {
        std::vector<std::string> names;
        const std::string instance = getAppContextText(AppInstance);
        if (!instance.empty()) names.push_back("zvlog-" + instance + ".xml");
        const std::string application = getAppContextText(BuildApplication);
        if (!application.empty()) names.push_back("zvlog-" + application + ".xml");
        names.push_back("zvlog.xml");
        // The hierarchy reads QMR_FILESYSTEM_ISLEGACY itself: present means
        // the legacy layout.
        const std::string conf = sca::FilesysHierarchy::getInstance().getPath("Conf");
        for (std::string& name : names) name = conf + name;
        return names;
    }();
    return candidates;
}

}  // namespace

}  // namespace zvs::zvlib::zvlog

void ZVLOG_Enable(zvs::zvlib::zvlog::DOMConfigurator* configurator, unsigned int intervalMs) {
    using namespace zvs::zvlib::zvlog;
    try {
        LibraryState::ensureInitialized();
        // From here on a configuration reset applies the drop-in files again.
        setConfigurationDiscovery(&runDropInPass);
        runDropInPass();
        const std::vector<std::string>& candidates = mainCandidates();
        if (!configurator) return;
        if (LibraryState::singleThreaded())
            configurator->configure(candidates);
        else
            configurator->configureAndWatch(candidates, intervalMs);
    } catch (...) {
        // Logging stays as it was.
    }
}
