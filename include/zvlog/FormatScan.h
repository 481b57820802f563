// The one parser of "%" conversions in event formats, shared by the
// compile-time argument check and the message renderer.
#pragma once

namespace zvs::zvlib::zvlog::detail {

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
constexpr const char* parseConversion(const char* p, ConversionSpec& spec) {
    if (*p == '-') {
        spec.leftAlign = true;
        ++p;
    }
    if (*p == '0') {
        spec.zeroPad = true;
        ++p;
    }
    while (*p >= '0' && *p <= '9') spec.width = spec.width * 10 + (*p++ - '0');
    if (*p == '.') {
        ++p;
        spec.precision = 0;
        while (*p >= '0' && *p <= '9') spec.precision = spec.precision * 10 + (*p++ - '0');
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
