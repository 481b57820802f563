// A small tagged value with a fixed type: what every context item and every
// message argument carries.
#pragma once

#include <sys/time.h>

#include <ctime>
#include <vector>

#include "zvlog/Export.h"

class ZVLOG_API CDataItem {
public:
    // The numbers are part of the interface: callers switch on GetType().
    enum Type : int {
        TypeString = 0,
        TypeInt = 1,
        TypeUInt = 2,
        TypeInt64 = 3,
        TypeUInt64 = 4,
        TypeBool = 5,
        TypeTimespec = 6,
        TypePointer = 7,
        TypeVector = 8,
    };

    // 16 bytes, all zeroed before a payload is stored.
    union Value {
        const char* str;
        int i32;
        unsigned int u32;
        long long i64;
        unsigned long long u64;
        unsigned char b;
        timespec ts;
        const void* ptr;
        std::vector<CDataItem>* vec;
        unsigned char raw[16];
    };
    static_assert(sizeof(timespec) == 16);

    // Strings: (s, own) stores s itself (own hands a heap string made with
    // malloc/strdup to the item); a const char* const& (a literal) is stored
    // without copy; a pointer lvalue (char*&, const char*&, char* const&) is
    // copied with SafeStrdup and owned.
    CDataItem(const char* s, bool own);
    CDataItem(const char* const& s);
    CDataItem(char*& s);
    CDataItem(const char*& s);
    CDataItem(char* const& s);
    CDataItem(int v);
    CDataItem(unsigned int v);
    CDataItem(long v);                // 64-bit on this platform
    CDataItem(unsigned long v);
    CDataItem(long long v);
    CDataItem(unsigned long long v);
    CDataItem(bool v);
    CDataItem(timespec v);
    CDataItem(timeval v);             // seconds sign-extended, microseconds x 1000
    CDataItem(const void* v);
    CDataItem(std::vector<CDataItem>* v);
    CDataItem(const CDataItem& other);
    virtual ~CDataItem();

    // Whole-item assignment: type and ownership follow the source.
    CDataItem& operator=(const CDataItem& other);
    // Assignments that keep the type.
    CDataItem& operator=(int v);
    CDataItem& operator=(unsigned int v);
    CDataItem& operator=(long v);
    CDataItem& operator=(unsigned long v);
    CDataItem& operator=(long long v);
    CDataItem& operator=(unsigned long long v);
    CDataItem& operator=(bool v);
    // On a TypeString item only: store without copy (not owned) ...
    CDataItem& operator=(const char* const& s);
    // ... or store an owned SafeStrdup copy.
    CDataItem& operator=(char*& s);
    CDataItem& operator=(const char*& s);
    CDataItem& operator=(char* const& s);
    // Assignments that do not look at the type or ownership.
    CDataItem& operator=(timespec v);
    CDataItem& operator=(timeval v);
    CDataItem& operator=(const void* v);
    CDataItem& operator=(std::vector<CDataItem>* v);
    void SetStringValue(const char* s);

    Type GetType() const { return type_; }
    const Value& GetValue() const { return value_; }
    bool IsOwned() const { return owned_; }

    operator timespec() const;
    operator timeval() const;
    operator const char*() const;
    operator const void*() const;
    operator std::vector<CDataItem>*() const;
    operator bool() const;
    // Range-checked reads: out of range reads as 0; TypeBool true as all ones.
    operator int() const;
    operator unsigned int() const;
    operator long long() const;
    operator unsigned long long() const;

    bool operator==(const CDataItem& other) const;
    bool operator==(const timespec& t) const;
    bool operator==(const timeval& t) const;

    // The one place where a string is copied; a null pointer becomes "<NIL>"
    // (and an ERROR event on the logger "zvlog.CDataItem").
    static char* SafeStrdup(const char* s);

private:
    void FreeValue();
    // All 16 bytes: a value-initialised union zeroes only its first member.
    void Clear();

    bool owned_ = false;
    Type type_;
    Value value_;
};
