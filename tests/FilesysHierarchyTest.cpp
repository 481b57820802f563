// The directory table: both layouts against real installations built in
// temporary directories, the environment presets, Home detection, over-long
// paths, what gets created on disk, the mapping log and the context items.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/CaptureAppender.h"
#include "zvlog/FileSysContext.h"
#include "zvlog/Message.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvlog/zvlog.h"
#include "zvsca/FilesysHierarchy.h"

using namespace zvs::zvlib::zvlog;
using zvs::zvlib::sca::FilesysHierarchy;
using zvtest::CaptureAppender;
namespace fs = std::filesystem;

namespace {

const char* const kVariables[] = {"QMR_HOME",     "QMR_ETC_HOME",  "QMR_CONF_HOME",          "QMR_SSL_HOME",
                                  "QMR_VAR_HOME", "QMR_DATA_HOME", "QMR_FILESYSTEM_ISLEGACY"};
const char* const kService = "zvpmsrv";
const char* const kUtility = "zvcmd";

using Table = std::map<std::string, std::string>;

// Every entry below Home, as the relative paths of the two layouts.
Table prefixed(const std::string& home, const Table& relative) {
    Table t;
    for (const auto& [name, path] : relative) t[name] = home + path;
    return t;
}

Table microservicesTable(const std::string& h) {
    return prefixed(h, {{"Home", ""}, {"Bin", "bin/"}, {"Lib", "lib/"}, {"Etc", "etc/"}, {"HtDocs", "lib/htdocs/"},
                        {"Conf", "etc/conf/"}, {"ConfQmr", "etc/conf/qmr/"}, {"ConfLogging", "etc/conf/logging/"},
                        {"Globals", "etc/conf/qmr/"}, {"SSL", "etc/ssl/"}, {"Var", "var/"},
                        {"LibConf", "var/lib/conf/"}, {"Data", "var/lib/data/"}, {"Db", "var/lib/db/"},
                        {"Sql", "var/lib/sql/"}, {"CheckPt", "var/lib/checkpt/"}, {"Report", "var/lib/report/"},
                        {"Run", "var/run/"}, {"Log", "var/log/"}, {"Lock", "var/lock/"}, {"Temp", "var/temp/"},
                        {"Def", "var/lib/def/"}, {"Dmp", "var/log/"}, {"Wlt", "var/lib/wallet/"},
                        {"Crd", "var/lib/credential/"}, {"DistPaths", "var/lib/distpaths/"}});
}

Table legacyTable(const std::string& h) {
    return prefixed(h, {{"Home", ""}, {"Bin", ""}, {"Lib", ""}, {"Etc", "diretc/"}, {"HtDocs", "dirsca/"},
                        {"Conf", ""}, {"ConfQmr", "dirprm/"}, {"ConfLogging", "diretc/logging/"}, {"Globals", ""},
                        {"SSL", "diretc/"}, {"Var", ""}, {"LibConf", "dirprm/"}, {"Data", ""}, {"Db", "dirprm/"},
                        {"Sql", "dirsql/"}, {"CheckPt", "dirchk/"}, {"Report", "dirrpt/"}, {"Run", "dirpcs/"},
                        {"Log", ""}, {"Lock", "dirpcs/"}, {"Temp", "dirtmp/"}, {"Def", "dirdef/"},
                        {"Dmp", "dirdmp/"}, {"Wlt", "dirwlt/"}, {"Crd", "dircrd/"}, {"DistPaths", ""}});
}

Logger* fileSystemLogger() { return Logger::getRepository()->getLogger("sca")->getChild("FileSystem"); }

class FilesysHierarchyTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kVariables) {
            const char* value = std::getenv(name);
            if (value) saved_[name] = value;
            unsetenv(name);
        }
        char pattern[] = "/tmp/zvfsXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        home_ = root_ + "/";
        fileSystemLogger()->setAdditivity(false);
    }
    void TearDown() override {
        fileSystemLogger()->removeAllAppenders();
        fileSystemLogger()->setLevel(LEVEL_OFF);
        for (const char* name : kVariables) unsetenv(name);
        for (const auto& [name, value] : saved_) setenv(name.c_str(), value.c_str(), 1);
        fs::remove_all(root_);
    }

    void installation(const std::string& dir) {
        fs::create_directories(dir + "/bin");
        fs::create_directories(dir + "/lib");
    }
    // QMR_HOME naming an installation with bin and lib: "Microservices".
    void standardHome() {
        installation(root_);
        setenv("QMR_HOME", root_.c_str(), 1);
    }
    // Every directory below the root, relative to it.
    std::set<std::string> directories() const {
        std::set<std::string> found;
        for (const auto& e : fs::recursive_directory_iterator(root_))
            if (e.is_directory()) found.insert(fs::relative(e.path(), root_).string());
        return found;
    }
    // A path of exactly `length` characters below the root.
    std::string pathOfLength(size_t length) const {
        std::string p = root_;
        while (p.size() < length) {
            const size_t rest = length - p.size();
            p += "/" + std::string(rest > 120 ? 100 : rest - 1, 'x');
        }
        return p;
    }

    std::map<std::string, std::string> saved_;
    std::string root_;
    std::string home_;
};

TEST_F(FilesysHierarchyTest, MicroservicesWhenHomeHasBinAndLib) {
    standardHome();
    FilesysHierarchy h("/elsewhere/bin/", kUtility);
    EXPECT_FALSE(h.isLegacy());
    EXPECT_FALSE(h.isServiceProgram());
    EXPECT_EQ(h.getEntries(), microservicesTable(home_));
    EXPECT_EQ(h.getPath("NoSuchEntry"), "");
    // Not a service program and no QMR_VAR_HOME: nothing is created.
    EXPECT_EQ(directories(), (std::set<std::string>{"bin", "lib"}));
}

TEST_F(FilesysHierarchyTest, LegacyLayoutKeepsEverythingUnderHomeAndCreatesNothing) {
    installation(root_);
    setenv("QMR_HOME", home_.c_str(), 1);
    setenv("QMR_FILESYSTEM_ISLEGACY", "", 1);  // present is enough
    CaptureAppender app("fs-legacy");
    fileSystemLogger()->addAppender(app);
    fileSystemLogger()->setLevel(LEVEL_DEBUG);
    FilesysHierarchy h("", kService);
    EXPECT_TRUE(h.isLegacy());
    EXPECT_TRUE(h.isServiceProgram());
    EXPECT_EQ(h.getEntries(), legacyTable(home_));
    EXPECT_EQ(directories(), (std::set<std::string>{"bin", "lib"}));
    // One skip per entry that has a folder of its own to create.
    ASSERT_EQ(app.size(), 16u);
    for (const auto& e : app.events()) {
        EXPECT_EQ(e.message, "Skipping subdirectory creation for standard deployments.");
        EXPECT_EQ(e.level, LEVEL_DEBUG);
    }
}

TEST_F(FilesysHierarchyTest, LegacyWhenBinOrLibIsNotAFolder) {
    setenv("QMR_HOME", root_.c_str(), 1);
    fs::create_directory(root_ + "/lib");
    FilesysHierarchy h("", kService);
    EXPECT_TRUE(h.isLegacy()) << "no bin";
    EXPECT_EQ(h.getPath("Report"), home_ + "dirrpt/");
    EXPECT_EQ(directories(), (std::set<std::string>{"lib"}));
    std::ofstream(root_ + "/bin") << "a file, not a folder";
    EXPECT_TRUE(FilesysHierarchy("", kService).isLegacy()) << "bin is a file";
}

TEST_F(FilesysHierarchyTest, PresetEntriesAreTakenAsGivenAndOthersDeriveFromThem) {
    standardHome();
    setenv("QMR_ETC_HOME", "/cfg/etc", 1);
    setenv("QMR_CONF_HOME", "/cfg/conf", 1);
    setenv("QMR_SSL_HOME", "", 1);  // empty presets nothing
    setenv("QMR_DATA_HOME", "/data/", 1);
    FilesysHierarchy h("", kUtility);
    EXPECT_EQ(h.getPath("Etc"), "/cfg/etc/");
    EXPECT_EQ(h.getPath("Conf"), "/cfg/conf/");
    EXPECT_EQ(h.getPath("ConfQmr"), "/cfg/conf/qmr/");
    EXPECT_EQ(h.getPath("Globals"), "/cfg/conf/qmr/");
    EXPECT_EQ(h.getPath("ConfLogging"), "/cfg/conf/logging/");
    EXPECT_EQ(h.getPath("SSL"), "/cfg/etc/ssl/");
    EXPECT_EQ(h.getPath("Data"), "/data/");
    EXPECT_EQ(h.getPath("HtDocs"), home_ + "lib/htdocs/");
}

TEST_F(FilesysHierarchyTest, VarHomeMovesEveryVarRelativeEntry) {
    standardHome();
    const std::string varHome = root_ + "/vh";
    setenv("QMR_VAR_HOME", varHome.c_str(), 1);
    {
        FilesysHierarchy h("", kUtility);
        Table expected = microservicesTable(home_);
        for (auto& [name, path] : expected)
            if (path.starts_with(home_ + "var/")) path = varHome + "/" + path.substr(home_.size() + 4);
        EXPECT_EQ(h.getEntries(), expected);
        // Another program creates its log folder only.
        EXPECT_EQ(directories(), (std::set<std::string>{"bin", "lib", "vh", "vh/log"}));
    }
    {
        setenv("QMR_FILESYSTEM_ISLEGACY", "1", 1);
        FilesysHierarchy h("", kUtility);
        Table expected = legacyTable(home_);
        expected["Var"] = varHome + "/";
        // Legacy entries hang off Home, not Var.
        EXPECT_EQ(h.getEntries(), expected);
    }
}

TEST_F(FilesysHierarchyTest, HomeFromTheHintWhenQmrHomeIsUnset) {
    installation(root_);
    EXPECT_EQ(FilesysHierarchy(root_ + "/bin/", kUtility).getPath("Home"), home_);
    FilesysHierarchy h(root_ + "/bin", kUtility);
    EXPECT_EQ(h.getPath("Home"), home_);
    EXPECT_FALSE(h.isLegacy());
    EXPECT_EQ(h.getPath("Bin"), home_ + "bin/");
    EXPECT_EQ(FilesysHierarchy(root_ + "/sbin/", kUtility).getPath("Home"), root_ + "/sbin/");

    // The catalog beside the program: a flat installation in bin itself.
    std::ofstream(root_ + "/bin/zvMessage.dat") << "catalog";
    FilesysHierarchy flat(root_ + "/bin/", kUtility);
    EXPECT_EQ(flat.getPath("Home"), home_ + "bin/");
    EXPECT_TRUE(flat.isLegacy());
    EXPECT_EQ(flat.getPath("Report"), home_ + "bin/dirrpt/");

    // No hint: the executable's directory.
    const std::string exe = fs::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(FilesysHierarchy("", kUtility).getPath("Home"), exe.substr(0, exe.rfind('/') + 1));

    setenv("QMR_HOME", (root_ + "/q").c_str(), 1);
    EXPECT_EQ(FilesysHierarchy(root_ + "/bin/", kUtility).getPath("Home"), root_ + "/q/");
}

TEST_F(FilesysHierarchyTest, OverLongPathsRaiseButAreStillUsed) {
    const auto raised = [] { return detail::raisedMessageCount(12420); };
    // Loaded now, the catalog's own look at the installation stays out of the counts.
    CMessageFactory::GetDefaultFactory();
    const std::string home239 = pathOfLength(239), home = pathOfLength(240);
    installation(home239);
    installation(home);

    setenv("QMR_HOME", home239.c_str(), 1);
    unsigned long long before = raised();
    FilesysHierarchy ok("", kUtility);  // Crd is 239 + 1 + 19 = 259 characters
    EXPECT_FALSE(ok.isLegacy());
    EXPECT_EQ(raised(), before);

    setenv("QMR_HOME", home.c_str(), 1);
    before = raised();
    FilesysHierarchy longHome("", kUtility);
    EXPECT_EQ(raised(), before + 2) << "QMR_HOME and Crd (260 characters)";
    EXPECT_EQ(longHome.getPath("Home"), home + "/");
    EXPECT_EQ(longHome.getPath("Crd"), home + "/var/lib/credential/");
    EXPECT_EQ(longHome.getPath("DistPaths").size(), 259u);

    setenv("QMR_FILESYSTEM_ISLEGACY", "", 1);
    before = raised();
    FilesysHierarchy legacy("", kUtility);
    EXPECT_EQ(raised(), before + 1) << "QMR_HOME only";
    EXPECT_EQ(legacy.getPath("ConfLogging"), home + "/diretc/logging/");
}

TEST_F(FilesysHierarchyTest, ServiceProgramCreatesEveryFolderWithItsParents) {
    standardHome();
    FilesysHierarchy h("", kService);
    EXPECT_TRUE(h.isServiceProgram());
    const std::set<std::string> expected = {
        "bin", "lib", "lib/htdocs", "etc", "etc/conf", "etc/conf/qmr", "etc/conf/logging", "etc/ssl", "var",
        "var/lib", "var/lib/conf", "var/lib/data", "var/lib/db", "var/lib/sql", "var/lib/checkpt",
        "var/lib/report", "var/run", "var/log", "var/lock", "var/temp", "var/lib/def", "var/lib/wallet",
        "var/lib/credential", "var/lib/distpaths"};
    EXPECT_EQ(directories(), expected);
    // Everything exists now: a second run is quiet.
    const unsigned long long before = detail::raisedMessageCount(12421);
    FilesysHierarchy again("", kService);
    EXPECT_EQ(detail::raisedMessageCount(12421), before);
}

TEST_F(FilesysHierarchyTest, CreationFailureIsLoggedAndRaisedPerFolder) {
    installation(root_);
    std::ofstream(root_ + "/var") << "a file where var should be";
    setenv("QMR_HOME", root_.c_str(), 1);
    CaptureAppender app("fs-fail");
    fileSystemLogger()->addAppender(app);
    fileSystemLogger()->setLevel(LEVEL_DEBUG);
    const unsigned long long before = detail::raisedMessageCount(12421);
    FilesysHierarchy h("", kService);

    EXPECT_EQ(detail::raisedMessageCount(12421), before + 15) << "every folder below var";
    const auto events = app.events();
    ASSERT_EQ(events.size(), 15u);
    EXPECT_EQ(events[0].message, "Unable to auto create directory '" + home_ + "var/lib/conf/': Not a directory (20).");
    EXPECT_EQ(events[0].level, LEVEL_ERROR);
    EXPECT_EQ(events[0].loggerName, "sca.FileSystem");
    EXPECT_EQ(events[14].message,
              "Unable to auto create directory '" + home_ + "var/lib/distpaths/': Not a directory (20).");
    // The table is complete all the same, and the folders elsewhere exist.
    EXPECT_EQ(h.getEntries(), microservicesTable(home_));
    EXPECT_TRUE(fs::is_directory(root_ + "/etc/conf/logging"));
}

TEST_F(FilesysHierarchyTest, MappingIsLoggedInNameOrder) {
    standardHome();
    FilesysHierarchy h("", kUtility);
    CaptureAppender app("fs-map");
    fileSystemLogger()->addAppender(app);
    fileSystemLogger()->setLevel(LEVEL_INFO);
    h.toLog();

    const Table table = microservicesTable(home_);
    const char* const order[] = {"Bin",  "CheckPt", "Conf", "ConfLogging", "ConfQmr", "Crd",   "Data",
                                 "Db",   "Def",     "DistPaths", "Dmp",   "Etc",     "Globals", "Home",
                                 "HtDocs", "Lib",   "LibConf", "Lock",    "Log",     "Report", "Run", "SSL",
                                 "Sql",  "Temp",    "Var",  "Wlt"};
    std::vector<std::string> expected = {"Logging Filesystem Standard Hierarchy Microservices mapping of 26 entries:"};
    for (const char* name : order)
        expected.push_back(name + std::string(15 - std::strlen(name), ' ') + " -> '" + table.at(name) + "'");
    expected.push_back("End logging Filesystem Standard Hierarchy mapping.");
    std::vector<std::string> logged;
    for (const auto& e : app.events()) logged.push_back(e.message);
    EXPECT_EQ(logged, expected);
    EXPECT_EQ(app.events()[0].level, LEVEL_INFO);

    setenv("QMR_FILESYSTEM_ISLEGACY", "", 1);
    app.clear();
    FilesysHierarchy(root_, kUtility).toLog();
    ASSERT_FALSE(app.events().empty());
    EXPECT_EQ(app.events()[0].message, "Logging Filesystem Standard Hierarchy Legacy mapping of 26 entries:");
}

TEST(FilesysHierarchyNames, ServiceProgramsByPlainSubstringSearch) {
    for (const char* name : {"zvadminsrv", "zvdistsrv", "zvrecvsrv", "zvpmsrv", "zvservicemgr", "pmsrv"})
        EXPECT_TRUE(FilesysHierarchy::isServiceProgramName(name)) << name;
    for (const char* name : {"zvpmsrv2", "zvcmd", "FilesysHierarchyTest"})
        EXPECT_FALSE(FilesysHierarchy::isServiceProgramName(name)) << name;
}

// The process-wide table, seen through its context. Each case runs in a
// fresh process so that the environment is in place before first use.
std::string checkContext(const std::string& home, bool legacy, const std::string& log) {
    std::string failures;
    const auto text = [](CContextItem* item) -> std::string {
        return item && item->GetType() == CDataItem::TypeString ? static_cast<const char*>(*item) : "<none>";
    };
    CFileSysContext context;
    if (context.GetItemCount(false) != 25) failures += "item count; ";
    if (text(context.GetItem(DirProcessHome)) != home) failures += "Home " + text(context.GetItem(DirProcessHome)) + "; ";
    if (text(context.GetItem(DirProcessLog)) != log) failures += "Log " + text(context.GetItem(DirProcessLog)) + "; ";
    if (text(context.GetItem(DirProcessConfQmr)) != FilesysHierarchy::getInstance().getPath("ConfQmr"))
        failures += "ConfQmr; ";
    CContextItem* flag = context.GetItem(DirStructureIsLegacy);
    if (!flag || flag->GetType() != CDataItem::TypeBool || static_cast<bool>(*flag) != legacy) failures += "legacy flag; ";
    CContextItem* item = context.GetItem(DirProcessHome);
    if (item && (item->IsOwned() || item->GetValue().str != FilesysHierarchy::getInstance().getPath("Home").c_str()))
        failures += "Home is a copy; ";
    // Built once: a later environment changes nothing.
    setenv("QMR_HOME", "/somewhere/else", 1);
    CFileSysContext second;
    if (text(second.GetItem(DirProcessHome)) != home) failures += "rebuilt; ";
    return failures;
}

void runContextCase(const std::string& root, const std::string& home, bool legacy, const std::string& log) {
    const std::string failures = checkContext(home, legacy, log);
    fs::remove_all(root);  // the fixture's TearDown does not run in this process
    if (!failures.empty()) fprintf(stderr, "%s\n", failures.c_str());
    std::_Exit(failures.empty() ? 0 : 1);
}

TEST_F(FilesysHierarchyTest, ProcessWideContextItems) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    standardHome();
    EXPECT_EXIT(runContextCase(root_, home_, false, home_ + "var/log/"), ::testing::ExitedWithCode(0), "");
    setenv("QMR_FILESYSTEM_ISLEGACY", "", 1);
    EXPECT_EXIT(runContextCase(root_, home_, true, home_), ::testing::ExitedWithCode(0), "");
}

}  // namespace
