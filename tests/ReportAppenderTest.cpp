// The report appender: its tag, standard output until the process opens its
// report stream, the report stream from then on, and whole lines from
// concurrent writers.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/ConsoleText.h"
#include "zvlog/AppContext.h"
#include "zvlog/appenders/FileNames.h"
#include "zvlog/ReportAppender.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using namespace zvtest;

namespace {

Logger* loggerWith(const char* name, ReportAppender& appender) {
    Logger* l = Logger::getRepository()->getLogger(name);
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    l->removeAllAppenders();
    l->addAppender(appender);
    return l;
}

// Without a name the lines are bare; with one, tagged "name: ".
TEST(ReportAppender, TagIsTheNameAndAColon) {
    ReportAppender bare("", "%m%n"), named("X", "%m%n");
    Logger* b = loggerWith("report.bare", bare);
    Logger* n = loggerWith("report.named", named);
    const std::string out = zvtest::stdoutOf([b, n] {
        ZVLOG_INFO(b, "copied %d rows", 12);
        ZVLOG_WARN(n, "table %s skipped", "ORDERS");
        ZVLOG_ERROR(b, "done");
    });
    EXPECT_EQ(out, "copied 12 rows\r\nX: table ORDERS skipped\r\ndone\r\n");
    EXPECT_EQ(named.getPattern(), "%m%n");
    EXPECT_EQ(static_cast<PatternLayout*>(named.getLayout())->getPattern(), "X: %m%n");
    b->removeAllAppenders();
    n->removeAllAppenders();
}

TEST(ReportAppender, OutputFollowsTheReportStreamFromOpenToClose) {
    ReportAppender appender("R", "%m%n");
    Logger* l = loggerWith("report.moves", appender);
    const std::string report = temporaryPath("report-file");
    std::string opened;
    const std::string out = zvtest::stdoutOf([&] {
        ZVLOG_INFO(l, "before");
        opened = openReportFile(report.c_str());
        ZVLOG_INFO(l, "during %d", 1);
        EXPECT_TRUE(closeReportFile());
        ZVLOG_INFO(l, "after");
    });
    EXPECT_EQ(opened, report);
    EXPECT_EQ(out, "R: before\r\nR: after\r\n");
    EXPECT_EQ(readFile(report), "R: during 1\r\n");
    EXPECT_EQ(getReportStream(), nullptr);
    EXPECT_FALSE(closeReportFile());
    unlink(report.c_str());
    l->removeAllAppenders();
}

TEST(ReportAppender, ConcurrentAppendersWriteWholeLines) {
    constexpr int kLines = 300;
    ReportAppender first("A", "%m%n"), second("B", "%m%n");
    Logger* a = loggerWith("report.concurrent.a", first);
    Logger* b = loggerWith("report.concurrent.b", second);
    const std::string report = temporaryPath("report-concurrent");
    ASSERT_EQ(openReportFile(report.c_str()), report);
    auto work = [](Logger* l) {
        for (int i = 0; i < kLines; ++i) ZVLOG_INFO(l, "line %d of %s", i, "many");
    };
    std::thread ta(work, a), tb(work, b);
    ta.join();
    tb.join();
    closeReportFile();

    std::vector<std::string> lines, expected;
    const std::string text = readFile(report);
    for (size_t start = 0, end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2)
        lines.push_back(text.substr(start, end - start));
    for (const char* tag : {"A", "B"})
        for (int i = 0; i < kLines; ++i) expected.push_back(std::string(tag) + ": line " + std::to_string(i) + " of many");
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(lines, expected);
    size_t bytes = 0;
    for (const std::string& line : expected) bytes += line.size() + 2;
    EXPECT_EQ(text.size(), bytes);  // nothing between the lines
    unlink(report.c_str());
    a->removeAllAppenders();
    b->removeAllAppenders();
}

// The names of report, log and dump files share their tokens.
TEST(FileNames, TokensAndTheLogDirectoryPrefix) {
    const char* logDirectory = *getAppContext()->GetItem(DirProcessLog);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(expandFileName("app-%P.log", false), std::string(logDirectory) + "app-" + pid + ".log");
    EXPECT_EQ(expandFileName("/x/%I-%A%q.log", false), "/x/%I-ReportAppenderTest%q.log");
    EXPECT_EQ(expandFileName("/x/%I-%A.log", true), "/x/ReportAppenderTest-ReportAppenderTest.log");
    getAppContext()->SetItem(AppInstance, "EXTA");
    EXPECT_EQ(expandFileName("/x/%I.log", true), "/x/EXTA.log");
    getAppContext()->SetItem(AppInstance, "");
    EXPECT_EQ(joinPath("/d/", "f"), "/d/f");
}

// A bare name lands in the report directory, made when missing, with its
// tokens replaced.
void openBareName() {
    const std::string path = openReportFile("run-%P.rpt");
    ReportAppender appender("", "%m%n");
    Logger* l = loggerWith("report.bare.name", appender);
    ZVLOG_INFO(l, "in the report");
    printf("%u %s", static_cast<unsigned>(getpid()), path.c_str());
    l->removeAllAppenders();
    closeReportFile();
}

TEST(ReportAppender, BareNameOpensInTheReportDirectory) {
    const std::string home = temporaryPath("report-home");
    ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
    const ChildResult r = runChild("openBareName", {"QMR_HOME=" + home});
    EXPECT_EQ(r.err, "");
    const size_t blank = r.out.find(' ');
    ASSERT_NE(blank, std::string::npos) << r.out;
    const std::string expected = home + "/dirrpt/run-" + r.out.substr(0, blank) + ".rpt";
    EXPECT_EQ(r.out.substr(blank + 1), expected);
    EXPECT_EQ(readFile(expected), "in the report\r\n");
    std::filesystem::remove_all(home);
}

const bool scenarioHook = runRequestedScenario({{"openBareName", &openBareName}});

}  // namespace
