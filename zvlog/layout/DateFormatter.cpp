// Local-time rendering of event times, for "%d" in patterns and for time
// arguments of messages.
//
// localtime_r and strftime cost far more than the rest of a formatted line, and
// a busy logger formats many events within one second. So each thread keeps
// the strftime output of its last few (second, format) pairs, split after the
// seconds; a call within the same second only appends the cached halves with
// the current milliseconds between them.

#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "zvlog/Layout.h"
#include "zvlog/layout/DateText.h"
#include "zvlog/layout/TextAppend.h"

namespace zvs::zvlib::zvlog {
namespace {

// Formats up to this length are cached; longer ones are formatted afresh.
constexpr size_t kCachedFormatMax = 63;
constexpr unsigned kCacheEntries = 4;

// Where computeHalves writes the two strftime outputs.
struct DateHalves {
    char* head;
    size_t headCap;
    size_t headLen;
    char* tail;
    size_t tailCap;
    size_t tailLen;
    bool hasSeconds;
};

// Rewrites format[0..len) for strftime: "%z" and "%Z" become the literal
// offset, and the text is split after its first "%S" ("%%" pairs are skipped,
// so "%%S" is not a seconds conversion). headFmt and tailFmt must each hold
// 3 * len + 1 characters. Returns whether a "%S" was found.
bool splitFormat(const char* format, size_t len, const char (&offset)[5], char* headFmt, char* tailFmt) {
    char* w = headFmt;
    bool hasSeconds = false;
    for (size_t i = 0; i < len; ++i) {
        const char c = format[i];
        if (c != '%' || i + 1 == len) {
            *w++ = c;
            continue;
        }
        const char n = format[++i];
        if (n == 'z' || n == 'Z') {
            std::memcpy(w, offset, sizeof offset);
            w += sizeof offset;
            continue;
        }
        *w++ = '%';
        *w++ = n;
        if (n == 'S' && !hasSeconds) {
            *w = '\0';
            hasSeconds = true;
            w = tailFmt;
        }
    }
    *w = '\0';
    if (!hasSeconds) *tailFmt = '\0';
    return hasSeconds;
}

// strftime reports both "empty" and "did not fit" as 0. With a non-empty
// format we take 0 for "did not fit" unless the buffer is the final, large one.
bool runStrftime(char* buf, size_t cap, const char* fmt, const struct tm& tm, bool finalTry, size_t& len) {
    len = 0;
    if (!*fmt) return true;
    len = std::strftime(buf, cap, fmt, &tm);
    return len != 0 || finalTry;
}

bool computeHalves(uint32_t second, const char* format, size_t len, DateHalves& h, bool finalTry) {
    const time_t t = static_cast<time_t>(second);
    struct tm tm;
    if (!localtime_r(&t, &tm)) {
        std::memset(&tm, 0, sizeof tm);
    }
    long gmtOffset = tm.tm_gmtoff;
    char offset[5];
    offset[0] = gmtOffset < 0 ? '-' : '+';
    if (gmtOffset < 0) gmtOffset = -gmtOffset;
    const long hours = (gmtOffset / 3600) % 100;
    const long minutes = (gmtOffset % 3600) / 60;
    offset[1] = static_cast<char>('0' + hours / 10);
    offset[2] = static_cast<char>('0' + hours % 10);
    offset[3] = static_cast<char>('0' + minutes / 10);
    offset[4] = static_cast<char>('0' + minutes % 10);

    const size_t fmtCap = 3 * len + 1;
    char stackFmt[2 * (3 * kCachedFormatMax + 1)];
    std::unique_ptr<char[]> heapFmt;
    char* headFmt = stackFmt;
    if (2 * fmtCap > sizeof stackFmt) {
        heapFmt.reset(new char[2 * fmtCap]);
        headFmt = heapFmt.get();
    }
    char* tailFmt = headFmt + fmtCap;
    h.hasSeconds = splitFormat(format, len, offset, headFmt, tailFmt);
    return runStrftime(h.head, h.headCap, headFmt, tm, finalTry, h.headLen) &&
           runStrftime(h.tail, h.tailCap, tailFmt, tm, finalTry, h.tailLen);
}

struct CacheEntry {
    uint16_t formatLen;
    char format[kCachedFormatMax + 1];
    DateSecond text;
};

struct DateCache {
    CacheEntry entries[kCacheEntries];
    unsigned next;
};

// Plain data on purpose: nothing to construct or destroy, so formatting from
// another thread-exit handler is still safe.
thread_local DateCache t_dateCache;

}  // namespace

bool DateSecond::fill(uint32_t sec, const char* format, size_t len) {
    valid = false;
    DateHalves h{head, sizeof head, 0, tail, sizeof tail, 0, false};
    if (!computeHalves(sec, format, len, h, false)) return false;
    second = sec;
    headLen = static_cast<uint16_t>(h.headLen);
    tailLen = static_cast<uint16_t>(h.tailLen);
    hasSeconds = h.hasSeconds;
    valid = true;
    return true;
}

void formatDate(const timeval32_t& time, const char* format, std::string& out) {
    const uint32_t second = time.tv_sec;
    if (second < kFirstCalendarSecond) {
        // A duration: seconds, and the microseconds' lowest three digits.
        text::appendUnsigned(out, second);
        out += '.';
        text::appendZeroFilled(out, time.tv_usec % 1000, 3);
        return;
    }
    if (!format) format = "";
    const size_t len = std::strlen(format);
    const unsigned ms = (time.tv_usec / 1000) % 1000;
    text::Writer w(out, 0);

    if (len <= kCachedFormatMax) {
        DateCache& cache = t_dateCache;
        CacheEntry* entry = nullptr;
        for (CacheEntry& e : cache.entries) {
            if (e.text.valid && e.formatLen == len && std::memcmp(e.format, format, len) == 0) {
                entry = &e;
                break;
            }
        }
        if (entry && entry->text.second == second) {
            entry->text.put(w, ms);
            return;
        }
        if (!entry) entry = &cache.entries[cache.next++ % kCacheEntries];
        if (entry->text.fill(second, format, len)) {
            entry->formatLen = static_cast<uint16_t>(len);
            std::memcpy(entry->format, format, len);
            entry->format[len] = '\0';
            entry->text.put(w, ms);
            return;
        }
    }

    // A long format or a long result: format without the cache.
    const size_t cap = 16 * len + 256;
    std::unique_ptr<char[]> buf(new char[2 * cap]);
    DateHalves h{buf.get(), cap, 0, buf.get() + cap, cap, 0, false};
    computeHalves(second, format, len, h, true);
    w.put(h.head, h.headLen);
    if (h.hasSeconds) w.advance(DateSecond::writeMilliseconds(w.room(4), ms));
    w.put(h.tail, h.tailLen);
}

}  // namespace zvs::zvlib::zvlog
