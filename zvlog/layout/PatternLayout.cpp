// The conversion-pattern layout. The pattern is parsed once into elements;
// formatting walks them and appends straight into the caller's string, so a
// warm layout allocates nothing per event (multi-line messages reuse the
// scratch string).
//
// Widths count bytes. Cutting to a maximum width never splits a UTF-8
// character: the kept part shrinks to the nearest character boundary.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "zvlog/Layout.h"
#include "zvlog/Level.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingTime.h"
#include "zvlog/core/MessageRenderer.h"
#include "zvlog/layout/DateText.h"
#include "zvlog/layout/TextAppend.h"

namespace zvs::zvlib::zvlog {
namespace {

constexpr const char* kDefaultDateFormat = "%Y-%m-%d %a %Z %H:%M:%S";
constexpr int kMaxWidth = 1 << 20;  // bigger widths in a pattern are clamped

bool takesOption(char c) {
    switch (c) {
        case 'C': case 'L': case 'M': case 'S': case 'c': case 'd': case 'l': case 'm': case 'p': case 'r': case 't':
            return true;
        default:
            return false;
    }
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int readNumber(const char*& p) {
    int v = 0;
    while (isDigit(*p)) {
        if (v < kMaxWidth) v = v * 10 + (*p - '0');
        ++p;
    }
    return v < kMaxWidth ? v : kMaxWidth;
}

}  // namespace

// The layout's memory of what it printed last, per element: the text of the
// current second for each date, and the shortened logger name for the last
// name seen. Only the appender that owns the layout formats with it, one
// event at a time.
struct PatternLayout::Caches {
    // A logger index names one interned name for the life of the process.
    struct Name {
        bool valid = false;
        unsigned short index = 0;
        std::string_view text;
    };
    std::vector<DateSecond> dates;
    std::vector<Name> names;
    const char* levelName = nullptr;
    size_t levelNameLength = 0;

    // The pattern as formatting walks it: the literal text before the first
    // conversion, then each conversion with the literal text that follows it
    // ("%%", "%n" and malformed conversions are literal text as well).
    struct Step {
        size_t element;
        const char* after;
        size_t afterLength;
        int kind;    // the element's, copied here with
        bool sized;  // whether it has a width, for the walk
    };
    std::string literals;  // every literal text, back to back
    size_t prefixLength = 0;
    std::vector<Step> steps;

    // The text of the pattern up to its first conversion that is not a
    // date, a level or a logger name, kept for the last event: an event in
    // the same millisecond, of the same level and logger, copies it whole.
    // ("%d %p %c - " of the default line: a few thousand events a
    // millisecond share it.) Durations and replayed events are formatted in
    // full; so is the whole line when the pattern starts with anything else.
    struct Head {
        size_t steps = 0;  // the leading steps it covers; 0: no head
        bool valid = false;
        uint32_t second = 0;
        uint32_t millisecond = 0;
        unsigned short logger = 0;
        unsigned char level = 0;
        size_t length = 0;
        std::string text;  // length bytes, then kChunk zeros
        static constexpr size_t kChunk = 64;
    } head;

    void build(const std::vector<Element>& elements);
};

void PatternLayout::Caches::build(const std::vector<Element>& elements) {
    dates.assign(elements.size(), DateSecond{});
    names.assign(elements.size(), Name{});
    std::vector<size_t> afterOffsets;
    for (size_t i = 0; i < elements.size(); ++i) {
        const Element& e = elements[i];
        switch (e.kind) {
            case 0:
                literals.append(e.literal, e.literalLength);
                break;
            case 'n':
                literals.append("\r\n", 2);
                break;
            case '?':
                literals.append(e.option);
                break;
            default:
                if (steps.empty()) prefixLength = literals.size();
                steps.push_back(Step{i, nullptr, 0, e.kind, e.minWidth > 0 || e.maxWidth > 0});
                afterOffsets.push_back(literals.size());
                continue;
        }
    }
    if (steps.empty()) prefixLength = literals.size();
    while (head.steps < steps.size()) {
        const int kind = steps[head.steps].kind;
        if (kind != 'd' && kind != 'p' && kind != 'c') break;
        ++head.steps;
    }
    const size_t literalsEnd = literals.size();
    literals.append(text::Writer::kPad, '\0');
    for (size_t k = 0; k < steps.size(); ++k) {
        const size_t end = k + 1 < steps.size() ? afterOffsets[k + 1] : literalsEnd;
        steps[k].after = literals.data() + afterOffsets[k];
        steps[k].afterLength = end - afterOffsets[k];
    }
}

namespace {

// Module texts may arrive as version-control keywords, "$Id: path $": the
// text between the first blank and the closing " $" is the path. The first
// blank must come before the closing one ("$x.cpp $" stays as it is).
std::string_view unwrapModule(const char* module) {
    if (!module) return {};
    const std::string_view s(module);
    if (s.size() >= 4 && s.front() == '$' && s.back() == '$' && s[s.size() - 2] == ' ') {
        const size_t firstBlank = s.find(' ');
        const size_t lastBlank = s.size() - 2;
        if (firstBlank < lastBlank) return s.substr(firstBlank + 1, lastBlank - firstBlank - 1);
    }
    return s;
}

// The text after the n-th separator from the end; all of it when n <= 0 or
// when it has fewer separators.
template <class IsSeparator>
std::string_view lastComponents(std::string_view s, int n, IsSeparator isSeparator) {
    if (n <= 0) return s;
    int found = 0;
    for (size_t i = s.size(); i-- > 0;) {
        if (isSeparator(s[i]) && ++found == n) return s.substr(i + 1);
    }
    return s;
}

bool isPathSeparator(char c) { return c == '/' || c == '\\'; }
bool isNameSeparator(char c) { return c == '.'; }

void padOrCutSlow(const PatternLayout::Element& e, std::string& out, size_t start) {
    const size_t len = out.size() - start;
    if (static_cast<size_t>(e.minWidth) > len) {
        const size_t pad = static_cast<size_t>(e.minWidth) - len;
        // Zero padding wins over left alignment: "%-05p" prints "0WARN".
        if (e.leftAlign && !e.zeroPad) {
            out.append(pad, ' ');
        } else {
            out.insert(start, pad, e.zeroPad ? '0' : ' ');
        }
    } else if (e.maxWidth > 0 && static_cast<size_t>(e.maxWidth) < len) {
        if (e.leftAlign) {
            text::keepFirst(out, start, static_cast<size_t>(e.maxWidth));
        } else {
            text::keepLast(out, start, static_cast<size_t>(e.maxWidth));
        }
    }
}

void putText(text::Writer& w, const char* s) {
    if (s) w.put(s, std::strlen(s));
}

// The output column at `pos`: the characters (not bytes) after the last line
// end before it. Text that was in `out` before this event counts as well, so
// a message lines up wherever it began on the line.
size_t columnAt(const std::string& out, size_t pos) {
    const char* base = out.data();
    const void* nl = memrchr(base, '\n', pos);
    size_t column = 0;
    for (const char* p = nl ? static_cast<const char*>(nl) + 1 : base; p < base + pos; ++p) {
        if (!text::isUtf8Continuation(*p)) ++column;
    }
    return column;
}

// Indents every line of the message after the first by the column where the
// message began. A line end that closes the message starts no new line and
// gets no indentation.
void indentMessage(std::string& out, size_t start, std::string& scratch) {
    const size_t column = columnAt(out, start);
    scratch.assign(out, start, std::string::npos);
    out.resize(start);
    size_t pos = 0;
    for (;;) {
        const size_t nl = scratch.find('\n', pos);
        if (nl == std::string::npos) {
            out.append(scratch, pos, std::string::npos);
            return;
        }
        out.append(scratch, pos, nl + 1 - pos);
        pos = nl + 1;
        if (pos == scratch.size()) return;
        out.append(column, ' ');
    }
}

}  // namespace

PatternLayout::PatternLayout(const char* pattern) : pattern_(pattern ? pattern : ""), caches_(new Caches) {
    parse();
    caches_->build(elements_);
}

PatternLayout::~PatternLayout() = default;

void PatternLayout::parse() {
    elements_.clear();
    const char* p = pattern_.c_str();
    const char* const end = p + pattern_.size();
    auto addLiteral = [this](const char* text, size_t length) {
        Element e{};
        e.kind = 0;
        e.literal = text;
        e.literalLength = length;
        elements_.push_back(std::move(e));
    };
    while (p < end) {
        if (*p != '%') {
            const void* next = std::memchr(p, '%', static_cast<size_t>(end - p));
            const char* stop = next ? static_cast<const char*>(next) : end;
            addLiteral(p, static_cast<size_t>(stop - p));
            p = stop;
            continue;
        }
        const char* const conversionStart = p++;
        Element e{};
        if (*p == '-') {
            e.leftAlign = true;
            ++p;
        }
        if (*p == '0') e.zeroPad = true;
        e.minWidth = readNumber(p);
        if (*p == '.') {
            ++p;
            e.maxWidth = readNumber(p);
        }
        const char c = *p;
        if (c == '\0') {
            // The pattern ends inside the conversion: keep its text.
            addLiteral(conversionStart, static_cast<size_t>(end - conversionStart));
            break;
        }
        ++p;
        if (c == '%') {
            addLiteral(p - 1, 1);
        } else if (c == 'n') {
            e.kind = 'n';
            elements_.push_back(std::move(e));
        } else if (takesOption(c)) {
            e.kind = c;
            if (*p == '{') {
                const void* close = std::memchr(p + 1, '}', static_cast<size_t>(end - p - 1));
                if (close) {
                    const char* closing = static_cast<const char*>(close);
                    e.option.assign(p + 1, closing);
                    bool allDigits = !e.option.empty();
                    for (char d : e.option) allDigits = allDigits && isDigit(d);
                    if (allDigits) {
                        const char* digits = e.option.c_str();
                        e.optionNumber = readNumber(digits);
                    }
                    p = closing + 1;
                }
                // An unclosed "{" stays in the text for the next literal.
            }
            elements_.push_back(std::move(e));
        } else {
            e.kind = '?';
            e.option = "%?";
            e.option += c;
            e.option += '?';
            elements_.push_back(std::move(e));
        }
    }
}

[[gnu::always_inline]] inline void PatternLayout::formatElement(size_t index, int kind, bool sized,
                                                                  const LoggingEvent* event, text::Writer& w) {
    const Element& e = elements_[index];
    const size_t start = sized || kind == 'm' ? w.position() : 0;
    const EventAttributes& a = event->attributes;
    const LocationRecord* location = a.location;
    switch (kind) {
        case 'c': {
            if (replayedLogger_) {
                const std::string_view name(*replayedLogger_ ? replayedLogger_ : "root");
                w.put(lastComponents(name, e.optionNumber, isNameSeparator));
                break;
            }
            Caches::Name& cached = caches_->names[index];
            if (!cached.valid || cached.index != a.loggerIndex) {
                const char* name = Logger::getRepository()->getLoggerName(a.loggerIndex);
                if (!name) break;
                cached.valid = true;
                cached.index = a.loggerIndex;
                cached.text = lastComponents(std::string_view(*name ? name : "root"), e.optionNumber, isNameSeparator);
            }
            w.put(cached.text);
            break;
        }
        case 'C':
            if (location) w.put(lastComponents(unwrapModule(location->module), e.optionNumber, isPathSeparator));
            break;
        case 'd': {
            const timeval32_t& t = a.time;
            DateSecond& date = caches_->dates[index];
            const unsigned ms = (t.tv_usec / 1000) % 1000;
            if (date.valid && date.second == t.tv_sec) {
                date.put(w, ms);
                break;
            }
            const char* format = e.option.empty() ? kDefaultDateFormat : e.option.c_str();
            if (t.tv_sec >= kFirstCalendarSecond && date.fill(t.tv_sec, format, std::strlen(format))) {
                date.put(w, ms);
                break;
            }
            formatDate(t, format, w.string());
            break;
        }
        case 'L':
            if (location) w.putUnsigned(location->line);
            break;
        case 'l':
            if (location) {
                putText(w, location->method);
                w.put(' ');
                w.put(lastComponents(unwrapModule(location->module), 2, isPathSeparator));
                w.put('(');
                w.putUnsigned(location->line);
                w.put(')');
            }
            break;
        case 'M':
            if (location) putText(w, location->method);
            break;
        case 'm':
            if (renderMessageInline(event, w)) {
                if (sized) padOrCutSlow(e, w.string(), start);
                std::string& text = w.string();
                if (std::memchr(text.data() + start, '\n', text.size() - start)) indentMessage(text, start, scratch_);
            } else if (sized) {
                padOrCutSlow(e, w.string(), start);
            }
            return;
        case 'p': {
            const char* name = getLevelName(a.level);
            if (name != caches_->levelName) {
                caches_->levelName = name;
                caches_->levelNameLength = std::strlen(name);
            }
            w.put(name, caches_->levelNameLength);
            break;
        }
        case 'r':
            if (!replayedThread_) w.putUnsigned(LoggingTime::getElapsedTime() / 1000);
            break;
        case 'S':
            w.putUnsigned(a.sequence);
            break;
        case 't':
            putText(w, replayedThread_ ? replayedThread_ : LoggerRepository::getThreadName());
            break;
        default:
            break;
    }
    if (sized) padOrCutSlow(e, w.string(), start);
}

// The line head (the steps before the message: date, level, logger...) is
// kept for the next event of the same millisecond, level and logger; this
// lays it out in full and keeps it.
[[gnu::noinline]] void PatternLayout::formatHead(const LoggingEvent* event, text::Writer& w) {
    Caches& c = *caches_;
    Caches::Head& head = c.head;
    const EventAttributes& a = event->attributes;
    const size_t start = w.position();
    w.putPadded(c.literals.data(), c.prefixLength);
    for (const Caches::Step *step = c.steps.data(), *const headEnd = step + head.steps; step != headEnd; ++step) {
        formatElement(step->element, step->kind, step->sized, event, w);
        w.putPadded(step->after, step->afterLength);
    }
    // A duration's text depends on more than its millisecond.
    head.valid = a.time.tv_sec >= kFirstCalendarSecond;
    if (head.valid) {
        const std::string& text = w.string();
        head.text.assign(text, start, std::string::npos);
        head.length = head.text.size();
        head.text.append(Caches::Head::kChunk, '\0');
        head.second = a.time.tv_sec;
        head.millisecond = a.time.tv_usec / 1000;
        head.logger = a.loggerIndex;
        head.level = a.level;
    }
}

[[gnu::noinline]] void PatternLayout::formatStep(size_t index, int kind, bool sized, const LoggingEvent* event,
                                                 text::Writer& w) {
    formatElement(index, kind, sized, event, w);
}

// The usual line takes the kept head and the message of a registered format;
// everything else is out of line, so that the usual path stays small.
void PatternLayout::format(const LoggingEvent* event, std::string& out) {
    if (!event) return;
    text::Writer w(out, 0);
    Caches& c = *caches_;
    const Caches::Head& head = c.head;
    const Caches::Step* step = c.steps.data();
    const Caches::Step* const end = step + c.steps.size();
    if (head.steps != 0 && !replayedLogger_) {
        const EventAttributes& a = event->attributes;
        // The microseconds' thousands: the printed millisecond, as a key.
        if (ZVLOG_LIKELY(head.valid && head.second == a.time.tv_sec && head.millisecond == a.time.tv_usec / 1000 &&
                         head.logger == a.loggerIndex && head.level == a.level))
            w.putPadded<Caches::Head::kChunk>(head.text.data(), head.length);
        else
            formatHead(event, w);
        step += head.steps;
    } else {
        w.putPadded(c.literals.data(), c.prefixLength);
    }
    for (; step != end; ++step) {
        // The message, the usual step after the head, inline.
        if (ZVLOG_LIKELY(step->kind == 'm' && !step->sized))
            formatElement(step->element, 'm', false, event, w);
        else
            formatStep(step->element, step->kind, step->sized, event, w);
        w.putPadded(step->after, step->afterLength);
    }
}

void PatternLayout::formatReplayed(const LoggingEvent* event, const char* loggerName, const char* threadName,
                                   std::string& out) {
    replayedLogger_ = loggerName ? loggerName : "";
    replayedThread_ = threadName ? threadName : "";
    format(event, out);
    replayedLogger_ = replayedThread_ = nullptr;
}

}  // namespace zvs::zvlib::zvlog
