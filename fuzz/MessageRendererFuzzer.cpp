// Fuzzes the message renderer: any format text applied to typed arguments of
// every type code, as an appender's layout renders an event.
//
// Input: the format up to a NUL; one byte that, when all 16 argument slots
// are filled, is added to the argument count (the renderer uses at most 16);
// then the arguments as FuzzArguments.h reads them.
//
// Besides running clean under the sanitizers, the text must be the same
// whether rendered into an empty string, appended to a string that holds
// text already, or written by a pattern layout's "%m"; a format without "%"
// renders as itself.
#include <cstdint>
#include <string>

#include "FuzzArguments.h"
#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "zvlog/Layout.h"
#include "zvlog/LoggingEvent.h"

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

    // "%m" indents the lines of a multi-line message; a one-line message is
    // written as it is.
    if (alone.find('\n') == std::string::npos) {
        static PatternLayout* layout = new PatternLayout("%m");
        std::string laidOut;
        layout->format(&event, laidOut);
        ZVFUZZ_CHECK(laidOut == alone);
    }
    return 0;
}
