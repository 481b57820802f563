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

void appendText(std::string& out, const char* s) {
    if (s) out.append(s);
}

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

inline void padOrCut(const PatternLayout::Element& e, std::string& out, size_t start) {
    if (e.minWidth > 0 || e.maxWidth > 0) padOrCutSlow(e, out, start);
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

PatternLayout::PatternLayout(const char* pattern) : pattern_(pattern ? pattern : "") { parse(); }

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

void PatternLayout::format(const LoggingEvent* event, std::string& out) {
    if (!event) return;
    for (const Element& e : elements_) {
        switch (e.kind) {
            case 0:
                if (e.literalLength == 1) {
                    out.push_back(*e.literal);
                } else {
                    out.append(e.literal, e.literalLength);
                }
                break;
            case 'n':
                out.append("\r\n", 2);
                break;
            case '?':
                out.append(e.option);
                break;
            default:
                formatElement(e, event, out);
                break;
        }
    }
}

void PatternLayout::formatElement(const Element& e, const LoggingEvent* event, std::string& out) {
    const size_t start = out.size();
    const EventAttributes& a = event->attributes;
    const LocationRecord* location = a.location;
    switch (e.kind) {
        case 'c': {
            const char* name = Logger::getRepository()->getLoggerName(a.loggerIndex);
            if (name) {
                if (!*name) name = "root";
                const std::string_view s = lastComponents(std::string_view(name), e.optionNumber, isNameSeparator);
                out.append(s.data(), s.size());
            }
            break;
        }
        case 'C':
            if (location) {
                const std::string_view s =
                    lastComponents(unwrapModule(location->module), e.optionNumber, isPathSeparator);
                out.append(s.data(), s.size());
            }
            break;
        case 'd':
            formatDate(a.time, e.option.empty() ? kDefaultDateFormat : e.option.c_str(), out);
            break;
        case 'L':
            if (location) text::appendUnsigned(out, location->line);
            break;
        case 'l':
            if (location) {
                appendText(out, location->method);
                out += ' ';
                const std::string_view s = lastComponents(unwrapModule(location->module), 2, isPathSeparator);
                out.append(s.data(), s.size());
                out += '(';
                text::appendUnsigned(out, location->line);
                out += ')';
            }
            break;
        case 'M':
            if (location) appendText(out, location->method);
            break;
        case 'm':
            renderMessage(event, out);
            padOrCut(e, out, start);
            if (std::memchr(out.data() + start, '\n', out.size() - start)) indentMessage(out, start, scratch_);
            return;
        case 'p':
            appendText(out, getLevelName(a.level));
            break;
        case 'r':
            text::appendUnsigned(out, LoggingTime::getElapsedTime() / 1000);
            break;
        case 'S':
            text::appendUnsigned(out, a.sequence);
            break;
        case 't':
            appendText(out, LoggerRepository::getThreadName());
            break;
        default:
            break;
    }
    padOrCut(e, out, start);
}

}  // namespace zvs::zvlib::zvlog
