#include "DumpOptions.h"

#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <iostream>

#include "zvlog/Layout.h"
#include "zvlog/Level.h"

namespace zvdump {

using namespace zvs::zvlib::zvlog;

namespace {

constexpr const char* kDescription =
    "Decodes zvlog's binary event encoding into text or JSON lines: dump files\n"
    "(zvlog-<instance>.dmp, written by LogBuffer::saveAllToFile) and files written\n"
    "by an appender with a BinaryLayout. A file holds one stream per event-buffer\n"
    "block, one after another, in either byte order.\n"
    "\n"
    "Exit status: 0 when every file decoded whole; 1 when a file could not be read\n"
    "or holds damage (the reader's error text goes to standard error, the events\n"
    "decoded before the damage are printed); 2 for a bad command line.\n";

constexpr const char* kFooter =
    "Pattern conversions: %d{date format} time, %p level, %c{N} logger, %t thread,\n"
    "%m message, %S sequence, %C{N} module, %M method, %L line, %l location,\n"
    "%n line end (\"\\r\\n\"), %% percent; widths as in %-5p, %.10c. %r, the\n"
    "writer's clock, is unknown to a reader and prints nothing.\n"
    "\n"
    "JSON lines, one object per event: time (UTC, ISO 8601 with microseconds),\n"
    "sequence, level, logger, thread, thread_id, module, method, line, message,\n"
    "format and arguments (each with its type and value).\n"
    "\n"
    "Examples:\n"
    "  zvlog-dump /var/log/zvlog-7.dmp\n"
    "  zvlog-dump --json --level warn --logger capture capture.bin\n"
    "  zvlog-dump --follow --pattern '%d{%H:%M:%S} %p %c - %m%n' capture.bin";

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// The names the library gives to levels, for messages.
std::string levelNames() {
    std::string names;
    for (int level = 1; level < 256; ++level) {
        const std::string name = getLevelName(static_cast<unsigned char>(level));
        if (name == "<undefined>") continue;
        if (!names.empty()) names += ", ";
        names += name;
    }
    return names;
}

}  // namespace

bool parseLevel(const std::string& text, unsigned char& level) {
    if (text.empty()) return false;
    if (text.find_first_not_of("0123456789") == std::string::npos) {
        if (text.size() > 3) return false;
        const int value = std::stoi(text);
        if (value > 255) return false;
        level = static_cast<unsigned char>(value);
        return true;
    }
    const std::string wanted = upper(text);
    for (int value = 0; value < 256; ++value) {
        const char* name = getLevelName(static_cast<unsigned char>(value));
        if (name && wanted == name && wanted != "<UNDEFINED>") {
            level = static_cast<unsigned char>(value);
            return true;
        }
    }
    return false;
}

std::string malformedConversion(const std::string& pattern) {
    PatternLayout layout(pattern.c_str());
    for (const PatternLayout::Element& e : layout.elements())
        if (e.kind == '?') return e.option;
    return {};
}

int parseDumpOptions(int argc, char** argv, DumpOptions& options) {
    CLI::App app(kDescription, "zvlog-dump");
    app.footer(kFooter);
    app.get_formatter()->column_width(30);

    std::string level;
    app.add_option("files", options.files, "Dump or binary log files, decoded in the order given")
        ->required()
        ->type_name("FILE");
    auto* pattern = app.add_option("-p,--pattern", options.pattern,
                                   "Conversion pattern of the text output (default \"" + std::string(kDefaultPattern) +
                                       "\")")
                        ->type_name("PATTERN");
    auto* json = app.add_flag("-j,--json", options.json, "One JSON object per event instead of text");
    pattern->excludes(json);
    app.add_option("-l,--level", level,
                   "Only events of this level or above: a name (" + levelNames() +
                       ", in any case) or a number 0-255")
        ->type_name("LEVEL");
    app.add_option("-c,--logger", options.loggers,
                   "Only events of this logger and its descendants: NAME matches NAME and NAME.*, not "
                   "NAMEx; \"root\" matches every logger. Repeat for several")
        ->type_name("NAME");
    app.add_flag("-f,--follow", options.follow,
                 "Keep reading one binary file as it grows, printing each stream once it is whole; "
                 "stops on SIGINT or SIGTERM");
    app.add_option("--poll", options.pollMilliseconds, "Milliseconds between looks at a followed file (default 200)")
        ->check(CLI::Range(1u, 60000u))
        ->type_name("MS");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    }

    auto usage = [](const std::string& text) {
        std::cerr << "zvlog-dump: " << text << "\nRun with --help for more information.\n";
        return kExitUsage;
    };
    if (!level.empty() || app.count("--level")) {
        if (!parseLevel(level, options.minimumLevel))
            return usage("--level: \"" + level + "\" is not a level; use one of " + levelNames() +
                         " or a number 0-255");
    }
    for (const std::string& name : options.loggers)
        if (name.empty()) return usage("--logger: the name is empty (\"root\" names every logger)");
    if (!options.json) {
        const std::string bad = malformedConversion(options.pattern);
        if (!bad.empty())
            return usage("--pattern: \"" + options.pattern + "\" holds an unknown conversion (printed as \"" + bad +
                         "\")");
    }
    if (options.follow && options.files.size() != 1) return usage("--follow reads exactly one file");
    return -1;
}

}  // namespace zvdump
