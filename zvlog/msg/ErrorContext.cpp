#include "zvlog/ErrorContext.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "zvlog/MultiThreading.h"
#include "zvstd/Files.h"

namespace {

using zvs::zvlib::MultiThreading::DataCreatorImpl;
using zvs::zvlib::MultiThreading::MutexLock;
using zvs::zvlib::MultiThreading::ThreadLocal;

// Error contexts are looked up while an error is being reported: the caller's
// errno must survive whatever happens inside.
class ErrnoGuard {
public:
    ErrnoGuard() : saved_(errno) {}
    ~ErrnoGuard() { errno = saved_; }
    int saved() const { return saved_; }

private:
    int saved_;
};

// Never destroyed: threads may end (and delete their contexts) during the
// process's exit.
ThreadLocal& errorContextSlot() {
    static ThreadLocal* const slot = new ThreadLocal(new DataCreatorImpl<CErrorContext>());
    return *slot;
}

// Stores a text the item does not own, if the item still holds a string; the
// caller holds the item's lock.
void storeUnowned(CContextItem& item, const char* const text) { static_cast<CDataItem&>(item) = text; }

}  // namespace

// ---- CErrorContext --------------------------------------------------------

CErrorContext::CErrorContext() {
    // Message contexts hold this context as a child without owning it.
    SetDeleteWithParent(false);
    static const char* const empty = "";
    appErrorMessage_ = new CContextItem(ErrAppErrorMessage, static_cast<const void*>(nullptr));
    appErrorText_ = new CContextItem(ErrAppErrorText, empty);
    osErrorCode_ = new CContextItem(ErrOSErrorCode, 0u);
    osErrorText_ = new CContextItem(ErrOSErrorText, empty);
    AddItem(appErrorMessage_);
    AddItem(appErrorText_);
    AddItem(osErrorCode_);
    AddItem(osErrorText_);
}

CErrorContext::~CErrorContext() {
    ErrnoGuard keepErrno;
    Clear();
    // The factory may still know this context (a held repeated message's
    // context has it as a child).
    if (CMessageFactory* factory = CMessageFactory::PeekDefaultFactory()) factory->RemoveContext(this);
    // The four items go with the base's own items.
}

CErrorContext& CErrorContext::GetContext() {
    ErrnoGuard keepErrno;
    return *static_cast<CErrorContext*>(errorContextSlot().get());
}

CErrorContext& CErrorContext::operator+=(CMessage* message) {
    if (issuing_) return *this;
    Append(message);
    return *this;
}

void CErrorContext::Append(CMessage* message) {
    if (!message) return;
    if (message == GetAppErrorMessage()) {
        // Never one object twice: the held message stays held, a copy is pending.
        if (CMessage* copy = CMessageFactory::GetDefaultFactory()->CreateMessage(message)) messages_.push_back(copy);
        return;
    }
    messages_.push_back(message);
}

bool CErrorContext::Exists(const CMessage* message) const {
    for (const CMessage* pending : messages_)
        if (pending == message) return true;
    return false;
}

bool CErrorContext::Issue() {
    // An action may throw (ThrowException): the flag must not stay set.
    struct IssuingScope {
        bool& flag;
        bool before;
        explicit IssuingScope(bool& f) : flag(f), before(f) { flag = true; }
        ~IssuingScope() { flag = before; }
    };
    bool allSucceeded = true;
    {
        IssuingScope scope(issuing_);
        static constexpr CActionAttribute kPhases[] = {4, 2, 1};
        for (CActionAttribute phase : kPhases) {
            if (!allSucceeded) break;
            // Newest first; by index, since an action may touch the list.
            for (size_t i = messages_.size(); i-- > 0;) {
                if (i >= messages_.size()) continue;
                if (!messages_[i]->Issue(phase)) allSucceeded = false;
            }
        }
    }
    if (allSucceeded) Clear();
    return allSucceeded;
}

void CErrorContext::Clear() {
    std::vector<CMessage*> pending;
    pending.swap(messages_);
    CMessage* held = nullptr;
    {
        MutexLock lock(appErrorMessage_->GetLock());
        if (appErrorMessage_->GetType() == CDataItem::TypePointer)
            held = static_cast<CMessage*>(const_cast<void*>(appErrorMessage_->GetValue().ptr));
        static_cast<CDataItem&>(*appErrorMessage_) = static_cast<const void*>(nullptr);
        MutexLock textLock(appErrorText_->GetLock());
        storeUnowned(*appErrorText_, "");  // it pointed into the held message's text
    }
    for (CMessage* message : pending) {
        if (message == held) held = nullptr;  // also held through SetAppErrorMessage: delete once
        delete message;
    }
    delete held;
}

void CErrorContext::Transfer(CErrorContext& from) {
    if (&from == this) return;
    std::vector<CMessage*> moved;
    moved.swap(from.messages_);
    for (CMessage* message : moved) Append(message);  // even while issuing
}

const char* CErrorContext::Format(int index, ULibCharSetValue charset) {
    if (messages_.empty()) return nullptr;
    const size_t at = index < 0 ? messages_.size() - 1 : static_cast<size_t>(index);
    if (at >= messages_.size()) return nullptr;
    return messages_[at]->Format(charset);
}

bool CErrorContext::SetItem(ContextItemID id, const CDataItem& value) {
    const auto* node = items_.find(id);
    if (node && node->value) {
        node->value->Assign(value);  // under the item's lock; the type follows
        return true;
    }
    AddItem(new CContextItem(id, value));
    return true;
}

unsigned int CErrorContext::OSErrorCode() { return static_cast<unsigned int>(errno); }

const char* CErrorContext::OSErrorText(unsigned int code) {
    ErrnoGuard keepErrno;
    if (code == 0) code = static_cast<unsigned int>(keepErrno.saved());
    const std::string text = zvs::zvlib::zvErrorText(static_cast<int>(code));
    size_t length = text.size();
    while (length > 0 && (text[length - 1] == ' ' || text[length - 1] == '\t' || text[length - 1] == '\r' ||
                          text[length - 1] == '\n'))
        --length;
    if (length >= sizeof osText_) length = sizeof osText_ - 1;
    // The text item may point at this buffer while another thread prints it.
    MutexLock lock(osErrorText_->GetLock());
    std::memcpy(osText_, text.data(), length);
    osText_[length] = '\0';
    return osText_;
}

void CErrorContext::SetAppErrorMessage(CMessage* message) {
    MutexLock lock(appErrorMessage_->GetLock());
    CMessage* previous = nullptr;
    if (appErrorMessage_->GetType() == CDataItem::TypePointer)
        previous = static_cast<CMessage*>(const_cast<void*>(appErrorMessage_->GetValue().ptr));
    static_cast<CDataItem&>(*appErrorMessage_) = static_cast<const void*>(message);
    {
        MutexLock textLock(appErrorText_->GetLock());
        storeUnowned(*appErrorText_, "");  // it pointed into the previous message's text
    }
    // Deleted under the lock: another thread may be formatting it.
    if (previous != message) delete previous;
}

CMessage* CErrorContext::GetAppErrorMessage() const {
    MutexLock lock(appErrorMessage_->GetLock());
    if (appErrorMessage_->GetType() != CDataItem::TypePointer) return nullptr;
    return static_cast<CMessage*>(const_cast<void*>(appErrorMessage_->GetValue().ptr));
}

const char* CErrorContext::GetAppErrorText(ULibCharSetValue charset) {
    ErrnoGuard keepErrno;
    MutexLock lock(appErrorMessage_->GetLock());
    const CMessage* held = GetAppErrorMessage();
    const char* text = held ? held->Format(charset) : nullptr;
    return text ? text : "";
}

void CErrorContext::AddServiceMessage(const CMessage* message) { serviceMessages_.push_back(message); }

CContextItem* CErrorContext::GetItem(ContextItemID id) const {
    ErrnoGuard keepErrno;
    auto* self = const_cast<CErrorContext*>(this);
    if (id == ErrOSErrorText) {
        unsigned int code;
        {
            MutexLock lock(osErrorCode_->GetLock());
            code = static_cast<unsigned int>(*osErrorCode_);
        }
        MutexLock lock(osErrorText_->GetLock());
        storeUnowned(*osErrorText_, self->OSErrorText(code));
        return osErrorText_;
    }
    if (id == ErrAppErrorText) {
        // Message lock first, then the text's: the order SetAppErrorMessage takes.
        MutexLock lock(appErrorMessage_->GetLock());
        const char* const text = self->GetAppErrorText(kDefaultCharSet);
        MutexLock textLock(appErrorText_->GetLock());
        storeUnowned(*appErrorText_, text);
        return appErrorText_;
    }
    return CContext::GetItem(id);
}
