// Helpers for driving an event buffer by hand and catching the blocks it
// closes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zvlog/LoggingEvent.h"

namespace zvtest {

// An event of a call site the test owns.
zvs::zvlib::zvlog::LoggingEvent makeEvent(const zvs::zvlib::zvlog::LocationRecord& site, unsigned int key,
                                          unsigned int sequence, unsigned short logger, unsigned char level,
                                          uint32_t seconds, uint32_t microseconds);

// Collects the stream of every block closed while it is installed (in the
// order they close). Only one is installed at a time.
class BlockCapture {
public:
    BlockCapture();
    ~BlockCapture();
    std::vector<std::string> blocks() const;
    void clear();
};

// Little-endian field builders for expected bytes.
std::string le16(uint16_t v);
std::string le32(uint32_t v);
std::string le64(uint64_t v);
// The 16-byte stream header this library writes.
std::string streamHeader();

// Bytes as "3c 02 10 ..." for readable failures.
std::string hex(const std::string& bytes);

}  // namespace zvtest
