// CDataItem: fixed types, range-checked reads, type-keeping assignments,
// string ownership and equality.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "support/CaptureAppender.h"
#include "zvlog/CDataItem.h"
#include "zvlog/Level.h"
#include "zvlog/Logger.h"

using namespace zvs::zvlib::zvlog;
using zvtest::CaptureAppender;

namespace {

struct Reads {
    int i;
    unsigned int u;
    long long ll;
    unsigned long long ull;
};

void expectReads(const CDataItem& item, Reads want, const char* what) {
    SCOPED_TRACE(what);
    EXPECT_EQ(static_cast<int>(item), want.i);
    EXPECT_EQ(static_cast<unsigned int>(item), want.u);
    EXPECT_EQ(static_cast<long long>(item), want.ll);
    EXPECT_EQ(static_cast<unsigned long long>(item), want.ull);
}

TEST(CDataItem, ConstructorsFixTheTypeAndZeroThePayload) {
    std::vector<CDataItem> v;
    EXPECT_EQ(CDataItem(7L).GetType(), CDataItem::TypeInt64);
    EXPECT_EQ(CDataItem(7UL).GetType(), CDataItem::TypeUInt64);
    EXPECT_EQ(CDataItem(timeval{1, 2}).GetType(), CDataItem::TypeTimespec);
    EXPECT_EQ(CDataItem(static_cast<const void*>(&v)).GetType(), CDataItem::TypePointer);
    EXPECT_EQ(CDataItem(&v).GetType(), CDataItem::TypeVector);
    CDataItem small(-1);
    for (int k = 4; k < 16; ++k) EXPECT_EQ(small.GetValue().raw[k], 0) << k;

    // Made over memory full of garbage, a zero value of every type reads as
    // false: no byte of the payload is left as it was.
    alignas(CDataItem) unsigned char storage[sizeof(CDataItem)];
    auto overGarbage = [&](auto value, const char* what) {
        SCOPED_TRACE(what);
        std::memset(storage, 0xA5, sizeof storage);
        auto* item = new (storage) CDataItem(value);
        EXPECT_FALSE(static_cast<bool>(*item));
        for (unsigned char byte : item->GetValue().raw) EXPECT_EQ(byte, 0);
        item->~CDataItem();
    };
    overGarbage(0, "int");
    overGarbage(0u, "unsigned");
    overGarbage(0LL, "long long");
    overGarbage(0ULL, "unsigned long long");
    overGarbage(false, "bool");
    overGarbage(static_cast<const void*>(nullptr), "pointer");
    overGarbage(static_cast<std::vector<CDataItem>*>(nullptr), "vector");
    overGarbage(timespec{0, 0}, "timespec");
    overGarbage(timeval{0, 0}, "timeval");
}

TEST(CDataItem, IntegerReadsConvertWithRangeChecks) {
    expectReads(CDataItem(5), {5, 5u, 5, 5}, "int 5");
    expectReads(CDataItem(-1), {-1, 0u, -1, 0}, "int -1");
    expectReads(CDataItem(4294967295u), {0, UINT_MAX, 4294967295LL, 4294967295ULL}, "uint max");
    expectReads(CDataItem(-5LL), {-5, 0u, -5, 0}, "int64 -5");
    expectReads(CDataItem(INT_MIN - 1LL), {0, 0u, INT_MIN - 1LL, 0}, "int64 below int");
    expectReads(CDataItem(4294967295LL), {0, UINT_MAX, 4294967295LL, 4294967295ULL}, "int64 uint max");
    expectReads(CDataItem(2147483648ULL), {0, 2147483648u, 2147483648LL, 2147483648ULL}, "uint64 2^31");
    expectReads(CDataItem(4294967296ULL), {0, 0u, 4294967296LL, 4294967296ULL}, "uint64 2^32");
    // The lax long long read: only all ones is out of range.
    expectReads(CDataItem(ULLONG_MAX), {0, 0u, 0, ULLONG_MAX}, "uint64 all ones");
    expectReads(CDataItem(1ULL << 63), {0, 0u, LLONG_MIN, 1ULL << 63}, "uint64 2^63");
    expectReads(CDataItem(ULLONG_MAX - 1), {0, 0u, -2, ULLONG_MAX - 1}, "uint64 all ones - 1");
    expectReads(CDataItem(true), {-1, UINT_MAX, -1, ULLONG_MAX}, "bool true");
    expectReads(CDataItem("12"), {0, 0u, 0, 0}, "string");
    expectReads(CDataItem(timespec{12, 0}), {0, 0u, 0, 0}, "timespec");
    expectReads(CDataItem(reinterpret_cast<const void*>(12)), {0, 0u, 0, 0}, "pointer");
}

TEST(CDataItem, AssignmentsKeepTheType) {
    CDataItem i32(1), u32(1u), i64(1LL), u64(1ULL), b(false);
    i32 = (5LL << 32) | 7;  // low 32 bits only
    EXPECT_EQ(static_cast<long long>(i32), 7);
    i32 = true;
    EXPECT_EQ(static_cast<int>(i32), -1);
    u32 = true;
    EXPECT_EQ(static_cast<unsigned int>(u32), UINT_MAX);
    u32 = -2;
    EXPECT_EQ(static_cast<unsigned int>(u32), 4294967294u);
    i64 = -1;  // sign-extended
    EXPECT_EQ(static_cast<long long>(i64), -1);
    i64 = 4294967295u;  // zero-extended
    EXPECT_EQ(static_cast<long long>(i64), 4294967295LL);
    u64 = true;
    EXPECT_EQ(static_cast<unsigned long long>(u64), ULLONG_MAX);
    b = 42;
    EXPECT_EQ(static_cast<int>(b), -1);
    EXPECT_EQ(b.GetValue().b, 1);
    b = 0ULL;
    EXPECT_EQ(static_cast<int>(b), 0);
    EXPECT_EQ(b.GetType(), CDataItem::TypeBool);

    // Mismatched assignments are ignored.
    const char* const lit = "text";
    CDataItem s(lit);
    s = 7;
    s = true;
    EXPECT_EQ(s.GetType(), CDataItem::TypeString);
    EXPECT_EQ(static_cast<const char*>(s), lit);
    char buf[] = "copy";
    char* p = buf;
    CDataItem n(9);
    n = p;
    n = lit;
    EXPECT_EQ(n.GetType(), CDataItem::TypeInt);
    EXPECT_EQ(static_cast<int>(n), 9);
    EXPECT_FALSE(n.IsOwned());

    // These overwrite the payload whatever the type.
    n = timespec{8, 9};
    EXPECT_EQ(n.GetType(), CDataItem::TypeInt);
    EXPECT_TRUE((n == timespec{8, 9}));
    n = static_cast<const void*>(buf);
    EXPECT_EQ(static_cast<const char*>(n), buf);
}

TEST(CDataItem, StringsAreKeptOrCopiedByArgumentForm) {
    // A const pointer (like a literal) is kept; a pointer variable is copied.
    const char* const lit = "literal";
    CDataItem kept(lit);
    EXPECT_FALSE(kept.IsOwned());
    EXPECT_EQ(static_cast<const char*>(kept), lit);

    char buf[] = "buffer";
    char* p = buf;
    CDataItem copied(p);
    EXPECT_TRUE(copied.IsOwned());
    EXPECT_NE(static_cast<const char*>(copied), buf);
    EXPECT_STREQ(copied, "buffer");
    buf[0] = 'X';
    EXPECT_STREQ(copied, "buffer");
    const char* variable = lit;
    EXPECT_TRUE(CDataItem(variable).IsOwned());

    // Copies duplicate an owned string and share a kept one.
    CDataItem c1(copied), c2(kept);
    EXPECT_TRUE(c1.IsOwned());
    EXPECT_NE(static_cast<const char*>(c1), static_cast<const char*>(copied));
    EXPECT_STREQ(c1, "buffer");
    EXPECT_EQ(static_cast<const char*>(c2), lit);

    // Whole-item assignment frees the old owned string, takes the source's type.
    CDataItem handed(strdup("handed"), true), target(strdup("old"), true);
    target = handed;
    EXPECT_NE(static_cast<const char*>(target), static_cast<const char*>(handed));
    target = target;
    EXPECT_STREQ(target, "handed");
    target = CDataItem(3);
    EXPECT_EQ(target.GetType(), CDataItem::TypeInt);
    EXPECT_FALSE(target.IsOwned());

    // String assignment: a literal clears ownership, a char* copies and owns.
    CDataItem s(strdup("first"), true);
    s = lit;
    EXPECT_FALSE(s.IsOwned());
    EXPECT_EQ(static_cast<const char*>(s), lit);
    s = p;
    EXPECT_TRUE(s.IsOwned());
    EXPECT_STREQ(s, "Xuffer");
    char* own = const_cast<char*>(static_cast<const char*>(s));
    s = own;  // re-copying its own string
    EXPECT_STREQ(s, "Xuffer");
}

TEST(CDataItem, NullStringCopyBecomesNilAndLogsOneError) {
    Logger* logger = Logger::getRepository()->getLogger("zvlog.CDataItem");
    CaptureAppender capture("dataitem-capture");
    logger->addAppender(capture);
    logger->setLevel(LEVEL_ERROR);

    char* nullText = nullptr;
    CDataItem item(nullText);
    EXPECT_TRUE(item.IsOwned());
    EXPECT_STREQ(item, "<NIL>");
    auto events = capture.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].level, LEVEL_ERROR);
    EXPECT_EQ(events[0].loggerName, "zvlog.CDataItem");
    const std::string prefix = "NULL pointer encountered - using substitute value of '<NIL>'\n";
    EXPECT_EQ(events[0].message.substr(0, prefix.size()), prefix);

    // The copy holds "<NIL>" already: nothing more is logged.
    CDataItem copy(item);
    EXPECT_STREQ(copy, "<NIL>");
    EXPECT_EQ(capture.size(), 1u);

    // An owned null pointer is substituted when copied.
    CDataItem ownedNull(static_cast<const char*>(nullptr), true);
    CDataItem fromOwnedNull(ownedNull);
    EXPECT_STREQ(fromOwnedNull, "<NIL>");
    EXPECT_EQ(capture.size(), 2u);

    // Disabled for ERROR: still substituted, not logged.
    logger->setLevel(LEVEL_FATAL);
    char* p = CDataItem::SafeStrdup(nullptr);
    EXPECT_STREQ(p, "<NIL>");
    free(p);
    EXPECT_EQ(capture.size(), 2u);
    logger->removeAppender(capture);
}

TEST(CDataItem, TimevalIsStoredAsTimespec) {
    CDataItem tv(timeval{3, 250});
    timespec ts = tv;
    EXPECT_EQ(ts.tv_sec, 3);
    EXPECT_EQ(ts.tv_nsec, 250000);
    timeval back = tv;
    EXPECT_EQ(back.tv_sec, 3);
    EXPECT_EQ(back.tv_usec, 250);
    EXPECT_TRUE((tv == timeval{3, 250}));
    EXPECT_FALSE((tv == timeval{3, 251}));
    EXPECT_TRUE((tv == timespec{3, 250000}));
    EXPECT_FALSE((tv == timespec{3, 250001}));

    // Microseconds truncate toward zero; seconds read back as their low 32 bits.
    CDataItem odd(timespec{(1LL << 32) + 5, -1999});
    timeval oddBack = odd;
    EXPECT_EQ(oddBack.tv_sec, 5);
    EXPECT_EQ(oddBack.tv_usec, -1);

    CDataItem assigned(0);
    assigned = timeval{-2, 7};
    timespec a = assigned;
    EXPECT_EQ(a.tv_sec, -2);
    EXPECT_EQ(a.tv_nsec, 7000);
}

TEST(CDataItem, EqualityRules) {
    // Only the first 8 bytes for non-strings: nanoseconds are ignored.
    EXPECT_TRUE(CDataItem(timespec{10, 1}) == CDataItem(timespec{10, 2}));
    EXPECT_FALSE(CDataItem(timespec{10, 1}) == CDataItem(timespec{11, 1}));
    EXPECT_FALSE(CDataItem(5) == CDataItem(5u));
    EXPECT_TRUE(CDataItem(5LL) == CDataItem(5LL));
    EXPECT_FALSE(CDataItem(true) == CDataItem(false));

    char a[] = "same", b[] = "same", c[] = "other";
    const char *pa = a, *pb = b, *pc = c;
    EXPECT_TRUE(CDataItem(pa, false) == CDataItem(pb, false));
    EXPECT_FALSE(CDataItem(pa, false) == CDataItem(pc, false));

    std::vector<CDataItem> empty1, empty2;
    std::vector<CDataItem> v1{CDataItem(1), CDataItem(pa, false)};
    std::vector<CDataItem> v2{CDataItem(1), CDataItem(pb, false)};
    std::vector<CDataItem> shorter{CDataItem(1)};
    std::vector<CDataItem> swapped{CDataItem(pb, false), CDataItem(1)};
    EXPECT_TRUE(CDataItem(&empty1) == CDataItem(&empty2));
    EXPECT_TRUE(CDataItem(&v1) == CDataItem(&v2));
    EXPECT_FALSE(CDataItem(&v1) == CDataItem(&shorter));
    EXPECT_FALSE(CDataItem(&v1) == CDataItem(&swapped));
}

TEST(CDataItem, BoolAndPointerReadsLookAtTheRawPayload) {
    EXPECT_FALSE(static_cast<bool>(CDataItem(0)));
    EXPECT_TRUE(static_cast<bool>(CDataItem(timespec{0, 1})));  // a byte past the first 8
    std::vector<CDataItem> v;
    CDataItem vec(&v);
    EXPECT_EQ(static_cast<std::vector<CDataItem>*>(vec), &v);
    vec.SetStringValue("s");
    EXPECT_EQ(vec.GetType(), CDataItem::TypeVector);
    EXPECT_STREQ(static_cast<const char*>(vec), "s");
}

}  // namespace
