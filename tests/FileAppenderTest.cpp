// File appenders: processes sharing and rolling one file, backups, the size
// parser, time-rolled names, bare names, open failures, buffering, Append.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "zvlog/AppContext.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::readFile;
namespace fs = std::filesystem;

namespace {

constexpr int kWriters = 4, kRecords = 20000, kBackups = 400;  // nothing gets deleted
constexpr unsigned kMaxFileSize = 64 * 1024;

std::string env(const char* name) { return getenv(name) ? getenv(name) : ""; }

// A record: writer, sequence, a fixed payload and an FNV-1a checksum.
std::string recordLine(int writer, int sequence) {
    char body[128];
    snprintf(body, sizeof body, "W%02d S%06d the-quick-brown-fox-jumps-over-the-lazy-dog-0123456789", writer, sequence);
    unsigned h = 2166136261u;
    for (const char* p = body; *p; ++p) h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
    char sum[16];
    snprintf(sum, sizeof sum, " C%08x", h);
    return std::string(body) + sum;
}

void touch(const std::string& path) { std::ofstream(path) << "x"; }

bool waitFor(const std::string& path) {
    for (int i = 0; i < 20000 && !fs::exists(path); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return fs::exists(path);
}

void write(WriterAppender& a, const std::string& text) { a.write(text.data(), text.size()); }

// Logs kRecords records through a logger into the shared rolling file.
void writerScenario() {
    auto* a = new RollingFileAppender("shared");
    a->setLayout(new PatternLayout("%m%n"));
    a->setFile(env("ZVTEST_FILE").c_str());
    a->setAppend(true);
    a->setMaxFileSize("64KB");
    a->setMaxBackupIndex(kBackups);
    a->setBufferSize(std::stoull(env("ZVTEST_BUFFER")));
    Logger* l = Logger::getRepository()->getLogger("file.shared");
    l->setLevel(LEVEL_ALL);
    l->addAppender(*a);
    const int writer = std::stoi(env("ZVTEST_WRITER"));
    for (int s = 0; s < kRecords; ++s) ZVLOG_INFO(l, "%s", recordLine(writer, s).c_str());
    l->removeAllAppenders();
    a->close();
}

// Holds the file open across another process's roll.
void holderScenario() {
    const std::string dir = env("ZVTEST_DIR");
    RollingFileAppender a("holder");
    a.setFile((dir + "/log").c_str());
    a.setAppend(true);
    write(a, "B before\r\n");
    a.flush();
    touch(dir + "/ready");
    if (!waitFor(dir + "/go")) _exit(3);
    write(a, "B after\r\n");  // buffered until close
    a.close();
}

// The log directory comes from the environment; the appender is never
// closed, so the record reaches the file only through the exit flush.
void bareNameScenario() {
    auto* a = new FileAppender("bare");
    a->setFile("bare.log");
    printf("%s", a->getFile().c_str());
    write(*a, "kept at exit\r\n");
}

const bool kScenarios = zvtest::runRequestedScenario(
    {{"writer", writerScenario}, {"holder", holderScenario}, {"bare", bareNameScenario}});

class FileAppenderTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(dir_ = zvtest::temporaryPath("zvfile")); }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void put(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
    template <class A>
    void configure(A& a, const char* name, bool append, unsigned long long buffer = 4096) {
        a.setFile(path(name).c_str());
        a.setAppend(append);
        a.setBufferSize(buffer);
    }
    std::string dir_;
};

class FramedLayout : public PatternLayout {
public:
    FramedLayout() : PatternLayout("%m%n") {}
    void getHeader(std::string& out) const override { out += "H\r\n"; }
    void getFooter(std::string& out) const override { out += "F\r\n"; }
    unsigned int getFooterLength() const override { return 3; }
};

// Every record of every writer is found exactly once and whole across the
// live file and its backups, and each backup was rolled near the limit.
void checkSharedRun(const std::string& dir, const std::string& buffer) {
    const std::string log = dir + "/log";
    std::vector<zvtest::ChildResult> results(kWriters);
    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w)
        threads.emplace_back([&, w] {
            results[w] = zvtest::runChild("writer", {"ZVTEST_FILE=" + log, "ZVTEST_WRITER=" + std::to_string(w),
                                                     "ZVTEST_BUFFER=" + buffer});
        });
    for (std::thread& t : threads) t.join();
    for (const zvtest::ChildResult& r : results) ASSERT_TRUE(r.exited && r.status == 0) << r.err;

    int backups = 0;
    while (fs::exists(log + "." + std::to_string(backups + 1))) ++backups;
    ASSERT_GT(backups, 50);  // 80000 records of 80 bytes
    ASSERT_LT(backups, kBackups);
    std::vector<std::vector<int>> seen(kWriters, std::vector<int>(kRecords, 0));
    size_t broken = 0;
    for (int i = 0; i <= backups; ++i) {
        const std::string name = i == 0 ? log : log + "." + std::to_string(i);
        const std::string text = readFile(name);
        if (i > 0) {
            EXPECT_GE(text.size(), kMaxFileSize / 2) << name;
            EXPECT_LE(text.size(), kMaxFileSize * 2) << name;
        }
        for (size_t start = 0, end; start < text.size(); start = end + 2) {
            end = text.find("\r\n", start);
            if (end == std::string::npos) end = text.size();
            const std::string line = text.substr(start, end - start);
            int w = -1, s = -1;
            if (sscanf(line.c_str(), "W%2d S%6d", &w, &s) == 2 && w >= 0 && w < kWriters && s >= 0 && s < kRecords &&
                line == recordLine(w, s) && end < text.size())
                ++seen[w][s];
            else if (++broken < 5)
                ADD_FAILURE() << "broken record in " << name << ": " << line;
        }
    }
    EXPECT_EQ(broken, 0u);
    size_t missing = 0, twice = 0;
    for (const std::vector<int>& writer : seen)
        for (int n : writer) missing += n == 0, twice += n > 1;
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(twice, 0u);
}

TEST_F(FileAppenderTest, FourProcessesShareOneRollingFileBuffered) { checkSharedRun(dir_, "4096"); }

TEST_F(FileAppenderTest, FourProcessesShareOneRollingFileUnbuffered) { checkSharedRun(dir_, "0"); }

TEST_F(FileAppenderTest, RollInAnotherProcessMovesTheHoldersNextRecordsToTheNewFile) {
    zvtest::ChildResult child;
    std::thread t([&] { child = zvtest::runChild("holder", {"ZVTEST_DIR=" + dir_}); });
    const bool ready = waitFor(path("ready"));
    if (ready) {
        RollingFileAppender a("roller");
        configure(a, "log", true, 0);
        a.activateOptions();
        a.rollOver();
        write(a, "A after\r\n");
    }
    touch(path("go"));
    t.join();
    ASSERT_TRUE(ready && child.exited && child.status == 0) << child.err;
    EXPECT_EQ(readFile(path("log.1")), "B before\r\n");
    EXPECT_EQ(readFile(path("log")), "A after\r\nB after\r\n");
    EXPECT_FALSE(fs::exists(path("log.2")));
}

// Two appenders on one file behave as two processes (each open file has a
// lock of its own): the second roller finds the file already rolled.
TEST_F(FileAppenderTest, ASecondRollerDoesNotRollAgain) {
    RollingFileAppender a("a"), b("b");
    configure(a, "log", true, 0);
    configure(b, "log", true);
    a.setMaxBackupIndex(3);
    write(a, "a1\r\n");
    write(b, "b1\r\n");
    b.flush();
    write(b, "b2\r\n");  // still buffered when a rolls
    a.rollOver();
    b.rollOver();
    write(a, "a2\r\n");
    write(b, "b3\r\n");
    b.close();
    EXPECT_EQ(readFile(path("log.1")), "a1\r\nb1\r\n");
    EXPECT_EQ(readFile(path("log")), "b2\r\na2\r\nb3\r\n");
    EXPECT_FALSE(fs::exists(path("log.2")));
}

// Forks `count` children that wait until all are there, runs body(k) in
// child k at once in all of them, and waits for them: true when each exited
// with status 0.
template <class Body>
bool runForkedAtOnce(int count, Body body) {
    int go[2];
    if (pipe(go) != 0) return false;
    fflush(nullptr);
    std::vector<pid_t> children;
    for (int k = 0; k < count; ++k) {
        const pid_t pid = fork();
        if (pid == 0) {
            close(go[1]);
            char c;
            while (read(go[0], &c, 1) > 0) {
            }
            body(k);
            _exit(0);
        }
        if (pid > 0) children.push_back(pid);
    }
    close(go[0]);
    close(go[1]);  // every child starts now
    bool ok = static_cast<int>(children.size()) == count;
    for (pid_t pid : children) {
        int status = 0;
        ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
    }
    return ok;
}

std::vector<std::string> sortedLines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t start = 0, end; start < text.size(); start = end + 2) {
        end = text.find("\r\n", start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Children of fork() share the file their parent opened, and a lock taken
// through it would be held by all of them at once: each roll locks through a
// descriptor of its own, so exactly one child rolls and the others follow.
TEST_F(FileAppenderTest, ForkedChildrenSharingTheParentsFileRollItOnce) {
    RollingFileAppender a("inherited");
    configure(a, "log", true, 0);
    a.setMaxBackupIndex(2000);  // long rolls: they would overlap
    write(a, "parent\r\n");
    ASSERT_TRUE(runForkedAtOnce(4, [&](int k) {
        a.rollOver();
        write(a, "child " + std::to_string(k) + "\r\n");
        a.close();
    }));
    EXPECT_EQ(readFile(path("log.1")), "parent\r\n");
    EXPECT_FALSE(fs::exists(path("log.2")));
    EXPECT_EQ(sortedLines(readFile(path("log"))),
              (std::vector<std::string>{"child 0", "child 1", "child 2", "child 3"}));
}

// Processes starting without Append at once while no live file exists: the
// first creates it and rolls under its lock, the others roll after it, so
// the backups move up one roll at a time and none is overwritten.
TEST_F(FileAppenderTest, StartsWithoutAppendAndWithoutALiveFileRollOneAtATime) {
    constexpr int kOld = 200, kStarts = 4;
    for (int i = 1; i <= kOld; ++i) put("log." + std::to_string(i), "old " + std::to_string(i) + "\n");
    ASSERT_TRUE(runForkedAtOnce(kStarts, [&](int k) {
        RollingFileAppender a("start");
        configure(a, "log", false, 0);
        a.setMaxBackupIndex(2000);
        a.activateOptions();
        write(a, "start " + std::to_string(k) + "\r\n");
        a.close();
    }));
    // Oldest first: the old backups in their order, then the starts' records.
    std::vector<std::string> old, records;
    for (int i = 2000; i >= 0; --i) {
        const std::string name = i == 0 ? path("log") : path("log." + std::to_string(i));
        if (!fs::exists(name)) continue;
        const std::string text = readFile(name);
        if (text.rfind("old ", 0) == 0)
            old.push_back(text);
        else
            for (const std::string& line : sortedLines(text)) records.push_back(line);
    }
    std::vector<std::string> expected;
    for (int i = kOld; i >= 1; --i) expected.push_back("old " + std::to_string(i) + "\n");
    EXPECT_EQ(old, expected);
    std::sort(records.begin(), records.end());
    EXPECT_EQ(records, (std::vector<std::string>{"start 0", "start 1", "start 2", "start 3"}));
}

TEST_F(FileAppenderTest, MaxFileSizeParsing) {
    RollingFileAppender a("sizes");
    EXPECT_EQ(a.getMaxFileSize(), 2097152000u);
    struct Case {
        const char* text;
        unsigned int expected;  // an error keeps the old value
        unsigned long long overflows, syntaxErrors;
    } const cases[] = {{"1KB", 1024u, 0, 0},          {"3GB", 3221225472u, 0, 0},   {"4GB", 3221225472u, 1, 0},
                       {"10M", 3221225472u, 0, 1},    {"10MB", 10485760u, 0, 0},     {"10kb", 10240u, 0, 0},
                       {"4095mB", 4293918720u, 0, 0}, {"4096MB", 4293918720u, 1, 0}, {"12 KB", 4293918720u, 0, 1},
                       {"10KBx", 4293918720u, 0, 1},  {"", 0u, 0, 0},                {"123", 123u, 0, 0},
                       {"99999999999", 0u, 0, 0},     {"-5", 0u, 0, 1}};
    for (const Case& c : cases) {
        const unsigned long long overflows = detail::raisedMessageCount(1530);
        const unsigned long long syntax = detail::raisedMessageCount(1531);
        a.setMaxFileSize(c.text);
        EXPECT_EQ(a.getMaxFileSize(), c.expected) << c.text;
        EXPECT_EQ(detail::raisedMessageCount(1530) - overflows, c.overflows) << c.text;
        EXPECT_EQ(detail::raisedMessageCount(1531) - syntax, c.syntaxErrors) << c.text;
    }
}

TEST_F(FileAppenderTest, RollShiftsBackupsAndGoesOnPastFailures) {
    for (const char* n : {"log", "log.1", "log.2", "log.3"}) put(n, std::string(n) + "\n");
    RollingFileAppender a("backups");
    configure(a, "log", true);
    a.setMaxBackupIndex(3);
    a.activateOptions();
    a.rollOver();
    write(a, "new\r\n");
    a.close();
    EXPECT_EQ(readFile(path("log")), "new\r\n");
    EXPECT_EQ(readFile(path("log.1")), "log\n");
    EXPECT_EQ(readFile(path("log.2")), "log.1\n");
    EXPECT_EQ(readFile(path("log.3")), "log.2\n");

    // A missing log.2 is no failure and does not stop the renames below it.
    fs::remove(path("log.2"));
    const unsigned long long deletes = detail::raisedMessageCount(1093);
    const unsigned long long renames = detail::raisedMessageCount(1800);
    a.rollOver();  // without an open file
    EXPECT_EQ(detail::raisedMessageCount(1800), renames);
    EXPECT_FALSE(fs::exists(path("log.3")));
    EXPECT_EQ(readFile(path("log.2")), "log\n");
    EXPECT_EQ(readFile(path("log.1")), "new\r\n");

    // log.3 a directory that holds a file: neither deleted nor replaced; the
    // failures are reported and log.1 and log still move.
    fs::create_directories(path("log.3/occupied"));
    put("log", "live\n");
    put("log.2", "two\n");
    a.rollOver();
    EXPECT_EQ(detail::raisedMessageCount(1093) - deletes, 1u);
    EXPECT_EQ(detail::raisedMessageCount(1800) - renames, 1u);
    EXPECT_EQ(readFile(path("log.2")), "new\r\n");
    EXPECT_EQ(readFile(path("log.1")), "live\n");
}

// Without Append each start rolls the shared file; a writer that follows
// into the new file never truncates what the roller already put there.
TEST_F(FileAppenderTest, WithoutAppendEachStartRollsTheFileAndAFollowerNeverTruncates) {
    put("log", "previous run\n");
    RollingFileAppender first("first"), second("second");
    configure(first, "log", false, 0);
    configure(second, "log", false, 0);
    write(first, "first 1\r\n");
    EXPECT_EQ(readFile(path("log.1")), "previous run\n");
    write(second, "second 1\r\n");  // its start rolled "first 1" to log.1
    write(first, "first 2\r\n");
    EXPECT_EQ(readFile(path("log.1")), "first 1\r\n");
    EXPECT_FALSE(fs::exists(path("log.2"))) << "one backup unless told otherwise";
    EXPECT_EQ(readFile(path("log")), "second 1\r\nfirst 2\r\n");

    // Backup index 0: log.0 is deleted, nothing is renamed, log is truncated.
    put("log.0", "zero\n");
    RollingFileAppender z("zero");
    configure(z, "log", false, 0);
    z.setMaxBackupIndex(0);
    write(z, "x\r\n");
    EXPECT_FALSE(fs::exists(path("log.0")));
    EXPECT_EQ(readFile(path("log")), "x\r\n");
    z.reset();  // rolls
    write(z, "y\r\n");
    EXPECT_EQ(readFile(path("log")), "y\r\n");
    EXPECT_EQ(readFile(path("log.1")), "first 1\r\n");
}

// 100-byte records against a 4000-byte limit: a file takes exactly 40; with a
// footer the record that crosses the limit still ends the old file.
TEST_F(FileAppenderTest, SizeRollPlacesRecordsAndFooters) {
    const std::string record = std::string(98, 'r') + "\r\n";
    auto records = [&](int n) {
        std::string s;
        while (n-- > 0) s += record;
        return s;
    };
    for (bool framed : {false, true}) {
        const char* name = framed ? "framed" : "plain";
        RollingFileAppender a(name);
        configure(a, name, false);
        a.setMaxFileSize("4000");
        a.setMaxBackupIndex(5);
        if (framed) a.setLayout(new FramedLayout());
        for (int i = 0; i < 100; ++i) write(a, record);
        a.close();
        const std::string h = framed ? "H\r\n" : "", f = framed ? "F\r\n" : "";
        EXPECT_EQ(readFile(path(name) + ".2"), h + records(40) + f) << name;
        EXPECT_EQ(readFile(path(name) + ".1"), h + records(40) + f) << name;
        EXPECT_EQ(readFile(path(name)), h + records(20) + f) << name;
        EXPECT_FALSE(fs::exists(path(name) + ".3")) << name;
    }
}

uint32_t gNow = 0;
uint32_t testClock() { return gNow; }

uint32_t localTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm t {};
    t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second, t.tm_isdst = -1;
    return static_cast<uint32_t>(mktime(&t));
}

TEST_F(FileAppenderTest, DatePatternSwitchesOnTheFirstRecordAfterItsTextChanges) {
    put("app.log20250101", "earlier\r\n");
    DailyRollingFileAppender a;
    EXPECT_TRUE(a.getAppend());  // the day's file continues
    a.setClock(testClock);
    configure(a, "app.log", true, 0);
    a.setDatePattern("%Y%m%d");
    gNow = localTime(2025, 1, 1, 23, 59, 59);
    EXPECT_EQ(a.getFile(), path("app.log20250101"));
    write(a, "a\r\n");
    a.setDatePattern("-%Y");  // not looked at again within the second
    write(a, "b\r\n");
    a.setDatePattern("%Y%m%d");
    gNow += 1;  // local midnight
    EXPECT_EQ(a.getFile(), path("app.log20250101"));
    write(a, "c\r\n");
    EXPECT_EQ(a.getFile(), path("app.log20250102"));
    gNow += 3600;
    write(a, "d\r\n");
    EXPECT_EQ(readFile(path("app.log20250101")), "earlier\r\na\r\nb\r\n");
    EXPECT_EQ(readFile(path("app.log20250102")), "c\r\nd\r\n");
}

TEST_F(FileAppenderTest, BareNameLandsInTheLogDirectoryAndBufferedRecordsSurviveExit) {
    const zvtest::ChildResult r = zvtest::runChild("bare", {"QMR_HOME=" + dir_, "QMR_FILESYSTEM_ISLEGACY=1"});
    ASSERT_TRUE(r.exited && r.status == 0) << r.err;
    EXPECT_EQ(r.out, path("bare.log"));
    EXPECT_EQ(readFile(path("bare.log")), "kept at exit\r\n");

    // "%I" waits for the second expansion, made on every call.
    FileAppender a("instance");
    a.setFile((dir_ + "/%I.log").c_str());
    EXPECT_EQ(a.getFileName(), dir_ + "/%I.log");
    getAppContext()->SetItem(AppInstance, "inst7");
    EXPECT_EQ(a.getFile(), dir_ + "/inst7.log");
    getAppContext()->SetItem(AppInstance, "");
    EXPECT_EQ(a.getFile(), dir_ + "/" + getProcessExecutableBase() + ".log");
}

TEST_F(FileAppenderTest, OpenFailureIsReportedOncePerName) {
    const unsigned long long before = detail::raisedMessageCount(1525);
    FileAppender a("unopenable");
    configure(a, "missing/one.log", false);
    a.activateOptions();
    write(a, "dropped\r\n");
    EXPECT_FALSE(a.isOpen());
    EXPECT_EQ(detail::raisedMessageCount(1525) - before, 1u);
    configure(a, "missing/two.log", false);
    write(a, "dropped\r\n");
    EXPECT_EQ(detail::raisedMessageCount(1525) - before, 2u);
    fs::create_directories(path("missing"));  // tried again on the next record
    write(a, "written\r\n");
    a.close();
    EXPECT_EQ(readFile(path("missing/two.log")), "written\r\n");
}

TEST_F(FileAppenderTest, BufferingAndAppend) {
    FileAppender a("buffered");
    EXPECT_EQ(a.getBufferSize(), 4096u);
    EXPECT_TRUE(a.getBufferedIO());
    EXPECT_FALSE(a.getAppend());
    configure(a, "buffered", false, 16);
    write(a, "0123456789\r\n");
    EXPECT_EQ(readFile(path("buffered")), "");
    write(a, "abcdef\r\n");  // does not fit: the first goes out whole
    EXPECT_EQ(readFile(path("buffered")), "0123456789\r\n");
    write(a, std::string(20, 'z') + "\r\n");  // larger than the buffer
    EXPECT_EQ(readFile(path("buffered")), "0123456789\r\nabcdef\r\n" + std::string(20, 'z') + "\r\n");
    a.reset();  // empties the file and the buffer
    EXPECT_EQ(readFile(path("buffered")), "");

    FileAppender zero("size0"), off("io-off");
    configure(zero, "size0", false, 0);
    configure(off, "io-off", false);
    off.setBufferedIO(false);
    write(zero, "at once\r\n");
    write(off, "at once\r\n");
    EXPECT_EQ(readFile(path("size0")), "at once\r\n");
    EXPECT_EQ(readFile(path("io-off")), "at once\r\n");

    // Never configured with Append: an existing file is truncated.
    put("truncated", "old\n");
    put("appended", "old\n");
    FileAppender t("truncating"), k("appending");
    t.setFile(path("truncated").c_str());
    t.setLayout(new FramedLayout());
    configure(k, "appended", true);
    write(t, "new\r\n");
    write(k, "new\r\n");
    t.close();
    k.close();
    EXPECT_EQ(readFile(path("truncated")), "H\r\nnew\r\nF\r\n");
    EXPECT_EQ(readFile(path("appended")), "old\nnew\r\n");
}

}  // namespace
