// Fuzzes the conversion-pattern layout: a pattern from the input is parsed,
// then formats a few events built with typed arguments, the way an appender
// formats one event after another with the same layout.
//
// Input, in order: the pattern up to a NUL; the events' message format up to
// a NUL; the call site's module and method texts, each up to a NUL; then
//   u8 level, u8 logger choice, u16 line, u32 seconds, u32 microseconds,
//   u32 sequence number,
// and the arguments as FuzzArguments.h reads them.
//
// Three events go through one layout: the event itself, the same event in
// the same second under the next logger (the layout's date and logger-name
// memories), and one a second later at the next level. The text of an event
// is appended after what the string held, and a second layout made from the
// same pattern prints the first event exactly as the first layout did
// (unless the pattern prints the elapsed time, "%r").
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzArguments.h"
#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "zvlog/Layout.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingEvent.h"

using namespace zvs::zvlib::zvlog;

namespace {

std::vector<unsigned short> loggerIndexes;

unsigned short chooseLogger(uint8_t choice) {
    // Past the known loggers: an index no logger has.
    if (choice % 8 >= loggerIndexes.size()) return static_cast<unsigned short>(choice * 257u);
    return loggerIndexes[choice % 8];
}

void setEvent(zvtest::EventBuilder& b, uint8_t level, uint8_t logger, uint32_t seconds, uint32_t microseconds) {
    b.level(level).logger(chooseLogger(logger)).time(seconds, microseconds);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    LoggerRepository* repository = Logger::getRepository();
    loggerIndexes.push_back(repository->getRootLogger()->getIndex());
    for (const char* name : {"a", "capture.reader", "x.y.z.w.v.u", "trailing.dot.", "..", "utf8.\xc3\xa9t\xc3\xa9"})
        loggerIndexes.push_back(repository->getLogger(name)->getIndex());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zvfuzz::FuzzInput in(data, size);
    const std::string pattern = in.text();
    const std::string format = in.text();
    const std::string module = in.text();
    const std::string method = in.text();
    const uint8_t level = in.u8();
    const uint8_t logger = in.u8();
    const uint16_t line = in.u16();
    const uint32_t seconds = in.u32();
    const uint32_t microseconds = in.u32();
    const uint32_t sequence = in.u32();

    zvtest::EventBuilder builder(format.c_str());
    builder.module(module.c_str()).method(method.c_str()).line(line).sequence(sequence);
    setEvent(builder, level, logger, seconds, microseconds);
    zvfuzz::FuzzArguments arguments;
    arguments.read(in, builder, LoggingEvent::kMaxArguments);

    PatternLayout layout(pattern.c_str());
    ZVFUZZ_CHECK(layout.getPattern() == pattern);
    bool printsElapsedTime = false;
    for (const PatternLayout::Element& e : layout.elements()) printsElapsedTime = printsElapsedTime || e.kind == 'r';

    const std::string before = "header line\nstart of a line ";
    std::string out = before;
    const LoggingEvent first = arguments.event(builder);
    layout.format(&first, out);
    ZVFUZZ_CHECK(out.compare(0, before.size(), before) == 0);
    const std::string firstText = out.substr(before.size());
    if (pattern.find('%') == std::string::npos) ZVFUZZ_CHECK(firstText == pattern);

    setEvent(builder, level, static_cast<uint8_t>(logger + 1), seconds, microseconds + 1);
    const LoggingEvent second = arguments.event(builder);
    layout.format(&second, out);

    setEvent(builder, static_cast<uint8_t>(level + 1), logger, seconds + 1, microseconds);
    const LoggingEvent third = arguments.event(builder);
    layout.format(&third, out);

    // The same first event once more, after the layout's memories moved on,
    // and through a fresh layout.
    std::string again = before;
    layout.format(&first, again);
    PatternLayout fresh(pattern.c_str());
    std::string freshText = before;
    fresh.format(&first, freshText);
    if (!printsElapsedTime) {
        ZVFUZZ_CHECK(again.substr(before.size()) == firstText);
        ZVFUZZ_CHECK(freshText.substr(before.size()) == firstText);
    }
    return 0;
}
