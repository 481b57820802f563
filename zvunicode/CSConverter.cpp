// CSConverter and its implementations over ICU converters.
#include "zvlog/CSConverter.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>
#include <unicode/unistr.h>

#include "zvlog/MultiThreading.h"
#include "zvunicode/IcuConverterPath.h"

namespace {

// "?" is in every character set the table names, so the substitution stays
// one readable character instead of ICU's per-table choice (0x1A, 0x3F, a
// double-byte box, ...).
constexpr UChar kSubstitution[] = {u'?'};

// C-style escapes: \uXXXX and \UXXXXXXXX from Unicode, \xXX to Unicode. They
// read the same in a log line whatever the character set.
const char* const kEscapeOption = UCNV_ESCAPE_C;

int encodingClassOf(UConverterType type) {
    switch (type) {
        case UCNV_UTF8:
        case UCNV_CESU8:
            return CS_CLASS_UTF8;
        case UCNV_UTF16_BigEndian:
        case UCNV_UTF16_LittleEndian:
        case UCNV_UTF16:
            return CS_CLASS_UTF16;
        case UCNV_UTF32_BigEndian:
        case UCNV_UTF32_LittleEndian:
        case UCNV_UTF32:
            return CS_CLASS_UTF32;
        case UCNV_SBCS:
        case UCNV_LATIN_1:
        case UCNV_US_ASCII:
            return CS_CLASS_SBCS;
        case UCNV_MBCS:
            return CS_CLASS_MBCS;
        case UCNV_DBCS:
            return CS_CLASS_DBCS;
        case UCNV_EBCDIC_STATEFUL:
            return CS_CLASS_EBCDIC_STATEFUL;
        case UCNV_ISO_2022:
            return CS_CLASS_ISO2022;
        default:
            return CS_CLASS_OTHER;
    }
}

void installCallbacks(UConverter* converter, ULibCnvErrBehavior behaviour) {
    UErrorCode status = U_ZERO_ERROR;
    switch (behaviour) {
        case ULIB_CNV_ICU_DEFAULT:
            return;
        case ULIB_CNV_SKIP:
            ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_SKIP, nullptr, nullptr, nullptr, &status);
            ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_SKIP, nullptr, nullptr, nullptr, &status);
            return;
        case ULIB_CNV_SUBSTITUTE:
            ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr, &status);
            ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr, &status);
            {
                // A character set without "?" keeps ICU's own substitution.
                UErrorCode subStatus = U_ZERO_ERROR;
                ucnv_setSubstString(converter, kSubstitution, 1, &subStatus);
            }
            return;
        case ULIB_CNV_ESCAPE:
            ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_ESCAPE, kEscapeOption, nullptr, nullptr, &status);
            ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_ESCAPE, kEscapeOption, nullptr, nullptr, &status);
            return;
        case ULIB_CNV_STOP:
        default:
            ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
            ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
            return;
    }
}

// Room for the usual case in one pass; escapes and state changes may need more.
size_t initialBytes(int32_t length, int maxCharSize) {
    return static_cast<size_t>(UCNV_GET_MAX_BYTES_FOR_STRING(length, maxCharSize)) + 16;
}

}  // namespace

CSConverterImpl::~CSConverterImpl() = default;

// --- CSConverterICU ---------------------------------------------------------

CSConverterICU::CSConverterICU(ULibCharSet charset, ULibCnvErrBehavior behaviour, bool fallback) {
    const char* name = nullptr;  // null opens ICU's default converter
    if (charset != ULIB_CS_PLATFORM_DEFAULT) {
        if (const CharSetDescription* row = ULibGetCharSetDescription(charset)) name = row->converterName;
    }
    zvUseLibraryIcuConverters();  // the converters the library brings along
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(name, &status);
    if (U_FAILURE(status)) {
        if (converter) ucnv_close(converter);
        return;
    }
    converter_ = converter;
    minSize_ = ucnv_getMinCharSize(converter_);
    encodingClass_ = encodingClassOf(ucnv_getType(converter_));
    installCallbacks(converter_, behaviour);
    ucnv_setFallback(converter_, fallback ? true : false);
}

CSConverterICU::~CSConverterICU() {
    if (converter_) ucnv_close(converter_);
}

void CSConverterICU::escapeFromUnicode() {
    if (!converter_) return;
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setFromUCallBack(converter_, UCNV_FROM_U_CALLBACK_ESCAPE, kEscapeOption, nullptr, nullptr, &status);
}

const char* CSConverterICU::name() const {
    if (!converter_) return nullptr;
    UErrorCode status = U_ZERO_ERROR;
    const char* n = ucnv_getName(converter_, &status);
    return U_SUCCESS(status) ? n : nullptr;
}

int CSConverterICU::maxCharSize() const { return converter_ ? ucnv_getMaxCharSize(converter_) : 0; }

namespace {

// Converts src into out in one direction, growing out until the text fits.
// `convert` is ucnv_fromUnicode or ucnv_toUnicode bound to the converter.
template <class Source, class Output, class Convert>
bool convertGrowing(UConverter* converter, const Source* src, int32_t length, Output& out, size_t initialSize,
                    UErrorCode& status, Convert&& convert) {
    using Unit = typename Output::value_type;
    out.clear();
    if (!converter) {
        status = U_INVALID_STATE_ERROR;
        return false;
    }
    if (length < 0 || (src == nullptr && length > 0)) {
        status = U_ILLEGAL_ARGUMENT_ERROR;
        return false;
    }
    const Source* source = src;
    const Source* sourceLimit = src + length;
    out.resize(initialSize);
    size_t used = 0;
    for (;;) {
        Unit* target = out.data() + used;
        status = U_ZERO_ERROR;
        convert(&target, out.data() + out.size(), &source, sourceLimit, &status);
        used = static_cast<size_t>(target - out.data());
        if (status != U_BUFFER_OVERFLOW_ERROR) break;
        out.resize(out.size() * 2);
    }
    out.resize(used);
    return U_SUCCESS(status);
}

}  // namespace

bool CSConverterICU::fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode& status) {
    if (converter_) ucnv_resetFromUnicode(converter_);
    const size_t initial = converter_ && length >= 0 ? initialBytes(length, ucnv_getMaxCharSize(converter_)) : 16;
    return convertGrowing(converter_, src, length, out, initial, status,
                          [this](char** t, const char* tl, const UChar** s, const UChar* sl, UErrorCode* st) {
                              ucnv_fromUnicode(converter_, t, tl, s, sl, nullptr, true, st);
                          });
}

bool CSConverterICU::toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode& status) {
    if (converter_) ucnv_resetToUnicode(converter_);
    // One code unit per byte covers every table but escapes; grow for those.
    const size_t initial = static_cast<size_t>(length > 0 ? length : 0) + 16;
    return convertGrowing(converter_, src, length, out, initial, status,
                          [this](char16_t** t, const char16_t* tl, const char** s, const char* sl, UErrorCode* st) {
                              ucnv_toUnicode(converter_, t, tl, s, sl, nullptr, true, st);
                          });
}

// --- CSConverterEscape ------------------------------------------------------

CSConverterEscape::CSConverterEscape(ULibCharSet charset, ULibCnvErrBehavior behaviour, bool fallback)
    : inner_(new CSConverter(ULibBaseCharSet(charset), behaviour, fallback)) {
    if (auto* icu = dynamic_cast<CSConverterICU*>(inner_->impl())) icu->escapeFromUnicode();
}

CSConverterEscape::~CSConverterEscape() { delete inner_; }

bool CSConverterEscape::fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode& status) {
    return inner_->fromUnicode(src, length, out, &status);
}

bool CSConverterEscape::toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode& status) {
    return inner_->toUnicode(src, length, out, &status);
}

bool CSConverterEscape::isValid() const { return inner_->isValid(); }
const char* CSConverterEscape::name() const { return inner_->name(); }
int CSConverterEscape::minCharSize() const { return inner_->minCharSize(); }
int CSConverterEscape::maxCharSize() const { return inner_->maxCharSize(); }
int CSConverterEscape::encodingClass() const { return inner_->encodingClass(); }

// --- CSConverter ------------------------------------------------------------

CSConverter::CSConverter(ULibCharSet charset) : CSConverter(charset, ULibGetCnvErrBehavior(), false) {}

CSConverter::CSConverter(ULibCharSet charset, ULibCnvErrBehavior behaviour, bool fallback) : charset_(charset) {
    if (ULibIsEscapedCharSet(charset)) {
        impl_ = new CSConverterEscape(charset, behaviour, fallback);
        return;
    }
    auto* icu = new CSConverterICU(charset, behaviour, fallback);
    if (icu->isValid()) {
        impl_ = icu;
    } else {
        delete icu;
    }
}

CSConverter::~CSConverter() { delete impl_; }

const char* CSConverter::name() const { return isValid() ? impl_->name() : nullptr; }
int CSConverter::minCharSize() const { return isValid() ? impl_->minCharSize() : 0; }
int CSConverter::maxCharSize() const { return isValid() ? impl_->maxCharSize() : 0; }
int CSConverter::encodingClass() const { return isValid() ? impl_->encodingClass() : CS_CLASS_OTHER; }

namespace {

// Runs a conversion on a converter's implementation. Without one (the
// converter failed to open) the output is emptied and the status says
// U_INVALID_STATE_ERROR. A null status is allowed.
template <class Out, class Convert>
bool convertWith(CSConverterImpl* impl, Out& out, UErrorCode* status, Convert&& convert) {
    UErrorCode local = U_ZERO_ERROR;
    UErrorCode& st = status ? *status : local;
    if (!impl) {
        out.clear();
        st = U_INVALID_STATE_ERROR;
        return false;
    }
    return convert(*impl, st);
}

}  // namespace

bool CSConverter::fromUnicode(const UChar* src, int32_t length, std::string& out, UErrorCode* status) {
    return convertWith(impl_, out, status,
                       [&](CSConverterImpl& impl, UErrorCode& st) { return impl.fromUnicode(src, length, out, st); });
}

bool CSConverter::fromUnicode(const icu::UnicodeString& src, std::string& out, UErrorCode* status) {
    if (src.isBogus()) {
        out.clear();
        if (status) *status = U_ILLEGAL_ARGUMENT_ERROR;
        return false;
    }
    return fromUnicode(src.getBuffer(), src.length(), out, status);
}

bool CSConverter::toUnicode(const char* src, int32_t length, std::u16string& out, UErrorCode* status) {
    return convertWith(impl_, out, status,
                       [&](CSConverterImpl& impl, UErrorCode& st) { return impl.toUnicode(src, length, out, st); });
}

bool CSConverter::toUnicode(const char* src, int32_t length, icu::UnicodeString& out, UErrorCode* status) {
    std::u16string units;
    bool ok = toUnicode(src, length, units, status);
    out.setTo(units.data(), static_cast<int32_t>(units.size()));
    return ok;
}

const char* CSConverter::platformDefaultName() { return ucnv_getDefaultName(); }

// --- per-thread behaviour ---------------------------------------------------

namespace {

// Never destroyed: threads may end during static destruction.
zvs::zvlib::MultiThreading::ThreadLocal& behaviourSlot() {
    using namespace zvs::zvlib::MultiThreading;
    static ThreadLocal* slot = new ThreadLocal(new DataCreatorImpl<ULibCnvErrBehavior>());
    return *slot;
}

}  // namespace

ULibCnvErrBehavior ULibGetCnvErrBehavior() { return *static_cast<ULibCnvErrBehavior*>(behaviourSlot().get()); }

void ULibSetCnvErrBehavior(ULibCnvErrBehavior behaviour) {
    *static_cast<ULibCnvErrBehavior*>(behaviourSlot().get()) = behaviour;
}
