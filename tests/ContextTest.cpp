// Context item identifiers and names, CContextItem and the CContext base:
// items, children, counting, enumeration and lookup.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "zvlog/CContext.h"

namespace {

// An independent table-driven CRC-32 (IEEE 802.3, reflected).
uint32_t referenceCrc32(const char* s) {
    static uint32_t table[256];
    static bool ready = false;
    if (!ready) {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            table[i] = c;
        }
        ready = true;
    }
    uint32_t crc = 0xFFFFFFFFu;
    for (; *s; ++s) crc = table[(crc ^ static_cast<unsigned char>(*s)) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

class TestContext : public CContext {
public:
    using CContext::AddContext;
    using CContext::AddItem;
    using CContext::RemoveContext;
    using CContext::RemoveItem;
    void add(uint32_t id, int value) { AddItem(new CContextItem(static_cast<ContextItemID>(id), value)); }
};

// Reports one item it does not store, as the concrete contexts do.
class VirtualItemContext : public TestContext {
public:
    unsigned int GetItemCount(bool) const override { return 1; }
    ContextItemID GetItemID(unsigned int index) override { return index == 0 ? ThreadID : ContextItemNone; }
};

int gItemsDestroyed = 0;
int gContextsDestroyed = 0;

struct CountingItem : CContextItem {
    CountingItem(uint32_t id, int v) : CContextItem(static_cast<ContextItemID>(id), v) {}
    ~CountingItem() override { ++gItemsDestroyed; }
};

struct CountingContext : TestContext {
    ~CountingContext() override { ++gContextsDestroyed; }
};

TEST(Context, IdentifiersAreMaskedCrcsOfTheirNamesExceptThreeFixed) {
    TestContext first;  // the name table exists once a context was built
    const std::set<std::string> fixed = {"BuildProgramType", "SourceMethod", "DirProcessConfQmr"};
    std::set<uint32_t> distinct;
    for (const char* name : zvContextItemNames) {
        ASSERT_NE(name, nullptr);
        const uint32_t crc = referenceCrc32(name) & 0x0FFFFFFFu;
        EXPECT_EQ(zvContextItemCrc(name), crc) << name;
        if (!fixed.count(name)) {
            EXPECT_STREQ(CContext::GetContextItemName(static_cast<ContextItemID>(crc)), name);
            distinct.insert(crc);
        }
    }
    EXPECT_EQ(distinct.size(), 67u);
    EXPECT_STREQ(zvContextItemNames[0], "AppInstance");
    EXPECT_STREQ(zvContextItemNames[69], "DirStructureIsLegacy");
    EXPECT_EQ(ThreadID, 123860607u);
    EXPECT_EQ(BuildProgramType, 20986301u);
    EXPECT_EQ(SourceMethod, 53171622u);
    EXPECT_EQ(DirProcessConfQmr, 160402521u);
    EXPECT_STREQ(CContext::GetContextItemName(BuildProgramType), "BuildProgramType");
    EXPECT_STREQ(CContext::GetContextItemName(DirProcessConfQmr), "DirProcessConfQmr");

    // GetContextItemID computes (never a table lookup: the fixed identifiers
    // are not returned) and records the caller's pointer as the name.
    const char* appInstance = "AppInstance";
    EXPECT_EQ(CContext::GetContextItemID(appInstance), 80690543u);
    EXPECT_EQ(AppInstance, 80690543u);
    EXPECT_EQ(CContext::GetContextItemName(AppInstance), appInstance);
    EXPECT_EQ(CContext::GetContextItemID("SourceMethod"), referenceCrc32("SourceMethod") & 0x0FFFFFFFu);
    EXPECT_STREQ(CContext::GetContextItemName(SourceMethod), "SourceMethod");
    static const char custom[] = "CustomBatchSize";
    const ContextItemID id = CContext::GetContextItemID(custom);
    EXPECT_EQ(id, referenceCrc32(custom) & 0x0FFFFFFFu);
    EXPECT_EQ(CContext::GetContextItemName(id), custom);
    EXPECT_EQ(CContext::GetContextItemName(ContextItemNone), nullptr);
    EXPECT_EQ(CContext::GetContextItemName(static_cast<ContextItemID>(1)), nullptr);
}

TEST(Context, CountsAndEnumerationGoOneLevelDeepAskingChildrenThroughTheirVirtualCount) {
    TestContext parent;
    auto* child = new TestContext;
    auto* grandchild = new TestContext;
    // Iteration follows buckets (id & 255), then insertion order in a chain.
    parent.add(0x305, 1);
    parent.add(0x005, 2);
    parent.add(0x001, 3);
    child->add(0x010, 4);
    child->add(0x002, 5);
    grandchild->add(0x777, 6);
    child->AddContext(grandchild);
    parent.AddContext(child);
    parent.AddContext(new TestContext);  // empty
    parent.AddContext(new VirtualItemContext);

    EXPECT_EQ(parent.GetItemCount(false), 3u);
    EXPECT_EQ(parent.GetItemCount(true), 6u);
    EXPECT_EQ(child->GetItemCount(true), 3u);
    const uint32_t want[] = {0x001, 0x305, 0x005, 0x002, 0x010, ThreadID, 0};
    for (unsigned int i = 0; i < 7; ++i) EXPECT_EQ(parent.GetItemID(i), want[i]) << i;
    EXPECT_EQ(parent.GetItemID(1000), 0u);

    // Lookup is depth-first through all levels; own items come first.
    ASSERT_NE(parent.GetItem(static_cast<ContextItemID>(0x777)), nullptr);
    EXPECT_EQ(static_cast<int>(*parent.GetItem(static_cast<ContextItemID>(0x777))), 6);
    child->add(0x001, 30);
    EXPECT_EQ(static_cast<int>(*parent.GetItem(static_cast<ContextItemID>(0x001))), 3);
    EXPECT_EQ(parent.GetItem(static_cast<ContextItemID>(0x999)), nullptr);
}

TEST(Context, ItemsAreReplacedAndRemovedByIdentifier) {
    TestContext ctx;
    gItemsDestroyed = 0;
    auto* first = new CountingItem(AppInstance, 1);
    auto* second = new CountingItem(AppInstance, 2);
    ctx.AddItem(first);
    ctx.AddItem(second);  // the node takes the new pointer; first is left alone
    EXPECT_EQ(ctx.GetItemCount(false), 1u);
    EXPECT_EQ(ctx.GetItem(AppInstance), second);
    EXPECT_EQ(gItemsDestroyed, 0);
    delete first;

    ctx.add(ThreadID, 7);
    EXPECT_FALSE(ctx.RemoveItem(ProcessID));
    EXPECT_EQ(ctx.GetItemCount(false), 2u);
    EXPECT_TRUE(ctx.RemoveItem(AppInstance));
    EXPECT_EQ(gItemsDestroyed, 2);
    EXPECT_EQ(ctx.GetItem(AppInstance), nullptr);
    EXPECT_EQ(ctx.GetItemID(0), ThreadID);
    EXPECT_EQ(ctx.GetItemID(1), 0u);
}

TEST(Context, DestructorDeletesItemsAndOwnedChildren) {
    gItemsDestroyed = gContextsDestroyed = 0;
    CountingContext kept;
    kept.SetDeleteWithParent(false);
    auto* parent = new CountingContext;
    auto* owned = new CountingContext;
    auto* removed = new CountingContext;
    parent->AddItem(new CountingItem(0x1, 1));
    parent->AddItem(new CountingItem(0x2, 2));
    owned->AddItem(new CountingItem(0x3, 3));
    parent->AddContext(owned);
    parent->AddContext(&kept);
    parent->AddContext(removed);
    parent->AddContext(owned);  // the same child twice
    ASSERT_EQ(parent->GetChildren().size(), 4u);

    EXPECT_TRUE(parent->RemoveContext(owned));  // first occurrence only
    EXPECT_TRUE(parent->RemoveContext(removed));
    EXPECT_FALSE(parent->RemoveContext(removed));
    ASSERT_EQ(parent->GetChildren().size(), 2u);
    EXPECT_EQ(parent->GetChildren()[0], &kept);
    EXPECT_EQ(parent->GetChildren()[1], owned);

    delete parent;
    EXPECT_EQ(gContextsDestroyed, 2);  // parent and owned; not kept
    EXPECT_EQ(gItemsDestroyed, 3);
    delete removed;
}

TEST(Context, ContextItemsCarryTheirValueAndAssignWholly) {
    char buf[] = "copied";
    char* p = buf;
    const char* const lit = "kept";
    CContextItem owned(ProcessExecutable, p), kept(ProcessHostName, lit), number(ProcessID, 42u);
    EXPECT_EQ(owned.GetID(), ProcessExecutable);
    EXPECT_TRUE(owned.IsOwned());
    EXPECT_NE(static_cast<const char*>(owned), buf);
    EXPECT_FALSE(kept.IsOwned());
    EXPECT_EQ(static_cast<const char*>(kept), lit);
    EXPECT_EQ(number.GetType(), CDataItem::TypeUInt);

    number.Assign(owned);  // type and ownership follow the source
    EXPECT_EQ(number.GetID(), ProcessID);
    EXPECT_TRUE(number.IsOwned());
    EXPECT_STREQ(number, "copied");
    EXPECT_NE(static_cast<const char*>(number), static_cast<const char*>(owned));
    owned.Assign(owned);
    EXPECT_STREQ(owned, "copied");
}

}  // namespace
