#include <strings.h>

#include <cstring>

#include "zvlog/Filter.h"
#include "zvlog/Logger.h"

namespace zvs::zvlib::zvlog {

Filter::~Filter() = default;

int DenyAllFilter::decide(const LoggingEvent*) const { return DENY; }

void MatchFilter::setAcceptOnMatch(const char* text) { onMatch_ = (text && strcasecmp(text, "true") == 0) ? ACCEPT : DENY; }

int LevelMatchFilter::decide(const LoggingEvent* event) const {
    return event->attributes.level == level_ ? onMatch_ : NEUTRAL;
}

int LevelRangeFilter::decide(const LoggingEvent* event) const {
    unsigned char level = event->attributes.level;
    if (level < min_ || level > max_) return DENY;
    return onMatch_;
}

int StringMatchFilter::match(const char* haystack, size_t length) const {
    if (length == 0) return NEUTRAL;
    if (text_.empty()) return onMatch_;
    return memmem(haystack, length, text_.data(), text_.size()) ? onMatch_ : NEUTRAL;
}

int StringMatchFilter::decide(const LoggingEvent* event) const {
    thread_local std::string message;
    message.clear();
    renderMessage(event, message);
    return match(message.data(), message.size());
}

int ThreadNameMatchFilter::decide(const LoggingEvent*) const {
    const char* name = LoggerRepository::getThreadName();
    return match(name, std::strlen(name));
}

}  // namespace zvs::zvlib::zvlog
