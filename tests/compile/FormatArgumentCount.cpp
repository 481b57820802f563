// Compiled by the test suite twice: as it stands it must compile; with
// ZVLOG_MISMATCH defined it must not, because the format's conversions do not
// match the number of arguments.
#include "zvlog/zvlog.h"

void call(zvs::zvlib::zvlog::Logger* logger) {
#ifdef ZVLOG_MISMATCH
    ZVLOG_INFO(logger, "two conversions %d %s", 1);
#else
    ZVLOG_INFO(logger, "two conversions %d %s and a literal %%", 1, "two");
#endif
}
