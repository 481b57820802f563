// Reads the binary event encoding back: one block's stream, or a dump file
// that holds such streams one after another.
//
//   DecodeResult r = decodeFile("/var/log/zvlog-7.dmp");
//   for (const DecodedEvent& e : r.events) std::cout << renderDecodedEvent(e) << '\n';
//   for (const std::string& error : r.errors) std::cerr << error;
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zvlog/Export.h"
#include "zvlog/LoggingEvent.h"

namespace zvs::zvlib::zvlog {

class PatternLayout;

// One argument of a decoded event. `data` holds the value in this machine's
// byte order and in the layout an argument has in an event-buffer block, so
// a LoggingEvent can point straight at it:
//   f: 4-byte float (an 8-byte float in the stream is narrowed);
//   g h: 2 bytes; j k: 4 bytes; m n: 8 bytes;
//   p: 8 bytes (a 4-byte pointer in the stream is widened);
//   t: u32 seconds, u32 microseconds;
//   r: u32 length, then the bytes;
//   s: the text and its NUL; u: the UTF-16 units and a 2-byte zero.
struct ZVLOG_API DecodedArgument {
    unsigned char type = 0;
    std::string data;

    // Integers, pointers and times (as seconds) widened to 64 bits.
    int64_t asInt() const;
    uint64_t asUInt() const;
    double asDouble() const;
    // The payload of "s" (without NUL), "r" (without its length) and "u"
    // (UTF-16 bytes without the terminator).
    std::string_view bytes() const;
    // The value as text: decimal integers, "0x" and 16 hexadecimal digits for
    // a pointer, "%g" for a float, "sec.usec" for a time, the text of a
    // string (a wide string as UTF-8), raw bytes in lower-case hexadecimal.
    std::string toString() const;
};

struct ZVLOG_API DecodedEvent {
    size_t offset = 0;  // of the event token in the decoded data

    // Thread context ("b"/"B"); "<Error>" names an event without one.
    uint32_t threadId = 0;
    uint64_t threadValue = 0;
    std::string threadName;

    // Site token ("a"/"A").
    uint32_t siteId = 0;
    uint32_t eventWord = 0;
    uint16_t siteNumber = 0;
    // The call site's line: this library's writer makes the site id the
    // site's location key, which keeps the line in its low 16 bits.
    uint16_t line = 0;
    std::string format;
    std::string module;
    std::string method;

    // Logger ("d"/"D"), category ("c"/"C") and context word ("e") in force.
    uint16_t loggerIndex = 0;
    std::string loggerName;
    uint8_t category = 0;
    std::string categoryName;
    uint64_t contextWord = 0;

    std::vector<DecodedArgument> arguments;
};

struct ZVLOG_API DecodeResult {
    std::vector<DecodedEvent> events;
    // Diagnostics in the reader's texts. A header error or an invalid token
    // ends the decoding; a missing thread context or logger is reported and
    // the event is kept.
    std::vector<std::string> errors;
    size_t streams = 0;    // streams read to their ">"
    size_t consumed = 0;   // bytes of input read, up to the end of the last whole stream
    // The data ended inside a stream (its header or a token cut short): the
    // last error says so, and more data may complete the stream. A reader of
    // a file still being written decodes from `consumed` again later.
    bool truncated = false;
    bool ok() const { return errors.empty(); }
};

// Decodes one stream (header and tokens up to ">") from memory. `name` is
// the file name of the header error texts.
ZVLOG_API DecodeResult decodeStream(const void* data, size_t size, const char* name = "<memory>");

// Decodes a sequence of streams (the dump format: each block's stream bytes
// one after another) until the data ends or an error stops it. `origin` is
// where `data` begins in its file: event offsets and the positions in the
// error texts count from the file's start (`consumed` still counts bytes of
// `data`), so a file read piece by piece gets the texts that reading it
// whole would.
ZVLOG_API DecodeResult decodeStreams(const void* data, size_t size, const char* name = "<memory>",
                                     size_t origin = 0);

// Reads a dump file and decodes it as a sequence of streams.
ZVLOG_API DecodeResult decodeFile(const char* path);

// The reader's process-wide category names: "<undefined>" until a "c" token
// names the category.
ZVLOG_API std::string decodedCategoryName(unsigned char category);

// Points `event` at the decoded event: the site texts through `site`, the
// arguments at their data in `decoded`. Both must outlive `event`.
ZVLOG_API void toLoggingEvent(const DecodedEvent& decoded, LocationRecord& site, LoggingEvent& event);

// Appends the decoded event as `layout` formats it, with the event's own
// logger and thread names for "%c" and "%t" (not those of this process).
ZVLOG_API void formatDecodedEvent(PatternLayout& layout, const DecodedEvent& event, std::string& out);

// One line for an event: "<thread name> <logger name> <category name> <format>"
// followed by " | " and each argument's toString, separated by " | ".
ZVLOG_API std::string renderDecodedEvent(const DecodedEvent& event);

}  // namespace zvs::zvlib::zvlog
