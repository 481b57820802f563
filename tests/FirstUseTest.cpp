// First use of the process-wide objects that depend on each other: the
// message factory needs the application context, whose filesystem hierarchy
// may have to raise messages while it is being built. Whatever is used first,
// nothing hangs and the messages wait in the thread's error context. Each
// order runs in a fresh child process, since the objects are built once per
// process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "zvlog/AppContext.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/Message.h"
#include "zvsca/FilesysHierarchy.h"

namespace fs = std::filesystem;

namespace {

// A hang fails the test in seconds instead of at the harness's limit.
void startWatchdog() { alarm(20); }

// The error context's messages, one line each: number and formatted text.
void printErrorContext() {
    CErrorContext& context = CErrorContext::GetContext();
    for (size_t i = 0; i < context.GetMessageCount(); ++i)
        std::printf("%u %s\n", context.GetMessage(i)->GetMessageID(), context.Format(static_cast<int>(i)));
}

void appContextFirst() {
    startWatchdog();
    getAppContext();
    printErrorContext();
}

void factoryFirst() {
    startWatchdog();
    CMessageFactory::GetDefaultFactory();
    printErrorContext();
}

void hierarchyFirst() {
    startWatchdog();
    zvs::zvlib::sca::FilesysHierarchy::getInstance();
    printErrorContext();
}

const bool scenarios = zvtest::runRequestedScenario(
    {{"appContextFirst", appContextFirst}, {"factoryFirst", factoryFirst}, {"hierarchyFirst", hierarchyFirst}});

class FirstUse : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override { root_ = zvtest::temporaryPath("zvfirstuse"); }
    void TearDown() override { fs::remove_all(root_); }

    // An installation (bin and lib folders) at a path of exactly `length`
    // characters.
    std::string installation(size_t length) {
        std::string home = root_;
        while (home.size() < length) {
            const size_t rest = length - home.size();
            home += "/" + std::string(rest > 120 ? 100 : rest - 1, 'x');
        }
        fs::create_directories(home + "/bin");
        fs::create_directories(home + "/lib");
        return home;
    }

    // The lines the child printed, its status checked.
    std::vector<std::string> run(const std::vector<std::string>& environment) {
        const zvtest::ChildResult child = zvtest::runChild(GetParam(), environment);
        EXPECT_TRUE(child.exited) << "ended by signal " << child.status << " (14: hung)\n" << child.err;
        EXPECT_EQ(child.status, 0) << child.err;
        std::vector<std::string> lines;
        size_t start = 0;
        for (size_t end; (end = child.out.find('\n', start)) != std::string::npos; start = end + 1)
            lines.push_back(child.out.substr(start, end - start));
        return lines;
    }

    std::string root_;
};

TEST_P(FirstUse, OverLongPathsWaitInTheErrorContext) {
    // QMR_HOME of 240 characters; its credential folder is 260.
    const std::string home = installation(240);
    const std::vector<std::string> lines = run({"QMR_HOME=" + home});
    const std::vector<std::string> expected = {
        "12420 The path of QMR_HOME is too long; it must be shorter than 240 characters",
        "12420 The path of Crd is too long; it must be shorter than 260 characters",
    };
    EXPECT_EQ(lines, expected);
}

TEST_P(FirstUse, UncreatableLogFolderWaitsInTheErrorContext) {
    // The variable-data root lies below a plain file: its log folder cannot
    // be made ("Log" and "Dmp" both name it).
    const std::string home = installation(40);
    std::ofstream(root_ + "/file") << "not a folder";
    const std::vector<std::string> lines =
        run({"QMR_HOME=" + home, "QMR_VAR_HOME=" + root_ + "/file/var"});
    const std::string line = "12421 Unable to create the directory " + root_ + "/file/var/log/: Not a directory";
    EXPECT_EQ(lines, (std::vector<std::string>{line, line}));
}

INSTANTIATE_TEST_SUITE_P(EveryOrder, FirstUse, ::testing::Values("appContextFirst", "factoryFirst", "hierarchyFirst"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
