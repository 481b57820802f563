#include "zvlog/Level.h"

namespace zvs::zvlib::zvlog {

namespace {

struct LevelNames {
    const char* names[256];
    LevelNames() {
        for (const char*& n : names) n = nullptr;
        names[LEVEL_INHERIT] = "INHERIT";
        names[LEVEL_ALL] = "ALL";
        names[LEVEL_DATA] = "DATA";
        names[LEVEL_DEBUG] = "DEBUG";
        names[LEVEL_INFO] = "INFO";
        names[LEVEL_WARN] = "WARN";
        names[LEVEL_ERROR] = "ERROR";
        names[LEVEL_FATAL] = "FATAL";
        names[LEVEL_OFF] = "OFF";
        for (const char*& n : names)
            if (!n) n = "<undefined>";
    }
};

// Filled at load, before any logger exists.
const LevelNames levelNames;

}  // namespace

const char* getLevelName(unsigned char level) { return levelNames.names[level]; }

}  // namespace zvs::zvlib::zvlog
