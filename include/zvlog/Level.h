// The level scale: one unsigned byte, larger is more severe.
#pragma once

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

enum LevelValue : unsigned char {
    LEVEL_INHERIT = 0,
    LEVEL_ALL = 1,
    LEVEL_DATA = 95,
    LEVEL_DEBUG = 143,
    LEVEL_INFO = 191,
    LEVEL_WARN = 223,
    LEVEL_ERROR = 239,
    LEVEL_FATAL = 254,
    LEVEL_OFF = 255,
};

// The level's name; values without one print as "<undefined>".
ZVLOG_API const char* getLevelName(unsigned char level);

}  // namespace zvs::zvlib::zvlog
