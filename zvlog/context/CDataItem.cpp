#include "zvlog/CDataItem.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "zvlog/Log.h"
#include "zvlog/LoggingCallStack.h"

using zvs::zvlib::zvlog::LEVEL_ERROR;
using zvs::zvlib::zvlog::Logger;
using zvs::zvlib::zvlog::LoggingCallStack;

namespace {

// The nanoseconds of a time stamp as the item stores them: a signed 32-bit
// field, whatever width the platform's timespec gives it.
inline int32_t nanosOf(const timespec& ts) { return static_cast<int32_t>(ts.tv_nsec); }

}  // namespace

// ---- construction ---------------------------------------------------------

void CDataItem::Clear() { std::memset(&value_, 0, sizeof value_); }

CDataItem::CDataItem(const char* s, bool own) : owned_(own), type_(TypeString) {
    Clear();
    value_.str = s;
}

CDataItem::CDataItem(const char* const& s) : type_(TypeString) {
    Clear();
    value_.str = s;
}

CDataItem::CDataItem(char*& s) : owned_(true), type_(TypeString) {
    Clear();
    value_.str = SafeStrdup(s);
}

CDataItem::CDataItem(const char*& s) : owned_(true), type_(TypeString) {
    Clear();
    value_.str = SafeStrdup(s);
}

CDataItem::CDataItem(char* const& s) : owned_(true), type_(TypeString) {
    Clear();
    value_.str = SafeStrdup(s);
}

CDataItem::CDataItem(int v) : type_(TypeInt) {
    Clear();
    value_.i32 = v;
}

CDataItem::CDataItem(unsigned int v) : type_(TypeUInt) {
    Clear();
    value_.u32 = v;
}

CDataItem::CDataItem(long v) : CDataItem(static_cast<long long>(v)) {}

CDataItem::CDataItem(unsigned long v) : CDataItem(static_cast<unsigned long long>(v)) {}

CDataItem::CDataItem(long long v) : type_(TypeInt64) {
    Clear();
    value_.i64 = v;
}

CDataItem::CDataItem(unsigned long long v) : type_(TypeUInt64) {
    Clear();
    value_.u64 = v;
}

CDataItem::CDataItem(bool v) : type_(TypeBool) {
    Clear();
    value_.b = v ? 1 : 0;
}

CDataItem::CDataItem(timespec v) : type_(TypeTimespec) {
    Clear();
    value_.ts.tv_sec = v.tv_sec;
    value_.ts.tv_nsec = v.tv_nsec;
}

CDataItem::CDataItem(timeval v) : type_(TypeTimespec) {
    Clear();
    value_.ts.tv_sec = v.tv_sec;
    value_.ts.tv_nsec = v.tv_usec * 1000;
}

CDataItem::CDataItem(const void* v) : type_(TypePointer) {
    Clear();
    value_.ptr = v;
}

CDataItem::CDataItem(std::vector<CDataItem>* v) : type_(TypeVector) {
    Clear();
    value_.vec = v;
}

CDataItem::CDataItem(const CDataItem& other) : owned_(other.owned_), type_(other.type_) {
    Clear();
    if (other.owned_ && other.type_ == TypeString)
        value_.str = SafeStrdup(other.value_.str);
    else
        value_ = other.value_;
}

CDataItem::~CDataItem() { FreeValue(); }

void CDataItem::FreeValue() {
    if (owned_ && type_ == TypeString && value_.str) {
        std::free(const_cast<char*>(value_.str));
        value_.str = nullptr;
    }
}

// ---- assignment -----------------------------------------------------------

CDataItem& CDataItem::operator=(const CDataItem& other) {
    if (this == &other) return *this;
    FreeValue();
    owned_ = other.owned_;
    type_ = other.type_;
    Clear();
    if (other.owned_ && other.type_ == TypeString)
        value_.str = SafeStrdup(other.value_.str);
    else
        value_ = other.value_;
    return *this;
}

CDataItem& CDataItem::operator=(int v) {
    switch (type_) {
        case TypeInt:
        case TypeUInt: value_.i32 = v; break;
        case TypeInt64:
        case TypeUInt64: value_.i64 = v; break;
        case TypeBool: value_.b = v != 0; break;
        default: break;
    }
    return *this;
}

CDataItem& CDataItem::operator=(unsigned int v) {
    switch (type_) {
        case TypeInt:
        case TypeUInt: value_.u32 = v; break;
        case TypeInt64:
        case TypeUInt64: value_.u64 = v; break;
        case TypeBool: value_.b = v != 0; break;
        default: break;
    }
    return *this;
}

// Signed and unsigned 64-bit values are one operation: only the bits matter.
CDataItem& CDataItem::operator=(unsigned long long v) {
    switch (type_) {
        case TypeInt:
        case TypeUInt: value_.u32 = static_cast<unsigned int>(v); break;
        case TypeInt64:
        case TypeUInt64: value_.u64 = v; break;
        case TypeBool: value_.b = v != 0; break;
        default: break;
    }
    return *this;
}

CDataItem& CDataItem::operator=(long long v) { return *this = static_cast<unsigned long long>(v); }
CDataItem& CDataItem::operator=(long v) { return *this = static_cast<unsigned long long>(v); }
CDataItem& CDataItem::operator=(unsigned long v) { return *this = static_cast<unsigned long long>(v); }

CDataItem& CDataItem::operator=(bool v) {
    switch (type_) {
        case TypeInt:
        case TypeUInt: value_.u32 = v ? UINT_MAX : 0; break;
        case TypeInt64:
        case TypeUInt64: value_.u64 = v ? ULLONG_MAX : 0; break;
        case TypeBool: value_.b = v ? 1 : 0; break;
        default: break;
    }
    return *this;
}

CDataItem& CDataItem::operator=(const char* const& s) {
    if (type_ != TypeString) return *this;
    FreeValue();
    value_.str = s;
    owned_ = false;
    return *this;
}

CDataItem& CDataItem::operator=(char*& s) { return *this = static_cast<char* const&>(s); }

CDataItem& CDataItem::operator=(const char*& s) {
    char* const p = const_cast<char*>(s);
    return *this = p;
}

CDataItem& CDataItem::operator=(char* const& s) {
    if (type_ != TypeString) return *this;
    // Copy before freeing: s may be the string this item owns.
    char* copy = SafeStrdup(s);
    FreeValue();
    value_.str = copy;
    owned_ = true;
    return *this;
}

CDataItem& CDataItem::operator=(timespec v) {
    value_.ts.tv_sec = v.tv_sec;
    value_.ts.tv_nsec = v.tv_nsec;
    return *this;
}

CDataItem& CDataItem::operator=(timeval v) {
    value_.ts.tv_sec = v.tv_sec;
    value_.ts.tv_nsec = v.tv_usec * 1000;
    return *this;
}

CDataItem& CDataItem::operator=(const void* v) {
    value_.ptr = v;
    return *this;
}

CDataItem& CDataItem::operator=(std::vector<CDataItem>* v) { return *this = static_cast<const void*>(v); }

void CDataItem::SetStringValue(const char* s) { value_.str = s; }

// ---- reads ----------------------------------------------------------------

CDataItem::operator timespec() const { return value_.ts; }

CDataItem::operator timeval() const {
    timeval tv{};
    tv.tv_sec = static_cast<int32_t>(value_.ts.tv_sec);
    tv.tv_usec = nanosOf(value_.ts) / 1000;
    return tv;
}

CDataItem::operator const char*() const { return value_.str; }

CDataItem::operator const void*() const { return value_.ptr; }

CDataItem::operator std::vector<CDataItem>*() const { return value_.vec; }

CDataItem::operator bool() const {
    for (unsigned char byte : value_.raw)
        if (byte) return true;
    return false;
}

CDataItem::operator int() const {
    switch (type_) {
        case TypeInt: return value_.i32;
        case TypeUInt: return value_.u32 <= INT_MAX ? static_cast<int>(value_.u32) : 0;
        case TypeInt64:
            return value_.i64 >= INT_MIN && value_.i64 <= INT_MAX ? static_cast<int>(value_.i64) : 0;
        case TypeUInt64: return value_.u64 <= INT_MAX ? static_cast<int>(value_.u64) : 0;
        case TypeBool: return value_.b ? -1 : 0;
        default: return 0;
    }
}

CDataItem::operator unsigned int() const {
    switch (type_) {
        case TypeInt: return value_.i32 >= 0 ? static_cast<unsigned int>(value_.i32) : 0;
        case TypeUInt: return value_.u32;
        case TypeInt64:
            return value_.i64 >= 0 && value_.i64 <= UINT_MAX ? static_cast<unsigned int>(value_.i64) : 0;
        case TypeUInt64: return value_.u64 <= UINT_MAX ? static_cast<unsigned int>(value_.u64) : 0;
        case TypeBool: return value_.b ? UINT_MAX : 0;
        default: return 0;
    }
}

CDataItem::operator long long() const {
    switch (type_) {
        case TypeInt: return value_.i32;
        case TypeUInt: return value_.u32;
        case TypeInt64: return value_.i64;
        // Only all ones counts as out of range; larger values read negative.
        case TypeUInt64: return value_.u64 == ULLONG_MAX ? 0 : static_cast<long long>(value_.u64);
        case TypeBool: return value_.b ? -1 : 0;
        default: return 0;
    }
}

CDataItem::operator unsigned long long() const {
    switch (type_) {
        case TypeInt: return value_.i32 >= 0 ? static_cast<unsigned long long>(value_.i32) : 0;
        case TypeUInt: return value_.u32;
        case TypeInt64: return value_.i64 >= 0 ? static_cast<unsigned long long>(value_.i64) : 0;
        case TypeUInt64: return value_.u64;
        case TypeBool: return value_.b ? ULLONG_MAX : 0;
        default: return 0;
    }
}

// ---- equality -------------------------------------------------------------

bool CDataItem::operator==(const CDataItem& other) const {
    if (type_ != other.type_) return false;
    switch (type_) {
        case TypeString:
            if (!value_.str || !other.value_.str) return value_.str == other.value_.str;
            return std::strcmp(value_.str, other.value_.str) == 0;
        case TypeVector: {
            const std::vector<CDataItem>* a = value_.vec;
            const std::vector<CDataItem>* b = other.value_.vec;
            if (!a || !b) return a == b;
            if (a->size() != b->size()) return false;
            for (size_t i = 0; i < a->size(); ++i)
                if (!((*a)[i] == (*b)[i])) return false;
            return true;
        }
        default:
            // Only the first 8 bytes: time stamps compare by their seconds.
            return value_.u64 == other.value_.u64;
    }
}

bool CDataItem::operator==(const timespec& t) const {
    return value_.ts.tv_sec == t.tv_sec && nanosOf(value_.ts) == static_cast<int32_t>(t.tv_nsec);
}

bool CDataItem::operator==(const timeval& t) const {
    return value_.ts.tv_sec == t.tv_sec && nanosOf(value_.ts) == static_cast<int32_t>(t.tv_usec * 1000);
}

// ---- copying strings ------------------------------------------------------

char* CDataItem::SafeStrdup(const char* s) {
    if (!s) {
        static constexpr const char* kSubstitute = "<NIL>";
        static Logger* const logger = Logger::getRepository()->getLogger("zvlog.CDataItem");
        if (logger->isEnabledFor(LEVEL_ERROR)) {
            LoggingCallStack stack;
            ZVLOG_LOG_AT(logger, LEVEL_ERROR, "zvlog/CDataItem", "SafeStrdup", __LINE__,
                         "NULL pointer encountered - using substitute value of '%s'\n%s", kSubstitute,
                         stack.text());
        }
        s = kSubstitute;
    }
    return strdup(s);
}
