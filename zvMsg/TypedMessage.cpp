#include "zvMsg/TypedMessage.h"

#include <cerrno>

#include "zvlog/ErrorContext.h"

namespace zvs::zvlib::zvlog::msg {

namespace {

// Records the caller's system error, then makes the message; errno is put back
// after each step that may change it.
CMessage* createTyped(int callerErrno, CSourceContext* source, int number, const CDataItem* items,
                      unsigned int count) {
    CErrorContext::GetContext().SetItem(ErrOSErrorCode, CDataItem(static_cast<unsigned int>(callerErrno)));
    errno = callerErrno;
    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    CMessage* message =
        factory ? factory->CreateMessageFromItems(source, static_cast<unsigned int>(number), items, count) : nullptr;
    errno = callerErrno;
    return message;
}

}  // namespace

CMessage* typedMessageFromItems(int callerErrno, CSourceContext* source, int number, const CDataItem* items,
                                unsigned int count, CMessageFactory::MessageDisposition disposition) {
    CMessage* message = createTyped(callerErrno, source, number, items, count);
    return CMessageFactory::ProcessMessage(message, disposition);
}

const char* typedTextFromItems(int callerErrno, CSourceContext* source, int number, const CDataItem* items,
                               unsigned int count) {
    CMessage* message = createTyped(callerErrno, source, number, items, count);
    const char* text = message ? message->ToString(kDefaultCharSet) : nullptr;
    // Callers print the result directly; a message that could not be made or
    // formatted must not hand them a null pointer.
    return text ? text : "";
}

}  // namespace zvs::zvlib::zvlog::msg
