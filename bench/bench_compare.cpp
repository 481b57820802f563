// zvlog beside spdlog, quill, log4cxx and log4cplus, one run, one record:
//
//   "<date with milliseconds> <level> bench.compare - iteration <int> value short"
//
// The level is each library's own spelling of INFO ("INFO"; spdlog's "%l"
// prints "info"): a different spelling costs nothing, a custom flag to get
// the same one would.
//
// Cases (ns per event, wall time), by group:
//
// main table (--cases=disabled,format,file1,file2,async,mp)
//   disabled         a DEBUG call on a logger at WARN
//   format           an appender/sink that lays the event out with its pattern
//                    layout into a reused string and drops the text
//   sync file        a synchronous appender writing a buffered file, from one
//                    thread, then from two threads on one logger (all events
//                    over wall time); the time includes the final flush
//   async producer   the logging calls while an asynchronous appender writes
//                    the file on its own thread: one flood of events, from the
//                    moment the producer starts until its last call returns,
//                    as wall time and as the logging thread's CPU time
//   async total      from the first call until every event is in the file
//                    (drained and flushed; closed too but for zvlog, whose
//                    appender stays)
//   zvlog file paths zvlog alone: its FileAppender, which is always safe for
//                    several processes (an O_APPEND descriptor and one write()
//                    of whole records per buffer; it has no single-process
//                    mode), against a plain single-process path of the same
//                    buffering (its WriterAppender on a private stdio stream
//                    with a 4096-byte buffer, never locked or sought); and two
//                    processes appending to one file
//   floors           what the cases' required work costs by itself in the same
//                    run: for the sync file, the same lines (rendered before
//                    the clock starts) copied into a 4096-byte buffer with one
//                    write() per buffer, the bytes and system calls that every
//                    library's default buffering pays, and again in writes of
//                    exactly 4096 bytes that cut lines as a stdio stream does
//                    (the difference is what whole records cost); what zvlog's
//                    rules add to a synchronous event beyond spdlog's work (the
//                    process-wide sequence number and the logger's lock, which
//                    spdlog does not have: its sink's lock matches zvlog's
//                    appender's); for zvlog, the event encoded into the
//                    thread's buffer under its logger's lock (the logger's only
//                    appender delivers nothing), and a lock taken and released
//                    uncontended (a synchronous event also takes its
//                    appender's). Printed with what remains of each library's
//                    figure above them.
//
// latency (--cases=latency)
//   The asynchronous producer call by call: bursts of 100 calls, each timed
//   alone with the time-stamp counter (lfence; rdtsc ... rdtscp; lfence),
//   then the producer waits until the consumer has delivered the burst, and
//   again; 1000 bursts per library (×--scale) after 20 untimed ones. The
//   cost of an empty timed pair (its median, measured the same way) is
//   subtracted and printed. zvlog, spdlog and quill, each writing its file:
//   zvlog's asynchronous FileAppender (the producer waits for its issued
//   count), spdlog's async_logger on its default pool of 8192 slots with a
//   file sink that is basic_file_sink's code plus a count (basic_file_sink is
//   final), quill's logger (the producer waits in flush_log()). A drain that
//   lets the consumer fall asleep makes the next burst's first call pay for
//   waking it, where the library wakes it from the caller. The counter
//   reads in steps of about 10 ns on this machine (a VM), so p50s move in
//   10 ns steps.
//   A second pass runs with every thread of the process pinned to one CPU
//   (sched_setaffinity on each task; threads started meanwhile inherit it):
//   the producer then shares its processor with the consumer, as it does
//   on a busy machine, and a consumer that spins after being woken takes
//   the producer's processor for that long.
//
// threads (--cases=threads)
//   sync file and async producer/total from 1, 2 and 4 threads on one logger
//   (4 oversubscribes a 2-core machine); the same total of events is split
//   among the threads.
//
// payload (--cases=payload)
//   sync file and async producer/total, one thread, for
//     1 KiB string   "iteration <int> value <a 1024-character string>"
//     8 arguments    "iteration <int> value short a 12345 b 678901234567
//                    c alpha d 42 e -7 f omega" (int, string, int, long,
//                    string, unsigned, int, string)
//     deep logger    the record on logger "a.b.c.d.e", whose level is
//                    inherited and whose appenders sit at the root (spdlog
//                    and quill have no hierarchy: their logger of that name
//                    holds the sink itself)
//
// Each table shows, per case, the best peer and zvlog's figure over that
// peer's (zv/best; below 1 zvlog is faster), and the targets zvlog is held to.
//
// Steady state, as in a program that has run a while: the logging threads of
// the file cases are four workers kept for the whole run (what a library
// keeps per thread, such as quill's queue grown by the first flood or
// zvlog's event buffer, stays), and zvlog's asynchronous FileAppender is one
// for the whole run, kept asynchronous and given each case's file with
// setFile() and activateOptions() (its queue's memory stays too); its drain
// waits for the appender's issued count, then flush(). The first of the
// repetitions pays what is set up once; the medians are the later ones.
//
// Each peer runs at its own best configuration for this content, through
// its idiomatic API:
//   spdlog   fmt-style calls on a spdlog::logger; pattern
//            "%Y-%m-%d %H:%M:%S.%e %l %n - %v" (its own level flag, no custom
//            flag); base_sink<null_mutex> for format, basic_file_sink_mt for
//            the files (the stdio stream's buffer: the file system block,
//            4096 here); async_logger with overflow policy block (no event
//            lost, spdlog's default) on its own thread_pool of one worker,
//            whose queue holds the whole flood of the case (a power of two,
//            at least spdlog's default 8192 slots): the default 8192 slots
//            make the producer wait for the worker once full, so that its
//            producer figure would be the worker's speed.
//            Header-only (spdlog::spdlog_header_only: the level test and
//            the formatter inlined into the caller) when CMake has that
//            target, unless -DZVLOG_BENCH_SPDLOG_HEADER_ONLY=OFF; the compiled
//            libspdlog was slower in every case here (disabled call 8-10 ns
//            against 0.55, format 193 against 158, sync file 272 against 239).
//            The run says which form it measures.
//   quill    12.1, header-only: Backend::start() with default BackendOptions
//            (one backend thread, sleeping 100 us when idle), loggers from
//            Frontend::create_or_get_logger with the default frontend
//            (UnboundedBlocking queue per thread, 128 KiB growing up to 2 GiB:
//            no event lost) and TSC clock, a FileSink (open mode "w", its
//            default 64 KiB write buffer, no fsync) and PatternFormatterOptions
//            "%(time) %(log_level) %(logger) - %(message)" with time
//            "%Y-%m-%d %H:%M:%S.%Qms" (local time); QUILL_LOG_INFO. The drain
//            is logger->flush_log() then Frontend::remove_logger_blocking
//            (which closes the file). Asynchronous only: no format or sync
//            file case. Its backend thread starts on quill's first case and
//            polls every 100 us while idle until the program ends.
//   log4cxx  stream macros, PatternLayout, FileAppender (BufferedIO with its
//            8 KiB buffer, no ImmediateFlush), AsyncAppender with its default
//            buffer of 128 events, blocking when full (no event lost).
//   log4cplus stream macros, PatternLayout, FileAppender (no immediateFlush,
//            the filebuf's 8 KiB buffer), AsyncAppender with its default
//            queue limit of 100, blocking.
//            For both, a queue of 65536 events was tried: the producer
//            figures stayed the same (their cost is building the event on
//            the calling thread) and the totals grew, so the defaults stay.
//            Their buffers are their defaults too: both already write in
//            larger blocks than zvlog's 4096 bytes.
//   zvlog    as its users set it up: FileAppender (4096-byte buffer),
//            PatternLayout "%d{%Y-%m-%d %H:%M:%S} %p %c - %m%n", and for the
//            asynchronous cases appender->setAsynchronous(true) (its
//            unbounded queue, one "LogAppenderThread"), kept for the run.
//
// The file cases check every line of the file afterwards (count, shape, each
// id exactly once: a figure from a sink that lost or mangled records is
// worthless) and delete it. Each case runs --reps times (3 by default) and
// the tables show the medians (latency: the samples of every repetition).
// A target is judged on the ratio of the medians and, as "pairs", on the
// median of the repetitions' own ratios, which a change of the machine's
// speed between repetitions does not tilt.
// Within a repetition the cases run one after the other, each for every
// library in turn, the order of the libraries reversed every other
// repetition: a peer's figure is taken within seconds of zvlog's,
// and neither always runs first. (quill, whose backend thread polls until
// the process ends, runs after all the others.)
//
//   bench_compare [--reps=N] [--scale=F] [--each] [--dir=DIR]
//                 [--libs=zvlog,spdlog,quill,log4cxx,log4cplus]
//                 [--cases=disabled,format,file1,file2,async,mp,latency,threads,payload]
//
// --scale multiplies the event counts; --dir is where the temporary folder
// for the files goes (default /tmp); --libs and --cases pick what runs (for
// profiling one case alone); --each prints every repetition's figure under
// each row of the tables, to see how far a run's repetitions agree. The full
// run takes about 35-40 s on two cores.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <x86intrin.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "zvlog/FileAppender.h"
#include "zvlog/zvlog.h"

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/file_helper.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#ifdef ZVLOG_BENCH_HAVE_QUILL
#define QUILL_DISABLE_NON_PREFIXED_MACROS 1
#include <quill/Backend.h>
#include <quill/Frontend.h>
#include <quill/LogMacros.h>
#include <quill/Logger.h>
#include <quill/sinks/FileSink.h>
#include <quill/sinks/NullSink.h>
#endif

#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/asyncappender.h>
#include <log4cxx/fileappender.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>
#endif

#ifdef ZVLOG_BENCH_HAVE_LOG4CPLUS
#include <log4cplus/appender.h>
#include <log4cplus/asyncappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#endif

namespace {

namespace zl = zvs::zvlib::zvlog;
using Clock = std::chrono::steady_clock;

constexpr const char* kLoggerName = "bench.compare";
constexpr const char* kDisabledName = "bench.compare.disabled";
constexpr const char* kDeepName = "a.b.c.d.e";

// The same line from every library; only the line end differs (zvlog's
// "%n" is "\r\n", the others print "\n") and the spelling of the level.
constexpr const char* kZvlogPattern = "%d{%Y-%m-%d %H:%M:%S} %p %c - %m%n";  // "%S" carries ".mmm"
constexpr const char* kSpdlogPattern = "%Y-%m-%d %H:%M:%S.%e %l %n - %v";     // "%l": "info"
constexpr const char* kQuillPattern = "%(time) %(log_level) %(logger) - %(message)";
constexpr const char* kQuillTimePattern = "%Y-%m-%d %H:%M:%S.%Qms";
constexpr const char* kLog4cxxPattern = "%d{yyyy-MM-dd HH:mm:ss.SSS} %p %c - %m%n";
constexpr const char* kLog4cplusPattern = "%D{%Y-%m-%d %H:%M:%S.%q} %p %c - %m%n";

// Event counts (before --scale).
struct Counts {
    long disabled = 20'000'000;
    long format = 200'000;
    long file = 200'000;     // all threads together in the thread cases
    long async = 200'000;    // likewise
    long kib = 50'000;       // the 1 KiB string (about 1.1 KiB a line)
    long args8 = 100'000;
    long deep = 100'000;
    long bursts = 1'000;     // latency: bursts of kBurst calls
    long warm = 2'000;       // untimed events before each timed loop (per thread)
};
Counts counts;
constexpr int kBurst = 100;
constexpr int kWarmBursts = 20;

inline void compilerBarrier() { asm volatile("" ::: "memory"); }

double nsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// --- what is logged ------------------------------------------------------------

enum class Payload { Short, Kib, Args8, Deep };
template <Payload P>
using PayloadTag = std::integral_constant<Payload, P>;

// Calls f with the payload as a compile-time tag, so that each timed loop is
// compiled for its record (Deep logs the short record on another logger).
template <class F>
decltype(auto) withPayload(Payload p, F&& f) {
    switch (p) {
        case Payload::Kib: return f(PayloadTag<Payload::Kib>{});
        case Payload::Args8: return f(PayloadTag<Payload::Args8>{});
        default: return f(PayloadTag<Payload::Short>{});
    }
}

// The 1 KiB argument, a plain const char* for every library.
std::string gKibText;
const char* gKib = nullptr;

// The eight arguments after the id and "short".
#define BENCH_ARGS8_VALUES 12345, 678901234567L, "alpha", 42u, -7, "omega"
constexpr std::string_view kArgs8Tail = " a 12345 b 678901234567 c alpha d 42 e -7 f omega";

struct Shape {
    std::string logger;
    std::string suffix;  // after "iteration <id>"
};

Shape shapeOf(Payload p) {
    switch (p) {
        case Payload::Kib: return {kLoggerName, " value " + gKibText};
        case Payload::Args8: return {kLoggerName, " value short" + std::string(kArgs8Tail)};
        case Payload::Deep: return {kDeepName, " value short"};
        default: return {kLoggerName, " value short"};
    }
}

long eventsOf(Payload p) {
    switch (p) {
        case Payload::Kib: return counts.kib;
        case Payload::Args8: return counts.args8;
        case Payload::Deep: return counts.deep;
        default: return counts.file;
    }
}

// --- the file check ----------------------------------------------------------

// Every line must read "yyyy-mm-dd hh:mm:ss.mmm <level> <logger> - iteration
// <id><suffix>" (optionally "\r" before the "\n"), and the ids must be
// exactly 0 .. expected-1, each once: nothing lost, doubled or interleaved.
bool checkFile(const std::string& path, long expected, const std::string& level, const Shape& shape,
               std::string& why) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        why = "cannot open " + path;
        return false;
    }
    const std::string middle = " " + level + " " + shape.logger + " - iteration ";
    const std::string_view end(shape.suffix);
    std::vector<char> seen(static_cast<size_t>(expected), 0);
    std::string line;
    long lines = 0;
    while (std::getline(in, line)) {
        ++lines;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const bool dateOk = line.size() > 23 && line[4] == '-' && line[7] == '-' && line[10] == ' ' &&
                            line[13] == ':' && line[16] == ':' && line[19] == '.';
        const std::string_view rest = dateOk ? std::string_view(line).substr(23) : std::string_view();
        long id = -1;
        if (dateOk && rest.substr(0, middle.size()) == middle) {
            const char* p = rest.data() + middle.size();
            char* stop = nullptr;
            id = std::strtol(p, &stop, 10);
            if (stop == p || std::string_view(stop, static_cast<size_t>(rest.data() + rest.size() - stop)) != end)
                id = -1;
        }
        if (id < 0 || id >= expected || seen[static_cast<size_t>(id)]) {
            why = "line " + std::to_string(lines) + " is malformed or repeated: \"" + line.substr(0, 120) + "\"";
            return false;
        }
        seen[static_cast<size_t>(id)] = 1;
    }
    if (lines != expected) {
        why = std::to_string(lines) + " lines, expected " + std::to_string(expected);
        return false;
    }
    return true;
}

// --- what each library provides ------------------------------------------------

// A run of logging threads: wall time per event until the last thread's last
// call returned (producer) and until the output was complete (wall: the
// final flush, drain and close included), and the logging threads' CPU time
// per event (their timed loops only; robust against preemption by other
// processes, and it includes the time spent in write()).
struct Timing {
    double wall = -1;
    double cpu = -1;
    double producer = -1;
};

struct AsyncFigures {
    double producer = -1;     // ns per logging call
    double producerCpu = -1;  // the logging threads' CPU time per call
    double total = -1;        // ns per event until the file is complete
};

AsyncFigures asyncFigures(const Timing& t) { return {t.producer, t.cpu, t.wall}; }

// The calling thread's CPU time: unlike the wall clock it leaves out the
// time the producer waits for a full queue or is preempted, e.g. by the
// delivery thread on a busy machine.
double threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// --- per-call latency ------------------------------------------------------------

inline uint64_t tscBegin() {
    _mm_lfence();
    const uint64_t t = __rdtsc();
    _mm_lfence();
    return t;
}
inline uint64_t tscEnd() {
    unsigned int aux;
    const uint64_t t = __rdtscp(&aux);
    _mm_lfence();
    return t;
}

// Bursts of kBurst timed calls, each followed by drain(next id), which
// returns once the consumer has delivered every event so far. The first
// kWarmBursts are not kept. Ticks of the time-stamp counter per call.
template <class Log, class Drain>
void timeBursts(long bursts, std::vector<uint32_t>& ticks, Log&& log, Drain&& drain) {
    int id = 0;
    uint64_t sample[kBurst];
    for (long b = -kWarmBursts; b < bursts; ++b) {
        for (int i = 0; i < kBurst; ++i) {
            const uint64_t t0 = tscBegin();
            log(id + i);
            sample[i] = tscEnd() - t0;
        }
        id += kBurst;
        drain(id);
        if (b >= 0)
            for (uint64_t s : sample) ticks.push_back(static_cast<uint32_t>(std::min<uint64_t>(s, UINT32_MAX)));
    }
}

// The events a latency run writes: the warm bursts and the timed ones.
long latencyEvents() { return (counts.bursts + kWarmBursts) * kBurst; }

// Waits until count() reaches target, yielding; throws after 30 s.
template <class Count>
void awaitCount(Count&& count, unsigned long long target, const char* who) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
    while (count() < target) {
        if (Clock::now() > deadline) throw std::runtime_error(std::string(who) + ": the consumer did not drain");
        std::this_thread::yield();
    }
}

// One library. The loops live in the overrides, so nothing virtual sits on
// the timed path. A failure throws std::runtime_error with the reason. A
// figure of -1 is a case the library does not have.
class Contender {
public:
    virtual ~Contender() = default;
    virtual const char* name() const = 0;
    // How its records spell INFO.
    virtual const char* level() const { return "INFO"; }
    virtual bool hasSync() const { return true; }
    virtual bool hasLatency() const { return false; }
    // A library whose thread, once started, runs until the program ends:
    // its cases run after every other library's.
    virtual bool keepsThread() const { return false; }
    virtual double disabled(long n) = 0;
    virtual double format(long) { return -1; }
    // Each of `threads` threads logs warm then n events: ids t*(warm+n) ...
    virtual Timing fileSync(const std::string&, int, long, Payload) { return {}; }
    virtual AsyncFigures fileAsync(const std::string& path, int threads, long n, Payload p) = 0;
    // Appends the ticks of counts.bursts * kBurst calls.
    virtual void latency(const std::string&, std::vector<uint32_t>&) {}
    // One formatted line, for the sample printed at the start (scratch: a
    // file it may use).
    virtual std::string sample(const std::string& scratch) = 0;
};

// The logging threads of the file cases: started once and kept for the
// whole run, as an application keeps its threads, so that what a library
// sets up per thread (zvlog's event buffer, quill's queue, grown to what a
// flood needs) is there from the second case on, as in a program that has
// been running a while; a thread's exit is never timed.
class Workers {
public:
    static constexpr int kMax = 4;
    Workers() {
        for (int t = 0; t < kMax; ++t) threads_.emplace_back([this, t] { loop(t); });
    }
    ~Workers() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        for (std::thread& th : threads_) th.join();
    }
    // Runs job(t) on workers 0 .. count-1; wait() returns when all are done.
    void start(int count, const std::function<void(int)>& job) {
        std::lock_guard<std::mutex> lock(mutex_);
        job_ = &job;
        count_ = count;
        remaining_ = count;
        ++generation_;
        wake_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return remaining_ == 0; });
        job_ = nullptr;
    }

private:
    void loop(int t) {
        unsigned long seen = 0;
        for (;;) {
            const std::function<void(int)>* job = nullptr;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [&] { return stop_ || (generation_ != seen && t < count_); });
                if (stop_) return;
                seen = generation_;
                job = job_;
            }
            (*job)(t);
            std::lock_guard<std::mutex> lock(mutex_);
            if (--remaining_ == 0) done_.notify_all();
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_, done_;
    const std::function<void(int)>* job_ = nullptr;
    int count_ = 0;
    int remaining_ = 0;
    unsigned long generation_ = 0;
    bool stop_ = false;
    std::vector<std::thread> threads_;
};
Workers* gWorkers = nullptr;

// Runs a file case on `threads` workers and times it from the moment all
// have warmed up until all are done (producer), and until `finish` (the
// flush, or the drain and close) returned (wall).
template <class Log>
Timing runThreads(int threads, long n, Log&& log, const std::function<void()>& finish) {
    std::latch ready(threads);
    std::latch go(1);
    std::vector<double> cpu(static_cast<size_t>(threads), 0);
    std::vector<Clock::time_point> ends(static_cast<size_t>(threads));
    const std::function<void(int)> job = [&](int t) {
        const long base = t * (counts.warm + n);
        for (long i = 0; i < counts.warm; ++i) log(static_cast<int>(base + i));
        ready.count_down();
        go.wait();
        const double cpuStart = threadCpuNs();
        for (long i = 0; i < n; ++i) log(static_cast<int>(base + counts.warm + i));
        ends[static_cast<size_t>(t)] = Clock::now();
        cpu[static_cast<size_t>(t)] = threadCpuNs() - cpuStart;
    };
    gWorkers->start(threads, job);
    ready.wait();
    const Clock::time_point start = Clock::now();
    go.count_down();
    gWorkers->wait();
    const Clock::time_point lastEnd = *std::max_element(ends.begin(), ends.end());
    finish();
    const double events = static_cast<double>(threads * n);
    Timing timing;
    timing.wall = nsSince(start) / events;
    timing.producer = std::chrono::duration<double, std::nano>(lastEnd - start).count() / events;
    timing.cpu = 0;
    for (double c : cpu) timing.cpu += c / events;
    return timing;
}

[[noreturn]] void fail(const char* who, const std::string& what) {
    throw std::runtime_error(std::string(who) + ": " + what);
}

// --- zvlog ---------------------------------------------------------------------

// Lays each event out into a reused string and drops it.
class ZvDiscardAppender : public zl::Appender {
public:
    ZvDiscardAppender() : zl::Appender("bench.compare.discard") { setLayout(layout_); }  // the appender owns it
    ~ZvDiscardAppender() override { setAsynchronous(false); }
    void append(const void*, unsigned int) override {}
    void append(const zl::LoggingEvent* event) override {
        text_.clear();
        layout_->format(event, text_);
        ++count_;
    }
    const std::string& text() const { return text_; }
    long count() const { return count_; }

private:
    zl::PatternLayout* layout_ = new zl::PatternLayout(kZvlogPattern);
    std::string text_;
    long count_ = 0;
};

class Zvlog : public Contender {
public:
    Zvlog() {
        zl::LoggerRepository* repo = zl::Logger::getRepository();
        logger_ = repo->getLogger(kLoggerName);
        off_ = repo->getLogger(kDisabledName);
        deep_ = repo->getLogger(kDeepName);
        for (zl::Logger* l : {logger_, off_}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        logger_->setLevel(zl::LEVEL_INFO);
        off_->setLevel(zl::LEVEL_WARN);
    }
    const char* name() const override { return "zvlog"; }
    bool hasLatency() const override { return true; }

    template <Payload P>
    static void emit(zl::Logger* logger, int id) {
        if constexpr (P == Payload::Kib)
            ZVLOG_INFO(logger, "iteration %d value %s", id, gKib);
        else if constexpr (P == Payload::Args8)
            ZVLOG_INFO(logger, "iteration %d value %s a %d b %ld c %s d %u e %d f %s", id, "short", BENCH_ARGS8_VALUES);
        else
            ZVLOG_INFO(logger, "iteration %d value %s", id, "short");
    }

    double disabled(long n) override {
        zl::Logger* logger = off_;
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) {
            compilerBarrier();
            ZVLOG_DEBUG(logger, "iteration %d value %s", static_cast<int>(i), "short");
        }
        return nsSince(start) / static_cast<double>(n);
    }

    double format(long n) override {
        ZvDiscardAppender sink;
        logger_->addAppender(sink);
        zl::Logger* logger = logger_;
        for (long i = 0; i < counts.warm; ++i) emit<Payload::Short>(logger, static_cast<int>(i));
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) emit<Payload::Short>(logger, static_cast<int>(i));
        const double ns = nsSince(start) / static_cast<double>(n);
        logger_->removeAppender(sink);
        if (sink.count() != counts.warm + n) fail(name(), "the discarding appender missed events");
        return ns;
    }

    // A file appender writing `path`, truncated, with its default buffering.
    static std::unique_ptr<zl::FileAppender> openFile(const std::string& path) {
        auto file = std::make_unique<zl::FileAppender>("bench.compare.file");
        file->setLayout(new zl::PatternLayout(kZvlogPattern));  // the appender owns it
        file->setFile(path.c_str());
        file->setAppend(false);
        file->setBufferedIO(true);
        file->activateOptions();
        return file;
    }

    // The logger a payload logs on; for Deep the appender goes to the root
    // (at INFO) and the logger inherits its level. Undone by detach().
    zl::Logger* attach(zl::Appender& appender, Payload p) {
        if (p != Payload::Deep) {
            logger_->addAppender(appender);
            return logger_;
        }
        zl::Logger* root = zl::Logger::getRepository()->getRootLogger();
        rootLevel_ = root->getLevel();
        root->setLevel(zl::LEVEL_INFO);
        root->addAppender(appender);
        return deep_;
    }
    void detach(zl::Appender& appender, Payload p) {
        if (p != Payload::Deep) {
            logger_->removeAppender(appender);
            return;
        }
        zl::Logger* root = zl::Logger::getRepository()->getRootLogger();
        root->removeAppender(appender);
        root->setLevel(rootLevel_);
    }

    Timing fileSync(const std::string& path, int threads, long n, Payload p) override {
        auto file = openFile(path);
        zl::Logger* logger = attach(*file, p);
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [logger](int id) { emit<P>(logger, id); }, [&] { file->close(); });
        });
        detach(*file, p);
        return timing;
    }

    // The asynchronous appender: one for the whole run, kept asynchronous,
    // as a program keeps its appenders (its queue's memory, grown by the
    // first flood, stays); each case gives it its file (activateOptions
    // closes the previous one; nothing is queued then).
    zl::FileAppender& asyncFile(const std::string& path) {
        if (!async_) {
            async_ = openFile(path);
            async_->setAsynchronous(true);
        } else {
            async_->setFile(path.c_str());
            async_->activateOptions();
        }
        return *async_;
    }
    // Returns once the delivery thread has written `events` more events
    // than `before` into the appender's buffer, and the buffer to the file.
    static void drain(zl::FileAppender& file, unsigned long long before, unsigned long long events) {
        awaitCount([&file] { return file.getEventsIssued(); }, before + events, "zvlog");
        file.flush();
    }

    AsyncFigures fileAsync(const std::string& path, int threads, long n, Payload p) override {
        zl::FileAppender& file = asyncFile(path);
        const unsigned long long before = file.getEventsIssued();
        zl::Logger* logger = attach(file, p);
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [logger](int id) { emit<P>(logger, id); },
                              [&] { drain(file, before, static_cast<unsigned long long>(threads * (counts.warm + n))); });
        });
        detach(file, p);
        return asyncFigures(timing);
    }

    void latency(const std::string& path, std::vector<uint32_t>& ticks) override {
        zl::FileAppender& file = asyncFile(path);
        const unsigned long long before = file.getEventsIssued();
        logger_->addAppender(file);
        zl::Logger* logger = logger_;
        timeBursts(
            counts.bursts, ticks, [logger](int id) { emit<Payload::Short>(logger, id); },
            [&file, before](int id) {
                awaitCount([&file] { return file.getEventsIssued(); }, before + static_cast<unsigned long long>(id),
                           "zvlog");
            });
        file.flush();
        logger_->removeAppender(file);
    }

    ~Zvlog() override {
        if (async_) async_->close();  // leaves asynchronous delivery, closes the file
    }

    std::string sample(const std::string&) override {
        ZvDiscardAppender sink;
        logger_->addAppender(sink);
        ZVLOG_INFO(logger_, "iteration %d value %s", 42, "short");
        logger_->removeAppender(sink);
        return sink.text();
    }

private:
    zl::Logger* logger_ = nullptr;
    zl::Logger* off_ = nullptr;
    zl::Logger* deep_ = nullptr;
    unsigned char rootLevel_ = 0;
    std::unique_ptr<zl::FileAppender> async_;
};

// --- zvlog: the multi-process-safe file against a single-process one ---------

// The baseline: zvlog's own writer path (the same logger, appender mutex,
// layout and scratch string as the file appender) on a private stdio stream
// with the same 4096-byte buffer, never locked or sought: records go through
// fwrite() and one write() per full buffer, which is safe for one process
// only (two processes would overwrite each other's blocks).
class StdioFileAppender : public zl::WriterAppender {
public:
    StdioFileAppender(const std::string& path, size_t bufferSize) : zl::WriterAppender("bench.compare.stdio") {
        FILE* f = std::fopen(path.c_str(), "wb");
        if (!f) fail("zvlog", "cannot open " + path + ": " + std::strerror(errno));
        std::setvbuf(f, nullptr, _IOFBF, bufferSize);
        setStream(f, false);
        setLayout(new zl::PatternLayout(kZvlogPattern));  // the appender owns it
    }
    ~StdioFileAppender() override { setAsynchronous(false); }
    void activateOptions() override {}
};

Timing zvlogStdioBaseline(const std::string& path, long n) {
    zl::Logger* logger = zl::Logger::getRepository()->getLogger(kLoggerName);
    StdioFileAppender file(path, 4096);
    logger->addAppender(file);
    const Timing timing = runThreads(
        1, n, [logger](int id) { ZVLOG_INFO(logger, "iteration %d value %s", id, "short"); },
        [&] { file.close(); });
    logger->removeAppender(file);
    return timing;
}

// --- floors: what the required work costs by itself ------------------------------

// The file's floor: the lines of the sync file case (zvlog's record, the
// same ids), rendered before the clock starts, copied into a 4096-byte
// buffer that goes out with one write() whenever the next line would not
// fit. These are the bytes and the system calls every library pays for that
// case at its default buffering; what a library costs beyond them is its own.
//
// With split, the buffer is filled to the last byte and every write() is
// exactly 4096 bytes, cutting lines in two, as a stdio stream does (spdlog
// writes through one): each write then covers whole pages of the file, while
// whole records leave a page half written at every write's end. zvlog must
// keep records whole (another process appends between two writes); the
// difference is what that costs on this machine.
Timing writeFloor(const std::string& path, long n, bool split) {
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    const long lines = counts.warm + n;
    std::string text;
    std::vector<uint32_t> starts;
    starts.reserve(static_cast<size_t>(lines) + 1);
    for (long id = 0; id < lines; ++id) {
        starts.push_back(static_cast<uint32_t>(text.size()));
        char line[160];
        const int len = std::snprintf(line, sizeof line, "%s.%03ld INFO %s - iteration %ld value short\r\n", stamp,
                                      id % 1000, kLoggerName, id);
        text.append(line, static_cast<size_t>(len));
    }
    starts.push_back(static_cast<uint32_t>(text.size()));
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) fail("floor", path + ": " + std::strerror(errno));
    char buffer[4096];
    size_t used = 0;
    auto out = [&](const char* p, size_t len) {
        while (len > 0) {
            const ssize_t done = ::write(fd, p, len);
            if (done <= 0) fail("floor", std::string("write: ") + std::strerror(errno));
            p += done;
            len -= static_cast<size_t>(done);
        }
    };
    const Timing timing = runThreads(
        1, n,
        [&](int id) {
            const char* line = text.data() + starts[static_cast<size_t>(id)];
            const size_t len = starts[static_cast<size_t>(id) + 1] - starts[static_cast<size_t>(id)];
            if (split) {
                const size_t first = std::min(len, sizeof buffer - used);
                std::memcpy(buffer + used, line, first);
                used += first;
                if (used == sizeof buffer) {
                    out(buffer, used);
                    std::memcpy(buffer, line + first, len - first);
                    used = len - first;
                }
                return;
            }
            if (used + len > sizeof buffer) {
                out(buffer, used);
                used = 0;
            }
            std::memcpy(buffer + used, line, len);
            used += len;
        },
        [&] {
            out(buffer, used);
            ::close(fd);
        });
    return timing;
}

// An appender that takes only closed buffer blocks (its layout is binary) and
// drops them: a logger that holds it takes its lock for every event and
// delivers nothing.
class ZvRawSink : public zl::Appender {
public:
    ZvRawSink() : zl::Appender("bench.compare.raw") { setLayout(new zl::BinaryLayout()); }  // owns it
    void append(const void*, unsigned int) override {}
    void append(const zl::LoggingEvent*) override {}
};

// The floor every event of zvlog stands on: the event encoded into the
// thread's buffer and its logger's lock taken and released around delivery
// (to an appender that delivers nothing), without contention. An event queued
// for an asynchronous appender adds the queueing to this; a synchronous one
// adds the appender's own lock, its layout and its file.
double encodeFloor(long n) {
    zl::Logger* logger = zl::Logger::getRepository()->getLogger("bench.compare.floor");
    logger->setAdditivity(false);
    logger->removeAllAppenders();
    logger->setLevel(zl::LEVEL_INFO);
    ZvRawSink sink;
    logger->addAppender(sink);
    const double ns =
        runThreads(1, n, [logger](int id) { ZVLOG_INFO(logger, "iteration %d value %s", id, "short"); }, [] {})
            .producer;
    logger->removeAppender(sink);
    return ns;
}

// What zvlog's rules add to a synchronous event beyond what spdlog does (its
// sink's lock matches zvlog's appender's lock): the process-wide sequence
// number, one locked add, and the logger's lock, held across delivery.
double rulesFloor(long n) {
    static std::atomic<unsigned long long> sequence{0};
    zvs::zvlib::MultiThreading::Mutex mutex;
    return runThreads(
               1, n,
               [&mutex](int) {
                   sequence.fetch_add(1, std::memory_order_relaxed);
                   mutex.lock();
                   compilerBarrier();
                   mutex.unlock();
               },
               [] {})
        .producer;
}

double lockFloor(long n) {
    zvs::zvlib::MultiThreading::Mutex mutex;
    return runThreads(
               1, n,
               [&mutex](int) {
                   mutex.lock();
                   compilerBarrier();
                   mutex.unlock();
               },
               [] {})
        .producer;
}

// Two processes append to one file through their own FileAppender: each
// child (this program with --child) opens the file for appending, warms up,
// says so on fd 4, waits for a byte on fd 3, logs its events, closes the
// file and reports its start and end (steady clock, shared by all processes)
// on fd 4. The figure is both processes' events over the span from the first
// start to the last end.
int runChild(const char* path, long n, long base) {
    zl::Logger* logger = zl::Logger::getRepository()->getLogger(kLoggerName);
    logger->setAdditivity(false);
    logger->removeAllAppenders();
    logger->setLevel(zl::LEVEL_INFO);
    zl::FileAppender file("bench.compare.child");
    file.setLayout(new zl::PatternLayout(kZvlogPattern));
    file.setFile(path);
    file.setAppend(true);
    file.setBufferedIO(true);
    file.activateOptions();
    logger->addAppender(file);
    for (long i = 0; i < counts.warm; ++i) ZVLOG_INFO(logger, "iteration %d value %s", static_cast<int>(base + i), "short");
    char c = 'r';
    if (::write(4, &c, 1) != 1 || ::read(3, &c, 1) != 1) return 3;
    const Clock::time_point start = Clock::now();
    for (long i = 0; i < n; ++i)
        ZVLOG_INFO(logger, "iteration %d value %s", static_cast<int>(base + counts.warm + i), "short");
    file.close();
    const Clock::time_point end = Clock::now();
    logger->removeAppender(file);
    char report[64];
    const int len = std::snprintf(report, sizeof report, "%lld %lld\n",
                                  static_cast<long long>(start.time_since_epoch().count()),
                                  static_cast<long long>(end.time_since_epoch().count()));
    return ::write(4, report, static_cast<size_t>(len)) == len ? 0 : 3;
}

// A close-on-exec pipe with both ends at 10 or above, so that the child's
// dup2 onto 3 and 4 never clobbers an end it still needs.
void highPipe(int (&ends)[2]) {
    int p[2];
    if (::pipe(p) != 0) fail("zvlog", std::string("pipe: ") + std::strerror(errno));
    for (int k = 0; k < 2; ++k) {
        ends[k] = ::fcntl(p[k], F_DUPFD_CLOEXEC, 10);
        ::close(p[k]);
        if (ends[k] < 0) fail("zvlog", std::string("fcntl: ") + std::strerror(errno));
    }
}

bool readAll(int fd, std::string& out, size_t want, char until) {
    char c;
    while (out.size() < want) {
        const ssize_t r = ::read(fd, &c, 1);
        if (r <= 0) return false;
        out.push_back(c);
        if (c == until) break;
    }
    return true;
}

double zvlogTwoProcesses(const std::string& self, const std::string& path, long nEach) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail("zvlog", "cannot create " + path + ": " + std::strerror(errno));
    ::close(fd);
    struct Child {
        pid_t pid = -1;
        int go = -1;      // our end of the child's fd 3
        int report = -1;  // our end of the child's fd 4
    };
    Child children[2];
    for (int k = 0; k < 2; ++k) {
        int go[2], report[2];
        highPipe(go);
        highPipe(report);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, go[0], 3);
        posix_spawn_file_actions_adddup2(&actions, report[1], 4);
        const std::string n = std::to_string(nEach);
        const std::string base = std::to_string(k * (counts.warm + nEach));
        const std::string warm = std::to_string(counts.warm);
        const char* args[] = {self.c_str(), "--child", path.c_str(), n.c_str(), base.c_str(), warm.c_str(), nullptr};
        const int rc = posix_spawn(&children[k].pid, self.c_str(), &actions, nullptr, const_cast<char**>(args), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(go[0]);
        ::close(report[1]);
        children[k].go = go[1];
        children[k].report = report[0];
        if (rc != 0) fail("zvlog", std::string("posix_spawn: ") + std::strerror(rc));
    }
    bool ok = true;
    for (Child& c : children) {
        std::string ready;
        ok = ok && readAll(c.report, ready, 1, 'r') && ready == "r";
    }
    for (Child& c : children) ok = ok && ::write(c.go, "g", 1) == 1;
    long long first = 0, last = 0;
    for (Child& c : children) {
        std::string line;
        long long start = 0, end = 0;
        ok = ok && readAll(c.report, line, 64, '\n') && std::sscanf(line.c_str(), "%lld %lld", &start, &end) == 2;
        if (ok) {
            first = first == 0 ? start : std::min(first, start);
            last = std::max(last, end);
        }
    }
    for (Child& c : children) {
        int status = 0;
        ::close(c.go);
        ::close(c.report);
        if (::waitpid(c.pid, &status, 0) != c.pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) ok = false;
    }
    if (!ok) fail("zvlog", "a writing process failed");
    return static_cast<double>(last - first) / static_cast<double>(2 * nEach);
}

// --- spdlog --------------------------------------------------------------------

#ifdef ZVLOG_BENCH_HAVE_SPDLOG

class SpdlogDiscardSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    const spdlog::memory_buf_t& text() const { return buffer_; }
    long count() const { return count_; }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        buffer_.clear();
        formatter_->format(msg, buffer_);
        ++count_;
    }
    void flush_() override {}

private:
    spdlog::memory_buf_t buffer_;
    long count_ = 0;
};

// The file sink of the latency case: basic_file_sink's own code (it is
// final), counting what it wrote so that the producer can wait for the drain
// (the count is the worker's, after the write).
class SpdlogCountingFileSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit SpdlogCountingFileSink(const std::string& path) { file_.open(path, true); }
    unsigned long long count() const { return count_.load(std::memory_order_acquire); }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        spdlog::memory_buf_t formatted;
        formatter_->format(msg, formatted);
        file_.write(formatted);
        count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    void flush_() override { file_.flush(); }

private:
    spdlog::details::file_helper file_;
    std::atomic<unsigned long long> count_{0};
};

// Queue slots for a flood of `events`: enough for all of them (a power of
// two, at least spdlog's default).
size_t spdlogQueueSlots(long events) {
    size_t slots = spdlog::details::default_async_q_size;
    while (slots < static_cast<size_t>(events)) slots <<= 1;
    return slots;
}

class Spdlog : public Contender {
public:
    const char* name() const override { return "spdlog"; }
    const char* level() const override { return "info"; }
    bool hasLatency() const override { return true; }

    template <Payload P>
    static void emit(spdlog::logger* logger, int id) {
        if constexpr (P == Payload::Kib)
            logger->info("iteration {} value {}", id, gKib);
        else if constexpr (P == Payload::Args8)
            logger->info("iteration {} value {} a {} b {} c {} d {} e {} f {}", id, "short", BENCH_ARGS8_VALUES);
        else
            logger->info("iteration {} value {}", id, "short");
    }

    static const char* loggerName(Payload p) { return p == Payload::Deep ? kDeepName : kLoggerName; }

    double disabled(long n) override {
        spdlog::logger logger(kDisabledName, std::make_shared<SpdlogDiscardSink>());
        logger.set_level(spdlog::level::warn);
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) {
            compilerBarrier();
            logger.debug("iteration {} value {}", static_cast<int>(i), "short");
        }
        return nsSince(start) / static_cast<double>(n);
    }

    double format(long n) override {
        auto sink = std::make_shared<SpdlogDiscardSink>();
        spdlog::logger logger(kLoggerName, sink);
        logger.set_pattern(kSpdlogPattern);
        logger.set_level(spdlog::level::info);
        for (long i = 0; i < counts.warm; ++i) emit<Payload::Short>(&logger, static_cast<int>(i));
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) emit<Payload::Short>(&logger, static_cast<int>(i));
        const double ns = nsSince(start) / static_cast<double>(n);
        if (sink->count() != counts.warm + n) fail(name(), "the discarding sink missed events");
        return ns;
    }

    Timing fileSync(const std::string& path, int threads, long n, Payload p) override {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger = std::make_shared<spdlog::logger>(loggerName(p), sink);
        logger->set_pattern(kSpdlogPattern);
        logger->set_level(spdlog::level::info);
        spdlog::logger* l = logger.get();
        return withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [l](int id) { emit<P>(l, id); }, [l] { l->flush(); });
        });
    }

    AsyncFigures fileAsync(const std::string& path, int threads, long n, Payload p) override {
        auto pool = std::make_shared<spdlog::details::thread_pool>(spdlogQueueSlots(threads * (counts.warm + n)), 1);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger =
            std::make_shared<spdlog::async_logger>(loggerName(p), sink, pool, spdlog::async_overflow_policy::block);
        logger->set_pattern(kSpdlogPattern);
        logger->set_level(spdlog::level::info);
        spdlog::logger* l = logger.get();
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [l](int id) { emit<P>(l, id); }, [&] {
                // The queued messages hold the logger; the pool's destructor
                // lets its worker finish the queue and joins it.
                logger.reset();
                pool.reset();
                sink->flush();
            });
        });
        return asyncFigures(timing);
    }

    void latency(const std::string& path, std::vector<uint32_t>& ticks) override {
        // spdlog's default queue: a burst fits, and the slots stay warm.
        auto pool = std::make_shared<spdlog::details::thread_pool>(spdlog::details::default_async_q_size, 1);
        auto sink = std::make_shared<SpdlogCountingFileSink>(path);
        auto logger =
            std::make_shared<spdlog::async_logger>(kLoggerName, sink, pool, spdlog::async_overflow_policy::block);
        logger->set_pattern(kSpdlogPattern);
        logger->set_level(spdlog::level::info);
        spdlog::logger* l = logger.get();
        SpdlogCountingFileSink* s = sink.get();
        timeBursts(
            counts.bursts, ticks, [l](int id) { emit<Payload::Short>(l, id); },
            [s](int id) {
                awaitCount([s] { return s->count(); }, static_cast<unsigned long long>(id), "spdlog");
            });
        logger.reset();
        pool.reset();
        sink->flush();
    }

    std::string sample(const std::string&) override {
        auto sink = std::make_shared<SpdlogDiscardSink>();
        spdlog::logger logger(kLoggerName, sink);
        logger.set_pattern(kSpdlogPattern);
        logger.info("iteration {} value {}", 42, "short");
        return std::string(sink->text().data(), sink->text().size());
    }
};

#endif  // ZVLOG_BENCH_HAVE_SPDLOG

// --- quill ---------------------------------------------------------------------

#ifdef ZVLOG_BENCH_HAVE_QUILL

std::atomic<int> gQuillQueueGrowths{0};

class Quill : public Contender {
public:
    ~Quill() override {
        if (started_) quill::Backend::stop();
    }
    const char* name() const override { return "quill"; }
    bool hasSync() const override { return false; }
    bool hasLatency() const override { return true; }
    bool keepsThread() const override { return true; }

    template <Payload P>
    static void emit(quill::Logger* logger, int id) {
        if constexpr (P == Payload::Kib)
            QUILL_LOG_INFO(logger, "iteration {} value {}", id, gKib);
        else if constexpr (P == Payload::Args8)
            QUILL_LOG_INFO(logger, "iteration {} value {} a {} b {} c {} d {} e {} f {}", id, "short",
                           BENCH_ARGS8_VALUES);
        else
            QUILL_LOG_INFO(logger, "iteration {} value {}", id, "short");
    }

    // The backend thread starts with quill's first case. Its notices that
    // a queue grew are counted, not printed; errors go to stderr.
    void start() {
        if (started_) return;
        quill::BackendOptions options;
        options.error_notifier = [](const std::string& text) {
            if (text.find("Allocated a new SPSC queue") != std::string::npos)
                gQuillQueueGrowths.fetch_add(1, std::memory_order_relaxed);
            else
                std::fprintf(stderr, "quill: %s\n", text.c_str());
        };
        quill::Backend::start(options);
        started_ = true;
    }

    static quill::PatternFormatterOptions pattern() {
        return quill::PatternFormatterOptions{kQuillPattern, kQuillTimePattern};
    }

    // A logger writing `path`, truncated, with the sink's defaults otherwise.
    quill::Logger* openFile(const std::string& path, const char* loggerName) {
        start();
        quill::FileSinkConfig config;
        config.set_open_mode('w');
        auto sink = quill::Frontend::create_or_get_sink<quill::FileSink>(path, config);
        return quill::Frontend::create_or_get_logger(loggerName, std::move(sink), pattern());
    }
    // Waits until the backend has written and flushed every event, then
    // removes the logger, which closes the file.
    static void closeFile(quill::Logger* logger) {
        logger->flush_log();
        quill::Frontend::remove_logger_blocking(logger);
    }

    double disabled(long n) override {
        start();
        auto sink = quill::Frontend::create_or_get_sink<quill::NullSink>("bench.compare.null");
        quill::Logger* logger = quill::Frontend::create_or_get_logger(kDisabledName, std::move(sink), pattern());
        logger->set_log_level(quill::LogLevel::Warning);
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) {
            compilerBarrier();
            QUILL_LOG_DEBUG(logger, "iteration {} value {}", static_cast<int>(i), "short");
        }
        return nsSince(start) / static_cast<double>(n);
    }

    AsyncFigures fileAsync(const std::string& path, int threads, long n, Payload p) override {
        quill::Logger* l = openFile(path, p == Payload::Deep ? kDeepName : kLoggerName);
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [l](int id) { emit<P>(l, id); }, [l] { closeFile(l); });
        });
        return asyncFigures(timing);
    }

    void latency(const std::string& path, std::vector<uint32_t>& ticks) override {
        quill::Logger* l = openFile(path, kLoggerName);
        timeBursts(
            counts.bursts, ticks, [l](int id) { emit<Payload::Short>(l, id); }, [l](int) { l->flush_log(); });
        closeFile(l);
    }

    std::string sample(const std::string& scratch) override {
        quill::Logger* l = openFile(scratch, kLoggerName);
        QUILL_LOG_INFO(l, "iteration {} value {}", 42, "short");
        closeFile(l);
        std::ifstream in(scratch);
        std::string line;
        std::getline(in, line);
        ::unlink(scratch.c_str());
        return line;
    }

private:
    bool started_ = false;
};

#endif  // ZVLOG_BENCH_HAVE_QUILL

// --- log4cxx -------------------------------------------------------------------

#ifdef ZVLOG_BENCH_HAVE_LOG4CXX

// Lays each event out into a reused string and drops it.
class Log4cxxDiscardAppender : public log4cxx::AppenderSkeleton {
public:
    explicit Log4cxxDiscardAppender(const log4cxx::LayoutPtr& layout)
        : log4cxx::AppenderSkeleton(layout), layout_(layout) {}
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool& pool) override {
        text_.clear();
        layout_->format(text_, event, pool);
        ++count_;
    }
    void close() override {}
    bool requiresLayout() const override { return true; }
    const log4cxx::LogString& text() const { return text_; }
    long count() const { return count_; }

private:
    log4cxx::LayoutPtr layout_;
    log4cxx::LogString text_;
    long count_ = 0;
};

class Log4cxx : public Contender {
public:
    Log4cxx() {
        logger_ = log4cxx::Logger::getLogger(kLoggerName);
        off_ = log4cxx::Logger::getLogger(kDisabledName);
        deep_ = log4cxx::Logger::getLogger(kDeepName);
        for (const log4cxx::LoggerPtr& l : {logger_, off_}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        logger_->setLevel(log4cxx::Level::getInfo());
        off_->setLevel(log4cxx::Level::getWarn());
        log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getInfo());
    }
    const char* name() const override { return "log4cxx"; }

    template <Payload P>
    static void emit(const log4cxx::LoggerPtr& logger, int id) {
        if constexpr (P == Payload::Kib)
            LOG4CXX_INFO(logger, "iteration " << id << " value " << gKib);
        else if constexpr (P == Payload::Args8)
            LOG4CXX_INFO(logger, "iteration " << id << " value " << "short" << " a " << 12345 << " b " << 678901234567L
                                              << " c " << "alpha" << " d " << 42u << " e " << -7 << " f " << "omega");
        else
            LOG4CXX_INFO(logger, "iteration " << id << " value " << "short");
    }

    double disabled(long n) override {
        const log4cxx::LoggerPtr& logger = off_;
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) {
            compilerBarrier();
            LOG4CXX_DEBUG(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        }
        return nsSince(start) / static_cast<double>(n);
    }

    static log4cxx::LayoutPtr layout() { return std::make_shared<log4cxx::PatternLayout>(kLog4cxxPattern); }

    double format(long n) override {
        auto sink = std::make_shared<Log4cxxDiscardAppender>(layout());
        logger_->addAppender(sink);
        const log4cxx::LoggerPtr& logger = logger_;
        for (long i = 0; i < counts.warm; ++i) emit<Payload::Short>(logger, static_cast<int>(i));
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) emit<Payload::Short>(logger, static_cast<int>(i));
        const double ns = nsSince(start) / static_cast<double>(n);
        logger_->removeAppender(sink);
        if (sink->count() != counts.warm + n) fail(name(), "the discarding appender missed events");
        return ns;
    }

    static std::shared_ptr<log4cxx::FileAppender> openFile(const std::string& path) {
        auto file = std::make_shared<log4cxx::FileAppender>();
        file->setLayout(layout());
        file->setFile(path);
        file->setAppend(false);
        file->setBufferedIO(true);
        file->setImmediateFlush(false);
        log4cxx::helpers::Pool pool;
        file->activateOptions(pool);
        return file;
    }

    // The appender goes to the root for Deep (the deep logger inherits INFO).
    log4cxx::LoggerPtr holder(Payload p) const {
        return p == Payload::Deep ? log4cxx::Logger::getRootLogger() : logger_;
    }

    Timing fileSync(const std::string& path, int threads, long n, Payload p) override {
        auto file = openFile(path);
        holder(p)->addAppender(file);
        const log4cxx::LoggerPtr logger = p == Payload::Deep ? deep_ : logger_;
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [&logger](int id) { emit<P>(logger, id); }, [&] { file->close(); });
        });
        holder(p)->removeAppender(file);
        return timing;
    }

    AsyncFigures fileAsync(const std::string& path, int threads, long n, Payload p) override {
        auto file = openFile(path);
        auto async = std::make_shared<log4cxx::AsyncAppender>();  // 128 events, blocking when full
        async->addAppender(file);
        holder(p)->addAppender(async);
        const log4cxx::LoggerPtr logger = p == Payload::Deep ? deep_ : logger_;
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [&logger](int id) { emit<P>(logger, id); }, [&] {
                async->close();  // drains the queue and closes the file appender
                file->close();
            });
        });
        holder(p)->removeAppender(async);
        return asyncFigures(timing);
    }

    std::string sample(const std::string&) override {
        auto sink = std::make_shared<Log4cxxDiscardAppender>(layout());
        logger_->addAppender(sink);
        LOG4CXX_INFO(logger_, "iteration " << 42 << " value " << "short");
        logger_->removeAppender(sink);
        return sink->text();
    }

private:
    log4cxx::LoggerPtr logger_;
    log4cxx::LoggerPtr off_;
    log4cxx::LoggerPtr deep_;
};

#endif  // ZVLOG_BENCH_HAVE_LOG4CXX

// --- log4cplus -----------------------------------------------------------------

#ifdef ZVLOG_BENCH_HAVE_LOG4CPLUS

// Lays each event out (into the library's per-thread buffer) and drops it.
class Log4cplusDiscardAppender : public log4cplus::Appender {
public:
    Log4cplusDiscardAppender() { setLayout(std::make_unique<log4cplus::PatternLayout>(kLog4cplusPattern)); }
    ~Log4cplusDiscardAppender() override { destructorImpl(); }
    void close() override { closed = true; }
    const std::string& text() const { return text_; }
    long count() const { return count_; }
    bool keepText = false;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        const log4cplus::tstring& text = formatEvent(event);
        if (keepText) text_ = text;
        ++count_;
    }

private:
    std::string text_;
    long count_ = 0;
};

class Log4cplus : public Contender {
public:
    Log4cplus()
        : logger_(log4cplus::Logger::getInstance(kLoggerName)),
          off_(log4cplus::Logger::getInstance(kDisabledName)),
          deep_(log4cplus::Logger::getInstance(kDeepName)) {
        for (log4cplus::Logger* l : {&logger_, &off_}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        logger_.setLogLevel(log4cplus::INFO_LOG_LEVEL);
        off_.setLogLevel(log4cplus::WARN_LOG_LEVEL);
        log4cplus::Logger::getRoot().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    }
    const char* name() const override { return "log4cplus"; }

    template <Payload P>
    static void emit(const log4cplus::Logger& logger, int id) {
        if constexpr (P == Payload::Kib)
            LOG4CPLUS_INFO(logger, "iteration " << id << " value " << gKib);
        else if constexpr (P == Payload::Args8)
            LOG4CPLUS_INFO(logger, "iteration " << id << " value " << "short" << " a " << 12345 << " b "
                                                << 678901234567L << " c " << "alpha" << " d " << 42u << " e " << -7
                                                << " f " << "omega");
        else
            LOG4CPLUS_INFO(logger, "iteration " << id << " value " << "short");
    }

    double disabled(long n) override {
        const log4cplus::Logger& logger = off_;
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) {
            compilerBarrier();
            LOG4CPLUS_DEBUG(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        }
        return nsSince(start) / static_cast<double>(n);
    }

    double format(long n) override {
        auto* raw = new Log4cplusDiscardAppender;
        log4cplus::SharedAppenderPtr sink(raw);
        logger_.addAppender(sink);
        const log4cplus::Logger& logger = logger_;
        for (long i = 0; i < counts.warm; ++i) emit<Payload::Short>(logger, static_cast<int>(i));
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) emit<Payload::Short>(logger, static_cast<int>(i));
        const double ns = nsSince(start) / static_cast<double>(n);
        logger_.removeAppender(sink);
        if (raw->count() != counts.warm + n) fail(name(), "the discarding appender missed events");
        return ns;
    }

    static log4cplus::SharedAppenderPtr openFile(const std::string& path) {
        log4cplus::SharedAppenderPtr file(new log4cplus::FileAppender(path, std::ios_base::trunc, false));
        file->setLayout(std::make_unique<log4cplus::PatternLayout>(kLog4cplusPattern));
        return file;
    }

    // The appender goes to the root for Deep (the deep logger inherits INFO).
    log4cplus::Logger holder(Payload p) const { return p == Payload::Deep ? log4cplus::Logger::getRoot() : logger_; }

    Timing fileSync(const std::string& path, int threads, long n, Payload p) override {
        log4cplus::SharedAppenderPtr file = openFile(path);
        holder(p).addAppender(file);
        const log4cplus::Logger& logger = p == Payload::Deep ? deep_ : logger_;
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [&logger](int id) { emit<P>(logger, id); }, [&] { file->close(); });
        });
        holder(p).removeAppender(file);
        return timing;
    }

    AsyncFigures fileAsync(const std::string& path, int threads, long n, Payload p) override {
        log4cplus::SharedAppenderPtr file = openFile(path);
        log4cplus::SharedAppenderPtr async(new log4cplus::AsyncAppender(file, 100));  // the default QueueLimit
        holder(p).addAppender(async);
        const log4cplus::Logger& logger = p == Payload::Deep ? deep_ : logger_;
        const Timing timing = withPayload(p, [&](auto tag) {
            constexpr Payload P = decltype(tag)::value;
            return runThreads(threads, n, [&logger](int id) { emit<P>(logger, id); }, [&] {
                async->close();  // drains the queue and joins its thread
                file->close();
            });
        });
        holder(p).removeAppender(async);
        return asyncFigures(timing);
    }

    std::string sample(const std::string&) override {
        auto* raw = new Log4cplusDiscardAppender;
        raw->keepText = true;
        log4cplus::SharedAppenderPtr sink(raw);
        logger_.addAppender(sink);
        LOG4CPLUS_INFO(logger_, "iteration " << 42 << " value " << "short");
        logger_.removeAppender(sink);
        return raw->text();
    }

private:
    log4cplus::Logger logger_;
    log4cplus::Logger off_;
    log4cplus::Logger deep_;
};

#endif  // ZVLOG_BENCH_HAVE_LOG4CPLUS

// --- the run -------------------------------------------------------------------

double median(std::vector<double> v) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// --each: every repetition's figure under each row, to judge a run's noise.
bool gShowEach = false;

struct Options {
    int reps = 3;
    double scale = 1;
    std::string dir = "/tmp";
    std::string libs;   // comma-separated; empty: all
    std::string cases;  // comma-separated case names; empty: all

    static bool listed(const std::string& list, const char* name) {
        if (list.empty()) return true;
        return ("," + list + ",").find("," + std::string(name) + ",") != std::string::npos;
    }
    bool lib(const char* name) const { return listed(libs, name); }
    bool runs(const char* name) const { return listed(cases, name); }
};

constexpr const char* kCaseList = "disabled,format,file1,file2,async,mp,latency,threads,payload";
constexpr const char* kLibList = "zvlog,spdlog,quill,log4cxx,log4cplus";

bool parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a.rfind("--reps=", 0) == 0) {
            o.reps = std::max(1, std::atoi(a.c_str() + 7));
        } else if (a.rfind("--scale=", 0) == 0) {
            o.scale = std::atof(a.c_str() + 8);
            if (!(o.scale > 0)) return false;
        } else if (a == "--each") {
            gShowEach = true;
        } else if (a.rfind("--dir=", 0) == 0) {
            o.dir = a.substr(6);
        } else if (a.rfind("--libs=", 0) == 0) {
            o.libs = a.substr(7);
        } else if (a.rfind("--cases=", 0) == 0) {
            o.cases = a.substr(8);
            std::string rest = o.cases + ",";
            for (size_t at; (at = rest.find(',')) != std::string::npos; rest.erase(0, at + 1))
                if (at > 0 && !Options::listed(kCaseList, rest.substr(0, at).c_str())) return false;
        } else {
            return false;
        }
    }
    return true;
}

// A temporary folder that goes, with whatever is left in it, when the run ends.
class TempDir {
public:
    explicit TempDir(const std::string& parent) {
        std::string templ = parent + "/zvlog-bench-compare-XXXXXX";
        if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp in " + parent + ": " + std::strerror(errno));
        path_ = templ;
    }
    ~TempDir() {
        for (const std::string& f : made_) ::unlink(f.c_str());
        ::rmdir(path_.c_str());
    }
    std::string file(const std::string& name) {
        made_.push_back(path_ + "/" + name);
        return made_.back();
    }

private:
    std::string path_;
    std::vector<std::string> made_;
};

// Checks the file a case wrote, then deletes it.
void verifyAndRemove(const Contender& c, const std::string& path, long expected, Payload p = Payload::Short) {
    std::string why;
    const bool ok = checkFile(path, expected, c.level(), shapeOf(p), why);
    ::unlink(path.c_str());
    if (!ok) fail(c.name(), path + ": " + why);
}

// Figures by row key, then contender, one per repetition.
class Results {
public:
    explicit Results(size_t libs) : libs_(libs) {}
    void add(const std::string& key, size_t lib, double value) {
        if (value < 0) return;
        auto& row = rows_[key];
        if (row.empty()) row.resize(libs_);
        row[lib].push_back(value);
    }
    // Every repetition's figure, in the order they ran.
    std::vector<double> each(const std::string& key, size_t lib) const {
        auto it = rows_.find(key);
        if (it == rows_.end() || lib >= it->second.size()) return {};
        return it->second[lib];
    }
    // The median of a row for one contender, -1 when there is none.
    double median(const std::string& key, size_t lib) const {
        auto it = rows_.find(key);
        if (it == rows_.end() || lib >= it->second.size()) return -1;
        return ::median(it->second[lib]);
    }

private:
    size_t libs_;
    std::map<std::string, std::vector<std::vector<double>>> rows_;
};

struct Row {
    std::string key;
    std::string label;
    const char* targetPeer = nullptr;  // the peer zvlog's target is set against
    double target = 0;                 // zvlog / that peer at most
};

// The median of zvlog's figure over the peer's, repetition by repetition.
// The two figures of a repetition are taken seconds apart, so a change of
// the machine's speed between repetitions (a VM's processors change speed
// by a fifth from one second to the next here) cancels out of each pair.
double pairedRatio(const Results& results, const std::string& key,
                   const std::vector<std::unique_ptr<Contender>>& contenders, const char* peerName) {
    for (size_t k = 1; k < contenders.size(); ++k) {
        if (std::strcmp(contenders[k]->name(), peerName) != 0) continue;
        const std::vector<double> zv = results.each(key, 0), peer = results.each(key, k);
        if (zv.empty() || zv.size() != peer.size()) return -1;
        std::vector<double> ratios;
        for (size_t i = 0; i < zv.size(); ++i)
            if (peer[i] > 0) ratios.push_back(zv[i] / peer[i]);
        return ratios.empty() ? -1 : median(ratios);
    }
    return -1;
}

// One group's table: the medians, the best peer, zvlog over it and the target.
void printTable(const char* title, const std::vector<Row>& rows, const Results& results,
                const std::vector<std::unique_ptr<Contender>>& contenders) {
    bool any = false;
    for (const Row& r : rows)
        for (size_t k = 0; k < contenders.size(); ++k) any = any || results.median(r.key, k) >= 0;
    if (!any) return;
    std::printf("%s\n  %-30s", title, "case");
    for (const auto& c : contenders) std::printf(" %9s", c->name());
    std::printf(" %10s %8s  %s\n", "best peer", "zv/best", "target");
    for (const Row& r : rows) {
        bool has = false;
        for (size_t k = 0; k < contenders.size(); ++k) has = has || results.median(r.key, k) >= 0;
        if (!has) continue;
        std::printf("  %-30s", r.label.c_str());
        double best = -1;
        size_t bestLib = 0;
        for (size_t k = 0; k < contenders.size(); ++k) {
            const double m = results.median(r.key, k);
            if (m < 0) std::printf(" %9s", "-");
            else std::printf(m < 10 ? " %9.2f" : " %9.1f", m);
            if (k > 0 && m > 0 && (best < 0 || m < best)) {
                best = m;
                bestLib = k;
            }
        }
        const double zv = results.median(r.key, 0);
        if (best > 0 && zv >= 0) std::printf(" %10s %8.3f", contenders[bestLib]->name(), zv / best);
        else std::printf(" %10s %8s", "-", "-");
        if (r.targetPeer) {
            double peer = -1;
            for (size_t k = 1; k < contenders.size(); ++k)
                if (std::strcmp(contenders[k]->name(), r.targetPeer) == 0) peer = results.median(r.key, k);
            if (peer > 0 && zv >= 0) {
                const double ratio = zv / peer;
                std::printf("  <=%.1fx %s: %.3f %s", r.target, r.targetPeer, ratio, ratio <= r.target ? "met" : "MISSED");
                const double paired = pairedRatio(results, r.key, contenders, r.targetPeer);
                if (paired > 0) std::printf("; pairs %.3f %s", paired, paired <= r.target ? "met" : "MISSED");
            } else {
                std::printf("  <=%.1fx %s", r.target, r.targetPeer);
            }
        }
        std::printf("\n");
        if (gShowEach) {
            for (size_t k = 0; k < contenders.size(); ++k) {
                const std::vector<double> v = results.each(r.key, k);
                if (v.empty()) continue;
                std::printf("      %-10s", contenders[k]->name());
                for (double x : v) std::printf(" %.1f", x);
                std::printf("\n");
            }
        }
    }
    std::printf("  (ns per event, median of the repetitions; zv/best = zvlog / the fastest peer, below 1 is faster)\n\n");
}

// The floors against the libraries' figures of the same run: what of a
// ratio the library's own work decides, and what the required work bounds.
void printFloors(const Results& results, const std::vector<std::unique_ptr<Contender>>& contenders,
                 const std::vector<double>& write, const std::vector<double>& split,
                 const std::vector<double>& rules, const std::vector<double>& encode,
                 const std::vector<double>& lock) {
    auto peer = [&](const std::string& key, const char* name) {
        for (size_t k = 1; k < contenders.size(); ++k)
            if (std::strcmp(contenders[k]->name(), name) == 0) return results.median(key, k);
        return -1.0;
    };
    const double zvFile = results.median("file1", 0), spFile = peer("file1", "spdlog");
    const double zvProducer = results.median("async1producer", 0), quill = peer("async1producer", "quill");
    if (write.empty() && encode.empty()) return;
    std::printf("floors: the required work by itself, in this run (ns per event, median of the repetitions)\n");
    if (!write.empty()) {
        const double f = median(write);
        std::printf("  %-72s %9.1f\n", "sync file: the same lines into a 4096-byte buffer, one write() per buffer", f);
        if (zvFile > 0 && spFile > 0) {
            std::printf("    above the floor: zvlog %.1f, spdlog %.1f; zvlog / spdlog above it %.3f\n", zvFile - f,
                        spFile - f, (zvFile - f) / (spFile - f));
            std::printf("    the floor alone is %.3f of spdlog's sync file: 0.5 leaves zvlog %.1f ns of its own\n",
                        f / spFile, 0.5 * spFile - f);
        }
        if (!split.empty()) {
            const double s = median(split);
            std::printf("  %-72s %9.1f\n", "  the same bytes in writes of exactly 4096, lines cut (a stdio stream)", s);
            std::printf("    whole records cost %.1f ns per line more\n", f - s);
            if (!rules.empty() && zvFile > 0 && spFile > 0) {
                const double r = median(rules);
                std::printf("  %-72s %9.1f\n", "zvlog: the process-wide sequence number and the logger's lock", r);
                const double own = zvFile - r - (f - s);
                std::printf("    with these and whole records, zvlog's rules add %.1f ns to spdlog's work;\n"
                            "    zvlog's sync file less them is %.1f, %.3f of spdlog's\n",
                            r + f - s, own, own / spFile);
            }
        }
    }
    if (!write.empty() && !encode.empty() && spFile > 0) {
        // A synchronous event also takes the appender's lock.
        const double required = median(write) + median(encode) + median(lock);
        std::printf("    with zvlog's encoding under the logger's lock and the appender's lock (below),\n"
                    "    it is %.3f of spdlog's sync file, leaving %.1f ns for the layout and the rest\n",
                    required / spFile, 0.5 * spFile - required);
    }
    if (!encode.empty()) {
        const double e = median(encode), l = median(lock);
        std::printf("  %-72s %9.1f\n", "zvlog: the event encoded into the thread's buffer, under its logger's lock", e);
        std::printf("  %-72s %9.1f\n", "zvlog: a lock taken and released, uncontended (the appender's, when sync)", l);
        if (zvProducer > 0) std::printf("    zvlog's async producer above the first: %.1f\n", zvProducer - e);
        if (quill > 0)
            std::printf("    the first is %.3f of quill's async producer (the target is 0.8)\n", e / quill);
    }
    std::printf("\n");
}

// The time-stamp counter's ticks per nanosecond, against the steady clock.
double tscPerNs() {
    const Clock::time_point c0 = Clock::now();
    const uint64_t t0 = tscBegin();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const Clock::time_point c1 = Clock::now();
    const uint64_t t1 = tscBegin();
    return static_cast<double>(t1 - t0) / std::chrono::duration<double, std::nano>(c1 - c0).count();
}

// The median ticks of an empty timed pair, measured as timeBursts times a call.
uint64_t timerOverheadTicks() {
    std::vector<uint64_t> v;
    v.reserve(100'000);
    for (int i = 0; i < 100'000; ++i) {
        const uint64_t t0 = tscBegin();
        compilerBarrier();
        v.push_back(tscEnd() - t0);
    }
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// While alive, every thread of the process, and every thread they start,
// runs on one CPU (the first the process may use): a producer then shares
// its processor with the library's consumer thread, as it does whenever the
// other cores are busy. The destructor gives every thread the process's
// former set back.
class OneCpu {
public:
    OneCpu() {
        CPU_ZERO(&saved_);
        if (sched_getaffinity(0, sizeof saved_, &saved_) != 0) return;
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int c = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &saved_)) {
                CPU_SET(c, &one);
                break;
            }
        pinned_ = setAll(one);
    }
    ~OneCpu() {
        if (pinned_) setAll(saved_);
    }
    bool pinned() const { return pinned_; }

private:
    static bool setAll(const cpu_set_t& set) {
        DIR* tasks = ::opendir("/proc/self/task");
        if (!tasks) return false;
        bool ok = true;
        while (const dirent* e = ::readdir(tasks)) {
            if (e->d_name[0] == '.') continue;
            const pid_t tid = static_cast<pid_t>(std::atol(e->d_name));
            if (sched_setaffinity(tid, sizeof set, &set) != 0 && errno != ESRCH) ok = false;
        }
        ::closedir(tasks);
        return ok;
    }
    cpu_set_t saved_;
    bool pinned_ = false;
};

struct Percentiles {
    double p50 = -1, p99 = -1, p999 = -1, max = -1, mean = -1;
    size_t samples = 0;
};

Percentiles percentiles(std::vector<uint32_t> ticks, uint64_t overhead, double perNs) {
    Percentiles p;
    if (ticks.empty()) return p;
    std::sort(ticks.begin(), ticks.end());
    auto ns = [&](uint64_t t) { return static_cast<double>(t > overhead ? t - overhead : 0) / perNs; };
    auto at = [&](double q) {
        return ns(ticks[std::min(ticks.size() - 1, static_cast<size_t>(q * static_cast<double>(ticks.size())))]);
    };
    p.p50 = at(0.5);
    p.p99 = at(0.99);
    p.p999 = at(0.999);
    p.max = ns(ticks.back());
    double sum = 0;
    for (uint32_t t : ticks) sum += ns(t);
    p.mean = sum / static_cast<double>(ticks.size());
    p.samples = ticks.size();
    return p;
}

// One latency table: the percentiles of each library's calls, and zvlog's
// over the best peer's, column by column.
void printLatency(const char* title, const std::vector<std::vector<uint32_t>>& ticks,
                  const std::vector<std::unique_ptr<Contender>>& contenders, uint64_t overhead, double perNs) {
    bool any = false;
    for (const auto& t : ticks) any = any || !t.empty();
    if (!any) return;
    std::printf("%s\n  (ns; bursts of %d calls, each then drained; timer overhead %.1f ns subtracted)\n", title, kBurst,
                static_cast<double>(overhead) / perNs);
    std::printf("  %-30s %9s %9s %9s %9s %9s %9s\n", "library", "p50", "p99", "p99.9", "max", "mean", "samples");
    std::vector<Percentiles> per(contenders.size());
    for (size_t k = 0; k < contenders.size(); ++k) {
        if (ticks[k].empty()) continue;
        per[k] = percentiles(ticks[k], overhead, perNs);
        const Percentiles& p = per[k];
        std::printf("  %-30s %9.1f %9.1f %9.1f %9.0f %9.1f %9zu\n", contenders[k]->name(), p.p50, p.p99, p.p999, p.max,
                    p.mean, p.samples);
    }
    if (per[0].samples) {
        std::printf("  %-30s", "zvlog / best peer");
        for (double Percentiles::*f :
             {&Percentiles::p50, &Percentiles::p99, &Percentiles::p999, &Percentiles::max, &Percentiles::mean}) {
            double best = -1;
            for (size_t k = 1; k < per.size(); ++k)
                if (per[k].samples && per[k].*f > 0 && (best < 0 || per[k].*f < best)) best = per[k].*f;
            if (best > 0) std::printf(" %9.3f", per[0].*f / best);
            else std::printf(" %9s", "-");
        }
        std::printf("\n");
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    // A writing process of the two-process case: --child PATH N BASE WARM.
    if (argc == 6 && std::strcmp(argv[1], "--child") == 0) {
        counts.warm = std::atol(argv[5]);
        return runChild(argv[2], std::atol(argv[3]), std::atol(argv[4]));
    }
    Options opt;
    if (!parseOptions(argc, argv, opt)) {
        std::fprintf(stderr, "usage: %s [--reps=N] [--scale=F] [--each] [--dir=DIR] [--libs=%s]\n          [--cases=%s]\n",
                     argv[0], kLibList, kCaseList);
        return 2;
    }
    auto scaled = [&](long n) { return std::max(1L, static_cast<long>(static_cast<double>(n) * opt.scale)); };
    for (long* n : {&counts.disabled, &counts.format, &counts.file, &counts.async, &counts.kib, &counts.args8,
                    &counts.deep, &counts.bursts})
        *n = scaled(*n);
    // Four threads split the events evenly.
    counts.file -= counts.file % 4;
    counts.async -= counts.async % 4;

    gKibText.reserve(1024);
    for (int i = 0; gKibText.size() < 1024; ++i) gKibText.push_back("abcdefghijklmnopqrstuvwxyz0123456789"[i % 36]);
    gKib = gKibText.c_str();

#ifdef ZVLOG_BENCH_HAVE_LOG4CPLUS
    log4cplus::Initializer log4cplusInit;
#endif

    std::vector<std::unique_ptr<Contender>> contenders;
    contenders.push_back(std::make_unique<Zvlog>());
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    contenders.push_back(std::make_unique<Spdlog>());
#endif
#ifdef ZVLOG_BENCH_HAVE_QUILL
    if (opt.lib("quill")) contenders.push_back(std::make_unique<Quill>());
#endif
#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
    contenders.push_back(std::make_unique<Log4cxx>());
#endif
#ifdef ZVLOG_BENCH_HAVE_LOG4CPLUS
    contenders.push_back(std::make_unique<Log4cplus>());
#endif

    // Destroyed before the contenders: the workers' thread-local state goes
    // while every library is still there.
    Workers workers;
    gWorkers = &workers;

    std::string self(4096, '\0');
    const ssize_t selfLength = ::readlink("/proc/self/exe", self.data(), self.size() - 1);
    self.resize(selfLength > 0 ? static_cast<size_t>(selfLength) : 0);

    TempDir tmp(opt.dir);
    auto printSample = [&](Contender& c) {
        std::string s = c.sample(tmp.file(std::string(c.name()) + "-sample.log"));
        while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
        std::printf("  %-10s %s\n", c.name(), s.c_str());
        std::fflush(stdout);
    };
    std::printf("The record of every library:\n");
    try {
        for (auto& c : contenders)
            if (opt.lib(c->name()) && !c->keepsThread()) printSample(*c);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_compare: %s\n", e.what());
        return 1;
    }
#ifdef ZVLOG_BENCH_SPDLOG_HEADER_ONLY
    std::printf("spdlog: header-only\n");
#elif defined(ZVLOG_BENCH_HAVE_SPDLOG)
    std::printf("spdlog: the compiled library\n");
#endif
    std::printf("events: disabled %ld, format %ld, file %ld, async %ld (2 and 4 threads: split evenly),\n"
                "        1 KiB string %ld, 8 arguments %ld, deep logger %ld, latency %ld x %d; %d repetitions\n",
                counts.disabled, counts.format, counts.file, counts.async, counts.kib, counts.args8, counts.deep,
                counts.bursts, kBurst, opt.reps);
    std::fflush(stdout);

    Results results(contenders.size());
    std::vector<std::vector<uint32_t>> latencyTicks(contenders.size()), latencyOneCpu(contenders.size());
    // zvlog alone: the file appender (multi-process safe) and the
    // single-process baseline, measured in adjacent pairs (the order swapped
    // from pair to pair) so that each ratio compares like with like on a busy
    // machine; two processes on one file.
    constexpr int kPairsPerRep = 3;
    std::vector<double> zvFile, zvFileCpu, zvBaseline, zvBaselineCpu, pairRatio, pairRatioCpu, zvTwoProcesses;
    std::vector<double> floorWrite, floorSplit, floorRules, floorEncode, floorLock;

    const bool threadCases = opt.runs("threads");
    const bool payloadCases = opt.runs("payload");
    struct PayloadCase {
        Payload payload;
        const char* key;
    };
    const PayloadCase payloads[] = {{Payload::Kib, "kib"}, {Payload::Args8, "args8"}, {Payload::Deep, "deep"}};
    try {
        // Phase 0: every library but those whose thread outlives their cases
        // (quill's backend polls every 100 us while idle, about a tenth of a
        // core here); phase 1: those, with their record printed as they start.
        for (int phase = 0; phase < 2; ++phase) {
            bool started = false;
            for (int rep = 0; rep < opt.reps; ++rep) {
                const std::string r = "-" + std::to_string(rep);
                // Case by case, every library in turn (in the opposite order every
                // other repetition): the figures of one case are taken close
                // together, and no library always goes first.
                for (int group = 0; group < 5; ++group) {
                    for (size_t turn = 0; turn < contenders.size(); ++turn) {
                        const size_t k = rep % 2 == 0 ? turn : contenders.size() - 1 - turn;
                        Contender& c = *contenders[k];
                        if (!opt.lib(c.name()) || c.keepsThread() != (phase == 1)) continue;
                        if (phase == 1 && rep == 0 && group == 0) {
                            if (!started) std::printf("started after the others' cases:\n");
                            started = true;
                            printSample(c);
                        }
                        const std::string who = c.name();
                        switch (group) {
                            case 0: {
                                if (opt.runs("disabled"))
                                    results.add("disabled", k, c.disabled(counts.disabled));
                                if (opt.runs("format")) results.add("format", k, c.format(counts.format));
                                break;
                            }
                            case 1: {
                                // The synchronous file from 1, 2 (and 4) threads.
                                for (int threads : {1, 2, 4}) {
                                    const bool wanted = threads == 1   ? opt.runs("file1") || threadCases
                                                        : threads == 2 ? opt.runs("file2") || threadCases
                                                                       : threadCases;
                                    if (!wanted || !c.hasSync()) continue;
                                    const std::string key = "file" + std::to_string(threads);
                                    const std::string path =
                                        tmp.file(who + "-sync" + std::to_string(threads) + r + ".log");
                                    const Timing t =
                                        c.fileSync(path, threads, counts.file / threads, Payload::Short);
                                    results.add(key, k, t.wall);
                                    results.add(key + "cpu", k, t.cpu);
                                    verifyAndRemove(c, path, threads * (counts.warm + counts.file / threads));
                                }
                                break;
                            }
                            case 2: {
                                // The asynchronous file from 1 (2 and 4) threads.
                                for (int threads : {1, 2, 4}) {
                                    const bool wanted =
                                        threads == 1 ? opt.runs("async") || threadCases : threadCases;
                                    if (!wanted) continue;
                                    const std::string key = "async" + std::to_string(threads);
                                    const std::string path =
                                        tmp.file(who + "-async" + std::to_string(threads) + r + ".log");
                                    const AsyncFigures a =
                                        c.fileAsync(path, threads, counts.async / threads, Payload::Short);
                                    results.add(key + "producer", k, a.producer);
                                    results.add(key + "cpu", k, a.producerCpu);
                                    results.add(key + "total", k, a.total);
                                    verifyAndRemove(c, path, threads * (counts.warm + counts.async / threads));
                                }
                                break;
                            }
                            case 3: {
                                if (payloadCases) {
                                    for (const PayloadCase& pc : payloads) {
                                        const long n = eventsOf(pc.payload);
                                        const std::string key = pc.key;
                                        if (c.hasSync()) {
                                            const std::string path =
                                                tmp.file(who + "-" + key + "-sync" + r + ".log");
                                            const Timing t = c.fileSync(path, 1, n, pc.payload);
                                            results.add(key + "sync", k, t.wall);
                                            verifyAndRemove(c, path, counts.warm + n, pc.payload);
                                        }
                                        const std::string path =
                                            tmp.file(who + "-" + key + "-async" + r + ".log");
                                        const AsyncFigures a = c.fileAsync(path, 1, n, pc.payload);
                                        results.add(key + "producer", k, a.producer);
                                        results.add(key + "total", k, a.total);
                                        verifyAndRemove(c, path, counts.warm + n, pc.payload);
                                    }
                                }
                                break;
                            }
                            case 4: {
                                if (opt.runs("latency") && c.hasLatency()) {
                                    const std::string path = tmp.file(who + "-latency" + r + ".log");
                                    latencyTicks[k].reserve(
                                        static_cast<size_t>(opt.reps * counts.bursts * kBurst));
                                    c.latency(path, latencyTicks[k]);
                                    verifyAndRemove(c, path, latencyEvents());
                                    const OneCpu oneCpu;
                                    if (oneCpu.pinned()) {
                                        const std::string pinnedPath =
                                            tmp.file(who + "-latency1cpu" + r + ".log");
                                        latencyOneCpu[k].reserve(latencyTicks[k].capacity());
                                        c.latency(pinnedPath, latencyOneCpu[k]);
                                        verifyAndRemove(c, pinnedPath, latencyEvents());
                                    }
                                }
                                break;
                            }
                        }
                    }
                    // The floors, next to the cases they bound.
                    if (phase == 0 && group == 1 && opt.runs("file1")) {
                        const std::string path = tmp.file("floor-write" + r + ".log");
                        floorWrite.push_back(writeFloor(path, counts.file, false).wall);
                        verifyAndRemove(*contenders[0], path, counts.warm + counts.file);
                        floorSplit.push_back(writeFloor(path, counts.file, true).wall);
                        verifyAndRemove(*contenders[0], path, counts.warm + counts.file);
                        if (opt.lib("zvlog")) floorRules.push_back(rulesFloor(counts.file));
                    }
                    if (phase == 0 && group == 2 && opt.runs("async") && opt.lib("zvlog")) {
                        floorEncode.push_back(encodeFloor(counts.async));
                        floorLock.push_back(lockFloor(counts.async));
                    }
                }
                if (phase == 1 || !opt.runs("mp") || !opt.lib("zvlog")) continue;
                Contender& zv = *contenders[0];
                for (int pair = 0; pair < kPairsPerRep; ++pair) {
                    Timing file, base;
                    for (int turn = 0; turn < 2; ++turn) {
                        if ((turn + pair + rep) % 2 == 0) {
                            const std::string path = tmp.file("zvlog-file" + r + ".log");
                            file = zv.fileSync(path, 1, counts.file, Payload::Short);
                            verifyAndRemove(zv, path, counts.warm + counts.file);
                        } else {
                            const std::string path = tmp.file("zvlog-stdio" + r + ".log");
                            base = zvlogStdioBaseline(path, counts.file);
                            verifyAndRemove(zv, path, counts.warm + counts.file);
                        }
                    }
                    zvFile.push_back(file.wall);
                    zvFileCpu.push_back(file.cpu);
                    zvBaseline.push_back(base.wall);
                    zvBaselineCpu.push_back(base.cpu);
                    pairRatio.push_back(file.wall / base.wall);
                    pairRatioCpu.push_back(file.cpu / base.cpu);
                }
                if (!self.empty()) {
                    const std::string path = tmp.file("zvlog-2proc" + r + ".log");
                    zvTwoProcesses.push_back(zvlogTwoProcesses(self, path, counts.file / 2));
                    verifyAndRemove(zv, path, 2 * (counts.warm + counts.file / 2));
                }
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_compare: %s\n", e.what());
        return 1;
    }
    std::printf("\n");
#ifdef ZVLOG_BENCH_HAVE_QUILL
    if (const int grown = gQuillQueueGrowths.load())
        std::printf("quill grew its frontend queues %d times (its unbounded queue doubling, 128 KiB first)\n\n", grown);
#endif

    printTable("main cases", {{"disabled", "disabled call"},
                              {"format", "format, discard", "spdlog", 0.5},
                              {"file1", "sync file, 1 thread", "spdlog", 0.5},
                              {"file1cpu", "  thread CPU"},
                              {"file2", "sync file, 2 threads", "spdlog", 0.5},
                              {"file2cpu", "  threads' CPU"},
                              {"async1producer", "async file, producer", "quill", 0.8},
                              {"async1cpu", "  producer thread CPU"},
                              {"async1total", "async file, total", "quill", 0.5}},
               results, contenders);

    printFloors(results, contenders, floorWrite, floorSplit, floorRules, floorEncode, floorLock);

    if (opt.runs("latency")) {
        const double perNs = tscPerNs();
        const uint64_t overhead = timerOverheadTicks();
        printLatency("async producer latency per call", latencyTicks, contenders, overhead, perNs);
        printLatency("the same with every thread of the process on one CPU (as when the other core is busy)",
                     latencyOneCpu, contenders, overhead, perNs);
    }

    printTable("threads: one logger, the events split among 1, 2 and 4 threads (4 oversubscribes 2 cores)",
               {{"file1", "sync file, 1 thread"},
                {"file2", "sync file, 2 threads"},
                {"file4", "sync file, 4 threads"},
                {"async1producer", "async producer, 1 thread"},
                {"async2producer", "async producer, 2 threads"},
                {"async4producer", "async producer, 4 threads"},
                {"async1total", "async total, 1 thread"},
                {"async2total", "async total, 2 threads"},
                {"async4total", "async total, 4 threads"}},
               results, contenders);

    printTable("payload: one thread; a 1 KiB string, 8 arguments, a logger 5 levels deep (appenders at the root)",
               {{"kibsync", "1 KiB string, sync file"},
                {"kibproducer", "1 KiB string, async producer"},
                {"kibtotal", "1 KiB string, async total"},
                {"args8sync", "8 arguments, sync file"},
                {"args8producer", "8 arguments, async producer"},
                {"args8total", "8 arguments, async total"},
                {"deepsync", "a.b.c.d.e, sync file"},
                {"deepproducer", "a.b.c.d.e, async producer"},
                {"deeptotal", "a.b.c.d.e, async total"}},
               results, contenders);

    if (!zvFile.empty()) {
        const double ratio = median(pairRatio);
        std::printf("zvlog file paths, one thread unless noted (ns per event, median of %zu; wall / thread CPU)\n",
                    zvFile.size());
        std::printf("  %-72s %9.2f %9.2f\n",
                    "FileAppender, multi-process safe (O_APPEND, one write() per 4096-byte buffer)", median(zvFile),
                    median(zvFileCpu));
        std::printf("  %-72s\n  %-72s %9.2f %9.2f\n",
                    "baseline, one process only: WriterAppender on a private stdio stream,",
                    "  4096-byte buffer, never locked or sought", median(zvBaseline), median(zvBaselineCpu));
        std::printf("  %-72s %9.3f %9.3f   <=1.2%s\n", "ratio FileAppender / baseline (median of the pairs' ratios)",
                    ratio, median(pairRatioCpu), ratio <= 1.2 ? "  met" : "  MISSED");
        if (!zvTwoProcesses.empty())
            std::printf("  %-72s %9.2f\n", "FileAppender, 2 processes appending to one file (events over wall time)",
                        median(zvTwoProcesses));
        const double two = results.median("file2", 0);
        if (two >= 0) std::printf("  %-72s %9.2f\n", "FileAppender, 2 threads in one process (the table above)", two);
        std::printf("\n");
    }
    std::printf("Every file was checked line by line (count, shape, each id exactly once), then deleted.\n");
    return 0;
}
