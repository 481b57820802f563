// Event-buffer blocks: 1 MiB each, reference counted, recycled through a
// process-wide pool, and kept in a bounded list of recent closed blocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "zvlog/Export.h"
#include "zvlog/buffer/BinaryFormat.h"

namespace zvs::zvlib::zvlog::binary {

// The 16-byte head at the start of every block.
struct BlockHead {
    std::atomic<uint32_t>* refCount;
    uint32_t dataLength;  // bytes of stream after the head, set at close
    uint32_t eventCount;
};
static_assert(sizeof(BlockHead) == kBlockHeadSize);

inline BlockHead* headOf(const unsigned char* block) {
    return reinterpret_cast<BlockHead*>(const_cast<unsigned char*>(block));
}
inline unsigned char* streamOf(unsigned char* block) { return block + kBlockHeadSize; }

// A block with one reference (the caller's), from the pool or newly allocated.
ZVLOG_API unsigned char* acquireBlock();
ZVLOG_API void retainBlock(const unsigned char* block);
// Drops one reference; the last one returns the block to the pool.
ZVLOG_API void releaseBlock(const unsigned char* block);

// Called by a buffer when it closes a block (its ">" written and its data
// length stored): adds the block to the process totals, hands its stream to
// the raw-delivery hook, keeps it among the recent blocks and drops the
// buffer's reference.
ZVLOG_API void blockClosed(unsigned char* block);

// Receives every closed block's stream (set by the logging core).
using RawDeliveryHook = void (*)(const unsigned char* stream, uint32_t length, uint32_t eventCount);
ZVLOG_API void setRawDeliveryHook(RawDeliveryHook hook);

ZVLOG_API unsigned long long totalEvents();
ZVLOG_API unsigned long long totalBytes();

// Visits the streams of the recent closed blocks, oldest first.
ZVLOG_API void forEachRecentBlock(const std::function<void(const unsigned char* stream, uint32_t length)>& visit);

// Visits the blocks of the free pool that still hold a closed stream with
// events (blocks recycled after leaving the recent list), holding the pool
// so that none is reused meanwhile.
ZVLOG_API void forEachPooledBlock(const std::function<void(const unsigned char* stream, uint32_t length)>& visit);

// Statistics for tests: blocks ever allocated, blocks in the pool now.
ZVLOG_API unsigned long long blocksAllocated();
ZVLOG_API unsigned long long blocksPooled();

// How many closed blocks are kept for dumps.
constexpr unsigned kRecentBlocks = 4;

// For a dump written by a signal handler: visits the pooled blocks, then the
// recent ones oldest first, as the two functions above do, without
// allocating and without waiting on a lock for long. Each of the store's two
// locks is tried for up to `waitMs`; a lock still held after that (by a
// thread stuck while closing a block, or by the crashing thread itself) is
// passed by and its part read as it stands. Either way only streams that
// look whole (header, length, final ">") are visited.
using CrashStreamVisitor = void (*)(void* context, const unsigned char* stream, uint32_t length);
ZVLOG_API void visitBlocksAtCrash(unsigned waitMs, CrashStreamVisitor visit, void* context);

// Holds both locks of the block store while it lives, as a thread closing a
// block or dumping holds one of them: for tests of what a crash dump does
// meanwhile. Every other thread that closes or recycles a block waits.
class ZVLOG_API BlockStoreHold {
public:
    BlockStoreHold();
    ~BlockStoreHold();
    BlockStoreHold(const BlockStoreHold&) = delete;
    BlockStoreHold& operator=(const BlockStoreHold&) = delete;
};

}  // namespace zvs::zvlib::zvlog::binary
