// Layouts turn events into text for the writer appenders.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zvlog/Export.h"
#include "zvlog/LoggingEvent.h"

namespace zvs::zvlib::zvlog {

namespace text {
class Writer;
}

class ZVLOG_API Layout {
public:
    virtual ~Layout();
    // Appends the event's text to out.
    virtual void format(const LoggingEvent* event, std::string& out) = 0;
    virtual const char* getContentType() const;
    virtual void getHeader(std::string& out) const;
    virtual void getFooter(std::string& out) const;
    virtual unsigned int getFooterLength() const;
    virtual bool canLayoutEvents() const;
};

// Renders events by a conversion pattern parsed once at construction.
class ZVLOG_API PatternLayout : public Layout {
public:
    static constexpr const char* DEFAULT_CONVERSION_PATTERN = "%m%n";

    explicit PatternLayout(const char* pattern);
    ~PatternLayout() override;
    // Literal elements point into this layout's own copy of the pattern.
    PatternLayout(const PatternLayout&) = delete;
    PatternLayout& operator=(const PatternLayout&) = delete;
    void format(const LoggingEvent* event, std::string& out) override;
    // Formats an event of another process (read back from the binary
    // encoding): "%c" prints `loggerName` ("root" when empty) and "%t"
    // `threadName` instead of this process's logger of that index and its
    // formatting thread, and "%r", whose clock is not this process's, prints
    // nothing. Everything else as format().
    void formatReplayed(const LoggingEvent* event, const char* loggerName, const char* threadName,
                        std::string& out);
    const std::string& getPattern() const { return pattern_; }

    struct Element {
        int kind;            // 0 literal, '?' malformed, else the conversion character
        bool leftAlign;
        bool zeroPad;
        int minWidth;
        int maxWidth;
        std::string option;  // text between braces, or a malformed element's text
        int optionNumber;
        const char* literal;
        size_t literalLength;
    };
    const std::vector<Element>& elements() const { return elements_; }

private:
    struct Caches;
    void parse();
    void formatElement(size_t index, int kind, bool sized, const LoggingEvent* event, text::Writer& w);
    // The parts of format() that the usual line does not take, out of its way.
    void formatStep(size_t index, int kind, bool sized, const LoggingEvent* event, text::Writer& w);
    void formatHead(const LoggingEvent* event, text::Writer& w);

    std::vector<Element> elements_;
    std::string scratch_;
    std::string pattern_;
    std::unique_ptr<Caches> caches_;
    // The names of the event formatReplayed() is formatting; null otherwise.
    const char* replayedLogger_ = nullptr;
    const char* replayedThread_ = nullptr;
};

// Marks an appender as carrying the binary event encoding: it receives whole
// blocks of the event buffer instead of single events.
class ZVLOG_API BinaryLayout : public Layout {
public:
    void format(const LoggingEvent* event, std::string& out) override;
    const char* getContentType() const override;
    bool canLayoutEvents() const override;
};

// Formats a time as local time with a strftime format, where "%z" and "%Z"
// print the UTC offset as +hhmm and "%S" is followed by ".mmm". Times below
// 1189622117 seconds are durations and print as seconds.milliseconds.
ZVLOG_API void formatDate(const timeval32_t& time, const char* format, std::string& out);

}  // namespace zvs::zvlib::zvlog
