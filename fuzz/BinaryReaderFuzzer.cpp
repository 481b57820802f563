// Fuzzes the binary reader: the input is the bytes of a dump (a sequence of
// streams of the binary event encoding), decoded from memory and, for some
// inputs, from a file. Every decoded event is then used as a program uses
// one: its line (renderDecodedEvent), each argument through every accessor,
// and the event rebuilt as a LoggingEvent, rendered and laid out.
//
// Checked besides the sanitizers: the first stream decodes the same alone
// (decodeStream) as at the head of the sequence; a file decodes as its bytes
// do; no more bytes are consumed than given; an argument's text agrees with
// its numeric accessors and its bytes with its encoded length.
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/Layout.h"
#include "zvlog/LoggingEvent.h"

using namespace zvs::zvlib::zvlog;

namespace {

const char kName[] = "fuzz.dmp";
std::string filePath;

// Everything but the category name, which comes from a process-wide table
// that earlier decodings change.
bool sameEvent(const DecodedEvent& a, const DecodedEvent& b) {
    if (a.offset != b.offset || a.threadId != b.threadId || a.threadValue != b.threadValue ||
        a.threadName != b.threadName || a.siteId != b.siteId || a.eventWord != b.eventWord ||
        a.siteNumber != b.siteNumber || a.format != b.format || a.module != b.module || a.method != b.method ||
        a.loggerIndex != b.loggerIndex || a.loggerName != b.loggerName || a.category != b.category ||
        a.contextWord != b.contextWord || a.arguments.size() != b.arguments.size())
        return false;
    for (size_t i = 0; i < a.arguments.size(); ++i)
        if (a.arguments[i].type != b.arguments[i].type || a.arguments[i].data != b.arguments[i].data) return false;
    return true;
}

bool sameResult(const DecodeResult& a, const DecodeResult& b) {
    if (a.events.size() != b.events.size() || a.errors != b.errors || a.streams != b.streams ||
        a.consumed != b.consumed)
        return false;
    for (size_t i = 0; i < a.events.size(); ++i)
        if (!sameEvent(a.events[i], b.events[i])) return false;
    return true;
}

void useArgument(const DecodedArgument& a) {
    const int64_t i = a.asInt();
    const uint64_t u = a.asUInt();
    const double d = a.asDouble();
    (void)d;
    const std::string_view bytes = a.bytes();
    const std::string text = a.toString();
    char expected[64];
    switch (a.type) {
        case ARG_INT16: case ARG_INT32: case ARG_INT64:
            snprintf(expected, sizeof expected, "%" PRId64, i);
            ZVFUZZ_CHECK(text == expected);
            break;
        case ARG_UINT16: case ARG_UINT32: case ARG_UINT64:
            snprintf(expected, sizeof expected, "%" PRIu64, u);
            ZVFUZZ_CHECK(text == expected);
            break;
        case ARG_POINTER:
            snprintf(expected, sizeof expected, "0x%016" PRIx64, u);
            ZVFUZZ_CHECK(text == expected);
            break;
        case ARG_STRING:
            ZVFUZZ_CHECK(text == bytes);
            ZVFUZZ_CHECK(!a.data.empty() && a.data.back() == '\0');
            break;
        case ARG_RAW: {
            uint32_t length = 0;
            ZVFUZZ_CHECK(a.data.size() >= 4);
            memcpy(&length, a.data.data(), 4);
            ZVFUZZ_CHECK(bytes.size() == length);
            ZVFUZZ_CHECK(text.size() == 2 * bytes.size());
            break;
        }
        case ARG_WSTRING:
            ZVFUZZ_CHECK(a.data.size() >= 2 && a.data.size() % 2 == 0);
            ZVFUZZ_CHECK(a.data[a.data.size() - 1] == 0 && a.data[a.data.size() - 2] == 0);
            break;
        case ARG_FLOAT:
            ZVFUZZ_CHECK(a.data.size() == 4);
            break;
        case ARG_TIME:
            ZVFUZZ_CHECK(a.data.size() == 8);
            break;
        default:
            break;
    }
}

void useEvent(const DecodedEvent& e) {
    const std::string line = renderDecodedEvent(e);
    const std::string head = e.threadName + ' ' + e.loggerName + ' ' + e.categoryName + ' ' + e.format;
    ZVFUZZ_CHECK(line.compare(0, head.size(), head) == 0);
    for (const DecodedArgument& a : e.arguments) useArgument(a);

    LocationRecord site;
    LoggingEvent event;
    toLoggingEvent(e, site, event);
    std::string message;
    renderMessage(&event, message);
    // As an appender lays it out: every element that reads the event.
    static PatternLayout* layout =
        new PatternLayout("%d %d{%H:%M:%S} %-5p %c %c{1} %C{1} %M %L %l [%t] %S %.20m|%-30.40m|%m%n");
    std::string out;
    layout->format(&event, out);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* tmp = getenv("TMPDIR");
    filePath = std::string(tmp && *tmp ? tmp : "/tmp") + "/zvlog-fuzz-reader-" + std::to_string(getpid()) + ".dmp";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const DecodeResult first = decodeStream(data, size, kName);
    const DecodeResult all = decodeStreams(data, size, kName);
    ZVFUZZ_CHECK(first.consumed <= size && all.consumed <= size);
    ZVFUZZ_CHECK(first.streams <= 1 && all.streams >= first.streams);
    ZVFUZZ_CHECK(all.consumed == 0 || all.streams > 0);
    if (size > 0) {
        // The sequence begins with the first stream, read exactly as alone,
        // and reads on only where that stream ended.
        ZVFUZZ_CHECK(first.events.size() <= all.events.size());
        for (size_t i = 0; i < first.events.size(); ++i) ZVFUZZ_CHECK(sameEvent(first.events[i], all.events[i]));
        ZVFUZZ_CHECK(first.errors.size() <= all.errors.size());
        for (size_t i = 0; i < first.errors.size(); ++i) ZVFUZZ_CHECK(first.errors[i] == all.errors[i]);
        if (first.streams == 1) ZVFUZZ_CHECK(first.consumed > 0 && all.consumed >= first.consumed);
        if (first.streams == 0) ZVFUZZ_CHECK(all.streams == 0 && all.events.size() == first.events.size());
    } else {
        ZVFUZZ_CHECK(all.events.empty() && all.errors.empty() && all.streams == 0);
    }

    for (const DecodedEvent& e : all.events) useEvent(e);

    // Through a file for every fourth input (it costs a write and a read).
    if (size % 4 == 0) {
        FILE* file = fopen(filePath.c_str(), "wb");
        ZVFUZZ_CHECK(file != nullptr);
        ZVFUZZ_CHECK(size == 0 || fwrite(data, 1, size, file) == size);
        ZVFUZZ_CHECK(fclose(file) == 0);
        const DecodeResult fromFile = decodeFile(filePath.c_str());
        const DecodeResult fromBytes = decodeStreams(data, size, filePath.c_str());
        remove(filePath.c_str());
        ZVFUZZ_CHECK(sameResult(fromFile, fromBytes));
    }
    return 0;
}
