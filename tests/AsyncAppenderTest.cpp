// Asynchronous delivery: what a queued copy keeps of an event, block
// references, batches, wake-ups, and floods across many buffer blocks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/EventBuilder.h"
#include "support/ResidentMemory.h"
#include "support/Sanitizer.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::residentKiB;
using zvtest::EventBuilder;

namespace {

uint32_t references(const unsigned char* block) { return binary::headOf(block)->refCount->load(); }

// Keeps every event it receives as it arrived, with its rendered message.
class KeepingAppender : public Appender {
public:
    struct Kept {
        LoggingEvent event;
        std::string message;
    };
    explicit KeepingAppender(const char* name) : Appender(name) {}
    ~KeepingAppender() override { setAsynchronous(false); }
    void append(const void*, unsigned int) override {}
    void append(const LoggingEvent* e) override {
        Kept k{*e, {}};
        renderMessage(e, k.message);
        std::unique_lock<std::mutex> lock(m_);
        kept_.push_back(std::move(k));
        arrived_.notify_all();
        arrived_.wait(lock, [&] { return !holding_; });
    }
    // While held, append returns only when let go.
    void hold() {
        std::lock_guard<std::mutex> lock(m_);
        holding_ = true;
    }
    void letGo() {
        std::lock_guard<std::mutex> lock(m_);
        holding_ = false;
        arrived_.notify_all();
    }
    bool waitFor(size_t count) {
        std::unique_lock<std::mutex> lock(m_);
        return arrived_.wait_for(lock, std::chrono::seconds(10), [&] { return kept_.size() >= count; });
    }
    std::vector<Kept> kept() {
        std::lock_guard<std::mutex> lock(m_);
        return kept_;
    }

private:
    std::mutex m_;
    std::condition_variable arrived_;
    std::vector<Kept> kept_;
    bool holding_ = false;
};

// The bytes of the event's arguments: from the first argument to the end of
// the last one, lastSize bytes long.
size_t argumentSpan(const LoggingEvent& e, size_t lastSize) {
    return static_cast<size_t>(static_cast<const unsigned char*>(e.argumentValues[e.argumentCount - 1]) -
                               static_cast<const unsigned char*>(e.argumentValues[0])) +
           lastSize;
}

// The event with its argument bytes copied into the block at offset.
LoggingEvent placedInBlock(const LoggingEvent& source, unsigned char* block, uint32_t offset, size_t lastSize) {
    const auto* first = static_cast<const unsigned char*>(source.argumentValues[0]);
    const auto* end = first + argumentSpan(source, lastSize);
    std::memcpy(block + offset, first, static_cast<size_t>(end - first));
    LoggingEvent e = source;
    for (unsigned i = 0; i < e.argumentCount; ++i)
        e.argumentValues[i] = block + offset + (static_cast<const unsigned char*>(source.argumentValues[i]) - first);
    e.bufferBase = block;
    e.bufferOffset = offset;
    e.bufferLength = static_cast<uint32_t>(end - first);
    return e;
}

void expectSameEvent(const LoggingEvent& got, const LoggingEvent& sent) {
    EXPECT_EQ(got.attributes.location, sent.attributes.location);
    EXPECT_EQ(got.attributes.time.tv_sec, sent.attributes.time.tv_sec);
    EXPECT_EQ(got.attributes.time.tv_usec, sent.attributes.time.tv_usec);
    EXPECT_EQ(got.attributes.sequence, sent.attributes.sequence);
    EXPECT_EQ(got.attributes.threadNumber, sent.attributes.threadNumber);
    EXPECT_EQ(got.attributes.loggerIndex, sent.attributes.loggerIndex);
    EXPECT_EQ(got.attributes.level, sent.attributes.level);
    EXPECT_EQ(got.attributes.locationKey, sent.attributes.locationKey);
    EXPECT_EQ(got.bufferBase, sent.bufferBase);
    EXPECT_EQ(got.bufferOffset, sent.bufferOffset);
    EXPECT_EQ(got.bufferLength, sent.bufferLength);
    ASSERT_EQ(got.argumentCount, sent.argumentCount);
    for (unsigned i = 0; i < sent.argumentCount; ++i) {
        EXPECT_EQ(got.argumentTypes[i], sent.argumentTypes[i]) << i;
        EXPECT_EQ(got.argumentValues[i], sent.argumentValues[i]) << i;
    }
}

TEST(AsyncQueue, CopiesKeepEveryFieldWhereverTheArgumentsLie) {
    EventBuilder all("%d %u %d %u %lld %llu %f %p [%s] %s %d %s");
    all.i16(-12)
        .u16(65000)
        .i32(-7000000)
        .u32(4000000000u)
        .i64(-9000000000LL)
        .u64(18000000000000000000ULL)
        .f32(2.5f)
        .pointer(0xBEEF)
        .str("text")
        .wstr(u"wide")
        .timeArg(1700000000, 5)
        .raw("\x01\x02", 2);
    all.level(LEVEL_WARN).logger(3).time(1234, 56789).sequence(4242);
    const std::string allText = zvtest::rendered(all.event());

    EventBuilder sixteen("%d %d %d %d %d %d %d %d %d %d %d %d %d %d %d %d");
    for (int i = 0; i < 16; ++i) sixteen.i32(i * 1000 - 3);
    EventBuilder none("no arguments");

    unsigned char* block = binary::acquireBlock();
    // Ending at the block's last byte; and at its start, right after the head.
    const size_t span = argumentSpan(all.event(), 4 + 2);
    const LoggingEvent allInBlock =
        placedInBlock(all.event(), block, static_cast<uint32_t>(binary::kBlockSize - span), 4 + 2);
    const LoggingEvent sixteenInBlock = placedInBlock(sixteen.event(), block, binary::kBlockHeadSize, 4);
    // The block is named but the arguments lie elsewhere.
    LoggingEvent allOutside = all.event();
    allOutside.bufferBase = block;
    allOutside.bufferOffset = 99;

    const std::vector<const LoggingEvent*> sent = {&all.event(), &allInBlock,    &none.event(),
                                                   &allOutside,  &sixteenInBlock, &sixteen.event()};
    {
        KeepingAppender app("async-fields");
        app.setAsynchronous(true);
        for (const LoggingEvent* e : sent) app.deliver(e);
        app.setAsynchronous(false);
        EXPECT_EQ(app.getEventsIssued(), sent.size());
        const auto kept = app.kept();
        ASSERT_EQ(kept.size(), sent.size());
        for (size_t i = 0; i < sent.size(); ++i) {
            SCOPED_TRACE(i);
            expectSameEvent(kept[i].event, *sent[i]);
        }
        EXPECT_NE(allText.find("-12 65000 -7000000 4000000000 -9000000000 18000000000000000000 "), std::string::npos)
            << allText;
        EXPECT_EQ(kept[0].message, allText);
        EXPECT_EQ(kept[1].message, allText);
        EXPECT_EQ(kept[2].message, "no arguments");
        EXPECT_EQ(kept[3].message, allText);
        EXPECT_EQ(kept[4].message, "-3 997 1997 2997 3997 4997 5997 6997 7997 8997 9997 10997 11997 12997 13997 14997");
        EXPECT_EQ(kept[5].message, kept[4].message);
    }
    EXPECT_EQ(references(block), 1u);  // every run's reference came back
    binary::releaseBlock(block);
}

TEST(AsyncQueue, HighWaterMarkIsTheLargestBatch) {
    EventBuilder b("event %d");
    KeepingAppender app("async-batch");
    app.setAsynchronous(true);
    app.hold();
    b.i32(0);
    app.deliver(b.get());
    EXPECT_TRUE(app.waitFor(1));  // the first batch is in append, held
    std::vector<std::unique_ptr<EventBuilder>> builders;
    for (int i = 1; i <= 500; ++i) {
        builders.push_back(std::make_unique<EventBuilder>("event %d"));
        builders.back()->i32(i);
        app.deliver(builders.back()->get());
    }
    app.letGo();
    app.setAsynchronous(false);
    EXPECT_EQ(app.getHighWaterMark(), 500u);
    EXPECT_EQ(app.getEventsIssued(), 501u);
    const auto kept = app.kept();
    ASSERT_EQ(kept.size(), 501u);
    for (int i = 0; i <= 500; ++i) EXPECT_EQ(kept[i].message, "event " + std::to_string(i));
}

TEST(AsyncQueue, EveryFirstEventWakesTheDeliveryThreadWhetherItSpinsOrSleeps) {
    Logger* l = Logger::getRepository()->getLogger("async.wake");
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    KeepingAppender app("async-wake");
    app.setAsynchronous(true);
    l->addAppender(app);
    const int pauses[] = {0, 0, 30, 200, 3000};  // microseconds
    for (int i = 0; i < 200; ++i) {
        ZVLOG_INFO(l, "single %d", i);
        if (!app.waitFor(static_cast<size_t>(i) + 1)) {
            ADD_FAILURE() << "event " << i << " not delivered";
            break;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(pauses[i % 5]));
    }
    l->removeAllAppenders();
    app.setAsynchronous(false);
    const auto kept = app.kept();
    ASSERT_EQ(kept.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(kept[i].message, "single " + std::to_string(i));
}

// Checks each thread's events as they arrive: their exact texts and order.
class CheckingAppender : public Appender {
public:
    CheckingAppender() : Appender("async-flood") {}
    ~CheckingAppender() override { setAsynchronous(false); }
    void append(const void*, unsigned int) override {}
    void append(const LoggingEvent* e) override {
        message_.clear();
        renderMessage(e, message_);
        if (e->bufferBase != lastBlock) ++runs;
        lastBlock = e->bufferBase;
        const size_t space = message_.find(' ');
        const std::string who = message_.substr(0, space);
        int& next = next_[who];
        const std::string expected = who + " " + std::to_string(next) + " " + textOf(next);
        if (message_ != expected && errors++ == 0) firstError = message_ + " / expected " + expected;
        ++next;
    }
    static std::string textOf(int i) { return std::string(40 + i % 97, static_cast<char>('a' + i % 26)); }
    int count(const std::string& who) { return next_[who]; }
    void restart() {
        next_.clear();
        runs = 0;
    }

    long runs = 0;  // changes of block from one event to the next
    const unsigned char* lastBlock = nullptr;
    long errors = 0;
    std::string firstError;

private:
    std::map<std::string, int> next_;
    std::string message_;
};

TEST(AsyncQueue, FloodsAcrossManyBlocksFromTwoThreadsKeepOrderAndGiveBackTheirMemory) {
    Logger* l = Logger::getRepository()->getLogger("async.flood");
    l->setLevel(LEVEL_ALL);
    l->setAdditivity(false);
    CheckingAppender app;
    l->addAppender(app);
    constexpr int kPerThread = 150000;  // about 30 MB of buffer blocks per round
    long residentAfterFirst = 0;
    for (int round = 0; round < 3; ++round) {
        app.restart();
        app.setAsynchronous(true);
        auto producer = [&](const char* who) {
            for (int i = 0; i < kPerThread; ++i) ZVLOG_INFO(l, "%s %d %s", who, i, CheckingAppender::textOf(i));
            Appender::flushOutput();
        };
        std::thread t1(producer, "alpha"), t2(producer, "beta");
        t1.join();
        t2.join();
        app.setAsynchronous(false);
        EXPECT_EQ(app.errors, 0) << app.firstError;
        EXPECT_EQ(app.count("alpha"), kPerThread);
        EXPECT_EQ(app.count("beta"), kPerThread);
        EXPECT_GE(app.runs, 30);
        EXPECT_EQ(app.getEventsIssued(), (round + 1) * 2ull * kPerThread);
        if (round == 0) residentAfterFirst = residentKiB();
    }
    // Blocks held by queued events and the queue's own memory went back.
    const long residentAfterLast = residentKiB();
    if (zvtest::kResidentSizeMeaningful)
        EXPECT_LT(residentAfterLast - residentAfterFirst, 16 * 1024)
            << "resident KiB after the first round " << residentAfterFirst << ", after the last " << residentAfterLast;
    else
        zvtest::noteLeftOut("the resident-size check", "the sanitizer's own memory changes the resident size");
    l->removeAllAppenders();
}

// Counts events and checks where their arguments lie; appends may overlap
// while a switch-off hands over from the delivery thread.
class PlaceCheckingAppender : public Appender {
public:
    explicit PlaceCheckingAppender(std::vector<const LoggingEvent*> expected)
        : Appender("async-switch"), expected_(std::move(expected)) {}
    ~PlaceCheckingAppender() override { setAsynchronous(false); }
    void append(const void*, unsigned int) override {}
    void append(const LoggingEvent* e) override {
        bool known = false;
        for (const LoggingEvent* x : expected_)
            known |= e->bufferBase == x->bufferBase && e->argumentValues[0] == x->argumentValues[0] &&
                     e->argumentValues[1] == x->argumentValues[1] && e->argumentCount == 2;
        (known ? count : wrong).fetch_add(1);
    }
    std::atomic<long> count{0};
    std::atomic<long> wrong{0};

private:
    std::vector<const LoggingEvent*> expected_;
};

TEST(AsyncQueue, SwitchingOffWhileThreadsDeliverKeepsBlockReferencesBalanced) {
    unsigned char* blocks[2] = {binary::acquireBlock(), binary::acquireBlock()};
    EventBuilder source("%s %d");
    source.str("from a block").i32(77);
    const LoggingEvent inBlock[2] = {placedInBlock(source.event(), blocks[0], 5000, 4),
                                     placedInBlock(source.event(), blocks[1], 70000, 4)};
    const LoggingEvent* unplaced = source.get();
    {
        PlaceCheckingAppender app({&inBlock[0], &inBlock[1], unplaced});
        std::atomic<bool> done{false};
        std::atomic<long> delivered{0};
        auto producer = [&](int id, long atLeast) {
            // Runs of one, two and three events from each block, and events from no block.
            const LoggingEvent* pattern[7] = {&inBlock[0], &inBlock[0], &inBlock[1], &inBlock[1],
                                              &inBlock[1], unplaced,    &inBlock[0]};
            long i = 0;
            for (; i < atLeast || !done.load(); ++i) app.deliver(pattern[(i + id) % 7]);
            delivered.fetch_add(i);
        };
        std::thread t1(producer, 0, 1000), t2(producer, 3, 1000);
        for (int i = 0; i < 50; ++i) {
            app.setAsynchronous(true);
            std::this_thread::sleep_for(std::chrono::microseconds(50 + 50 * (i % 5)));
            app.setAsynchronous(false);
        }
        done = true;
        t1.join();
        t2.join();
        EXPECT_EQ(app.wrong.load(), 0);
        EXPECT_LE(app.count.load(), delivered.load());
        EXPECT_GE(app.count.load(), 2000);
        // Once more, with events left queued for the destructor.
        app.setAsynchronous(true);
        std::thread t3(producer, 1, 100000);
        t3.join();
    }
    // Delivered, discarded at switch-off or still queued at destruction:
    // each run gave its reference back.
    EXPECT_EQ(references(blocks[0]), 1u);
    EXPECT_EQ(references(blocks[1]), 1u);
    binary::releaseBlock(blocks[0]);
    binary::releaseBlock(blocks[1]);
}

}  // namespace
