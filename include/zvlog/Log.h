// The call site of a logging call.
//
//   ZVLOG_INFO(logger, "copied %d rows of %s", rows, tableName);
//
// A disabled call costs one byte load and one compare: the arguments are not
// evaluated and no function is called. An enabled call finds its location
// record once and caches it in a static of its own. Argument types map to the
// event's type codes at compile time, and a format whose conversions do not
// match the number of arguments does not compile. errno is the same after the
// call as before it.
#pragma once

#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <type_traits>

#include "zvlog/Export.h"
#include "zvlog/FormatScan.h"
#include "zvlog/Level.h"
#include "zvlog/Logger.h"
#include "zvlog/LoggingEvent.h"

namespace zvs::zvlib::zvlog {

// An argument logged as raw bytes (type "r"), printed as a hexadecimal dump.
struct RawBytes {
    const void* data;
    unsigned int length;
};

namespace detail {

// One argument as the call site hands it over: fixed-size values inline,
// texts and byte ranges by pointer and length.
struct ArgRef {
    unsigned char type;
    unsigned int length;
    union {
        const void* ptr;
        float f32;
        int16_t i16;
        uint16_t u16;
        int32_t i32;
        uint32_t u32;
        int64_t i64;
        uint64_t u64;
        timeval32_t time;
    };
};

template <class>
inline constexpr bool kUnsupportedArgument = false;

template <class T>
inline ArgRef makeArg(const T& v) {
    using D = std::remove_cvref_t<T>;
    ArgRef a{};
    if constexpr (std::is_same_v<D, bool>) {
        a.type = ARG_INT32, a.length = 4, a.i32 = v ? 1 : 0;
    } else if constexpr (std::is_enum_v<D>) {
        return makeArg(static_cast<std::underlying_type_t<D>>(v));
    } else if constexpr (std::is_integral_v<D>) {
        if constexpr (sizeof(D) <= 2 && std::is_signed_v<D>)
            a.type = sizeof(D) == 2 ? ARG_INT16 : ARG_INT32, a.length = sizeof(D) == 2 ? 2 : 4,
            (sizeof(D) == 2 ? (void)(a.i16 = v) : (void)(a.i32 = v));
        else if constexpr (sizeof(D) <= 2)
            a.type = sizeof(D) == 2 ? ARG_UINT16 : ARG_UINT32, a.length = sizeof(D) == 2 ? 2 : 4,
            (sizeof(D) == 2 ? (void)(a.u16 = v) : (void)(a.u32 = v));
        else if constexpr (sizeof(D) == 4 && std::is_signed_v<D>)
            a.type = ARG_INT32, a.length = 4, a.i32 = v;
        else if constexpr (sizeof(D) == 4)
            a.type = ARG_UINT32, a.length = 4, a.u32 = v;
        else if constexpr (std::is_signed_v<D>)
            a.type = ARG_INT64, a.length = 8, a.i64 = v;
        else
            a.type = ARG_UINT64, a.length = 8, a.u64 = v;
    } else if constexpr (std::is_floating_point_v<D>) {
        a.type = ARG_FLOAT, a.length = 4, a.f32 = static_cast<float>(v);
    } else if constexpr (std::is_array_v<D> && std::is_same_v<std::remove_cv_t<std::remove_extent_t<D>>, char>) {
        a.type = ARG_STRING, a.ptr = v, a.length = static_cast<unsigned int>(std::strlen(v));
    } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
        const char* s = v ? static_cast<const char*>(v) : "(null)";
        a.type = ARG_STRING, a.ptr = s, a.length = static_cast<unsigned int>(std::strlen(s));
    } else if constexpr (std::is_same_v<D, std::string> || std::is_same_v<D, std::string_view>) {
        a.type = ARG_STRING, a.ptr = v.data(), a.length = static_cast<unsigned int>(v.size());
    } else if constexpr (std::is_same_v<std::decay_t<D>, const char16_t*> || std::is_same_v<std::decay_t<D>, char16_t*>) {
        const char16_t* s = static_cast<const char16_t*>(v);
        if (!s) s = u"(null)";
        size_t n = 0;
        while (s[n]) ++n;
        a.type = ARG_WSTRING, a.ptr = s, a.length = static_cast<unsigned int>(n * 2);
    } else if constexpr (std::is_same_v<D, std::u16string> || std::is_same_v<D, std::u16string_view>) {
        a.type = ARG_WSTRING, a.ptr = v.data(), a.length = static_cast<unsigned int>(v.size() * 2);
    } else if constexpr (std::is_same_v<D, timeval32_t>) {
        a.type = ARG_TIME, a.length = 8, a.time = v;
    } else if constexpr (std::is_same_v<D, std::timespec>) {
        a.type = ARG_TIME, a.length = 8,
        a.time = timeval32_t{static_cast<uint32_t>(v.tv_sec), static_cast<uint32_t>(v.tv_nsec / 1000)};
    } else if constexpr (std::is_same_v<D, RawBytes>) {
        a.type = ARG_RAW, a.ptr = v.data, a.length = v.length;
    } else if constexpr (std::is_pointer_v<std::decay_t<D>> || std::is_null_pointer_v<D>) {
        a.type = ARG_POINTER, a.length = 8, a.u64 = reinterpret_cast<uint64_t>(static_cast<const void*>(v));
    } else {
        static_assert(kUnsupportedArgument<D>, "zvlog: this argument type cannot be logged");
    }
    return a;
}

void the_format_does_not_match_the_number_of_arguments();  // never defined

// A compile-time format string checked against the argument count.
template <class... Args>
struct FormatString {
    const char* text;
    consteval FormatString(const char* s) : text(s) {
        if (countConversions(s) != sizeof...(Args)) the_format_does_not_match_the_number_of_arguments();
    }
};

// The out-of-line part of an enabled call.
ZVLOG_API void logEvent(Logger* logger, unsigned char level, CallSite& site, const char* format,
                        const ArgRef* args, unsigned short count);

template <class... Args>
inline void log(Logger* logger, unsigned char level, CallSite& site,
                FormatString<std::type_identity_t<Args>...> format, const Args&... args) {
    static_assert(sizeof...(Args) <= LoggingEvent::kMaxArguments, "zvlog: too many arguments for one event");
    if constexpr (sizeof...(Args) == 0) {
        logEvent(logger, level, site, format.text, nullptr, 0);
    } else {
        const ArgRef refs[] = {makeArg(args)...};
        logEvent(logger, level, site, format.text, refs, sizeof...(Args));
    }
}

}  // namespace detail
}  // namespace zvs::zvlib::zvlog

#define ZVLOG_DETAIL_LOG(enabledTest, loggerExpr, levelVar, module, method, line, ...)                  \
    do {                                                                                                \
        if (ZVLOG_UNLIKELY(enabledTest)) {                                                              \
            static ::zvs::zvlib::zvlog::CallSite zvlogSite_(module, method, line);                      \
            ::zvs::zvlib::zvlog::detail::log(loggerExpr, levelVar, zvlogSite_, __VA_ARGS__);            \
        }                                                                                               \
    } while (0)

// Logs on a Logger* at a level byte.
#define ZVLOG_LOG(logger, level, ...)                                                                   \
    do {                                                                                                \
        ::zvs::zvlib::zvlog::Logger* const zvlogLogger_ = (logger);                                     \
        const unsigned char zvlogLevel_ = static_cast<unsigned char>(level);                            \
        ZVLOG_DETAIL_LOG(zvlogLogger_->isEnabledFor(zvlogLevel_), zvlogLogger_, zvlogLevel_, __FILE__,  \
                         __func__, __LINE__, __VA_ARGS__);                                              \
    } while (0)

// Logs with a location of the caller's choosing (literal module and method).
#define ZVLOG_LOG_AT(logger, level, module, method, line, ...)                                          \
    do {                                                                                                \
        ::zvs::zvlib::zvlog::Logger* const zvlogLogger_ = (logger);                                     \
        const unsigned char zvlogLevel_ = static_cast<unsigned char>(level);                            \
        ZVLOG_DETAIL_LOG(zvlogLogger_->isEnabledFor(zvlogLevel_), zvlogLogger_, zvlogLevel_, module,    \
                         method, line, __VA_ARGS__);                                                    \
    } while (0)

#define ZVLOG_DATA(logger, ...) ZVLOG_LOG(logger, ::zvs::zvlib::zvlog::LEVEL_DATA, __VA_ARGS__)
#define ZVLOG_DEBUG(logger, ...) ZVLOG_LOG(logger, ::zvs::zvlib::zvlog::LEVEL_DEBUG, __VA_ARGS__)
#define ZVLOG_INFO(logger, ...) ZVLOG_LOG(logger, ::zvs::zvlib::zvlog::LEVEL_INFO, __VA_ARGS__)
#define ZVLOG_WARN(logger, ...) ZVLOG_LOG(logger, ::zvs::zvlib::zvlog::LEVEL_WARN, __VA_ARGS__)
#define ZVLOG_ERROR(logger, ...) ZVLOG_LOG(logger, ::zvs::zvlib::zvlog::LEVEL_ERROR, __VA_ARGS__)
#define ZVLOG_FATAL(logger, ...) ZVLOG_LOG(logger, ::zvs::zvlib::zvlog::LEVEL_FATAL, __VA_ARGS__)

// Logs on one of the six standard loggers, testing its exported byte:
//   ZVLOG_STD(utility, LEVEL_INFO, "started %s", name);
#define ZVLOG_STD(name, level, ...)                                                                     \
    do {                                                                                                \
        const unsigned char zvlogLevel_ = static_cast<unsigned char>(level);                            \
        ZVLOG_DETAIL_LOG(zvlogLevel_ >= ::zvs::zvlib::zvlog::detail::loadLevelByte(                     \
                             zvlog_std_##name##_effective_level),                                       \
                         zvlog_std_##name,                                                              \
                         zvlogLevel_, __FILE__, __func__, __LINE__, __VA_ARGS__);                       \
    } while (0)
