// Writes decoded events that pass the filters, as text by a conversion
// pattern or as JSON lines.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "DumpOptions.h"
#include "zvlog/BinaryReader.h"
#include "zvlog/Layout.h"

namespace zvdump {

class EventWriter {
public:
    EventWriter(const DumpOptions& options, FILE* out);

    bool passes(const zvs::zvlib::zvlog::DecodedEvent& event) const;
    // Writes the event if it passes the filters.
    void write(const zvs::zvlib::zvlog::DecodedEvent& event);
    void flush() { fflush(out_); }

private:
    void writeJson(const zvs::zvlib::zvlog::DecodedEvent& event);

    FILE* out_;
    bool json_;
    unsigned char minimumLevel_;
    std::vector<std::string> loggers_;
    bool everyLogger_ = false;
    std::unique_ptr<zvs::zvlib::zvlog::PatternLayout> layout_;
    std::string line_;
};

// The JSON name of an argument type ("int32", "string", ...).
const char* argumentTypeName(unsigned char type);

}  // namespace zvdump
