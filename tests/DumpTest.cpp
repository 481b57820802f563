// The event-buffer dump: when it is written, under which name, and that the
// binary reader gets back exactly the events that were logged. Each case runs
// in a child whose installation home (and so its log directory) is a
// temporary directory.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "zvlog/AppContext.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/Library.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using namespace zvtest;
namespace fs = std::filesystem;

namespace {

constexpr int kPerThread = 150;

Logger* dumpLogger() {
    getAppContext()->SetItem(AppInstance, "dumptest");
    Logger* l = Logger::getRepository()->getLogger("dump.events");
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    return l;
}

void printSaved() { printf("%d", LogBufferImpl::saveAllToFile() ? 1 : 0); }

// Two threads that end before the dump (their blocks closed) and the
// caller's own block, still open.
void twoThreads() {
    Logger* l = dumpLogger();
    auto work = [l](int t) {
        for (int i = 0; i < kPerThread; ++i) ZVLOG_INFO(l, "thread %d event %d of %s", t, i, "dump");
    };
    std::thread a(work, 1), b(work, 2);
    a.join();
    b.join();
    ZVLOG_WARN(l, "caller's block is still open: %s", "last");
    printSaved();
}

// More closed blocks than the recent list keeps: the oldest has gone back to
// the free pool, where the dump still finds it.
void threadsInTurn() {
    Logger* l = dumpLogger();
    for (int t = 1; t <= 5; ++t) std::thread([l, t] { ZVLOG_INFO(l, "turn %d", t); }).join();
    printSaved();
}

void beforeStartUp() {
    ZVLOG_INFO(dumpLogger(), "not saved");
    LibraryState::setState(LibraryRunState::Uninitialized);
    printSaved();
    // Back to the state the library is really in, and shut down as a program
    // does: the clock's thread, which may have ended on seeing the forced
    // state, is joined rather than left behind.
    LibraryState::setState(LibraryRunState::Started);
    Logger::getRepository()->shutdown();
}

void afterShutdown() {
    ZVLOG_INFO(dumpLogger(), "not saved");
    Logger::getRepository()->shutdown();
    printSaved();
}

void pidAndSave() {
    ZVLOG_INFO(dumpLogger(), "event %d", 7);
    printf("%u ", static_cast<unsigned>(getpid()));
    printSaved();
}

const bool scenarios = runRequestedScenario({{"twoThreads", twoThreads},
                                             {"threadsInTurn", threadsInTurn},
                                             {"beforeStartUp", beforeStartUp},
                                             {"afterShutdown", afterShutdown},
                                             {"pidAndSave", pidAndSave}});

std::string rendered(const DecodedEvent& decoded) {
    LocationRecord site;
    LoggingEvent event;
    toLoggingEvent(decoded, site, event);
    std::string text;
    renderMessage(&event, text);
    return text;
}

// The child's process id, from the "pid saved" it prints.
unsigned childPid(const ChildResult& r, int expectedSaved) {
    unsigned pid = 0;
    int saved = -1;
    EXPECT_EQ(sscanf(r.out.c_str(), "%u %d", &pid, &saved), 2) << r.out;
    EXPECT_EQ(saved, expectedSaved);
    return pid;
}

std::vector<std::string> dumpedMessages(const std::string& path) {
    const DecodeResult dump = decodeFile(path.c_str());
    EXPECT_TRUE(dump.ok()) << (dump.errors.empty() ? "" : dump.errors[0]);
    std::vector<std::string> messages;
    for (const DecodedEvent& e : dump.events)
        if (e.loggerName == "dump.events") messages.push_back(rendered(e));
    return messages;
}

TEST(Dump, DecodesToExactlyTheEventsOfBothThreadsAndTheCallersOpenBlock) {
    const std::string home = temporaryDirectory("dump-threads");
    const ChildResult r = runChild("twoThreads", {"QMR_HOME=" + home});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "1");

    const DecodeResult dump = decodeFile((home + "/zvlog-dumptest.dmp").c_str());
    EXPECT_TRUE(dump.ok()) << (dump.errors.empty() ? "" : dump.errors[0]);
    // Per thread, in the order decoded.
    std::map<uint32_t, std::vector<std::string>> byThread;
    for (const DecodedEvent& e : dump.events)
        if (e.loggerName == "dump.events") byThread[e.threadId].push_back(e.categoryName + " " + rendered(e));
    std::vector<std::vector<std::string>> got;
    for (auto& [thread, messages] : byThread) got.push_back(messages);

    std::vector<std::vector<std::string>> expected(2);
    for (int t = 1; t <= 2; ++t)
        for (int i = 0; i < kPerThread; ++i)
            expected[t - 1].push_back("INFO thread " + std::to_string(t) + " event " + std::to_string(i) + " of dump");
    expected.push_back({"WARN caller's block is still open: last"});
    std::sort(got.begin(), got.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(got, expected);
    fs::remove_all(home);
}

TEST(Dump, IncludesClosedBlocksBackInThePoolOldestFirst) {
    const std::string home = temporaryDirectory("dump-pool");
    const ChildResult r = runChild("threadsInTurn", {"QMR_HOME=" + home});
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(dumpedMessages(home + "/zvlog-dumptest.dmp"),
              (std::vector<std::string>{"turn 1", "turn 2", "turn 3", "turn 4", "turn 5"}));
    fs::remove_all(home);
}

TEST(Dump, NothingIsSavedBeforeStartUpOrAfterShutdown) {
    for (const char* scenario : {"beforeStartUp", "afterShutdown"}) {
        const std::string home = temporaryDirectory("dump-stopped");
        const ChildResult r = runChild(scenario, {"QMR_HOME=" + home});
        EXPECT_EQ(r.status, 0) << scenario;
        EXPECT_EQ(r.err, "") << scenario;
        EXPECT_EQ(r.out, "0") << scenario;
        EXPECT_EQ(directoryEntries(home), std::vector<std::string>{}) << scenario;
        fs::remove_all(home);
    }
}

TEST(Dump, UnwritableLogDirectoryPrintsTheFailure) {
    // A home that is a plain file: no directory below it can be written.
    const std::string home = temporaryPath("dump-not-a-directory");
    FILE* file = fopen(home.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fclose(file);
    const ChildResult r = runChild("pidAndSave", {"QMR_HOME=" + home});
    EXPECT_EQ(r.err, "Failed to save data to '" + home + "/zvlog-dumptest-" + std::to_string(childPid(r, 0)) +
                         ".dmp', error 20 - Not a directory\n");
    fs::remove(home);
}

TEST(Dump, SharedNameLockedByAnotherProcessGivesTheProcessItsOwnName) {
    const std::string home = temporaryDirectory("dump-locked");
    const std::string shared = home + "/zvlog-dumptest.dmp";
    const int fd = holdFirstByteLock(shared, "another dump");
    ASSERT_GE(fd, 0);

    const ChildResult r = runChild("pidAndSave", {"QMR_HOME=" + home});
    close(fd);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(readFile(shared), "another dump");
    const std::string own = home + "/zvlog-dumptest-" + std::to_string(childPid(r, 1)) + ".dmp";
    EXPECT_EQ(dumpedMessages(own), std::vector<std::string>{"event 7"});
    fs::remove_all(home);
}

}  // namespace
