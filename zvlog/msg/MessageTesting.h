// Hooks for the message tests: a factory loaded from a catalog of the test's
// choosing, and a look into the calling thread's ring of recent texts. The
// library itself never calls them. Everything else a test needs is in the
// factory's state (zvlog/msg/MessageInternals.h through impl()): severities
// and their actions, the process-wide actions, issue limits, and the
// repetition intervals (repetition.intervalsMs), which a test may shorten
// at any time; the repetition thread reads them at each wait.
#pragma once

#include <string>

#include "zvlog/Export.h"
#include "zvlog/Message.h"

namespace zvs::zvlib::zvlog::msg::testing {

// Loads the catalog "<packagePath>.dat" (opened by ICU as that package path)
// into a new factory that is not the default one, with every check of the
// default load: version, severities and their actions, class and code
// severities, issue limits. ICU keeps package files by file name, so each
// catalog loaded into one process needs a name (and package) of its own.
// Null when the load fails; the text the default load would write to standard
// error goes into *diagnostics instead (or to standard error without one).
// The caller deletes the factory after every message made from it.
ZVLOG_API CMessageFactory* loadFactory(const char* packagePath, std::string* diagnostics = nullptr);

// Whether the calling thread's ring of recent ToString texts still holds
// this very text.
ZVLOG_API bool recentTextHeld(const char* text);

}  // namespace zvs::zvlib::zvlog::msg::testing
