#include "zvlog/BinaryReader.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "zvlog/Layout.h"
#include "zvlog/buffer/BinaryFormat.h"

namespace zvs::zvlib::zvlog {

using namespace binary;

namespace {

constexpr char kUndefined[] = "<undefined>";
constexpr char kError[] = "<Error>";

// Category names are process-wide: a "c" token in one stream names the
// category for every later event read by this process.
struct CategoryTable {
    std::mutex mutex;
    std::string names[256];
    CategoryTable() {
        for (std::string& name : names) name = kUndefined;
    }
};

CategoryTable& categoryTable() {
    static CategoryTable* table = new CategoryTable();
    return *table;
}

bool isArgumentType(unsigned char c) {
    switch (c) {
    case ARG_FLOAT:
    case ARG_INT16:
    case ARG_UINT16:
    case ARG_INT32:
    case ARG_UINT32:
    case ARG_INT64:
    case ARG_UINT64:
    case ARG_POINTER:
    case ARG_RAW:
    case ARG_STRING:
    case ARG_TIME:
    case ARG_WSTRING:
        return true;
    default:
        return false;
    }
}

template <class... Args>
std::string format(const char* pattern, Args... args) {
    char buffer[1024];
    snprintf(buffer, sizeof buffer, pattern, args...);
    return buffer;
}

// The input ended inside a token.
struct Truncated {};
// A diagnostic that ends the decoding; already recorded.
struct Stop {};

template <class T>
void append(std::string& out, T value) {
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

class StreamDecoder {
public:
    StreamDecoder(const unsigned char* data, size_t size, const char* name, size_t origin, DecodeResult& out)
        : data_(data), size_(size), name_(name), origin_(origin), out_(out) {}

    // Decodes the stream at `start`; returns where it ends (after its ">"),
    // or 0 when an error stopped it.
    size_t decode(size_t start) {
        try {
            readHeader(start);
            readTokens();
            return pos_;
        } catch (const Truncated&) {
            out_.truncated = true;
            out_.errors.push_back(format("Unexpected end of data at offset 0x%08x\n", offset(size_)));
        } catch (const Stop&) {
        }
        return 0;
    }

private:
    struct Thread {
        uint32_t id;
        uint64_t value;
        std::string name;
    };
    struct Site {
        uint16_t number;
        std::string format, module, method;
    };

    unsigned offset(size_t at) const { return static_cast<unsigned>(origin_ + at); }

    [[noreturn]] void headerError(const char* pattern, size_t start) {
        out_.errors.push_back(format(pattern, name_, static_cast<long>(origin_ + start)));
        throw Stop();
    }

    void readHeader(size_t start) {
        if (size_ - start < kStreamHeaderSize && data_[start] == kMagic) out_.truncated = true;
        if (size_ - start < kStreamHeaderSize || data_[start] != kMagic)
            headerError("File '%s' has a malformed file header at position %ld", start);
        const unsigned char* h = data_ + start;
        if (h[1] < kVersion) headerError("File '%s' has an older version in file header at position %ld", start);
        if (h[1] > kVersion) headerError("File '%s' has a newer version in file header at position %ld", start);
        if (h[2] != kLittleEndian && h[2] != kBigEndian)
            headerError("File '%s' has an undefined endian notation in file header at position %ld", start);
        if (h[3] != 4 && h[3] != 8)
            headerError("File '%s' has an unsupported pointer size in file header at position %ld", start);
        if (h[4] != 4 && h[4] != 8)
            headerError("File '%s' has an unsupported float size in file header at position %ld", start);
        swap_ = (h[2] == kLittleEndian) != (std::endian::native == std::endian::little);
        pointerSize_ = h[3];
        floatSize_ = h[4];
        pos_ = start + kStreamHeaderSize;
    }

    void need(size_t n) {
        if (size_ - pos_ < n) throw Truncated();
    }
    uint8_t read8() {
        need(1);
        return data_[pos_++];
    }
    template <class T>
    T readInt() {
        need(sizeof(T));
        T value;
        std::memcpy(&value, data_ + pos_, sizeof value);
        pos_ += sizeof value;
        if (swap_) {
            if constexpr (sizeof(T) == 2) value = __builtin_bswap16(value);
            if constexpr (sizeof(T) == 4) value = __builtin_bswap32(value);
            if constexpr (sizeof(T) == 8) value = __builtin_bswap64(value);
        }
        return value;
    }
    std::string readText() {
        const void* nul = pos_ < size_ ? std::memchr(data_ + pos_, 0, size_ - pos_) : nullptr;
        if (!nul) throw Truncated();
        const size_t length = static_cast<const unsigned char*>(nul) - (data_ + pos_);
        std::string text(reinterpret_cast<const char*>(data_ + pos_), length);
        pos_ += length + 1;
        return text;
    }

    [[noreturn]] void invalidToken(unsigned char token, size_t at) {
        out_.errors.push_back(format("Invalid token 0x%02x in data at offset 0x%08x\n", token, offset(at)));
        throw Stop();
    }

    void readTokens() {
        for (;;) {
            const size_t at = pos_;
            const uint8_t token = read8();
            switch (token) {
            case kThreadDefine: {
                Thread t;
                t.id = readInt<uint32_t>();
                t.value = readInt<uint64_t>();
                t.name = readText();
                threads_[t.id] = t;
                thread_ = &threads_[t.id];
                break;
            }
            case kThreadSwitch: {
                auto it = threads_.find(readInt<uint32_t>());
                thread_ = it == threads_.end() ? nullptr : &it->second;
                break;
            }
            case kEventDefine:
            case kEventUse:
                readEvent(token, at);
                break;
            case kEnd:
                ++out_.streams;
                return;
            case kContextWord:
            case kStringDefine:
            case kStringUse:
            case kCategoryDefine:
            case kCategoryUse:
            case kLoggerDefine:
            case kLoggerUse:
                out_.errors.push_back(format(
                    "Expecting LogEvent token but found invalid token 0x%02x in data at offset 0x%08x\n", token,
                    offset(at)));
                throw Stop();
            default:
                invalidToken(token, at);
            }
        }
    }

    std::string readStringToken() {
        const size_t at = pos_;
        const uint8_t token = read8();
        if (token == kStringDefine) {
            strings_.push_back(readText());
            return strings_.back();
        }
        if (token != kStringUse) invalidToken(token, at);
        const uint16_t index = readInt<uint16_t>();
        if (!thread_ || index >= strings_.size()) return kError;
        return strings_[index];
    }

    void readCategoryToken() {
        const size_t at = pos_;
        const uint8_t token = read8();
        if (token == kCategoryDefine) {
            category_ = read8();
            std::string name = readText();
            CategoryTable& table = categoryTable();
            std::lock_guard<std::mutex> lock(table.mutex);
            table.names[category_] = std::move(name);
        } else if (token == kCategoryUse) {
            category_ = read8();
        } else {
            invalidToken(token, at);
        }
    }

    void readEvent(uint8_t token, size_t at) {
        DecodedEvent e;
        e.offset = origin_ + at;
        if (thread_) {
            e.threadId = thread_->id;
            e.threadValue = thread_->value;
            e.threadName = thread_->name;
        } else {
            out_.errors.push_back(
                format("Missing thread context for event stream in data at offset 0x%08x\n", offset(at)));
            e.threadName = kError;
        }
        e.siteId = readInt<uint32_t>();
        e.eventWord = readInt<uint32_t>();
        e.line = static_cast<uint16_t>(e.siteId & 0xFFFF);
        bool countKnown = true;
        if (token == kEventDefine) {
            Site site;
            site.number = readInt<uint16_t>();
            site.format = readStringToken();
            site.module = readStringToken();
            site.method = readStringToken();
            sites_[e.siteId] = site;
        }
        auto site = sites_.find(e.siteId);
        if (site != sites_.end()) {
            e.siteNumber = site->second.number;
            e.format = site->second.format;
            e.module = site->second.module;
            e.method = site->second.method;
        } else {
            e.format = e.module = e.method = kError;
            countKnown = false;
        }

        // What changed since the previous event.
        for (bool more = true; more && pos_ < size_;) {
            switch (data_[pos_]) {
            case kLoggerDefine: {
                ++pos_;
                const uint16_t index = readInt<uint16_t>();
                readCategoryToken();
                loggers_[index] = readText();
                setLogger(index);
                break;
            }
            case kLoggerUse:
                ++pos_;
                setLogger(readInt<uint16_t>());
                break;
            case kCategoryDefine:
            case kCategoryUse:
                readCategoryToken();
                break;
            case kContextWord:
                ++pos_;
                context_ = readInt<uint64_t>();
                break;
            default:
                more = false;
            }
        }
        if (!haveLogger_) {
            out_.errors.push_back(
                format("Missing logger token for event stream in data at offset 0x%08x\n", offset(at)));
        }
        e.loggerIndex = logger_;
        e.loggerName = loggerName_;
        e.category = category_;
        e.categoryName = decodedCategoryName(category_);
        e.contextWord = context_;

        // The site number counts the arguments; an event logged with fewer
        // ends where a token follows.
        const unsigned count = countKnown ? e.siteNumber : 0xFFFF;
        for (unsigned i = 0; i < count && pos_ < size_ && isArgumentType(data_[pos_]); ++i)
            e.arguments.push_back(readArgument());
        out_.events.push_back(std::move(e));
    }

    void setLogger(uint16_t index) {
        haveLogger_ = true;
        logger_ = index;
        auto it = loggers_.find(index);
        loggerName_ = it == loggers_.end() ? kError : it->second;
    }

    DecodedArgument readArgument() {
        DecodedArgument a;
        a.type = read8();
        switch (a.type) {
        case ARG_FLOAT:
            if (floatSize_ == 4) {
                append(a.data, std::bit_cast<float>(readInt<uint32_t>()));
            } else {
                append(a.data, static_cast<float>(std::bit_cast<double>(readInt<uint64_t>())));
            }
            break;
        case ARG_INT16:
        case ARG_UINT16:
            append(a.data, readInt<uint16_t>());
            break;
        case ARG_INT32:
        case ARG_UINT32:
            append(a.data, readInt<uint32_t>());
            break;
        case ARG_INT64:
        case ARG_UINT64:
            append(a.data, readInt<uint64_t>());
            break;
        case ARG_POINTER:
            append(a.data, pointerSize_ == 4 ? uint64_t{readInt<uint32_t>()} : readInt<uint64_t>());
            break;
        case ARG_TIME: {
            const uint32_t seconds = readInt<uint32_t>();
            append(a.data, seconds);
            append(a.data, readInt<uint32_t>());
            break;
        }
        case ARG_RAW: {
            const uint32_t length = readInt<uint32_t>();
            need(length);
            append(a.data, length);
            a.data.append(reinterpret_cast<const char*>(data_ + pos_), length);
            pos_ += length;
            break;
        }
        case ARG_STRING:
            a.data = readText();
            a.data.push_back('\0');
            break;
        case ARG_WSTRING:
            for (;;) {
                const uint16_t unit = readInt<uint16_t>();
                append(a.data, unit);
                if (unit == 0) break;
            }
            break;
        }
        return a;
    }

    const unsigned char* data_;
    size_t size_;
    const char* name_;
    size_t origin_;
    DecodeResult& out_;
    size_t pos_ = 0;
    bool swap_ = false;
    uint8_t pointerSize_ = 8;
    uint8_t floatSize_ = 4;

    // Definitions of this stream.
    std::unordered_map<uint32_t, Thread> threads_;
    const Thread* thread_ = nullptr;
    std::vector<std::string> strings_;
    std::unordered_map<uint32_t, Site> sites_;
    std::unordered_map<uint16_t, std::string> loggers_;

    // State carried from event to event.
    bool haveLogger_ = false;
    uint16_t logger_ = 0;
    std::string loggerName_;
    uint8_t category_ = 0;
    uint64_t context_ = 0;
};

void appendUtf8(std::string& out, uint32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

template <class T>
T load(const std::string& data) {
    T value{};
    std::memcpy(&value, data.data(), std::min(sizeof value, data.size()));
    return value;
}

// A float argument read as an integer: truncated toward zero, saturated at
// the integer's limits, NaN as 0. A plain cast of 1e30 is undefined.
int64_t floatToInt(float f) {
    if (!(f == f)) return 0;
    if (f >= 0x1p63f) return INT64_MAX;
    if (f < -0x1p63f) return INT64_MIN;
    return static_cast<int64_t>(f);
}

uint64_t floatToUInt(float f) {
    if (f >= 0x1p64f) return UINT64_MAX;
    if (f >= 0x1p63f) return static_cast<uint64_t>(f);
    return static_cast<uint64_t>(floatToInt(f));
}

}  // namespace

int64_t DecodedArgument::asInt() const {
    switch (type) {
    case ARG_INT16:
        return load<int16_t>(data);
    case ARG_UINT16:
        return load<uint16_t>(data);
    case ARG_INT32:
        return load<int32_t>(data);
    case ARG_UINT32:
    case ARG_TIME:
        return load<uint32_t>(data);
    case ARG_INT64:
    case ARG_UINT64:
    case ARG_POINTER:
        return load<int64_t>(data);
    case ARG_FLOAT:
        return floatToInt(load<float>(data));
    default:
        return 0;
    }
}

uint64_t DecodedArgument::asUInt() const {
    switch (type) {
    case ARG_INT16:
    case ARG_INT32:
        return static_cast<uint64_t>(asInt());
    case ARG_FLOAT:
        return floatToUInt(load<float>(data));
    default:
        return type == ARG_UINT64 || type == ARG_POINTER ? load<uint64_t>(data) : static_cast<uint64_t>(asInt());
    }
}

double DecodedArgument::asDouble() const {
    if (type == ARG_FLOAT) return load<float>(data);
    if (type == ARG_UINT64 || type == ARG_POINTER) return static_cast<double>(asUInt());
    return static_cast<double>(asInt());
}

std::string_view DecodedArgument::bytes() const {
    std::string_view all(data);
    switch (type) {
    case ARG_STRING:
        return all.substr(0, all.empty() ? 0 : all.size() - 1);
    case ARG_WSTRING:
        return all.substr(0, all.size() < 2 ? 0 : all.size() - 2);
    case ARG_RAW:
        return all.size() < 4 ? std::string_view() : all.substr(4);
    default:
        return all;
    }
}

std::string DecodedArgument::toString() const {
    char buffer[64];
    switch (type) {
    case ARG_INT16:
    case ARG_INT32:
    case ARG_INT64:
        snprintf(buffer, sizeof buffer, "%" PRId64, asInt());
        return buffer;
    case ARG_UINT16:
    case ARG_UINT32:
    case ARG_UINT64:
        snprintf(buffer, sizeof buffer, "%" PRIu64, asUInt());
        return buffer;
    case ARG_POINTER:
        snprintf(buffer, sizeof buffer, "0x%016" PRIx64, asUInt());
        return buffer;
    case ARG_FLOAT:
        snprintf(buffer, sizeof buffer, "%g", asDouble());
        return buffer;
    case ARG_TIME:
        snprintf(buffer, sizeof buffer, "%u.%06u", load<uint32_t>(data),
                 data.size() >= 8 ? load<uint32_t>(data.substr(4)) : 0u);
        return buffer;
    case ARG_STRING:
        return std::string(bytes());
    case ARG_WSTRING: {
        std::string out;
        const std::string_view units = bytes();
        for (size_t i = 0; i + 1 < units.size(); i += 2) {
            uint16_t unit;
            std::memcpy(&unit, units.data() + i, 2);
            uint32_t c = unit;
            if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < units.size()) {
                uint16_t low;
                std::memcpy(&low, units.data() + i + 2, 2);
                if (low >= 0xDC00 && low < 0xE000) {
                    c = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                    i += 2;
                }
            }
            appendUtf8(out, c);
        }
        return out;
    }
    case ARG_RAW: {
        std::string out;
        for (unsigned char c : bytes()) {
            snprintf(buffer, sizeof buffer, "%02x", c);
            out += buffer;
        }
        return out;
    }
    default:
        return "###";
    }
}

DecodeResult decodeStream(const void* data, size_t size, const char* name) {
    DecodeResult result;
    StreamDecoder decoder(static_cast<const unsigned char*>(data), size, name, 0, result);
    result.consumed = decoder.decode(0);
    return result;
}

DecodeResult decodeStreams(const void* data, size_t size, const char* name, size_t origin) {
    DecodeResult result;
    const auto* bytes = static_cast<const unsigned char*>(data);
    size_t position = 0;
    while (position < size) {
        StreamDecoder decoder(bytes, size, name, origin, result);
        const size_t end = decoder.decode(position);
        if (end == 0) break;
        position = end;
    }
    result.consumed = position;
    return result;
}

DecodeResult decodeFile(const char* path) {
    std::string content;
    FILE* file = fopen(path, "rb");
    if (file) {
        char buffer[65536];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) content.append(buffer, n);
        const bool failed = ferror(file);
        fclose(file);
        if (!failed) return decodeStreams(content.data(), content.size(), path);
    }
    const int error = errno;
    DecodeResult result;
    char text[256];
    result.errors.push_back(format("Failed to read '%s', error %d - %s\n", path, error,
                                   strerror_r(error, text, sizeof text)));
    return result;
}

std::string decodedCategoryName(unsigned char category) {
    CategoryTable& table = categoryTable();
    std::lock_guard<std::mutex> lock(table.mutex);
    return table.names[category];
}

void toLoggingEvent(const DecodedEvent& decoded, LocationRecord& site, LoggingEvent& event) {
    const size_t count = std::min<size_t>(decoded.arguments.size(), LoggingEvent::kMaxArguments);
    site.format = decoded.format.c_str();
    site.module = decoded.module.c_str();
    site.method = decoded.method.c_str();
    site.line = decoded.line;
    site.argumentCount = decoded.siteNumber;
    site.plan = nullptr;  // the decoded texts are read anew for each event
    event.argumentCount = static_cast<unsigned short>(count);
    for (size_t i = 0; i < count; ++i) {
        event.argumentTypes[i] = decoded.arguments[i].type;
        event.argumentValues[i] = decoded.arguments[i].data.data();
    }
    EventAttributes& a = event.attributes;
    a.location = &site;
    a.time.tv_sec = static_cast<uint32_t>(decoded.contextWord >> 32);
    a.time.tv_usec = static_cast<uint32_t>(decoded.contextWord);
    a.sequence = decoded.eventWord;
    a.threadNumber = decoded.threadId;
    a.loggerIndex = decoded.loggerIndex;
    a.level = decoded.category;
    a.locationKey = decoded.siteId;
    event.bufferBase = nullptr;
    event.bufferOffset = 0;
    event.bufferLength = 0;
}

void formatDecodedEvent(PatternLayout& layout, const DecodedEvent& event, std::string& out) {
    LocationRecord site;
    LoggingEvent replayed;
    toLoggingEvent(event, site, replayed);
    layout.formatReplayed(&replayed, event.loggerName.c_str(), event.threadName.c_str(), out);
}

std::string renderDecodedEvent(const DecodedEvent& event) {
    std::string line = event.threadName;
    line += ' ';
    line += event.loggerName;
    line += ' ';
    line += event.categoryName;
    line += ' ';
    line += event.format;
    for (const DecodedArgument& a : event.arguments) {
        line += " | ";
        line += a.toString();
    }
    return line;
}

}  // namespace zvs::zvlib::zvlog
