// Small appenders of numbers and padding shared by the message renderer, the
// date formatter and the pattern layout. They write straight into the output
// string: no streams, no locale, no temporary strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace zvs::zvlib::zvlog::text {

// Writes v in decimal so that it ends just before end; returns its first
// character. Two digits per division.
inline char* writeDecimalBackwards(char* end, uint64_t v) {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    while (v > 0xffffffffu) {
        const unsigned pair = static_cast<unsigned>(v % 100) * 2;
        v /= 100;
        *--end = kPairs[pair + 1];
        *--end = kPairs[pair];
    }
    // The rest in 32-bit arithmetic, whose division by 100 is cheaper.
    uint32_t w = static_cast<uint32_t>(v);
    while (w >= 100) {
        const unsigned pair = (w % 100) * 2;
        w /= 100;
        *--end = kPairs[pair + 1];
        *--end = kPairs[pair];
    }
    v = w;
    if (v >= 10) {
        const unsigned pair = static_cast<unsigned>(v) * 2;
        *--end = kPairs[pair + 1];
        *--end = kPairs[pair];
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

// The number of decimal digits of v (1 for 0).
inline unsigned decimalDigits(uint64_t v) {
    static constexpr uint64_t kPowers[] = {1ull,
                                           10ull,
                                           100ull,
                                           1000ull,
                                           10000ull,
                                           100000ull,
                                           1000000ull,
                                           10000000ull,
                                           100000000ull,
                                           1000000000ull,
                                           10000000000ull,
                                           100000000000ull,
                                           1000000000000ull,
                                           10000000000000ull,
                                           100000000000000ull,
                                           1000000000000000ull,
                                           10000000000000000ull,
                                           100000000000000000ull,
                                           1000000000000000000ull,
                                           10000000000000000000ull};
    // log10 from log2 (1233 / 4096 is just above log10(2)), then one compare.
    const unsigned bits = 64 - static_cast<unsigned>(__builtin_clzll(v | 1));
    const unsigned guess = (bits * 1233) >> 12;
    return guess + ((v | 1) >= kPowers[guess] ? 1 : 0);
}

// Up to eight decimal digits of v < 10^8 as eight ASCII bytes in one word,
// the first digit in the lowest byte: the two halves of four digits, then
// the four pairs, then the eight digits are split side by side in the lanes
// of one register, by multiplying with reciprocals.
[[gnu::always_inline]] inline uint64_t eightDigits(uint32_t v) {
    const uint32_t high = v / 10000;
    const uint64_t halves = high | (uint64_t{v - high * 10000} << 32);          // 2 x 0..9999
    const uint64_t hundreds = ((halves * 10486) >> 20) & 0x0000007F0000007Full;  // x / 100
    const uint64_t pairs = hundreds | ((halves - hundreds * 100) << 16);        // 4 x 0..99
    const uint64_t tens = ((pairs * 103) >> 10) & 0x000F000F000F000Full;         // x / 10
    const uint64_t digits = tens | ((pairs - tens * 10) << 8);                  // 8 x 0..9
    return digits + 0x3030303030303030ull;
}

// Writes v in decimal at p and returns the end; p must have 20 bytes of room
// (a short number is stored as one word of eight bytes).
[[gnu::always_inline]] inline char* writeDecimal(char* p, uint64_t v) {
    const unsigned n = decimalDigits(v);
    if (v < 100000000) {
        const uint64_t word = eightDigits(static_cast<uint32_t>(v)) >> (8 * (8 - n));
        std::memcpy(p, &word, 8);
        return p + n;
    }
    writeDecimalBackwards(p + n, v);
    return p + n;
}

inline void appendUnsigned(std::string& out, uint64_t v) {
    char buf[20];
    out.append(buf, static_cast<size_t>(writeDecimal(buf, v) - buf));
}

inline void appendSigned(std::string& out, int64_t v) {
    if (v < 0) {
        out += '-';
        // Negate in unsigned arithmetic so that INT64_MIN is printed correctly.
        appendUnsigned(out, ~static_cast<uint64_t>(v) + 1);
    } else {
        appendUnsigned(out, static_cast<uint64_t>(v));
    }
}

// Appends v zero-filled to exactly `digits` decimal digits (v must fit).
inline void appendZeroFilled(std::string& out, unsigned v, int digits) {
    char buf[10];
    for (int i = digits - 1; i >= 0; --i) {
        buf[i] = static_cast<char>('0' + v % 10);
        v /= 10;
    }
    out.append(buf, static_cast<size_t>(digits));
}

// Hexadecimal (shift 4) or octal (shift 3) without leading zeros.
inline void appendRadix(std::string& out, uint64_t v, unsigned shift, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    const uint64_t mask = (uint64_t{1} << shift) - 1;
    char buf[24];
    char* p = buf + sizeof buf;
    do {
        *--p = digits[v & mask];
        v >>= shift;
    } while (v);
    out.append(p, static_cast<size_t>(buf + sizeof buf - p));
}

// A byte that continues a UTF-8 sequence; cuts never land on one.
inline bool isUtf8Continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Keeps the first `keep` bytes of out[start..], backing off to a character boundary.
inline void keepFirst(std::string& out, size_t start, size_t keep) {
    size_t end = start + keep;
    while (end > start && end < out.size() && isUtf8Continuation(out[end])) --end;
    out.resize(end);
}

// Keeps the last `keep` bytes of out[start..], moving forward to a character boundary.
inline void keepLast(std::string& out, size_t start, size_t keep) {
    size_t from = out.size() - keep;
    while (from < out.size() && isUtf8Continuation(out[from])) ++from;
    out.erase(start, from - start);
}

}  // namespace zvs::zvlib::zvlog::text

namespace zvs::zvlib::zvlog::text {

// Writes into a std::string through a plain pointer. A layout puts a dozen
// short pieces into every line; appending them one by one would pay the
// string's capacity check and a copy call for each. The writer opens room in
// the string ahead of time, writes into it, and cuts the string to what was
// written when it finishes (or when code that works on the string itself
// needs it: see string()).
class Writer {
public:
    Writer(std::string& s, size_t expect) : s_(s) { open(s.size(), expect); }
    ~Writer() { finish(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // The string holds exactly what was written; the writer stays usable.
    void finish() {
        if (p_) s_.resize(position());
        p_ = end_ = nullptr;
    }
    // The string, exactly as written so far, for code that appends to it,
    // inserts or cuts; the writer resumes at the string's end on next use.
    std::string& string() {
        finish();
        return s_;
    }

    // Bytes in the string so far, written ones included.
    size_t position() { return p_ ? static_cast<size_t>(p_ - s_.data()) : s_.size(); }

    // Room for n bytes at the returned pointer; advance() past what was used.
    // Never null, not even for n == 0: a detached writer (both pointers
    // null) always reopens here.
    [[gnu::always_inline]] char* room(size_t n) {
        if (static_cast<size_t>(end_ - p_) <= n) grow(n);
        return p_;
    }
    void advance(char* to) { p_ = to; }

    [[gnu::always_inline]] void put(char c) {
        char* p = room(1);
        *p = c;
        p_ = p + 1;
    }
    [[gnu::always_inline]] void put(const char* s, size_t n) {
        char* p = room(n);
        copy(p, s, n);
        p_ = p + n;
    }
    [[gnu::always_inline]] void put(std::string_view s) { put(s.data(), s.size()); }

    // Texts the library keeps for itself (a pattern's literal pieces, cached
    // names, the pieces of a message format) are stored with kPad readable
    // bytes beyond their end, so a short one is copied as one fixed-size
    // chunk whatever its length: no dispatch on the length.
    static constexpr size_t kPad = 16;
    // n <= Chunk bytes at s, which has Chunk readable bytes.
    template <size_t Chunk>
    [[gnu::always_inline]] void putChunk(const char* s, size_t n) {
        char* p = room(Chunk);
        std::memcpy(p, s, Chunk);
        p_ = p + n;
    }
    // n bytes at s, which has Chunk readable bytes beyond them.
    template <size_t Chunk = kPad>
    [[gnu::always_inline]] void putPadded(const char* s, size_t n) {
        if (n <= Chunk)
            putChunk<Chunk>(s, n);
        else
            put(s, n);
    }
    // The digits go straight to their place: written into a buffer and
    // copied, they would be read back before the processor has stored them.
    void putUnsigned(uint64_t v) { p_ = writeDecimal(room(20), v); }

    // Copies n bytes. The pieces of a line are mostly shorter than 32 bytes:
    // two overlapping loads and stores copy them without a call.
    [[gnu::always_inline]] static void copy(char* to, const char* from, size_t n) {
        if (n > 32) {
            std::memcpy(to, from, n);
        } else if (n >= 16) {
            overlapping<16>(to, from, n);
        } else if (n >= 8) {
            overlapping<8>(to, from, n);
        } else if (n >= 4) {
            overlapping<4>(to, from, n);
        } else if (n >= 2) {
            overlapping<2>(to, from, n);
        } else if (n == 1) {
            *to = *from;
        }
    }

private:
    static constexpr size_t kStep = 256;

    // n bytes, chunk <= n <= 2 * chunk, as a first and a last chunk.
    template <size_t chunk>
    [[gnu::always_inline]] static void overlapping(char* to, const char* from, size_t n) {
        struct Chunk {
            char bytes[chunk];
        } head, tail;
        std::memcpy(&head, from, chunk);
        std::memcpy(&tail, from + n - chunk, chunk);
        std::memcpy(to, &head, chunk);
        std::memcpy(to + n - chunk, &tail, chunk);
    }

    // The room opened is not filled: what is not written is cut off again
    // by finish() before anybody reads it.
    void open(size_t at, size_t expect) {
        const size_t size = at + (expect > kStep ? expect : kStep);
#if defined(__cpp_lib_string_resize_and_overwrite)
        s_.resize_and_overwrite(size, [](char*, size_t n) { return n; });
#else
        s_.resize(size);
#endif
        p_ = s_.data() + at;
        end_ = s_.data() + s_.size();
    }
    // Opens at least n bytes at the write position, doubling what was open
    // so that a long text grows the string a logarithmic number of times.
    [[gnu::noinline]] void grow(size_t n) {
        const size_t at = position();
        open(at, p_ ? n + 2 * static_cast<size_t>(end_ - p_) : n);
    }

    std::string& s_;
    char* p_ = nullptr;
    char* end_ = nullptr;
};

}  // namespace zvs::zvlib::zvlog::text
