#include "zvlog/buffer/LogBufferImpl.h"

#include <atomic>
#include <cerrno>
#include <bit>
#include <type_traits>
#include <cstring>

#include "zvlog/Level.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/buffer/CrashRecorder.h"
#include "zvlog/core/CallSites.h"
#include "zvlog/core/Clock.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/Fatal.h"

namespace zvs::zvlib::zvlog {

using namespace binary;

// The stream is written in the machine's order and declared little-endian.
static_assert(std::endian::native == std::endian::little, "the event buffer writes little-endian streams");

namespace {

constexpr char kNoText[] = "";
const LocationRecord kNoLocation{kNoText, kNoText, kNoText, 0, 0};

// Texts in tokens are capped so that a full event header and a thread
// context always fit in a fresh block.
constexpr size_t kMaxTokenText = 65535;
// The '>' that closes a block always has its byte.
constexpr unsigned kEndReserve = 1;

constexpr unsigned kSiteBits = 11;  // 2048 slots
constexpr unsigned kSiteSlots = 1u << kSiteBits;
constexpr unsigned kStringBits = 12;  // 4096 slots
constexpr unsigned kStringSlots = 1u << kStringBits;
// Tables stop taking entries at three quarters; later entries are simply
// described again, which the format allows.
constexpr unsigned kSiteLimit = kSiteSlots / 4 * 3;
constexpr unsigned kStringLimit = kStringSlots / 4 * 3;

inline size_t textLength(const char* text) { return strnlen(text, kMaxTokenText); }

template <class T>
inline void put(unsigned char*& p, T value) {
    std::memcpy(p, &value, sizeof value);
    p += sizeof value;
}

inline void putText(unsigned char*& p, const char* text, size_t length) {
    std::memcpy(p, text, length);
    p += length;
    *p++ = 0;
}

// Short texts are the common case: copy them without a library call, in
// overlapping words that stay within the source.
inline void copyBytes(unsigned char* to, const void* from, size_t n) {
    const auto* f = static_cast<const unsigned char*>(from);
    if (n >= 8 && n <= 16) {
        uint64_t head, tail;
        std::memcpy(&head, f, 8);
        std::memcpy(&tail, f + n - 8, 8);
        std::memcpy(to, &head, 8);
        std::memcpy(to + n - 8, &tail, 8);
    } else if (n >= 4 && n < 8) {
        uint32_t head, tail;
        std::memcpy(&head, f, 4);
        std::memcpy(&tail, f + n - 4, 4);
        std::memcpy(to, &head, 4);
        std::memcpy(to + n - 4, &tail, 4);
    } else if (n < 4) {
        for (size_t i = 0; i < n; ++i) to[i] = f[i];
    } else {
        std::memcpy(to, f, n);
    }
}

inline bool testBit(const uint64_t* bits, unsigned index) { return (bits[index >> 6] >> (index & 63)) & 1; }
inline void setBit(uint64_t* bits, unsigned index) { bits[index >> 6] |= uint64_t{1} << (index & 63); }

}  // namespace

struct LogBufferImpl::State {
    struct SiteSlot {
        uint32_t key;
        uint32_t generation;
    };
    struct StringSlot {
        const char* text;
        uint32_t generation;
        uint16_t index;
    };

    const ThreadRecord* thread;

    // The event being written.
    const LocationRecord* site = &kNoLocation;
    uint32_t siteId = 0;
    uint32_t eventWord = 0;
    uint64_t context = 0;
    uint16_t logger = 0;
    uint8_t category = 0;
    unsigned short expected = 0;  // arguments still to come
    bool locked = false;

    // The previous event of the block (nothing before the first one).
    bool haveLast = false;
    uint32_t lastSiteId = 0;
    uint16_t lastLogger = 0;
    uint8_t lastCategory = 0;
    uint64_t lastContext = 0;

    unsigned firstEventPosition = 0;  // after the block's "b" token

    // Per-block definitions. Slots are live only when they carry the current
    // generation, so starting a block does not clear the hash tables.
    uint32_t generation = 0;
    unsigned siteCount = 0;
    unsigned stringCount = 0;
    unsigned nextStringIndex = 0;
    SiteSlot sites[kSiteSlots];
    StringSlot strings[kStringSlots];
    uint64_t loggersDefined[65536 / 64];
    uint64_t categoriesDefined[256 / 64];

    explicit State(const ThreadRecord* t) : thread(t) {
        std::memset(sites, 0, sizeof sites);
        std::memset(strings, 0, sizeof strings);
    }

    void resetTables() {
        if (++generation == 0) {  // wrapped: clear for real once
            std::memset(sites, 0, sizeof sites);
            std::memset(strings, 0, sizeof strings);
            generation = 1;
        }
        siteCount = stringCount = nextStringIndex = 0;
        std::memset(loggersDefined, 0, sizeof loggersDefined);
        std::memset(categoriesDefined, 0, sizeof categoriesDefined);
        haveLast = false;
    }

    static unsigned siteHash(uint32_t key) { return (key * 0x9E3779B1u) >> (32 - kSiteBits); }
    static unsigned stringHash(const char* text) {
        return static_cast<unsigned>((reinterpret_cast<uintptr_t>(text) * 0x9E3779B97F4A7C15ull) >>
                                     (64 - kStringBits));
    }

    bool siteKnown(uint32_t key) const {
        for (unsigned i = siteHash(key);; i = (i + 1) & (kSiteSlots - 1)) {
            const SiteSlot& slot = sites[i];
            if (slot.generation != generation) return false;
            if (slot.key == key) return true;
        }
    }
    void addSite(uint32_t key) {
        if (siteCount >= kSiteLimit) return;
        unsigned i = siteHash(key);
        while (sites[i].generation == generation) i = (i + 1) & (kSiteSlots - 1);
        sites[i] = {key, generation};
        ++siteCount;
    }

    // The string's index in this block, or -1.
    int stringIndex(const char* text) const {
        for (unsigned i = stringHash(text);; i = (i + 1) & (kStringSlots - 1)) {
            const StringSlot& slot = strings[i];
            if (slot.generation != generation) return -1;
            if (slot.text == text) return slot.index;
        }
    }
    // Defines the next index for the text ("s" always takes one).
    void defineString(const char* text) {
        const unsigned index = nextStringIndex++;
        if (stringCount >= kStringLimit || index > 0xFFFF) return;
        unsigned i = stringHash(text);
        while (strings[i].generation == generation) i = (i + 1) & (kStringSlots - 1);
        strings[i] = {text, generation, static_cast<uint16_t>(index)};
        ++stringCount;
    }

    size_t stringTokenSize(const char* text, size_t length) const {
        return stringIndex(text) >= 0 ? 3 : length + 2;
    }
    void putString(unsigned char*& p, const char* text, size_t length) {
        const int index = stringIndex(text);
        if (index >= 0) {
            *p++ = kStringUse;
            put<uint16_t>(p, static_cast<uint16_t>(index));
        } else {
            *p++ = kStringDefine;
            putText(p, text, length);
            defineString(text);
        }
    }
};

namespace {

const char* siteText(const char* text) { return text ? text : kNoText; }

const char* loggerName(uint16_t index) {
    LoggerRepository* repository = Logger::getRepository();
    const char* name = repository ? repository->getLoggerName(index) : nullptr;
    return name ? name : kNoText;
}

const char* categoryName(uint8_t category) {
    const char* name = getLevelName(category);
    return name ? name : kNoText;
}

}  // namespace

LogBufferImpl::LogBufferImpl(const ThreadRecord* thread) : state_(new State(thread)) {}

LogBufferImpl::~LogBufferImpl() {
    closeBlock();
    delete state_;
}

unsigned int LogBufferImpl::remaining() const { return base_ ? kBlockSize - kEndReserve - position_ : 0; }

bool LogBufferImpl::eventPending() const { return state_->expected != 0; }

void LogBufferImpl::flush() {
    if (base_ && headOf(base_)->eventCount > 0) closeBlock();
}

void LogBufferImpl::startBlock() {
    State& s = *state_;
    // A thread that logs gets its alternate signal stack here, on its first
    // block after the crash recorder is switched on.
    prepareThreadForCrashes();
    base_ = acquireBlock();
    unsigned char* p = streamOf(base_);
    const unsigned char header[kStreamHeaderSize] = {kMagic, kVersion, kLittleEndian, kPointerSize, kFloatSize, 1};
    std::memcpy(p, header, sizeof header);
    p += sizeof header;

    const ThreadRecord* t = s.thread;
    const char* name = t ? t->name.c_str() : kNoText;
    *p++ = kThreadDefine;
    put<uint32_t>(p, t ? t->number : 0);
    put<uint64_t>(p, t ? t->osThreadId : 0);
    putText(p, name, textLength(name));

    position_ = static_cast<unsigned>(p - base_);
    eventStart_ = argumentsStart_ = s.firstEventPosition = position_;
    s.resetTables();
}

void LogBufferImpl::finishBlock(unsigned char* block) {
    if (headOf(block)->eventCount > 0)
        blockClosed(block);
    else
        releaseBlock(block);
}

// Ends the block with its '>' and its length; the buffer has no block then.
unsigned char* LogBufferImpl::sealBlock() {
    unsigned char* block = base_;
    block[position_] = kEnd;
    headOf(block)->dataLength = position_ + 1 - kBlockHeadSize;
    base_ = nullptr;
    position_ = eventStart_ = argumentsStart_ = 0;
    return block;
}

void LogBufferImpl::closeBlock() {
    if (base_) finishBlock(sealBlock());
}

unsigned char* LogBufferImpl::detachBlock() {
    if (!base_ || headOf(base_)->eventCount == 0 || eventPending()) return nullptr;
    return sealBlock();
}

void LogBufferImpl::handOn(unsigned char* block) { finishBlock(block); }

bool LogBufferImpl::crashView(bool settled, const unsigned char*& stream, uint32_t& length) const {
    auto load = [](const auto& field) {
        using T = std::remove_cvref_t<decltype(field)>;
        return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_acquire);
    };
    const unsigned char* base = load(base_);
    if (base == nullptr) return false;
    unsigned end;
    if (settled) {
        end = eventPending() ? eventStart_ : position_;
    } else {
        end = load(eventStart_);
        if (load(base_) != base) return false;
    }
    if (end <= load(state_->firstEventPosition) || end >= kBlockSize || base[kBlockHeadSize] != kMagic) return false;
    stream = base + kBlockHeadSize;
    length = end - kBlockHeadSize;
    return true;
}

// The bytes a fresh block needs for its thread context and the current
// event's header described in full. May overestimate, never underestimate.
size_t LogBufferImpl::freshBlockHeadSize() const {
    const State& s = *state_;
    const char* threadName = s.thread ? s.thread->name.c_str() : kNoText;
    size_t size = kBlockHeadSize + kStreamHeaderSize + 14 + textLength(threadName);
    size += 11 + textLength(siteText(s.site->format)) + 2 + textLength(siteText(s.site->module)) + 2 +
            textLength(siteText(s.site->method)) + 2;
    size += 3 + 3 + textLength(categoryName(s.category)) + textLength(loggerName(s.logger)) + 1;
    size += 9;
    return size;
}

bool LogBufferImpl::writeEventHeader() {
    State& s = *state_;
    const bool loggerChanged = !s.haveLast || s.logger != s.lastLogger;
    const bool categoryChanged = !s.haveLast || s.category != s.lastCategory;
    const bool contextChanged = !s.haveLast || s.context != s.lastContext;
    const bool siteKnown = s.siteKnown(s.siteId);
    const bool loggerKnown = testBit(s.loggersDefined, s.logger);
    const bool categoryKnown = testBit(s.categoriesDefined, s.category);

    unsigned char* p = base_ + position_;
    const size_t room = kBlockSize - kEndReserve - position_;

    if (ZVLOG_LIKELY(siteKnown && (loggerKnown || !loggerChanged) && categoryKnown && room >= 32)) {
        // The steady state: everything is already described in this block.
        *p++ = kEventUse;
        put<uint32_t>(p, s.siteId);
        put<uint32_t>(p, s.eventWord);
        if (loggerChanged) {
            *p++ = kLoggerUse;
            put<uint16_t>(p, s.logger);
        }
        if (categoryChanged) {
            *p++ = kCategoryUse;
            *p++ = s.category;
        }
    } else {
        const char* format = siteText(s.site->format);
        const char* module = siteText(s.site->module);
        const char* method = siteText(s.site->method);
        size_t formatLength = 0, moduleLength = 0, methodLength = 0;
        size_t need = 9;
        if (!siteKnown) {
            formatLength = textLength(format);
            moduleLength = textLength(module);
            methodLength = textLength(method);
            need += 2 + s.stringTokenSize(format, formatLength) + s.stringTokenSize(module, moduleLength) +
                    s.stringTokenSize(method, methodLength);
        }
        const char* category = nullptr;
        size_t categoryLength = 0;
        if (!categoryKnown) {
            category = categoryName(s.category);
            categoryLength = textLength(category);
        }
        const size_t categoryToken = categoryKnown ? 2 : 3 + categoryLength;
        const bool defineLogger = loggerChanged && !loggerKnown;
        const char* logger = nullptr;
        size_t loggerLength = 0;
        if (defineLogger) {
            logger = loggerName(s.logger);
            loggerLength = textLength(logger);
            need += 3 + categoryToken + loggerLength + 1;  // "d" carries the category
        } else {
            if (loggerChanged) need += 3;
            if (categoryChanged) need += categoryToken;
        }
        if (contextChanged) need += 9;
        if (need > room) return false;

        *p++ = siteKnown ? kEventUse : kEventDefine;
        put<uint32_t>(p, s.siteId);
        put<uint32_t>(p, s.eventWord);
        if (!siteKnown) {
            put<uint16_t>(p, s.site->argumentCount);
            s.putString(p, format, formatLength);
            s.putString(p, module, moduleLength);
            s.putString(p, method, methodLength);
            s.addSite(s.siteId);
        }
        auto putCategory = [&] {
            if (categoryKnown) {
                *p++ = kCategoryUse;
                *p++ = s.category;
            } else {
                *p++ = kCategoryDefine;
                *p++ = s.category;
                putText(p, category, categoryLength);
                setBit(s.categoriesDefined, s.category);
            }
        };
        if (defineLogger) {
            *p++ = kLoggerDefine;
            put<uint16_t>(p, s.logger);
            putCategory();
            putText(p, logger, loggerLength);
            setBit(s.loggersDefined, s.logger);
        } else {
            if (loggerChanged) {
                *p++ = kLoggerUse;
                put<uint16_t>(p, s.logger);
            }
            if (categoryChanged) putCategory();
        }
    }
    if (contextChanged) {
        *p++ = kContextWord;
        put<uint64_t>(p, s.context);
    }
    position_ = static_cast<unsigned>(p - base_);
    s.haveLast = true;
    s.lastSiteId = s.siteId;
    s.lastLogger = s.logger;
    s.lastCategory = s.category;
    s.lastContext = s.context;
    return true;
}

namespace {

[[gnu::noinline, gnu::cold]] void reportMisorderedEvent(unsigned int line) {
    detail::raiseMessage(1112, {"zvlog.std", "zvlog/LogBufferImpl", "zvs::zvlib::zvlog::LogBufferImpl::addEvent", line});
}

[[gnu::noinline, gnu::cold, noreturn]] void reportLockReentered() {
    zvFatalSystemError(36, "zvs::zvlib::zvlog::LogBufferImpl::addEvent");
}

}  // namespace

unsigned short LogBufferImpl::addEvent(const LoggingEvent* event) { return beginEvent(event); }

[[gnu::always_inline]] inline unsigned short LogBufferImpl::beginEvent(const LoggingEvent* event) {
    State& s = *state_;
    if (ZVLOG_UNLIKELY(s.expected != 0)) {
        reportMisorderedEvent(__LINE__);
        s.expected = 0;
    }
    // Only the owning thread takes this lock, so a flag is enough to see it
    // taken twice.
    if (ZVLOG_UNLIKELY(s.locked)) reportLockReentered();
    s.locked = true;

    // Compare the event's own fields, not their copies just stored: a wide
    // reload of narrow stores would stall on store forwarding.
    const EventAttributes& a = event->attributes;
    const LocationRecord* site = a.location ? a.location : &kNoLocation;
    const uint32_t siteId = a.locationKey;
    const uint32_t eventWord = a.sequence;
    const uint16_t logger = a.loggerIndex;
    const uint8_t category = a.level;
    const uint64_t context = (uint64_t{a.time.tv_sec} << 32) | a.time.tv_usec;
    s.site = site;
    s.siteId = siteId;
    s.eventWord = eventWord;
    s.logger = logger;
    s.category = category;
    s.context = context;

    if (ZVLOG_UNLIKELY(!base_)) startBlock();
    eventStart_ = position_;
    // The block's lines are written once each, mostly not in the cache any
    // more: fetch the line a few events ahead now, or the next locked
    // instruction (the logger's mutex) waits for this event's stores to miss.
    // A prefetch past the block's end is harmless.
    __builtin_prefetch(base_ + position_ + 512, 1, 3);
    // The steady state, inline: the site, logger and category are those of
    // the previous event of this block, at most the time moved on.
    if (ZVLOG_LIKELY(s.haveLast && siteId == s.lastSiteId && logger == s.lastLogger &&
                     category == s.lastCategory && position_ + 32 < kBlockSize)) {
        unsigned char* p = base_ + position_;
        *p++ = kEventUse;
        put<uint32_t>(p, siteId);
        put<uint32_t>(p, eventWord);
        if (context != s.lastContext) {
            *p++ = kContextWord;
            put<uint64_t>(p, context);
            s.lastContext = context;
        }
        position_ = static_cast<unsigned>(p - base_);
    } else if (ZVLOG_UNLIKELY(!writeEventHeader())) {
        closeBlock();
        startBlock();
        eventStart_ = position_;
        // Texts in tokens are capped, so a fresh block always has room.
        writeEventHeader();
    }
    ++headOf(base_)->eventCount;
    argumentsStart_ = position_;
    s.expected = site->argumentCount;
    s.locked = false;
    return site->argumentCount;
}

unsigned int LogBufferImpl::addArgument(unsigned char type, const void* data, unsigned int length) {
    State& s = *state_;
    if (ZVLOG_UNLIKELY(s.expected == 0 || !base_)) return position_;

    // Fixed-size values and short texts with room to spare, inline.
    unsigned char* const p = base_ + position_;
    const unsigned int room = kBlockSize - position_;
    unsigned int size = 0;
    switch (type) {
    case ARG_INT32:
    case ARG_UINT32:
    case ARG_FLOAT:
        if (ZVLOG_UNLIKELY(!data || room < 16)) break;
        std::memcpy(p + 1, data, 4);
        size = 5;
        break;
    case ARG_INT64:
    case ARG_UINT64:
    case ARG_POINTER:
    case ARG_TIME:
        if (ZVLOG_UNLIKELY(!data || room < 16)) break;
        std::memcpy(p + 1, data, 8);
        size = 9;
        break;
    case ARG_INT16:
    case ARG_UINT16:
        if (ZVLOG_UNLIKELY(!data || room < 16)) break;
        std::memcpy(p + 1, data, 2);
        size = 3;
        break;
    case ARG_STRING:
        if (ZVLOG_UNLIKELY(!data || length >= kMaxArgumentData || length + 8 >= room)) break;
        copyBytes(p + 1, data, length);
        p[1 + length] = 0;
        size = length + 2;
        break;
    default:
        break;
    }
    if (ZVLOG_LIKELY(size != 0)) {
        *p = type;
        position_ += size;
        --s.expected;
        return static_cast<unsigned>(p + 1 - base_);
    }
    return addArgumentSlow(type, data, length);
}

namespace {

inline const void* argumentData(const detail::ArgRef& a) {
    switch (a.type) {
    case ARG_STRING:
    case ARG_WSTRING:
    case ARG_RAW:
        return a.ptr;
    default:
        return &a.ptr;  // fixed-size values live inline
    }
}

// Bytes the fast pass writes for a fixed-size argument (type byte included),
// by type code; 0 for the types that go addArgument's way.
struct FixedSizes {
    unsigned char bytes[256] = {};
    constexpr FixedSizes() {
        bytes[ARG_INT16] = bytes[ARG_UINT16] = 3;
        bytes[ARG_INT32] = bytes[ARG_UINT32] = bytes[ARG_FLOAT] = 5;
        bytes[ARG_INT64] = bytes[ARG_UINT64] = bytes[ARG_POINTER] = bytes[ARG_TIME] = 9;
    }
};
constexpr FixedSizes kFixedSizes;

}  // namespace

// One pass over the arguments. The block's room is checked once for the
// fixed-size values (at most 9 bytes each) and again for each text; nothing
// counts as written until the end, so an argument the pass cannot take sends
// the whole event to the careful path, which starts over at the same place.
void LogBufferImpl::addArguments(const detail::ArgRef* args, unsigned short count, LoggingEvent& event) {
    putArguments(args, count, event);
}

// Next to the logging call, which builds one for every event: here the
// compiler sees it.
EventAttributes::EventAttributes()
    : location(nullptr), time{0, 0}, sequence(0), threadNumber(0), loggerIndex(0), level(0), locationKey(0) {}

namespace detail {

// The out-of-line part of an enabled call. It lives here, with the event
// buffer, so that the event's encoding is inline in it.
void logEvent(Logger* logger, unsigned char level, CallSite& site, const char* format, const ArgRef* args,
              unsigned short count) {
    const int savedErrno = errno;
    ThreadRecord* thread = currentThreadRecord();
    if (ZVLOG_UNLIKELY(!thread || insideLogging(thread))) {  // logging from inside logging
        errno = savedErrno;
        return;
    }
    enterLogging(thread);
    thread->savedErrno = savedErrno;

    unsigned int key = site.key.load(std::memory_order_acquire);
    if (ZVLOG_UNLIKELY(key == 0)) key = registerCallSite(site, format, count);

    LoggingEvent event;
    EventAttributes& a = event.attributes;
    a.location = &site.record;
    const uint64_t now = libclock::readPacked();
    a.time.tv_sec = static_cast<uint32_t>(now >> 32);
    a.time.tv_usec = static_cast<uint32_t>(now);
    a.sequence = sequenceCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    a.threadNumber = thread->number;
    a.loggerIndex = logger->getIndex();
    a.level = level;
    a.locationKey = key;

    LogBufferImpl* buffer = threadBuffer(thread);
    buffer->beginEvent(&event);
    buffer->putArguments(args, count, event);
    event.bufferBase = buffer->blockBase();
    event.bufferOffset = buffer->eventOffset();
    event.bufferLength = buffer->writeOffset() - event.bufferOffset;

    logger->doAppend(&event);

    leaveLogging(thread);
    errno = savedErrno;
}

}  // namespace detail

[[gnu::always_inline]] inline void LogBufferImpl::putArguments(const detail::ArgRef* args, unsigned short count,
                                                               LoggingEvent& event) {
    State& s = *state_;
    event.argumentCount = count;
    // The same margin addArgument keeps after each argument.
    constexpr unsigned kMargin = 16;
    if (ZVLOG_LIKELY(base_ && count <= s.expected && count * 9u + kMargin < kBlockSize - position_)) {
        unsigned char* p = base_ + position_;
        unsigned room = kBlockSize - position_ - kMargin - count * 9u;  // for texts beyond 9 bytes each
        unsigned short i = 0;
        for (; i < count; ++i) {
            const detail::ArgRef a = args[i];  // a copy: the stores below cannot change it
            *p = a.type;
            event.argumentTypes[i] = a.type;
            event.argumentValues[i] = p + 1;
            if (a.type == ARG_STRING) {
                if (ZVLOG_UNLIKELY(!a.ptr || a.length >= kMaxArgumentData || a.length + 2 > room + 9)) break;
                room -= a.length + 2 > 9 ? a.length + 2 - 9 : 0;
                copyBytes(p + 1, a.ptr, a.length);
                p[1 + a.length] = 0;
                p += a.length + 2;
            } else {
                const unsigned size = kFixedSizes.bytes[a.type];
                if (ZVLOG_UNLIKELY(size == 0)) break;
                // Eight bytes whatever the width: the union was zeroed, and
                // what lies past the value is overwritten by what follows.
                std::memcpy(p + 1, &a.ptr, 8);
                p += size;
            }
        }
        if (ZVLOG_LIKELY(i == count)) {
            position_ = static_cast<unsigned>(p - base_);
            s.expected -= count;
            return;
        }
    }
    addArgumentsOneByOne(args, count, event);
}

void LogBufferImpl::addArgumentsOneByOne(const detail::ArgRef* args, unsigned short count, LoggingEvent& event) {
    // Argument positions relative to the event's first argument survive the
    // event moving to a fresh block when a later argument does not fit.
    unsigned int relative[LoggingEvent::kMaxArguments];
    for (unsigned short i = 0; i < count; ++i)
        relative[i] = addArgument(args[i].type, argumentData(args[i]), args[i].length) - argumentsStart_;
    const unsigned char* first = base_ + argumentsStart_;
    for (unsigned short i = 0; i < count; ++i) {
        event.argumentTypes[i] = args[i].type;
        event.argumentValues[i] = first + relative[i];
    }
}

// Every type, cut to its limit, and any argument that might not fit.
unsigned int LogBufferImpl::addArgumentSlow(unsigned char type, const void* data, unsigned int length) {
    State& s = *state_;
    unsigned int prefix = 0, terminator = 0;
    switch (type) {
    case ARG_STRING:
        if (length > kMaxArgumentData - 1) length = kMaxArgumentData - 1;
        terminator = 1;
        break;
    case ARG_WSTRING:
        if (length > kMaxArgumentData - 2) length = kMaxArgumentData - 2;
        terminator = 2;
        break;
    case ARG_RAW:
        if (length > kMaxArgumentData) length = kMaxArgumentData;
        prefix = 4;
        break;
    case ARG_INT16:
    case ARG_UINT16:
        length = 2;
        break;
    case ARG_FLOAT:
    case ARG_INT32:
    case ARG_UINT32:
        length = 4;
        break;
    case ARG_INT64:
    case ARG_UINT64:
    case ARG_POINTER:
    case ARG_TIME:
        length = 8;
        break;
    default:  // not a type the encoding knows: nothing a reader could skip
        --s.expected;
        return position_;
    }

    if (ZVLOG_UNLIKELY(1 + prefix + length + terminator + 5 >= kBlockSize - position_)) {
        if (eventStart_ != s.firstEventPosition) continueInNewBlock();
        const unsigned int room = kBlockSize - position_;
        if (1 + prefix + length + terminator + 5 >= room) {
            // The event alone outgrows a block (many arguments near their
            // limit): a text or byte range keeps what still fits.
            const unsigned int fixed = 1 + prefix + terminator + 5 + 1;
            if (terminator + prefix == 0 || room <= fixed) {
                --s.expected;
                return position_;
            }
            length = room - fixed;
            if (type == ARG_WSTRING) length &= ~1u;
        }
    }

    unsigned char* p = base_ + position_;
    *p++ = type;
    const unsigned int dataPosition = position_ + 1;
    if (prefix) put<uint32_t>(p, length);
    if (length) {
        if (data)
            std::memcpy(p, data, length);
        else
            std::memset(p, 0, length);
        p += length;
    }
    if (terminator) {
        *p++ = 0;
        if (terminator == 2) *p++ = 0;
    }
    position_ = static_cast<unsigned>(p - base_);
    --s.expected;
    return dataPosition;
}

// Every block must read alone, so an event never straddles two: the event
// moves whole into a fresh block (its header described in full, its
// arguments copied), and the old block ends where the event began.
void LogBufferImpl::continueInNewBlock() {
    const unsigned oldEventStart = eventStart_;
    const unsigned oldArgumentsStart = argumentsStart_;
    const unsigned argumentBytes = position_ - argumentsStart_;
    if (freshBlockHeadSize() + argumentBytes + 16 > kBlockSize) return;

    unsigned char* old = base_;
    startBlock();
    eventStart_ = position_;
    writeEventHeader();
    std::memcpy(base_ + position_, old + oldArgumentsStart, argumentBytes);
    argumentsStart_ = position_;
    position_ += argumentBytes;
    headOf(base_)->eventCount = 1;

    BlockHead* oldHead = headOf(old);
    --oldHead->eventCount;
    old[oldEventStart] = kEnd;
    oldHead->dataLength = oldEventStart + 1 - kBlockHeadSize;
    finishBlock(old);
}

}  // namespace zvs::zvlib::zvlog
