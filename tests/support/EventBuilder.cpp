#include "support/EventBuilder.h"

#include <cstring>
#include <stdexcept>

#include "zvlog/Level.h"

namespace zvtest {

using namespace zvs::zvlib::zvlog;

EventBuilder::EventBuilder(const char* format) {
    record_.format = format;
    record_.module = "";
    record_.method = "";
    // One leading byte puts every argument off its natural alignment.
    data_.push_back(0xEE);
    event_.attributes.location = &record_;
    event_.attributes.time = timeval32_t{0, 0};
    event_.attributes.sequence = 0;
    event_.attributes.threadNumber = 1;
    event_.attributes.loggerIndex = 0;
    event_.attributes.level = LEVEL_INFO;
    event_.attributes.locationKey = 0;
}

EventBuilder& EventBuilder::module(const char* module) {
    record_.module = module;
    return *this;
}

EventBuilder& EventBuilder::method(const char* method) {
    record_.method = method;
    return *this;
}

EventBuilder& EventBuilder::line(unsigned short line) {
    record_.line = line;
    return *this;
}

EventBuilder& EventBuilder::level(unsigned char level) {
    event_.attributes.level = level;
    return *this;
}

EventBuilder& EventBuilder::logger(unsigned short loggerIndex) {
    event_.attributes.loggerIndex = loggerIndex;
    return *this;
}

EventBuilder& EventBuilder::time(uint32_t seconds, uint32_t microseconds) {
    event_.attributes.time = timeval32_t{seconds, microseconds};
    return *this;
}

EventBuilder& EventBuilder::sequence(unsigned int sequence) {
    event_.attributes.sequence = sequence;
    return *this;
}

EventBuilder& EventBuilder::add(unsigned char type, const void* data, size_t length) {
    if (types_.size() == LoggingEvent::kMaxArguments) throw std::length_error("too many event arguments");
    offsets_.push_back(data_.size());
    types_.push_back(type);
    const auto* bytes = static_cast<const unsigned char*>(data);
    data_.insert(data_.end(), bytes, bytes + length);
    return *this;
}

EventBuilder& EventBuilder::i16(int16_t v) { return add(ARG_INT16, &v, sizeof v); }
EventBuilder& EventBuilder::u16(uint16_t v) { return add(ARG_UINT16, &v, sizeof v); }
EventBuilder& EventBuilder::i32(int32_t v) { return add(ARG_INT32, &v, sizeof v); }
EventBuilder& EventBuilder::u32(uint32_t v) { return add(ARG_UINT32, &v, sizeof v); }
EventBuilder& EventBuilder::i64(int64_t v) { return add(ARG_INT64, &v, sizeof v); }
EventBuilder& EventBuilder::u64(uint64_t v) { return add(ARG_UINT64, &v, sizeof v); }
EventBuilder& EventBuilder::f32(float v) { return add(ARG_FLOAT, &v, sizeof v); }
EventBuilder& EventBuilder::pointer(uint64_t v) { return add(ARG_POINTER, &v, sizeof v); }

EventBuilder& EventBuilder::str(std::string_view v) {
    std::string text(v);
    return add(ARG_STRING, text.c_str(), text.size() + 1);
}

EventBuilder& EventBuilder::wstr(std::u16string_view v) {
    std::vector<unsigned char> bytes(v.size() * 2 + 2, 0);
    for (size_t i = 0; i < v.size(); ++i) std::memcpy(&bytes[i * 2], &v[i], 2);
    return add(ARG_WSTRING, bytes.data(), bytes.size());
}

EventBuilder& EventBuilder::raw(const void* data, uint32_t length) {
    std::vector<unsigned char> bytes(4 + length);
    std::memcpy(bytes.data(), &length, 4);
    if (length) std::memcpy(bytes.data() + 4, data, length);
    return add(ARG_RAW, bytes.data(), bytes.size());
}

EventBuilder& EventBuilder::timeArg(uint32_t seconds, uint32_t microseconds) {
    const timeval32_t tv{seconds, microseconds};
    return add(ARG_TIME, &tv, sizeof tv);
}

EventBuilder& EventBuilder::typed(unsigned char type, const void* data, size_t length) {
    return add(type, data, length);
}

const LoggingEvent& EventBuilder::event() {
    event_.argumentCount = static_cast<unsigned short>(types_.size());
    record_.argumentCount = event_.argumentCount;
    for (size_t i = 0; i < types_.size(); ++i) {
        event_.argumentTypes[i] = types_[i];
        event_.argumentValues[i] = data_.data() + offsets_[i];
    }
    return event_;
}

std::string rendered(const LoggingEvent& event) {
    std::string out;
    renderMessage(&event, out);
    return out;
}

}  // namespace zvtest
