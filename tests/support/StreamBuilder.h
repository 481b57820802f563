// Builds binary event streams by hand, in either byte order, for tests of
// the reader and of the programs that use it.
#pragma once

#include <cstdint>
#include <string>

namespace zvtest {

// Builds a stream by hand in either byte order.
class StreamBuilder {
public:
    explicit StreamBuilder(bool bigEndian = false) : big_(bigEndian) {}

    StreamBuilder& header(uint8_t version = 2, uint8_t pointerSize = 8, uint8_t floatSize = 4) {
        return header(version, big_ ? 1 : 16, pointerSize, floatSize);
    }
    StreamBuilder& header(uint8_t version, uint8_t endian, uint8_t pointerSize, uint8_t floatSize) {
        bytes_ += std::string{'<', char(version), char(endian), char(pointerSize), char(floatSize), 1};
        bytes_ += std::string(10, '\0');
        return *this;
    }
    StreamBuilder& u8(uint8_t v) {
        bytes_ += char(v);
        return *this;
    }
    StreamBuilder& u16(uint16_t v) { return put(v, 2); }
    StreamBuilder& u32(uint32_t v) { return put(v, 4); }
    StreamBuilder& u64(uint64_t v) { return put(v, 8); }
    StreamBuilder& text(const std::string& t) {
        bytes_ += t;
        bytes_ += '\0';
        return *this;
    }
    StreamBuilder& thread(uint32_t id, uint64_t value, const std::string& name) {
        return u8('b').u32(id).u64(value).text(name);
    }
    StreamBuilder& site(uint32_t id, uint32_t word, uint16_t number, const std::string& format) {
        return u8('a').u32(id).u32(word).u16(number).u8('s').text(format).u8('s').text("m.c").u8('s').text("f");
    }
    StreamBuilder& logger(uint16_t index, uint8_t category, const std::string& name) {
        return u8('d').u16(index).u8('C').u8(category).text(name);
    }
    const std::string& bytes() const { return bytes_; }
    size_t size() const { return bytes_.size(); }

private:
    StreamBuilder& put(uint64_t v, int width) {
        for (int i = 0; i < width; ++i) bytes_ += char(v >> 8 * (big_ ? width - 1 - i : i));
        return *this;
    }
    bool big_;
    std::string bytes_;
};

}  // namespace zvtest
