// Events: the call-site location record, the attributes of one event, and the
// event with its typed arguments as the appenders and layouts see it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <type_traits>

#include "zvlog/Export.h"
#include "zvlog/LoggingTime.h"

namespace zvs::zvlib::zvlog {

class LogBuffer;

// Argument type codes, shared by events and the binary encoding.
enum ArgumentType : unsigned char {
    ARG_FLOAT = 'f',    // 32-bit float
    ARG_INT16 = 'g',
    ARG_UINT16 = 'h',
    ARG_INT32 = 'j',
    ARG_UINT32 = 'k',
    ARG_INT64 = 'm',
    ARG_UINT64 = 'n',
    ARG_POINTER = 'p',
    ARG_RAW = 'r',      // u32 length, then the bytes
    ARG_STRING = 's',   // NUL-terminated narrow text
    ARG_TIME = 't',     // timeval32_t
    ARG_WSTRING = 'u',  // UTF-16 text with a 2-byte terminator
};

struct FormatPlan;

// One per distinct call site; shared and never freed while the library lives.
struct LocationRecord {
    const char* format;
    const char* module;
    const char* method;
    unsigned short line;
    unsigned short argumentCount;
    // The format read once, for the renderer. The library sets it on the
    // records it registers (call sites and its location table), whose format
    // never changes; records made elsewhere leave it null and are read anew
    // for every event.
    const FormatPlan* plan = nullptr;
};

// A call site's own record and its cached location key (0 until the site
// has been registered in the process-wide location table).
struct CallSite {
    constexpr CallSite(const char* module, const char* method, unsigned short line)
        : record{nullptr, module, method, line, 0} {}
    LocationRecord record;
    std::atomic<unsigned int> key{0};
};

class ZVLOG_API EventAttributes {
public:
    EventAttributes();
    // Finds or creates the location record of (module pointer, line) and
    // stamps time, sequence number and thread number.
    EventAttributes(const char* const& format, const char* const& module, const char* const& method,
                    unsigned short line, unsigned short argumentCount, unsigned short loggerIndex,
                    unsigned char level);
    // The same for a registered call site that owns its record.
    EventAttributes(const LocationRecord* record, unsigned int key, unsigned short loggerIndex,
                    unsigned char level);

    const LocationRecord* location;
    timeval32_t time;
    unsigned int sequence;
    unsigned int threadNumber;
    unsigned short loggerIndex;
    unsigned char level;
    unsigned int locationKey;
};

class ZVLOG_API LoggingEvent {
public:
    static constexpr unsigned int kMaxArguments = 16;

    // Trivially copyable: queued copies and their queue's growth are plain
    // memory moves.
    LoggingEvent() = default;

    // Copies the place of the current event from the buffer's write record.
    void setBufferLocation(const LogBuffer* buffer);
    // The largest number of bytes one event's details may take in a buffer.
    static unsigned int getMaxEventDetailSize();

    unsigned short argumentCount = 0;
    unsigned char argumentTypes[kMaxArguments];
    // Each points at the argument's data inside the event buffer block (for
    // ARG_RAW at its 32-bit length). Data there is packed: read with memcpy.
    const void* argumentValues[kMaxArguments];
    EventAttributes attributes;
    const unsigned char* bufferBase = nullptr;  // the block holding the event
    unsigned int bufferOffset = 0;              // of the event's bytes in the block
    unsigned int bufferLength = 0;
};

static_assert(std::is_trivially_copyable_v<LoggingEvent>);

// Appends the event's rendered message (its format applied to its arguments).
ZVLOG_API void renderMessage(const LoggingEvent* event, std::string& out);

}  // namespace zvs::zvlib::zvlog
