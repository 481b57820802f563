// Filters decide per event whether an appender takes it.
#pragma once

#include <string>

#include "zvlog/Export.h"
#include "zvlog/LoggingEvent.h"

namespace zvs::zvlib::zvlog {

class ZVLOG_API Filter {
public:
    enum Decision : int { DENY = -1, NEUTRAL = 0, ACCEPT = 1 };

    Filter() = default;
    virtual ~Filter();
    virtual int decide(const LoggingEvent* event) const = 0;

    Filter* next = nullptr;
};

class ZVLOG_API DenyAllFilter : public Filter {
public:
    int decide(const LoggingEvent* event) const override;
};

// Base of the filters with an AcceptOnMatch parameter: "true" (any case)
// stores ACCEPT, any other text DENY; the default is ACCEPT.
class ZVLOG_API MatchFilter : public Filter {
public:
    void setAcceptOnMatch(bool accept) { onMatch_ = accept ? ACCEPT : DENY; }
    void setAcceptOnMatch(const char* text);
    int getMatchResult() const { return onMatch_; }

protected:
    int onMatch_ = ACCEPT;
};

class ZVLOG_API LevelMatchFilter : public MatchFilter {
public:
    void setLevelToMatch(unsigned char level) { level_ = level; }
    unsigned char getLevelToMatch() const { return level_; }
    int decide(const LoggingEvent* event) const override;

private:
    unsigned char level_ = 0;
};

// Denies outside [min, max] whatever AcceptOnMatch says.
class ZVLOG_API LevelRangeFilter : public MatchFilter {
public:
    void setLevelToMatchMin(unsigned char level) { min_ = level; }
    void setLevelToMatchMax(unsigned char level) { max_ = level; }
    int decide(const LoggingEvent* event) const override;

private:
    unsigned char min_ = 0;
    unsigned char max_ = 255;
};

// Searches the rendered message, byte-exact; an empty text is found in any
// non-empty message.
class ZVLOG_API StringMatchFilter : public MatchFilter {
public:
    void setStringToMatch(const char* text) { text_ = text ? text : ""; }
    const std::string& getStringToMatch() const { return text_; }
    int decide(const LoggingEvent* event) const override;

protected:
    int match(const char* haystack, size_t length) const;
    std::string text_;
};

// Searches the name of the thread that runs the filter instead.
class ZVLOG_API ThreadNameMatchFilter : public StringMatchFilter {
public:
    int decide(const LoggingEvent* event) const override;
};

}  // namespace zvs::zvlib::zvlog
