// Fuzzes the rolling appender's MaxFileSize text: digits, optionally followed
// by KB, MB or GB in either case; "" is 0. A number beyond 32 bits reads as 0;
// before each multiplication by 1024 the value must be below 4194304, else
// the size is too large (message 1530); any other text is not valid (message
// 1531). A refused text keeps the size set before.
//
// Input: the text up to a NUL (the setter takes a C string). The result is
// compared with that rule computed here, both the size and which message was
// raised.
#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "zvlog/FileAppender.h"
#include "zvlog/msg/RaiseMessage.h"

using namespace zvs::zvlib::zvlog;

namespace {

enum class Outcome { Accepted, TooLarge, Invalid };

// The rule, written out independently of the appender's parser.
Outcome expectedSize(const std::string& text, uint64_t& size) {
    size_t i = 0;
    uint64_t value = 0;
    bool beyond32Bits = false;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
        if (!beyond32Bits) {
            value = value * 10 + static_cast<uint64_t>(text[i] - '0');
            beyond32Bits = value > UINT32_MAX;
        }
        ++i;
    }
    if (beyond32Bits) value = 0;
    const std::string unit = text.substr(i);
    int powers = 0;
    if (unit.empty()) {
        powers = 0;
    } else if (unit.size() == 2 && (unit[1] == 'b' || unit[1] == 'B')) {
        switch (unit[0]) {
            case 'k': case 'K': powers = 1; break;
            case 'm': case 'M': powers = 2; break;
            case 'g': case 'G': powers = 3; break;
            default: return Outcome::Invalid;
        }
    } else {
        return Outcome::Invalid;
    }
    for (int p = 0; p < powers; ++p) {
        if (value >= 4194304) return Outcome::TooLarge;
        value *= 1024;
    }
    size = value;
    return Outcome::Accepted;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every refused text issues its message, which prints a line on standard
    // output: millions of them in a run. libFuzzer reports on standard error.
    ZVFUZZ_CHECK(freopen("/dev/null", "w", stdout) != nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zvfuzz::FuzzInput in(data, size);
    const std::string text = in.text();

    static RollingFileAppender* appender = new RollingFileAppender("fuzz.maxfilesize");
    if (size == 0) {
        // No text at all reads as "": never roll.
        appender->setMaxFileSize(nullptr);
        ZVFUZZ_CHECK(appender->getMaxFileSize() == 0);
    }
    constexpr unsigned int kBefore = 777;
    appender->setMaxFileSize("777");
    ZVFUZZ_CHECK(appender->getMaxFileSize() == kBefore);

    const unsigned long long tooLargeBefore = detail::raisedMessageCount(1530);
    const unsigned long long invalidBefore = detail::raisedMessageCount(1531);
    appender->setMaxFileSize(text.c_str());
    const unsigned long long tooLarge = detail::raisedMessageCount(1530) - tooLargeBefore;
    const unsigned long long invalid = detail::raisedMessageCount(1531) - invalidBefore;

    uint64_t expected = kBefore;
    switch (expectedSize(text, expected)) {
        case Outcome::Accepted:
            ZVFUZZ_CHECK(tooLarge == 0 && invalid == 0);
            ZVFUZZ_CHECK(expected <= UINT32_MAX);
            ZVFUZZ_CHECK(appender->getMaxFileSize() == expected);
            break;
        case Outcome::TooLarge:
            ZVFUZZ_CHECK(tooLarge == 1 && invalid == 0);
            ZVFUZZ_CHECK(appender->getMaxFileSize() == kBefore);
            break;
        case Outcome::Invalid:
            ZVFUZZ_CHECK(tooLarge == 0 && invalid == 1);
            ZVFUZZ_CHECK(appender->getMaxFileSize() == kBefore);
            break;
    }
    return 0;
}
