// Records every catalogued message issued in the process while it lives:
// number, formatted text and the source context that raised it. Duplicate
// suppression is switched off meanwhile, so that a message repeated by
// another test is seen again.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "zvlog/ErrorContext.h"
#include "zvlog/Message.h"
#include "zvlog/SourceContext.h"
#include "zvlog/msg/MessageInternals.h"

namespace zvtest {

struct RaisedMessage {
    unsigned int number;
    std::string text;
    std::string component;
    std::string file;
    std::string function;

    // "number text" for short comparisons.
    std::string line() const { return std::to_string(number) + " " + text; }
};

class MessageRecorder {
public:
    MessageRecorder() {
        CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
        factory->SuppressDuplicateMessages(false);
        auto& actions = factory->impl()->processActions;
        saved_ = actions;
        zvs::zvlib::zvlog::msg::Action action;
        action.name = "Record";
        action.attributes = 4;
        action.member = &record;
        actions.push_back(action);
        std::lock_guard<std::mutex> lock(mutex());
        seen().clear();
    }
    ~MessageRecorder() {
        CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
        factory->impl()->processActions = saved_;
        factory->SuppressDuplicateMessages(true);
    }
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    std::vector<RaisedMessage> messages() const {
        std::lock_guard<std::mutex> lock(mutex());
        return seen();
    }
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (const RaisedMessage& m : messages()) out.push_back(m.line());
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex());
        seen().clear();
    }

private:
    static std::mutex& mutex() {
        static std::mutex m;
        return m;
    }
    static std::vector<RaisedMessage>& seen() {
        static std::vector<RaisedMessage> v;
        return v;
    }
    static std::string item(const CContext* context, ContextItemID id) {
        const CContextItem* i = context ? context->GetItem(id) : nullptr;
        if (!i || i->GetType() != CDataItem::TypeString) return std::string();
        const char* s = *i;
        return s ? s : "";
    }
    static bool record(const zvs::zvlib::zvlog::msg::Action&, const CMessage& message) {
        RaisedMessage m;
        m.number = message.GetMessageID();
        const char* text = message.Format();
        m.text = text ? text : "";
        const CContext* context = message.GetContext();
        m.component = item(context, SourceModule);
        m.file = item(context, SourceID);
        m.function = item(context, SourceMethod);
        std::lock_guard<std::mutex> lock(mutex());
        seen().push_back(std::move(m));
        return true;
    }

    std::vector<zvs::zvlib::zvlog::msg::Action> saved_;
};

}  // namespace zvtest
