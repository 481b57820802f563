#include "support/BufferTestSupport.h"

#include <cstdio>
#include <mutex>

#include "zvlog/buffer/Block.h"

namespace zvtest {

using namespace zvs::zvlib::zvlog;

LoggingEvent makeEvent(const LocationRecord& site, unsigned int key, unsigned int sequence, unsigned short logger,
                       unsigned char level, uint32_t seconds, uint32_t microseconds) {
    LoggingEvent event;
    EventAttributes& a = event.attributes;
    a.location = &site;
    a.locationKey = key;
    a.sequence = sequence;
    a.threadNumber = 0;
    a.loggerIndex = logger;
    a.level = level;
    a.time.tv_sec = seconds;
    a.time.tv_usec = microseconds;
    return event;
}

namespace {

std::mutex captureMutex;
std::vector<std::string> captured;

void captureHook(const unsigned char* stream, uint32_t length, uint32_t /*eventCount*/) {
    std::lock_guard<std::mutex> lock(captureMutex);
    captured.emplace_back(reinterpret_cast<const char*>(stream), length);
}

}  // namespace

BlockCapture::BlockCapture() {
    clear();
    binary::setRawDeliveryHook(&captureHook);
}

BlockCapture::~BlockCapture() { binary::setRawDeliveryHook(nullptr); }

std::vector<std::string> BlockCapture::blocks() const {
    std::lock_guard<std::mutex> lock(captureMutex);
    return captured;
}

void BlockCapture::clear() {
    std::lock_guard<std::mutex> lock(captureMutex);
    captured.clear();
}

std::string le16(uint16_t v) { return std::string{char(v), char(v >> 8)}; }
std::string le32(uint32_t v) { return le16(uint16_t(v)) + le16(uint16_t(v >> 16)); }
std::string le64(uint64_t v) { return le32(uint32_t(v)) + le32(uint32_t(v >> 32)); }

std::string streamHeader() { return std::string("<\x02\x10\x08\x04\x01", 6) + std::string(10, '\0'); }

std::string hex(const std::string& bytes) {
    std::string out;
    char buffer[4];
    for (unsigned char c : bytes) {
        snprintf(buffer, sizeof buffer, "%02x ", c);
        out += buffer;
    }
    return out;
}

}  // namespace zvtest
