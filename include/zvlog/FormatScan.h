// The one parser of "%" conversions in event formats, shared by the
// compile-time argument check and the message renderer.
#pragma once

namespace zvs::zvlib::zvlog::detail {

// Widths and precisions saturate here, one argument's largest size, so that
// no digit string can overflow them.
inline constexpr int kMaxFieldWidth = 65536;

struct ConversionSpec {
    bool leftAlign = false;
    bool zeroPad = false;
    int width = 0;       // 0: none
    int precision = -1;  // -1: none
    char conversion = 0; // 0 when the format ended inside the conversion
};

// p points just after a "%". Reads flags, width, precision and the length
// modifiers L, l, h (and further "."), then the conversion character.
// Returns the position after the conversion character.
constexpr int accumulateDigit(int value, char digit) {
    const int next = value * 10 + (digit - '0');
    return next > kMaxFieldWidth ? kMaxFieldWidth : next;
}

constexpr const char* parseConversion(const char* p, ConversionSpec& spec) {
    if (*p == '-') {
        spec.leftAlign = true;
        ++p;
    }
    if (*p == '0') {
        spec.zeroPad = true;
        ++p;
    }
    while (*p >= '0' && *p <= '9') spec.width = accumulateDigit(spec.width, *p++);
    if (*p == '.') {
        ++p;
        spec.precision = 0;
        while (*p >= '0' && *p <= '9') spec.precision = accumulateDigit(spec.precision, *p++);
    }
    while (*p == 'L' || *p == 'l' || *p == 'h' || *p == '.') ++p;
    spec.conversion = *p;
    if (*p) ++p;
    return p;
}

// A conversion consumes an argument unless it is "%%" or cut off by the end.
constexpr bool consumesArgument(const ConversionSpec& spec) {
    return spec.conversion != '%' && spec.conversion != 0;
}

constexpr unsigned countConversions(const char* format) {
    unsigned n = 0;
    const char* p = format;
    while (*p) {
        if (*p++ != '%') continue;
        ConversionSpec spec;
        p = parseConversion(p, spec);
        if (consumesArgument(spec)) ++n;
    }
    return n;
}

}  // namespace zvs::zvlib::zvlog::detail
