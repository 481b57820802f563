#include "EventWriter.h"

#include <nlohmann/json.hpp>

#include <cinttypes>
#include <ctime>

#include "zvlog/Level.h"

namespace zvdump {

using namespace zvs::zvlib::zvlog;

namespace {

// The event time as UTC in ISO 8601 with microseconds. The writer keeps the
// time in the context word: seconds in the high half, microseconds in the
// low one.
std::string isoTime(uint64_t contextWord) {
    const time_t seconds = static_cast<time_t>(contextWord >> 32);
    const unsigned micros = static_cast<uint32_t>(contextWord) % 1000000u;
    struct tm t;
    if (!gmtime_r(&seconds, &t)) return {};
    char text[64];
    const size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &t);
    snprintf(text + n, sizeof text - n, ".%06uZ", micros);
    return text;
}

nlohmann::ordered_json argumentValue(const DecodedArgument& a) {
    switch (a.type) {
    case ARG_INT16:
    case ARG_INT32:
    case ARG_INT64:
        return a.asInt();
    case ARG_UINT16:
    case ARG_UINT32:
    case ARG_UINT64:
        return a.asUInt();
    case ARG_FLOAT:
        return a.asDouble();  // NaN and infinities come out as null
    case ARG_STRING:
        return std::string(a.bytes());
    default:  // pointer "0x...", time "sec.usec", raw bytes in hex, wide text as UTF-8
        return a.toString();
    }
}

}  // namespace

const char* argumentTypeName(unsigned char type) {
    switch (type) {
    case ARG_FLOAT: return "float";
    case ARG_INT16: return "int16";
    case ARG_UINT16: return "uint16";
    case ARG_INT32: return "int32";
    case ARG_UINT32: return "uint32";
    case ARG_INT64: return "int64";
    case ARG_UINT64: return "uint64";
    case ARG_POINTER: return "pointer";
    case ARG_RAW: return "raw";
    case ARG_STRING: return "string";
    case ARG_TIME: return "time";
    case ARG_WSTRING: return "wstring";
    default: return "unknown";
    }
}

EventWriter::EventWriter(const DumpOptions& options, FILE* out)
    : out_(out), json_(options.json), minimumLevel_(options.minimumLevel), loggers_(options.loggers) {
    for (const std::string& name : loggers_) everyLogger_ = everyLogger_ || name == "root";
    if (!json_) layout_ = std::make_unique<PatternLayout>(options.pattern.c_str());
}

bool EventWriter::passes(const DecodedEvent& event) const {
    if (event.category < minimumLevel_) return false;
    if (loggers_.empty() || everyLogger_) return true;
    const std::string& name = event.loggerName;
    for (const std::string& wanted : loggers_) {
        if (name.size() < wanted.size() || name.compare(0, wanted.size(), wanted) != 0) continue;
        if (name.size() == wanted.size() || name[wanted.size()] == '.') return true;
    }
    return false;
}

void EventWriter::write(const DecodedEvent& event) {
    if (!passes(event)) return;
    if (json_) {
        writeJson(event);
        return;
    }
    line_.clear();
    formatDecodedEvent(*layout_, event, line_);
    fwrite(line_.data(), 1, line_.size(), out_);
}

void EventWriter::writeJson(const DecodedEvent& event) {
    LocationRecord site;
    LoggingEvent replayed;
    toLoggingEvent(event, site, replayed);
    std::string message;
    renderMessage(&replayed, message);

    nlohmann::ordered_json arguments = nlohmann::ordered_json::array();
    for (const DecodedArgument& a : event.arguments)
        arguments.push_back({{"type", argumentTypeName(a.type)}, {"value", argumentValue(a)}});

    nlohmann::ordered_json j;
    j["time"] = isoTime(event.contextWord);
    j["sequence"] = event.eventWord;
    // The stream names its categories; this library's writer makes the
    // category the level and names it so. An unnamed one gets the level name.
    j["level"] = event.categoryName != "<undefined>" ? event.categoryName : std::string(getLevelName(event.category));
    j["logger"] = event.loggerName.empty() ? std::string("root") : event.loggerName;
    j["thread"] = event.threadName;
    j["thread_id"] = event.threadId;
    j["module"] = event.module;
    j["method"] = event.method;
    j["line"] = event.line;
    j["message"] = std::move(message);
    j["format"] = event.format;
    j["arguments"] = std::move(arguments);
    // Texts from a damaged or foreign stream need not be UTF-8: bad bytes
    // become U+FFFD rather than stopping the output.
    line_ = j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    line_ += '\n';
    fwrite(line_.data(), 1, line_.size(), out_);
}

}  // namespace zvdump
