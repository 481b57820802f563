// The installation's directory table: where the programs of the suite find
// their binaries, parameter files, reports, checkpoints, logs and wallets.
//
// Two layouts exist. The legacy one keeps everything in "dir..." folders
// under one home directory (dirprm, dirrpt, ...); the "Microservices" one
// spreads the directories over home, etc, configuration, variable-data and
// data roots, each of which the environment may move:
//
//   QMR_HOME -> Home        QMR_ETC_HOME -> Etc     QMR_CONF_HOME -> Conf
//   QMR_SSL_HOME -> SSL     QMR_VAR_HOME -> Var     QMR_DATA_HOME -> Data
//
// An empty variable presets nothing. QMR_FILESYSTEM_ISLEGACY, present with any
// value (even empty), selects the legacy layout; otherwise a Home without both
// a "bin" and a "lib" folder is legacy.
//
// Paths are UTF-8 and every directory path ends with "/". Where paths are
// compared or split, "/" and "\" both count as separators.
//
// Directory creation (Microservices layout only; the legacy layout never
// creates anything):
// - a service program (see kServicePrograms) creates every derived entry
//   marked for creation, with its missing parents;
// - any other program creates only its log folder, and only when
//   QMR_VAR_HOME is set: a path is created when it is the "log/" folder of
//   the Var entry or lies below it. A utility run against a relocated
//   variable-data root thus gets somewhere to write its log, and nothing else
//   appears on disk behind the back of the installation's owner.
//
// Problems found while building the table do not stop it; they are raised as
// catalogued messages kept for the caller to issue:
// - 12420: a path too long (QMR_HOME of 240 characters or more, with
//   "QMR_HOME" and 240; a derived entry of 260 or more, with its name and 260);
// - 12421: a directory could not be created (path and system error text); the
//   path, error text and error number are also logged at ERROR on
//   "sca.FileSystem".
#pragma once

#include <map>
#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::sca {

class ZVLOG_API FilesysHierarchy {
public:
    // The base names of the suite's service programs. A program is one of
    // them when its base name occurs anywhere in this text (a plain substring
    // search, so "pmsrv" counts too, and so does an unknown, empty name).
    static constexpr const char* kServicePrograms = "zvadminsrv,zvdistsrv,zvrecvsrv,zvpmsrv,zvservicemgr";

    // The process-wide table, built by the first call with that call's hint
    // (later hints are ignored) and never rebuilt, whatever the environment
    // does afterwards.
    static FilesysHierarchy& getInstance(const std::string& hint = std::string());

    // Builds a table from the current environment for the running program.
    // The hint is the directory Home is derived from when QMR_HOME is not
    // set; "" means the executable's directory.
    explicit FilesysHierarchy(const std::string& hint);
    // The same, as seen by the program of the given base name (it decides
    // whether this is a service program).
    FilesysHierarchy(const std::string& hint, const std::string& programBase);

    FilesysHierarchy(const FilesysHierarchy&) = delete;
    FilesysHierarchy& operator=(const FilesysHierarchy&) = delete;

    // The directory of an entry ("Home", "Bin", "Report", ...); "" for a
    // name that is not in the table. The reference stays valid as long as
    // the table.
    const std::string& getPath(const std::string& name) const;
    // Every entry, name -> path, in name order.
    const std::map<std::string, std::string>& getEntries() const { return entries_; }
    bool isLegacy() const { return legacy_; }
    bool isServiceProgram() const { return serviceProgram_; }

    // Writes the table at INFO on "sca.FileSystem": a header line, one line
    // per entry in name order, and a closing line.
    void toLog() const;

    static bool isServiceProgramName(const std::string& programBase);
    // The running program's directory without a trailing separator; "."
    // when it cannot be found.
    static std::string executableDirectory();

private:
    void detectFilesysHierarchy(const std::string& hint);
    void setupRelative(unsigned int ruleIndex);
    void createSubdir(const std::string& path);
    void makeSubdir(const std::string& path);

    bool serviceProgram_ = false;
    bool legacy_ = false;
    bool varHomeFromEnvironment_ = false;
    std::map<std::string, std::string> entries_;
};

}  // namespace zvs::zvlib::sca
