// The watched configuration: a change of time or size is loaded at the next
// cycle, a removed file resets the configuration, the repository's reset
// signal forces a load, an interval of 0 ends the process with status 12,
// and reloads while other threads log lose no event.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/MessageRecorder.h"
#include "zvlog/DOMConfigurator.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/zvlog.h"

namespace fs = std::filesystem;
using namespace zvs::zvlib::zvlog;
using namespace std::chrono_literals;

namespace {

LoggerRepository* repo() { return Logger::getRepository(); }

template <class Pred>
bool waitFor(Pred pred, std::chrono::milliseconds limit = 5000ms) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// Replaces the file in one step, so that the watch never sees it half
// written or missing.
void replaceFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".new";
    std::ofstream(temporary, std::ios::binary) << text;
    fs::rename(temporary, path);
}

std::string writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

void setModified(const std::string& path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

std::string levelDocument(const char* level) {
    return std::string("<configuration><logger name=\"watch.logger\"><level value=\"") + level +
           "\"/></logger></configuration>";
}

// Running library threads of that name, found through the process's tasks.
int threadsNamed(const char* wanted) {
    int n = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        const auto id = static_cast<unsigned int>(std::stoul(task.path().filename().string()));
        if (zvs::zvlib::MultiThreading::ThreadList::getName(id, name) && name == wanted) ++n;
    }
    return n;
}

class ConfigWatch : public ::testing::Test {
protected:
    void reloadsUnderLoad(bool reset);
    void SetUp() override {
        dir_ = zvtest::temporaryPath("zvwatch");
        fs::create_directories(dir_);
        file_ = dir_ + "/zvlog.xml";
        logger_ = repo()->getLogger("watch.logger");
        BasicConfigurator::resetConfiguration();
        repo()->testAndClearConfigurationSignal();
    }
    void TearDown() override {
        BasicConfigurator::resetConfiguration();
        fs::remove_all(dir_);
    }

    std::string dir_;
    std::string file_;
    Logger* logger_ = nullptr;
};

TEST_F(ConfigWatch, TheCallerReturnsAfterTheFirstLoad) {
    replaceFile(file_, levelDocument("DEBUG"));
    {
        DOMConfigurator configurator;
        configurator.configureAndWatch({dir_ + "/missing.xml", file_}, 60000);
        EXPECT_EQ(logger_->getEffectiveLevel(), LEVEL_DEBUG);  // no waiting needed
        EXPECT_EQ(threadsNamed("ConfigWatchThread"), 1);
        // A second watch on the same configurator ends the first.
        configurator.configureAndWatch({file_}, 60000);
        EXPECT_EQ(threadsNamed("ConfigWatchThread"), 1);
    }
    // The configurator's end stops its watch without waiting for the interval.
    EXPECT_EQ(threadsNamed("ConfigWatchThread"), 0);
}

TEST_F(ConfigWatch, ChangedTimeOrSizeIsLoadedAtTheNextCycleAndNothingElseIs) {
    replaceFile(file_, levelDocument("DEBUG"));
    setModified(file_, 1700000000);
    DOMConfigurator configurator;
    configurator.configureAndWatch({file_}, 20);
    ASSERT_EQ(logger_->getEffectiveLevel(), LEVEL_DEBUG);

    // Unchanged: the program's own setting stays through many cycles.
    logger_->setLevel(LEVEL_FATAL);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(logger_->getEffectiveLevel(), LEVEL_FATAL);

    // Same size, other time ("ERROR" and "DEBUG" are equally long). Writing
    // the file gives it the time of the write until its old time is set
    // again; a cycle between the two would rightly load it. So the watch
    // starts again with a long interval, and the file changes right after
    // its first cycle, far from the next.
    configurator.stopWatch();
    configurator.configureAndWatch({file_}, 1000);
    logger_->setLevel(LEVEL_FATAL);
    std::ofstream(file_, std::ios::binary | std::ios::trunc) << levelDocument("ERROR");
    setModified(file_, 1700000000);
    std::this_thread::sleep_for(1300ms);  // one cycle, at least
    EXPECT_EQ(logger_->getEffectiveLevel(), LEVEL_FATAL) << "same time and size: not looked at";
    setModified(file_, 1700000001);
    EXPECT_TRUE(waitFor([&] { return logger_->getEffectiveLevel() == LEVEL_ERROR; }));

    // Other size, same time.
    std::ofstream(file_, std::ios::binary | std::ios::trunc) << levelDocument("WARN");
    setModified(file_, 1700000001);
    EXPECT_TRUE(waitFor([&] { return logger_->getEffectiveLevel() == LEVEL_WARN; }));
}

TEST_F(ConfigWatch, RemovalResetsAndReappearanceLoadsAgain) {
    replaceFile(file_,
                "<configuration><appender name=\"watch.console\" class=\"ConsoleAppender\"/>"
                "<logger name=\"watch.logger\"><level value=\"INFO\"/><appender-ref name=\"watch.console\"/></logger>"
                "</configuration>");
    DOMConfigurator configurator;
    configurator.configureAndWatch({file_}, 20);
    ASSERT_EQ(logger_->getAllAppenders().size(), 1u);
    fs::remove(file_);
    // Reset: the logger inherits the root's WARN again.
    EXPECT_TRUE(waitFor([&] { return logger_->getEffectiveLevel() == LEVEL_WARN && logger_->getAllAppenders().empty(); }));
    // Reset once, not at every cycle: the program's setting stays.
    logger_->setLevel(LEVEL_ERROR);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(logger_->getEffectiveLevel(), LEVEL_ERROR);
    replaceFile(file_, levelDocument("DEBUG"));
    EXPECT_TRUE(waitFor([&] { return logger_->getEffectiveLevel() == LEVEL_DEBUG; }));
}

TEST_F(ConfigWatch, AnEarlierCandidateThatAppearsTakesOver) {
    const std::string first = dir_ + "/zvlog-instance.xml";
    replaceFile(file_, levelDocument("DEBUG"));
    DOMConfigurator configurator;
    configurator.configureAndWatch({first, file_}, 20);
    ASSERT_EQ(logger_->getEffectiveLevel(), LEVEL_DEBUG);
    replaceFile(first, levelDocument("FATAL"));
    EXPECT_TRUE(waitFor([&] { return logger_->getEffectiveLevel() == LEVEL_FATAL; }));
}

void noteConfiguration(LoggerRepository*) {}

TEST_F(ConfigWatch, TheRepositorysResetSignalForcesALoad) {
    replaceFile(file_, levelDocument("DEBUG"));
    DOMConfigurator configurator;
    configurator.configureAndWatch({file_}, 20);
    logger_->setLevel(LEVEL_FATAL);
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(logger_->getEffectiveLevel(), LEVEL_FATAL);
    repo()->addConfiguration(&noteConfiguration);  // raises the signal
    EXPECT_TRUE(waitFor([&] { return logger_->getEffectiveLevel() == LEVEL_DEBUG; }));
    repo()->clearConfiguration(&noteConfiguration);
    BasicConfigurator::resetConfiguration();  // clears the signal again
}

TEST_F(ConfigWatch, ALoadGivesMessage1528AnIssueLimitOnceAndLeavesAnExistingOne) {
    auto& impl = *CMessageFactory::GetDefaultFactory()->impl();
    {
        zvs::zvlib::MultiThreading::MutexLock lock(impl.limitLock);
        impl.issueLimits.erase(1528);
    }
    replaceFile(file_, levelDocument("DEBUG"));
    {
        DOMConfigurator configurator;
        configurator.configureAndWatch({file_}, 20);
    }
    {
        zvs::zvlib::MultiThreading::MutexLock lock(impl.limitLock);
        ASSERT_EQ(impl.issueLimits.count(1528), 1u);
        EXPECT_EQ(impl.issueLimits[1528], 1u);
        impl.issueLimits[1528] = 5;
    }
    {
        DOMConfigurator configurator;
        configurator.configureAndWatch({file_}, 20);
    }
    zvs::zvlib::MultiThreading::MutexLock lock(impl.limitLock);
    EXPECT_EQ(impl.issueLimits[1528], 5u);
    impl.issueLimits.erase(1528);
}

TEST_F(ConfigWatch, StoppingAndStartingAgainAndANewWatchOnTheSameConfigurator) {
    const std::string other = dir_ + "/other.xml";
    replaceFile(file_, levelDocument("DEBUG"));
    replaceFile(other, levelDocument("ERROR"));
    DOMConfigurator configurator;
    for (int round = 0; round < 20; ++round) {
        configurator.configureAndWatch({round % 2 ? other : file_}, 5);
        EXPECT_EQ(logger_->getEffectiveLevel(), round % 2 ? LEVEL_ERROR : LEVEL_DEBUG) << round;
        if (round % 3 == 0) configurator.stopWatch();
    }
    configurator.stopWatch();
    configurator.stopWatch();  // nothing to stop
    // Stopped: a change is no longer followed.
    replaceFile(file_, levelDocument("WARN"));
    replaceFile(other, levelDocument("WARN"));
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(logger_->getEffectiveLevel(), LEVEL_ERROR);
}

// ---- reloads while other threads log --------------------------------------

// Generation k of the appenders writes its lines as "g<k> <text>": the
// files then show which appender wrote each event. The loggers hold the
// appenders from a document of their own; each rewrite replaces the
// appenders by name.
std::string loadDocument(const std::string& dir, int generation, bool buffered, bool reset) {
    std::string doc = reset ? "<configuration reset=\"true\">\n" : "<configuration>\n";
    for (const char* sink : {"a", "b"}) {
        doc += std::string("<appender name=\"load.sink.") + sink + "\" class=\"FileAppender\">"
               "<param name=\"File\" value=\"" + dir + "/" + sink + ".log\"/>"
               "<param name=\"Append\" value=\"true\"/>"
               "<param name=\"Asynchronous\" value=\"" + (generation % 4 == 1 ? "true" : "false") + "\"/>"
               "<param name=\"BufferedIO\" value=\"" + (buffered ? "true" : "false") + "\"/>"
               "<layout class=\"PatternLayout\"><param name=\"Pattern\" value=\"g" + std::to_string(generation) +
               " %m%n\"/></layout></appender>\n";
    }
    // A document that resets names the loggers' appenders again.
    if (reset)
        for (const char* sink : {"a", "b"})
            doc += std::string("<logger name=\"load.") + sink + "\" additivity=\"false\"><level value=\"INFO\"/>"
                   "<appender-ref name=\"load.sink." + sink + "\"/></logger>\n";
    // Every other generation is longer, so that each rewrite changes the size.
    if (generation % 2) doc += "<!-- padding -->\n";
    return doc + "</configuration>\n";
}

// Two threads log through loggers whose appenders the watched file replaces
// by name, or (`reset`) detaches and builds anew, while it is rewritten many
// times: every event reaches exactly one appender of its name, in order.
void ConfigWatch::reloadsUnderLoad(bool reset) {
    int rewrites = 1000;
    if (const char* env = getenv("ZVTEST_RELOADS")) rewrites = atoi(env);
    replaceFile(file_, loadDocument(dir_, 0, true, reset));
    DOMConfigurator configurator;
    configurator.configureAndWatch({file_}, 1);
    DOMConfigurator loggers;  // a resetting document names the loggers itself
    if (!reset) {
        ASSERT_TRUE(loggers.configure(writeText(dir_ + "/loggers.xml",
        "<configuration><logger name=\"load.a\" additivity=\"false\"><level value=\"INFO\"/>"
        "<appender-ref name=\"load.sink.a\"/></logger>"
        "<logger name=\"load.b\" additivity=\"false\"><level value=\"INFO\"/>"
        "<appender-ref name=\"load.sink.b\"/></logger></configuration>").c_str()));
    }

    std::atomic<bool> stop{false};
    std::map<std::string, unsigned int> logged{{"a", 0}, {"b", 0}};
    std::vector<std::thread> threads;
    for (const char* sink : {"a", "b"}) {
        threads.emplace_back([&, sink, logger = repo()->getLogger((std::string("load.") + sink).c_str())] {
            unsigned int n = 0;
            while (!stop.load()) {
                // While a reset loads, the loggers' levels are the reset's:
                // the root's WARN, which lets WARN events through to wait
                // for the load (INFO ones are filtered at the call site).
                ZVLOG_LOG(logger, reset ? LEVEL_WARN : LEVEL_INFO, "%s %u", sink, n);
                // Continuous, but not so fast that the files grow huge.
                if (++n % 16 == 0) std::this_thread::sleep_for(10us);
            }
            logged[sink] = n;  // each thread its own key, read after join
        });
    }
    // Wait until both threads have been seen logging, so the reloads
    // happen under load.
    std::this_thread::sleep_for(20ms);
    const auto deadline = std::chrono::steady_clock::now() + 6s;
    int written = 0;
    for (int g = 1; g <= rewrites && std::chrono::steady_clock::now() < deadline; ++g) {
        replaceFile(file_, loadDocument(dir_, g, g % 3 != 0, reset));
        ++written;
        std::this_thread::sleep_for(1ms);
    }
    std::this_thread::sleep_for(20ms);
    stop = true;
    for (std::thread& t : threads) t.join();
    configurator.stopWatch();
    BasicConfigurator::resetConfiguration();  // closes the files

    for (const char* sink : {"a", "b"}) {
        SCOPED_TRACE(sink);
        std::ifstream in(dir_ + "/" + sink + ".log", std::ios::binary);
        std::string line;
        unsigned int expected = 0;
        int lastGeneration = 0;
        int generations = 0;
        bool ordered = true;
        std::string previous;
        while (std::getline(in, line)) {
            unsigned int generation = 0;
            char name[8] = {};
            unsigned int sequence = 0;
            ASSERT_EQ(std::sscanf(line.c_str(), "g%u %7s %u", &generation, name, &sequence), 3) << line;
            ASSERT_STREQ(name, sink);
            if (sequence != expected) {
                ordered = false;
                ADD_FAILURE() << "expected event " << expected << ", found " << line << " after " << previous;
                break;
            }
            ++expected;
            previous = line;
            if (static_cast<int>(generation) < lastGeneration) ADD_FAILURE() << "older appender after newer: " << line;
            if (static_cast<int>(generation) != lastGeneration || generations == 0) ++generations;
            lastGeneration = static_cast<int>(generation);
        }
        EXPECT_TRUE(ordered);
        EXPECT_EQ(expected, logged[sink]) << "every event logged is in the file, once";
        EXPECT_GT(logged[sink], 1000u);
        // Many appenders took part, not just the first and the last.
        EXPECT_GE(generations, std::min(written, 20)) << "rewrites: " << written;
        std::printf("[ RELOADS  ] %s: %u events through %d appenders, %d rewrites\n", sink, expected, generations,
                    written);
    }
}

TEST_F(ConfigWatch, ReloadsUnderLoadLoseNoEventAndDeliverEachOnce) { reloadsUnderLoad(false); }

// A reset detaches every appender while the load runs; events that pass the
// levels the reset sets wait for the load and go to the appenders it leaves.
TEST_F(ConfigWatch, ReloadsThatResetLoseNoEventEither) { reloadsUnderLoad(true); }

// ---- in child processes ---------------------------------------------------

void zeroInterval() {
    DOMConfigurator configurator;
    configurator.configureAndWatch({"zvlog.xml"}, 0);
    std::printf("still running\n");
}

// A watch that outlives the repository's shutdown, and loading again after
// it: both work, and a watch can be stopped and started afterwards.
void shutdownWhileWatching() {
    const std::string dir = zvtest::temporaryPath("zvwatchshutdown");
    fs::create_directories(dir);
    const std::string file = dir + "/zvlog.xml";
    const std::string log = dir + "/out.log";
    const std::string doc = "<configuration reset=\"true\"><appender name=\"s.file\" class=\"FileAppender\">"
                            "<param name=\"File\" value=\"" + log + "\"/><param name=\"Append\" value=\"true\"/>"
                            "<layout class=\"PatternLayout\"><param name=\"Pattern\" value=\"%m%n\"/></layout></appender>"
                            "<logger name=\"s.logger\"><level value=\"INFO\"/><appender-ref name=\"s.file\"/></logger>"
                            "</configuration>";
    replaceFile(file, doc);
    Logger* logger = repo()->getLogger("s.logger");
    {
        DOMConfigurator configurator;
        configurator.configureAndWatch({file}, 5);
        ZVLOG_INFO(logger, "before");
        repo()->shutdown();
        ZVLOG_INFO(logger, "during");  // every logger is OFF
        std::this_thread::sleep_for(30ms);
        DOMConfigurator again;
        again.configure(file.c_str());
        ZVLOG_INFO(logger, "after");
        configurator.stopWatch();
        configurator.configureAndWatch({file}, 5);
        replaceFile(file, doc + "\n");
        std::this_thread::sleep_for(30ms);
        ZVLOG_INFO(logger, "watched");
    }
    BasicConfigurator::resetConfiguration();
    std::fputs(zvtest::readFile(log).c_str(), stdout);
    fs::remove_all(dir);
}

const bool scenarios =
    zvtest::runRequestedScenario({{"zeroInterval", zeroInterval}, {"shutdownWhileWatching", shutdownWhileWatching}});

TEST(ConfigWatchProcess, AZeroIntervalIsRefusedWithMessage1522AndStatus12) {
    const zvtest::ChildResult child = zvtest::runChild("zeroInterval");
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 12);
    EXPECT_EQ(child.out.find("still running"), std::string::npos);
    EXPECT_NE((child.out + child.err).find("QMR-01522  The configuration watch interval must not be zero"),
              std::string::npos)
        << child.out << child.err;
}

TEST(ConfigWatchProcess, ShutdownWhileWatchingThenConfiguringAgainIsSafe) {
    const zvtest::ChildResult child = zvtest::runChild("shutdownWhileWatching");
    EXPECT_TRUE(child.succeeded()) << child.status << child.err;
    EXPECT_EQ(child.out, "before\r\nafter\r\nwatched\r\n");
}

}  // namespace
