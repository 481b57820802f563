// Memory stays flat however many events a process logs: blocks are recycled.
#include <gtest/gtest.h>

#include <string>

#include "support/CaptureAppender.h"
#include "support/ResidentMemory.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvtest::residentKiB;

namespace {

// Counts events without keeping them.
class CountingAppender : public Appender {
public:
    CountingAppender() : Appender("counting") {}
    ~CountingAppender() override { setAsynchronous(false); }
    void append(const void*, unsigned int) override {}
    void append(const LoggingEvent* e) override {
        count += e->argumentCount;
    }
    unsigned long long count = 0;
};

TEST(Memory, TenMillionEventsKeepAFlatResidentSize) {
    Logger* l = Logger::getRepository()->getLogger("memory.flat");
    l->setLevel(LEVEL_INFO);
    l->setAdditivity(false);
    const std::string text(100, 'x');
    for (int i = 0; i < 1000000; ++i) ZVLOG_INFO(l, "warm up %d %s", i, text);
    const long before = residentKiB();
    const unsigned long long allocatedBefore = binary::blocksAllocated();
    for (int i = 0; i < 10000000; ++i) ZVLOG_INFO(l, "event %d %s", i, text);
    const long after = residentKiB();
    // About 1.2 GB of event data went through the buffer.
    EXPECT_GT(binary::totalBytes(), 1000000000ull);
    EXPECT_LT(after - before, 8 * 1024) << "resident KiB before " << before << ", after " << after;
    EXPECT_LE(binary::blocksAllocated() - allocatedBefore, 2u);
}

TEST(Memory, QueuedEventsHoldTheirBlocksUntilDeliveredThenReleaseThem) {
    Logger* l = Logger::getRepository()->getLogger("memory.async");
    l->setLevel(LEVEL_INFO);
    l->setAdditivity(false);
    CountingAppender app;
    app.setAsynchronous(true);
    l->addAppender(app);
    const std::string text(200, 'y');
    for (int i = 0; i < 200000; ++i) ZVLOG_INFO(l, "queued %d %s", i, text);
    const long before = residentKiB();
    for (int i = 0; i < 2000000; ++i) ZVLOG_INFO(l, "queued %d %s", i, text);
    app.setAsynchronous(false);
    const long after = residentKiB();
    EXPECT_EQ(app.count, 2u * 2200000u);
    EXPECT_EQ(app.getEventsIssued(), 2200000u);
    EXPECT_LT(after - before, 64 * 1024) << "resident KiB before " << before << ", after " << after;
    // Everything delivered: the pool holds the blocks again, bounded.
    EXPECT_LE(binary::blocksPooled(), 64u);
    l->removeAllAppenders();
}

}  // namespace
