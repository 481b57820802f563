// The binary event encoding shared by the buffer's writer and the reader.
#pragma once

#include <cstdint>

namespace zvs::zvlib::zvlog::binary {

constexpr uint32_t kBlockSize = 1048576;       // one block in memory
constexpr uint32_t kBlockHeadSize = 16;        // refcount pointer, data length, event count
constexpr uint32_t kStreamCapacity = kBlockSize - kBlockHeadSize;  // 1048560
constexpr uint32_t kStreamHeaderSize = 16;
constexpr uint32_t kMaxArgumentData = 65536;

// Stream header values written by this library.
constexpr uint8_t kMagic = 0x3C;  // "<"
constexpr uint8_t kVersion = 2;
constexpr uint8_t kLittleEndian = 16;
constexpr uint8_t kBigEndian = 1;
constexpr uint8_t kPointerSize = 8;
constexpr uint8_t kFloatSize = 4;

// Tokens.
constexpr uint8_t kThreadDefine = 'b';    // u32 thread id, u64 thread value, name
constexpr uint8_t kThreadSwitch = 'B';    // u32 thread id
constexpr uint8_t kContextWord = 'e';     // u64
constexpr uint8_t kStringDefine = 's';    // NUL-terminated text
constexpr uint8_t kStringUse = 'S';       // u16 index
constexpr uint8_t kCategoryDefine = 'c';  // u8 category, name
constexpr uint8_t kCategoryUse = 'C';     // u8 category
constexpr uint8_t kLoggerDefine = 'd';    // u16 index, category token, name
constexpr uint8_t kLoggerUse = 'D';       // u16 index
constexpr uint8_t kEventDefine = 'a';     // u32 site id, u32 event word, u16 site number, 3 strings
constexpr uint8_t kEventUse = 'A';        // u32 site id, u32 event word
constexpr uint8_t kEnd = '>';

// What this library puts into the fields the format leaves open:
//  - site id: the call site's location key; site number: its argument count;
//    the three site strings: format, module, method;
//  - event word: the event's sequence number;
//  - category: the event's level, named by its level name;
//  - context word: the event time, seconds << 32 | microseconds;
//  - thread id: the thread's number; thread value: its OS thread id.
// Floating arguments are carried as 32-bit floats; a time argument ("t") as
// u32 seconds and u32 microseconds.

}  // namespace zvs::zvlib::zvlog::binary
