// What a logging call stamps its event with besides the time: its call
// site's location key and the process-wide sequence number.
#pragma once

#include <atomic>

#include "zvlog/Log.h"

namespace zvs::zvlib::zvlog::detail {

// Incremented atomically for every event; the first event gets 1.
extern std::atomic<unsigned int> sequenceCounter;

// Registers a call site's own record under its location key, on its first
// call; returns the key.
unsigned int registerCallSite(CallSite& site, const char* format, unsigned short count);

}  // namespace zvs::zvlib::zvlog::detail
