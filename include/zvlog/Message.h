// Catalogued messages: the factory that makes them from the compiled catalog,
// and the message objects that format and issue themselves.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <vector>

#include <unicode/uversion.h>

#include "zvlog/CDataItem.h"
#include "zvlog/Export.h"

U_NAMESPACE_BEGIN
class ResourceBundle;
U_NAMESPACE_END

class CErrorContext;
class CMessage;
class CMessageContext;
class CSourceContext;

// A character set for formatted text (values of ULibCharSet.h);
// 0x40000000 is the platform's default.
using ULibCharSetValue = uint32_t;
constexpr ULibCharSetValue kDefaultCharSet = 0x40000000u;

// Which actions of a severity run: 1 those that end the process, 2 the
// interactive ones, 4 all others; 65535 all of them.
using CActionAttribute = uint32_t;
constexpr CActionAttribute kAllActions = 65535;

// A process's (and a message's) report scope, as bits.
using CMessageReportType = uint32_t;

// The severity names of the catalog's "SeverityActions" table.
struct ZVLOG_API SeverityNames {
    static const char* const ZVStore;
    static const char* const ZVException;
    static const char* const ZVFatalMemoryError;
    static const char* const ZVFatal;
    static const char* const ZVError;
    static const char* const ZVWarnNoReport;
    static const char* const ZVWarn;
    static const char* const ZVInfoNoReport;
    static const char* const ZVInfo;
};

class ZVLOG_API CMessageFactory {
public:
    enum MessageDisposition : int { IssueMessage = 0, ReturnMessage = 1 };

    virtual ~CMessageFactory();

    // The default factory, created and loaded on first use. A missing or
    // wrong catalog ends the process (the reason goes to standard error).
    static CMessageFactory* GetDefaultFactory();
    // The default factory if it exists, without creating it.
    static CMessageFactory* PeekDefaultFactory();

    // A message of that number with the typed arguments that follow, read
    // in the order and as the kinds of the message's argument details:
    // Int32 int, UInt32 unsigned int, Int64 long long, UInt64 unsigned long
    // long, String const char*, Pointer const void*, DateTime struct timeval.
    CMessage* CreateMessage(CSourceContext* source, unsigned int number, ...);
    // The same with the arguments as data items; fewer items than details
    // raises message 1425 and stores "<Missing>" for each one missing.
    CMessage* CreateMessageFromItems(CSourceContext* source, unsigned int number, const CDataItem* arguments,
                                     unsigned int count);
    // A new message of the same number with a copy of the other's source
    // context and context items.
    CMessage* CreateMessage(const CMessage* other);

    // IssueMessage: duplicate detection, issue limits, then the severity's
    // actions; returns null. ReturnMessage: returns the message untouched.
    static CMessage* ProcessMessage(CMessage* message, MessageDisposition disposition);

    bool RemoveContext(const CErrorContext* context);
    void SuppressDuplicateMessages(bool on);
    // The calling thread's own flag (true for a thread without one).
    static bool GetSuppressDuplicateMessages();
    static void SetThreadSuppressDuplicateMessages(bool on);
    void SetReportType(CMessageReportType type);
    CMessageReportType GetReportType() const;
    static void RunningAsService();

    operator icu::ResourceBundle*() const;

    // Inside such a scope a fatal message raises ZVException instead of
    // ending the process.
    class ZVLOG_API FatalErrorAsException {
    public:
        FatalErrorAsException();
        ~FatalErrorAsException();
    };

    struct Impl;
    Impl* impl() const { return impl_; }

private:
    friend struct CMessageFactoryAccess;
    CMessageFactory();
    Impl* impl_;
};

struct CMessageDefinition;

class ZVLOG_API CMessage {
public:
    virtual ~CMessage();
    CMessage(const CMessage&) = delete;
    CMessage& operator=(const CMessage&) = delete;

    unsigned int GetMessageID() const;
    const char* GetSeverityName() const;
    // "QMR-" and the number's last five decimal digits, zero-padded; out
    // holds at least 10 bytes.
    void GetMessageCode(char* out) const;
    static void GetMessageCode(unsigned int number, char* out);

    // The text in the character set; null on failure. Valid until the next
    // Format or the message's end.
    const char* Format(ULibCharSetValue charset = kDefaultCharSet) const;
    // Formats, keeps the text in the calling thread's ring of 16 recent
    // texts, and destroys the message.
    const char* ToString(ULibCharSetValue charset = kDefaultCharSet);

    // Same number and equal leading arguments (as many as the details).
    bool operator==(const CMessage& other) const;
    // Runs the actions whose attributes meet the mask.
    bool Issue(CActionAttribute mask) const;

    CMessageContext* GetContext() const { return context_; }
    const CMessageDefinition* GetDefinition() const { return definition_; }
    CMessageFactory* GetFactory() const { return factory_; }
    // The definition's report mask.
    uint32_t GetReportMask() const;

private:
    friend class CMessageFactory;
    CMessage(CMessageFactory* factory, const CMessageDefinition* definition, CMessageContext* context);
    // Issue without the issue limit: issue limits belong to duplicate
    // suppression, and a message processed without it is issued normally.
    bool IssueActions(CActionAttribute mask) const;

    CMessageFactory* factory_;
    const CMessageDefinition* definition_;
    CMessageContext* context_;
    void* locale_;                // icu::Locale
    mutable char* formatted_ = nullptr;
};
