// The example program's files, read back: its rolling log file and backups
// hold every record once, and its dump decodes into the events it logged.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>

#include "zvlog/BinaryReader.h"
#include "zvlog/LoggingEvent.h"

namespace fs = std::filesystem;
using namespace zvs::zvlib::zvlog;

namespace {

struct Home {
    fs::path dir;
    Home() {
        char pattern[] = "/tmp/zvlog-example-XXXXXX";
        dir = mkdtemp(pattern);
    }
    ~Home() { fs::remove_all(dir); }
};

TEST(ExampleOutput, RollingLogAndDumpReadBack) {
    Home home;
    const std::string command = "QMR_HOME=" + home.dir.string() + " '" ZVLOG_EXAMPLE_PROGRAM "' > '" +
                                (home.dir / "stdout.txt").string() + "' 2>&1";
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;

    // Every record once, whole, across the live file and its backups.
    const std::regex line(R"(^\d{4}-\d\d-\d\d \w{3} [+-]\d{4} \d\d:\d\d:\d\d\.\d{3} INFO  capture\.records \[main\] - record (\d+) of 2000 from table ORDERS\r$)");
    std::set<int> seen;
    int files = 0;
    for (const auto& entry : fs::directory_iterator(home.dir)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("zvlog_example.log", 0) != 0) continue;
        ++files;
        EXPECT_LE(fs::file_size(entry.path()), 64u * 1024u) << name;
        std::ifstream in(entry.path());
        for (std::string text; std::getline(in, text);) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(text, m, line)) << name << ": " << text;
            EXPECT_TRUE(seen.insert(std::stoi(m[1])).second) << "record " << m[1] << " twice";
        }
    }
    EXPECT_GE(files, 3);
    ASSERT_EQ(seen.size(), 2000u);
    EXPECT_EQ(*seen.begin(), 1);
    EXPECT_EQ(*seen.rbegin(), 2000);

    // The dump decodes alone, and its last events are the records.
    const DecodeResult dump = decodeFile((home.dir / "zvlog-zvlog_example.dmp").c_str());
    ASSERT_TRUE(dump.ok()) << (dump.errors.empty() ? "" : dump.errors.front());
    ASSERT_FALSE(dump.events.empty());
    std::set<std::string> messages;
    for (const DecodedEvent& e : dump.events) {
        LocationRecord site;
        LoggingEvent event;
        toLoggingEvent(e, site, event);
        std::string text;
        renderMessage(&event, text);
        messages.insert(text);
    }
    EXPECT_EQ(messages.count("record 2000 of 2000 from table ORDERS"), 1u);
    EXPECT_EQ(messages.count("record 1 of 2000 from table ORDERS"), 1u);
    const DecodedEvent& last = dump.events.back();
    EXPECT_EQ(last.loggerName, "capture.records");
    EXPECT_EQ(last.categoryName, "INFO");
    EXPECT_EQ(last.threadName, "main");
}

}  // namespace
