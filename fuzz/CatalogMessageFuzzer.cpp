// Fuzzes catalogued messages: a message of one of the catalog's numbers is
// made with arguments from the input and formatted to text in one of several
// character sets. The numbers are read from the catalog the build compiles
// (zvMessage.dat, copied beside this program).
//
// Input: u16 choosing the number (modulo the count of catalog numbers); u8
// flags; u8 character-set choice; then the arguments.
//   flags & 3:  0 arguments of the kinds the message declares, as data items
//               1 arguments of any kind, as data items (up to 8)
//               2 the variadic CreateMessage with the declared kinds (messages
//                 of up to 3 arguments; others as 0)
//               3 fewer items than declared (u8 count first): message 1425
//   flags & 4:  ToString (text kept in the thread's ring, message destroyed)
//               instead of formatting twice
//   flags & 8:  also copy the message (CreateMessage(const CMessage*)) and
//               compare the copy
//   flags & 16: no source context
//   flags & 32: for a term (numbers from 10000000), _TSTR_ContextItem too
// Declared-kind values: Int32/UInt32 u32, Int64/UInt64/Pointer u64, String a
// text up to a NUL ("<null>" passes a null pointer), DateTime u64 seconds and
// u64 microseconds. Free items: a kind byte (% 9: string, int, unsigned,
// int64, uint64, bool, timespec, pointer, vector of up to 3 such), then the
// value as above (timespec: u64 seconds, u64 nanoseconds).
//
// Checked: every catalog number makes a message; its code is "QMR-" and five
// digits; formatting twice gives the same text; ToString gives the text
// Format gave; a copy equals the original and formats the same; a message
// made with all of the declared kinds formats in the default character set.
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <unicode/resbund.h>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "zvlog/CDataItem.h"
#include "zvlog/Message.h"
#include "zvlog/ULibCharSet.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/zvMessage.h"

using zvfuzz::FuzzInput;
using Kind = zvs::zvlib::zvlog::msg::MessageDetail::Kind;
namespace msg = zvs::zvlib::zvlog::msg;

namespace {

CMessageFactory* factory = nullptr;
std::vector<unsigned int> numbers;

const ULibCharSetValue kCharSets[] = {kDefaultCharSet, ULIB_CS_UTF8,       ULIB_CS_UTF16BE, ULIB_CS_UTF32,
                                      ULIB_CS_US_ASCII, ULIB_CS_UTF_EBCDIC, ULIB_CS_IBM01140};

// Texts and vectors the items point at, alive until the input is done.
struct Keep {
    std::deque<std::string> texts;
    std::deque<std::vector<CDataItem>> vectors;

    const char* text(FuzzInput& in) {
        texts.push_back(in.text());
        return texts.back() == "<null>" ? nullptr : texts.back().c_str();
    }
};

CSourceContext* source(bool none) {
    return none ? nullptr : new CSourceContext("fuzz", "fuzz/catalog", "LLVMFuzzerTestOneInput", 1);
}

CDataItem declaredItem(Kind kind, FuzzInput& in, Keep& keep) {
    switch (kind) {
        case Kind::Int32: return CDataItem(static_cast<int>(in.u32()));
        case Kind::UInt32: return CDataItem(static_cast<unsigned int>(in.u32()));
        case Kind::Int64: return CDataItem(static_cast<long long>(in.u64()));
        case Kind::UInt64: return CDataItem(static_cast<unsigned long long>(in.u64()));
        case Kind::Pointer: return CDataItem(reinterpret_cast<const void*>(in.u64()));
        case Kind::DateTime: {
            timeval tv;
            tv.tv_sec = static_cast<time_t>(in.u64());
            tv.tv_usec = static_cast<suseconds_t>(in.u64());
            return CDataItem(tv);
        }
        case Kind::String:
        default: {
            const char* text = keep.text(in);  // a pointer lvalue: the item copies it
            return CDataItem(text);
        }
    }
}

CDataItem freeItem(FuzzInput& in, Keep& keep, bool nested) {
    switch (in.u8() % 9) {
        case 0: {
            const char* text = keep.text(in);
            return CDataItem(text);
        }
        case 1: return CDataItem(static_cast<int>(in.u32()));
        case 2: return CDataItem(static_cast<unsigned int>(in.u32()));
        case 3: return CDataItem(static_cast<long long>(in.u64()));
        case 4: return CDataItem(static_cast<unsigned long long>(in.u64()));
        case 5: return CDataItem((in.u8() & 1) != 0);
        case 6: {
            timespec ts;
            ts.tv_sec = static_cast<time_t>(in.u64());
            ts.tv_nsec = static_cast<long>(in.u64());
            return CDataItem(ts);
        }
        case 7: return CDataItem(reinterpret_cast<const void*>(in.u64()));
        default: {
            if (nested) return CDataItem(static_cast<int>(in.u32()));
            std::vector<CDataItem>& v = keep.vectors.emplace_back();
            for (unsigned n = in.u8() % 4; n > 0; --n) v.push_back(freeItem(in, keep, true));
            return CDataItem(&v);
        }
    }
}

// The variadic CreateMessage with one argument of the declared C++ type per
// detail, for messages of up to three.
template <class... Args>
CMessage* createVariadic(CSourceContext* src, unsigned int number, const std::vector<Kind>& kinds, size_t i,
                         FuzzInput& in, Keep& keep, Args... args) {
    if (i == kinds.size()) return factory->CreateMessage(src, number, args...);
    if constexpr (sizeof...(Args) < 3) {
        switch (kinds[i]) {
            case Kind::Int32:
                return createVariadic(src, number, kinds, i + 1, in, keep, args..., static_cast<int>(in.u32()));
            case Kind::UInt32:
                return createVariadic(src, number, kinds, i + 1, in, keep, args...,
                                      static_cast<unsigned int>(in.u32()));
            case Kind::Int64:
                return createVariadic(src, number, kinds, i + 1, in, keep, args..., static_cast<long long>(in.u64()));
            case Kind::UInt64:
                return createVariadic(src, number, kinds, i + 1, in, keep, args...,
                                      static_cast<unsigned long long>(in.u64()));
            case Kind::Pointer:
                return createVariadic(src, number, kinds, i + 1, in, keep, args...,
                                      reinterpret_cast<const void*>(in.u64()));
            case Kind::DateTime: {
                timeval tv;
                tv.tv_sec = static_cast<time_t>(in.u64());
                tv.tv_usec = static_cast<suseconds_t>(in.u64());
                return createVariadic(src, number, kinds, i + 1, in, keep, args..., tv);
            }
            case Kind::String:
                return createVariadic(src, number, kinds, i + 1, in, keep, args..., keep.text(in));
        }
    }
    delete src;
    return nullptr;
}

std::vector<Kind> declaredKinds(unsigned int number) {
    // A message made with more items than any message declares has the
    // definition, and no item is missing.
    static std::vector<std::vector<Kind>>* known = new std::vector<std::vector<Kind>>(numbers.size());
    static std::vector<bool>* have = new std::vector<bool>(numbers.size());
    size_t slot = 0;
    while (numbers[slot] != number) ++slot;
    if (!(*have)[slot]) {
        CDataItem items[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        CMessage* m = factory->CreateMessageFromItems(nullptr, number, items, 16);
        ZVFUZZ_CHECK(m != nullptr);
        for (const msg::MessageDetail& d : m->GetDefinition()->details) (*known)[slot].push_back(d.kind);
        delete m;
        (*have)[slot] = true;
    }
    return (*known)[slot];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Message 1425 for missing arguments is issued and prints a line on
    // standard output, very often in a run. libFuzzer reports on standard error.
    ZVFUZZ_CHECK(freopen("/dev/null", "w", stdout) != nullptr);
    factory = CMessageFactory::GetDefaultFactory();
    ZVFUZZ_CHECK(factory != nullptr);
    icu::ResourceBundle* bundle = *factory;
    ZVFUZZ_CHECK(bundle != nullptr);
    bundle->resetIterator();
    while (bundle->hasNext()) {
        UErrorCode status = U_ZERO_ERROR;
        const icu::ResourceBundle entry = bundle->getNext(status);
        const char* key = entry.getKey();
        if (U_FAILURE(status) || !key || !*key || strspn(key, "0123456789") != strlen(key)) continue;
        numbers.push_back(static_cast<unsigned int>(strtoul(key, nullptr, 10)));
    }
    ZVFUZZ_CHECK(!numbers.empty());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const unsigned int number = numbers[in.u16() % numbers.size()];
    const uint8_t flags = in.u8();
    const uint8_t charSetChoice = in.u8();
    const ULibCharSetValue charSet = kCharSets[charSetChoice % (sizeof kCharSets / sizeof kCharSets[0])];
    const bool noSource = (flags & 16) != 0;
    const std::vector<Kind> kinds = declaredKinds(number);

    Keep keep;
    std::vector<CDataItem> items;
    CMessage* message = nullptr;
    const int mode = flags & 3;
    if (mode == 2 && kinds.size() <= 3) {
        message = createVariadic(source(noSource), number, kinds, 0, in, keep);
    } else if (mode == 1) {
        for (unsigned n = in.u8() % 9; n > 0; --n) items.push_back(freeItem(in, keep, false));
    } else if (mode == 3) {
        const unsigned count = kinds.empty() ? 0 : in.u8() % kinds.size();
        for (unsigned i = 0; i < count; ++i) items.push_back(declaredItem(kinds[i], in, keep));
    } else {
        for (Kind k : kinds) items.push_back(declaredItem(k, in, keep));
    }
    if (!message)
        message = factory->CreateMessageFromItems(source(noSource), number, items.data(),
                                                  static_cast<unsigned int>(items.size()));
    ZVFUZZ_CHECK(message != nullptr);
    ZVFUZZ_CHECK(message->GetMessageID() == number);
    char code[10];
    message->GetMessageCode(code);
    char expectedCode[16];
    snprintf(expectedCode, sizeof expectedCode, "QMR-%05u", number % 100000);
    ZVFUZZ_CHECK(strcmp(code, expectedCode) == 0);

    const char* formatted = message->Format(charSet);
    const std::string text = formatted ? formatted : "";
    // Every argument there, of its declared kind: the text can be made. (A
    // missing one is "<Missing>", which a number placeholder cannot show.)
    if ((mode == 0 || mode == 2) && charSet == kDefaultCharSet) ZVFUZZ_CHECK(formatted != nullptr);

    if (flags & 8) {
        CMessage* copy = factory->CreateMessage(message);
        ZVFUZZ_CHECK(copy != nullptr);
        ZVFUZZ_CHECK(*copy == *message && *message == *copy);
        const char* copyText = copy->Format(charSet);
        ZVFUZZ_CHECK((copyText != nullptr) == (formatted != nullptr));
        if (copyText) ZVFUZZ_CHECK(text == copyText);
        delete copy;
    }

    if (flags & 4) {
        const char* kept = message->ToString(charSet);  // destroys the message
        ZVFUZZ_CHECK((kept != nullptr) == (formatted != nullptr));
        if (kept) ZVFUZZ_CHECK(text == kept);
    } else {
        const char* again = message->Format(charSet);
        ZVFUZZ_CHECK((again != nullptr) == (formatted != nullptr));
        if (again) ZVFUZZ_CHECK(text == again);
        delete message;
    }

    if ((flags & 32) && number >= 10000000) {
        const char* term = _TSTR_ContextItem(source(noSource), static_cast<int>(number));
        ZVFUZZ_CHECK(term != nullptr);
    }
    return 0;
}
