// Small appenders of numbers and padding shared by the message renderer, the
// date formatter and the pattern layout. They write straight into the output
// string: no streams, no locale, no temporary strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zvs::zvlib::zvlog::text {

// Writes v in decimal so that it ends just before end; returns its first
// character. Two digits per division.
inline char* writeDecimalBackwards(char* end, uint64_t v) {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    while (v >= 100) {
        const unsigned pair = static_cast<unsigned>(v % 100) * 2;
        v /= 100;
        *--end = kPairs[pair + 1];
        *--end = kPairs[pair];
    }
    if (v >= 10) {
        const unsigned pair = static_cast<unsigned>(v) * 2;
        *--end = kPairs[pair + 1];
        *--end = kPairs[pair];
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

inline void appendUnsigned(std::string& out, uint64_t v) {
    char buf[20];
    char* first = writeDecimalBackwards(buf + sizeof buf, v);
    out.append(first, static_cast<size_t>(buf + sizeof buf - first));
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
