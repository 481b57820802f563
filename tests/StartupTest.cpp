// ZVLOG_Enable in temporary installations of both directory layouts: the
// drop-in files in their order, the legacy rule, the main file's candidates
// with and without an instance, the watch it starts, and a reset applying
// the drop-in files again. The lists are worked out once per process, so
// each case runs in a child of its own.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "zvlog/AppContext.h"
#include "zvlog/BuildContext.h"
#include "zvlog/DOMConfigurator.h"
#include "zvlog/zvlog.h"

ZVLOG_DEFINE_BUILD_CONTEXT("zvstarttest", "1.0", "Debug", "None", "");

namespace fs = std::filesystem;
using namespace zvs::zvlib::zvlog;
using namespace std::chrono_literals;

namespace {

// A file that adds the appender `name` to the logger "order": the order of
// the logger's appenders is the order the files were applied in.
std::string addsToOrder(const std::string& name, const char* extra = "") {
    return "<configuration " + std::string(extra) + "><appender name=\"" + name +
           "\" class=\"FileAppender\"/><logger name=\"order\"><appender-ref name=\"" + name +
           "\"/></logger></configuration>";
}

// The main file also gives the standard loggers a level.
std::string mainFile(const std::string& name, const char* level) {
    std::string doc = "<configuration reset=\"true\"><appender name=\"" + name + "\" class=\"FileAppender\"/>";
    for (const char* std : {"zvlog.std.utility", "zvlog.std.system", "zvlog.std.application"})
        doc += std::string("<logger name=\"") + std + "\"><level value=\"" + level + "\"/></logger>";
    return doc + "<logger name=\"order\"><appender-ref name=\"" + name + "\"/></logger></configuration>";
}

void put(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    const std::string temporary = path + ".tmp";
    std::ofstream(temporary, std::ios::binary) << text;
    fs::rename(temporary, path);
}

// ---- the child's side -----------------------------------------------------

// Under the logger's lock: a reload by the watch thread may replace and
// destroy these appenders, never while the logger is held.
std::string orderLine() {
    std::string line = "order:";
    if (Logger* order = Logger::getRepository()->exists("order")) {
        zvs::zvlib::MultiThreading::MutexLock lock(order->mutex());
        for (Appender* a : order->getAllAppenders()) line += std::string(" ") + a->getName();
    }
    return line;
}

std::string bytesLine() {
    char text[64];
    // Loaded as call sites load them: the watch thread may be writing them.
    using zvs::zvlib::zvlog::detail::loadLevelByte;
    std::snprintf(text, sizeof text, "bytes: %u %u %u %u %u %u", loadLevelByte(zvlog_std_utility_effective_level),
                  loadLevelByte(zvlog_std_utility_calltrace_effective_level),
                  loadLevelByte(zvlog_std_system_effective_level),
                  loadLevelByte(zvlog_std_system_calltrace_effective_level),
                  loadLevelByte(zvlog_std_application_effective_level),
                  loadLevelByte(zvlog_std_application_calltrace_effective_level));
    return text;
}

void prepareContext() {
    if (const char* instance = std::getenv("ZVTEST_INSTANCE")) getAppContext()->SetItem(AppInstance, instance);
    if (std::getenv("ZVTEST_SCALOGGINGMODE")) getAppContext()->SetItem(SCALoggingMode, "1");
}

template <class Pred>
bool waitFor(Pred pred) {
    for (int i = 0; i < 2500 && !pred(); ++i) std::this_thread::sleep_for(2ms);
    return pred();
}

void enable() {
    std::printf("%s\n", bytesLine().c_str());
    prepareContext();
    DOMConfigurator configurator;
    ZVLOG_Enable(&configurator, 60000);
    std::printf("%s\n%s\n", orderLine().c_str(), bytesLine().c_str());
    std::printf("initialized %d single %d\n", zvlogInitialized(), zvlogIsSingleThreaded());
    // A reset applies the drop-in files again, without the main file.
    BasicConfigurator::resetConfiguration();
    std::printf("after reset %s\n", orderLine().c_str());
    // A second call applies everything again with the same candidates: the
    // list was worked out once, whatever the instance is now.
    if (std::getenv("ZVTEST_INSTANCE")) getAppContext()->SetItem(AppInstance, "changed");
    ZVLOG_Enable(&configurator, 60000);
    std::printf("again %s\n", orderLine().c_str());
}

// The watch ZVLOG_Enable starts: a changed main file is loaded, a removed
// one resets the configuration and the drop-in files come back.
void enableAndWatch() {
    const std::string main = std::getenv("ZVTEST_MAIN");
    DOMConfigurator configurator;
    ZVLOG_Enable(&configurator, 20);
    std::printf("%s\n%s\n", orderLine().c_str(), bytesLine().c_str());
    put(main, mainFile("main-edited", "DEBUG"));
    const bool edited = waitFor([] { return detail::loadLevelByte(zvlog_std_utility_effective_level) == 143; });
    std::printf("edited %d %s\n", edited, orderLine().c_str());
    fs::remove(main);
    const bool reset = waitFor([] { return detail::loadLevelByte(zvlog_std_utility_effective_level) == 223; });
    std::printf("removed %d %s\n", reset, orderLine().c_str());
}

const bool scenarios = zvtest::runRequestedScenario({{"enable", enable}, {"enableAndWatch", enableAndWatch}});

// ---- the parent's side ----------------------------------------------------

class Startup : public ::testing::Test {
protected:
    void SetUp() override { home_ = zvtest::temporaryPath("zvstartup"); }
    void TearDown() override { fs::remove_all(home_); }

    // The installation's directories, both layouts.
    void microservices() {
        fs::create_directories(home_ + "/bin");
        fs::create_directories(home_ + "/lib");
        d1_ = home_ + "/lib/utl/logging/";
        d2_ = home_ + "/etc/conf/logging/";
        conf_ = home_ + "/etc/conf/";
        legacy_ = false;
    }
    void legacy() {
        fs::create_directories(home_);
        d1_ = home_ + "/utl/logging/";
        d2_ = home_ + "/diretc/logging/";
        conf_ = home_ + "/";
        legacy_ = true;
    }
    // Every kind of drop-in file, in both directories, named so that neither
    // creation order nor directory order matches the order they apply in.
    void dropIns() {
        put(d2_ + "app-zvstarttest-extra.xml", addsToOrder("d2-app-extra"));
        put(d2_ + "sca-y.xml", addsToOrder("d2-sca-y"));
        put(d2_ + "qmr-0.xml", addsToOrder("d2-qmr-0"));
        put(d1_ + "qmr-b.xml", addsToOrder("d1-qmr-b"));
        put(d1_ + "app-zvstarttest.xml", addsToOrder("d1-app"));
        put(d1_ + "sca-x.xml", addsToOrder("d1-sca-x"));
        put(d1_ + "qmr-a.xml", addsToOrder("d1-qmr-a"));
        // Not for this application, not XML, or not a file.
        put(d1_ + "app-other.xml", addsToOrder("wrong-app"));
        put(d1_ + "qmr-c.txt", addsToOrder("wrong-suffix"));
        put(d2_ + "xqmr-d.xml", addsToOrder("wrong-prefix"));
        fs::create_directories(d1_ + "qmr-dir.xml");
    }
    void mainFiles(bool instance, bool application) {
        if (instance) put(conf_ + "zvlog-inst.xml", mainFile("main-instance", "INFO"));
        if (application) put(conf_ + "zvlog-zvstarttest.xml", mainFile("main-application", "INFO"));
        put(conf_ + "zvlog.xml", mainFile("main-plain", "INFO"));
    }

    std::vector<std::string> run(const char* scenario, std::vector<std::string> environment) {
        environment.push_back("QMR_HOME=" + home_);
        environment.push_back("QMR_*");
        if (legacy_) environment.push_back("QMR_FILESYSTEM_ISLEGACY=1");
        const zvtest::ChildResult child = zvtest::runChild(scenario, environment);
        EXPECT_TRUE(child.succeeded()) << child.status << "\n" << child.err;
        std::vector<std::string> lines;
        size_t start = 0;
        for (size_t end; (end = child.out.find('\n', start)) != std::string::npos; start = end + 1)
            lines.push_back(child.out.substr(start, end - start));
        return lines;
    }

    std::string home_, d1_, d2_, conf_;
    bool legacy_ = false;
};

const std::string kDropIns = " d1-qmr-a d1-qmr-b d2-qmr-0 d1-sca-x d2-sca-y d1-app d2-app-extra";

TEST_F(Startup, DropInsInTheirOrderThenTheInstancesMainFile) {
    microservices();
    dropIns();
    mainFiles(true, true);
    put(conf_ + "zvlog-changed.xml", mainFile("main-changed", "INFO"));  // never a candidate
    // The main file resets first: the drop-in files are applied again by
    // that reset, then the main file's own appender follows.
    const std::vector<std::string> expected = {
        "bytes: 255 255 255 255 255 255",
        "order:" + kDropIns + " main-instance",
        "bytes: 191 191 191 191 191 191",
        "initialized 1 single 0",
        "after reset order:" + kDropIns,
        "again order:" + kDropIns + " main-instance",
    };
    EXPECT_EQ(run("enable", {"ZVTEST_INSTANCE=inst"}), expected);
}

TEST_F(Startup, WithoutAnInstanceTheApplicationsFileAndThenThePlainOne) {
    microservices();
    mainFiles(true, true);
    std::vector<std::string> lines = run("enable", {});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "order: main-application");
    fs::remove(conf_ + "zvlog-zvstarttest.xml");
    lines = run("enable", {});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "order: main-plain");
    // An instance without a file of its own falls through as well.
    lines = run("enable", {"ZVTEST_INSTANCE=other"});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "order: main-plain");
}

TEST_F(Startup, NothingInstalledLeavesTheStandardLoggersOff) {
    microservices();
    const std::vector<std::string> lines = run("enable", {});
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[1], "order:");
    EXPECT_EQ(lines[2], "bytes: 255 255 255 255 255 255");
}

TEST_F(Startup, TheLegacyLayoutAppliesOnlyQmrFilesUnlessTheLoggingModeIsSet) {
    legacy();
    dropIns();
    mainFiles(false, false);
    std::vector<std::string> lines = run("enable", {});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "order: d1-qmr-a d1-qmr-b d2-qmr-0 main-plain");
    lines = run("enable", {"ZVTEST_SCALOGGINGMODE=1"});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "order:" + kDropIns + " main-plain");
}

TEST_F(Startup, ADropInThatResetsDoesNotStartThePassAgain) {
    microservices();
    dropIns();
    // Applied second: it resets what qmr-a did, and the reset's discovery
    // finds the pass already running.
    put(d1_ + "qmr-b.xml", addsToOrder("d1-qmr-b", "reset=\"true\""));
    const std::vector<std::string> lines = run("enable", {});
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "order: d1-qmr-b d2-qmr-0 d1-sca-x d2-sca-y d1-app d2-app-extra");
}

TEST_F(Startup, TheWatchFollowsTheMainFileInBothLayouts) {
    for (bool old : {false, true}) {
        SCOPED_TRACE(old ? "legacy" : "microservices");
        fs::remove_all(home_);
        old ? legacy() : microservices();
        put(d1_ + "qmr-a.xml", addsToOrder("d1-qmr-a"));
        mainFiles(false, false);
        const std::vector<std::string> expected = {
            "order: d1-qmr-a main-plain",
            "bytes: 191 191 191 191 191 191",
            "edited 1 order: d1-qmr-a main-edited",
            "removed 1 order: d1-qmr-a",
        };
        EXPECT_EQ(run("enableAndWatch", {"ZVTEST_MAIN=" + conf_ + "zvlog.xml"}), expected);
    }
}

}  // namespace
