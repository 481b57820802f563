// The per-thread event buffer: exact bytes of what it writes, block changes,
// argument limits, misordered calls and block recycling.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/BufferTestSupport.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/Logger.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvlog/msg/RaiseMessage.h"

using namespace zvs::zvlib::zvlog;
using namespace zvtest;

namespace {

unsigned short loggerIndex(const char* name) { return Logger::getRepository()->getLogger(name)->getIndex(); }

const char kFormat[] = "copied %d rows of %s";
const char kModule[] = "src/copy.cpp";
const char kMethod[] = "copyRows";
const LocationRecord kCopySite{kFormat, kModule, kMethod, 42, 2};
constexpr unsigned kCopyKey = 0x0001002A;
constexpr uint32_t kSeconds = 1700000000;

// One event of the copy site: an int and a text.
void logCopy(LogBufferImpl& buffer, unsigned sequence, unsigned short logger, unsigned char level,
             uint32_t microseconds, int32_t rows, const std::string& table) {
    LoggingEvent event = makeEvent(kCopySite, kCopyKey, sequence, logger, level, kSeconds, microseconds);
    ASSERT_EQ(buffer.addEvent(&event), 2);
    buffer.addArgument(ARG_INT32, &rows, 4);
    buffer.addArgument(ARG_STRING, table.data(), static_cast<unsigned>(table.size()));
}

// The bytes the buffer wrote from `offset` on.
std::string writtenSince(const LogBufferImpl& buffer, unsigned offset) {
    return std::string(reinterpret_cast<const char*>(buffer.blockBase()) + offset, buffer.writeOffset() - offset);
}

// A closed block decoded; it must decode without an error.
DecodeResult decoded(const std::string& block) {
    DecodeResult r = decodeStream(block.data(), block.size());
    EXPECT_TRUE(r.ok()) << r.errors[0];
    EXPECT_EQ(r.consumed, block.size());
    return r;
}

class LogBufferTest : public ::testing::Test {
protected:
    LogBufferTest() {
        thread.number = 7;
        thread.osThreadId = 4242;
        thread.name = "worker";
    }

    ThreadRecord thread;
    BlockCapture capture;
};

std::string threadToken() { return "b" + le32(7) + le64(4242) + std::string("worker", 7); }

std::string copySiteDefinition(unsigned sequence) {
    return "a" + le32(kCopyKey) + le32(sequence) + le16(2) + "s" + std::string(kFormat, sizeof kFormat) + "s" +
           std::string(kModule, sizeof kModule) + "s" + std::string(kMethod, sizeof kMethod);
}

std::string copyArguments(int32_t rows, const std::string& table) {
    return "j" + le32(static_cast<uint32_t>(rows)) + "s" + table + std::string(1, '\0');
}

TEST_F(LogBufferTest, SmallBlockHasExactBytes) {
    const unsigned short db = loggerIndex("app.db");
    const unsigned long long eventsBefore = binary::totalEvents();
    const unsigned long long bytesBefore = binary::totalBytes();
    {
        LogBufferImpl buffer(&thread);
        LoggingEvent event = makeEvent(kCopySite, kCopyKey, 5, db, LEVEL_INFO, kSeconds, 250);
        ASSERT_EQ(buffer.addEvent(&event), 2);
        const unsigned eventStart = buffer.eventOffset();
        const int32_t rows = 1234;
        const unsigned rowsAt = buffer.addArgument(ARG_INT32, &rows, 4);
        const unsigned tableAt = buffer.addArgument(ARG_STRING, "orders", 6);
        // Positions are offsets from the block base, head included.
        int32_t readBack;
        std::memcpy(&readBack, buffer.blockBase() + rowsAt, 4);
        EXPECT_EQ(readBack, 1234);
        EXPECT_STREQ(reinterpret_cast<const char*>(buffer.blockBase() + tableAt), "orders");
        EXPECT_EQ(buffer.blockBase()[rowsAt - 1], 'j');

        event.setBufferLocation(&buffer);
        EXPECT_EQ(event.bufferBase, buffer.blockBase());
        EXPECT_EQ(event.bufferOffset, eventStart);
        EXPECT_EQ(event.bufferOffset + event.bufferLength, buffer.writeOffset());
        buffer.flush();
        EXPECT_EQ(buffer.remaining(), 0u);
    }
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 1u);
    const std::string expected = streamHeader() + threadToken() + copySiteDefinition(5) + "d" + le16(db) + "c" +
                                 "\xbf" + std::string("INFO", 5) + std::string("app.db", 7) + "e" +
                                 le64((uint64_t{kSeconds} << 32) | 250) + copyArguments(1234, "orders") + ">";
    EXPECT_EQ(hex(blocks[0]), hex(expected));
    EXPECT_EQ(binary::totalEvents() - eventsBefore, 1u);
    EXPECT_EQ(binary::totalBytes() - bytesBefore, expected.size());
}

// Unchanged logger, category and time are not repeated; a change writes a
// use of what the block already defined, or a definition.
TEST_F(LogBufferTest, RepeatsOnlyWhatChanged) {
    const unsigned short db = loggerIndex("app.db");
    const unsigned short net = loggerIndex("app.net");
    LogBufferImpl buffer(&thread);
    logCopy(buffer, 1, db, LEVEL_INFO, 10, 1, "a");
    const unsigned afterFirst = buffer.writeOffset();
    logCopy(buffer, 2, db, LEVEL_INFO, 10, 2, "b");
    logCopy(buffer, 3, net, LEVEL_WARN, 11, 3, "c");
    logCopy(buffer, 4, db, LEVEL_INFO, 11, 4, "d");
    logCopy(buffer, 5, db, LEVEL_WARN, 11, 5, "e");
    const std::string tail = writtenSince(buffer, afterFirst);
    const std::string expected =
        "A" + le32(kCopyKey) + le32(2) + copyArguments(2, "b") +                                       //
        "A" + le32(kCopyKey) + le32(3) + "d" + le16(net) + "c\xdf" + std::string("WARN", 5) +          //
        std::string("app.net", 8) + "e" + le64((uint64_t{kSeconds} << 32) | 11) + copyArguments(3, "c") +  //
        "A" + le32(kCopyKey) + le32(4) + "D" + le16(db) + "C\xbf" + copyArguments(4, "d") +            //
        "A" + le32(kCopyKey) + le32(5) + "C\xdf" + copyArguments(5, "e");
    EXPECT_EQ(hex(tail), hex(expected));
}

// Strings are interned by address: one module pointer shared by two sites
// is defined once; an equal text at another address is defined again.
TEST_F(LogBufferTest, SiteStringsAreKeyedByAddress) {
    static const char otherFormat[] = "other";
    static const char sameTextElsewhere[] = "src/copy.cpp";
    const LocationRecord sharedModule{otherFormat, kModule, kMethod, 50, 0};
    const LocationRecord copiedModule{otherFormat, sameTextElsewhere, kMethod, 60, 0};
    const unsigned short db = loggerIndex("app.db");
    LogBufferImpl buffer(&thread);
    logCopy(buffer, 1, db, LEVEL_INFO, 0, 1, "x");
    unsigned start = buffer.writeOffset();
    LoggingEvent e2 = makeEvent(sharedModule, 0x10032, 2, db, LEVEL_INFO, kSeconds, 0);
    EXPECT_EQ(buffer.addEvent(&e2), 0);
    // Strings 0..2 are the copy site's; "other" becomes 3.
    EXPECT_EQ(hex(writtenSince(buffer, start)), hex("a" + le32(0x10032) + le32(2) + le16(0) + "s" + std::string("other", 6) + "S" +
                                le16(1) + "S" + le16(2)));
    start = buffer.writeOffset();
    LoggingEvent e3 = makeEvent(copiedModule, 0x1003C, 3, db, LEVEL_INFO, kSeconds, 0);
    buffer.addEvent(&e3);
    EXPECT_EQ(hex(writtenSince(buffer, start)), hex("a" + le32(0x1003C) + le32(3) + le16(0) + "S" + le16(3) + "s" +
                                std::string(kModule, sizeof kModule) + "S" + le16(2)));
}

TEST_F(LogBufferTest, SameSiteIsDescribedAgainInEveryBlock) {
    const unsigned short db = loggerIndex("app.db");
    LogBufferImpl buffer(&thread);
    logCopy(buffer, 1, db, LEVEL_INFO, 0, 1, "one");
    logCopy(buffer, 2, db, LEVEL_INFO, 0, 2, "two");
    buffer.flush();
    logCopy(buffer, 3, db, LEVEL_INFO, 0, 3, "three");
    buffer.flush();
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 2u);
    const std::string prefix = streamHeader() + threadToken();
    EXPECT_EQ(blocks[0].substr(0, prefix.size() + copySiteDefinition(1).size()), prefix + copySiteDefinition(1));
    EXPECT_NE(blocks[0].find("A" + le32(kCopyKey) + le32(2) + copyArguments(2, "two") + ">"), std::string::npos);
    EXPECT_EQ(blocks[1].substr(0, prefix.size() + copySiteDefinition(3).size()), prefix + copySiteDefinition(3));
    decoded(blocks[0]);
    EXPECT_EQ(decoded(blocks[1]).events.at(0).loggerName, "app.db");
}

TEST_F(LogBufferTest, OversizedArgumentsAreCut) {
    const LocationRecord site{"%s %S %r %s", kModule, kMethod, 90, 4};
    const std::string text(70000, 'x');
    const std::u16string wide(35000, u'w');  // 70000 bytes
    const std::string exact(65535, 'y');     // fits with its terminator
    LogBufferImpl buffer(&thread);
    LoggingEvent event = makeEvent(site, 0x1005A, 1, 0, LEVEL_INFO, kSeconds, 0);
    buffer.addEvent(&event);
    const unsigned textAt = buffer.addArgument(ARG_STRING, text.data(), 70000);
    EXPECT_EQ(buffer.writeOffset() - textAt, 65536u);
    const unsigned wideAt = buffer.addArgument(ARG_WSTRING, wide.data(), 70000);
    EXPECT_EQ(buffer.writeOffset() - wideAt, 65536u);
    const unsigned rawAt = buffer.addArgument(ARG_RAW, text.data(), 70000);
    uint32_t rawLength;
    std::memcpy(&rawLength, buffer.blockBase() + rawAt, 4);
    EXPECT_EQ(rawLength, 65536u);
    buffer.addArgument(ARG_STRING, exact.data(), 65535);
    buffer.flush();

    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 1u);
    const DecodeResult r = decoded(blocks[0]);
    ASSERT_EQ(r.events.size(), 1u);
    const auto& args = r.events[0].arguments;
    ASSERT_EQ(args.size(), 4u);
    EXPECT_EQ(args[0].bytes(), text.substr(0, 65535));
    EXPECT_EQ(args[1].bytes().size(), 65534u);
    EXPECT_EQ(args[2].bytes().size(), 65536u);
    EXPECT_EQ(args[3].bytes(), exact);
}

// A block fills up with events of large arguments; the event whose second
// argument crosses the end moves whole into the next block.
TEST_F(LogBufferTest, EventsNeverStraddleBlocks) {
    const unsigned short db = loggerIndex("app.db");
    constexpr int kEvents = 40;
    auto tableOf = [](int i) { return std::string(60000 + i, static_cast<char>('A' + i % 26)); };
    unsigned moves = 0;
    {
        LogBufferImpl buffer(&thread);
        for (int i = 1; i <= kEvents; ++i) {
            LoggingEvent event = makeEvent(kCopySite, kCopyKey, i, db, LEVEL_INFO, kSeconds, i / 8);
            buffer.addEvent(&event);
            const unsigned char* blockBefore = buffer.blockBase();
            const int32_t rows = i;
            const unsigned rowsRelative = buffer.addArgument(ARG_INT32, &rows, 4) - buffer.argumentsOffset();
            const std::string table = tableOf(i);
            buffer.addArgument(ARG_STRING, table.data(), static_cast<unsigned>(table.size()));
            if (buffer.blockBase() != blockBefore) {
                ++moves;
                // The first argument travelled with its event.
                int32_t moved;
                std::memcpy(&moved, buffer.blockBase() + buffer.argumentsOffset() + rowsRelative, 4);
                EXPECT_EQ(moved, i);
                EXPECT_EQ(buffer.eventOffset(), 16u + 16u + threadToken().size());
            }
        }
    }
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(moves, 2u);
    int next = 1;
    for (const std::string& block : blocks) {
        EXPECT_EQ(block.back(), '>');
        const DecodeResult r = decoded(block);
        ASSERT_FALSE(r.events.empty());
        EXPECT_EQ(block[16 + threadToken().size()], 'a');
        for (const DecodedEvent& e : r.events) {
            EXPECT_EQ(e.eventWord, static_cast<uint32_t>(next));
            EXPECT_EQ(e.format, kFormat);
            EXPECT_EQ(e.loggerName, "app.db");
            EXPECT_EQ(e.contextWord, (uint64_t{kSeconds} << 32) | static_cast<unsigned>(next / 8));
            ASSERT_EQ(e.arguments.size(), 2u);
            EXPECT_EQ(e.arguments[0].asInt(), next);
            EXPECT_EQ(e.arguments[1].bytes(), tableOf(next));
            ++next;
        }
    }
    EXPECT_EQ(next, kEvents + 1);
}

// Sixteen arguments at their limit outgrow a block: the event still moves
// whole into a fresh block, and its last argument keeps what fits there.
TEST_F(LogBufferTest, EventLargerThanABlockIsCutNotSplit) {
    const LocationRecord site{"%r x16", kModule, kMethod, 100, 16};
    std::string raw(70000, '\0');
    for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<char>(i * 7);
    {
        LogBufferImpl buffer(&thread);
        logCopy(buffer, 1, 0, LEVEL_INFO, 0, 1, "before");
        LoggingEvent event = makeEvent(site, 0x10064, 2, 0, LEVEL_INFO, kSeconds, 0);
        ASSERT_EQ(buffer.addEvent(&event), 16);
        for (int i = 0; i < 16; ++i) buffer.addArgument(ARG_RAW, raw.data(), 70000);
        logCopy(buffer, 3, 0, LEVEL_INFO, 0, 3, "after");
    }
    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 3u);
    std::vector<unsigned> words;
    for (const std::string& block : blocks)
        for (const DecodedEvent& e : decoded(block).events) words.push_back(e.eventWord);
    EXPECT_EQ(words, (std::vector<unsigned>{1, 2, 3}));
    const DecodeResult big = decoded(blocks[1]);
    const auto& args = big.events.at(0).arguments;
    ASSERT_EQ(args.size(), 16u);
    for (int i = 0; i < 15; ++i) EXPECT_EQ(args[i].bytes(), raw.substr(0, 65536));
    EXPECT_GT(args[15].bytes().size(), 1000u);
    EXPECT_LT(args[15].bytes().size(), 65536u);
    EXPECT_EQ(args[15].bytes(), raw.substr(0, args[15].bytes().size()));
    EXPECT_EQ(blocks[1].size(), binary::kStreamCapacity - 5);
}

TEST_F(LogBufferTest, ArgumentsBeyondTheDeclaredCountChangeNothing) {
    LogBufferImpl buffer(&thread);
    logCopy(buffer, 1, 0, LEVEL_INFO, 0, 1, "t");
    const unsigned end = buffer.writeOffset();
    const std::string before(reinterpret_cast<const char*>(buffer.blockBase()), end + 8);
    const int32_t extra = 99;
    EXPECT_EQ(buffer.addArgument(ARG_INT32, &extra, 4), end);
    EXPECT_EQ(buffer.addArgument(ARG_STRING, "more", 4), end);
    EXPECT_EQ(buffer.writeOffset(), end);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.blockBase()), end + 8), before);
}

TEST_F(LogBufferTest, NewEventWhileArgumentsAreExpectedRaises1112) {
    const unsigned long long before = detail::raisedMessageCount(1112);
    LogBufferImpl buffer(&thread);
    LoggingEvent first = makeEvent(kCopySite, kCopyKey, 1, 0, LEVEL_INFO, kSeconds, 0);
    buffer.addEvent(&first);
    const int32_t rows = 5;
    buffer.addArgument(ARG_INT32, &rows, 4);
    logCopy(buffer, 2, 0, LEVEL_INFO, 0, 6, "second");
    EXPECT_EQ(detail::raisedMessageCount(1112) - before, 1u);
    logCopy(buffer, 3, 0, LEVEL_INFO, 0, 7, "third");  // complete: no further message
    EXPECT_EQ(detail::raisedMessageCount(1112) - before, 1u);
    buffer.flush();

    const std::vector<std::string> blocks = capture.blocks();
    ASSERT_EQ(blocks.size(), 1u);
    const DecodeResult r = decoded(blocks[0]);
    ASSERT_EQ(r.events.size(), 3u);
    EXPECT_EQ(r.events[0].arguments.size(), 1u);
    EXPECT_EQ(r.events[1].arguments.size(), 2u);
    EXPECT_EQ(r.events[1].arguments[1].toString(), "second");
}

TEST_F(LogBufferTest, FlushAndDestructionCloseOnlyBlocksWithEvents) {
    {
        LogBufferImpl buffer(&thread);
        buffer.flush();
        EXPECT_EQ(buffer.remaining(), 0u);
    }
    EXPECT_TRUE(capture.blocks().empty());
    {
        LogBufferImpl buffer(&thread);
        logCopy(buffer, 1, 0, LEVEL_INFO, 0, 1, "x");
        EXPECT_GT(buffer.remaining(), 1000000u);
    }
    EXPECT_EQ(capture.blocks().size(), 1u);
}

unsigned closedBlocks = 0;
void countingHook(const unsigned char*, uint32_t, uint32_t) { ++closedBlocks; }

// Closed blocks go back to the pool once the recent list lets go of them,
// so logging many blocks' worth allocates nothing after warm-up.
TEST_F(LogBufferTest, BlocksAreRecycled) {
    const std::string big(60000, 'r');
    binary::setRawDeliveryHook(&countingHook);
    LogBufferImpl buffer(&thread);
    auto logBlocks = [&](int count) {
        for (int i = 0; i < count * 17; ++i) logCopy(buffer, i, 0, LEVEL_INFO, 0, i, big);
    };
    logBlocks(2 * binary::kRecentBlocks);
    const unsigned long long allocated = binary::blocksAllocated();
    const unsigned closedBefore = closedBlocks;
    logBlocks(100);
    EXPECT_GE(closedBlocks - closedBefore, 95u);
    EXPECT_EQ(binary::blocksAllocated(), allocated);
    EXPECT_LE(binary::blocksPooled(), 16u);

    unsigned recent = 0;
    binary::forEachRecentBlock([&](const unsigned char* stream, uint32_t length) {
        ++recent;
        EXPECT_EQ(stream[0], '<');
        EXPECT_EQ(stream[length - 1], '>');
    });
    EXPECT_EQ(recent, binary::kRecentBlocks);
}

// The buffer's lock is not recursive: an event begun from inside an event
// of the same buffer (here through the delivery of the block that the outer
// event closed) is a fatal error.
LogBufferImpl* reentered = nullptr;
void reenteringHook(const unsigned char*, uint32_t, uint32_t) {
    LoggingEvent event = makeEvent(kCopySite, kCopyKey, 1, 0, LEVEL_INFO, kSeconds, 0);
    reentered->addEvent(&event);
}

void fillThenOverflowHeader(const ThreadRecord& thread) {
    const std::string big(60000, 'r');
    const std::string hugeFormat(70000, 'f');
    const LocationRecord hugeSite{hugeFormat.c_str(), kModule, kMethod, 7, 0};
    LogBufferImpl buffer(&thread);
    reentered = &buffer;
    binary::setRawDeliveryHook(&reenteringHook);
    while (buffer.remaining() == 0 || buffer.remaining() > 65000) logCopy(buffer, 1, 0, LEVEL_INFO, 0, 1, big);
    // Its header does not fit: addEvent closes the block itself.
    LoggingEvent event = makeEvent(hugeSite, 0x70007, 2, 0, LEVEL_INFO, kSeconds, 0);
    buffer.addEvent(&event);
    std::exit(0);
}

TEST_F(LogBufferTest, ReenteringTheBufferIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(fillThenOverflowHeader(thread), ::testing::ExitedWithCode(1), "Fatal system error 36");
}

}  // namespace
