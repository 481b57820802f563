// The reader of the binary event encoding: header checks, token errors,
// byte order and sizes of foreign streams, and round trips from the writer.
#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/BufferTestSupport.h"
#include "support/StreamBuilder.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/Logger.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/ThreadRecord.h"

using namespace zvs::zvlib::zvlog;
using namespace zvtest;

namespace {

DecodeResult decode(const StreamBuilder& b, const char* name = "<memory>") {
    return decodeStreams(b.bytes().data(), b.size(), name);
}

// A valid one-event stream.
StreamBuilder goodStream() {
    StreamBuilder b;
    b.header().thread(1, 100, "main").site(9, 1, 1, "n=%d").logger(0, 191, "root").u8('j').u32(5).u8('>');
    return b;
}

TEST(BinaryReaderHeader, EachBadFieldHasItsText) {
    struct Case {
        int field;
        uint8_t value;
        const char* text;
    } cases[] = {
        {0, 'x', "File 'blocks.dmp' has a malformed file header at position %ld"},
        {1, 1, "File 'blocks.dmp' has an older version in file header at position %ld"},
        {1, 3, "File 'blocks.dmp' has a newer version in file header at position %ld"},
        {2, 0, "File 'blocks.dmp' has an undefined endian notation in file header at position %ld"},
        {2, 2, "File 'blocks.dmp' has an undefined endian notation in file header at position %ld"},
        {3, 2, "File 'blocks.dmp' has an unsupported pointer size in file header at position %ld"},
        {3, 16, "File 'blocks.dmp' has an unsupported pointer size in file header at position %ld"},
        {4, 2, "File 'blocks.dmp' has an unsupported float size in file header at position %ld"},
    };
    const std::string first = goodStream().bytes();
    for (const Case& c : cases) {
        // The bad stream comes second: the position is where its header starts.
        std::string data = first + goodStream().bytes();
        data[first.size() + c.field] = char(c.value);
        DecodeResult r = decodeStreams(data.data(), data.size(), "blocks.dmp");
        char expected[200];
        snprintf(expected, sizeof expected, c.text, static_cast<long>(first.size()));
        ASSERT_EQ(r.errors.size(), 1u) << expected;
        EXPECT_EQ(r.errors[0], expected);
        EXPECT_EQ(r.streams, 1u);
        EXPECT_EQ(r.events.size(), 1u);
    }
    // Too short to hold a header at all.
    DecodeResult r = decodeStream("<\x02\x10", 3, "short.dmp");
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0], "File 'short.dmp' has a malformed file header at position 0");
}

// Endian notation 1: every integer field is swapped, in tokens and arguments.
TEST(BinaryReaderByteOrder, BigEndianStreamIsSwapped) {
    StreamBuilder b(true);
    b.header(2, 4, 8)
        .thread(0x01020304, 0x1122334455667788ull, "be-thread")
        .site(0xA1B2C3D4, 0x0BADF00D, 12, "all types")
        .u8('d').u16(0x0102).u8('c').u8(0x20).text("LVL32").text("be.logger")
        .u8('e').u64(0x0102030405060708ull);
    b.u8('g').u16(0xFFFE).u8('h').u16(0xABCD).u8('j').u32(static_cast<uint32_t>(-100000));
    b.u8('k').u32(0xDEADBEEF).u8('m').u64(static_cast<uint64_t>(-5000000000000ll)).u8('n').u64(0x0102030405060708ull);
    b.u8('p').u32(0x89ABCDEF).u8('f').u64(std::bit_cast<uint64_t>(2.5));
    b.u8('t').u32(0x5F000000).u32(123456).u8('r').u32(3).u8(1).u8(2).u8(3);
    b.u8('u').u16(u'h').u16(0x00E9).u16(0).u8('s').text("text").u8('>');

    DecodeResult r = decode(b);
    ASSERT_TRUE(r.ok()) << r.errors[0];
    ASSERT_EQ(r.events.size(), 1u);
    const DecodedEvent& e = r.events[0];
    EXPECT_EQ(e.threadId, 0x01020304u);
    EXPECT_EQ(e.threadValue, 0x1122334455667788ull);
    EXPECT_EQ(e.threadName, "be-thread");
    EXPECT_EQ(e.siteId, 0xA1B2C3D4u);
    EXPECT_EQ(e.eventWord, 0x0BADF00Du);
    EXPECT_EQ(e.siteNumber, 12);
    EXPECT_EQ(e.format, "all types");
    EXPECT_EQ(e.loggerIndex, 0x0102);
    EXPECT_EQ(e.loggerName, "be.logger");
    EXPECT_EQ(e.category, 0x20);
    EXPECT_EQ(e.categoryName, "LVL32");
    EXPECT_EQ(e.contextWord, 0x0102030405060708ull);
    ASSERT_EQ(e.arguments.size(), 12u);
    const auto& a = e.arguments;
    EXPECT_EQ(a[0].asInt(), -2);
    EXPECT_EQ(a[1].asInt(), 0xABCD);
    EXPECT_EQ(a[2].asInt(), -100000);
    EXPECT_EQ(a[3].asUInt(), 0xDEADBEEFu);
    EXPECT_EQ(a[4].asInt(), -5000000000000ll);
    EXPECT_EQ(a[5].asUInt(), 0x0102030405060708ull);
    EXPECT_EQ(a[6].toString(), "0x0000000089abcdef");
    EXPECT_EQ(a[7].asDouble(), 2.5);
    EXPECT_EQ(a[7].data.size(), 4u);  // narrowed to the writer's float
    EXPECT_EQ(a[8].toString(), "1593835520.123456");
    EXPECT_EQ(a[9].toString(), "010203");
    EXPECT_EQ(a[10].toString(), "h\xc3\xa9");
    EXPECT_EQ(a[11].toString(), "text");
}

// Whatever a stream holds, reading and rendering it neither throws nor
// overflows: a zero-padded conversion whose precision cuts into the sign or
// the "0x", and float arguments far outside any integer's range.
TEST(BinaryReaderHostileValues, RenderAndConvertWithoutFault) {
    auto bits = [](float f) { return std::bit_cast<uint32_t>(f); };
    StreamBuilder b;
    b.header().thread(1, 100, "main").site(9, 1, 3, "[%05.0d][%05.1p][%3.0d]").logger(0, 191, "root");
    b.u8('j').u32(static_cast<uint32_t>(-5)).u8('p').u64(1).u8('j').u32(static_cast<uint32_t>(-7));
    b.site(10, 1, 5, "%d").logger(0, 191, "root");
    b.u8('f').u32(bits(1e30f)).u8('f').u32(bits(-1e30f)).u8('f').u32(bits(__builtin_nanf(""))).u8('f').u32(
        bits(1e19f)).u8('f').u32(bits(-2.75f)).u8('>');
    DecodeResult r = decode(b);
    ASSERT_TRUE(r.ok()) << r.errors[0];
    ASSERT_EQ(r.events.size(), 2u);

    LocationRecord site;
    LoggingEvent replayed;
    toLoggingEvent(r.events[0], site, replayed);
    std::string text;
    renderMessage(&replayed, text);
    EXPECT_EQ(text, "[00000][00000][   ]");

    const auto& f = r.events[1].arguments;
    ASSERT_EQ(f.size(), 5u);
    EXPECT_EQ(f[0].asInt(), INT64_MAX);
    EXPECT_EQ(f[0].asUInt(), UINT64_MAX);
    EXPECT_EQ(f[1].asInt(), INT64_MIN);
    EXPECT_EQ(f[2].asInt(), 0);
    EXPECT_EQ(f[2].asUInt(), 0u);
    EXPECT_EQ(f[3].asInt(), INT64_MAX);
    EXPECT_EQ(f[3].asUInt(), 9999999980506447872ull);  // 1e19f exactly
    EXPECT_EQ(f[4].asInt(), -2);
}

TEST(BinaryReaderTokens, InvalidTokensAreReportedWithTheirOffset) {
    {
        StreamBuilder b = goodStream();
        std::string data = b.bytes();
        const size_t at = data.size() - 1;
        data[at] = 'z';  // in place of ">"
        DecodeResult r = decodeStream(data.data(), data.size());
        char expected[100];
        snprintf(expected, sizeof expected, "Invalid token 0x7a in data at offset 0x%08x\n", unsigned(at));
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0], expected);
        EXPECT_EQ(r.events.size(), 1u);
        EXPECT_EQ(r.streams, 0u);
    }
    {
        StreamBuilder b;
        b.header().thread(1, 1, "t");
        const size_t at = b.size();
        b.u8('e').u64(1).u8('>');
        DecodeResult r = decode(b);
        char expected[120];
        snprintf(expected, sizeof expected,
                 "Expecting LogEvent token but found invalid token 0x65 in data at offset 0x%08x\n", unsigned(at));
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0], expected);
    }
    {
        // A site string must be an "s" or "S" token.
        StreamBuilder b;
        b.header().thread(1, 1, "t").u8('a').u32(1).u32(1).u16(0);
        const size_t at = b.size();
        b.u8('x').text("f").u8('>');
        DecodeResult r = decode(b);
        char expected[100];
        snprintf(expected, sizeof expected, "Invalid token 0x78 in data at offset 0x%08x\n", unsigned(at));
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0], expected);
    }
}

TEST(BinaryReaderTokens, MissingContextsAreReportedAndTheEventKept) {
    {
        StreamBuilder b;
        b.header();
        const size_t at = b.size();
        // Strings defined before any thread context still read; references do not.
        b.u8('a').u32(3).u32(4).u16(0).u8('s').text("fmt").u8('S').u16(0).u8('S').u16(0);
        b.logger(0, 1, "root").u8('>');
        DecodeResult r = decode(b);
        char expected[100];
        snprintf(expected, sizeof expected, "Missing thread context for event stream in data at offset 0x%08x\n",
                 unsigned(at));
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0], expected);
        ASSERT_EQ(r.events.size(), 1u);
        EXPECT_EQ(r.events[0].threadName, "<Error>");
        EXPECT_EQ(r.events[0].format, "fmt");
        EXPECT_EQ(r.events[0].module, "<Error>");
        EXPECT_EQ(r.events[0].method, "<Error>");
        EXPECT_EQ(r.streams, 1u);
    }
    {
        StreamBuilder b;
        b.header().thread(1, 1, "t");
        const size_t at = b.size();
        b.site(1, 1, 0, "no logger").u8('>');
        DecodeResult r = decode(b);
        char expected[100];
        snprintf(expected, sizeof expected, "Missing logger token for event stream in data at offset 0x%08x\n",
                 unsigned(at));
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0], expected);
        EXPECT_EQ(r.events.size(), 1u);
    }
}

TEST(BinaryReaderTokens, TruncatedStreamStopsInsideTheData) {
    const std::string full = goodStream().bytes();
    for (size_t cut = 17; cut < full.size(); ++cut) {
        const std::string part = full.substr(0, cut);
        DecodeResult r = decodeStream(part.data(), part.size());
        ASSERT_FALSE(r.errors.empty()) << cut;
        char expected[64];
        snprintf(expected, sizeof expected, "Unexpected end of data at offset 0x%08x\n", unsigned(cut));
        EXPECT_EQ(r.errors.back(), expected);
        EXPECT_EQ(r.consumed, 0u);
    }
}

// The site number counts the arguments, but a shorter event ends where the
// next token begins.
TEST(BinaryReaderTokens, ArgumentsEndAtTheNextToken) {
    StreamBuilder b;
    b.header().thread(1, 1, "t").site(1, 1, 3, "%d %d %d").logger(0, 1, "").u8('j').u32(1);
    b.u8('A').u32(1).u32(2).u8('j').u32(2).u8('j').u32(3).u8('j').u32(4);
    b.u8('A').u32(1).u32(3).u8('>');
    DecodeResult r = decode(b);
    ASSERT_TRUE(r.ok()) << r.errors[0];
    ASSERT_EQ(r.events.size(), 3u);
    EXPECT_EQ(r.events[0].arguments.size(), 1u);
    EXPECT_EQ(r.events[1].arguments.size(), 3u);
    EXPECT_EQ(r.events[1].arguments[2].asInt(), 4);
    EXPECT_EQ(r.events[2].arguments.size(), 0u);
    EXPECT_EQ(r.events[2].format, "%d %d %d");
}

// Category names outlive the stream that defined them; loggers and strings
// do not.
TEST(BinaryReaderTokens, CategoryNamesAreProcessWide) {
    EXPECT_EQ(decodedCategoryName(78), "<undefined>");
    StreamBuilder first;
    first.header().thread(1, 1, "t").site(1, 1, 0, "x").u8('d').u16(4).u8('c').u8(77).text("CUSTOM").text("lg");
    first.u8('>');
    StreamBuilder second;
    second.header().thread(1, 1, "t").site(1, 1, 0, "x").logger(4, 77, "lg").u8('C').u8(78).u8('A').u32(1).u32(2);
    second.u8('D').u16(4).u8('C').u8(77).u8('>');
    DecodeResult r = decodeStreams((first.bytes() + second.bytes()).data(), first.size() + second.size());
    ASSERT_TRUE(r.ok()) << r.errors[0];
    ASSERT_EQ(r.events.size(), 3u);
    EXPECT_EQ(r.streams, 2u);
    EXPECT_EQ(r.events[0].categoryName, "CUSTOM");
    EXPECT_EQ(r.events[1].categoryName, "<undefined>");
    EXPECT_EQ(r.events[1].category, 78);
    EXPECT_EQ(r.events[2].categoryName, "CUSTOM");
    EXPECT_EQ(r.events[2].loggerName, "lg");
    EXPECT_EQ(decodedCategoryName(77), "CUSTOM");
}

class BinaryReaderRoundTrip : public ::testing::Test {
protected:
    BinaryReaderRoundTrip() {
        thread.number = 3;
        thread.osThreadId = 777;
        thread.name = "roundtrip";
    }
    ThreadRecord thread;
    BlockCapture capture;
};

TEST_F(BinaryReaderRoundTrip, EveryArgumentTypeComesBack) {
    static const char format[] = "%f %d %u %d %u %lld %llu %p %s %s %s %S";
    const LocationRecord site{format, "rt.cpp", "roundTrip", 1, 12};
    const unsigned short logger = Logger::getRepository()->getLogger("rt.all")->getIndex();
    {
        LogBufferImpl buffer(&thread);
        LoggingEvent event = makeEvent(site, 0x10001, 77, logger, 223, 1600000000, 42);
        ASSERT_EQ(buffer.addEvent(&event), 12);
        const float f = -0.25f;
        const int16_t g = -300;
        const uint16_t h = 60000;
        const int32_t j = -70000;
        const uint32_t k = 4000000000u;
        const int64_t m = -9000000000ll;
        const uint64_t n = 18000000000000000000ull;
        const void* p = reinterpret_cast<const void*>(0x7fff12345678ull);
        const timeval32_t t{1600000001, 999999};
        const std::u16string u = u"wide";
        buffer.addArgument(ARG_FLOAT, &f, 4);
        buffer.addArgument(ARG_INT16, &g, 2);
        buffer.addArgument(ARG_UINT16, &h, 2);
        buffer.addArgument(ARG_INT32, &j, 4);
        buffer.addArgument(ARG_UINT32, &k, 4);
        buffer.addArgument(ARG_INT64, &m, 8);
        buffer.addArgument(ARG_UINT64, &n, 8);
        buffer.addArgument(ARG_POINTER, &p, 8);
        buffer.addArgument(ARG_RAW, "\xde\xad\x00\x01", 4);
        buffer.addArgument(ARG_STRING, "", 0);
        buffer.addArgument(ARG_TIME, &t, 8);
        buffer.addArgument(ARG_WSTRING, u.data(), 8);
    }
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 1u);
    DecodeResult r = decodeStream(blocks[0].data(), blocks[0].size());
    ASSERT_TRUE(r.ok()) << r.errors[0];
    ASSERT_EQ(r.events.size(), 1u);
    const DecodedEvent& e = r.events[0];
    EXPECT_EQ(e.threadId, 3u);
    EXPECT_EQ(e.threadValue, 777u);
    EXPECT_EQ(e.threadName, "roundtrip");
    EXPECT_EQ(e.siteId, 0x10001u);
    EXPECT_EQ(e.eventWord, 77u);
    EXPECT_EQ(e.loggerName, "rt.all");
    EXPECT_EQ(e.categoryName, "WARN");
    EXPECT_EQ(e.contextWord, (uint64_t{1600000000} << 32) | 42);
    std::vector<std::string> texts;
    for (const DecodedArgument& a : e.arguments) texts.push_back(a.toString());
    const std::vector<std::string> expected = {"-0.25",
                                               "-300",
                                               "60000",
                                               "-70000",
                                               "4000000000",
                                               "-9000000000",
                                               "18000000000000000000",
                                               "0x00007fff12345678",
                                               "dead0001",
                                               "",
                                               "1600000001.999999",
                                               "wide"};
    EXPECT_EQ(texts, expected);
    EXPECT_EQ(renderDecodedEvent(e).substr(0, 27), "roundtrip rt.all WARN %f %d");
}

// A decoded event can stand in for the original one wherever a LoggingEvent
// is read, such as the message renderer.
TEST_F(BinaryReaderRoundTrip, DecodedEventRendersLikeTheOriginal) {
    static const char format[] = "copied %d rows of %s in %.1f s";
    const LocationRecord site{format, "rt.cpp", "roundTrip", 2, 3};
    std::string original;
    {
        LogBufferImpl buffer(&thread);
        LoggingEvent event = makeEvent(site, 0x10002, 1, 0, 191, 1600000000, 0);
        buffer.addEvent(&event);
        const int32_t rows = 1234;
        const float seconds = 2.5f;
        unsigned relative[3];
        relative[0] = buffer.addArgument(ARG_INT32, &rows, 4) - buffer.argumentsOffset();
        relative[1] = buffer.addArgument(ARG_STRING, "orders", 6) - buffer.argumentsOffset();
        relative[2] = buffer.addArgument(ARG_FLOAT, &seconds, 4) - buffer.argumentsOffset();
        const unsigned char types[] = {ARG_INT32, ARG_STRING, ARG_FLOAT};
        for (unsigned i = 0; i < 3; ++i) {
            event.argumentTypes[i] = types[i];
            event.argumentValues[i] = buffer.blockBase() + buffer.argumentsOffset() + relative[i];
        }
        event.argumentCount = 3;
        renderMessage(&event, original);
    }
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 1u);
    DecodeResult r = decodeStream(blocks[0].data(), blocks[0].size());
    ASSERT_EQ(r.events.size(), 1u);
    LocationRecord decodedSite;
    LoggingEvent replayed;
    toLoggingEvent(r.events[0], decodedSite, replayed);
    std::string text;
    renderMessage(&replayed, text);
    EXPECT_EQ(original, "copied 1234 rows of orders in 2.5 s");
    EXPECT_EQ(text, original);
    EXPECT_EQ(replayed.attributes.level, 191);
    EXPECT_EQ(replayed.attributes.time.tv_sec, 1600000000u);
}

TEST_F(BinaryReaderRoundTrip, DumpFileOfSeveralBlocksDecodes) {
    const LocationRecord site{"%d", "rt.cpp", "dump", 3, 1};
    {
        LogBufferImpl buffer(&thread);
        for (int32_t i = 1; i <= 5; ++i) {
            LoggingEvent event = makeEvent(site, 0x10003, i, 0, 191, 1600000000, 0);
            buffer.addEvent(&event);
            buffer.addArgument(ARG_INT32, &i, 4);
            if (i % 2 == 0) buffer.flush();
        }
    }
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 3u);
    const std::string path = ::testing::TempDir() + "zvlog-reader-test.dmp";
    FILE* file = fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    for (const std::string& block : blocks) fwrite(block.data(), 1, block.size(), file);
    fclose(file);

    DecodeResult r = decodeFile(path.c_str());
    std::remove(path.c_str());
    ASSERT_TRUE(r.ok()) << r.errors[0];
    EXPECT_EQ(r.streams, 3u);
    ASSERT_EQ(r.events.size(), 5u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(r.events[i].arguments.at(0).asInt(), i + 1);

    DecodeResult missing = decodeFile("/nonexistent/zvlog.dmp");
    ASSERT_EQ(missing.errors.size(), 1u);
    EXPECT_EQ(missing.errors[0], "Failed to read '/nonexistent/zvlog.dmp', error 2 - No such file or directory\n");
}

}  // namespace
