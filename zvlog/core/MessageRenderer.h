// The message renderer's entry for the library's own layouts: it writes
// through their writer instead of appending to a string piece by piece. The
// rendering of a registered format, the usual case, is inline here, so that
// a layout renders its message without a call.
#pragma once

#include <cstdint>
#include <cstring>

#include "zvlog/Export.h"
#include "zvlog/FormatScan.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/core/FormatPlan.h"
#include "zvlog/layout/TextAppend.h"

namespace zvs::zvlib::zvlog {

// Returns whether the text may hold a line end.
bool renderMessage(const LoggingEvent* event, text::Writer& w);

namespace render {

// Writes argument `index` of the event as the conversion asks; returns
// whether the text may hold a line end.
bool putArgument(const LoggingEvent* event, unsigned index, detail::ConversionSpec spec, text::Writer& w);

// A value at p, which may be unaligned (arguments lie packed in the buffer).
template <class T>
T load(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// A 32- or 64-bit integer in decimal without width or precision, written at
// p, which has FormatPlan::kDecimalRoom bytes of room; returns the end of
// what was written, or null, having written nothing, for any other type.
[[gnu::always_inline]] inline char* writeInteger(char* p, unsigned char type, const void* value) {
    uint64_t magnitude;
    bool negative = false;
    switch (type) {
        case ARG_INT32: {
            const int32_t v = load<int32_t>(value);
            negative = v < 0;
            magnitude = negative ? 0 - static_cast<uint64_t>(static_cast<int64_t>(v)) : static_cast<uint64_t>(v);
            break;
        }
        case ARG_UINT32:
            magnitude = load<uint32_t>(value);
            break;
        case ARG_INT64: {
            const int64_t v = load<int64_t>(value);
            negative = v < 0;
            magnitude = negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
            break;
        }
        case ARG_UINT64:
            magnitude = load<uint64_t>(value);
            break;
        default:
            return nullptr;
    }
    *p = '-';
    return text::writeDecimal(p + negative, magnitude);
}

// The same through the writer; false for anything else, which goes through
// appendArgument on the string.
[[gnu::always_inline]] inline bool putDecimal(text::Writer& w, unsigned char type, const void* value) {
    char* end = writeInteger(w.room(FormatPlan::kDecimalRoom), type, value);
    if (!end) return false;
    w.advance(end);
    return true;
}

// Whether n bytes at s hold a line end. Short texts, the usual case, are
// read as one or two words instead of through a call.
inline bool containsLineEnd(const char* s, size_t n) {
    if (n > 16) return std::memchr(s, '\n', n) != nullptr;
    if (n >= 8) {
        auto hasLineEnd = [](uint64_t word) {
            const uint64_t x = word ^ 0x0a0a0a0a0a0a0a0aull;
            return ((x - 0x0101010101010101ull) & ~x & 0x8080808080808080ull) != 0;
        };
        return hasLineEnd(load<uint64_t>(s)) || hasLineEnd(load<uint64_t>(s + n - 8));
    }
    if (n >= 4) {
        auto hasLineEnd = [](uint32_t word) {
            const uint32_t x = word ^ 0x0a0a0a0au;
            return ((x - 0x01010101u) & ~x & 0x80808080u) != 0;
        };
        return hasLineEnd(load<uint32_t>(s)) || hasLineEnd(load<uint32_t>(s + n - 4));
    }
    for (size_t i = 0; i < n; ++i)
        if (s[i] == '\n') return true;
    return false;
}

// The plan an event renders from: its record's, while the record still
// points at the format the plan was read from; null otherwise.
inline const FormatPlan* planOf(const LoggingEvent& event) {
    const LocationRecord* location = event.attributes.location;
    if (!location || !location->plan || location->plan->format != location->format) return nullptr;
    return location->plan;
}

// The arguments a message renders: at most LoggingEvent::kMaxArguments.
inline unsigned argumentsOf(const LoggingEvent& event) {
    return event.argumentCount < LoggingEvent::kMaxArguments ? event.argumentCount : LoggingEvent::kMaxArguments;
}

// Renders a registered format from its plan. The room for the literal text,
// the pad and the decimals is opened once and written through a plain
// pointer; a text argument opens more when it does not fit.
[[gnu::always_inline]] inline bool renderPlanned(const FormatPlan& plan, const LoggingEvent* event, unsigned count,
                                                 text::Writer& w) {
    bool lineEnd = plan.literalLineEnd;
    const char* const literal = plan.literal.data();
    char* p = w.room(plan.room);
    char* end = p + plan.room;
    uint32_t at = 0;
    unsigned next = 0;
    // n bytes of the literal text at `at`; there is room for kPad more.
    auto putLiteral = [&](uint32_t n) __attribute__((always_inline)) {
        if (n <= text::Writer::kPad)
            std::memcpy(p, literal + at, text::Writer::kPad);
        else
            std::memcpy(p, literal + at, n);
        p += n;
        at += n;
    };
    for (const FormatPlan::Conversion& c : plan.conversions) {
        putLiteral(c.literalEnd - at);
        if (ZVLOG_LIKELY(c.plain && next < count)) {
            const void* value = event->argumentValues[next];
            const unsigned char type = event->argumentTypes[next];
            if (value && type == ARG_STRING) {
                ++next;
                const char* text = static_cast<const char*>(value);
                const size_t n = std::strlen(text);
                if (ZVLOG_UNLIKELY(static_cast<size_t>(end - p) < n + c.roomAfter)) {
                    w.advance(p);
                    p = w.room(n + c.roomAfter);
                    end = p + n + c.roomAfter;
                }
                text::Writer::copy(p, text, n);
                p += n;
                if (containsLineEnd(text, n)) lineEnd = true;
                continue;
            }
            if (value) {
                if (char* written = writeInteger(p, type, value)) {
                    ++next;
                    p = written;
                    continue;
                }
            }
        }
        // Anything else prints through the writer.
        w.advance(p);
        if (next >= count) {
            w.put("???", 3);
        } else if (putArgument(event, next++, c.spec, w)) {
            lineEnd = true;
        }
        p = w.room(c.roomAfter);
        end = p + c.roomAfter;
    }
    putLiteral(plan.literalSize - at);
    w.advance(p);
    return lineEnd;
}

}  // namespace render

// renderMessage, with a registered format rendered inline.
[[gnu::always_inline]] inline bool renderMessageInline(const LoggingEvent* event, text::Writer& w) {
    if (const FormatPlan* plan = render::planOf(*event))
        return render::renderPlanned(*plan, event, render::argumentsOf(*event), w);
    return renderMessage(event, w);
}

}  // namespace zvs::zvlib::zvlog
