// Pattern parsing, every conversion with its padding and cutting, the date
// formatter, and the plain and binary layout defaults.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "support/EventBuilder.h"
#include "zvlog/Layout.h"
#include "zvlog/Level.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingTime.h"

using namespace zvs::zvlib::zvlog;
using zvtest::EventBuilder;

namespace {

// 2023-11-14 22:13:20 UTC, a Tuesday.
constexpr uint32_t kTuesday = 1700000000;

class PatternLayoutTest : public ::testing::Test {
protected:
    void SetUp() override { useZone("UTC"); }
    static void useZone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }

    static std::string format(const char* pattern, EventBuilder& b) {
        PatternLayout layout(pattern);
        std::string out;
        layout.format(b.get(), out);
        return out;
    }

    static unsigned short loggerIndex(const char* name) {
        return Logger::getRepository()->getLogger(name)->getIndex();
    }
};

TEST_F(PatternLayoutTest, PercentLineEndAndMalformedConversions) {
    EventBuilder b("msg");
    EXPECT_EQ(format("100%%%n", b), "100%\r\n");
    EXPECT_EQ(format("%x", b), "%?x?");
    // Modifiers on "%", "n" and malformed conversions change nothing.
    EXPECT_EQ(format("[%-5%][%5n][%8x][%.1q]", b), "[%][\r\n][%?x?][%?q?]");
    // An option after a conversion that takes none stays text.
    EXPECT_EQ(format("%n{1}", b), "\r\n{1}");
    EXPECT_EQ(format("%m{unclosed", b), "msg{unclosed");
    // A pattern ending inside a conversion keeps its text.
    EXPECT_EQ(format("end %", b), "end %");
    EXPECT_EQ(format("end %-5.", b), "end %-5.");
    EXPECT_EQ(format("", b), "");
    // Conversions side by side, and runs of literal text between them.
    b.level(LEVEL_ERROR).logger(loggerIndex("zv.apply"));
    EXPECT_EQ(format("%p%c{1}%%%n%x|%m", b), "ERRORapply%\r\n%?x?|msg");
    EXPECT_EQ(format("%m%m", b), "msgmsg");
}

TEST_F(PatternLayoutTest, LevelPaddingAndCutting) {
    EventBuilder warn("w");
    warn.level(LEVEL_WARN);
    EXPECT_EQ(format("%-5p|", warn), "WARN |");
    EXPECT_EQ(format("%5p|", warn), " WARN|");
    EXPECT_EQ(format("%05p|", warn), "0WARN|");
    EXPECT_EQ(format("%-05p|", warn), "0WARN|");  // zero pad beats left align
    EXPECT_EQ(format("%4p|%3p|%.3p|", warn), "WARN|WARN|ARN|");

    EventBuilder info("i");
    info.level(LEVEL_INFO);
    EXPECT_EQ(format("%.2p|%-.2p|%p", info), "FO|IN|INFO");

    EventBuilder odd("u");
    odd.level(100);
    EXPECT_EQ(format("%p", odd), "<undefined>");
}

TEST_F(PatternLayoutTest, LoggerNameAndComponents) {
    EventBuilder b("m");
    b.logger(loggerIndex("a.b.c"));
    EXPECT_EQ(format("%c", b), "a.b.c");
    EXPECT_EQ(format("%.3c", b), "b.c");
    EXPECT_EQ(format("%-.3c", b), "a.b");
    EXPECT_EQ(format("%c{1}", b), "c");
    EXPECT_EQ(format("%c{2}", b), "b.c");
    EXPECT_EQ(format("%c{3}|%c{9}|%c{0}|%c{x1}", b), "a.b.c|a.b.c|a.b.c|a.b.c");
    EXPECT_EQ(format("%8c|%-8c|%c{1}", b), "   a.b.c|a.b.c   |c");
    // Every modifier and an option on one conversion: zero pad beats left align.
    EXPECT_EQ(format("[%-07.12c{2}][%-01.2c{2}]", b), "[0000b.c][b.]");

    EventBuilder root("m");
    root.logger(Logger::getRepository()->getRootLogger()->getIndex());
    EXPECT_EQ(format("%c|%c{1}", root), "root|root");
}

TEST_F(PatternLayoutTest, ModuleMethodAndLine) {
    EventBuilder b("m");
    b.module("/src/zvlog/core/Logger.cpp").method("doAppend").line(412);
    EXPECT_EQ(format("%C|%C{2}|%C{1}|%C{7}", b),
              "/src/zvlog/core/Logger.cpp|core/Logger.cpp|Logger.cpp|/src/zvlog/core/Logger.cpp");
    EXPECT_EQ(format("%M:%L|%l", b), "doAppend:412|doAppend core/Logger.cpp(412)");
    EXPECT_EQ(format("%6L|%-6L|%06L|%.2L", b), "   412|412   |000412|12");

    // Keyword-wrapped module texts ("$", a blank, ..., a blank and "$" only)
    // are unwrapped; both separators count.
    const struct {
        const char *module, *pattern, *expected;
    } modules[] = {
        {"$Id: src\\zvlog/layout\\Pattern.cpp $", "%C|%C{2}|%l",
         "src\\zvlog/layout\\Pattern.cpp|layout\\Pattern.cpp|f layout\\Pattern.cpp(3)"},
        {"$Id:x/y.cpp$", "%C", "$Id:x/y.cpp$"},
        {"$x/y.cpp $", "%C", "$x/y.cpp $"},
        {"$Id:  $", "[%C]", "[]"},
        {"$Source: a b/c.cpp $", "%C{1}|%C", "c.cpp|a b/c.cpp"},
        {"file.cpp", "%l", "f file.cpp(3)"},
    };
    for (const auto& m : modules) {
        EventBuilder e("m");
        e.module(m.module).method("f").line(3);
        EXPECT_EQ(format(m.pattern, e), m.expected) << m.module;
    }
}

TEST_F(PatternLayoutTest, SequenceElapsedAndThread) {
    EventBuilder b("m");
    b.sequence(4294967295u);
    EXPECT_EQ(format("%S|%12S|", b), "4294967295|  4294967295|");

    const unsigned long long before = LoggingTime::getElapsedTime() / 1000;
    const std::string r = format("%r", b);
    const unsigned long long after = LoggingTime::getElapsedTime() / 1000;
    ASSERT_FALSE(r.empty());
    EXPECT_EQ(r.find_first_not_of("0123456789"), std::string::npos);
    EXPECT_GE(std::stoull(r), before);
    EXPECT_LE(std::stoull(r), after);

    LoggerRepository::setThreadName("worker-7");
    EXPECT_EQ(format("[%t][%10t][%.3t]", b), "[worker-7][  worker-7][r-7]");
}

TEST_F(PatternLayoutTest, MessageLinesIndentedToTheirColumn) {
    EventBuilder b("first\nsecond\nthird");
    b.time(kTuesday, 123456).level(LEVEL_INFO);
    EXPECT_EQ(format("%d{%H:%M:%S} %p %m|", b),
              "22:13:20.123 INFO first\n"
              "                  second\n"
              "                  third|");

    // Text already in the output counts from its last line end; characters
    // are counted, not bytes.
    PatternLayout layout("\xC3\xA9 %p %m%n");
    std::string out = "earlier\r\nXY";
    layout.format(b.get(), out);
    EXPECT_EQ(out,
              "earlier\r\nXY\xC3\xA9 INFO first\n"
              "         second\n"
              "         third\r\n");

    // A closing line end opens no new line; padding comes before the indent.
    EventBuilder trailing("one\ntwo\n");
    EXPECT_EQ(format("> %m|", trailing), "> one\n  two\n|");
    EventBuilder args("%s=%d\nend");
    args.str("n").i32(5);
    EXPECT_EQ(format("::%8m|", args), ":: n=5\n  end|");
    EXPECT_EQ(format("::%m", args), "::n=5\n  end");

    // A line end anywhere in a text argument, whatever its length, is found
    // (short texts are searched a word at a time).
    for (size_t n = 1; n <= 20; ++n) {
        for (size_t at = 0; at < n; ++at) {
            std::string text(n, 'a');
            text[at] = '\n';
            EventBuilder one("%s!");
            one.str(text);
            std::string expected = "> " + text.substr(0, at + 1) + "  " + text.substr(at + 1) + "!";
            EXPECT_EQ(format("> %m", one), expected) << n << " " << at;
        }
        EventBuilder none("%s");
        none.str(std::string(n, '\x0b'));
        EXPECT_EQ(format("> %m", none), "> " + std::string(n, '\x0b')) << n;
    }
}

TEST_F(PatternLayoutTest, MessagePaddingAndCutting) {
    EventBuilder b("abc %d");
    b.i32(42);
    EXPECT_EQ(format("[%10m][%-10m][%.3m][%-.3m][%m]", b), "[    abc 42][abc 42    ][ 42][abc][abc 42]");
}

TEST_F(PatternLayoutTest, DateWithZoneOffsetAndMilliseconds) {
    EventBuilder b("m");
    b.time(kTuesday, 123456);
    EXPECT_EQ(format("%d", b), "2023-11-14 Tue +0000 22:13:20.123");
    EXPECT_EQ(format("%d{%Y/%m/%d}", b), "2023/11/14");
    EXPECT_EQ(format("%d{%S|%S}", b), "20.123|20");
    EXPECT_EQ(format("%d{%%S %H %z%%}", b), "%S 22 +0000%");
    EXPECT_EQ(format("[%36d]", b), "[   2023-11-14 Tue +0000 22:13:20.123]");

    // Milliseconds refresh on every call within a cached second.
    EventBuilder early("m");
    early.time(kTuesday, 1000);
    EventBuilder late("m");
    late.time(kTuesday, 999999);
    EXPECT_EQ(format("%d{%H:%M:%S}", early), "22:13:20.001");
    EXPECT_EQ(format("%d{%H:%M:%S}", late), "22:13:20.999");
    EXPECT_EQ(format("%d{%H:%M:%S}", early), "22:13:20.001");

    // Offsets east and west of UTC, both spelled "%z" and "%Z" (other seconds,
    // so that the per-thread cache of the UTC results does not apply).
    useZone("XST-05:30");
    EventBuilder east("m");
    east.time(kTuesday + 10, 5000);
    EXPECT_EQ(format("%d", east), "2023-11-15 Wed +0530 03:43:30.005");
    EXPECT_EQ(format("%d{%z}", east), "+0530");
    useZone("YST+3");
    EventBuilder west("m");
    west.time(kTuesday + 20, 0);
    EXPECT_EQ(format("%d{%H:%M:%S %Z %z}", west), "19:13:40.000 -0300 -0300");
}

TEST_F(PatternLayoutTest, DateLongFormatsAndResults) {
    EventBuilder b("m");
    b.time(kTuesday, 42000);
    // Longer than the cached formats, and a result longer than the cache holds.
    const std::string longFormat = std::string(70, '-') + "%H:%M:%S" + std::string(10, '=');
    const std::string pattern = "%d{" + longFormat + "}";
    EXPECT_EQ(format(pattern.c_str(), b), std::string(70, '-') + "22:13:20.042" + std::string(10, '='));
    const std::string bigResult = "%d{%c %c %c %c %c %c %Y}";
    EXPECT_EQ(format(bigResult.c_str(), b).size(), 6u * 25u + 4u);
}

TEST_F(PatternLayoutTest, DurationsPrintAsSeconds) {
    EventBuilder b("m");
    b.time(5, 123456);
    // The milliseconds of a duration are the microseconds' lowest digits.
    EXPECT_EQ(format("%d|%d{%H}", b), "5.456|5.456");
    EventBuilder last("m");
    last.time(1189622116, 7);
    EXPECT_EQ(format("%d", last), "1189622116.007");
    EventBuilder first("m");
    first.time(1189622117, 7000);
    EXPECT_EQ(format("%d{%Y %S}", first), "2007 17.007");
}

TEST_F(PatternLayoutTest, FullLineAndReuse) {
    EventBuilder b("copied %d rows of %s");
    b.i32(17).str("orders").level(LEVEL_ERROR).logger(loggerIndex("zv.apply")).time(kTuesday, 250000);
    PatternLayout layout("%d %p %c - %m%n");
    std::string out;
    layout.format(b.get(), out);
    const std::string line = "2023-11-14 Tue +0000 22:13:20.250 ERROR zv.apply - copied 17 rows of orders\r\n";
    EXPECT_EQ(out, line);
    layout.format(b.get(), out);
    EXPECT_EQ(out, line + line);

    // A message longer than the room a line is given first, behind text of
    // its own.
    const std::string longText(3000, 'x');
    EventBuilder longOne("%s");
    longOne.str(longText).level(LEVEL_ERROR).logger(loggerIndex("zv.apply")).time(kTuesday, 250000);
    layout.format(longOne.get(), out);
    EXPECT_EQ(out, line + line + "2023-11-14 Tue +0000 22:13:20.250 ERROR zv.apply - " + longText + "\r\n");
}

// Literal text, logger names and level names are copied in chunks of fixed
// size; lengths on either side of a chunk must come out exact.
TEST_F(PatternLayoutTest, PiecesAroundTheChunkSizes) {
    for (const size_t n : {0u, 1u, 2u, 3u, 15u, 16u, 17u, 31u, 32u, 33u, 70u}) {
        SCOPED_TRACE(n);
        const std::string literal(n, '~');
        const std::string name = "n" + std::string(n, 'x');
        EventBuilder b("m");
        b.level(LEVEL_ERROR).logger(loggerIndex(name.c_str()));
        const std::string pattern = literal + "%c" + literal + "%p" + literal + "%m" + literal;
        EXPECT_EQ(format(pattern.c_str(), b), literal + name + literal + "ERROR" + literal + "m" + literal);
    }
    // One layout, the logger changing between events of different lengths.
    PatternLayout layout("%c|");
    std::string out;
    for (const char* name : {"short", "a.name.of.seventeen", "s", "sixteen.chars.ab"}) {
        EventBuilder b("m");
        b.logger(loggerIndex(name));
        layout.format(b.get(), out);
    }
    EXPECT_EQ(out, "short|a.name.of.seventeen|s|sixteen.chars.ab|");
}

// A layout keeps the text of its leading date, level and logger for the
// next event of the same millisecond, level and logger. Whatever came before,
// each line must be what a fresh layout prints for that event.
TEST_F(PatternLayoutTest, KeptLineHeadsMatchFreshLayouts) {
    struct Step {
        uint32_t second, micros;
        unsigned char level;
        const char* logger;
        const char* replayedAs;  // formatReplayed with this logger name, or null
    };
    const Step steps[] = {
        {kTuesday, 1000, LEVEL_INFO, "zv.a", nullptr},
        {kTuesday, 1999, LEVEL_INFO, "zv.a", nullptr},    // same millisecond
        {kTuesday, 2000, LEVEL_INFO, "zv.a", nullptr},    // next millisecond
        {kTuesday + 1, 2000, LEVEL_INFO, "zv.a", nullptr},  // next second, same millisecond
        {kTuesday + 1, 2000, LEVEL_ERROR, "zv.a", nullptr},
        {kTuesday + 1, 2000, LEVEL_ERROR, "zv.b.c", nullptr},
        {kTuesday + 1, 2000, LEVEL_ERROR, "zv.b.c", "replayed.name"},
        {kTuesday + 1, 2000, LEVEL_ERROR, "zv.b.c", nullptr},
        {5, 123456, LEVEL_ERROR, "zv.b.c", nullptr},  // durations print their own digits
        {5, 123789, LEVEL_ERROR, "zv.b.c", nullptr},
        {kTuesday + 1, 2000, LEVEL_ERROR, "zv.b.c", nullptr},
    };
    for (const char* pattern : {"%d %p %c - %m%n", "%-30d{%H:%M:%S} %5p [%c{1}] %m|", "%p %d{%S} %t %c %m",
                                "<%c> %m %d"}) {
        SCOPED_TRACE(pattern);
        PatternLayout kept(pattern);
        for (const Step& st : steps) {
            SCOPED_TRACE(std::to_string(st.second) + "." + std::to_string(st.micros));
            EventBuilder b("copied %d rows");
            b.i32(7).time(st.second, st.micros).level(st.level).logger(loggerIndex(st.logger));
            PatternLayout fresh(pattern);
            std::string a, e;
            if (st.replayedAs) {
                kept.formatReplayed(b.get(), st.replayedAs, "worker", a);
                fresh.formatReplayed(b.get(), st.replayedAs, "worker", e);
            } else {
                kept.format(b.get(), a);
                fresh.format(b.get(), e);
            }
            EXPECT_EQ(a, e);
        }
    }
    // Spot checks of the texts themselves.
    PatternLayout layout("%d{%H:%M:%S} %p %c: %m|");
    std::string out;
    for (const Step& st : {steps[0], steps[1], steps[2], steps[8], steps[9]}) {
        EventBuilder b("m");
        b.time(st.second, st.micros).level(st.level).logger(loggerIndex(st.logger));
        layout.format(b.get(), out);
    }
    EXPECT_EQ(out, "22:13:20.001 INFO zv.a: m|22:13:20.001 INFO zv.a: m|22:13:20.002 INFO zv.a: m|"
                   "5.456 ERROR zv.b.c: m|5.789 ERROR zv.b.c: m|");
}

TEST_F(PatternLayoutTest, EventWithoutLocation) {
    EventBuilder b("m");
    LoggingEvent event = b.event();
    event.attributes.location = nullptr;
    PatternLayout layout("[%C][%l][%M][%L][%m]");
    std::string out;
    layout.format(&event, out);
    EXPECT_EQ(out, "[][][][][]");
}

TEST(PatternLayoutDefaults, TextAndBinaryLayouts) {
    PatternLayout text(PatternLayout::DEFAULT_CONVERSION_PATTERN);
    BinaryLayout binary;
    EXPECT_STREQ(text.getContentType(), "text/plain");
    EXPECT_STREQ(binary.getContentType(), "application/x.binary-log");
    EventBuilder b("hello");
    std::string out;
    text.format(b.get(), out);
    EXPECT_EQ(out, "hello\r\n");
    // Neither has a header or a footer, and the binary one formats nothing.
    for (Layout* layout : {static_cast<Layout*>(&text), static_cast<Layout*>(&binary)}) {
        std::string s = "x";
        layout->getHeader(s);
        layout->getFooter(s);
        if (layout == &binary) layout->format(b.get(), s);
        EXPECT_EQ(s, "x");
        EXPECT_EQ(layout->getFooterLength(), 0u);
    }
}

}  // namespace
