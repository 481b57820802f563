// Character-set numbering, conversion error behaviours and the table of
// character-set descriptions behind them.
//
// A ULibCharSet is a 32-bit value. 0x40000000 names the platform's default
// code page; the top bit asks for the escaping wrapper around the character
// set of the remaining bits; any other value indexes one of four ranges of the
// description table:
//
//       0 ..    11   Unicode encodings
//    1000 ..  1124   single-byte code pages, ASCII-based then EBCDIC
//    5000 ..  5041   multi-byte code pages (CJK, ISO-2022, stateful EBCDIC)
//   10000 .. 10229   character sets named by databases' own identifiers
//
// The numbers are stored by programs and exchanged with them: a row never
// moves.
#pragma once

#include <cstdint>
#include <span>

#include "zvlog/Export.h"

enum ULibCharSet : uint32_t {
    // Unicode range.
    ULIB_CS_UTF8 = 0,
    ULIB_CS_UTF16 = 1,
    ULIB_CS_UTF16BE = 2,
    ULIB_CS_UTF16LE = 3,
    ULIB_CS_UTF32 = 4,
    ULIB_CS_UTF32BE = 5,
    ULIB_CS_UTF32LE = 6,
    ULIB_CS_UTF_EBCDIC = 7,
    ULIB_CS_CESU8 = 8,
    ULIB_CS_UTF7 = 9,
    ULIB_CS_SCSU = 10,
    ULIB_CS_BOCU1 = 11,

    // Frequently used code pages (the table names every row).
    ULIB_CS_US_ASCII = 1000,
    ULIB_CS_WINDOWS_1250 = 1001,
    ULIB_CS_WINDOWS_1251 = 1002,
    ULIB_CS_WINDOWS_1252 = 1003,
    ULIB_CS_WINDOWS_1253 = 1004,
    ULIB_CS_WINDOWS_1254 = 1005,
    ULIB_CS_WINDOWS_1255 = 1006,
    ULIB_CS_WINDOWS_1256 = 1007,
    ULIB_CS_WINDOWS_1257 = 1008,
    ULIB_CS_WINDOWS_1258 = 1009,
    ULIB_CS_WINDOWS_874 = 1010,
    ULIB_CS_ISO_8859_1 = 1011,
    ULIB_CS_ISO_8859_2 = 1012,
    ULIB_CS_ISO_8859_3 = 1013,
    ULIB_CS_ISO_8859_4 = 1014,
    ULIB_CS_ISO_8859_5 = 1015,
    ULIB_CS_ISO_8859_6 = 1016,
    ULIB_CS_ISO_8859_7 = 1017,
    ULIB_CS_ISO_8859_8 = 1018,
    ULIB_CS_ISO_8859_9 = 1019,
    ULIB_CS_ISO_8859_10 = 1020,
    ULIB_CS_ISO_8859_11 = 1021,
    ULIB_CS_ISO_8859_13 = 1022,
    ULIB_CS_ISO_8859_14 = 1023,
    ULIB_CS_ISO_8859_15 = 1024,
    ULIB_CS_IBM437 = 1025,
    ULIB_CS_IBM850 = 1029,
    ULIB_CS_IBM852 = 1031,
    ULIB_CS_IBM866 = 1042,
    ULIB_CS_KOI8_R = 1046,
    ULIB_CS_KOI8_U = 1047,
    ULIB_CS_MACINTOSH = 1048,
    ULIB_CS_IBM01140 = 1054,
    ULIB_CS_IBM01141 = 1055,
    ULIB_CS_IBM01142 = 1056,
    ULIB_CS_IBM01143 = 1057,
    ULIB_CS_IBM01144 = 1058,
    ULIB_CS_IBM01145 = 1059,
    ULIB_CS_IBM01146 = 1060,
    ULIB_CS_IBM01147 = 1061,
    ULIB_CS_IBM01148 = 1062,
    ULIB_CS_IBM01149 = 1063,
    ULIB_CS_IBM037 = 1064,
    ULIB_CS_IBM273 = 1065,
    ULIB_CS_IBM500 = 1075,
    ULIB_CS_IBM1047 = 1084,
    ULIB_CS_IBM1047_S390 = 1110,
    ULIB_CS_IBM5233 = 1124,
    ULIB_CS_WINDOWS_932 = 5000,
    ULIB_CS_WINDOWS_936 = 5001,
    ULIB_CS_WINDOWS_949 = 5002,
    ULIB_CS_WINDOWS_950 = 5003,
    ULIB_CS_EUC_JP = 5004,
    ULIB_CS_EUC_KR = 5005,
    ULIB_CS_GB2312 = 5006,
    ULIB_CS_GB18030 = 5007,
    ULIB_CS_BIG5_HKSCS = 5008,
    ULIB_CS_ISO_2022_JP = 5010,
    ULIB_CS_ISO_2022_KR = 5013,
    ULIB_CS_ISO_2022_CN = 5014,
    ULIB_CS_IBM930 = 5017,
    ULIB_CS_IBM939 = 5018,
    ULIB_CS_IBM933 = 5019,
    ULIB_CS_IBM935 = 5020,
    ULIB_CS_IBM937 = 5021,
    ULIB_CS_EUC_TW = 5041,

    // Range bounds, inclusive.
    ULIB_CS_UNICODE_FIRST = 0,
    ULIB_CS_UNICODE_LAST = 11,
    ULIB_CS_SBCS_FIRST = 1000,
    ULIB_CS_SBCS_LAST = 1124,
    ULIB_CS_MBCS_FIRST = 5000,
    ULIB_CS_MBCS_LAST = 5041,
    ULIB_CS_DB_FIRST = 10000,
    ULIB_CS_DB_LAST = 10229,

    // The platform's default code page: ICU's default converter, no table row.
    ULIB_CS_PLATFORM_DEFAULT = 0x40000000u,
    // Set on top of any other value: convert through that character set and
    // write what it cannot represent as escapes.
    ULIB_CS_ESCAPE_FLAG = 0x80000000u,
};

constexpr ULibCharSet ULibEscapedCharSet(ULibCharSet cs) {
    return static_cast<ULibCharSet>(cs | ULIB_CS_ESCAPE_FLAG);
}
constexpr ULibCharSet ULibBaseCharSet(ULibCharSet cs) {
    return static_cast<ULibCharSet>(cs & ~static_cast<uint32_t>(ULIB_CS_ESCAPE_FLAG));
}
constexpr bool ULibIsEscapedCharSet(ULibCharSet cs) { return (cs & ULIB_CS_ESCAPE_FLAG) != 0; }

// How a conversion treats what it cannot convert, in both directions.
// Any value not listed behaves as ULIB_CNV_STOP.
enum ULibCnvErrBehavior : uint32_t {
    ULIB_CNV_ICU_DEFAULT = 0,  // no callbacks: ICU's own substitution
    ULIB_CNV_STOP = 1,         // fail at the first unconvertible character
    ULIB_CNV_SKIP = 2,         // drop it
    ULIB_CNV_SUBSTITUTE = 3,   // write "?" (to Unicode: ICU's substitution character)
    ULIB_CNV_ESCAPE = 4,       // write it as a C escape: \uXXXX, \UXXXXXXXX, \xXX
};

constexpr uint32_t ULIB_CCSID_NONE = 0xFFFFFFFFu;

// One row of the table.
struct CharSetDescription {
    const char* converterName;  // what the converter opens in ICU
    const char* icuName1;       // alternative ICU names: tables with version
    const char* icuName2;       //   suffixes or ",swaplfnl" variants; may be null
    const char* ianaName;       // IANA/MIME name; may be null
    uint32_t ccsid;             // IBM CCSID, ULIB_CCSID_NONE when none
    uint8_t isAscii;            // 1 when ASCII text keeps its bytes
    uint8_t isEbcdic;
    uint8_t minBytes;           // bytes per character
    uint8_t maxBytes;
    uint8_t codeUnitSize;       // 1, 2 or 4
    const char* description;    // the database's identifier (database range only)
};

// One range of consecutive values and its rows.
struct CharSetRange {
    ULibCharSet first;
    ULibCharSet last;  // inclusive
    const CharSetDescription* rows;

    uint32_t size() const { return last - first + 1; }
};

// The row of a value, looked up with the escape flag cleared; null outside the
// four ranges (so also for ULIB_CS_PLATFORM_DEFAULT).
ZVLOG_API const CharSetDescription* ULibGetCharSetDescription(ULibCharSet charset);

// The four ranges in ascending order.
ZVLOG_API std::span<const CharSetRange> ULibGetCharSetRanges();
