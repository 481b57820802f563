// File names that carry process tokens, shared by the file appenders, the
// report file and the event-buffer dump.
#pragma once

#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

// Expands a configured file name. In the first expansion (`second` false, when
// the name is set) a non-empty name holding none of "%D", "/" and "\" gets
// "%D" in front, so that a bare name lands in the process's log directory.
// Then, in one pass from the left, "%P" becomes the decimal ProcessID, "%A"
// the ProcessExecutableBase and "%D" the DirProcessLog; in the second
// expansion (when the file is opened) "%I" becomes the AppInstance, or the
// ProcessExecutableBase when the instance is empty. Any other "%" sequence
// is kept, as is "%I" in the first expansion.
ZVLOG_API std::string expandFileName(const char* name, bool second);

// The token replacements of expandFileName without the "%D" prefix rule.
ZVLOG_API std::string replaceFileNameTokens(const char* name, bool second);

// A directory and a name with exactly one separator between them; the name
// alone when the directory is empty.
ZVLOG_API std::string joinPath(const std::string& directory, const char* name);

}  // namespace zvs::zvlib::zvlog
