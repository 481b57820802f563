// The one implementation behind every typed message constructor: the
// generated constructors only forward their parameters to typedMessage or
// typedText, which turn them into data items and hand them to the shared
// routines of TypedMessage.cpp.
#pragma once

#include <sys/time.h>

#include <cerrno>

#include "zvlog/CDataItem.h"
#include "zvlog/DBObjName.h"
#include "zvlog/Message.h"
#include "zvlog/zvMessage.h"

namespace zvs::zvlib::zvlog::msg {

// Restores errno when a constructor returns (or a message action throws),
// after the argument items have been freed.
class CallerErrno {
public:
    CallerErrno() : value_(errno) {}
    ~CallerErrno() { errno = value_; }
    CallerErrno(const CallerErrno&) = delete;
    CallerErrno& operator=(const CallerErrno&) = delete;
    int value() const { return value_; }

private:
    int value_;
};

// Steps shared by all constructors, for `count` argument items: record the
// caller's errno in the thread's error context, make the message with the
// default factory, then process it (typedMessageFromItems) or turn it into
// ring text (typedTextFromItems).
CMessage* typedMessageFromItems(int callerErrno, CSourceContext* source, int number, const CDataItem* items,
                                unsigned int count, CMessageFactory::MessageDisposition disposition);
const char* typedTextFromItems(int callerErrno, CSourceContext* source, int number, const CDataItem* items,
                               unsigned int count);

// One parameter as the item stored in the message. Strings and names are
// copied: the message may outlive the caller's buffers.
inline CDataItem typedArgument(int v) { return CDataItem(v); }
inline CDataItem typedArgument(unsigned int v) { return CDataItem(v); }
inline CDataItem typedArgument(long long v) { return CDataItem(v); }
inline CDataItem typedArgument(unsigned long long v) { return CDataItem(v); }
inline CDataItem typedArgument(const char* s) { return CDataItem(CDataItem::SafeStrdup(s), true); }
inline CDataItem typedArgument(const void* p) { return CDataItem(p); }
inline CDataItem typedArgument(const timeval& t) { return CDataItem(t); }
template <int Kind>
CDataItem typedArgument(const zvapp::CDBObjName<Kind>& name) {
    return CDataItem(CDataItem::SafeStrdup(name.c_str()), true);
}
template <int Kind>
CDataItem typedArgument(const zvapp::CQualDBObjName<Kind>& name) {
    return CDataItem(CDataItem::SafeStrdup(name.c_str()), true);
}

template <class... Args>
CMessage* typedMessage(CSourceContext* source, int number, CMessageFactory::MessageDisposition disposition,
                       const Args&... args) {
    const CallerErrno callerErrno;  // before the items: copying a string may touch errno
    if constexpr (sizeof...(Args) == 0) {
        return typedMessageFromItems(callerErrno.value(), source, number, nullptr, 0, disposition);
    } else {
        const CDataItem items[] = {typedArgument(args)...};
        return typedMessageFromItems(callerErrno.value(), source, number, items, sizeof...(Args), disposition);
    }
}

template <class... Args>
const char* typedText(CSourceContext* source, int number, const Args&... args) {
    const CallerErrno callerErrno;
    if constexpr (sizeof...(Args) == 0) {
        return typedTextFromItems(callerErrno.value(), source, number, nullptr, 0);
    } else {
        const CDataItem items[] = {typedArgument(args)...};
        return typedTextFromItems(callerErrno.value(), source, number, items, sizeof...(Args));
    }
}

}  // namespace zvs::zvlib::zvlog::msg
