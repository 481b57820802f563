// The local-time text of one second in one date format, kept so that events
// within that second only add their milliseconds. Used by formatDate's
// per-thread cache and by the pattern layout's own per-element cache.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zvlog/layout/TextAppend.h"

namespace zvs::zvlib::zvlog {

// Times before this second are durations measured by the library clock, not
// calendar times.
constexpr uint32_t kFirstCalendarSecond = 1189622117;

struct DateSecond {
    static constexpr size_t kTextMax = 128;

    uint32_t second;
    bool valid;
    bool hasSeconds;  // the format shows seconds: ".mmm" follows them
    uint16_t headLen;
    uint16_t tailLen;
    char head[kTextMax];  // up to and including the seconds
    char tail[kTextMax];  // after them

    // Formats a calendar second; false (and invalid) when a half does not fit.
    bool fill(uint32_t second, const char* format, size_t formatLength);
    // head, ".mmm" when the format shows seconds, tail.
    void put(text::Writer& w, unsigned milliseconds) const {
        // head and tail are arrays of kTextMax: a short one is copied as
        // one chunk of 32 or 16 bytes whatever its length.
        char* p = w.room(static_cast<size_t>(headLen) + 4 + tailLen + 32);
        if (headLen <= 32)
            std::memcpy(p, head, 32);
        else
            std::memcpy(p, head, headLen);
        p += headLen;
        if (hasSeconds) p = writeMilliseconds(p, milliseconds);
        if (tailLen <= 16)
            std::memcpy(p, tail, 16);
        else
            std::memcpy(p, tail, tailLen);
        w.advance(p + tailLen);
    }

    // ".mmm" at p; returns the position after it.
    static char* writeMilliseconds(char* p, unsigned milliseconds) {
        p[0] = '.';
        p[1] = static_cast<char>('0' + milliseconds / 100);
        p[2] = static_cast<char>('0' + milliseconds / 10 % 10);
        p[3] = static_cast<char>('0' + milliseconds % 10);
        return p + 4;
    }
};

}  // namespace zvs::zvlib::zvlog
