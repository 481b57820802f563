// The ULibCharSet table and CSConverter: the table's ranges and fixed rows,
// every row against ICU, exact bytes of conversions (the library's own
// converters among them), the error behaviours, the escape wrapper and the
// per-thread behaviour.
#include <gtest/gtest.h>
#include <unicode/putil.h>
#include <unicode/ucnv.h>

#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "zvlog/CSConverter.h"
#include "zvlog/ULibCharSet.h"

namespace {

std::string bytes(std::initializer_list<unsigned char> list) { return std::string(list.begin(), list.end()); }

std::string toBytes(CSConverter& c, const std::u16string& text, bool* ok = nullptr, UErrorCode* status = nullptr) {
    std::string out;
    bool r = c.fromUnicode(text.data(), static_cast<int32_t>(text.size()), out, status);
    if (ok) *ok = r;
    return out;
}

std::u16string fromBytes(CSConverter& c, const std::string& in, bool* ok = nullptr, UErrorCode* status = nullptr) {
    std::u16string out;
    bool r = c.toUnicode(in.data(), static_cast<int32_t>(in.size()), out, status);
    if (ok) *ok = r;
    return out;
}

std::string str(const char* s) { return s ? s : "(null)"; }

const std::u16string kMessage = u"Tabelle Größe: 12 €";

}  // namespace

TEST(CharSetTable, RangesHaveTheirSizesAndNothingOutsideResolves) {
    auto ranges = ULibGetCharSetRanges();
    ASSERT_EQ(ranges.size(), 4u);
    const uint32_t expected[4][3] = {{0, 11, 12}, {1000, 1124, 125}, {5000, 5041, 42}, {10000, 10229, 230}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(ranges[i].first, expected[i][0]);
        EXPECT_EQ(ranges[i].last, expected[i][1]);
        EXPECT_EQ(ranges[i].size(), expected[i][2]);
    }

    size_t found = 0;
    for (uint32_t v = 0; v < 20000; ++v) {
        const CharSetDescription* row = ULibGetCharSetDescription(ULibCharSet(v));
        bool inRange = v <= 11 || (v >= 1000 && v <= 1124) || (v >= 5000 && v <= 5041) || (v >= 10000 && v <= 10229);
        EXPECT_EQ(row != nullptr, inRange) << v;
        if (row) ++found;
        // The escape flag is cleared before the lookup.
        EXPECT_EQ(ULibGetCharSetDescription(ULibEscapedCharSet(ULibCharSet(v))), row) << v;
    }
    EXPECT_EQ(found, 409u);
    for (uint32_t v : {0x40000000u, 0x7FFFFFFFu, 0xFFFFFFFFu, 0x80000000u + 999u})
        EXPECT_EQ(ULibGetCharSetDescription(ULibCharSet(v)), nullptr) << v;
}

TEST(CharSetTable, UnicodeRangeAndNamedRowsAreExact) {
    struct Expected {
        uint32_t value;
        const char *name, *alt1, *alt2, *iana;
        uint32_t ccsid;
        int ascii, ebcdic, min, max, unit;
        const char* description;
    };
    const uint32_t N = ULIB_CCSID_NONE;
    const Expected rows[] = {
        {0, "UTF-8", nullptr, nullptr, "UTF-8", 1208, 1, 0, 1, 3, 1, nullptr},
        {1, "UTF-16", nullptr, nullptr, "UTF-16", 1204, 0, 0, 2, 2, 2, nullptr},
        {2, "UTF-16BE", nullptr, nullptr, nullptr, 1200, 0, 0, 2, 2, 2, nullptr},
        {3, "UTF-16LE", nullptr, nullptr, nullptr, 1202, 0, 0, 2, 2, 2, nullptr},
        {4, "UTF-32", nullptr, nullptr, nullptr, 1236, 0, 0, 4, 4, 4, nullptr},
        {5, "UTF-32BE", nullptr, nullptr, nullptr, 1232, 0, 0, 4, 4, 4, nullptr},
        {6, "UTF-32LE", nullptr, nullptr, nullptr, 1234, 0, 0, 4, 4, 4, nullptr},
        {7, "UTF-EBCDIC", nullptr, nullptr, nullptr, 1210, 0, 1, 1, 1, 1, nullptr},
        {8, "CESU-8", nullptr, nullptr, nullptr, 9400, 1, 0, 1, 3, 1, nullptr},
        {9, "UTF-7", nullptr, nullptr, nullptr, N, 0, 0, 1, 4, 1, nullptr},
        {10, "SCSU", nullptr, nullptr, nullptr, 1212, 1, 0, 1, 3, 1, nullptr},
        {11, "BOCU-1", nullptr, nullptr, nullptr, 1214, 0, 0, 1, 4, 1, nullptr},
        {1000, "US-ASCII", nullptr, nullptr, "US-ASCII", 367, 1, 0, 1, 1, 1, nullptr},
        {1001, "windows-1250", "ibm-1250_P100-1995", "ibm-5346_P100-1998", "windows-1250", 5346, 1, 0, 1, 1, 1, nullptr},
        {1060, "IBM01146", "ibm-1146_P100-1997,swaplfnl", nullptr, "IBM01146", 1146, 0, 1, 1, 1, 1, nullptr},
        {1124, "ibm-5233", "bm-5233_P100-2011", nullptr, nullptr, 5233, 0, 1, 1, 1, 1, nullptr},
        {5000, "windows-932", "ibm-943_P15A-2003", nullptr, "Shift_JIS", 943, 1, 0, 1, 2, 1, nullptr},
        {5001, "windows-936", "windows-936-2000", nullptr, "GBK", N, 1, 0, 1, 2, 1, nullptr},
        {5041, "EUC-TW", "euc-tw-2014", nullptr, nullptr, N, 1, 0, 1, 4, 1, nullptr},
        {10000, "US-ASCII", nullptr, nullptr, "US-ASCII", N, 1, 0, 1, 1, 1, "US7ASCII"},
        {10229, "UTF-8", nullptr, nullptr, "UTF-8", N, 1, 0, 1, 4, 1, "utf8mb4"},
    };
    for (const Expected& e : rows) {
        SCOPED_TRACE(e.value);
        const CharSetDescription* r = ULibGetCharSetDescription(ULibCharSet(e.value));
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(str(r->converterName), str(e.name));
        EXPECT_EQ(str(r->icuName1), str(e.alt1));
        EXPECT_EQ(str(r->icuName2), str(e.alt2));
        EXPECT_EQ(str(r->ianaName), str(e.iana));
        EXPECT_EQ(r->ccsid, e.ccsid);
        EXPECT_EQ(r->isAscii, e.ascii);
        EXPECT_EQ(r->isEbcdic, e.ebcdic);
        EXPECT_EQ(r->minBytes, e.min);
        EXPECT_EQ(r->maxBytes, e.max);
        EXPECT_EQ(r->codeUnitSize, e.unit);
        EXPECT_EQ(str(r->description), str(e.description));
    }

    // The header's names point at the rows they name.
    for (auto [value, name] : {std::pair{ULIB_CS_ISO_8859_15, "ISO-8859-15"}, {ULIB_CS_IBM037, "IBM037"},
                               {ULIB_CS_IBM1047_S390, "ibm-1047-s390"}, {ULIB_CS_IBM937, "ibm-937"}})
        EXPECT_EQ(str(ULibGetCharSetDescription(value)->converterName), name) << value;
}

// Every row's converter opens in ICU (UTF-EBCDIC and ibm-5233 from the
// converters beside the library) and the table says what ICU says about it.
TEST(CharSetTable, EveryRowOpensInIcuAndAgreesWithIt) {
    // All printable ASCII and the usual controls keep their bytes in an
    // ASCII-based set; EBCDIC sets share the invariant upper case, digits and
    // space (lower case moves in the Katakana ones).
    std::u16string ascii = u"\t\n\r";
    for (char16_t ch = 0x20; ch < 0x7F; ++ch) ascii += ch;
    const std::string asciiBytes(ascii.begin(), ascii.end());
    const std::u16string ebcdic = u"AZ09 ";
    const std::string ebcdicBytes = bytes({0xC1, 0xE9, 0xF0, 0xF9, 0x40});
    std::vector<std::string> failed;
    size_t opened = 0;
    for (const CharSetRange& range : ULibGetCharSetRanges()) {
        for (uint32_t v = range.first; v <= range.last; ++v) {
            const CharSetDescription& row = range.rows[v - range.first];
            CSConverter c(ULibCharSet(v), ULIB_CNV_STOP, false);
            if (!c.isValid()) {
                failed.push_back(std::to_string(v) + " " + row.converterName);
                continue;
            }
            ++opened;
            SCOPED_TRACE(std::to_string(v) + " " + row.converterName);
            EXPECT_EQ(int(row.minBytes), c.minCharSize());
            // UTF-8 rows of databases that store a supplementary character as
            // one 4-byte sequence count it whole; ICU counts per code unit.
            bool wholeCharacter = std::strcmp(row.converterName, "UTF-8") == 0 && row.maxBytes == 4;
            // The UTF-EBCDIC row keeps its 1; the converter takes up to 4.
            if (v == ULIB_CS_UTF_EBCDIC) {
                EXPECT_EQ(c.maxCharSize(), 4);
            } else if (!wholeCharacter) {
                EXPECT_EQ(int(row.maxBytes), c.maxCharSize());
            }
            int unit = c.encodingClass() == CS_CLASS_UTF16 ? 2 : c.encodingClass() == CS_CLASS_UTF32 ? 4 : 1;
            EXPECT_EQ(int(row.codeUnitSize), unit);
            EXPECT_FALSE(row.isAscii && row.isEbcdic);
            if (row.isAscii) {
                EXPECT_EQ(toBytes(c, ascii), asciiBytes);
            }
            if (row.isEbcdic) {
                EXPECT_EQ(toBytes(c, ebcdic), ebcdicBytes);
            }
            if (range.first == ULIB_CS_DB_FIRST) {
                EXPECT_NE(row.description, nullptr);
                EXPECT_EQ(row.ccsid, ULIB_CCSID_NONE);
            }
        }
    }
    std::string list;
    for (const std::string& f : failed) list += "\n  " + f;
    EXPECT_TRUE(failed.empty()) << "rows ICU cannot open:" << list;
    EXPECT_EQ(opened, 409u);
}

TEST(CSConverter, EncodingClassComesFromTheConverterType) {
    const std::pair<uint32_t, int> cases[] = {
        {ULIB_CS_UTF8, CS_CLASS_UTF8},        {ULIB_CS_CESU8, CS_CLASS_UTF8},       {ULIB_CS_UTF16, CS_CLASS_UTF16},
        {ULIB_CS_UTF16LE, CS_CLASS_UTF16},    {ULIB_CS_UTF32BE, CS_CLASS_UTF32},    {ULIB_CS_US_ASCII, CS_CLASS_SBCS},
        {ULIB_CS_ISO_8859_1, CS_CLASS_SBCS},  {ULIB_CS_WINDOWS_1252, CS_CLASS_SBCS}, {ULIB_CS_IBM1047, CS_CLASS_SBCS},
        {ULIB_CS_WINDOWS_932, CS_CLASS_MBCS}, {ULIB_CS_EUC_TW, CS_CLASS_MBCS},      {5037 /* ibm-16684 */, CS_CLASS_DBCS},
        {ULIB_CS_IBM930, CS_CLASS_EBCDIC_STATEFUL}, {ULIB_CS_ISO_2022_KR, CS_CLASS_ISO2022},
        {ULIB_CS_SCSU, CS_CLASS_OTHER},       {5016 /* HZ */, CS_CLASS_OTHER},      {ULIB_CS_UTF7, CS_CLASS_OTHER},
    };
    for (auto [value, cls] : cases) {
        CSConverter c(ULibCharSet(value), ULIB_CNV_STOP, false);
        ASSERT_TRUE(c.isValid()) << value;
        EXPECT_EQ(c.encodingClass(), cls) << value << " " << c.name();
    }
}

TEST(CSConverter, DefaultAndUnknownValuesOpenIcusDefaultConverter) {
    ASSERT_NE(CSConverter::platformDefaultName(), nullptr);
    CSConverter platform(ULIB_CS_PLATFORM_DEFAULT, ULIB_CNV_STOP, false);
    ASSERT_TRUE(platform.isValid());
    EXPECT_EQ(ULibGetCharSetDescription(ULIB_CS_PLATFORM_DEFAULT), nullptr);
    for (uint32_t v : {77u, 12u, 999u, 5042u, 0x7FFFFFFFu}) {
        CSConverter c(ULibCharSet(v), ULIB_CNV_STOP, false);
        ASSERT_TRUE(c.isValid()) << v;
        EXPECT_STREQ(c.name(), platform.name()) << v;
    }
    EXPECT_EQ(toBytes(platform, u"plain text"), "plain text");
}

// ICU cannot open the library's own converters once the directory beside the
// library is off its data path again (and no converter is cached).
TEST(CSConverter, CharSetIcuCannotOpenLeavesNoImplementation) {
    { CSConverter first(ULIB_CS_UTF8, ULIB_CNV_STOP, false); }  // the library has set the path
    const std::string dataPath = u_getDataDirectory();
    u_setDataDirectory("");
    ucnv_flushCache();

    CSConverter c(ULIB_CS_IBM5233, ULIB_CNV_STOP, false);
    CSConverter escaped(ULibEscapedCharSet(ULIB_CS_UTF_EBCDIC), ULIB_CNV_STOP, false);
    u_setDataDirectory(dataPath.c_str());

    EXPECT_EQ(c.impl(), nullptr);
    EXPECT_EQ(c.name(), nullptr);
    UErrorCode status = U_ZERO_ERROR;
    bool ok = true;
    EXPECT_EQ(toBytes(c, u"x", &ok, &status), "");
    EXPECT_FALSE(ok);
    EXPECT_EQ(status, U_INVALID_STATE_ERROR);

    // The wrapper exists, but around nothing.
    ASSERT_NE(dynamic_cast<CSConverterEscape*>(escaped.impl()), nullptr);
    EXPECT_FALSE(escaped.isValid());
    fromBytes(escaped, "x", &ok);
    EXPECT_FALSE(ok);

    EXPECT_TRUE(CSConverter(ULIB_CS_IBM5233, ULIB_CNV_STOP, false).isValid());
}

// The converters the library brings along, from ICU's public table for code
// page 5233 and from the UTF-EBCDIC definition (UTR #16).
TEST(CSConverter, LibraryConvertersHaveExactBytes) {
    CSConverter devanagari(ULIB_CS_IBM5233, ULIB_CNV_STOP, false);
    ASSERT_TRUE(devanagari.isValid());
    EXPECT_STREQ(devanagari.name(), "ibm-5233_P100-2011");
    // "A", DEVANAGARI LETTER KA, DEVANAGARI DIGIT ONE.
    EXPECT_EQ(toBytes(devanagari, u"A\u0915\u0967"), bytes({0xC1, 0x63, 0xEB}));
    EXPECT_EQ(fromBytes(devanagari, bytes({0xC1, 0x63, 0xEB})), u"A\u0915\u0967");

    // UTF-8-Mod (I8) bytes, then UTR #16's I8-to-UTF-EBCDIC byte table:
    //   U+0041 "A"   I8 41                       -> C1
    //   U+000A LF    I8 0A                       -> 15
    //   U+00E9 "é"   110 00111, 101 01001        = I8 C7 A9        -> 8B 4A
    //   U+20AC "€"   1110 1000, 101 00101, 101 01100
    //                                            = I8 E8 A5 AC     -> CA 46 53
    //   U+1F600      11110 011, 101 11101, 101 10000, 101 00000
    //                                            = I8 F3 BD B0 A0  -> DF 71 57 41
    CSConverter ebcdic(ULIB_CS_UTF_EBCDIC, ULIB_CNV_STOP, false);
    ASSERT_TRUE(ebcdic.isValid());
    EXPECT_STREQ(ebcdic.name(), "UTF-EBCDIC");
    const std::u16string text = u"A\n\u00E9\u20AC\U0001F600";
    const std::string expected = bytes({0xC1, 0x15, 0x8B, 0x4A, 0xCA, 0x46, 0x53, 0xDF, 0x71, 0x57, 0x41});
    EXPECT_EQ(toBytes(ebcdic, text), expected);
    EXPECT_EQ(fromBytes(ebcdic, expected), text);

    // The converter ends at U+3FFFF (4-byte I8 sequences): U+40000 and up do
    // not convert, and their 5-byte sequences (lead I8 F8 -> ED) are illegal.
    bool ok = true;
    EXPECT_EQ(toBytes(ebcdic, u"A\U00040000", &ok), bytes({0xC1}));
    EXPECT_FALSE(ok);
    fromBytes(ebcdic, bytes({0xED, 0x41, 0x41, 0x41, 0x41}), &ok);
    EXPECT_FALSE(ok);
}

TEST(CSConverter, EscapeFlagWrapsTheInnerCharSet) {
    CSConverter c(ULibCharSet(0x80000000u + 1000u), ULIB_CNV_STOP, false);
    auto* escape = dynamic_cast<CSConverterEscape*>(c.impl());
    ASSERT_NE(escape, nullptr);
    EXPECT_EQ(escape->inner().charSet(), ULIB_CS_US_ASCII);
    EXPECT_NE(dynamic_cast<CSConverterICU*>(escape->inner().impl()), nullptr);
    EXPECT_STREQ(c.name(), "US-ASCII");

    // Escaped even though the behaviour says stop.
    bool ok = false;
    EXPECT_EQ(toBytes(c, kMessage, &ok), "Tabelle Gr\\u00F6\\u00DFe: 12 \\u20AC");
    EXPECT_TRUE(ok);
    EXPECT_EQ(toBytes(c, u"smile \U0001F600"), "smile \\U0001F600");
    // To Unicode the inner behaviour holds.
    EXPECT_EQ(fromBytes(c, "abc", &ok), u"abc");
    fromBytes(c, "a\xE4", &ok);
    EXPECT_FALSE(ok);

    // EBCDIC inside: the escape text itself is EBCDIC.
    CSConverter e(ULibEscapedCharSet(ULIB_CS_IBM1047), ULIB_CNV_STOP, false);
    EXPECT_EQ(toBytes(e, u"A\u4E00"), bytes({0xC1, 0xE0, 0xA4, 0xF4, 0xC5, 0xF0, 0xF0}));
}

TEST(CSConverter, MessageTextConvertsToExactBytesAndBack) {
    CSConverter utf16(ULIB_CS_UTF16LE, ULIB_CNV_STOP, false);
    std::string le = toBytes(utf16, kMessage);
    ASSERT_EQ(le.size(), kMessage.size() * 2);
    EXPECT_EQ(le.substr(20, 4), bytes({0xF6, 0x00, 0xDF, 0x00}));  // "öß"
    EXPECT_EQ(le.substr(le.size() - 2), bytes({0xAC, 0x20}));       // "€"
    EXPECT_EQ(fromBytes(utf16, le), kMessage);

    CSConverter latin1(ULIB_CS_ISO_8859_1, ULIB_CNV_SUBSTITUTE, false);
    std::string l1 = toBytes(latin1, kMessage);
    EXPECT_EQ(l1, "Tabelle Gr\xF6\xDF" "e: 12 ?");
    EXPECT_EQ(fromBytes(latin1, l1), u"Tabelle Größe: 12 ?");

    // German EBCDIC with the euro: everything representable.
    CSConverter de(ULIB_CS_IBM01141, ULIB_CNV_STOP, false);
    std::string e = toBytes(de, kMessage);
    EXPECT_EQ(e, bytes({0xE3, 0x81, 0x82, 0x85, 0x93, 0x93, 0x85, 0x40, 0xC7, 0x99, 0x6A, 0xA1, 0x85, 0x7A, 0x40,
                        0xF1, 0xF2, 0x40, 0x9F}));
    EXPECT_EQ(fromBytes(de, e), kMessage);

    // ibm-1047 and its z/OS UNIX variant differ only in the line end.
    CSConverter host(ULIB_CS_IBM1047, ULIB_CNV_STOP, false);
    CSConverter uss(ULIB_CS_IBM1047_S390, ULIB_CNV_STOP, false);
    EXPECT_EQ(toBytes(host, u"AB\n"), bytes({0xC1, 0xC2, 0x25}));
    EXPECT_EQ(toBytes(uss, u"AB\n"), bytes({0xC1, 0xC2, 0x15}));
    EXPECT_EQ(fromBytes(uss, bytes({0xC1, 0xC2, 0x15})), u"AB\n");
}

// Stateful encodings start from their initial state on every conversion.
TEST(CSConverter, StatefulEncodingsResetBetweenConversions) {
    const std::u16string text = u"日本AB";
    CSConverter jis(ULIB_CS_ISO_2022_JP, ULIB_CNV_STOP, false);
    const std::string expectedJis = bytes({0x1B, 0x24, 0x42, 0x46, 0x7C, 0x4B, 0x5C, 0x1B, 0x28, 0x42, 0x41, 0x42});
    EXPECT_EQ(toBytes(jis, text), expectedJis);
    EXPECT_EQ(toBytes(jis, text), expectedJis);
    EXPECT_EQ(fromBytes(jis, expectedJis), text);

    CSConverter host(ULIB_CS_IBM930, ULIB_CNV_STOP, false);
    const std::string expectedHost = bytes({0x0E, 0x45, 0x62, 0x45, 0x66, 0x0F, 0xC1, 0xC2});
    bool ok = true;
    toBytes(host, u"日\U0001F600", &ok);  // fails in double-byte mode
    EXPECT_FALSE(ok);
    EXPECT_EQ(toBytes(host, text), expectedHost);
    EXPECT_EQ(fromBytes(host, expectedHost), text);
}

TEST(CSConverter, BehavioursOnUnconvertibleInput) {
    const std::u16string text = u"a€b\U0001F600";
    struct Case {
        uint32_t behaviour;
        bool ok;
        std::string out;
        std::u16string back;  // US-ASCII bytes "a\xE4z" to Unicode
    };
    const Case cases[] = {
        {ULIB_CNV_ICU_DEFAULT, true, "a\x1A" "b\x1A", u"a\uFFFDz"},
        {ULIB_CNV_STOP, false, "a", u"a"},
        {ULIB_CNV_SKIP, true, "ab", u"az"},
        {ULIB_CNV_SUBSTITUTE, true, "a?b?", u"a\uFFFDz"},
        {ULIB_CNV_ESCAPE, true, "a\\u20ACb\\U0001F600", u"a\\xE4z"},
        {9, false, "a", u"a"},  // not a behaviour: stops
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.behaviour);
        CSConverter latin1(ULIB_CS_ISO_8859_1, ULibCnvErrBehavior(k.behaviour), false);
        UErrorCode status = U_ZERO_ERROR;
        bool ok = !k.ok;
        EXPECT_EQ(toBytes(latin1, text, &ok, &status), k.out);
        EXPECT_EQ(ok, k.ok);
        if (!k.ok) {
            EXPECT_EQ(status, U_INVALID_CHAR_FOUND);
        }
        // A failed conversion leaves nothing behind for the next one.
        EXPECT_EQ(toBytes(latin1, u"ok"), "ok");

        CSConverter ascii(ULIB_CS_US_ASCII, ULibCnvErrBehavior(k.behaviour), false);
        status = U_ZERO_ERROR;
        EXPECT_EQ(fromBytes(ascii, "a\xE4z", &ok, &status), k.back);
        EXPECT_EQ(ok, k.ok);
        if (!k.ok) {
            EXPECT_EQ(status, U_ILLEGAL_CHAR_FOUND);
        }
    }

    // The substitution string is "?" in the target's own encoding.
    CSConverter ebcdic(ULIB_CS_IBM1047, ULIB_CNV_SUBSTITUTE, false);
    EXPECT_EQ(toBytes(ebcdic, u"A\u4E00"), bytes({0xC1, 0x6F}));
}

TEST(CSConverter, FallbackMappingsOnlyWhenAsked) {
    CSConverter exact(ULIB_CS_IBM437, ULIB_CNV_STOP, false);
    CSConverter fallback(ULIB_CS_IBM437, ULIB_CNV_STOP, true);
    bool ok = true;
    toBytes(exact, u"§", &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(toBytes(fallback, u"§", &ok), bytes({0x15}));
    EXPECT_TRUE(ok);
}

TEST(CSConverter, ThreadBehaviourIsPerThreadAndUsedByDefault) {
    EXPECT_EQ(ULibGetCnvErrBehavior(), ULIB_CNV_ICU_DEFAULT);
    ULibSetCnvErrBehavior(ULIB_CNV_SKIP);

    ULibCnvErrBehavior seen = ULIB_CNV_STOP;
    std::string other;
    std::thread t([&] {
        seen = ULibGetCnvErrBehavior();
        ULibSetCnvErrBehavior(ULIB_CNV_SUBSTITUTE);
        CSConverter c(ULIB_CS_ISO_8859_1);
        other = toBytes(c, u"a€b");
    });
    t.join();
    EXPECT_EQ(seen, ULIB_CNV_ICU_DEFAULT);
    EXPECT_EQ(other, "a?b");

    EXPECT_EQ(ULibGetCnvErrBehavior(), ULIB_CNV_SKIP);
    CSConverter mine(ULIB_CS_ISO_8859_1);
    EXPECT_EQ(toBytes(mine, u"a€b"), "ab");
    ULibSetCnvErrBehavior(ULIB_CNV_ICU_DEFAULT);
}
