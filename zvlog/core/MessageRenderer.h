// The message renderer's entry for the library's own layouts: it writes
// through their writer instead of appending to a string piece by piece.
#pragma once

#include "zvlog/LoggingEvent.h"
#include "zvlog/layout/TextAppend.h"

namespace zvs::zvlib::zvlog {

// Returns whether the text may hold a line end.
bool renderMessage(const LoggingEvent* event, text::Writer& w);

}  // namespace zvs::zvlib::zvlog
