// The cost of one syslog message per event: zvlog's SyslogAppender beside the
// bare send() of the same bytes, log4cxx's SyslogAppender and spdlog's syslog
// sink, on one record:
//
//   logger "bench", INFO, "iteration <int> value <one of 8 words>"
//
// Cases (ns per event, wall time of the logging thread, synchronous):
//   send() floor UDP     the datagram zvlog sent for one event, captured by the
//                        receiver, sent N times with send() on a connected UDP
//                        socket: what the kernel charges, nothing else
//   zvlog UDP            SyslogAppender with setSyslogHost("127.0.0.1:port"):
//                        one RFC 5424 datagram per event
//   log4cxx UDP          log4cxx::net::SyslogAppender, PatternLayout "%m",
//                        setSyslogHost("127.0.0.1:port"): "<14>" and the
//                        message, one datagram per event
//   send() floor local   the datagram zvlog's local path sent, captured, sent N
//                        times on a connected unix datagram socket
//   zvlog local          SyslogAppender without a host, setLocalSocket() to the
//                        receiver's unix datagram socket (the syslog(3) form)
//   spdlog syslog(3)     spdlog::sinks::syslog_sink_mt: syslog(3) only ever
//                        writes to "/dev/log". The program re-runs itself in
//                        a mount namespace of its own (unshare -m, as root)
//                        whose /dev is a copy in which "/dev/log" is the
//                        local receiver's socket: spdlog, zvlog's local path
//                        and their floor then all send to that receiver, and
//                        the machine's syslog never sees the events. Without
//                        a namespace the case is reported as not measurable
//                        (syslog(3) would drop every message or flood the
//                        machine's log)
//
// The UDP receiver is a socket bound on 127.0.0.1 (a free port), the local one
// a unix datagram socket in a temporary folder; each is drained by its own
// thread that counts datagrams and bytes, with a large receive buffer. UDP on
// loopback drops what does not fit that buffer: the counts are printed as
// received / sent, not hidden. A unix datagram sender waits for room instead.
//
// Allocations are counted on the logging thread during each timed loop (the
// program interposes malloc, calloc, realloc and the aligned forms, which
// operator new goes through), and printed per event. zvlog's figure is not
// always 0: each time the thread's 1 MiB event block fills (every ~50000
// events of this record), a new block and the lists of loggers and
// appenders that deliver the closed block are allocated, whichever case is
// running then.
//
// The logging thread's user and system CPU time per event are printed too.
// A receiver asleep in poll() has to be woken by the send that reaches it;
// a sender that spends longer between sends finds it asleep more often and
// pays for the wake-up in its system time. --spin keeps the receivers
// polling without sleep (a whole core each) to take that out of the
// comparison; on two cores the wall times then suffer from the competition.
//
// Every case runs a warm-up, then --reps timed runs of --events events; the
// runs of the cases are interleaved (rep 1 of every case, then rep 2, ...) so
// that a drift of the machine spreads over all of them. The table shows the
// median, the fastest and slowest runs, and the median's ratio to the floor
// of its transport.
//
//   bench_syslog [--reps=N] [--events=N] [--warm=N] [--spin]
//                [--cases=floor,zvlog,log4cxx,local,spdlog]

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <dirent.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zvlog/SyslogAppender.h"
#include "zvlog/zvlog.h"

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#endif

#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
#include <log4cxx/helpers/pool.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/net/syslogappender.h>
#include <log4cxx/patternlayout.h>
#endif

// --- counting allocations -------------------------------------------------------

// glibc's own entry points, which the interposed functions forward to.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {
// Per thread, so that the receivers and any library thread stay out of the
// logging thread's figure. Static TLS of the executable: reading it never
// allocates.
thread_local unsigned long long tAllocations = 0;
}  // namespace

extern "C" {
void* malloc(size_t size) noexcept {
    ++tAllocations;
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
    ++tAllocations;
    return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) noexcept {
    ++tAllocations;
    return __libc_realloc(p, size);
}
void* memalign(size_t alignment, size_t size) noexcept {
    ++tAllocations;
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) noexcept {
    ++tAllocations;
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
    ++tAllocations;
    void* p = __libc_memalign(alignment, size);
    if (!p) return ENOMEM;
    *out = p;
    return 0;
}
}

namespace {

namespace zl = zvs::zvlib::zvlog;
using Clock = std::chrono::steady_clock;

constexpr const char* kLoggerName = "bench";
constexpr const char* kWords[8] = {"alpha", "bravo", "charlie", "delta", "echo", "foxtrot", "golf", "hotel"};

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

std::string errnoText(const char* call) { return std::string(call) + ": " + std::strerror(errno); }

// --- the receivers ----------------------------------------------------------------

// A datagram socket, bound on 127.0.0.1 (a free port) or on a unix path, that
// a thread drains: it counts datagrams and bytes and, on request, keeps a copy
// of the next one.
class Receiver {
public:
    static inline bool spin = false;  // --spin: never sleep, so that no send has to wake the receiver

    // UDP on 127.0.0.1.
    Receiver() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) fail(errnoText("socket"));
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof a;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), length) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &length) != 0)
            fail(errnoText("bind 127.0.0.1"));
        port_ = ntohs(a.sin_port);
        start();
    }
    // Unix datagrams on a path.
    explicit Receiver(const std::string& path) : path_(path) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) fail(errnoText("socket"));
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        if (path.size() >= sizeof a.sun_path) fail("socket path too long: " + path);
        std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail(errnoText(("bind " + path).c_str()));
        start();
    }
    ~Receiver() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        ::close(fd_);
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    int port() const { return port_; }
    const std::string& path() const { return path_; }
    int receiveBuffer() const { return rcvbuf_; }
    unsigned long long count() const { return count_.load(std::memory_order_acquire); }
    unsigned long long bytes() const { return bytes_.load(std::memory_order_acquire); }

    // Until `target` datagrams have arrived, or nothing more came for 300 ms
    // (what is lost stays lost). The count then.
    unsigned long long settle(unsigned long long target) const {
        unsigned long long seen = count();
        Clock::time_point last = Clock::now();
        while (seen < target) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            const unsigned long long now = count();
            if (now != seen) {
                seen = now;
                last = Clock::now();
            } else if (Clock::now() - last > std::chrono::milliseconds(300)) {
                break;
            }
        }
        return seen;
    }

    // Runs `send` (which must make one datagram arrive) and returns that
    // datagram; "" if none came within a second.
    std::string capture(const std::function<void()>& send) {
        {
            std::lock_guard<std::mutex> lock(captureMutex_);
            captured_.clear();
            captureWanted_ = true;
        }
        send();
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
        while (Clock::now() < deadline) {
            {
                std::lock_guard<std::mutex> lock(captureMutex_);
                if (!captureWanted_) return captured_;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::lock_guard<std::mutex> lock(captureMutex_);
        captureWanted_ = false;
        return {};
    }

private:
    void start() {
        // As large as the kernel lets us (SO_RCVBUFFORCE needs CAP_NET_ADMIN).
        const int want = 64 << 20;
        if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &want, sizeof want) != 0)
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
        socklen_t length = sizeof rcvbuf_;
        ::getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf_, &length);
        thread_ = std::thread([this] { drain(); });
    }

    // Reads until the socket is empty, then waits for more (at most 50 ms, to
    // notice the end).
    void drain() {
        std::vector<char> buffer(65536);
        while (!stop_) {
            const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n >= 0) {
                if (captureWanted_.load(std::memory_order_relaxed)) {
                    std::lock_guard<std::mutex> lock(captureMutex_);
                    if (captureWanted_) {
                        captured_.assign(buffer.data(), static_cast<size_t>(n));
                        captureWanted_ = false;
                    }
                }
                bytes_.fetch_add(static_cast<unsigned long long>(n), std::memory_order_relaxed);
                count_.fetch_add(1, std::memory_order_release);
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) break;
            if (spin) continue;
            pollfd p{fd_, POLLIN, 0};
            ::poll(&p, 1, 50);
        }
    }

    int fd_ = -1;
    int port_ = 0;
    int rcvbuf_ = 0;
    std::string path_;
    std::atomic<bool> stop_{false};
    std::atomic<unsigned long long> count_{0}, bytes_{0};
    std::mutex captureMutex_;
    std::atomic<bool> captureWanted_{false};
    std::string captured_;
    std::thread thread_;
};

// --- the cases ------------------------------------------------------------------

// One figure of one timed run.
struct Run {
    double ns = 0;
    unsigned long long allocations = 0;  // on the logging thread, in the whole run
    double user = 0, sys = 0;  // the logging thread's CPU time per event, ns
};

// The calling thread's user and system CPU time, ns.
void threadTimes(double& user, double& sys) {
    rusage u{};
    ::getrusage(RUSAGE_THREAD, &u);
    user = static_cast<double>(u.ru_utime.tv_sec) * 1e9 + static_cast<double>(u.ru_utime.tv_usec) * 1e3;
    sys = static_cast<double>(u.ru_stime.tv_sec) * 1e9 + static_cast<double>(u.ru_stime.tv_usec) * 1e3;
}

// Times `n` calls of log(i) and counts the allocations made meanwhile.
template <class Log>
Run timed(long first, long n, Log&& log) {
    double user0, sys0, user1, sys1;
    threadTimes(user0, sys0);
    const unsigned long long allocStart = tAllocations;
    const Clock::time_point start = Clock::now();
    for (long i = 0; i < n; ++i) log(static_cast<int>(first + i));
    const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
    const unsigned long long allocations = tAllocations - allocStart;
    threadTimes(user1, sys1);
    const double events = static_cast<double>(n);
    return {ns / events, allocations, (user1 - user0) / events, (sys1 - sys0) / events};
}

class Case {
public:
    virtual ~Case() = default;
    virtual const char* name() const = 0;
    virtual std::string destination() const = 0;
    // The receiver that counts this case's datagrams; null if none of ours.
    virtual Receiver* receiver() const = 0;
    // The floor this case is compared with; null for a floor.
    virtual const char* floorName() const = 0;
    // Logs events first .. first+n-1 (ids are only text in the message).
    virtual Run run(long first, long n) = 0;

    std::vector<Run> runs;
    unsigned long long sent = 0, received = 0, bytes = 0;
};

// A connected datagram socket that sends the same bytes N times.
class FloorCase : public Case {
public:
    FloorCase(const char* name, Receiver& receiver, std::string datagram)
        : name_(name), receiver_(receiver), datagram_(std::move(datagram)) {
        if (datagram_.empty()) fail(std::string(name) + ": no datagram captured to send");
        if (receiver.path().empty()) {
            fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            a.sin_port = htons(static_cast<uint16_t>(receiver.port()));
            if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail(errnoText("connect"));
        } else {
            fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_un a{};
            a.sun_family = AF_UNIX;
            std::memcpy(a.sun_path, receiver.path().c_str(), receiver.path().size() + 1);
            if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fail(errnoText("connect"));
        }
    }
    ~FloorCase() override { ::close(fd_); }
    const char* name() const override { return name_; }
    std::string destination() const override { return describe(receiver_) + ", " + std::to_string(datagram_.size()) + " bytes each"; }
    Receiver* receiver() const override { return &receiver_; }
    const char* floorName() const override { return nullptr; }
    Run run(long first, long n) override {
        const int fd = fd_;
        const char* data = datagram_.data();
        const size_t size = datagram_.size();
        unsigned long long failed = 0;
        const Run r = timed(first, n, [&](int) {
            if (::send(fd, data, size, MSG_NOSIGNAL) < 0) ++failed;
        });
        if (failed) std::fprintf(stderr, "%s: %llu sends failed\n", name_, failed);
        return r;
    }

    static std::string describe(const Receiver& r) {
        return r.path().empty() ? "UDP 127.0.0.1:" + std::to_string(r.port()) : "unix datagram " + r.path();
    }

private:
    const char* name_;
    Receiver& receiver_;
    std::string datagram_;
    int fd_ = -1;
};

// zvlog's SyslogAppender on logger "bench", to a host or to a local socket.
class ZvlogCase : public Case {
public:
    ZvlogCase(const char* name, Receiver& receiver) : name_(name), receiver_(receiver), appender_(name) {
        logger_ = zl::Logger::getRepository()->getLogger(kLoggerName);
        logger_->setAdditivity(false);
        logger_->setLevel(zl::LEVEL_INFO);
        if (receiver.path().empty()) {
            host_ = "127.0.0.1:" + std::to_string(receiver.port());
            appender_.setSyslogHost(host_.c_str());
        } else {
            appender_.setLocalSocket(receiver.path().c_str());
        }
    }
    ~ZvlogCase() override { detach(); }
    const char* name() const override { return name_; }
    std::string destination() const override {
        return host_.empty() ? "setLocalSocket(\"" + receiver_.path() + "\")" : "setSyslogHost(\"" + host_ + "\")";
    }
    Receiver* receiver() const override { return &receiver_; }
    const char* floorName() const override { return host_.empty() ? "send() floor local" : "send() floor UDP"; }

    // Only one appender at a time on the shared logger.
    void attach() {
        if (!attached_) logger_->addAppender(appender_);
        attached_ = true;
    }
    void detach() {
        if (attached_) logger_->removeAppender(appender_);
        attached_ = false;
    }
    Run run(long first, long n) override {
        attach();
        zl::Logger* logger = logger_;
        const Run r = timed(first, n, [logger](int i) { ZVLOG_INFO(logger, "iteration %d value %s", i, kWords[i & 7]); });
        detach();
        return r;
    }
    unsigned long long dropped() const { return appender_.getDroppedCount(); }

private:
    const char* name_;
    Receiver& receiver_;
    zl::SyslogAppender appender_;
    zl::Logger* logger_ = nullptr;
    std::string host_;
    bool attached_ = false;
};

#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
class Log4cxxCase : public Case {
public:
    explicit Log4cxxCase(Receiver& receiver) : receiver_(receiver) {
        logger_ = log4cxx::Logger::getLogger(kLoggerName);
        logger_->setAdditivity(false);
        logger_->removeAllAppenders();
        logger_->setLevel(log4cxx::Level::getInfo());
        // Not "127.0.0.1" alone: log4cxx would then call syslog(3) instead.
        host_ = "127.0.0.1:" + std::to_string(receiver.port());
        appender_ = std::make_shared<log4cxx::net::SyslogAppender>(std::make_shared<log4cxx::PatternLayout>("%m"),
                                                                   host_, LOG_USER);
        log4cxx::helpers::Pool pool;
        appender_->activateOptions(pool);
        logger_->addAppender(appender_);
    }
    ~Log4cxxCase() override { logger_->removeAppender(appender_); }
    const char* name() const override { return "log4cxx UDP"; }
    std::string destination() const override { return "setSyslogHost(\"" + host_ + "\"), PatternLayout \"%m\""; }
    Receiver* receiver() const override { return &receiver_; }
    const char* floorName() const override { return "send() floor UDP"; }
    Run run(long first, long n) override {
        const log4cxx::LoggerPtr& logger = logger_;
        return timed(first, n, [&logger](int i) { LOG4CXX_INFO(logger, "iteration " << i << " value " << kWords[i & 7]); });
    }

private:
    Receiver& receiver_;
    log4cxx::LoggerPtr logger_;
    std::shared_ptr<log4cxx::net::SyslogAppender> appender_;
    std::string host_;
};
#endif

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
class SpdlogCase : public Case {
public:
    SpdlogCase() {
        auto sink = std::make_shared<spdlog::sinks::syslog_sink_mt>("bench_syslog", LOG_PID, LOG_USER, false);
        logger_ = std::make_shared<spdlog::logger>(kLoggerName, sink);
        logger_->set_level(spdlog::level::info);
    }
    const char* name() const override { return "spdlog syslog(3)"; }
    explicit SpdlogCase(Receiver& devLog) : SpdlogCase() { receiver_ = &devLog; }
    std::string destination() const override { return "syslog(3) to /dev/log: the local receiver, in this namespace"; }
    Receiver* receiver() const override { return receiver_; }
    const char* floorName() const override { return "send() floor local"; }
    Run run(long first, long n) override {
        spdlog::logger* logger = logger_.get();
        return timed(first, n, [logger](int i) { logger->info("iteration {} value {}", i, kWords[i & 7]); });
    }

private:
    std::shared_ptr<spdlog::logger> logger_;
    Receiver* receiver_ = nullptr;
};
#endif

// --- the table ------------------------------------------------------------------

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

std::string printable(const std::string& datagram) {
    std::string out;
    for (unsigned char c : datagram) {
        if (c >= 32 && c < 127) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

struct Options {
    int reps = 5;
    long events = 200'000;
    long warm = 5'000;
    std::string cases;  // comma-separated of floor,zvlog,log4cxx,local,spdlog; empty: all
    bool spin = false;

    bool runs(const char* name) const {
        return cases.empty() || ("," + cases + ",").find("," + std::string(name) + ",") != std::string::npos;
    }
};

bool parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a.rfind("--reps=", 0) == 0) {
            o.reps = std::max(1, std::atoi(a.c_str() + 7));
        } else if (a.rfind("--events=", 0) == 0) {
            o.events = std::max(1L, std::atol(a.c_str() + 9));
        } else if (a.rfind("--warm=", 0) == 0) {
            o.warm = std::max(1L, std::atol(a.c_str() + 7));
        } else if (a.rfind("--cases=", 0) == 0) {
            o.cases = a.substr(8);
        } else if (a == "--spin") {
            o.spin = true;
        } else {
            return false;
        }
    }
    return true;
}

constexpr const char* kNamespaceVariable = "ZVLOG_BENCH_SYSLOG_NAMESPACE";

// Runs the program again under `unshare -m` (a mount namespace of its own),
// once; returns only when that cannot be done.
void reRunInOwnMountNamespace(char** argv) {
    if (std::getenv(kNamespaceVariable) || ::geteuid() != 0) return;
    ::setenv(kNamespaceVariable, "1", 1);
    std::vector<char*> args = {const_cast<char*>("unshare"), const_cast<char*>("-m"),
                               const_cast<char*>("--propagation"), const_cast<char*>("private")};
    for (char** a = argv; *a; ++a) args.push_back(*a);
    args.push_back(nullptr);
    ::execvp("unshare", args.data());
    ::unsetenv(kNamespaceVariable);  // no unshare: go on without
}

// In the program's own mount namespace: /dev becomes a tmpfs holding links to
// every entry of the real /dev (bind-mounted under `dir`), so that "/dev/log"
// is free for a socket of ours. Nothing of this is seen outside the
// namespace, and it ends with the process.
bool takeOverDevLog(const std::string& dir) {
    if (!std::getenv(kNamespaceVariable)) return false;
    const std::string real = dir + "/dev";
    if (::mkdir(real.c_str(), 0700) != 0) return false;
    if (::mount("/dev", real.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) return false;
    if (::mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) return false;
    DIR* d = ::opendir(real.c_str());
    if (!d) return false;
    while (const dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == ".." || name == "log") continue;
        if (::symlink((real + "/" + name).c_str(), ("/dev/" + name).c_str()) != 0) {
            ::closedir(d);
            return false;
        }
    }
    ::closedir(d);
    return true;
}

// The allocation counter must see operator new, or its zero means nothing.
bool allocationCounterWorks() {
    const unsigned long long before = tAllocations;
    auto* p = new std::string(100, 'x');
    const unsigned long long seen = tAllocations - before;
    delete p;
    return seen >= 2;  // the string object and its buffer
}

int runBench(const Options& opt) {
    if (!allocationCounterWorks()) fail("the allocation counter does not see operator new");
    Receiver::spin = opt.spin;

    char dirTemplate[] = "/tmp/zvlog-bench-syslog-XXXXXX";
    if (!::mkdtemp(dirTemplate)) fail(errnoText("mkdtemp"));
    const std::string dir = dirTemplate;
    struct RemoveDir {
        std::string path;
        ~RemoveDir() { ::rmdir(path.c_str()); }
    } removeDir{dir};

    const bool ownDevLog = takeOverDevLog(dir);
    struct Unmount {
        bool active;
        std::string real;
        ~Unmount() {
            if (!active) return;
            ::umount2("/dev", MNT_DETACH);
            ::umount2(real.c_str(), MNT_DETACH);
            ::rmdir(real.c_str());
        }
    } unmount{ownDevLog, dir + "/dev"};

    Receiver udp;
    Receiver local(ownDevLog ? std::string("/dev/log") : dir + "/log");

    std::vector<std::unique_ptr<Case>> cases;
    std::vector<std::string> notes;

    // zvlog first: its first datagram is what the floors send.
    auto zvUdp = std::make_unique<ZvlogCase>("zvlog UDP", udp);
    auto zvLocal = std::make_unique<ZvlogCase>("zvlog local", local);
    zvUdp->attach();
    zl::Logger* logger = zl::Logger::getRepository()->getLogger(kLoggerName);
    const std::string udpDatagram = udp.capture([&] { ZVLOG_INFO(logger, "iteration %d value %s", 1234567, kWords[2]); });
    zvUdp->detach();
    zvLocal->attach();
    const std::string localDatagram =
        local.capture([&] { ZVLOG_INFO(logger, "iteration %d value %s", 1234567, kWords[2]); });
    zvLocal->detach();

    if (opt.runs("floor")) cases.push_back(std::make_unique<FloorCase>("send() floor UDP", udp, udpDatagram));
    if (opt.runs("zvlog")) cases.push_back(std::move(zvUdp));
#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
    if (opt.runs("log4cxx")) cases.push_back(std::make_unique<Log4cxxCase>(udp));
#else
    notes.push_back("log4cxx UDP: not built (log4cxx not found)");
#endif
    if (opt.runs("local")) {
        cases.push_back(std::make_unique<FloorCase>("send() floor local", local, localDatagram));
        cases.push_back(std::move(zvLocal));
    }
#ifdef ZVLOG_BENCH_HAVE_SPDLOG
    if (opt.runs("spdlog")) {
        if (ownDevLog)
            cases.push_back(std::make_unique<SpdlogCase>(local));
        else
            notes.push_back(
                "spdlog syslog(3): not measurable: no mount namespace of our own (run as root with unshare(1)), "
                "and syslog(3) writes only to the machine's /dev/log");
    }
#else
    notes.push_back("spdlog syslog(3): not built (spdlog not found)");
#endif

    std::printf("One event: logger \"%s\", INFO, \"iteration <int> value <one of 8 words>\"\n", kLoggerName);
    std::printf("%d runs of %ld events per case after %ld warm-up events; receive buffers: UDP %d, unix %d bytes\n",
                opt.reps, opt.events, opt.warm, udp.receiveBuffer(), local.receiveBuffer());
    std::printf("zvlog UDP datagram (%zu bytes): %s\n", udpDatagram.size(), printable(udpDatagram).c_str());
    std::printf("zvlog local datagram (%zu bytes): %s\n", localDatagram.size(), printable(localDatagram).c_str());
#ifdef ZVLOG_BENCH_HAVE_LOG4CXX
    for (auto& c : cases) {
        if (std::strcmp(c->name(), "log4cxx UDP") == 0) {
            const std::string d = udp.capture([&] { c->run(1234567, 1); });
            ++c->sent;
            ++c->received;
            c->bytes += d.size();
            std::printf("log4cxx UDP datagram (%zu bytes): %s\n", d.size(),
                        d.empty() ? "(none arrived)" : printable(d).c_str());
        }
    }
#endif
    std::printf("Destinations:\n");
    for (auto& c : cases) std::printf("  %-20s %s\n", c->name(), c->destination().c_str());
    std::fflush(stdout);

    // Warm-up, then the interleaved runs. A case's datagrams are counted as
    // the receiver's growth from before its run until it settles.
    long next = 0;
    for (int rep = -1; rep < opt.reps; ++rep) {
        for (auto& c : cases) {
            const long n = rep < 0 ? opt.warm : opt.events;
            Receiver* r = c->receiver();
            const unsigned long long countBefore = r ? r->count() : 0;
            const unsigned long long bytesBefore = r ? r->bytes() : 0;
            const Run run = c->run(next, n);
            next += n;
            const unsigned long long countAfter = r ? r->settle(countBefore + static_cast<unsigned long long>(n)) : 0;
            if (rep < 0) continue;
            c->runs.push_back(run);
            c->sent += static_cast<unsigned long long>(n);
            if (r) {
                c->received += countAfter - countBefore;
                c->bytes += r->bytes() - bytesBefore;
            }
        }
    }

    auto floorOf = [&](const char* name) -> double {
        for (auto& c : cases)
            if (name && std::strcmp(c->name(), name) == 0) {
                std::vector<double> v;
                for (const Run& r : c->runs) v.push_back(r.ns);
                return median(v);
            }
        return -1;
    };

    std::printf("\n  %-20s %10s %9s %9s %8s %8s %8s %9s %20s %9s\n", "case", "ns/event", "fastest", "slowest", "x floor",
                "user ns", "sys ns", "allocs/ev", "received / sent", "bytes/dg");
    for (auto& c : cases) {
        std::vector<double> ns, user, sys;
        unsigned long long allocations = 0;
        for (const Run& r : c->runs) {
            ns.push_back(r.ns);
            allocations += r.allocations;
            user.push_back(r.user);
            sys.push_back(r.sys);
        }
        const double med = median(ns);
        const double floor = floorOf(c->floorName());
        char ratio[16] = "-";
        if (floor > 0) std::snprintf(ratio, sizeof ratio, "%.2f", med / floor);
        char received[40] = "n/a (not ours)";
        char bytes[16] = "-";
        if (c->receiver()) {
            std::snprintf(received, sizeof received, "%llu / %llu", c->received, c->sent);
            if (c->received) std::snprintf(bytes, sizeof bytes, "%.1f", static_cast<double>(c->bytes) / c->received);
        }
        char allocs[24];
        std::snprintf(allocs, sizeof allocs, allocations ? "%.3g" : "0",
                      static_cast<double>(allocations) / static_cast<double>(c->runs.size() * static_cast<size_t>(opt.events)));
        std::printf("  %-20s %10.1f %9.1f %9.1f %8s %8.0f %8.0f %9s %20s %9s\n", c->name(), med,
                    *std::min_element(ns.begin(), ns.end()), *std::max_element(ns.begin(), ns.end()), ratio,
                    median(user), median(sys), allocs, received, bytes);
    }
    std::printf("  (x floor: the median over the floor of the same transport; user/sys ns: the logging thread's CPU\n"
                "   time per event, medians, at the kernel's accounting granularity; allocs/ev: over all timed events,\n"
                "   \"0\" only when not one allocation was made)\n");
    for (const std::string& n : notes) std::printf("  %s\n", n.c_str());
    for (auto& c : cases)
        if (auto* z = dynamic_cast<ZvlogCase*>(c.get()); z && z->dropped())
            std::printf("  %s: the appender counted %llu sends that failed\n", z->name(), z->dropped());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    reRunInOwnMountNamespace(argv);
    Options opt;
    if (!parseOptions(argc, argv, opt)) {
        std::fprintf(stderr,
                     "usage: %s [--reps=N] [--events=N] [--warm=N] [--spin] [--cases=floor,zvlog,log4cxx,local,spdlog]\n",
                     argv[0]);
        return 2;
    }
    try {
        return runBench(opt);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_syslog: %s\n", e.what());
        return 1;
    }
}
