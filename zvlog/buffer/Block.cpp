#include "zvlog/buffer/Block.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>

#include "zvlog/buffer/SignalSafe.h"

namespace zvs::zvlib::zvlog::binary {

namespace {

// Free blocks kept for reuse. Beyond this, a released block is freed, so a
// burst of many threads or many queued events does not pin memory forever.
constexpr unsigned kPoolCapacity = 16;

struct BlockStore {
    std::mutex poolMutex;
    unsigned char* pool[kPoolCapacity];
    unsigned pooled = 0;

    std::mutex recentMutex;
    unsigned char* recent[kRecentBlocks] = {};
    unsigned recentFirst = 0;  // oldest
    unsigned recentCount = 0;
};

// Never destroyed: threads may close their blocks during process exit.
BlockStore& store() {
    static BlockStore* s = new BlockStore();
    return *s;
}

std::atomic<unsigned long long> gTotalEvents{0};
std::atomic<unsigned long long> gTotalBytes{0};
std::atomic<unsigned long long> gAllocated{0};
std::atomic<RawDeliveryHook> gHook{nullptr};

unsigned char* allocateBlock() {
    void* memory = std::aligned_alloc(64, kBlockSize);
    if (memory == nullptr) throw std::bad_alloc();
    auto* block = static_cast<unsigned char*>(memory);
    // The reference count lives beside the block and stays with it for life.
    headOf(block)->refCount = new std::atomic<uint32_t>(0);
    gAllocated.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void freeBlock(unsigned char* block) {
    delete headOf(block)->refCount;
    std::free(block);
}

}  // namespace

unsigned char* acquireBlock() {
    BlockStore& s = store();
    unsigned char* block = nullptr;
    {
        std::lock_guard<std::mutex> lock(s.poolMutex);
        if (s.pooled > 0) block = s.pool[--s.pooled];
    }
    if (block == nullptr) block = allocateBlock();
    BlockHead* head = headOf(block);
    head->refCount->store(1, std::memory_order_relaxed);
    head->dataLength = 0;
    head->eventCount = 0;
    return block;
}

void retainBlock(const unsigned char* block) {
    headOf(block)->refCount->fetch_add(1, std::memory_order_relaxed);
}

void releaseBlock(const unsigned char* block) {
    BlockHead* head = headOf(block);
    if (head->refCount->fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    auto* mutableBlock = const_cast<unsigned char*>(block);
    BlockStore& s = store();
    {
        std::lock_guard<std::mutex> lock(s.poolMutex);
        if (s.pooled < kPoolCapacity) {
            s.pool[s.pooled++] = mutableBlock;
            return;
        }
    }
    freeBlock(mutableBlock);
}

void blockClosed(unsigned char* block) {
    BlockHead* head = headOf(block);
    gTotalEvents.fetch_add(head->eventCount, std::memory_order_relaxed);
    gTotalBytes.fetch_add(head->dataLength, std::memory_order_relaxed);

    if (RawDeliveryHook hook = gHook.load(std::memory_order_acquire))
        hook(streamOf(block), head->dataLength, head->eventCount);

    unsigned char* evicted = nullptr;
    retainBlock(block);
    {
        BlockStore& s = store();
        std::lock_guard<std::mutex> lock(s.recentMutex);
        if (s.recentCount == kRecentBlocks) {
            evicted = s.recent[s.recentFirst];
            s.recent[s.recentFirst] = block;
            s.recentFirst = (s.recentFirst + 1) % kRecentBlocks;
        } else {
            s.recent[(s.recentFirst + s.recentCount) % kRecentBlocks] = block;
            ++s.recentCount;
        }
    }
    if (evicted != nullptr) releaseBlock(evicted);
    releaseBlock(block);  // the buffer's reference
}

void setRawDeliveryHook(RawDeliveryHook hook) { gHook.store(hook, std::memory_order_release); }

unsigned long long totalEvents() { return gTotalEvents.load(std::memory_order_relaxed); }
unsigned long long totalBytes() { return gTotalBytes.load(std::memory_order_relaxed); }

void forEachRecentBlock(const std::function<void(const unsigned char* stream, uint32_t length)>& visit) {
    BlockStore& s = store();
    std::lock_guard<std::mutex> lock(s.recentMutex);
    for (unsigned i = 0; i < s.recentCount; ++i) {
        unsigned char* block = s.recent[(s.recentFirst + i) % kRecentBlocks];
        visit(streamOf(block), headOf(block)->dataLength);
    }
}

void forEachPooledBlock(const std::function<void(const unsigned char* stream, uint32_t length)>& visit) {
    BlockStore& s = store();
    std::lock_guard<std::mutex> lock(s.poolMutex);
    for (unsigned i = 0; i < s.pooled; ++i) {
        unsigned char* block = s.pool[i];
        const BlockHead* head = headOf(block);
        // A block that never closed a stream, or whose only event moved on
        // to another block, has nothing to read.
        if (head->eventCount == 0 || head->dataLength <= kStreamHeaderSize || head->dataLength > kStreamCapacity ||
            streamOf(block)[0] != kMagic)
            continue;
        visit(streamOf(block), head->dataLength);
    }
}

namespace {

// A stream that a dump may carry: a reader would stop at anything less.
bool streamLooksWhole(const unsigned char* block) {
    const BlockHead* head = headOf(block);
    const uint32_t length = head->dataLength;
    const unsigned char* stream = block + kBlockHeadSize;
    return head->eventCount != 0 && length > kStreamHeaderSize && length <= kStreamCapacity && stream[0] == kMagic &&
           stream[1] == kVersion && stream[length - 1] == kEnd;
}

bool tryLockFor(std::mutex& mutex, unsigned waitMs) {
    return signalsafe::waitUntil([&] { return mutex.try_lock(); }, waitMs);
}

}  // namespace

void visitBlocksAtCrash(unsigned waitMs, CrashStreamVisitor visit, void* context) {
    BlockStore& s = store();

    // The pool first: its blocks left the recent list before those on it.
    const bool poolLocked = tryLockFor(s.poolMutex, waitMs);
    const unsigned pooled = std::min<unsigned>(s.pooled, kPoolCapacity);
    for (unsigned i = 0; i < pooled; ++i) {
        const unsigned char* block = s.pool[i];
        if (block != nullptr && streamLooksWhole(block)) visit(context, streamOf(const_cast<unsigned char*>(block)), headOf(block)->dataLength);
    }
    if (poolLocked) s.poolMutex.unlock();

    // Without the lock the ring may be turning: every slot still holds a
    // closed block (the evicted one is released only after the lock), at
    // worst one is seen twice or out of order.
    const bool recentLocked = tryLockFor(s.recentMutex, waitMs);
    const unsigned first = s.recentFirst % kRecentBlocks;
    const unsigned count = std::min<unsigned>(s.recentCount, kRecentBlocks);
    for (unsigned i = 0; i < count; ++i) {
        const unsigned char* block = s.recent[(first + i) % kRecentBlocks];
        if (block != nullptr && streamLooksWhole(block)) visit(context, streamOf(const_cast<unsigned char*>(block)), headOf(block)->dataLength);
    }
    if (recentLocked) s.recentMutex.unlock();
}

BlockStoreHold::BlockStoreHold() {
    store().poolMutex.lock();
    store().recentMutex.lock();
}

BlockStoreHold::~BlockStoreHold() {
    store().recentMutex.unlock();
    store().poolMutex.unlock();
}

unsigned long long blocksAllocated() { return gAllocated.load(std::memory_order_relaxed); }

unsigned long long blocksPooled() {
    BlockStore& s = store();
    std::lock_guard<std::mutex> lock(s.poolMutex);
    return s.pooled;
}

}  // namespace zvs::zvlib::zvlog::binary
