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
//                   reported as a counter (ns per event including the drain).
//                   A flood outruns the delivery thread, so the queue grows
//                   the whole run; the "burst" variant times bursts of
//                   kBurst calls and lets the queue drain (untimed) between
//                   them, the producer's cost while delivery keeps up.
//
// After the Google Benchmark table a summary prints ns/event, as wall time
// and as the logging thread's CPU time, and the zvlog/spdlog ratios of the
// comparable cases. With two cores the asynchronous wall times depend on where
// the scheduler puts the delivery thread (sharing the producer's core, it is
// charged to the producer's wall time); the CPU figures do not.
//
//   bench_core [--benchmark_filter=...] [--benchmark_repetitions=3] [...]
//
// With repetitions the summary uses the medians.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <set>
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
constexpr int kBurst = 1000;

zvbench::ZvlogSetup* zv = nullptr;
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
zvbench::SpdlogSetup* sp = nullptr;
#endif

double nsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// The calling thread's CPU time: unlike the wall clock it leaves out the
// time the producer is preempted by the delivery thread on a busy machine.
double threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
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

// What a logger's lock costs by itself, uncontended: every event that reaches
// an appender takes it once per logger on its way (delivery runs under it),
// so this is a floor under the synchronous and the producer figures.
void BM_zvlog_logger_lock(benchmark::State& state) {
    zvbench::zl::Logger* logger = zv->bufferOnly;
    auto& mutex = logger->mutex();
    for (auto _ : state) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_zvlog_logger_lock);

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

// Bursts of kBurst calls, each timed alone; the queue drains between them.
void BM_zvlog_async_burst(benchmark::State& state) {
    zvbench::zl::Logger* logger = zv->async;
    zvbench::DiscardAppender& appender = zv->asyncAppender;
    appender.setAsynchronous(true);
    unsigned long long expected = appender.getEventsIssued();
    double cpu = 0;
    int i = 0;
    for (auto _ : state) {
        const double cpuStart = threadCpuNs();
        const Clock::time_point start = Clock::now();
        for (int k = 0; k < kBurst; ++k) {
            ZVLOG_INFO(logger, "iteration %d value %s", i, "short");
            ++i;
        }
        state.SetIterationTime(nsSince(start) * 1e-9);
        cpu += threadCpuNs() - cpuStart;
        expected += kBurst;
        if (!zvbench::waitForIssued(appender, expected)) {
            state.SkipWithError("the drain did not finish");
            break;
        }
    }
    appender.setAsynchronous(false);
    state.SetItemsProcessed(state.iterations() * kBurst);
    state.counters["burst"] = kBurst;
    state.counters["cpu_ns"] = cpu / static_cast<double>(state.iterations() * kBurst);
}
BENCHMARK(BM_zvlog_async_burst)->UseManualTime();

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

void BM_spdlog_async_burst(benchmark::State& state) {
    spdlog::async_logger* logger = sp->async.get();
    unsigned long long expected = sp->asyncSink->count();
    double cpu = 0;
    int i = 0;
    for (auto _ : state) {
        const double cpuStart = threadCpuNs();
        const Clock::time_point start = Clock::now();
        for (int k = 0; k < kBurst; ++k) {
            logger->info("iteration {} value {}", i, "short");
            ++i;
        }
        state.SetIterationTime(nsSince(start) * 1e-9);
        cpu += threadCpuNs() - cpuStart;
        expected += kBurst;
        if (!zvbench::waitForSunk(*sp->asyncSink, expected)) {
            state.SkipWithError("the drain did not finish");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
    state.counters["burst"] = kBurst;
    state.counters["cpu_ns"] = cpu / static_cast<double>(state.iterations() * kBurst);
}
BENCHMARK(BM_spdlog_async_burst)->UseManualTime();

#endif  // ZVLOG_BENCH_HAVE_SPDLOG

// --- summary -----------------------------------------------------------------

struct Figures {
    double real = 0;        // wall time per event
    double cpu = 0;         // the calling thread's CPU time per event
    double withDrain = -1;  // asynchronous floods only: wall time including the drain
};

// Prints the usual table and keeps each benchmark's figures per event for the
// summary (the medians when repetitions are asked for).
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    explicit RecordingReporter(bool color) : ConsoleReporter(color ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median) continue;
            const std::string& name = run.run_name.function_name;
            if (!median && haveMedian_.count(name)) continue;
            if (median) haveMedian_.insert(name);
            Figures f;
            f.real = run.GetAdjustedRealTime() * nsPerUnit(run.time_unit);
            f.cpu = run.GetAdjustedCPUTime() * nsPerUnit(run.time_unit);
            if (const double* burst = counter(run, "burst"); burst && *burst > 0) f.real /= *burst;
            // Bursts measure their CPU time themselves: the benchmark's own
            // CPU column also holds the untimed waits for the drain.
            if (const double* cpu = counter(run, "cpu_ns")) f.cpu = *cpu;
            if (const double* drain = counter(run, "with_drain_ns")) f.withDrain = *drain;
            figures[name] = f;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    std::map<std::string, Figures> figures;

private:
    std::set<std::string> haveMedian_;

    static const double* counter(const Run& run, const char* name) {
        auto it = run.counters.find(name);
        return it == run.counters.end() ? nullptr : &it->second.value;
    }
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
        double target;  // 0: none
        bool drain;     // the flood's "with the drain" figures
    };
    const Row rows[] = {
        {"disabled call", "BM_zvlog_disabled", "BM_spdlog_disabled", 0.6, false},
        {"disabled, standard logger", "BM_zvlog_std_disabled", nullptr, 0.6, false},
        {"buffer only", "BM_zvlog_buffer_only", nullptr, 30, false},
        {"formatting appender", "BM_zvlog_format", "BM_spdlog_format", 130, false},
        {"async producer, flood", "BM_zvlog_async_producer", "BM_spdlog_async_producer", 100, false},
        {"async flood incl. drain", "BM_zvlog_async_producer", "BM_spdlog_async_producer", 0, true},
        {"async producer, bursts", "BM_zvlog_async_burst", "BM_spdlog_async_burst", 100, false},
    };
    auto cell = [](char (&buf)[32], double v) {
        if (v >= 0) std::snprintf(buf, sizeof buf, "%.2f", v);
        else std::snprintf(buf, sizeof buf, "-");
        return buf;
    };
    std::printf("\nSummary: ns per event (wall time / the logging thread's CPU time)\n");
    std::printf("  %-26s %9s %9s %7s %9s %9s %7s %7s\n", "case", "zvlog", "zv cpu", "target", "spdlog", "sp cpu",
                "ratio", "r. cpu");
    for (const Row& r : rows) {
        const Figures* z = find(r.zvlog);
        const Figures* s = r.spdlog ? find(r.spdlog) : nullptr;
        if (!z || (r.drain && z->withDrain < 0)) continue;
        const double zReal = r.drain ? z->withDrain : z->real;
        const double zCpu = r.drain ? -1 : z->cpu;
        const double sReal = s ? (r.drain ? s->withDrain : s->real) : -1;
        const double sCpu = s && !r.drain ? s->cpu : -1;
        char b[8][32];
        std::printf("  %-26s %9s %9s %7s %9s %9s %7s %7s%s\n", r.label, cell(b[0], zReal), cell(b[1], zCpu),
                    r.target > 0 ? cell(b[2], r.target) : "-", cell(b[3], sReal), cell(b[4], sCpu),
                    sReal > 0 ? cell(b[5], zReal / sReal) : "-", sCpu > 0 && zCpu >= 0 ? cell(b[6], zCpu / sCpu) : "-",
                    r.target > 0 && zReal > r.target ? "  above target" : "");
    }
    std::printf("  (ratio = zvlog / spdlog, below 1 is faster; \"r. cpu\" compares CPU times)\n");
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
