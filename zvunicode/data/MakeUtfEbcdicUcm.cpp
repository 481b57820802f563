// Writes the ICU mapping table (.ucm) of UTF-EBCDIC, the EBCDIC-friendly
// Unicode transformation format of Unicode Technical Report #16, for makeconv.
//
//   MakeUtfEbcdicUcm <output.ucm>
//
// UTF-EBCDIC is two steps (UTR #16):
//  1. UTF-8-Mod turns a code point into an "I8" sequence:
//       U+0000..U+009F    1 byte   the code point itself
//       U+00A0..U+03FF    2 bytes  110yyyyy 101xxxxx
//       U+0400..U+3FFF    3 bytes  1110yyyy 101xxxxx 101xxxxx
//       U+4000..U+3FFFF   4 bytes  11110yyy 101xxxxx 101xxxxx 101xxxxx
//       U+40000..U+10FFFF 5 bytes  1111100y 101xxxxx 101xxxxx 101xxxxx 101xxxxx
//     Trail bytes carry 5 bits (101xxxxx, 0xA0..0xBF), so the 160 code points
//     below U+00A0 (C0 controls, ASCII, C1 controls) stay single bytes.
//  2. Every I8 byte goes through one fixed, reversible byte table (UTR #16's
//     I8-to-UTF-EBCDIC table, kI8ToEbcdic below), which puts the single-byte
//     characters where EBCDIC code page 1047 has them (with LF at 0x15 and
//     NEL at 0x25, as on z/OS UNIX) and the lead and trail bytes on the 96
//     remaining byte values in ascending order.
//
// Limit: ICU's table-driven (MBCS) converters hold at most 4 bytes per
// character, so this table covers U+0000..U+3FFFF, every code point with an I8
// sequence of at most 4 bytes, and nothing above: from Unicode, U+40000 and
// above is unmappable (substitution byte 0x3F, EBCDIC SUB); to Unicode, the
// 5-byte lead bytes are illegal. The surrogate code points U+D800..U+DFFF are
// not characters and have no mapping (their I8 sequences are illegal), and
// neither do U+FFFE and U+FFFF, which ICU's tables reserve as markers.
//
// The byte structure is given to ICU as a state table over the final
// (UTF-EBCDIC) byte values: each I8 byte class of step 1 becomes the set of
// UTF-EBCDIC bytes the table of step 2 maps it to. Sequences that step 1 never
// produces (over-long lead bytes 0xC0..0xC4 and 0xE0, a 0xF0 lead followed by
// a trail below 0xB0, stray trail bytes) are illegal.
#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// UTR #16, the I8 to UTF-EBCDIC byte table, indexed by the I8 byte.
constexpr std::array<uint8_t, 256> kI8ToEbcdic = {
    // 0x00..0x9F: C0 controls, ASCII, C1 controls, as in code page 1047
    0x00, 0x01, 0x02, 0x03, 0x37, 0x2D, 0x2E, 0x2F, 0x16, 0x05, 0x15, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,  // 0x00
    0x10, 0x11, 0x12, 0x13, 0x3C, 0x3D, 0x32, 0x26, 0x18, 0x19, 0x3F, 0x27, 0x1C, 0x1D, 0x1E, 0x1F,  // 0x10
    0x40, 0x5A, 0x7F, 0x7B, 0x5B, 0x6C, 0x50, 0x7D, 0x4D, 0x5D, 0x5C, 0x4E, 0x6B, 0x60, 0x4B, 0x61,  // 0x20
    0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0x7A, 0x5E, 0x4C, 0x7E, 0x6E, 0x6F,  // 0x30
    0x7C, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6,  // 0x40
    0xD7, 0xD8, 0xD9, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xAD, 0xE0, 0xBD, 0x5F, 0x6D,  // 0x50
    0x79, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x91, 0x92, 0x93, 0x94, 0x95, 0x96,  // 0x60
    0x97, 0x98, 0x99, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xC0, 0x4F, 0xD0, 0xA1, 0x07,  // 0x70
    0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x06, 0x17, 0x28, 0x29, 0x2A, 0x2B, 0x2C, 0x09, 0x0A, 0x1B,  // 0x80
    0x30, 0x31, 0x1A, 0x33, 0x34, 0x35, 0x36, 0x08, 0x38, 0x39, 0x3A, 0x3B, 0x04, 0x14, 0x3E, 0xFF,  // 0x90
    // 0xA0..0xBF: trail bytes
    0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4A, 0x51, 0x52, 0x53, 0x54, 0x55, 0x56,  // 0xA0
    0x57, 0x58, 0x59, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6A, 0x70, 0x71, 0x72, 0x73,  // 0xB0
    // 0xC0..0xFF: lead bytes
    0x74, 0x75, 0x76, 0x77, 0x78, 0x80, 0x8A, 0x8B, 0x8C, 0x8D, 0x8E, 0x8F, 0x90, 0x9A, 0x9B, 0x9C,  // 0xC0
    0x9D, 0x9E, 0x9F, 0xA0, 0xAA, 0xAB, 0xAC, 0xAE, 0xAF, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6,  // 0xD0
    0xB7, 0xB8, 0xB9, 0xBA, 0xBB, 0xBC, 0xBE, 0xBF, 0xCA, 0xCB, 0xCC, 0xCD, 0xCE, 0xCF, 0xDA, 0xDB,  // 0xE0
    0xDC, 0xDD, 0xDE, 0xDF, 0xE1, 0xEA, 0xEB, 0xEC, 0xED, 0xEE, 0xEF, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE,  // 0xF0
};

constexpr uint32_t kLastCodePoint = 0x3FFFF;  // the last one with a 4-byte I8 sequence

// UTF-8-Mod: the I8 bytes of a code point up to kLastCodePoint.
std::vector<uint8_t> toI8(uint32_t c) {
    if (c < 0xA0) return {uint8_t(c)};
    auto trail = [](uint32_t bits) { return uint8_t(0xA0 | (bits & 0x1F)); };
    if (c < 0x400) return {uint8_t(0xC0 | (c >> 5)), trail(c)};
    if (c < 0x4000) return {uint8_t(0xE0 | (c >> 10)), trail(c >> 5), trail(c)};
    return {uint8_t(0xF0 | (c >> 15)), trail(c >> 10), trail(c >> 5), trail(c)};
}

// One state of the state table: for each I8 byte, its entry ("" final
// valid, ":n" go to state n, ".p" final valid with a supplementary result);
// bytes without an entry are illegal.
struct State {
    std::array<std::string, 256> entryOfI8;
    bool listed[256] = {};
    void set(unsigned first, unsigned last, const std::string& entry) {
        for (unsigned b = first; b <= last; ++b) {
            entryOfI8[b] = entry;
            listed[b] = true;
        }
    }
};

// The state as ICU reads it: ranges of UTF-EBCDIC bytes with equal entries.
std::string stateLine(const State& s) {
    std::array<const std::string*, 256> byEbcdic{};
    for (unsigned i8 = 0; i8 < 256; ++i8)
        if (s.listed[i8]) byEbcdic[kI8ToEbcdic[i8]] = &s.entryOfI8[i8];
    std::string line;
    char buf[32];
    for (unsigned b = 0; b < 256;) {
        if (!byEbcdic[b]) {
            ++b;
            continue;
        }
        unsigned end = b;
        while (end + 1 < 256 && byEbcdic[end + 1] && *byEbcdic[end + 1] == *byEbcdic[b]) ++end;
        if (end == b)
            std::snprintf(buf, sizeof buf, "%02x", b);
        else
            std::snprintf(buf, sizeof buf, "%02x-%02x", b, end);
        if (!line.empty()) line += ", ";
        line += buf;
        line += *byEbcdic[b];
        b = end + 1;
    }
    return line;
}

bool isBijection() {
    bool seen[256] = {};
    for (uint8_t e : kI8ToEbcdic) {
        if (seen[e]) return false;
        seen[e] = true;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output.ucm>\n", argv[0]);
        return 2;
    }
    if (!isBijection()) {
        std::fprintf(stderr, "the I8 to UTF-EBCDIC byte table is not one-to-one\n");
        return 1;
    }

    // States over I8 bytes. 0: initial; 1: the last trail byte; 2: two trail
    // bytes to go; 3: after lead 0xF0, whose first trail byte must be at least
    // 0xB0 (U+4000 and up); 4: after lead 0xF1 (U+8000..U+FFFF), whose first
    // trail byte must not be 0xB6 or 0xB7 (the surrogates U+D800..U+DFFF);
    // 5, 6, 7: the three trail bytes after the leads 0xF2..0xF7
    // (U+10000..U+3FFFF), ending in a supplementary result.
    State states[8];
    states[0].set(0x00, 0x9F, "");
    states[0].set(0xC5, 0xDF, ":1");
    states[0].set(0xE1, 0xEF, ":2");
    states[0].set(0xF0, 0xF0, ":3");
    states[0].set(0xF1, 0xF1, ":4");
    states[0].set(0xF2, 0xF7, ":5");
    states[1].set(0xA0, 0xBF, "");
    states[2].set(0xA0, 0xBF, ":1");
    states[3].set(0xB0, 0xBF, ":2");
    states[4].set(0xA0, 0xB5, ":2");
    states[4].set(0xB8, 0xBF, ":2");
    states[5].set(0xA0, 0xBF, ":6");
    states[6].set(0xA0, 0xBF, ":7");
    states[7].set(0xA0, 0xBF, ".p");

    FILE* out = std::fopen(argv[1], "w");
    if (!out) {
        std::perror(argv[1]);
        return 1;
    }
    std::fputs(
        "# UTF-EBCDIC (Unicode Technical Report #16), generated by MakeUtfEbcdicUcm.\n"
        "# UTF-8-Mod (I8) sequences mapped byte by byte through UTR #16's\n"
        "# I8-to-UTF-EBCDIC table. Covers U+0000..U+3FFFF (I8 sequences of at most\n"
        "# 4 bytes, the most an ICU MBCS table holds) without the surrogates and\n"
        "# U+FFFE, U+FFFF.\n"
        "<code_set_name>               \"UTF-EBCDIC\"\n"
        "<char_name_mask>              \"AXXXX\"\n"
        "<mb_cur_max>                  4\n"
        "<mb_cur_min>                  1\n"
        "<uconv_class>                 \"MBCS\"\n"
        "<subchar>                     \\x3F\n"
        "<icu:charsetFamily>           \"EBCDIC\"\n",
        out);
    for (const State& s : states) std::fprintf(out, "<icu:state>                   %s\n", stateLine(s).c_str());
    std::fputs("\nCHARMAP\n", out);
    for (uint32_t c = 0; c <= kLastCodePoint; ++c) {
        if ((c >= 0xD800 && c <= 0xDFFF) || c == 0xFFFE || c == 0xFFFF) continue;
        std::fprintf(out, "<U%04X> ", unsigned(c));
        for (uint8_t b : toI8(c)) std::fprintf(out, "\\x%02X", kI8ToEbcdic[b]);
        std::fputs(" |0\n", out);
    }
    std::fputs("END CHARMAP\n", out);
    if (std::fclose(out) != 0) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}
