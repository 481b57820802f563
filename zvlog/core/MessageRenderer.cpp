// Renders an event's printf-like format with its typed arguments.
//
// The conversions are read by detail::parseConversion, the same parser that
// counts a call site's arguments at compile time, so the renderer and the
// argument check can never disagree about which "%" consumes an argument.
//
// What a conversion prints is decided by the argument's type code, not by the
// conversion character: "%s" of an integer prints the number, "%d" of a text
// prints the text. The conversion character only matters for integers
// ("x", "X", "o", "c"); a float always prints in fixed notation.
//
// Width and precision then apply to the produced text, printf fashion:
// - the precision cuts the text to its first `precision` bytes (never inside a
//   UTF-8 character); for a float it is the number of fraction digits instead,
//   and the width reaches printf as well;
// - a shorter text is padded to the width: with "-" blanks follow it,
//   otherwise zeros ("0") or blanks precede it. Zero padding goes after the
//   sign of a negative decimal number and after the "0x" of a pointer.
//
// The known conversion characters are the printf ones: d i u x X o c s S p
// f F e E g G a A. Any other takes its argument and prints "%?_?" with the
// character in place of "_"; a type code the renderer does not know prints
// "###"; a conversion with no argument left prints "???". Conversions cut off
// by the end of the format are copied as they stand and consume nothing. All
// of this matches detail::countConversions.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "zvlog/FormatScan.h"
#include "zvlog/Layout.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/core/FormatPlan.h"
#include "zvlog/core/MessageRenderer.h"
#include "zvlog/layout/TextAppend.h"

namespace zvs::zvlib::zvlog {

using namespace render;

namespace {

using detail::ConversionSpec;

constexpr const char* kTimeArgumentFormat = "%Y-%m-%d %a %Z %H:%M:%S";

bool isKnownConversion(char c) {
    switch (c) {
        case 'd': case 'i': case 'u': case 'x': case 'X': case 'o': case 'c':
        case 's': case 'S': case 'p':
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
            return true;
        default:
            return false;
    }
}

// An integer argument of `bits` width. x, X and o print the value's bit
// pattern at its own width (so -1 of a 16-bit argument is "ffff"), c prints
// its low byte as one character, everything else prints it in decimal.
// Returns the length of the sign, for zero padding.
size_t appendInteger(std::string& out, uint64_t bitsValue, bool isSigned, unsigned bits, char conversion) {
    const uint64_t mask = bits == 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
    const uint64_t u = bitsValue & mask;
    switch (conversion) {
        case 'x':
            text::appendRadix(out, u, 4, false);
            return 0;
        case 'X':
            text::appendRadix(out, u, 4, true);
            return 0;
        case 'o':
            text::appendRadix(out, u, 3, false);
            return 0;
        case 'c':
            out += static_cast<char>(u & 0xFF);
            return 0;
        default:
            break;
    }
    if (!isSigned) {
        text::appendUnsigned(out, u);
        return 0;
    }
    // Sign-extend from the argument's width.
    const uint64_t signBit = uint64_t{1} << (bits - 1);
    const int64_t s = static_cast<int64_t>((u ^ signBit) - signBit);
    text::appendSigned(out, s);
    return s < 0 ? 1 : 0;
}

void appendPointer(std::string& out, uint64_t v) {
    static constexpr char kDigits[] = "0123456789abcdef";
    char buf[18] = {'0', 'x'};
    for (int i = 17; i >= 2; --i, v >>= 4) buf[i] = kDigits[v & 15];
    out.append(buf, sizeof buf);
}

// A float goes through printf as "%", the width, "." and the precision
// (each only when given) and "f", whatever the conversion character: the
// catalogued formats were written against that rule. Flags do not reach
// printf, which pads a short number with blanks in front.
void appendFloat(std::string& out, float value, const ConversionSpec& spec) {
    char fmt[32];
    char* w = fmt;
    *w++ = '%';
    if (spec.width > 0) w += std::snprintf(w, 12, "%d", spec.width);
    if (spec.precision >= 0) w += std::snprintf(w, 13, ".%d", spec.precision);
    *w++ = 'f';
    *w = '\0';
    const double d = value;
    char buf[64];
    const int n = std::snprintf(buf, sizeof buf, fmt, d);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof buf) {
        out.append(buf, static_cast<size_t>(n));
        return;
    }
    // Wide fields and large values: print straight into the output (writing
    // the terminator at out[size()] is allowed).
    const size_t start = out.size();
    out.resize(start + static_cast<size_t>(n));
    std::snprintf(&out[start], static_cast<size_t>(n) + 1, fmt, d);
}

// The hexadecimal dump of raw bytes. Every line covers 16 bytes and is exactly
// 77 characters: it begins with the line end, so that the dump starts on a
// line of its own and the text after it (usually the layout's line end)
// continues the last dump line:
//
//   "\r\n"  (2)  line end
//   "%08x"  (8)  offset of the line's first byte, lower-case
//   "  "    (2)
//   47           the bytes as two lower-case digits, separated by one blank
//   "  "    (2)
//   16           the bytes as characters, "." for bytes outside 0x20..0x7e
//
// A last line of k < 16 bytes keeps the hexadecimal column at its full width
// (blanks in place of missing bytes) so the character columns line up, and
// has only k characters: 61 + k characters. Zero bytes print nothing.
constexpr size_t kDumpLine = 77;
constexpr size_t kDumpBytesPerLine = 16;

void appendHexDump(std::string& out, const unsigned char* data, size_t length) {
    static constexpr char kDigits[] = "0123456789abcdef";
    if (length == 0) return;
    const size_t fullLines = length / kDumpBytesPerLine;
    const size_t rest = length % kDumpBytesPerLine;
    const size_t total = fullLines * kDumpLine + (rest ? kDumpLine - (kDumpBytesPerLine - rest) : 0);
    const size_t start = out.size();
    out.resize(start + total);
    char* w = &out[start];
    for (size_t offset = 0; offset < length; offset += kDumpBytesPerLine) {
        const size_t n = length - offset < kDumpBytesPerLine ? length - offset : kDumpBytesPerLine;
        *w++ = '\r';
        *w++ = '\n';
        for (int shift = 28; shift >= 0; shift -= 4) *w++ = kDigits[(offset >> shift) & 15];
        *w++ = ' ';
        *w++ = ' ';
        for (size_t i = 0; i < kDumpBytesPerLine; ++i) {
            if (i) *w++ = ' ';
            if (i < n) {
                *w++ = kDigits[data[offset + i] >> 4];
                *w++ = kDigits[data[offset + i] & 15];
            } else {
                *w++ = ' ';
                *w++ = ' ';
            }
        }
        *w++ = ' ';
        *w++ = ' ';
        for (size_t i = 0; i < n; ++i) {
            const unsigned char c = data[offset + i];
            *w++ = c >= 0x20 && c <= 0x7e ? static_cast<char>(c) : '.';
        }
    }
}

void appendUtf8(std::string& out, uint32_t cp) {
    char buf[4];
    size_t n;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
        return;
    } else if (cp < 0x800) {
        buf[0] = static_cast<char>(0xC0 | (cp >> 6));
        buf[1] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 2;
    } else if (cp < 0x10000) {
        buf[0] = static_cast<char>(0xE0 | (cp >> 12));
        buf[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        buf[2] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 3;
    } else {
        buf[0] = static_cast<char>(0xF0 | (cp >> 18));
        buf[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        buf[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        buf[3] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 4;
    }
    out.append(buf, n);
}

// UTF-16 (the buffer's byte order, possibly unaligned) up to a zero unit, to
// UTF-8, the process code page. An unpaired surrogate becomes U+FFFD.
void appendWide(std::string& out, const unsigned char* p) {
    for (;;) {
        const uint16_t u = load<uint16_t>(p);
        if (u == 0) return;
        p += 2;
        uint32_t cp = u;
        if (u >= 0xD800 && u <= 0xDBFF) {
            const uint16_t low = load<uint16_t>(p);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                cp = 0x10000 + ((uint32_t{u} - 0xD800) << 10) + (low - 0xDC00u);
                p += 2;
            } else {
                cp = 0xFFFD;
            }
        } else if (u >= 0xDC00 && u <= 0xDFFF) {
            cp = 0xFFFD;
        }
        appendUtf8(out, cp);
    }
}

void applyWidthAndPrecision(std::string& out, size_t start, const ConversionSpec& spec, size_t prefixLen,
                            bool cut) {
    if (cut && spec.precision >= 0 && out.size() - start > static_cast<size_t>(spec.precision)) {
        text::keepFirst(out, start, static_cast<size_t>(spec.precision));
    }
    const size_t len = out.size() - start;
    if (spec.width <= 0 || len >= static_cast<size_t>(spec.width)) return;
    // The precision may have cut into the sign or the "0x" itself.
    if (prefixLen > len) prefixLen = len;
    const size_t pad = static_cast<size_t>(spec.width) - len;
    if (spec.leftAlign) {
        out.append(pad, ' ');
    } else if (spec.zeroPad) {
        out.insert(start + prefixLen, pad, '0');
    } else {
        out.insert(start, pad, ' ');
    }
}

void appendArgument(std::string& out, unsigned char type, const void* value, const ConversionSpec& spec) {
    const size_t start = out.size();
    size_t prefixLen = 0;  // kept in front of zero padding
    bool cut = true;
    const char conv = spec.conversion;
    switch (type) {
        case ARG_INT16:
            prefixLen = appendInteger(out, static_cast<uint64_t>(load<int16_t>(value)), true, 16, conv);
            break;
        case ARG_UINT16:
            prefixLen = appendInteger(out, load<uint16_t>(value), false, 16, conv);
            break;
        case ARG_INT32:
            prefixLen = appendInteger(out, static_cast<uint64_t>(load<int32_t>(value)), true, 32, conv);
            break;
        case ARG_UINT32:
            prefixLen = appendInteger(out, load<uint32_t>(value), false, 32, conv);
            break;
        case ARG_INT64:
            prefixLen = appendInteger(out, static_cast<uint64_t>(load<int64_t>(value)), true, 64, conv);
            break;
        case ARG_UINT64:
            prefixLen = appendInteger(out, load<uint64_t>(value), false, 64, conv);
            break;
        case ARG_POINTER:
            appendPointer(out, load<uint64_t>(value));
            prefixLen = 2;
            break;
        case ARG_RAW: {
            const auto* p = static_cast<const unsigned char*>(value);
            appendHexDump(out, p + sizeof(uint32_t), load<uint32_t>(p));
            break;
        }
        case ARG_STRING:
            out.append(static_cast<const char*>(value));
            break;
        case ARG_TIME:
            formatDate(load<timeval32_t>(value), kTimeArgumentFormat, out);
            break;
        case ARG_WSTRING:
            appendWide(out, static_cast<const unsigned char*>(value));
            break;
        case ARG_FLOAT:
            // snprintf has applied width, precision and flags itself.
            appendFloat(out, load<float>(value), spec);
            cut = false;
            break;
        default:
            out.append("###", 3);
            break;
    }
    if (spec.width > 0 || (cut && spec.precision >= 0)) applyWidthAndPrecision(out, start, spec, prefixLen, cut);
}


// An argument of a conversion without width or precision that prints
// integers in decimal (not x, X, o or c), the short way: a text as it is, a
// 32- or 64-bit integer in decimal. False, having written nothing, for
// anything else; lineEnd tells whether a text held a line end.
[[gnu::always_inline]] inline bool putPlainly(text::Writer& w, unsigned char type, const void* value, bool& lineEnd) {
    if (type == ARG_STRING) {
        const char* text = static_cast<const char*>(value);
        const size_t n = std::strlen(text);
        w.put(text, n);
        lineEnd = containsLineEnd(text, n);
        return true;
    }
    return putDecimal(w, type, value);
}

// Walks a format: literal(text, n) for the text to copy, conversion(spec)
// for each conversion that consumes an argument.
template <class Literal, class Conversion>
void scanFormat(const char* p, Literal&& literal, Conversion&& conversion) {
    for (;;) {
        const char* percent = strchrnul(p, '%');
        if (percent != p) literal(p, static_cast<size_t>(percent - p));
        if (!*percent) return;
        ConversionSpec spec;
        p = detail::parseConversion(percent + 1, spec);
        if (spec.conversion == '%') {
            literal("%", 1);
        } else if (spec.conversion == 0) {
            literal(percent, std::strlen(percent));
            return;
        } else {
            conversion(spec);
        }
    }
}

}  // namespace

namespace render {

bool putArgument(const LoggingEvent* event, unsigned index, ConversionSpec spec, text::Writer& w) {
    if (!isKnownConversion(spec.conversion)) {
        const char text[4] = {'%', '?', spec.conversion, '?'};
        w.put(text, 4);
        return false;
    }
    const void* value = event->argumentValues[index];
    if (!value) {
        w.put("###", 3);
        return false;
    }
    const unsigned char type = event->argumentTypes[index];
    bool lineEnd = false;
    const bool radixOrCharacter =
        spec.conversion == 'x' || spec.conversion == 'X' || spec.conversion == 'o' || spec.conversion == 'c';
    if (spec.width == 0 && spec.precision < 0 && !radixOrCharacter && putPlainly(w, type, value, lineEnd))
        return lineEnd;
    std::string& out = w.string();
    const size_t start = out.size();
    appendArgument(out, type, value, spec);
    return std::memchr(out.data() + start, '\n', out.size() - start) != nullptr;
}

}  // namespace render

namespace {

// Conversions whose text or integer argument renderPlanned prints directly.
bool isPlain(const ConversionSpec& spec) {
    if (spec.width != 0 || spec.precision >= 0) return false;
    switch (spec.conversion) {
        case 'd': case 'i': case 'u': case 's': case 'S':
            return true;
        default:
            return false;
    }
}

}  // namespace

const FormatPlan* makeFormatPlan(const char* format) {
    auto* plan = new FormatPlan{format, {}, 0, 0, {}, false};
    scanFormat(
        format, [&](const char* text, size_t n) { plan->literal.append(text, n); },
        [&](const ConversionSpec& spec) {
            plan->conversions.push_back({static_cast<uint32_t>(plan->literal.size()), spec, isPlain(spec), 0});
        });
    plan->literalLineEnd = plan->literal.find('\n') != std::string::npos;
    plan->literalSize = static_cast<uint32_t>(plan->literal.size());
    uint32_t room = plan->literalSize + static_cast<uint32_t>(text::Writer::kPad);
    for (auto c = plan->conversions.rbegin(); c != plan->conversions.rend(); ++c) {
        c->roomAfter = room - c->literalEnd;
        room += FormatPlan::kDecimalRoom;
    }
    plan->room = room;
    plan->literal.append(text::Writer::kPad, '\0');
    return plan;
}

// Whether a line end was written is told from the texts copied (the
// format's pieces and the text arguments), not by searching the output:
// reading back bytes just stored in small pieces stalls the processor.
bool renderMessage(const LoggingEvent* event, text::Writer& w) {
    if (!event) return false;
    const unsigned count = argumentsOf(*event);
    if (const FormatPlan* plan = planOf(*event)) return renderPlanned(*plan, event, count, w);
    const LocationRecord* location = event->attributes.location;
    if (!location || !location->format) return false;

    unsigned next = 0;
    bool lineEnd = false;
    scanFormat(
        location->format,
        [&](const char* text, size_t n) __attribute__((always_inline)) {
            if (!lineEnd && containsLineEnd(text, n)) lineEnd = true;
            w.put(text, n);
        },
        [&](const ConversionSpec& spec) {
            // A conversion with no argument left prints "???".
            if (next >= count)
                w.put("???", 3);
            else if (putArgument(event, next++, spec, w))
                lineEnd = true;
        });
    return lineEnd;
}

void renderMessage(const LoggingEvent* event, std::string& out) {
    text::Writer w(out, 0);
    renderMessage(event, w);
}

}  // namespace zvs::zvlib::zvlog
