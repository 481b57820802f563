#include <cerrno>
#include <cstdint>
#include <ctime>

#include "zvlog/AppContext.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/LoggingTime.h"

namespace {

using zvs::zvlib::MultiThreading::MutexLock;

// The message time as it has always been kept: seconds held in 32 bits,
// microseconds x 1000.
timespec messageTime() {
    zvs::zvlib::zvlog::timeval32_t now{};
    zvs::zvlib::zvlog::LoggingTime::getCurrentTime(&now);
    timespec kept{};
    kept.tv_sec = static_cast<int32_t>(now.tv_sec);
    kept.tv_nsec = static_cast<long>(now.tv_usec) * 1000;
    return kept;
}

}  // namespace

CMessageContext::CMessageContext(CContext* caller) : details_(new std::vector<CDataItem>()), caller_(caller) {
    const int savedErrno = errno;  // message constructors leave errno alone
    AddItem(new CContextItem(MessageTime, messageTime()));
    AddItem(new CContextItem(MessageDetails, details_));
    // The error and application contexts clear their delete-with-parent flag:
    // only the caller's context goes with this one.
    AddContext(&CErrorContext::GetContext());
    if (caller) AddContext(caller);
    AddContext(getAppContext());
    errno = savedErrno;
}

CMessageContext::~CMessageContext() {
    // The MessageDetails item only points at the vector; the base deletes the
    // item afterwards without touching it.
    delete details_;
    details_ = nullptr;
}

namespace {

// Details change under the MessageDetails item's lock: Format reads them
// under it, possibly on another thread.
template <class Change>
void changeDetails(const zvs::zvlib::SparseArray<uint32_t, CContextItem*>& items, Change change) {
    const auto* node = items.find(MessageDetails);
    if (node && node->value) {
        MutexLock lock(node->value->GetLock());
        change();
    } else {
        change();
    }
}

}  // namespace

void CMessageContext::AppendDetail(const CDataItem& value) {
    changeDetails(items_, [&] { details_->push_back(value); });
}

void CMessageContext::SetDetail(unsigned int index, const CDataItem& value) {
    changeDetails(items_, [&] {
        while (details_->size() <= index) details_->emplace_back(0);
        (*details_)[index] = value;
    });
}

void CMessageContext::SetDetails(const std::vector<CDataItem>& values) {
    changeDetails(items_, [&] {
        if (&values == details_) return;
        *details_ = values;
    });
}
