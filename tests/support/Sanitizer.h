// What an instrumented build (ZVLOG_SANITIZE, .ci/sanitize) changes for a
// test: a test whose measurement the sanitizer's own memory or threads would
// falsify leaves that measurement out there, and says so in its output.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>

namespace zvtest {

// The sanitizer this program runs under, or null.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr const char* kSanitizer = "AddressSanitizer";
#elif defined(__SANITIZE_THREAD__)
inline constexpr const char* kSanitizer = "ThreadSanitizer";
#elif defined(ZVLOG_UNDER_SANITIZER)
inline constexpr const char* kSanitizer = "UndefinedBehaviorSanitizer";
#else
inline constexpr const char* kSanitizer = nullptr;
#endif

// Resident sizes mean nothing under AddressSanitizer (freed memory waits in
// its quarantine) nor ThreadSanitizer (its shadow memory grows with every
// page the program touches).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kResidentSizeMeaningful = false;
#else
inline constexpr bool kResidentSizeMeaningful = true;
#endif

// Prints why a part of a test is left out under this sanitizer; the test's
// other checks still run.
inline void noteLeftOut(const char* what, const char* why) {
    std::printf("[ SANITIZER] %s left out under %s: %s\n", what, kSanitizer ? kSanitizer : "no sanitizer", why);
}

}  // namespace zvtest

// Skips the whole test under any sanitizer, with the reason.
#define ZVTEST_SKIP_UNDER_SANITIZER(reason)                                       \
    do {                                                                          \
        if (::zvtest::kSanitizer) GTEST_SKIP() << "under " << ::zvtest::kSanitizer << ": " << (reason); \
    } while (0)

// Skips the whole test under ThreadSanitizer only, with the reason.
#if defined(__SANITIZE_THREAD__)
#define ZVTEST_SKIP_UNDER_THREAD_SANITIZER(reason) GTEST_SKIP() << "under ThreadSanitizer: " << (reason)
#else
#define ZVTEST_SKIP_UNDER_THREAD_SANITIZER(reason) static_cast<void>(0)
#endif
