// Export macro and small compiler helpers shared by every public header.
#pragma once

#define ZVLOG_API __attribute__((visibility("default")))

#define ZVLOG_LIKELY(x) __builtin_expect(!!(x), 1)
#define ZVLOG_UNLIKELY(x) __builtin_expect(!!(x), 0)
