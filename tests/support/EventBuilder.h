// Builds LoggingEvents for layout and renderer tests. The arguments are
// packed into the builder's own byte buffer the way an event-buffer block
// holds them: no alignment, raw data after its 32-bit length, texts with
// their terminators.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zvlog/LoggingEvent.h"

namespace zvtest {

class EventBuilder {
public:
    explicit EventBuilder(const char* format = "");
    EventBuilder(const EventBuilder&) = delete;  // the event points into the builder
    EventBuilder& operator=(const EventBuilder&) = delete;

    // Call-site and attribute fields.
    EventBuilder& module(const char* module);
    EventBuilder& method(const char* method);
    EventBuilder& line(unsigned short line);
    EventBuilder& level(unsigned char level);
    EventBuilder& logger(unsigned short loggerIndex);
    EventBuilder& time(uint32_t seconds, uint32_t microseconds);
    EventBuilder& sequence(unsigned int sequence);

    // Arguments, in order.
    EventBuilder& i16(int16_t v);
    EventBuilder& u16(uint16_t v);
    EventBuilder& i32(int32_t v);
    EventBuilder& u32(uint32_t v);
    EventBuilder& i64(int64_t v);
    EventBuilder& u64(uint64_t v);
    EventBuilder& f32(float v);
    EventBuilder& pointer(uint64_t v);
    EventBuilder& str(std::string_view v);
    EventBuilder& wstr(std::u16string_view v);
    EventBuilder& raw(const void* data, uint32_t length);
    EventBuilder& timeArg(uint32_t seconds, uint32_t microseconds);
    // Any type code with the given bytes (for codes the renderer does not know).
    EventBuilder& typed(unsigned char type, const void* data, size_t length);

    // The event; its argument pointers are refreshed on every call.
    const zvs::zvlib::zvlog::LoggingEvent& event();
    const zvs::zvlib::zvlog::LoggingEvent* get() { return &event(); }

private:
    EventBuilder& add(unsigned char type, const void* data, size_t length);

    zvs::zvlib::zvlog::LocationRecord record_{};
    zvs::zvlib::zvlog::LoggingEvent event_{};
    std::vector<unsigned char> data_;
    std::vector<size_t> offsets_;
    std::vector<unsigned char> types_;
};

// The rendered message of an event.
std::string rendered(const zvs::zvlib::zvlog::LoggingEvent& event);

}  // namespace zvtest
