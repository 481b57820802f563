// zvlog beside spdlog, log4cxx and log4cplus, one run, one record:
//
//   "<date with milliseconds> INFO bench.compare - iteration <int> value short"
//
// Cases (ns per event, wall time):
//   disabled         a DEBUG call on a logger at WARN
//   format           an appender/sink that lays the event out with its pattern
//                    layout into a reused string and drops the text
//   sync file        a synchronous appender writing a buffered file, from one
//                    thread, then from two threads on one logger (all events
//                    over wall time); the time includes the final flush
//   async producer   the logging calls while an asynchronous appender writes
//                    the file on its own thread: one flood of events, as wall
//                    time and as the logging thread's CPU time
//   async total      from the first call until every event is in the file
//                    (drained, flushed, closed)
//   zvlog file paths zvlog alone: its FileAppender, which is always safe for
//                    several processes (an O_APPEND descriptor and one write()
//                    of whole records per buffer; it has no single-process
//                    mode), against a plain single-process path of the same
//                    buffering (its WriterAppender on a private stdio stream
//                    with a 4096-byte buffer, never locked or sought); and two
//                    processes appending to one file
//
// Each peer is driven through its own idiomatic API: spdlog's fmt-style
// calls, a base_sink<null_mutex>, basic_file_sink_mt and an async_logger on a
// thread pool of spdlog's defaults; log4cxx's and log4cplus's stream macros,
// PatternLayout, FileAppender (log4cxx: BufferedIO, no ImmediateFlush;
// log4cplus: no immediateFlush) and AsyncAppender with its default queue.
// Buffers are each library's default: zvlog 4096 bytes, spdlog the stdio
// stream's (the file system block, 4096 here), log4cxx 8 KiB, log4cplus the
// filebuf's (8 KiB).
//
// The file cases check every line of the file afterwards (count, shape, each
// id exactly once: a figure from a sink that lost or mangled records is
// worthless) and delete it. Each case runs --reps times (3 by default) and
// the table shows the medians.
//
//   bench_compare [--reps=N] [--scale=F] [--dir=DIR]
//                 [--libs=zvlog,spdlog,log4cxx,log4cplus]
//                 [--cases=disabled,format,file1,file2,async,mp]
//
// --scale multiplies the event counts; --dir is where the temporary folder
// for the files goes (default /tmp); --libs and --cases pick what runs (for
// profiling one case alone). The run takes about 10 s on two cores.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "zvlog/FileAppender.h"
#include "zvlog/zvlog.h"

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
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

// The same line from every library; only the line end differs (zvlog's
// "%n" is "\r\n", the others print "\n").
constexpr const char* kZvlogPattern = "%d{%Y-%m-%d %H:%M:%S} %p %c - %m%n";  // "%S" carries ".mmm"
constexpr const char* kSpdlogPattern = "%Y-%m-%d %H:%M:%S.%e %* %n - %v";   // "%*": upper-case level
constexpr const char* kLog4cxxPattern = "%d{yyyy-MM-dd HH:mm:ss.SSS} %p %c - %m%n";
constexpr const char* kLog4cplusPattern = "%D{%Y-%m-%d %H:%M:%S.%q} %p %c - %m%n";

// Event counts (before --scale).
struct Counts {
    long disabled = 20'000'000;
    long format = 200'000;
    long file = 200'000;   // per thread in the two-thread case: half of it
    long async = 200'000;
    long warm = 2'000;     // untimed events before each timed loop
};
Counts counts;

inline void compilerBarrier() { asm volatile("" ::: "memory"); }

double nsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// --- the file check ----------------------------------------------------------

// Every line must read "yyyy-mm-dd hh:mm:ss.mmm INFO bench.compare - iteration
// <id> value short" (optionally "\r" before the "\n"), and the ids must be
// exactly 0 .. expected-1, each once: nothing lost, doubled or interleaved.
bool checkFile(const std::string& path, long expected, std::string& why) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        why = "cannot open " + path;
        return false;
    }
    static constexpr std::string_view kMiddle = " INFO bench.compare - iteration ";
    static constexpr std::string_view kEnd = " value short";
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
        if (dateOk && rest.substr(0, kMiddle.size()) == kMiddle) {
            const char* p = rest.data() + kMiddle.size();
            char* end = nullptr;
            id = std::strtol(p, &end, 10);
            if (end == p || std::string_view(end, static_cast<size_t>(rest.data() + rest.size() - end)) != kEnd)
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

// A synchronous case: wall time per event, and the logging threads' CPU time
// per event (their timed loops only; robust against preemption by other
// processes, and it includes the time spent in write()).
struct Timing {
    double wall = -1;
    double cpu = -1;
};

struct AsyncFigures {
    double producer = -1;     // ns per logging call
    double producerCpu = -1;  // the logging thread's CPU time per call
    double total = -1;        // ns per event until the file is complete
};

// The calling thread's CPU time: unlike the wall clock it leaves out the
// time the producer waits for a full queue or is preempted, e.g. by the
// delivery thread on a busy machine.
double threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// One library. The loops live in the overrides, so nothing virtual sits on
// the timed path. A failure throws std::runtime_error with the reason.
class Contender {
public:
    virtual ~Contender() = default;
    virtual const char* name() const = 0;
    virtual double disabled(long n) = 0;
    virtual double format(long n) = 0;
    // Each of `threads` threads logs warm then n events: ids t*(warm+n) ...
    virtual Timing fileSync(const std::string& path, int threads, long n) = 0;
    virtual AsyncFigures fileAsync(const std::string& path, long n) = 0;
    // One formatted line, for the sample printed at the start.
    virtual std::string sample() = 0;
};

// Runs the threads of a synchronous file case and times them from the moment
// all have warmed up until all are done, plus `finish` (the flush).
template <class Log>
Timing runThreads(int threads, long n, Log&& log, const std::function<void()>& finish) {
    std::latch ready(threads);
    std::latch go(1);
    std::vector<double> cpu(static_cast<size_t>(threads), 0);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            const long base = t * (counts.warm + n);
            for (long i = 0; i < counts.warm; ++i) log(static_cast<int>(base + i));
            ready.count_down();
            go.wait();
            const double cpuStart = threadCpuNs();
            for (long i = 0; i < n; ++i) log(static_cast<int>(base + counts.warm + i));
            cpu[static_cast<size_t>(t)] = threadCpuNs() - cpuStart;
        });
    }
    ready.wait();
    const Clock::time_point start = Clock::now();
    go.count_down();
    for (std::thread& th : pool) th.join();
    finish();
    const double events = static_cast<double>(threads * n);
    Timing timing;
    timing.wall = nsSince(start) / events;
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
        for (zl::Logger* l : {logger_, off_}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        logger_->setLevel(zl::LEVEL_INFO);
        off_->setLevel(zl::LEVEL_WARN);
    }
    const char* name() const override { return "zvlog"; }

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
        for (long i = 0; i < counts.warm; ++i) ZVLOG_INFO(logger, "iteration %d value %s", static_cast<int>(i), "short");
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) ZVLOG_INFO(logger, "iteration %d value %s", static_cast<int>(i), "short");
        const double ns = nsSince(start) / static_cast<double>(n);
        logger_->removeAppender(sink);
        if (sink.count() != counts.warm + n) fail(name(), "the discarding appender missed events");
        return ns;
    }

    // A file appender writing `path`, truncated, with its default buffering.
    std::unique_ptr<zl::FileAppender> openFile(const std::string& path) {
        auto file = std::make_unique<zl::FileAppender>("bench.compare.file");
        file->setLayout(new zl::PatternLayout(kZvlogPattern));  // the appender owns it
        file->setFile(path.c_str());
        file->setAppend(false);
        file->setBufferedIO(true);
        file->activateOptions();
        return file;
    }

    Timing fileSync(const std::string& path, int threads, long n) override {
        auto file = openFile(path);
        logger_->addAppender(*file);
        zl::Logger* logger = logger_;
        const Timing timing = runThreads(
            threads, n, [logger](int id) { ZVLOG_INFO(logger, "iteration %d value %s", id, "short"); },
            [&] { file->close(); });
        logger_->removeAppender(*file);
        return timing;
    }

    AsyncFigures fileAsync(const std::string& path, long n) override {
        auto file = openFile(path);
        file->setAsynchronous(true);
        logger_->addAppender(*file);
        zl::Logger* logger = logger_;
        for (long i = 0; i < counts.warm; ++i) ZVLOG_INFO(logger, "iteration %d value %s", static_cast<int>(i), "short");
        AsyncFigures f;
        const double cpuStart = threadCpuNs();
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i)
            ZVLOG_INFO(logger, "iteration %d value %s", static_cast<int>(counts.warm + i), "short");
        f.producer = nsSince(start) / static_cast<double>(n);
        f.producerCpu = (threadCpuNs() - cpuStart) / static_cast<double>(n);
        file->setAsynchronous(false);  // delivers what is queued
        file->close();
        f.total = nsSince(start) / static_cast<double>(n);
        logger_->removeAppender(*file);
        return f;
    }

    std::string sample() override {
        ZvDiscardAppender sink;
        logger_->addAppender(sink);
        ZVLOG_INFO(logger_, "iteration %d value %s", 42, "short");
        logger_->removeAppender(sink);
        return sink.text();
    }

private:
    zl::Logger* logger_ = nullptr;
    zl::Logger* off_ = nullptr;
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

// "%*": the level in capitals, as the other three print it. A custom flag is
// dispatched like every built-in one (a virtual call per flag), so it costs
// what "%l" costs.
class UpperLevelFlag : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest) override {
        static constexpr std::string_view kNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "OFF"};
        const std::string_view n = kNames[static_cast<int>(msg.level)];
        dest.append(n.data(), n.data() + n.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<UpperLevelFlag>(); }
};

std::unique_ptr<spdlog::formatter> spdlogFormatter() {
    auto f = std::make_unique<spdlog::pattern_formatter>();
    f->add_flag<UpperLevelFlag>('*').set_pattern(kSpdlogPattern);
    return f;
}

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

class Spdlog : public Contender {
public:
    const char* name() const override { return "spdlog"; }

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
        logger.set_formatter(spdlogFormatter());
        logger.set_level(spdlog::level::info);
        for (long i = 0; i < counts.warm; ++i) logger.info("iteration {} value {}", static_cast<int>(i), "short");
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) logger.info("iteration {} value {}", static_cast<int>(i), "short");
        const double ns = nsSince(start) / static_cast<double>(n);
        if (sink->count() != counts.warm + n) fail(name(), "the discarding sink missed events");
        return ns;
    }

    Timing fileSync(const std::string& path, int threads, long n) override {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger = std::make_shared<spdlog::logger>(kLoggerName, sink);
        logger->set_formatter(spdlogFormatter());
        logger->set_level(spdlog::level::info);
        spdlog::logger* l = logger.get();
        return runThreads(
            threads, n, [l](int id) { l->info("iteration {} value {}", id, "short"); }, [l] { l->flush(); });
    }

    AsyncFigures fileAsync(const std::string& path, long n) override {
        // spdlog's default pool: 8192 slots, one worker, blocking when full.
        auto pool = std::make_shared<spdlog::details::thread_pool>(spdlog::details::default_async_q_size, 1);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger = std::make_shared<spdlog::async_logger>(kLoggerName, sink, pool);
        logger->set_formatter(spdlogFormatter());
        logger->set_level(spdlog::level::info);
        for (long i = 0; i < counts.warm; ++i) logger->info("iteration {} value {}", static_cast<int>(i), "short");
        AsyncFigures f;
        const double cpuStart = threadCpuNs();
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i)
            logger->info("iteration {} value {}", static_cast<int>(counts.warm + i), "short");
        f.producer = nsSince(start) / static_cast<double>(n);
        f.producerCpu = (threadCpuNs() - cpuStart) / static_cast<double>(n);
        // The pool's destructor lets its worker finish the queue and joins it.
        logger.reset();
        pool.reset();
        sink->flush();
        f.total = nsSince(start) / static_cast<double>(n);
        return f;
    }

    std::string sample() override {
        auto sink = std::make_shared<SpdlogDiscardSink>();
        spdlog::logger logger(kLoggerName, sink);
        logger.set_formatter(spdlogFormatter());
        logger.info("iteration {} value {}", 42, "short");
        return std::string(sink->text().data(), sink->text().size());
    }
};

#endif  // ZVLOG_BENCH_HAVE_SPDLOG

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
        for (const log4cxx::LoggerPtr& l : {logger_, off_}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        logger_->setLevel(log4cxx::Level::getInfo());
        off_->setLevel(log4cxx::Level::getWarn());
    }
    const char* name() const override { return "log4cxx"; }

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
        for (long i = 0; i < counts.warm; ++i)
            LOG4CXX_INFO(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) LOG4CXX_INFO(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        const double ns = nsSince(start) / static_cast<double>(n);
        logger_->removeAppender(sink);
        if (sink->count() != counts.warm + n) fail(name(), "the discarding appender missed events");
        return ns;
    }

    std::shared_ptr<log4cxx::FileAppender> openFile(const std::string& path) {
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

    Timing fileSync(const std::string& path, int threads, long n) override {
        auto file = openFile(path);
        logger_->addAppender(file);
        log4cxx::LoggerPtr logger = logger_;
        const Timing timing = runThreads(
            threads, n, [&logger](int id) { LOG4CXX_INFO(logger, "iteration " << id << " value " << "short"); },
            [&] { file->close(); });
        logger_->removeAppender(file);
        return timing;
    }

    AsyncFigures fileAsync(const std::string& path, long n) override {
        auto file = openFile(path);
        auto async = std::make_shared<log4cxx::AsyncAppender>();  // 128 events, blocking when full
        async->addAppender(file);
        logger_->addAppender(async);
        const log4cxx::LoggerPtr& logger = logger_;
        for (long i = 0; i < counts.warm; ++i)
            LOG4CXX_INFO(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        AsyncFigures f;
        const double cpuStart = threadCpuNs();
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i)
            LOG4CXX_INFO(logger, "iteration " << static_cast<int>(counts.warm + i) << " value " << "short");
        f.producer = nsSince(start) / static_cast<double>(n);
        f.producerCpu = (threadCpuNs() - cpuStart) / static_cast<double>(n);
        async->close();  // drains the queue and closes the file appender
        file->close();
        f.total = nsSince(start) / static_cast<double>(n);
        logger_->removeAppender(async);
        return f;
    }

    std::string sample() override {
        auto sink = std::make_shared<Log4cxxDiscardAppender>(layout());
        logger_->addAppender(sink);
        LOG4CXX_INFO(logger_, "iteration " << 42 << " value " << "short");
        logger_->removeAppender(sink);
        return sink->text();
    }

private:
    log4cxx::LoggerPtr logger_;
    log4cxx::LoggerPtr off_;
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
    Log4cplus() : logger_(log4cplus::Logger::getInstance(kLoggerName)), off_(log4cplus::Logger::getInstance(kDisabledName)) {
        for (log4cplus::Logger* l : {&logger_, &off_}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        logger_.setLogLevel(log4cplus::INFO_LOG_LEVEL);
        off_.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    }
    const char* name() const override { return "log4cplus"; }

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
        for (long i = 0; i < counts.warm; ++i)
            LOG4CPLUS_INFO(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i) LOG4CPLUS_INFO(logger, "iteration " << static_cast<int>(i) << " value " << "short");
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

    Timing fileSync(const std::string& path, int threads, long n) override {
        log4cplus::SharedAppenderPtr file = openFile(path);
        logger_.addAppender(file);
        const log4cplus::Logger& logger = logger_;
        const Timing timing = runThreads(
            threads, n, [&logger](int id) { LOG4CPLUS_INFO(logger, "iteration " << id << " value " << "short"); },
            [&] { file->close(); });
        logger_.removeAppender(file);
        return timing;
    }

    AsyncFigures fileAsync(const std::string& path, long n) override {
        log4cplus::SharedAppenderPtr file = openFile(path);
        log4cplus::SharedAppenderPtr async(new log4cplus::AsyncAppender(file, 100));  // the default QueueLimit
        logger_.addAppender(async);
        const log4cplus::Logger& logger = logger_;
        for (long i = 0; i < counts.warm; ++i)
            LOG4CPLUS_INFO(logger, "iteration " << static_cast<int>(i) << " value " << "short");
        AsyncFigures f;
        const double cpuStart = threadCpuNs();
        const Clock::time_point start = Clock::now();
        for (long i = 0; i < n; ++i)
            LOG4CPLUS_INFO(logger, "iteration " << static_cast<int>(counts.warm + i) << " value " << "short");
        f.producer = nsSince(start) / static_cast<double>(n);
        f.producerCpu = (threadCpuNs() - cpuStart) / static_cast<double>(n);
        async->close();  // drains the queue and joins its thread
        file->close();
        f.total = nsSince(start) / static_cast<double>(n);
        logger_.removeAppender(async);
        return f;
    }

    std::string sample() override {
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
};

#endif  // ZVLOG_BENCH_HAVE_LOG4CPLUS

// --- the run -------------------------------------------------------------------

enum Case {
    kDisabled,
    kFormat,
    kFile1,
    kFile1Cpu,
    kFile2,
    kFile2Cpu,
    kAsyncProducer,
    kAsyncProducerCpu,
    kAsyncTotal,
    kCaseCount
};
const char* const kCaseNames[kCaseCount] = {
    "disabled call",        "format, discard",      "sync file, 1 thread",  "  thread CPU",      "sync file, 2 threads",
    "  threads' CPU",       "async file, producer", "  producer thread CPU", "async file, total"};
// zvlog / spdlog targets (0: none).
const double kTargets[kCaseCount] = {0, 0, 0.7, 0, 0.7, 0, 0.2, 0, 0};

double median(std::vector<double> v) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

struct Options {
    int reps = 3;
    double scale = 1;
    std::string dir = "/tmp";
    std::string libs;   // comma-separated; empty: all
    std::string cases;  // comma-separated of disabled,format,file1,file2,async,mp; empty: all

    static bool listed(const std::string& list, const char* name) {
        if (list.empty()) return true;
        return ("," + list + ",").find("," + std::string(name) + ",") != std::string::npos;
    }
    bool lib(const char* name) const { return listed(libs, name); }
    bool runs(const char* name) const { return listed(cases, name); }
};

bool parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a.rfind("--reps=", 0) == 0) {
            o.reps = std::max(1, std::atoi(a.c_str() + 7));
        } else if (a.rfind("--scale=", 0) == 0) {
            o.scale = std::atof(a.c_str() + 8);
            if (!(o.scale > 0)) return false;
        } else if (a.rfind("--dir=", 0) == 0) {
            o.dir = a.substr(6);
        } else if (a.rfind("--libs=", 0) == 0) {
            o.libs = a.substr(7);
        } else if (a.rfind("--cases=", 0) == 0) {
            o.cases = a.substr(8);
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
void verifyAndRemove(const char* who, const std::string& path, long expected) {
    std::string why;
    const bool ok = checkFile(path, expected, why);
    ::unlink(path.c_str());
    if (!ok) fail(who, path + ": " + why);
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
        std::fprintf(stderr,
                     "usage: %s [--reps=N] [--scale=F] [--dir=DIR] [--libs=zvlog,spdlog,log4cxx,log4cplus]\n"
                     "          [--cases=disabled,format,file1,file2,async,mp]\n",
                     argv[0]);
        return 2;
    }
    auto scaled = [&](long n) { return std::max(1L, static_cast<long>(static_cast<double>(n) * opt.scale)); };
    counts.disabled = scaled(counts.disabled);
    counts.format = scaled(counts.format);
    counts.file = scaled(counts.file);
    counts.async = scaled(counts.async);

#ifdef ZVLOG_BENCH_HAVE_LOG4CPLUS
    log4cplus::Initializer log4cplusInit;
#endif

    std::vector<std::unique_ptr<Contender>> contenders;
    contenders.push_back(std::make_unique<Zvlog>());
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    contenders.push_back(std::make_unique<Spdlog>());
#endif
#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
    contenders.push_back(std::make_unique<Log4cxx>());
#endif
#ifdef ZVLOG_BENCH_HAVE_LOG4CPLUS
    contenders.push_back(std::make_unique<Log4cplus>());
#endif

    std::printf("The record of every library:\n");
    for (auto& c : contenders) {
        std::string s = c->sample();
        while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
        std::printf("  %-10s %s\n", c->name(), s.c_str());
    }
    std::printf("events: disabled %ld, format %ld, file %ld (2 threads: %ld each), async %ld; %d repetitions\n\n",
                counts.disabled, counts.format, counts.file, counts.file / 2, counts.async, opt.reps);
    std::fflush(stdout);

    // results[case][contender] = one figure per repetition
    std::vector<std::vector<std::vector<double>>> results(
        kCaseCount, std::vector<std::vector<double>>(contenders.size()));
    // zvlog alone: the file appender (multi-process safe) and the
    // single-process baseline, measured in adjacent pairs (the order swapped
    // from pair to pair) so that each ratio compares like with like on a busy
    // machine; two processes on one file.
    constexpr int kPairsPerRep = 3;
    std::vector<double> zvFile, zvFileCpu, zvBaseline, zvBaselineCpu, pairRatio, pairRatioCpu, zvTwoProcesses;
    std::string self(4096, '\0');
    const ssize_t selfLength = ::readlink("/proc/self/exe", self.data(), self.size() - 1);
    self.resize(selfLength > 0 ? static_cast<size_t>(selfLength) : 0);

    TempDir tmp(opt.dir);
    try {
        for (int rep = 0; rep < opt.reps; ++rep) {
            for (size_t k = 0; k < contenders.size(); ++k) {
                Contender& c = *contenders[k];
                if (!opt.lib(c.name())) continue;
                if (opt.runs("disabled")) results[kDisabled][k].push_back(c.disabled(counts.disabled));
                if (opt.runs("format")) results[kFormat][k].push_back(c.format(counts.format));
                if (opt.runs("file1")) {
                    const std::string path = tmp.file(std::string(c.name()) + "-sync1.log");
                    const Timing t = c.fileSync(path, 1, counts.file);
                    results[kFile1][k].push_back(t.wall);
                    results[kFile1Cpu][k].push_back(t.cpu);
                    verifyAndRemove(c.name(), path, counts.warm + counts.file);
                }
                if (opt.runs("file2")) {
                    const std::string path = tmp.file(std::string(c.name()) + "-sync2.log");
                    const Timing t = c.fileSync(path, 2, counts.file / 2);
                    results[kFile2][k].push_back(t.wall);
                    results[kFile2Cpu][k].push_back(t.cpu);
                    verifyAndRemove(c.name(), path, 2 * (counts.warm + counts.file / 2));
                }
                if (opt.runs("async")) {
                    const std::string path = tmp.file(std::string(c.name()) + "-async.log");
                    const AsyncFigures a = c.fileAsync(path, counts.async);
                    results[kAsyncProducer][k].push_back(a.producer);
                    results[kAsyncProducerCpu][k].push_back(a.producerCpu);
                    results[kAsyncTotal][k].push_back(a.total);
                    verifyAndRemove(c.name(), path, counts.warm + counts.async);
                }
            }
            if (!opt.runs("mp")) continue;
            Contender& zv = *contenders[0];
            for (int pair = 0; pair < kPairsPerRep; ++pair) {
                Timing file, base;
                for (int turn = 0; turn < 2; ++turn) {
                    if ((turn + pair + rep) % 2 == 0) {
                        const std::string path = tmp.file("zvlog-file.log");
                        file = zv.fileSync(path, 1, counts.file);
                        verifyAndRemove("zvlog FileAppender", path, counts.warm + counts.file);
                    } else {
                        const std::string path = tmp.file("zvlog-stdio.log");
                        base = zvlogStdioBaseline(path, counts.file);
                        verifyAndRemove("zvlog stdio baseline", path, counts.warm + counts.file);
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
                const std::string path = tmp.file("zvlog-2proc.log");
                zvTwoProcesses.push_back(zvlogTwoProcesses(self, path, counts.file / 2));
                verifyAndRemove("zvlog, two processes", path, 2 * (counts.warm + counts.file / 2));
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_compare: %s\n", e.what());
        return 1;
    }

    // The table: medians, and zvlog over spdlog.
    size_t spdlogIndex = contenders.size();
    for (size_t k = 0; k < contenders.size(); ++k)
        if (std::strcmp(contenders[k]->name(), "spdlog") == 0) spdlogIndex = k;
    const char* const columns[] = {"zvlog", "spdlog", "log4cxx", "log4cplus"};
    auto column = [&](const char* lib) -> int {
        for (size_t k = 0; k < contenders.size(); ++k)
            if (std::strcmp(contenders[k]->name(), lib) == 0) return static_cast<int>(k);
        return -1;
    };
    std::printf("ns per event (median of %d)\n", opt.reps);
    std::printf("  %-22s %10s %10s %10s %10s %9s %8s\n", "case", "zvlog", "spdlog", "log4cxx", "log4cplus", "zv/spd",
                "target");
    for (int cs = 0; cs < kCaseCount; ++cs) {
        std::printf("  %-22s", kCaseNames[cs]);
        for (const char* lib : columns) {
            const int k = column(lib);
            const double m = k < 0 ? -1 : median(results[cs][static_cast<size_t>(k)]);
            if (m < 0) std::printf(" %10s", "-");
            else std::printf(" %10.2f", m);
        }
        double ratio = -1;
        if (spdlogIndex < contenders.size()) {
            const double z = median(results[cs][0]);
            const double s = median(results[cs][spdlogIndex]);
            if (z >= 0 && s > 0) ratio = z / s;
        }
        if (ratio >= 0) std::printf(" %9.3f", ratio);
        else std::printf(" %9s", "-");
        if (kTargets[cs] > 0) {
            std::printf("   <=%.1f%s", kTargets[cs], ratio < 0 ? "" : ratio <= kTargets[cs] ? "  met" : "  MISSED");
        }
        std::printf("\n");
    }
    std::printf("  (zv/spd = zvlog / spdlog; below 1 is faster)\n");

    if (!zvFile.empty()) {
        const double ratio = median(pairRatio);
        std::printf("\nzvlog file paths, one thread unless noted (ns per event, median of %zu; wall / thread CPU)\n",
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
        if (!results[kFile2][0].empty())
            std::printf("  %-72s %9.2f\n", "FileAppender, 2 threads in one process (the table above)",
                        median(results[kFile2][0]));
    }
    std::printf("\nEvery file was checked line by line (count, shape, each id exactly once), then deleted.\n");
    return 0;
}
