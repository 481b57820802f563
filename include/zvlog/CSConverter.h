// The general character converter: text between UTF-16 and the character set
// a ULibCharSet names, through ICU.
//
// A CSConverter holds one implementation: CSConverterICU for a plain value,
// CSConverterEscape (around an inner CSConverter) for a value with the escape
// flag. When ICU cannot open the character set the converter has no
// implementation; isValid() says so and every conversion fails.
//
// A converter keeps ICU state between the chunks of one conversion, so one
// converter serves one thread at a time.
#pragma once

#include <unicode/ucnv_err.h>
#include <unicode/utypes.h>

#include <cstdint>
#include <string>

#include "zvlog/Export.h"
#include "zvlog/ULibCharSet.h"

U_NAMESPACE_BEGIN
class UnicodeString;
U_NAMESPACE_END

// Encoding class of a converter, from ICU's converter type.
enum CSEncodingClass : int {
    CS_CLASS_UTF8 = 0,             // UTF-8, CESU-8
    CS_CLASS_UTF16 = 1,            // UTF-16 in either byte order or with byte-order mark
    CS_CLASS_UTF32 = 2,
    CS_CLASS_SBCS = 3,             // single-byte tables, Latin-1, US-ASCII
    CS_CLASS_MBCS = 4,
    CS_CLASS_DBCS = 5,
    CS_CLASS_EBCDIC_STATEFUL = 6,  // EBCDIC mixed single/double byte with SO/SI
    CS_CLASS_ISO2022 = 7,
    CS_CLASS_OTHER = 8,
};

class CSConverter;

// What a CSConverter converts through. Conversions replace `out`; on failure
// `out` holds what was converted before the failing input and `status` the
// ICU error.
class ZVLOG_API CSConverterImpl {
public:
    virtual ~CSConverterImpl();

    virtual bool fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode& status) = 0;
    virtual bool toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode& status) = 0;

    virtual bool isValid() const = 0;
    virtual const char* name() const = 0;  // ICU's canonical converter name
    virtual int minCharSize() const = 0;
    virtual int maxCharSize() const = 0;
    virtual int encodingClass() const = 0;
};

// A converter ICU opened by the table's converter name.
class ZVLOG_API CSConverterICU final : public CSConverterImpl {
public:
    CSConverterICU(ULibCharSet charset, ULibCnvErrBehavior behaviour, bool fallback);
    ~CSConverterICU() override;
    CSConverterICU(const CSConverterICU&) = delete;
    CSConverterICU& operator=(const CSConverterICU&) = delete;

    // Null when ICU could not open the converter.
    UConverter* handle() const { return converter_; }

    // From now on, write unconvertible characters as C escapes whatever the
    // behaviour (the escape wrapper's inner converter).
    void escapeFromUnicode();

    bool fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode& status) override;
    bool toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode& status) override;

    bool isValid() const override { return converter_ != nullptr; }
    const char* name() const override;
    int minCharSize() const override { return minSize_; }
    int maxCharSize() const override;
    int encodingClass() const override { return encodingClass_; }

private:
    UConverter* converter_ = nullptr;
    int minSize_ = 1;
    int encodingClass_ = CS_CLASS_OTHER;
};

// The wrapper the escape flag selects: converts through an inner converter for
// the value without the flag. From Unicode it writes whatever the inner
// character set cannot represent as C escapes ("\u20AC", "\U0001F600"), so no
// text is lost on the way out; to Unicode the inner converter's behaviour
// applies.
class ZVLOG_API CSConverterEscape final : public CSConverterImpl {
public:
    CSConverterEscape(ULibCharSet charset, ULibCnvErrBehavior behaviour, bool fallback);
    ~CSConverterEscape() override;
    CSConverterEscape(const CSConverterEscape&) = delete;
    CSConverterEscape& operator=(const CSConverterEscape&) = delete;

    const CSConverter& inner() const { return *inner_; }

    bool fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode& status) override;
    bool toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode& status) override;

    bool isValid() const override;
    const char* name() const override;
    int minCharSize() const override;
    int maxCharSize() const override;
    int encodingClass() const override;

private:
    CSConverter* inner_;
};

class ZVLOG_API CSConverter {
public:
    // With the calling thread's current behaviour (ULibGetCnvErrBehavior) and
    // no fallback mappings.
    explicit CSConverter(ULibCharSet charset);
    // `fallback` lets ICU use one-way (best-fit) mappings.
    CSConverter(ULibCharSet charset, ULibCnvErrBehavior behaviour, bool fallback);
    virtual ~CSConverter();
    CSConverter(const CSConverter&) = delete;
    CSConverter& operator=(const CSConverter&) = delete;

    bool isValid() const { return impl_ != nullptr && impl_->isValid(); }
    CSConverterImpl* impl() const { return impl_; }
    ULibCharSet charSet() const { return charset_; }

    // Facts of the opened converter; null/0/CS_CLASS_OTHER when not valid.
    const char* name() const;
    int minCharSize() const;
    int maxCharSize() const;
    int encodingClass() const;

    // UTF-16 to bytes in the character set. Replaces `out`; false on failure,
    // with the ICU error in `*status` when given.
    bool fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode* status = nullptr);
    bool fromUnicode(const icu::UnicodeString& src, std::string& out, UErrorCode* status = nullptr);

    // Bytes in the character set to UTF-16, likewise.
    bool toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode* status = nullptr);
    bool toUnicode(const char* src, int32_t length, icu::UnicodeString& out, UErrorCode* status = nullptr);

    // The name of ICU's default converter, which ULIB_CS_PLATFORM_DEFAULT and
    // values outside the table open.
    static const char* platformDefaultName();

private:
    CSConverterImpl* impl_ = nullptr;
    ULibCharSet charset_;
};

// The calling thread's current conversion error behaviour, kept in the
// thread's own data: ULIB_CNV_ICU_DEFAULT until the thread sets another.
ZVLOG_API ULibCnvErrBehavior ULibGetCnvErrBehavior();
ZVLOG_API void ULibSetCnvErrBehavior(ULibCnvErrBehavior behaviour);
