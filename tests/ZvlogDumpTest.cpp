// zvlog-dump run as a program on what the library writes: a dump file of a
// child process and binary log files of this one. Its JSON is read back and
// compared field by field with what was logged, its pattern text with what a
// text appender wrote for the same events; then filters, damaged files,
// --follow on a growing file and bad command lines.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/CaptureAppender.h"
#include "support/ChildProcess.h"
#include "support/StreamBuilder.h"
#include "zvlog/AppContext.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/FileAppender.h"
#include "zvlog/Layout.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using namespace zvtest;
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const std::string kTool = ZVLOG_DUMP_PROGRAM;

std::vector<json> jsonLines(const std::string& out) {
    std::vector<json> lines;
    size_t start = 0;
    while (start < out.size()) {
        const size_t end = out.find('\n', start);
        EXPECT_NE(end, std::string::npos) << "last line without its end";
        const std::string line = out.substr(start, end - start);
        lines.push_back(json::parse(line, nullptr, false));
        EXPECT_FALSE(lines.back().is_discarded()) << line;
        start = end == std::string::npos ? out.size() : end + 1;
    }
    return lines;
}

std::vector<json> withLogger(const std::vector<json>& lines, const std::string& logger) {
    std::vector<json> kept;
    for (const json& j : lines)
        if (j.value("logger", "") == logger) kept.push_back(j);
    return kept;
}

void writeBytes(const std::string& path, const std::string& bytes, bool append = false) {
    FILE* f = fopen(path.c_str(), append ? "ab" : "wb");
    ASSERT_NE(f, nullptr) << path;
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
}

Logger* testLogger(const char* name) {
    Logger* l = Logger::getRepository()->getLogger(name);
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    return l;
}

// ---------------------------------------------------------------------------
// A dump written by a child: two named threads and the main thread.

constexpr int kDumpPerThread = 40;
constexpr int kWorkerLine = __LINE__ + 6;  // the ZVLOG_INFO below
constexpr int kMainLine = __LINE__ + 16;   // the ZVLOG_WARN below

void workerEvents(Logger* l, int t) {
    LoggerRepository::setThreadName(("dump-worker-" + std::to_string(t)).c_str());
    for (int i = 0; i < kDumpPerThread; ++i) {
        ZVLOG_INFO(l, "thread %d event %d of %s", t, i, "dump");
    }
}

void writeDump() {
    getAppContext()->SetItem(AppInstance, "dumptool");
    Logger* l = testLogger("dumptool.dump");
    std::thread a(workerEvents, l, 1), b(workerEvents, l, 2);
    a.join();
    b.join();
    LoggerRepository::setThreadName("dump-main");
    ZVLOG_WARN(l, "last words: %s", "saved");
    printf("%d", LogBuffer::saveAllToFile() ? 1 : 0);
}

const bool scenarios = runRequestedScenario({{"writeDump", writeDump}});

TEST(ZvlogDump, JsonOfAChildsDumpHoldsEveryEventOfItsThreadsFieldByField) {
    const std::string home = temporaryPath("zvlog-dump-home");
    fs::create_directory(home);
    const auto before = std::chrono::system_clock::now();
    const ChildResult child = runChild("writeDump", {"QMR_HOME=" + home});
    const auto after = std::chrono::system_clock::now();
    ASSERT_TRUE(child.succeeded()) << child.err;
    ASSERT_EQ(child.out, "1");

    const ChildResult r = runProgram(kTool, {"--json", home + "/zvlog-dumptool.dmp"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::vector<json> events = withLogger(jsonLines(r.out), "dumptool.dump");
    ASSERT_EQ(events.size(), 2u * kDumpPerThread + 1);

    // Per thread in the order decoded: a thread's events stay in its order.
    std::map<std::string, std::vector<json>> byThread;
    for (const json& j : events) byThread[j["thread"]].push_back(j);
    ASSERT_EQ(byThread.size(), 3u);
    const auto first = std::chrono::system_clock::to_time_t(before) - 1;
    const auto last = std::chrono::system_clock::to_time_t(after) + 1;
    auto checkCommon = [&](const json& j) {
        EXPECT_EQ(j["module"], __FILE__);
        // "YYYY-MM-DDTHH:MM:SS.uuuuuuZ" within the child's lifetime.
        const std::string time = j["time"];
        ASSERT_EQ(time.size(), 27u) << time;
        EXPECT_EQ(time.back(), 'Z');
        struct tm t{};
        ASSERT_NE(strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &t), nullptr) << time;
        const time_t seconds = timegm(&t);
        EXPECT_GE(seconds, first);
        EXPECT_LE(seconds, last);
    };
    for (int t = 1; t <= 2; ++t) {
        const std::vector<json>& got = byThread["dump-worker-" + std::to_string(t)];
        ASSERT_EQ(got.size(), static_cast<size_t>(kDumpPerThread));
        for (int i = 0; i < kDumpPerThread; ++i) {
            const json& j = got[i];
            checkCommon(j);
            EXPECT_EQ(j["level"], "INFO");
            EXPECT_EQ(j["method"], "workerEvents");
            EXPECT_EQ(j["line"], kWorkerLine);
            EXPECT_EQ(j["format"], "thread %d event %d of %s");
            EXPECT_EQ(j["message"], "thread " + std::to_string(t) + " event " + std::to_string(i) + " of dump");
            EXPECT_EQ(j["arguments"], json::parse(R"([{"type":"int32","value":)" + std::to_string(t) +
                                                  R"(},{"type":"int32","value":)" + std::to_string(i) +
                                                  R"(},{"type":"string","value":"dump"}])"));
            EXPECT_EQ(j["thread_id"], got[0]["thread_id"]);
            if (i > 0) { EXPECT_GT(j["sequence"], got[i - 1]["sequence"]); }
        }
    }
    EXPECT_NE(byThread["dump-worker-1"][0]["thread_id"], byThread["dump-worker-2"][0]["thread_id"]);
    const std::vector<json>& main = byThread["dump-main"];
    ASSERT_EQ(main.size(), 1u);
    checkCommon(main[0]);
    EXPECT_EQ(main[0]["level"], "WARN");
    EXPECT_EQ(main[0]["method"], "writeDump");
    EXPECT_EQ(main[0]["line"], kMainLine);
    EXPECT_EQ(main[0]["message"], "last words: saved");
    // The main thread logged after both workers had ended.
    for (const auto& [name, got] : byThread) EXPECT_LE(got.back()["sequence"], main[0]["sequence"]) << name;
    fs::remove_all(home);
}

// ---------------------------------------------------------------------------
// Binary log files of this process.

class ZvlogDumpFiles : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = temporaryPath("zvlog-dump-files");
        fs::create_directory(dir_);
        binaryPath_ = dir_ + "/events.bin";
        binary_ = std::make_unique<FileAppender>("dump-binary");
        binary_->setFile(binaryPath_.c_str());
        binary_->setLayout(new BinaryLayout());
        binary_->activateOptions();
    }
    void TearDown() override {
        for (Logger* l : loggers_) l->removeAllAppenders();
        binary_->close();
        fs::remove_all(dir_);
    }
    Logger* logger(const char* name) {
        Logger* l = testLogger(name);
        l->addAppender(*binary_);
        loggers_.push_back(l);
        return l;
    }
    // Ends the current stream of every thread and puts it into the file.
    void flushBinary() {
        Appender::flushOutput();
        binary_->flush();
    }

    std::string dir_;
    std::string binaryPath_;
    std::unique_ptr<FileAppender> binary_;
    std::vector<Logger*> loggers_;
};

// The same pattern through a text appender while logging and through the
// tool afterwards gives the same bytes: every conversion but "%r", widths and
// cuts, a multi-line message, two threads, several streams.
TEST_F(ZvlogDumpFiles, PatternTextEqualsWhatATextAppenderWroteForTheSameEvents) {
    const char* pattern = "%d{%Y-%m-%d %H:%M:%S} %-5p|%05p %c{2} %.4c [%t] %C{1} %M %L %l #%S %-12.12m|%n";
    const char* multiLine = "%d %p - %m%n";
    Logger* l = logger("dump.text.writer");
    FileAppender text("dump-text");
    text.setFile((dir_ + "/events.txt").c_str());
    text.setLayout(new PatternLayout(pattern));
    text.activateOptions();
    l->addAppender(text);

    auto work = [l](int t) {
        LoggerRepository::setThreadName(("text-" + std::to_string(t)).c_str());
        for (int i = 0; i < 30; ++i) {
            ZVLOG_INFO(l, "thread %d step %d", t, i);
            if (i % 7 == 0) ZVLOG_ERROR(l, "thread %d: %s", t, "two lines\nsecond line");
        }
    };
    std::thread a(work, 1);
    a.join();
    flushBinary();  // one stream ends here
    std::thread b(work, 2);
    b.join();
    ZVLOG_WARN(l, "pointer %p and %.3f", reinterpret_cast<void*>(0xbeef), 2.5);
    flushBinary();
    l->removeAllAppenders();
    text.close();

    const ChildResult r = runProgram(kTool, {"--logger", "dump.text.writer", "--pattern", pattern, binaryPath_});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string expected = readFile(dir_ + "/events.txt");
    EXPECT_EQ(std::count(expected.begin(), expected.end(), '\n'), 2 * (30 + 5) + 1);
    EXPECT_EQ(r.out, expected);

    // A message of several lines keeps its indentation.
    FileAppender lines("dump-lines");
    lines.setFile((dir_ + "/lines.txt").c_str());
    lines.setLayout(new PatternLayout(multiLine));
    lines.activateOptions();
    Logger* m = logger("dump.text.lines");
    m->addAppender(lines);
    ZVLOG_INFO(m, "one\ntwo\nthree");
    flushBinary();
    m->removeAllAppenders();
    lines.close();
    const ChildResult r2 = runProgram(kTool, {"--logger", "dump.text.lines", "--pattern", multiLine, binaryPath_});
    EXPECT_EQ(r2.status, 0) << r2.err;
    EXPECT_EQ(r2.out, readFile(dir_ + "/lines.txt"));
    EXPECT_NE(r2.out.find("\r\n"), std::string::npos);
}

// Every argument type comes back in JSON with its type and value, and the
// message is the one the live event rendered.
TEST_F(ZvlogDumpFiles, JsonCarriesEveryArgumentTypeAndTheRenderedMessage) {
    Logger* l = logger("dump.json.types");
    CaptureAppender capture("dump-json-capture");
    l->addAppender(capture);
    const unsigned char raw[] = {0x01, 0xab, 0x00, 0xff};
    const short i16 = -12;
    const unsigned short u16 = 65000;
    const long long i64 = -9000000000LL;
    const unsigned long long u64 = 18000000000000000000ULL;
    constexpr int kLine = __LINE__ + 1;
    ZVLOG_FATAL(l, "%d %u %d %u %lld %llu %f %p %s %s %s %s", i16, u16, -70000, 4000000000u, i64, u64, 1.5f,
                reinterpret_cast<void*>(0x1234), "text é", u"wide ü", timeval32_t{5, 250},
                RawBytes{raw, sizeof raw});
    flushBinary();
    l->removeAllAppenders();

    const ChildResult r = runProgram(kTool, {"--json", "--logger", "dump.json.types", binaryPath_});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::vector<json> lines = jsonLines(r.out);
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(capture.size(), 1u);
    const CapturedEvent live = capture.events()[0];
    const json& j = lines[0];
    EXPECT_EQ(j["message"], live.message);
    EXPECT_EQ(j["sequence"], live.sequence);
    EXPECT_EQ(j["thread_id"], live.threadNumber);
    EXPECT_EQ(j["thread"], live.threadName);
    EXPECT_EQ(j["level"], "FATAL");
    EXPECT_EQ(j["logger"], "dump.json.types");
    EXPECT_EQ(j["line"], kLine);
    EXPECT_EQ(j["method"], "TestBody");
    const json expected = json::parse(R"([
        {"type":"int16","value":-12}, {"type":"uint16","value":65000},
        {"type":"int32","value":-70000}, {"type":"uint32","value":4000000000},
        {"type":"int64","value":-9000000000}, {"type":"uint64","value":18000000000000000000},
        {"type":"float","value":1.5}, {"type":"pointer","value":"0x0000000000001234"},
        {"type":"string","value":"text é"}, {"type":"wstring","value":"wide ü"},
        {"type":"time","value":"5.000250"}, {"type":"raw","value":"01ab00ff"}])");
    EXPECT_EQ(j["arguments"], expected);
    EXPECT_EQ(j.size(), 12u) << j.dump();
}

// The same events in a little-endian and a big-endian stream, back to back
// in one file, come out alike; each stream defines its own names.
TEST(ZvlogDump, StreamsOfEitherByteOrderInOneFile) {
    auto stream = [](bool big, const std::string& threadName, uint32_t base) {
        StreamBuilder b(big);
        b.header()
            .thread(7, 0x1122334455667788ull, threadName)
            .u8('a').u32((2u << 16) + 321).u32(base).u16(2).u8('s').text("%s=%d").u8('s').text("src/app.c")
            .u8('s').text("run")
            .u8('d').u16(3).u8('c').u8(LEVEL_WARN).text("WARN").text("app.io")
            .u8('e').u64((uint64_t{1700000000} << 32) | 654321)
            .u8('s').text("bytes").u8('m').u64(uint64_t(-5))
            .u8('A').u32((2u << 16) + 321).u32(base + 1)
            .u8('s').text("rows").u8('m').u64(1u << 31)
            .u8('>');
        return b.bytes();
    };
    const std::string path = temporaryPath("zvlog-dump-orders");
    writeBytes(path, stream(false, "little", 10) + stream(true, "big", 20));
    const ChildResult r = runProgram(kTool, {"--json", path});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::vector<json> lines = jsonLines(r.out);
    ASSERT_EQ(lines.size(), 4u);
    const char* names[] = {"little", "little", "big", "big"};
    const char* messages[] = {"bytes=-5", "rows=2147483648", "bytes=-5", "rows=2147483648"};
    const unsigned sequences[] = {10, 11, 20, 21};
    for (size_t i = 0; i < lines.size(); ++i) {
        const json& j = lines[i];
        SCOPED_TRACE(j.dump());
        EXPECT_EQ(j["thread"], names[i]);
        EXPECT_EQ(j["thread_id"], 7);
        EXPECT_EQ(j["sequence"], sequences[i]);
        EXPECT_EQ(j["time"], "2023-11-14T22:13:20.654321Z");
        EXPECT_EQ(j["level"], "WARN");
        EXPECT_EQ(j["logger"], "app.io");
        EXPECT_EQ(j["module"], "src/app.c");
        EXPECT_EQ(j["method"], "run");
        EXPECT_EQ(j["line"], 321);
        EXPECT_EQ(j["message"], messages[i]);
        EXPECT_EQ(j["arguments"][1]["type"], "int64");
    }
    const ChildResult text = runProgram(kTool, {"--pattern", "%p %c [%t] %C:%L %S %m%n", path});
    EXPECT_EQ(text.out,
              "WARN app.io [little] src/app.c:321 10 bytes=-5\r\nWARN app.io [little] src/app.c:321 11 rows=2147483648\r\n"
              "WARN app.io [big] src/app.c:321 20 bytes=-5\r\nWARN app.io [big] src/app.c:321 21 rows=2147483648\r\n");
    unlink(path.c_str());
}

// --level keeps an event at or above the level; --logger keeps the named
// logger and its descendants, not a logger whose name merely starts alike.
TEST_F(ZvlogDumpFiles, LevelAndLoggerFilters) {
    struct Logged {
        const char* logger;
        unsigned char level;
    };
    const Logged logged[] = {{"flt.a", LEVEL_DEBUG}, {"flt.a", LEVEL_WARN},  {"flt.a.b", LEVEL_INFO},
                             {"flt.a.b", LEVEL_ERROR}, {"flt.ab", LEVEL_FATAL}, {"flt.c", LEVEL_WARN},
                             {"flt.c", LEVEL_DATA}};
    for (size_t i = 0; i < std::size(logged); ++i) {
        Logger* l = logger(logged[i].logger);
        ZVLOG_LOG(l, logged[i].level, "event %d", static_cast<int>(i));
    }
    flushBinary();

    struct Case {
        std::vector<std::string> options;
        std::function<bool(const Logged&)> keeps;
    } cases[] = {
        {{}, [](const Logged&) { return true; }},
        {{"--level", "warn"}, [](const Logged& e) { return e.level >= LEVEL_WARN; }},
        {{"-l", "INFO"}, [](const Logged& e) { return e.level >= LEVEL_INFO; }},
        {{"--level", "223"}, [](const Logged& e) { return e.level >= LEVEL_WARN; }},
        {{"--logger", "flt.a"}, [](const Logged& e) { return std::string(e.logger).starts_with("flt.a") &&
                                                             std::string(e.logger) != "flt.ab"; }},
        {{"--logger", "flt.a.b"}, [](const Logged& e) { return std::string(e.logger) == "flt.a.b"; }},
        {{"--logger", "flt.ab", "--logger", "flt.c"},
         [](const Logged& e) { return std::string(e.logger) == "flt.ab" || std::string(e.logger) == "flt.c"; }},
        {{"--logger", "flt.a", "--level", "ERROR"},
         [](const Logged& e) { return std::string(e.logger) == "flt.a.b" && e.level == LEVEL_ERROR; }},
        {{"--logger", "flt"}, [](const Logged&) { return true; }},
        {{"--logger", "fl"}, [](const Logged&) { return false; }},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {"--pattern", "%c %p %m%n", binaryPath_});
        const ChildResult r = runProgram(kTool, args);
        std::string expected;
        for (size_t i = 0; i < std::size(logged); ++i)
            if (c.keeps(logged[i]))
                expected += std::string(logged[i].logger) + " " + getLevelName(logged[i].level) + " event " +
                            std::to_string(i) + "\r\n";
        std::string got;  // only this test's loggers: the file has every event of the thread's blocks
        for (size_t start = 0; start < r.out.size();) {
            const size_t end = r.out.find('\n', start) + 1;
            if (r.out.compare(start, 4, "flt.") == 0) got += r.out.substr(start, end - start);
            start = end;
        }
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(got, expected) << testing::PrintToString(c.options);
    }
}

// A damaged file: the events before the damage on standard output, the
// reader's text on standard error, exit status 1.
TEST(ZvlogDump, DamageGivesTheReadersTextAfterTheEventsBeforeIt) {
    // Two streams of three events each; the offsets of the second stream's
    // header and of its events are noted while it is built.
    std::string data;
    std::vector<size_t> eventAt;
    size_t secondHeader = 0;
    for (int s = 0; s < 2; ++s) {
        StreamBuilder b;
        b.header().thread(1, 1, "t");
        if (s == 1) secondHeader = data.size();
        for (int i = 0; i < 3; ++i) {
            eventAt.push_back(data.size() + b.size());
            if (i == 0) {
                b.u8('a').u32(1).u32(3 * s + i).u16(1).u8('s').text("n=%d").u8('s').text("m.c").u8('s').text("f");
                b.u8('d').u16(1).u8('c').u8(LEVEL_INFO).text("INFO").text("dmg");
            } else {
                b.u8('A').u32(1).u32(3 * s + i);
            }
            b.u8('j').u32(3 * s + i);
        }
        b.u8('>');
        data += b.bytes();
    }
    auto eventsUpTo = [](int n) {
        std::string out;
        for (int i = 0; i < n; ++i) out += "n=" + std::to_string(i) + "\n";
        return out;
    };
    char text[200];
    struct Case {
        const char* what;
        std::string bytes;
        int printed;
        std::string error;
    };
    std::vector<Case> cases;
    auto hex8 = [&](size_t at) {
        snprintf(text, sizeof text, "%08zx", at);
        return std::string(text);
    };
    const std::string path = temporaryPath("zvlog-dump-damaged");
    cases.push_back({"cut inside the fifth event", data.substr(0, eventAt[4] + 6), 4,
                     "Unexpected end of data at offset 0x" + hex8(eventAt[4] + 6) + "\n"});
    cases.push_back({"cut before the last \">\"", data.substr(0, data.size() - 1), 6,
                     "Unexpected end of data at offset 0x" + hex8(data.size() - 1) + "\n"});
    cases.push_back({"cut inside the second header", data.substr(0, secondHeader + 5), 3,
                     "File '" + path + "' has a malformed file header at position " + std::to_string(secondHeader) +
                         "\n"});
    std::string invalid = data;
    invalid[eventAt[5]] = char(0xEE);
    cases.push_back({"invalid token", invalid, 5, "Invalid token 0xee in data at offset 0x" + hex8(eventAt[5]) + "\n"});
    std::string newer = data;
    newer[secondHeader + 1] = 3;
    cases.push_back({"newer version", newer, 3,
                     "File '" + path + "' has a newer version in file header at position " +
                         std::to_string(secondHeader) + "\n"});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        writeBytes(path, c.bytes);
        const ChildResult r = runProgram(kTool, {"--pattern", "%m\n", path});
        ASSERT_TRUE(r.exited);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, eventsUpTo(c.printed));
        EXPECT_EQ(r.err, c.error);
    }
    // Whole, it decodes without a word; a file that cannot be read gets the
    // reader's text too.
    writeBytes(path, data);
    const ChildResult whole = runProgram(kTool, {"--pattern", "%m\n", path});
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out, eventsUpTo(6));
    EXPECT_EQ(whole.err, "");
    unlink(path.c_str());
    const ChildResult missing = runProgram(kTool, {path});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "Failed to read '" + path + "', error 2 - No such file or directory\n");
}

// --follow prints what is in the file, then each stream appended later once
// it is whole (never part of one), and ends with status 0 on SIGTERM.
TEST_F(ZvlogDumpFiles, FollowPrintsStreamsAppendedWhileItRuns) {
    Logger* l = logger("dump.follow");
    for (int i = 0; i < 3; ++i) ZVLOG_INFO(l, "before %d", i);
    flushBinary();

    RunningProgram tool(kTool, {"--follow", "--poll", "20", "--logger", "dump.follow", "--pattern", "%m\n",
                                binaryPath_});
    ASSERT_TRUE(tool.started());
    auto has = [](const std::string& text) {
        return [text](const std::string& out) { return out.find(text) != std::string::npos; };
    };
    ASSERT_TRUE(tool.waitForOutput(has("before 2\n"), 10000)) << tool.out();
    EXPECT_EQ(tool.out(), "before 0\nbefore 1\nbefore 2\n");

    std::thread([l] {
        for (int i = 0; i < 3; ++i) ZVLOG_INFO(l, "after %d", i);
    }).join();
    flushBinary();
    ASSERT_TRUE(tool.waitForOutput(has("after 2\n"), 10000)) << tool.out();

    // A stream written in two parts: nothing of it shows until it is whole.
    StreamBuilder b;
    b.header().thread(9, 9, "writer");
    b.u8('a').u32(5).u32(1).u16(1).u8('s').text("half %d").u8('s').text("m.c").u8('s').text("f");
    b.u8('d').u16(4).u8('c').u8(LEVEL_INFO).text("INFO").text("dump.follow").u8('j').u32(1);
    b.u8('A').u32(5).u32(2).u8('j').u32(2).u8('>');
    const std::string stream = b.bytes();
    const size_t cut = stream.size() - 8;
    writeBytes(binaryPath_, stream.substr(0, cut), true);
    EXPECT_FALSE(tool.waitForOutput(has("half"), 300)) << tool.out();
    writeBytes(binaryPath_, stream.substr(cut), true);
    ASSERT_TRUE(tool.waitForOutput(has("half 2\n"), 10000)) << tool.out();

    tool.signal(SIGTERM);
    const ChildResult r = tool.finish();
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "before 0\nbefore 1\nbefore 2\nafter 0\nafter 1\nafter 2\nhalf 1\nhalf 2\n");
}

// Every bad command line: a clear word on standard error, nothing on
// standard output, status 2.
TEST(ZvlogDump, BadCommandLinesExitWithStatus2) {
    const std::string path = temporaryPath("zvlog-dump-bad");
    writeBytes(path, "");
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "files is required"},
        {{"--level", "loud", path}, "--level: \"loud\" is not a level"},
        {{"--level", "256", path}, "is not a level"},
        {{"--level", "", path}, "is not a level"},
        {{"--level", "<undefined>", path}, "is not a level"},
        {{"--pattern", "%d %x %m", path}, "--pattern: \"%d %x %m\" holds an unknown conversion (printed as \"%?x?\")"},
        {{"--pattern", "%m", "--json", path}, "excludes"},
        {{"--logger", "", path}, "--logger: the name is empty"},
        {{"--follow", path, path}, "--follow reads exactly one file"},
        {{"--poll", "0", "--follow", path}, "--poll"},
        {{"--poll", "x", "--follow", path}, "--poll"},
        {{"--frobnicate", path}, "--frobnicate"},
    };
    for (const auto& [args, says] : cases) {
        const ChildResult r = runProgram(kTool, args);
        SCOPED_TRACE(testing::PrintToString(args));
        ASSERT_TRUE(r.exited);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    }
    const ChildResult help = runProgram(kTool, {"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"--pattern", "--json", "--level", "--logger", "--follow", "Exit status"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    const ChildResult empty = runProgram(kTool, {path});
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.out + empty.err, "");
    unlink(path.c_str());
}

}  // namespace
