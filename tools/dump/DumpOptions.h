// The command line of zvlog-dump.
#pragma once

#include <string>
#include <vector>

namespace zvdump {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitDecodeError = 1;  // a file could not be read or decoded whole
constexpr int kExitUsage = 2;        // bad options, pattern or level

// The pattern a file appender is usually given in this library's examples.
constexpr const char* kDefaultPattern = "%d %-5p %c [%t] - %m%n";

struct DumpOptions {
    std::vector<std::string> files;
    std::string pattern = kDefaultPattern;
    bool json = false;
    unsigned char minimumLevel = 0;      // events below it are left out
    std::vector<std::string> loggers;    // empty: every logger
    bool follow = false;
    unsigned pollMilliseconds = 200;
};

// Parses the command line. Returns -1 when the program should go on with
// `options`; otherwise the status to exit with, after the help text or an
// error has been printed (help: 0, anything wrong: kExitUsage).
int parseDumpOptions(int argc, char** argv, DumpOptions& options);

// A level by name (any case: "info", "WARN") or by number (0 to 255); false
// for anything else.
bool parseLevel(const std::string& text, unsigned char& level);

// A conversion pattern's first malformed conversion ("%?x?"), or empty when
// every conversion is one the layout knows.
std::string malformedConversion(const std::string& pattern);

}  // namespace zvdump
