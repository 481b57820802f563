// Runs one logging scenario for N events, for counting instructions with
// callgrind (see callgrind.sh):
//
//   bench_callgrind_driver SCENARIO N [--whole]
//
// SCENARIO is one of disabled, buffer, format, async, file, spdlog_format,
// spdlog_disabled, spdlog_async, spdlog_file. The file scenarios write to
// a file in $TMPDIR (or /tmp) with each library's default buffering and
// remove it afterwards; their counts include the write() calls' user side. After the setup and a warm-up of a few
// thousand events (first-call registration, buffer and date cache), the N
// timed calls run between two CALLGRIND_TOGGLE_COLLECT requests. Run under
// --collect-atstart=no, callgrind then counts exactly the calling thread's
// instructions inside the loop: collection state is per thread, so the
// delivery thread of the asynchronous cases (and the library's time thread)
// is not counted. The drain happens after the loop, outside the count.
// With --whole the driver leaves collection alone, for runs that count the
// whole process from the start (callgrind.sh compares N events with none).

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <unistd.h>

#include "BenchScenarios.h"
#include "zvlog/FileAppender.h"

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#endif

#ifdef ZVLOG_BENCH_HAVE_CALLGRIND
#include <valgrind/callgrind.h>
#define ZVBENCH_TOGGLE() CALLGRIND_TOGGLE_COLLECT
#else
#define ZVBENCH_TOGGLE() ((void)0)
#endif

namespace {

using zvbench::zl::LEVEL_DEBUG;

constexpr int kWarmup = 5000;
bool toggleCollection = true;

std::string scratchFile(const char* name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/" + name + "-" + std::to_string(::getpid()) + ".log";
}

// Keeps the compiler from testing the level byte once for the whole loop.
inline void barrier() { asm volatile("" ::: "memory"); }

int usage(const char* argv0) {
    std::fprintf(stderr,
                 "usage: %s SCENARIO N [--whole]\n"
                 "  SCENARIO: disabled | buffer | format | async | file | spdlog_format | spdlog_disabled | spdlog_async |"
                 " spdlog_file\n",
                 argv0);
    return 2;
}

template <class Call>
void run(int n, Call call) {
    for (int i = 0; i < kWarmup; ++i) call(i);
    if (toggleCollection) ZVBENCH_TOGGLE();
    for (int i = 0; i < n; ++i) call(i);
    if (toggleCollection) ZVBENCH_TOGGLE();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[3], "--whole") == 0) {
        toggleCollection = false;
    } else if (argc != 3) {
        return usage(argv[0]);
    }
    const std::string scenario = argv[1];
    const int n = std::atoi(argv[2]);
    if (n < 0) return usage(argv[0]);

    auto zv = std::make_unique<zvbench::ZvlogSetup>();
    unsigned long long delivered = 0;

    if (scenario == "disabled") {
        zvbench::zl::Logger* logger = zv->disabled;
        run(n, [logger](int i) {
            barrier();
            ZVLOG_DEBUG(logger, "iteration %d value %s", i, "short");
        });
    } else if (scenario == "buffer") {
        zvbench::zl::Logger* logger = zv->bufferOnly;
        run(n, [logger](int i) { ZVLOG_INFO(logger, "iteration %d value %s", i, "short"); });
    } else if (scenario == "format") {
        zvbench::zl::Logger* logger = zv->formatting;
        run(n, [logger](int i) { ZVLOG_INFO(logger, "iteration %d value %s", i, "short"); });
        delivered = zv->formatAppender.getEventsIssued();
    } else if (scenario == "async") {
        zvbench::zl::Logger* logger = zv->async;
        zv->asyncAppender.setAsynchronous(true);
        run(n, [logger](int i) { ZVLOG_INFO(logger, "iteration %d value %s", i, "short"); });
        zv->asyncAppender.setAsynchronous(false);  // delivers what is queued
        delivered = zv->asyncAppender.getEventsIssued();
    } else if (scenario == "file") {
        const std::string path = scratchFile("zvlog-callgrind");
        zvbench::zl::FileAppender file("bench.file");
        file.setLayout(new zvbench::zl::PatternLayout(zvbench::kZvlogPattern));  // the appender owns it
        file.setFile(path.c_str());
        file.activateOptions();
        zvbench::zl::Logger* logger = zv->bufferOnly;
        logger->addAppender(file);
        run(n, [logger](int i) { ZVLOG_INFO(logger, "iteration %d value %s", i, "short"); });
        logger->removeAppender(file);
        file.close();
        delivered = file.getEventsIssued();
        ::unlink(path.c_str());
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    } else if (scenario == "spdlog_file") {
        const std::string path = scratchFile("spdlog-callgrind");
        {
            auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
            spdlog::logger logger("bench.file", sink);
            logger.set_pattern(zvbench::kSpdlogPattern);
            spdlog::logger* l = &logger;
            run(n, [l](int i) { l->info("iteration {} value {}", i, "short"); });
            logger.flush();
        }
        ::unlink(path.c_str());
    } else if (scenario.rfind("spdlog_", 0) == 0) {
        auto sp = std::make_unique<zvbench::SpdlogSetup>();
        if (scenario == "spdlog_disabled") {
            spdlog::logger* logger = sp->disabled.get();
            run(n, [logger](int i) {
                barrier();
                logger->debug("iteration {} value {}", i, "short");
            });
        } else if (scenario == "spdlog_format") {
            spdlog::logger* logger = sp->formatting.get();
            run(n, [logger](int i) { logger->info("iteration {} value {}", i, "short"); });
            delivered = sp->syncSink->count();
        } else if (scenario == "spdlog_async") {
            spdlog::async_logger* logger = sp->async.get();
            run(n, [logger](int i) { logger->info("iteration {} value {}", i, "short"); });
            zvbench::waitForSunk(*sp->asyncSink, static_cast<unsigned long long>(n) + kWarmup);
            delivered = sp->asyncSink->count();
        } else {
            return usage(argv[0]);
        }
#endif
    } else {
        return usage(argv[0]);
    }

    std::printf("scenario %s: %d events counted (after %d warm-up), %llu delivered\n", scenario.c_str(), n, kWarmup,
                delivered);
    return 0;
}
