// Fuzzes the message renderer: any format text applied to typed arguments of
// every type code, as an appender's layout renders an event.
//
// Input: the format up to a NUL; one byte that, when all 16 argument slots
// are filled, is added to the argument count (the renderer uses at most 16);
// then the arguments as FuzzArguments.h reads them.
//
// Besides running clean under the sanitizers, the text must be the same
// whether rendered into an empty string, appended to a string that holds
// text already, or written by a pattern layout's "%m", and whether the format
// is read for the event or was read ahead (as for a registered call site); a
// format without "%" renders as itself.
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzArguments.h"
#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "zvlog/Layout.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/core/FormatPlan.h"

using namespace zvs::zvlib::zvlog;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zvfuzz::FuzzInput in(data, size);
    const std::string format = in.text();
    const uint8_t extraCount = in.u8();
    zvtest::EventBuilder builder(format.c_str());
    zvfuzz::FuzzArguments arguments;
    arguments.read(in, builder, LoggingEvent::kMaxArguments);
    LoggingEvent event = arguments.event(builder);
    if (event.argumentCount == LoggingEvent::kMaxArguments) event.argumentCount += extraCount;

    std::string alone;
    renderMessage(&event, alone);

    const std::string before = "an earlier line\nand the start of this one: ";
    std::string appended = before;
    renderMessage(&event, appended);
    ZVFUZZ_CHECK(appended == before + alone);
    if (format.find('%') == std::string::npos) ZVFUZZ_CHECK(alone == format);

    const std::unique_ptr<const FormatPlan> plan(makeFormatPlan(format.c_str()));
    LocationRecord registered = *event.attributes.location;
    registered.format = format.c_str();
    registered.plan = plan.get();
    LoggingEvent planned = event;
    planned.attributes.location = &registered;
    std::string readAhead = before;
    renderMessage(&planned, readAhead);
    ZVFUZZ_CHECK(readAhead == before + alone);

    // "%m" indents the lines of a multi-line message; a one-line message is
    // written as it is.
    if (alone.find('\n') == std::string::npos) {
        static PatternLayout* layout = new PatternLayout("%m");
        std::string laidOut;
        layout->format(&event, laidOut);
        ZVFUZZ_CHECK(laidOut == alone);
        laidOut.clear();
        layout->format(&planned, laidOut);
        ZVFUZZ_CHECK(laidOut == alone);
    }
    return 0;
}
