// The per-thread error context, and the context every message carries.
#pragma once

#include <vector>

#include "zvlog/CContext.h"
#include "zvlog/Message.h"

// Where the messages raised on one thread collect until the code that can
// act on them issues or discards them, with the thread's current
// application, operating-system and SQL errors.
class ZVLOG_API CErrorContext : public CContext {
public:
    CErrorContext();
    ~CErrorContext() override;

    // The calling thread's error context, created on first use; errno is
    // preserved.
    static CErrorContext& GetContext();

    // Appends and takes ownership; ignored while issuing. The held
    // application error message itself is appended as a copy.
    CErrorContext& operator+=(CMessage* message);
    bool Exists(const CMessage* message) const;
    // Passes 4, 2, 1 over the pending messages, newest first; clears them
    // when every call succeeded.
    bool Issue();
    void Clear();
    void Transfer(CErrorContext& from);
    // index < 0: the newest message; null past the end.
    const char* Format(int index, ULibCharSetValue charset = kDefaultCharSet);
    size_t GetMessageCount() const { return messages_.size(); }
    CMessage* GetMessage(size_t index) const { return index < messages_.size() ? messages_[index] : nullptr; }

    // Sets (whole-item assignment) or adds an item; always true.
    bool SetItem(ContextItemID id, const CDataItem& value);
    static unsigned int OSErrorCode();
    // The system's text for the code (0: errno), without trailing blanks or
    // line ends; valid until the next call on this context.
    const char* OSErrorText(unsigned int code = 0);
    void SetAppErrorMessage(CMessage* message);
    void ClearAppErrorMessage() { SetAppErrorMessage(nullptr); }
    CMessage* GetAppErrorMessage() const;
    const char* GetAppErrorText(ULibCharSetValue charset = kDefaultCharSet);
    void AddServiceMessage(const CMessage* message);
    const std::vector<const CMessage*>& GetServiceMessages() const { return serviceMessages_; }

    CContextItem* GetItem(ContextItemID id) const override;

private:
    // operator+= without the issuing test: what Transfer uses.
    void Append(CMessage* message);

    CContextItem* appErrorMessage_;
    CContextItem* appErrorText_;
    CContextItem* osErrorCode_;
    CContextItem* osErrorText_;
    std::vector<CMessage*> messages_;
    bool issuing_ = false;
    char osText_[512] = {};
    std::vector<const CMessage*> serviceMessages_;
};

// The context of one message: its time and argument values, with the
// thread's error context, the caller's context and the application context
// as children.
class ZVLOG_API CMessageContext : public CContext {
public:
    explicit CMessageContext(CContext* caller);
    ~CMessageContext() override;

    void AppendDetail(const CDataItem& value);
    void SetDetail(unsigned int index, const CDataItem& value);
    void SetDetails(const std::vector<CDataItem>& values);
    const std::vector<CDataItem>& GetDetails() const { return *details_; }
    CContext* GetCaller() const { return caller_; }

private:
    std::vector<CDataItem>* details_;
    CContext* caller_;
};
