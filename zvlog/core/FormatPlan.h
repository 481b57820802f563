// A message format read once: its literal text and its conversions. Rendering
// an event of a registered call site then copies pieces of known length
// instead of scanning the format again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zvlog/Export.h"
#include "zvlog/FormatScan.h"

namespace zvs::zvlib::zvlog {

struct FormatPlan {
    struct Conversion {
        uint32_t literalEnd;  // the literal text before this conversion ends here
        detail::ConversionSpec spec;
        // A known conversion without width or precision that prints a text
        // as it is or an integer in decimal ("%s", "%d", "%u", ...).
        bool plain;
        // Room the rest of the message needs after this conversion, texts
        // aside: the literal text, the pad, kDecimalRoom per conversion.
        uint32_t roomAfter;
    };
    // The most a plain conversion of an integer writes: 20 digits and a sign.
    static constexpr uint32_t kDecimalRoom = 21;
    const char* format;  // the text it was read from
    // The text printed between conversions: "%%" as "%", a conversion cut
    // off by the end of the format as it stands; literalSize bytes followed
    // by text::Writer::kPad zeros, so that its pieces can be put padded.
    std::string literal;
    uint32_t literalSize;
    uint32_t room;  // roomAfter of a conversion before the first
    std::vector<Conversion> conversions;
    bool literalLineEnd;  // the literal text holds a line end
};

// Reads a format (not null). The library makes plans for records that live
// as long as the process and never frees them; a test that makes one may
// delete it. Exported for the tests.
ZVLOG_API const FormatPlan* makeFormatPlan(const char* format);

}  // namespace zvs::zvlib::zvlog
