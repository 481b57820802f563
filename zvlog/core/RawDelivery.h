// Hands a closed event-buffer block to every enabled appender in raw mode.
#pragma once

#include <cstdint>

namespace zvs::zvlib::zvlog {

void deliverRawBlock(const unsigned char* stream, uint32_t length, uint32_t eventCount);

}  // namespace zvs::zvlib::zvlog
