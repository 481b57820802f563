// Typed event arguments taken from a fuzz input, packed the way an
// event-buffer block holds them (through the tests' EventBuilder).
//
// Each argument is one selector byte, then its value:
//   sel % 14:  0 g int16   1 h uint16  2 j int32   3 k uint32  4 m int64
//              5 n uint64  6 p pointer 7 f float (its 32-bit pattern)
//              8 t time (u32 seconds, u32 microseconds)
//              9 s text up to a NUL
//             10 u UTF-16: u8 count, then that many units (a zero unit ends it early)
//             11 r raw: u16 length (at most 4096), then the bytes
//             12 a type code the renderer does not know: u8 code, 8 bytes
//             13 the same as 9, then the argument's pointer is made null
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "support/EventBuilder.h"
#include "zvlog/LoggingEvent.h"

namespace zvfuzz {

inline bool isKnownType(unsigned char code) {
    switch (code) {
        case 'f': case 'g': case 'h': case 'j': case 'k': case 'm': case 'n':
        case 'p': case 'r': case 's': case 't': case 'u':
            return true;
        default:
            return false;
    }
}

struct FuzzArguments {
    std::vector<unsigned> nullArguments;  // indexes whose value pointer is to be null

    // Reads arguments until the input ends or `max` were read.
    void read(FuzzInput& in, zvtest::EventBuilder& b, unsigned max) {
        using namespace zvs::zvlib::zvlog;
        for (unsigned i = 0; i < max && !in.empty(); ++i) {
            switch (in.u8() % 14) {
                case 0: b.i16(static_cast<int16_t>(in.u16())); break;
                case 1: b.u16(in.u16()); break;
                case 2: b.i32(static_cast<int32_t>(in.u32())); break;
                case 3: b.u32(in.u32()); break;
                case 4: b.i64(static_cast<int64_t>(in.u64())); break;
                case 5: b.u64(in.u64()); break;
                case 6: b.pointer(in.u64()); break;
                case 7: b.f32(std::bit_cast<float>(in.u32())); break;
                case 8: {
                    const uint32_t seconds = in.u32();
                    b.timeArg(seconds, in.u32());
                    break;
                }
                case 9: b.str(in.text()); break;
                case 10: {
                    std::u16string units;
                    for (unsigned n = in.u8(); n > 0 && !in.empty(); --n) units.push_back(static_cast<char16_t>(in.u16()));
                    // The builder appends the terminator; a zero unit inside ends the text early.
                    b.wstr(units);
                    break;
                }
                case 11: {
                    const std::string raw = in.bytes(in.u16() % 4097);
                    b.raw(raw.data(), static_cast<uint32_t>(raw.size()));
                    break;
                }
                case 12: {
                    unsigned char code = in.u8();
                    if (isKnownType(code)) code = '?';
                    const uint64_t value = in.u64();
                    b.typed(code, &value, sizeof value);
                    break;
                }
                case 13:
                    b.str(in.text());
                    nullArguments.push_back(i);
                    break;
            }
        }
    }

    // The builder's event with the chosen argument pointers made null.
    zvs::zvlib::zvlog::LoggingEvent event(zvtest::EventBuilder& b) const {
        zvs::zvlib::zvlog::LoggingEvent e = b.event();
        for (unsigned i : nullArguments) e.argumentValues[i] = nullptr;
        return e;
    }
};

}  // namespace zvfuzz
