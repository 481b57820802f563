// The fatal system-error path.
#include "zvstd/Fatal.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace zvs::zvlib {

namespace {

std::atomic<void (*)(int)> exitFunction{nullptr};
std::atomic<bool> fatalInProgress{false};

// Straight to the descriptor: no stdio lock that the failing thread might
// hold, no buffer that exit() might not get to.
void writeAll(const char* text, size_t length) {
    while (length > 0) {
        ssize_t n = ::write(STDERR_FILENO, text, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        text += n;
        length -= static_cast<size_t>(n);
    }
}

}  // namespace

void zvFatalSystemError(unsigned int code, const char* function) {
    char line[1024];
    int length = snprintf(line, sizeof line, "Fatal system error %u in %s\n", code,
                          function ? function : "");
    if (length < 0) length = 0;
    if (static_cast<size_t>(length) >= sizeof line) {
        length = sizeof line - 1;
        line[length - 1] = '\n';
    }
    writeAll(line, static_cast<size_t>(length));

    // A second fatal error (another thread, the exit function, an exit
    // handler) must not run the exit sequence again.
    if (fatalInProgress.exchange(true)) _exit(1);

    if (void (*exitFn)(int) = exitFunction.load(std::memory_order_acquire)) exitFn(1);
    exit(1);
}

void zvSetExitFunction(void (*function)(int)) {
    exitFunction.store(function, std::memory_order_release);
}

ExitFunction zvGetExitFunction() { return exitFunction.load(std::memory_order_acquire); }

}  // namespace zvs::zvlib
