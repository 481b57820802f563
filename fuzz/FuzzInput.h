// Reads a fuzz input front to back: texts up to a NUL, fixed-size numbers in
// this machine's byte order. Past the end every read gives zeros and empty
// texts, so any input is a valid one and a seed can be written by hand (a
// text, "\0", then the numbers).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace zvfuzz {

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return at_ >= size_; }
    size_t left() const { return size_ - at_; }

    // The bytes up to the next NUL (consumed) or to the end.
    std::string text() {
        const void* nul = at_ < size_ ? std::memchr(data_ + at_, 0, size_ - at_) : nullptr;
        const size_t end = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - data_) : size_;
        std::string t(reinterpret_cast<const char*>(data_ + at_), end - at_);
        at_ = nul ? end + 1 : size_;
        return t;
    }

    // At most n bytes.
    std::string bytes(size_t n) {
        if (n > left()) n = left();
        std::string b(reinterpret_cast<const char*>(data_ + at_), n);
        at_ += n;
        return b;
    }

    template <class T>
    T number() {
        T v{};
        const size_t n = sizeof v < left() ? sizeof v : left();
        if (n) std::memcpy(&v, data_ + at_, n);
        at_ += n;
        return v;
    }

    uint8_t u8() { return number<uint8_t>(); }
    uint16_t u16() { return number<uint16_t>(); }
    uint32_t u32() { return number<uint32_t>(); }
    uint64_t u64() { return number<uint64_t>(); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

}  // namespace zvfuzz
