// The application context and its children: the build context read from this
// program's exported variables, the program and DBMS tables, the process
// context, and the source context with its index offset.
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "support/ContextItems.h"
#include "zvlog/AppContext.h"
#include "zvlog/context/ProgramTables.h"
#include "zvstd/ProcessFacts.h"

ZVLOG_DEFINE_BUILD_CONTEXT_EX("zvapply", "12.3.0.1", "Release", "Oracle19c", "19.3", 1700000000LL,
                              "buildhost.example", "Linux", "x64");

using zvs::zvlib::zvlog::detail::buildDateTime;
using zvs::zvlib::zvlog::detail::describeProgram;
using zvtest::itemNumber;
using zvtest::itemText;
using zvtest::itemTime;

namespace {

const std::string kUnknown = "ZV Replicator Unknown Application - please modify zvlog/msgContext";

std::string program(const char* application, const char* dbms, unsigned int* type = nullptr) {
    std::string text;
    unsigned int code = describeProgram(application, dbms, text);
    if (type) *type = code;
    return text;
}

CContext* child(size_t index) { return getAppContext()->GetChildren().at(index); }

long long nanos(const timespec& t) { return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec; }

// Exposes AddContext for the index tests.
class ParentSourceContext : public CSourceContext {
public:
    using CSourceContext::CSourceContext;
    void Add(CContext* context) { AddContext(context); }
};

}  // namespace

static_assert(buildDateTime("Jan  1 1970", "00:00:00") == 0);
static_assert(buildDateTime("Feb 29 2024", "12:34:56") == 1709210096);
static_assert(buildDateTime("Dec 31 1999", "23:59:59") == 946684799);

TEST(BuildContext, ReadsTheVariablesThisProgramExports) {
    CBuildContext build;
    EXPECT_EQ(itemText(build, BuildApplication), "zvapply");
    EXPECT_EQ(itemText(build, BuildVersion), "12.3.0.1");
    EXPECT_EQ(itemText(build, BuildConfig), "Release");
    EXPECT_EQ(itemText(build, BuildHostName), "buildhost.example");
    EXPECT_EQ(itemText(build, BuildDBMS), "Oracle19c");
    EXPECT_EQ(itemText(build, BuildDBMSVersion), "19.3");
    EXPECT_EQ(itemText(build, BuildOS), "Linux");
    EXPECT_EQ(itemText(build, BuildOSArch), "x64");
    EXPECT_EQ(build.GetItemCount(false), 11u);

    // Texts are the context's own copies; the time is the variable itself.
    const CContextItem* application = build.GetItem(BuildApplication);
    ASSERT_NE(application, nullptr);
    EXPECT_TRUE(application->IsOwned());
    EXPECT_NE(static_cast<const char*>(*application), BuildContext_BuildApplication);
    const CContextItem* dateTime = build.GetItem(BuildDateTime);
    ASSERT_NE(dateTime, nullptr);
    EXPECT_EQ(dateTime->GetType(), CDataItem::TypePointer);
    EXPECT_EQ(static_cast<const void*>(*dateTime), &BuildContext_BuildDateTime);
    EXPECT_EQ(*static_cast<const long long*>(static_cast<const void*>(*dateTime)), 1700000000LL);

    EXPECT_EQ(itemText(build, BuildProgramString), "ZV Replicator Apply for Oracle Database");
    const CContextItem* type = build.GetItem(BuildProgramType);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->GetType(), CDataItem::TypeUInt);
    EXPECT_EQ(static_cast<unsigned int>(*type), 3u);
}

TEST(ProgramTable, ProgramRowsMatchOnlyTheWholeBaseName) {
    unsigned int type = 99;
    EXPECT_EQ(program("zvcapture", "None", &type), "ZV Replicator Capture");
    EXPECT_EQ(type, 1u);
    EXPECT_EQ(program("zvmanager", nullptr, &type), "ZV Replicator Manager");
    EXPECT_EQ(type, 5u);
    EXPECT_EQ(program("zvmonsvc", "None", &type), "ZV Replicator Monitoring Service");
    EXPECT_EQ(type, 12u);
    // A utility has a row and a display name, but type 0.
    EXPECT_EQ(program("zvlogdump", "None", &type), "ZV Replicator Activity Log Dump");
    EXPECT_EQ(type, 0u);

    for (const char* name : {"zvcaptur", "zvcapture2", "ZVCAPTURE", "", "AppContextTest"}) {
        type = 99;
        EXPECT_EQ(program(name, "None", &type), kUnknown) << name;
        EXPECT_EQ(type, 0u) << name;
    }
    type = 99;
    EXPECT_EQ(program(nullptr, nullptr, &type), kUnknown);
    EXPECT_EQ(type, 0u);
}

TEST(ProgramTable, DbmsRowsMatchByPrefixInTableOrder) {
    EXPECT_EQ(program("zvapply", "MSSQL2019"), "ZV Replicator Apply for SQL Server");
    EXPECT_EQ(program("zvapply", "DB2zOS12"), "ZV Replicator Apply for Db2 for z/OS");
    EXPECT_EQ(program("zvapply", "DB2i7.4"), "ZV Replicator Apply for Db2 for i");
    EXPECT_EQ(program("zvapply", "DB2LUW"), "ZV Replicator Apply for Db2 for Linux, UNIX and Windows");
    EXPECT_EQ(program("zvapply", "ZVDB"), "ZV Replicator Apply for ZV Database");
    // The unknown program still names its DBMS.
    EXPECT_EQ(program("zvnothing", "PostgreSQL15"), kUnknown + " for PostgreSQL");

    // "None" exactly adds nothing; neither does a DBMS of no row, nor a key
    // that is longer than the text.
    for (const char* dbms : {"None", "Cassandra", "", "Oracl", "oracle"})
        EXPECT_EQ(program("zvcapture", dbms), "ZV Replicator Capture") << dbms;
    EXPECT_EQ(program("zvcapture", nullptr), "ZV Replicator Capture");
}

TEST(AppContext, IsOneContextWithChildrenAndItsOwnItems) {
    CAppContext* app = getAppContext();
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(getAppContext(), app);
    EXPECT_FALSE(app->GetDeleteWithParent());
    ASSERT_EQ(app->GetChildren().size(), 3u);
    EXPECT_NE(dynamic_cast<CBuildContext*>(child(0)), nullptr);
    EXPECT_NE(dynamic_cast<CProcessContext*>(child(1)), nullptr);
    EXPECT_NE(dynamic_cast<CFileSysContext*>(child(2)), nullptr);
    for (CContext* c : app->GetChildren()) EXPECT_TRUE(c->GetDeleteWithParent());

    // Lookups reach the children: the build's and the process's items.
    EXPECT_EQ(itemText(*app, BuildApplication), "zvapply");
    EXPECT_EQ(itemNumber(*app, ProcessID), static_cast<unsigned long long>(getpid()));

    // Its own: empty, operating normally, started at construction.
    timespec now{};
    std::timespec_get(&now, TIME_UTC);
    EXPECT_EQ(itemText(*app, AppInstanceDescription), "");
    EXPECT_FALSE(app->GetItem(AppInstanceDescription)->IsOwned());
    const CContextItem* normal = app->GetItem(AppOperatingNormally);
    ASSERT_NE(normal, nullptr);
    EXPECT_EQ(normal->GetType(), CDataItem::TypeBool);
    EXPECT_TRUE(static_cast<bool>(*normal));
    timespec start = itemTime(*app, AppStartTime);
    EXPECT_LE(start.tv_sec, now.tv_sec);
    EXPECT_GT(start.tv_sec, now.tv_sec - 600);
    EXPECT_EQ(start.tv_nsec % 1000, 0);  // microseconds x 1000
}

TEST(AppContext, SetItemStoresOwnedCopies) {
    CAppContext* app = getAppContext();
    CContextItem* instance = app->GetItem(AppInstance);
    ASSERT_NE(instance, nullptr);
    char text[] = "EXT1";
    EXPECT_TRUE(app->SetItem(AppInstance, text));
    text[0] = 'X';
    EXPECT_EQ(app->GetItem(AppInstance), instance);  // the same item, a new value
    EXPECT_EQ(itemText(*app, AppInstance), "EXT1");
    EXPECT_TRUE(instance->IsOwned());

    // An item of another type keeps its value.
    EXPECT_TRUE(app->SetItem(AppOperatingNormally, "no"));
    EXPECT_EQ(app->GetItem(AppOperatingNormally)->GetType(), CDataItem::TypeBool);

    // Any other identifier becomes an own item, then is updated in place.
    unsigned int count = app->GetItemCount(false);
    EXPECT_TRUE(app->SetItem(ErrSQLErrorText, "first"));
    EXPECT_EQ(app->GetItemCount(false), count + 1);
    CContextItem* added = app->GetItem(ErrSQLErrorText);
    EXPECT_TRUE(app->SetItem(ErrSQLErrorText, "second"));
    EXPECT_EQ(app->GetItemCount(false), count + 1);
    EXPECT_EQ(app->GetItem(ErrSQLErrorText), added);
    EXPECT_EQ(itemText(*app, ErrSQLErrorText), "second");
}

TEST(ProcessContext, ExecutablePathsSplitAtTheLaterSeparator) {
    struct Case {
        const char* path;
        const char* directory;
        const char* base;
    } cases[] = {
        {"C:\\x\\y\\prog.exe", "C:\\x\\y", "prog"},
        {"prog.exe", "", "prog"},
        {"zvcapture", "", "zvcapture"},
        {"/opt/zv/bin/zv.tool.x", "/opt/zv/bin", "zv.tool"},
        {"/a/b\\c.d", "/a/b", "c"},
        {"a\\b/c", "a\\b", "c"},
        {"/opt/v1.2/prog", "/opt/v1.2", "prog"},
        {"/", "", ""},
    };
    for (const Case& c : cases) {
        std::string directory = "?", base = "?";
        zvs::zvlib::zvSplitExecutablePath(c.path, directory, base);
        EXPECT_EQ(directory, c.directory) << c.path;
        EXPECT_EQ(base, c.base) << c.path;
    }
}

TEST(ProcessContext, DescribesThisProcess) {
    CProcessContext process;
    EXPECT_EQ(itemNumber(process, ProcessID), static_cast<unsigned long long>(getpid()));
    std::string executable = itemText(process, ProcessExecutable);
    EXPECT_TRUE(executable.ends_with("/AppContextTest")) << executable;
    EXPECT_EQ(itemText(process, ProcessExecutableBase), "AppContextTest");
    EXPECT_EQ(itemText(process, ProcessExecutableDir) + "/AppContextTest", executable);
    EXPECT_STREQ(getProcessExecutableBase(), "AppContextTest");
    EXPECT_FALSE(process.GetItem(ProcessExecutable)->IsOwned());  // a shared buffer

    std::string commandLine = itemText(process, ProcessCommandLine);
    EXPECT_NE(commandLine.find("AppContextTest"), std::string::npos) << commandLine;
    EXPECT_FALSE(commandLine.ends_with(" ")) << commandLine;
    EXPECT_LE(commandLine.size(), 4095u);

    EXPECT_FALSE(itemText(process, ProcessHostName).empty());
    EXPECT_FALSE(itemText(process, ProcessOSName).empty());
#if defined(__x86_64__)
    EXPECT_EQ(itemText(process, ProcessOSArch), "x64");
#endif
}

TEST(ProcessContext, OSVersionComesFromTheKernelRelease) {
    CProcessContext process;
    utsname u;
    ASSERT_EQ(uname(&u), 0);
    std::string version = itemText(process, ProcessOSVersion);
    char expected[64];
    snprintf(expected, sizeof expected, "%llu.%llu.%llu",
             itemNumber(process, CProcessContext::OSMajorVersion),
             itemNumber(process, CProcessContext::OSMinorVersion),
             itemNumber(process, CProcessContext::OSBuildNumber));
    EXPECT_EQ(version, expected);
    // "6.1.0-18-amd64" gives "6.1.0".
    EXPECT_EQ(std::string(u.release).compare(0, version.size(), version), 0) << u.release;
    EXPECT_GT(itemNumber(process, CProcessContext::OSMajorVersion), 2u);
    EXPECT_EQ(itemText(process, CProcessContext::OSServicePack), u.version);
    // The unnamed items stay out of the name table.
    EXPECT_EQ(CContext::GetContextItemName(CProcessContext::OSMajorVersion), nullptr);
    EXPECT_EQ(CContext::GetContextItemName(CProcessContext::OSServicePack), nullptr);
}

TEST(ProcessContext, WorkingDirectoryFollowsChdirThroughTheApplicationContext) {
    char original[PATH_MAX];
    ASSERT_NE(getcwd(original, sizeof original), nullptr);
    char temporary[] = "/tmp/zvlog-cwd-XXXXXX";
    ASSERT_NE(mkdtemp(temporary), nullptr);
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(temporary, resolved), nullptr);

    ASSERT_EQ(chdir(resolved), 0);
    CContextItem* item = getAppContext()->GetItem(ProcessWorkingDir);
    std::string inTemporary = itemText(*getAppContext(), ProcessWorkingDir);
    ASSERT_EQ(chdir(original), 0);
    std::string back = itemText(*getAppContext(), ProcessWorkingDir);
    rmdir(temporary);

    EXPECT_EQ(inTemporary, resolved);
    EXPECT_EQ(back, original);
    EXPECT_EQ(getAppContext()->GetItem(ProcessWorkingDir), item);  // recomputed in place
}

TEST(ProcessContext, TimesAndMemoryAreRecomputedOnLookup) {
    CProcessContext process;
    timespec userBefore = itemTime(process, ProcessUserTime);
    timespec systemBefore = itemTime(process, ProcessSystemTime);
    timespec clockBefore = itemTime(process, ProcessClockTime);
    timespec start{}, now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
    do clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    while (nanos(now) - nanos(start) < 200000000LL);
    timespec userAfter = itemTime(process, ProcessUserTime);
    timespec systemAfter = itemTime(process, ProcessSystemTime);
    timespec clockAfter = itemTime(process, ProcessClockTime);
    // 200 ms of CPU shows in the process times and in the elapsed time.
    long long cpu = nanos(userAfter) + nanos(systemAfter) - nanos(userBefore) - nanos(systemBefore);
    EXPECT_GE(cpu, 150000000LL);
    EXPECT_LT(cpu, 60000000000LL);
    EXPECT_GE(nanos(clockAfter) - nanos(clockBefore), 150000000LL);
    EXPECT_GE(nanos(clockAfter), nanos(userAfter));

    timespec uptime = itemTime(process, ProcessOSUptime);
    EXPECT_EQ(uptime.tv_nsec, 0);
    EXPECT_GE(uptime.tv_sec + 1, clockAfter.tv_sec);

    unsigned long long physicalBefore = itemNumber(process, ProcessMemoryPhysical);
    const size_t size = 64u << 20;
    char* block = static_cast<char*>(malloc(size));
    ASSERT_NE(block, nullptr);
    memset(block, 1, size);
    unsigned long long physical = itemNumber(process, ProcessMemoryPhysical);
    unsigned long long virtualSize = itemNumber(process, ProcessMemoryVirtual);
    volatile char keep = block[size / 2];
    (void)keep;
    free(block);
    EXPECT_GT(physicalBefore, 0u);
    EXPECT_GE(physical, physicalBefore + 60000u);  // KiB
    EXPECT_GE(virtualSize, physical);
}

TEST(SourceContext, CountsFourItemsAndMakesThemOnFirstLookup) {
    errno = EACCES;  // its own operator new leaves errno alone
    const std::unique_ptr<CSourceContext> owned(new CSourceContext("zvlog/CDataItem", "", "SafeStrdup", 12));
    EXPECT_EQ(errno, EACCES);
    CSourceContext& source = *owned;
    EXPECT_EQ(source.GetItemCount(false), 4u);
    EXPECT_EQ(source.GetItemCount(true), 4u);
    EXPECT_EQ(source.GetItemID(0), SourceModule);
    EXPECT_EQ(source.GetItemID(1), SourceID);
    EXPECT_EQ(source.GetItemID(2), SourceMethod);
    EXPECT_EQ(source.GetItemID(3), SourceLine);

    const CContextItem* line = source.GetItem(SourceLine);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->GetType(), CDataItem::TypeUInt);
    EXPECT_EQ(static_cast<unsigned int>(*line), 12u);
    EXPECT_EQ(itemText(source, SourceModule), "zvlog/CDataItem");
    EXPECT_EQ(itemText(source, SourceID), "");
    EXPECT_EQ(itemText(source, SourceMethod), "SafeStrdup");
    EXPECT_TRUE(source.GetItem(SourceModule)->IsOwned());
    EXPECT_EQ(source.GetItemCount(false), 4u);
    EXPECT_EQ(source.GetItem(ProcessID), nullptr);

    CSourceContext copy(source);
    EXPECT_EQ(copy.GetItemCount(false), 4u);
    EXPECT_EQ(itemNumber(copy, SourceLine), 12u);
    EXPECT_EQ(itemText(copy, SourceMethod), "SafeStrdup");
}

TEST(SourceContext, ChildItemsStartAtIndexEight) {
    ParentSourceContext parent("zvlog.std", "zvlog/zvlog", "parent", 1);
    parent.Add(new CSourceContext("zvlog.std", "zvlog/msgAction", "child", 2));
    EXPECT_EQ(parent.GetItemCount(true), 8u);
    ASSERT_NE(parent.GetItem(SourceLine), nullptr);  // makes the own items

    // 4..7 answer the own four again, in the container's order.
    unsigned int seen = 0;
    for (unsigned int i = 4; i < 8; ++i) {
        ContextItemID id = parent.GetItemID(i);
        EXPECT_TRUE(id == SourceModule || id == SourceID || id == SourceMethod || id == SourceLine) << i;
        seen += id == SourceModule ? 1 : id == SourceID ? 2 : id == SourceMethod ? 4 : 8;
    }
    EXPECT_EQ(seen, 15u);
    EXPECT_EQ(parent.GetItemID(8), SourceModule);
    EXPECT_EQ(parent.GetItemID(11), SourceLine);
    EXPECT_EQ(parent.GetItemID(12), 0u);
    // Lookups find the own items first.
    EXPECT_EQ(itemText(parent, SourceMethod), "parent");
}

namespace {

std::string termText(uint32_t id) {
    CContextItem* item = getAppContext()->GetItem(static_cast<ContextItemID>(id));
    if (!item || item->GetType() != CDataItem::TypeString) return "<absent>";
    return static_cast<const char*>(*item);
}

TEST(AppContextTerms, AddTermsStoresTheCatalogsTermsForThisBuild) {
    for (uint32_t id : CAppContext::kTermItems) EXPECT_EQ(CContext::GetContextItemName(static_cast<ContextItemID>(id)), nullptr);
    ASSERT_TRUE(getAppContext()->AddTerms());
    const char* expected[8] = {"ZV Replicator", "replication", "database", "table",
                               "column",        "schema",      "catalog",  "trail"};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(termText(CAppContext::kTermItems[i]), expected[i]) << i;
    // The SQL Server and own-database wordings replace the third and last terms.
    getAppContext()->SetItem(BuildDBMS, "MSSQL");
    getAppContext()->AddTerms();
    EXPECT_EQ(termText(CAppContext::kTermItems[2]), "SQL Server database");
    EXPECT_EQ(termText(CAppContext::kTermItems[7]), "trail");
    getAppContext()->SetItem(BuildDBMS, "ZVDB");
    getAppContext()->AddTerms();
    EXPECT_EQ(termText(CAppContext::kTermItems[2]), "database");
    EXPECT_EQ(termText(CAppContext::kTermItems[7]), "ZV database");
}

}  // namespace
