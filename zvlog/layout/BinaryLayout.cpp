// The binary layout writes no text of its own: answering false to
// canLayoutEvents() makes its appenders take whole blocks of the event buffer,
// which already hold the events in their binary encoding.

#include "zvlog/Layout.h"

namespace zvs::zvlib::zvlog {

void BinaryLayout::format(const LoggingEvent*, std::string&) {}

const char* BinaryLayout::getContentType() const { return "application/x.binary-log"; }

bool BinaryLayout::canLayoutEvents() const { return false; }

}  // namespace zvs::zvlib::zvlog
