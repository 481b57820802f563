// The message renderer: a call site's format applied to the event's typed
// arguments as they lie packed in the event buffer.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "support/EventBuilder.h"
#include "zvlog/FormatScan.h"
#include "zvlog/LoggingEvent.h"

using namespace zvs::zvlib::zvlog;
using zvtest::EventBuilder;
using zvtest::rendered;

TEST(MessageRenderer, TextPercentAndArgumentsUsedUp) {
    EXPECT_EQ(rendered(EventBuilder("plain text").event()), "plain text");
    EXPECT_EQ(rendered(EventBuilder("").event()), "");
    EXPECT_EQ(rendered(EventBuilder("100%% done, %%d stays").event()), "100% done, %d stays");

    // "%%" consumes nothing, so the argument goes to the conversion after it.
    EventBuilder b("%% %d %%");
    b.i32(7);
    EXPECT_EQ(rendered(b.event()), "% 7 %");

    EventBuilder missing("a=%d b=%s c=%5d%%");
    missing.i32(1);
    EXPECT_EQ(rendered(missing.event()), "a=1 b=??? c=???%");

    // A conversion cut off by the end is kept as text and consumes nothing.
    EventBuilder cut("ratio 100%");
    EXPECT_EQ(rendered(cut.event()), "ratio 100%");
    EventBuilder cutFlags("%d and %-05");
    cutFlags.i32(3);
    std::string out = "head ";
    renderMessage(&cutFlags.event(), out);
    EXPECT_EQ(out, "head 3 and %-05");
}

TEST(MessageRenderer, IntegersOfEveryWidthInDecimal) {
    EventBuilder b("%d %d %d %d %d %d");
    b.i16(std::numeric_limits<int16_t>::min())
        .u16(std::numeric_limits<uint16_t>::max())
        .i32(std::numeric_limits<int32_t>::min())
        .u32(std::numeric_limits<uint32_t>::max())
        .i64(std::numeric_limits<int64_t>::min())
        .u64(std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(rendered(b.event()),
              "-32768 65535 -2147483648 4294967295 -9223372036854775808 18446744073709551615");

    EventBuilder zeros("%d %u %i");
    zeros.i32(0).u64(0).i16(0);
    EXPECT_EQ(rendered(zeros.event()), "0 0 0");
}

TEST(MessageRenderer, EveryDigitCountAndEveryPieceLengthExactly) {
    // Around each power of ten the digit count changes.
    uint64_t power = 1;
    for (int k = 0; k < 20; ++k) {
        for (uint64_t v : {power - 1, power, power + 1}) {
            const int64_t negative = -static_cast<int64_t>(v % (uint64_t{1} << 62));
            EventBuilder b("[%d|%d]");
            b.u64(v).i64(negative);
            std::string expected = "[";
            expected.append(std::to_string(v)).append("|").append(std::to_string(negative)).append("]");
            EXPECT_EQ(rendered(b.event()), expected);
        }
        if (k < 19) power *= 10;
    }
    // Literal pieces and text arguments of every length up to past two
    // machine words, appended behind text of every length up to a line.
    for (size_t n = 0; n <= 70; ++n) {
        const std::string literal(n, static_cast<char>('a' + n % 26));
        const std::string argument(70 - n, static_cast<char>('A' + n % 26));
        const std::string format = literal + "%s" + literal;
        EventBuilder b(format.c_str());
        b.str(argument);
        std::string out(n * 3, '.');
        renderMessage(b.get(), out);
        EXPECT_EQ(out, std::string(n * 3, '.') + literal + argument + literal) << n;
    }
}

namespace {

// The event rendered as the library renders the events of a call site it
// registered: from the format read once, ahead of the event.
std::string renderedRegistered(const char* format, const LoggingEvent& event) {
    static unsigned short line = 3000;
    const EventAttributes registered(format, "RegisteredFormats.cpp", "test", ++line,
                                     static_cast<unsigned short>(detail::countConversions(format)), 0, 100);
    EXPECT_NE(registered.location->plan, nullptr);
    LoggingEvent copy = event;
    copy.attributes.location = registered.location;
    return rendered(copy);
}

}  // namespace

// The library reads the formats of the records it registers once, ahead of
// their events; the text must not change by it.
TEST(MessageRenderer, RegisteredFormatsRenderAsTheyRead) {
    struct Case {
        const char* format;
        std::function<void(EventBuilder&)> arguments;
    };
    const Case cases[] = {
        {"", [](EventBuilder&) {}},
        {"plain text, no conversions", [](EventBuilder&) {}},
        {"%d", [](EventBuilder& b) { b.i32(-5); }},
        {"%s%s", [](EventBuilder& b) { b.str("ab").str(""); }},
        {"100%% of %s%%", [](EventBuilder& b) { b.str("rows"); }},
        {"a=%d b=%s c=%5d%%", [](EventBuilder& b) { b.i32(1); }},
        {"%-8s|%08.3f|%x|%5.2s|", [](EventBuilder& b) { b.str("left").f32(2.5f).u32(255).str("cut"); }},
        {"%y unknown then %d", [](EventBuilder& b) { b.i32(1).i32(2); }},
        {"first\nsecond %s", [](EventBuilder& b) { b.str("x\ny"); }},
        {"ends cut %-05", [](EventBuilder&) {}},
        {"%p %S", [](EventBuilder& b) { b.pointer(0x1234).wstr(u"wide"); }},
        // Literal pieces around the sizes copied in one chunk, and past them.
        {"fifteen bytes..%dsixteen bytes...%ddseventeen bytes..%s", [](EventBuilder& b) { b.i32(1).i32(2).str("3"); }},
        {"%s forty bytes of literal text after it....", [](EventBuilder& b) { b.str(std::string(40, 's')); }},
        // Plain conversions of every integer width, signs and extremes, and
        // the argument's type deciding over the conversion character.
        {"%d|%i|%u|%d|%u|%d|%u|%s|%d",
         [](EventBuilder& b) {
             b.i32(INT32_MIN).i32(-7).i32(-5).u32(UINT32_MAX).i64(INT64_MIN).u64(UINT64_MAX).i16(-3).i32(42).str("text");
         }},
        {"%s|%s", [](EventBuilder& b) { b.str("a\nb").u16(65535); }},
        // Texts longer than the room a format opens for itself, alone, among
        // decimals of full length, and between conversions printed the long
        // way (which reopen the room behind them).
        {"%s", [](EventBuilder& b) { b.str(std::string(300, 'L')); }},
        {"%s|%s|%s|%d|%u", [](EventBuilder& b) {
             b.str(std::string(100, 'a')).str("b").str(std::string(1000, 'c')).i64(INT64_MIN).u64(UINT64_MAX);
         }},
        {"%5d%s%x%s%-3s%d.", [](EventBuilder& b) {
             b.i32(42).str(std::string(37, 'm')).u32(0xbeef).str(std::string(200, 'n')).str("z").i32(-1);
         }},
        {"%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s", [](EventBuilder& b) {
             for (int i = 0; i < 16; ++i) b.str(std::string(static_cast<size_t>(i * 7), static_cast<char>('a' + i)));
         }},
    };
    unsigned short line = 1000;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        EventBuilder b(c.format);
        c.arguments(b);
        const std::string expected = rendered(b.event());

        const EventAttributes registered(c.format, "RegisteredFormats.cpp", "test", ++line,
                                         static_cast<unsigned short>(detail::countConversions(c.format)), 0, 100);
        ASSERT_NE(registered.location->plan, nullptr);
        LoggingEvent event = b.event();
        event.attributes.location = registered.location;
        EXPECT_EQ(rendered(event), expected);

        // A copy of the record that points at another format renders that
        // format, not the one read for the original.
        LocationRecord other = *registered.location;
        other.format = "other %d";
        EventBuilder one("other %d");
        one.i32(9);
        LoggingEvent otherEvent = one.event();
        otherEvent.attributes.location = &other;
        EXPECT_EQ(rendered(otherEvent), "other 9");
    }
}

// Numbers below 10^8 are split into digits in one register, larger ones two
// digits at a time (in 32-bit arithmetic below 2^32): every digit count and
// both sides of each change, from a format read anew and from one read ahead.
TEST(MessageRenderer, DecimalsOfEveryLength) {
    std::vector<uint64_t> values = {0, 9, 10, 99, 100, 0xffffffffull, 0x100000000ull, UINT64_MAX};
    for (uint64_t p = 1; p <= 10000000000000000000ull / 10; p *= 10) {
        values.push_back(p * 10 - 1);
        values.push_back(p * 10);
        values.push_back(p * 10 + 1);
    }
    for (const uint64_t v : values) {
        EventBuilder b("%u|%d");
        b.u64(v).i64(-static_cast<int64_t>(v & 0x7fffffffffffffffull));
        const std::string negative = (v & 0x7fffffffffffffffull) ? "-" + std::to_string(v & 0x7fffffffffffffffull) : "0";
        EXPECT_EQ(rendered(b.event()), std::to_string(v) + "|" + negative) << v;
        EXPECT_EQ(renderedRegistered("%u|%d", b.event()), std::to_string(v) + "|" + negative) << v;
    }
}

TEST(MessageRenderer, LengthModifiersAreSkipped) {
    EventBuilder b("%lld|%hu|%ld|%Lf|%l.d");
    b.i64(-5).u16(6).i32(7).f32(1.5f).i32(8);
    EXPECT_EQ(rendered(b.event()), "-5|6|7|1.500000|8");
}

TEST(MessageRenderer, HexOctalAndCharacterConversions) {
    EventBuilder b("%x %X %o %c %x %x %X %o");
    b.i32(255).i32(255).u32(8).i32('A').i16(-1).i64(-1).u64(0xABCDEF0123ULL).i32(0);
    EXPECT_EQ(rendered(b.event()), "ff FF 10 A ffff ffffffffffffffff ABCDEF0123 0");

    // One character is the low byte.
    EventBuilder c("[%c%c]");
    c.u16(0x142).i64('z');
    EXPECT_EQ(rendered(c.event()), "[Bz]");

    // Texts print as they are whatever the conversion character.
    EventBuilder t("[%x|%c|%o]");
    t.str("a\nb").str("cd").str("");
    EXPECT_EQ(rendered(t.event()), "[a\nb|cd|]");
}

TEST(MessageRenderer, TypeCodeDecidesNotConversionCharacter) {
    EventBuilder b("%s|%d|%x|%c|%p|%f");
    b.i32(42).str("text").str("abc").str("chars").i32(-9).str("no float");
    EXPECT_EQ(rendered(b.event()), "42|text|abc|chars|-9|no float");
}

TEST(MessageRenderer, PointerIsSixteenLowerCaseDigits) {
    EventBuilder b("%p %d %p");
    b.pointer(0xDEADBEEF).pointer(0).pointer(0xFEDCBA9876543210ULL);
    EXPECT_EQ(rendered(b.event()), "0x00000000deadbeef 0x0000000000000000 0xfedcba9876543210");

    // Zero padding goes after the "0x".
    EventBuilder padded("%020p|%20p|%-20p|");
    padded.pointer(1).pointer(1).pointer(1);
    EXPECT_EQ(rendered(padded.event()),
              "0x000000000000000001|  0x0000000000000001|0x0000000000000001  |");
}

// A float is printed by printf's "%<width>.<precision>f" whatever the
// conversion character; flags do not reach it.
TEST(MessageRenderer, FloatsGoThroughPrintfFixedNotation) {
    EventBuilder b("%f|%.2f|%8.3f|%-8.1f|%08.2f|%.0f|%e|%g|%E|%10.1G|%a|%d|%s");
    b.f32(3.5f).f32(3.14159f).f32(3.14159f).f32(3.14159f).f32(-3.14159f).f32(2.5f).f32(1234.5f).f32(0.5f).f32(
        1234.5f).f32(-0.25f).f32(1.0f).f32(7.0f).f32(1e30f);
    EXPECT_EQ(rendered(b.event()),
              "3.500000|3.14|   3.142|     3.1|   -3.14|2|1234.500000|0.500000|1234.500000|      -0.2|1.000000|"
              "7.000000|1000000015047466219876688855040.000000");

    // Widths beyond the renderer's stack buffer.
    EventBuilder wide("%100.1f|");
    wide.f32(1.25f);
    EXPECT_EQ(rendered(wide.event()), std::string(97, ' ') + "1.2|");
}

// Formats that compile but once threw out of the renderer or overflowed its
// scanner: zero padding after a precision that cut away the sign or the
// "0x", and widths or precisions of more digits than an int holds (they
// saturate at 65536, one argument's largest size).
TEST(MessageRenderer, HostileWidthsAndPrecisionsNeverFault) {
    EventBuilder cut("[%05.0d][%05.1d][%05.1p][%05.2p][%05.3p][%-5.1p][%05.0x]");
    cut.i32(-5).i32(-5).pointer(1).pointer(1).pointer(1).pointer(1).u32(0xab);
    EXPECT_EQ(rendered(cut.event()), "[00000][-0000][00000][0x000][0x000][0    ][00000]");

    EventBuilder huge("[%99999999999d][%.99999999999s][%-4294967296.2s]");
    huge.i32(7).str("text").str("text");
    const std::string text = rendered(huge.event());
    EXPECT_EQ(text, "[" + std::string(65535, ' ') + "7][text][te" + std::string(65534, ' ') + "]");
}

TEST(MessageRenderer, WidthAndPrecisionOnStrings) {
    EventBuilder b("[%s][%.3s][%6s][%-6s][%06s][%.0s][%2s][%-4.2s][%s][%s]");
    b.str("abcdef").str("abcdef").str("ab").str("ab").str("ab").str("gone").str("longer").str("xyz").str("").str(
        "%d\n");
    EXPECT_EQ(rendered(b.event()), "[abcdef][abc][    ab][ab    ][0000ab][][longer][xy  ][][%d\n]");

    // The cut never splits a UTF-8 character ("é" is two bytes).
    EventBuilder utf("[%.2s][%.3s]");
    utf.str("a\xC3\xA9z").str("a\xC3\xA9z");
    EXPECT_EQ(rendered(utf.event()), "[a][a\xC3\xA9]");
}

TEST(MessageRenderer, WidthAndPrecisionOnIntegers) {
    EventBuilder b("[%5d][%-5d][%05d][%05d][%3d][%.2d][%08x][%-4u]");
    b.i32(42).i32(42).i32(42).i32(-42).i32(12345).i32(12345).u32(0xBEEF).u16(7);
    // The precision cuts the text like any other: the first characters stay.
    EXPECT_EQ(rendered(b.event()), "[   42][42   ][00042][-0042][12345][12][0000beef][7   ]");
}

TEST(MessageRenderer, WideStringsToUtf8) {
    EventBuilder b("%s|%s|%s");
    b.wstr(u"plain").wstr(u"h\u00e9llo \u20ac").wstr(u"");
    EXPECT_EQ(rendered(b.event()), "plain|h\xC3\xA9llo \xE2\x82\xAC|");

    // A surrogate pair is one character of four bytes.
    EventBuilder pair("%s");
    pair.wstr(std::u16string{0xD83D, 0xDE00});
    EXPECT_EQ(rendered(pair.event()), "\xF0\x9F\x98\x80");

    // Unpaired surrogates: a high one before a non-surrogate, a lone low one,
    // and a high one right before the terminator.
    EventBuilder broken("%s|%s|%s");
    broken.wstr(std::u16string{0xD800, u'a'}).wstr(std::u16string{u'b', 0xDC00}).wstr(std::u16string{u'c', 0xDBFF});
    EXPECT_EQ(rendered(broken.event()), "\xEF\xBF\xBD" "a|b\xEF\xBF\xBD|c\xEF\xBF\xBD");

    EventBuilder cut("%.4s");
    cut.wstr(u"ab\u00e9z");  // the cut falls inside the two-byte "é"
    EXPECT_EQ(rendered(cut.event()), "ab\xC3\xA9");
}

TEST(MessageRenderer, TimesAsLocalDatesAndDurations) {
    setenv("TZ", "UTC", 1);
    tzset();
    EventBuilder b("at %s, took %s, %s");
    b.timeArg(1700000000, 123456).timeArg(5, 123456).timeArg(1189622116, 7);
    EXPECT_EQ(rendered(b.event()), "at 2023-11-14 Tue +0000 22:13:20.123, took 5.456, 1189622116.007");

    EventBuilder padded("[%40s]");
    padded.timeArg(1700000000, 999999);
    EXPECT_EQ(rendered(padded.event()), "[       2023-11-14 Tue +0000 22:13:20.999]");
}

TEST(MessageRenderer, RawBytesAsHexDump) {
    const unsigned char bytes[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D',
                                   'E', 'F', 0x00, 0x01, 0xFF, 0x7F, 0x20, 0x7E, 0x1F, 0x80};
    EventBuilder b("dump:%s|");
    b.raw(bytes, sizeof bytes);
    const std::string expected =
        "dump:"
        "\r\n00000000  30 31 32 33 34 35 36 37 38 39 41 42 43 44 45 46  0123456789ABCDEF"
        "\r\n00000010  00 01 ff 7f 20 7e 1f 80                          .... ~.."
        "|";
    EXPECT_EQ(rendered(b.event()), expected);

    // Whole lines are 77 characters each.
    unsigned char block[48];
    for (unsigned i = 0; i < sizeof block; ++i) block[i] = static_cast<unsigned char>('a' + i % 26);
    EventBuilder lines("%s");
    lines.raw(block, sizeof block);
    const std::string dump = rendered(lines.event());
    ASSERT_EQ(dump.size(), 3u * 77u);
    EXPECT_EQ(dump.substr(77, 77),
              "\r\n00000010  71 72 73 74 75 76 77 78 79 7a 61 62 63 64 65 66  qrstuvwxyzabcdef");
    EXPECT_EQ(dump.substr(154, 12), "\r\n00000020  ");

    EventBuilder empty("[%s]");
    empty.raw(nullptr, 0);
    EXPECT_EQ(rendered(empty.event()), "[]");
}

TEST(MessageRenderer, UnknownTypeCodeAndUnknownConversion) {
    const uint32_t junk = 0x12345678;
    EventBuilder b("%d %d %s");
    b.typed('z', &junk, sizeof junk).i32(7).typed(0, &junk, sizeof junk);
    EXPECT_EQ(rendered(b.event()), "### 7 ###");

    // An unknown conversion consumes its argument and prints no value.
    EventBuilder q("%q %d");
    q.i32(1).i32(2);
    EXPECT_EQ(rendered(q.event()), "%?q? 2");

    // "z" is no length modifier here: it is the conversion, "u" plain text.
    EventBuilder z("%zu!");
    z.u64(3);
    EXPECT_EQ(rendered(z.event()), "%?z?u!");

    // Arguments used up come first.
    EXPECT_EQ(rendered(EventBuilder("%q").event()), "???");
}

TEST(MessageRenderer, AgreesWithCompileTimeArgumentCount) {
    const char* formats[] = {"%d", "%%", "a %s b %5.2f c %%%x", "%q%-08lld%", "%ld%hu%Lf%.%", "%-", "no conversions",
                             "%zu %.3s %05p"};
    for (const char* format : formats) {
        SCOPED_TRACE(format);
        const unsigned n = detail::countConversions(format);
        EventBuilder enough(format);
        for (unsigned i = 0; i < n; ++i) enough.i32(1);
        EXPECT_EQ(rendered(enough.event()).find("???"), std::string::npos);
        if (n > 0) {
            EventBuilder oneShort(format);
            for (unsigned i = 0; i + 1 < n; ++i) oneShort.i32(1);
            const std::string text = rendered(oneShort.event());
            const size_t at = text.find("???");
            ASSERT_NE(at, std::string::npos);
            EXPECT_EQ(text.find("???", at + 3), std::string::npos);
        }
    }
}

TEST(MessageRenderer, EventWithoutLocationRendersNothing) {
    EventBuilder b("unused");
    LoggingEvent event = b.event();
    event.attributes.location = nullptr;
    std::string out = "kept";
    renderMessage(&event, out);
    renderMessage(nullptr, out);
    EXPECT_EQ(out, "kept");
}
