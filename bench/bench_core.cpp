// Nanoseconds per logging call on the core paths, beside spdlog doing the
// same work:
//
//   disabled        a DEBUG call on a logger at WARN: the inline byte test
//   buffer only     an enabled call with no appender anywhere on its path:
//                   the event is encoded into the thread's buffer and no more
//   formatting      an appender that lays the event out with
//                   "%d %p %c - %m%n" into a reused string and drops it
//   async producer  the same appender delivering on its own thread; only the
//                   logging call is timed, the drain happens outside and is
//                   reported as a counter (ns per event including the drain)
//
// After the Google Benchmark table a summary prints ns/event and the
// zvlog/spdlog ratio of the comparable cases.
//
//   bench_core [--benchmark_filter=...] [other Google Benchmark flags]

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchScenarios.h"

namespace {

using zvbench::zl::LEVEL_DEBUG;
using Clock = std::chrono::steady_clock;

// Asynchronous runs use a fixed number of events: the queues grow while the
// consumer lags, and an open-ended run on a busy machine could grow them a
// long way.
constexpr int64_t kAsyncEvents = 1 << 20;

zvbench::ZvlogSetup* zv = nullptr;
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
zvbench::SpdlogSetup* sp = nullptr;
#endif

double nsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// --- zvlog -----------------------------------------------------------------

void BM_zvlog_disabled(benchmark::State& state) {
    zvbench::zl::Logger* logger = zv->disabled;
    int i = 0;
    for (auto _ : state) {
        // A compiler barrier: the level byte must be loaded again on every
        // pass instead of being tested once before the loop.
        benchmark::ClobberMemory();
        ZVLOG_DEBUG(logger, "iteration %d value %s", i, "short");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_zvlog_disabled);

// The same test through a standard logger's exported byte (OFF by default).
void BM_zvlog_std_disabled(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        benchmark::ClobberMemory();
        ZVLOG_STD(utility, LEVEL_DEBUG, "iteration %d value %s", i, "short");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_zvlog_std_disabled);

void BM_zvlog_buffer_only(benchmark::State& state) {
    zvbench::zl::Logger* logger = zv->bufferOnly;
    int i = 0;
    for (auto _ : state) {
        ZVLOG_INFO(logger, "iteration %d value %s", i, "short");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_zvlog_buffer_only);

void BM_zvlog_format(benchmark::State& state) {
    zvbench::zl::Logger* logger = zv->formatting;
    const unsigned long long before = zv->formatAppender.getEventsIssued();
    int i = 0;
    for (auto _ : state) {
        ZVLOG_INFO(logger, "iteration %d value %s", i, "short");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
    if (zv->formatAppender.getEventsIssued() - before != static_cast<unsigned long long>(state.iterations()))
        state.SkipWithError("the appender did not receive every event");
}
BENCHMARK(BM_zvlog_format);

void BM_zvlog_async_producer(benchmark::State& state) {
    zvbench::zl::Logger* logger = zv->async;
    zvbench::DiscardAppender& appender = zv->asyncAppender;
    appender.setAsynchronous(true);  // starts the delivery thread, untimed
    const unsigned long long before = appender.getEventsIssued();
    int i = 0;
    const Clock::time_point start = Clock::now();
    for (auto _ : state) {
        ZVLOG_INFO(logger, "iteration %d value %s", i, "short");
        ++i;
    }
    // Untimed from here: switching delivery off delivers what is queued.
    appender.setAsynchronous(false);
    const double total = nsSince(start);
    const auto n = static_cast<unsigned long long>(state.iterations());
    state.SetItemsProcessed(state.iterations());
    state.counters["with_drain_ns"] = total / static_cast<double>(n);
    state.counters["high_water"] = static_cast<double>(appender.getHighWaterMark());
    if (appender.getEventsIssued() - before != n) state.SkipWithError("the drain lost events");
}
BENCHMARK(BM_zvlog_async_producer)->Iterations(kAsyncEvents)->UseRealTime();

// --- spdlog ----------------------------------------------------------------

#ifdef ZVLOG_BENCH_HAVE_SPDLOG

void BM_spdlog_disabled(benchmark::State& state) {
    spdlog::logger* logger = sp->disabled.get();
    int i = 0;
    for (auto _ : state) {
        benchmark::ClobberMemory();
        logger->debug("iteration {} value {}", i, "short");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_spdlog_disabled);

void BM_spdlog_format(benchmark::State& state) {
    spdlog::logger* logger = sp->formatting.get();
    int i = 0;
    for (auto _ : state) {
        logger->info("iteration {} value {}", i, "short");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_spdlog_format);

void BM_spdlog_async_producer(benchmark::State& state) {
    spdlog::async_logger* logger = sp->async.get();
    const unsigned long long before = sp->asyncSink->count();
    int i = 0;
    const Clock::time_point start = Clock::now();
    for (auto _ : state) {
        logger->info("iteration {} value {}", i, "short");
        ++i;
    }
    const auto n = static_cast<unsigned long long>(state.iterations());
    const bool drained = zvbench::waitForSunk(*sp->asyncSink, before + n);
    const double total = nsSince(start);
    state.SetItemsProcessed(state.iterations());
    state.counters["with_drain_ns"] = total / static_cast<double>(n);
    if (!drained) state.SkipWithError("the drain did not finish");
}
BENCHMARK(BM_spdlog_async_producer)->Iterations(kAsyncEvents)->UseRealTime();

#endif  // ZVLOG_BENCH_HAVE_SPDLOG

// --- summary -----------------------------------------------------------------

struct Figures {
    double ns = 0;          // real time per event
    double withDrain = -1;  // asynchronous runs only
};

// Prints the usual table and keeps each benchmark's ns/event for the summary.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    explicit RecordingReporter(bool color)
        : ConsoleReporter(color ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            Figures f;
            f.ns = run.GetAdjustedRealTime() * nsPerUnit(run.time_unit);
            auto it = run.counters.find("with_drain_ns");
            if (it != run.counters.end()) f.withDrain = it->second.value;
            figures[run.run_name.function_name] = f;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    std::map<std::string, Figures> figures;

private:
    static double nsPerUnit(benchmark::TimeUnit unit) {
        switch (unit) {
            case benchmark::kSecond: return 1e9;
            case benchmark::kMillisecond: return 1e6;
            case benchmark::kMicrosecond: return 1e3;
            default: return 1;
        }
    }
};

void printSummary(const std::map<std::string, Figures>& figures) {
    auto find = [&](const char* name) -> const Figures* {
        auto it = figures.find(name);
        return it == figures.end() ? nullptr : &it->second;
    };
    struct Row {
        const char* label;
        const char* zvlog;
        const char* spdlog;
        double target;
    };
    const Row rows[] = {
        {"disabled call", "BM_zvlog_disabled", "BM_spdlog_disabled", 0.6},
        {"disabled (standard logger)", "BM_zvlog_std_disabled", nullptr, 0.6},
        {"buffer only", "BM_zvlog_buffer_only", nullptr, 30},
        {"formatting appender", "BM_zvlog_format", "BM_spdlog_format", 130},
        {"async producer", "BM_zvlog_async_producer", "BM_spdlog_async_producer", 100},
    };
    std::printf("\nSummary (real time, ns per event)\n");
    std::printf("  %-28s %10s %8s %10s %8s %s\n", "case", "zvlog", "target", "spdlog", "ratio", "");
    for (const Row& r : rows) {
        const Figures* z = find(r.zvlog);
        const Figures* s = r.spdlog ? find(r.spdlog) : nullptr;
        if (!z) continue;
        char spd[32] = "-", ratio[32] = "-";
        if (s) {
            std::snprintf(spd, sizeof spd, "%.2f", s->ns);
            std::snprintf(ratio, sizeof ratio, "%.2f", z->ns / s->ns);
        }
        std::printf("  %-28s %10.2f %8.1f %10s %8s %s\n", r.label, z->ns, r.target, spd, ratio,
                    z->ns <= r.target ? "" : "  (above target)");
    }
    const Figures* za = find("BM_zvlog_async_producer");
    const Figures* sa = find("BM_spdlog_async_producer");
    if (za && za->withDrain >= 0) {
        char spd[32] = "-", ratio[32] = "-";
        if (sa && sa->withDrain > 0) {
            std::snprintf(spd, sizeof spd, "%.2f", sa->withDrain);
            std::snprintf(ratio, sizeof ratio, "%.2f", za->withDrain / sa->withDrain);
        }
        std::printf("  %-28s %10.2f %8s %10s %8s\n", "async, including the drain", za->withDrain, "-", spd, ratio);
    }
    std::printf("  (ratio = zvlog / spdlog; below 1 means zvlog is faster)\n");
}

void printSampleLines() {
    ZVLOG_INFO(zv->formatting, "iteration %d value %s", 42, "short");
    std::string z = zv->formatAppender.lastText();
    while (!z.empty() && (z.back() == '\n' || z.back() == '\r')) z.pop_back();
    std::printf("zvlog line:  %s\n", z.c_str());
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    sp->formatting->info("iteration {} value {}", 42, "short");
    std::string s = sp->syncSink->lastText();
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    std::printf("spdlog line: %s\n", s.c_str());
#endif
    std::fflush(stdout);
}

// A reporter of our own does not see --benchmark_color: colour only on a
// terminal, and never when asked for none.
bool wantColor(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--benchmark_color=false" || a == "--benchmark_color=no") return false;
        if (a == "--benchmark_color=true" || a == "--benchmark_color=yes") return true;
    }
    return isatty(STDOUT_FILENO) != 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool color = wantColor(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    auto zvSetup = std::make_unique<zvbench::ZvlogSetup>();
    zv = zvSetup.get();
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    auto spSetup = std::make_unique<zvbench::SpdlogSetup>();
    sp = spSetup.get();
#endif
    printSampleLines();

    RecordingReporter reporter(color);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter.figures);

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    spSetup.reset();
#endif
    zvSetup.reset();
    benchmark::Shutdown();
    return 0;
}
