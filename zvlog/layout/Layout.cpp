// The defaults every layout starts from: plain text, no header or footer.

#include "zvlog/Layout.h"

namespace zvs::zvlib::zvlog {

Layout::~Layout() = default;

const char* Layout::getContentType() const { return "text/plain"; }

void Layout::getHeader(std::string&) const {}

void Layout::getFooter(std::string&) const {}

unsigned int Layout::getFooterLength() const { return 0; }

bool Layout::canLayoutEvents() const { return true; }

}  // namespace zvs::zvlib::zvlog
