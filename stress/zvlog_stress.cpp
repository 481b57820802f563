// zvlog_stress: several processes log into one file through the file
// appenders at once; afterwards every record is read back and checked.
//
// Each round runs one combination of
//   appender  file (FileAppender), rolling (RollingFileAppender by size),
//             daily (DailyRollingFileAppender, a new file every second)
//   io        buffered (BufferedIO on, BufferSize bytes) or unbuffered
//   open      append (Append on) or truncate (Append off: every writer opens
//             its file before any writes; a rolling writer then rolls the
//             file it finds away, so the first backups may be empty)
//   spawn     fork (children of fork() keep using the library the parent
//             started) or exec (the program starts itself again)
//   setup     each writer makes and opens its appender, or (fork rounds,
//             "inherited") the parent does before it forks
//   delivery  direct, or async (the appender's delivery thread)
// in a fresh temporary directory. Every writer logs records
//   "INFO  stress P<k> #<n> t<seconds>.<microseconds> <padding>\r\n"
// with its ordinal k, its sequence number n and a padding that both sides
// derive from k and n. The checker reads the live file and every backup (or
// every dated file), oldest first, and counts per writer: records found,
// torn lines (anything that is not exactly a record, or a record cut at the
// end of a file), lost and duplicated numbers, records out of the writer's
// order, and for the time-rolled files records in a file whose time is not
// the time they were logged at. The rolling rounds keep enough backups that
// nothing is ever deleted, and the checker verifies that none was.
//
// The time-rolled appender always appends by design; with Append off each
// writer would empty every new period's file that others already write to,
// so that combination is not run.

#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "zvlog/FileAppender.h"
#include "zvlog/LoggingTime.h"
#include "zvlog/zvlog.h"

extern char** environ;

using namespace zvs::zvlib::zvlog;

namespace {

enum class Kind { File, Rolling, Daily };
const char* const kKindNames[] = {"file", "rolling", "daily"};

constexpr const char* kDatePattern = ".%Y%m%d-%H%M%S";
constexpr const char* kLogName = "stress.log";
constexpr const char* kLoggerName = "stress";
constexpr const char* kLevelText = "INFO  ";
// The file descriptors an exec'd writer finds its barrier pipes on.
constexpr int kReadyFd = 100, kGoFd = 101;

struct Round {
    Kind kind = Kind::File;
    bool buffered = true;
    bool append = true;
    bool exec = false;
    bool async = false;
    bool inherited = false;  // fork only: the parent made and opened the appender

    std::string name() const {
        std::string n = kKindNames[static_cast<int>(kind)];
        n += buffered ? " buffered" : " unbuffered";
        n += append ? " append" : " truncate";
        n += exec ? " exec" : " fork";
        if (inherited) n += " inherited";
        if (async) n += " async";
        return n;
    }
};

struct Options {
    int processes = 4;
    long records = 5000;
    std::vector<Kind> kinds{Kind::File, Kind::Rolling, Kind::Daily};
    std::vector<bool> buffered{true, false};
    std::vector<bool> append{true, false};
    std::vector<bool> exec{false, true};
    std::vector<bool> async{false};
    std::vector<bool> inherited{false, true};
    std::string maxFileSize = "256KB";
    unsigned long long maxFileBytes = 256 * 1024;
    unsigned long long bufferSize = 4096;
    int timeoutSeconds = 600;
    int dailySeconds = 3;
    bool inject = false;
    std::string baseDir;
    bool keep = false;
    bool list = false;
};

// What a writer needs to know; an exec'd writer gets it on its command line.
struct WriterSpec {
    Round round;
    std::string dir;
    int ordinal = 0;
    long records = 0;
    std::string maxFileSize;
    int maxBackupIndex = 1;
    unsigned long long bufferSize = 4096;
    int dailySeconds = 3;
    bool inject = false;
};

// ---------------------------------------------------------------- records

// The padding of record n of writer k: 10 to 70 letters.
size_t paddingLength(int k, long n) { return 10 + static_cast<size_t>((n * 7919 + k * 104729L) % 61); }

void makePadding(int k, long n, std::string& out) {
    out.clear();
    const size_t len = paddingLength(k, n);
    for (size_t i = 0; i < len; ++i) out += static_cast<char>('a' + (k + n + static_cast<long>(i)) % 26);
}

int digits(long v) {
    int d = 1;
    while (v >= 10) v /= 10, ++d;
    return d;
}

// The longest line a writer of this round can produce, line end included.
size_t maxLineLength(int processes, long records) {
    return std::strlen(kLevelText) + std::strlen(kLoggerName) + 2 + digits(processes - 1) + 2 + digits(records - 1) +
           2 + 10 + 1 + 6 + 1 + 70 + 2;
}

// ---------------------------------------------------------------- writer

FileAppender* makeAppender(const WriterSpec& w) {
    const std::string path = w.dir + "/" + kLogName;
    FileAppender* a = nullptr;
    switch (w.round.kind) {
    case Kind::File:
        a = new FileAppender("stress");
        break;
    case Kind::Rolling: {
        auto* r = new RollingFileAppender("stress");
        r->setMaxFileSize(w.maxFileSize.c_str());
        r->setMaxBackupIndex(w.maxBackupIndex);
        a = r;
        break;
    }
    case Kind::Daily: {
        auto* d = new DailyRollingFileAppender("stress");
        d->setDatePattern(kDatePattern);
        a = d;
        break;
    }
    }
    a->setLayout(new PatternLayout("%-5p %c %m%n"));
    a->setFile(path.c_str());
    a->setAppend(w.round.append);
    a->setBufferedIO(w.round.buffered);
    a->setBufferSize(w.bufferSize);
    return a;
}

bool readFully(int fd, char* p, size_t n) {
    while (n > 0) {
        const ssize_t got = read(fd, p, n);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        p += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

// Opens the appender, tells the parent, waits until every writer has done
// the same (the go pipe reaches its end), then logs its records. A writer
// forked from a parent that made the appender already goes on with that one.
int runWriter(const WriterSpec& w, int readyFd, int goFd, FileAppender* inherited = nullptr) {
    Logger* log = Logger::getRepository()->getLogger(kLoggerName);
    log->setLevel(LEVEL_ALL);
    log->setAdditivity(false);
    std::unique_ptr<FileAppender> own;
    FileAppender* a = inherited;
    if (!a) {
        own.reset(makeAppender(w));
        a = own.get();
        a->activateOptions();
        if (w.round.async) a->setAsynchronous(true);
        log->addAppender(*a);
    }
    if (!a->isOpen()) {
        fprintf(stderr, "writer %d: cannot open %s\n", w.ordinal, a->getFile().c_str());
        return 3;
    }

    const char ready = 'r';
    while (write(readyFd, &ready, 1) < 0 && errno == EINTR) {
    }
    close(readyFd);
    char c;
    for (;;) {
        const ssize_t got = read(goFd, &c, 1);
        if (got == 0) break;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return 4;
    }
    close(goFd);

    std::string padding;
    auto logOne = [&](long n, long long shift) {
        makePadding(w.ordinal, n, padding);
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        const long long seconds = now.tv_sec + shift;
        const int micros = static_cast<int>(now.tv_nsec / 1000);
        ZVLOG_INFO(log, "P%d #%ld t%lld.%06d %s", w.ordinal, n, seconds, micros, padding.c_str());
    };
    // The time-rolled rounds spread their records over a few seconds, so that
    // the file changes several times while every writer writes.
    const auto start = std::chrono::steady_clock::now();
    const bool paced = w.round.kind == Kind::Daily && w.dailySeconds > 0;
    const bool inject = w.inject && w.ordinal == 0 && w.records > 30;
    for (long n = 0; n < w.records; ++n) {
        if (paced && n % 16 == 0) {
            const auto due = start + std::chrono::microseconds(w.dailySeconds * 1000000LL * n / w.records);
            if (std::chrono::steady_clock::now() < due) std::this_thread::sleep_until(due);
        }
        if (inject) {
            // One of each fault the checker must see (see --inject).
            if (n == 5) continue;
            if (n == 7) logOne(7, 0);
            if (n == 10) {
                logOne(11, 0);
                logOne(10, 0);
                ++n;
                continue;
            }
            if (n == 12) {
                static const char torn[] = "INFO  stress P0 #12 t0.000000 x\r\n";
                a->write(torn, sizeof torn - 1);
            }
            if (n == 20 && w.round.kind == Kind::Daily) {
                logOne(20, -7200);
                continue;
            }
        }
        logOne(n, 0);
    }
    log->removeAppender(*a);
    a->close();
    return 0;
}

std::vector<std::string> writerArguments(const WriterSpec& w) {
    return {"--writer",
            std::to_string(static_cast<int>(w.round.kind)),
            w.round.buffered ? "1" : "0",
            w.round.append ? "1" : "0",
            w.round.async ? "1" : "0",
            w.dir,
            std::to_string(w.ordinal),
            std::to_string(w.records),
            w.maxFileSize,
            std::to_string(w.maxBackupIndex),
            std::to_string(w.bufferSize),
            std::to_string(w.dailySeconds),
            w.inject ? "1" : "0"};
}

int writerMain(int argc, char** argv) {
    if (argc != 14) {
        fprintf(stderr, "zvlog_stress --writer: wrong arguments\n");
        return 2;
    }
    WriterSpec w;
    const int kind = atoi(argv[2]);
    if (kind < 0 || kind > 2) return 2;
    w.round.kind = static_cast<Kind>(kind);
    w.round.buffered = argv[3][0] == '1';
    w.round.append = argv[4][0] == '1';
    w.round.async = argv[5][0] == '1';
    w.round.exec = true;
    w.dir = argv[6];
    w.ordinal = atoi(argv[7]);
    w.records = atol(argv[8]);
    w.maxFileSize = argv[9];
    w.maxBackupIndex = atoi(argv[10]);
    w.bufferSize = strtoull(argv[11], nullptr, 10);
    w.dailySeconds = atoi(argv[12]);
    w.inject = argv[13][0] == '1';
    return runWriter(w, kReadyFd, kGoFd);
}

// ---------------------------------------------------------------- checker

struct Counts {
    uint64_t found = 0, torn = 0, lost = 0, duplicated = 0, reordered = 0, misdated = 0;
    void add(const Counts& c) {
        found += c.found, torn += c.torn, lost += c.lost, duplicated += c.duplicated, reordered += c.reordered,
            misdated += c.misdated;
    }
};

struct CheckResult {
    std::vector<Counts> writers;
    Counts unattributed;  // torn lines that name no writer
    std::vector<std::string> problems;  // about the files themselves
    std::vector<std::string> samples;   // a few bad lines, for the report
    size_t files = 0;
    unsigned long long largest = 0;
    unsigned long long bytes = 0;
};

bool readWhole(const std::string& path, std::string& out) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return false;
    }
    out.resize(static_cast<size_t>(st.st_size));
    const bool ok = readFully(fd, out.data(), out.size());
    close(fd);
    return ok;
}

bool parseNumber(const char*& p, const char* end, long long& value, int maxDigits) {
    const char* start = p;
    value = 0;
    while (p < end && *p >= '0' && *p <= '9' && p - start < maxDigits) value = value * 10 + (*p++ - '0');
    if (p == start) return false;
    if (p - start > 1 && *start == '0') return false;  // no leading zeros
    return !(p < end && *p >= '0' && *p <= '9');
}

bool expect(const char*& p, const char* end, const char* text) {
    const size_t n = std::strlen(text);
    if (static_cast<size_t>(end - p) < n || std::memcmp(p, text, n) != 0) return false;
    p += n;
    return true;
}

struct Record {
    int writer;
    long sequence;
    long long seconds;
    long micros;
};

// Exactly "INFO  stress P<k> #<n> t<s>.<us6> <padding of k and n>".
bool parseRecord(const char* p, const char* end, int processes, long records, Record& r, std::string& scratch) {
    long long v;
    if (!expect(p, end, kLevelText) || !expect(p, end, kLoggerName) || !expect(p, end, " P")) return false;
    if (!parseNumber(p, end, v, 9) || v >= processes) return false;
    r.writer = static_cast<int>(v);
    if (!expect(p, end, " #") || !parseNumber(p, end, v, 18) || v >= records) return false;
    r.sequence = static_cast<long>(v);
    if (!expect(p, end, " t") || !parseNumber(p, end, v, 12)) return false;
    r.seconds = v;
    if (!expect(p, end, ".") || end - p < 6) return false;
    r.micros = 0;
    for (int i = 0; i < 6; ++i, ++p) {
        if (*p < '0' || *p > '9') return false;
        r.micros = r.micros * 10 + (*p - '0');
    }
    if (!expect(p, end, " ")) return false;
    makePadding(r.writer, r.sequence, scratch);
    return static_cast<size_t>(end - p) == scratch.size() && std::memcmp(p, scratch.data(), scratch.size()) == 0;
}

// The writer a broken line seems to come from, or -1.
int guessWriter(const char* p, const char* end, int processes) {
    for (const char* q = p; q + 2 < end; ++q) {
        if (q[0] != 'P' || q[1] < '0' || q[1] > '9') continue;
        const char* r = q + 1;
        long long v;
        if (parseNumber(r, end, v, 9) && v < processes && r + 1 < end && r[0] == ' ' && r[1] == '#')
            return static_cast<int>(v);
    }
    return -1;
}

struct FileEntry {
    std::string path;
    std::string dateSuffix;  // time-rolled files
};

std::string fileTimeText(long long seconds) {
    const time_t t = static_cast<time_t>(seconds);
    struct tm local;
    if (!localtime_r(&t, &local)) return std::string();
    char text[64];
    return std::string(text, strftime(text, sizeof text, kDatePattern, &local));
}

// The files of a round, oldest first.
std::vector<FileEntry> roundFiles(const std::string& dir, const Round& round, int maxBackupIndex,
                                  unsigned long long limit, size_t longestLine, CheckResult& result) {
    std::vector<FileEntry> files;
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    const std::string base = kLogName;
    switch (round.kind) {
    case Kind::File:
        for (const std::string& n : names)
            if (n != base) result.problems.push_back("unexpected file " + n);
        files.push_back({dir + "/" + base, ""});
        if (std::find(names.begin(), names.end(), base) == names.end()) result.problems.push_back("no " + base);
        break;
    case Kind::Rolling: {
        int highest = 0;
        std::vector<bool> present(static_cast<size_t>(maxBackupIndex) + 2, false);
        bool live = false;
        for (const std::string& n : names) {
            if (n == base) {
                live = true;
                continue;
            }
            const char* p = n.c_str() + base.size() + 1;
            const char* end = n.c_str() + n.size();
            long long index;
            if (n.compare(0, base.size() + 1, base + ".") != 0 || !parseNumber(p, end, index, 9) || p != end ||
                index < 1 || index > maxBackupIndex) {
                result.problems.push_back("unexpected file " + n);
                continue;
            }
            present[static_cast<size_t>(index)] = true;
            highest = std::max(highest, static_cast<int>(index));
        }
        // A roll while no live file exists still moves the backups up and
        // leaves its slot empty. Only the starts of a truncating round roll
        // without a file, all before the first record: there an empty slot
        // may lie below the empty backups of those starts, nowhere else.
        bool olderHoldRecords = false;
        for (int i = highest; i >= 1; --i) {
            const size_t at = static_cast<size_t>(i);
            if (present[at]) {
                struct stat st;
                const std::string path = dir + "/" + base + "." + std::to_string(i);
                if (stat(path.c_str(), &st) == 0 && st.st_size > 0) {
                    olderHoldRecords = true;
                    // A roll happens when the next record would pass the
                    // limit: a shorter backup was rolled twice at once.
                    if (static_cast<unsigned long long>(st.st_size) + longestLine < limit)
                        result.problems.push_back("backup ." + std::to_string(i) + " rolled early at " +
                                                  std::to_string(st.st_size) + " bytes");
                }
            } else if (round.append || olderHoldRecords) {
                result.problems.push_back("backup ." + std::to_string(i) + " missing");
            }
        }
        if (highest >= maxBackupIndex)
            result.problems.push_back("backup ." + std::to_string(maxBackupIndex) +
                                      " reached: backups may have been deleted (raise MaxBackupIndex)");
        if (!live) result.problems.push_back("no live file " + base);
        for (int i = highest; i >= 1; --i)
            if (present[static_cast<size_t>(i)]) files.push_back({dir + "/" + base + "." + std::to_string(i), ""});
        if (live) files.push_back({dir + "/" + base, ""});
        break;
    }
    case Kind::Daily:
        // The date text sorts as the time does.
        for (const std::string& n : names) {
            if (n.size() > base.size() && n.compare(0, base.size(), base) == 0 && n[base.size()] == '.')
                files.push_back({dir + "/" + n, n.substr(base.size())});
            else
                result.problems.push_back("unexpected file " + n);
        }
        if (files.empty()) result.problems.push_back("no dated file");
        break;
    }
    return files;
}

CheckResult checkRound(const std::string& dir, const Round& round, int processes, long records, int maxBackupIndex,
                       unsigned long long limit) {
    const size_t longestLine = maxLineLength(processes, records);
    CheckResult result;
    result.writers.resize(static_cast<size_t>(processes));
    std::vector<std::vector<uint8_t>> seen(static_cast<size_t>(processes),
                                           std::vector<uint8_t>(static_cast<size_t>(records), 0));
    std::vector<long> highest(static_cast<size_t>(processes), -1);
    std::unordered_map<long long, std::string> timeTexts;
    auto timeText = [&](long long s) -> const std::string& {
        auto it = timeTexts.find(s);
        if (it == timeTexts.end()) it = timeTexts.emplace(s, fileTimeText(s)).first;
        return it->second;
    };
    auto broken = [&](const std::string& file, const char* p, const char* end, const char* why) {
        const int k = guessWriter(p, end, processes);
        ++(k >= 0 ? result.writers[static_cast<size_t>(k)] : result.unattributed).torn;
        if (result.samples.size() < 8) {
            std::string line(p, static_cast<size_t>(std::min<ptrdiff_t>(end - p, 160)));
            for (char& c : line)
                if (c == '\r' || c == '\n') c = '|';
            result.samples.push_back(file.substr(file.rfind('/') + 1) + ": " + why + ": \"" + line + "\"");
        }
    };

    const std::vector<FileEntry> files = roundFiles(dir, round, maxBackupIndex, limit, longestLine, result);
    result.files = files.size();
    std::string text, scratch;
    for (const FileEntry& f : files) {
        if (!readWhole(f.path, text)) {
            result.problems.push_back("cannot read " + f.path);
            continue;
        }
        result.largest = std::max<unsigned long long>(result.largest, text.size());
        result.bytes += text.size();
        const char* p = text.data();
        const char* const end = p + text.size();
        while (p < end) {
            const char* nl = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
            if (!nl) {
                broken(f.path, p, end, "cut at the end of the file");
                break;
            }
            if (nl == p || nl[-1] != '\r') {
                broken(f.path, p, nl + 1, "line not ended by CR LF");
                p = nl + 1;
                continue;
            }
            Record r;
            if (!parseRecord(p, nl - 1, processes, records, r, scratch)) {
                broken(f.path, p, nl + 1, "not a record");
                p = nl + 1;
                continue;
            }
            p = nl + 1;
            Counts& c = result.writers[static_cast<size_t>(r.writer)];
            uint8_t& count = seen[static_cast<size_t>(r.writer)][static_cast<size_t>(r.sequence)];
            if (count != 0) {
                ++c.duplicated;
                if (count < 255) ++count;
                continue;
            }
            count = 1;
            ++c.found;
            long& top = highest[static_cast<size_t>(r.writer)];
            if (r.sequence < top)
                ++c.reordered;
            else
                top = r.sequence;
            if (round.kind == Kind::Daily) {
                // The appender names the file by its clock when it writes the
                // record, a moment after the writer read the time: allow the
                // clock's refresh lag before and scheduling delays after.
                const long long t = r.seconds;
                const long long earliest = r.micros < 500000 ? t - 1 : t;
                bool fits = false;
                for (long long s = earliest; s <= t + 2 && !fits; ++s) fits = timeText(s) == f.dateSuffix;
                if (!fits) {
                    if (c.misdated == 0 && result.samples.size() < 8)
                        result.samples.push_back("P" + std::to_string(r.writer) + " #" +
                                                 std::to_string(r.sequence) + " logged at " + timeText(t) +
                                                 " found in " + f.dateSuffix);
                    ++c.misdated;
                }
            }
        }
    }
    for (size_t k = 0; k < seen.size(); ++k)
        for (uint8_t s : seen[k])
            if (s == 0) ++result.writers[k].lost;
    return result;
}

// ---------------------------------------------------------------- rounds

struct ChildState {
    pid_t pid = -1;
    bool done = false;
    int status = 0;
    bool killed = false;
};

std::string describeExit(const ChildState& c) {
    if (c.killed) return "hung";
    if (!c.done) return "?";
    if (WIFEXITED(c.status)) return WEXITSTATUS(c.status) == 0 ? "ok" : "exit " + std::to_string(WEXITSTATUS(c.status));
    if (WIFSIGNALED(c.status)) return std::string("sig ") + std::to_string(WTERMSIG(c.status));
    return "?";
}

std::string selfPath() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return std::string();
    path[n] = 0;
    return path;
}

double secondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Waits for every child until the deadline, then kills what is left.
void reap(std::vector<ChildState>& children, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        bool pending = false;
        for (ChildState& c : children) {
            if (c.done || c.pid < 0) continue;
            const pid_t got = waitpid(c.pid, &c.status, WNOHANG);
            if (got == c.pid)
                c.done = true;
            else
                pending = true;
        }
        if (!pending) return;
        if (std::chrono::steady_clock::now() > deadline) {
            for (ChildState& c : children) {
                if (c.done || c.pid < 0) continue;
                kill(c.pid, SIGKILL);
                waitpid(c.pid, &c.status, 0);
                c.done = true;
                c.killed = true;
            }
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

struct RoundOutcome {
    std::string name;
    Counts total;
    double seconds = 0;
    size_t files = 0;
    unsigned long long largest = 0;
    bool clean = false;
    std::string note;
};

// What a writer's row must show: every record once, whole, in order; with
// --inject writer P0 planted one fault of each kind.
Counts expectedCounts(const Options& o, const Round& round, int writer) {
    Counts c;
    c.found = static_cast<uint64_t>(o.records);
    if (o.inject && writer == 0 && o.records > 30) {
        c.found -= 1;
        c.torn = c.lost = c.duplicated = c.reordered = 1;
        c.misdated = round.kind == Kind::Daily ? 1 : 0;
    }
    return c;
}

bool operator==(const Counts& a, const Counts& b) {
    return a.found == b.found && a.torn == b.torn && a.lost == b.lost && a.duplicated == b.duplicated &&
           a.reordered == b.reordered && a.misdated == b.misdated;
}

RoundOutcome runRound(const Options& o, const Round& round) {
    RoundOutcome out;
    out.name = round.name();
    std::string pattern = o.baseDir + "/zvlog-stress-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        out.note = std::string("mkdtemp failed: ") + strerror(errno);
        return out;
    }
    const std::string dir = pattern;

    // Enough backups that nothing is deleted: every backup but the ones a
    // truncating start rolls away holds more than MaxFileSize less a record.
    const size_t line = maxLineLength(o.processes, o.records);
    const unsigned long long limit = o.maxFileBytes;
    const unsigned long long total = static_cast<unsigned long long>(o.processes) * o.records * line;
    int backups = 1;
    if (round.kind == Kind::Rolling) {
        const unsigned long long perFile = limit > line + 4096 ? limit - line - 4096 : 1;
        backups = static_cast<int>(std::min<unsigned long long>(total / perFile + o.processes + 8, 1000000));
    }

    int ready[2], go[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(go, O_CLOEXEC) != 0) {
        out.note = "pipe failed";
        return out;
    }
    std::vector<ChildState> children(static_cast<size_t>(o.processes));
    const std::string self = selfPath();
    // An appender the parent makes and opens for its forked writers.
    std::unique_ptr<FileAppender> parentMade;
    FileAppender* inherited = nullptr;
    Logger* log = Logger::getRepository()->getLogger(kLoggerName);
    if (round.inherited) {
        WriterSpec w{round, dir, 0, o.records, o.maxFileSize, backups, o.bufferSize, o.dailySeconds, o.inject};
        parentMade.reset(makeAppender(w));
        inherited = parentMade.get();
        inherited->activateOptions();
        if (round.async) inherited->setAsynchronous(true);
        log->addAppender(*inherited);
    }
    fflush(stdout);
    fflush(stderr);
    for (int k = 0; k < o.processes; ++k) {
        WriterSpec w{round, dir, k, o.records, o.maxFileSize, backups, o.bufferSize, o.dailySeconds, o.inject};
        if (!round.exec) {
            // Fork as a program that is logging does: the library's clock
            // thread was just asked for the time and is awake.
            timeval32_t now;
            LoggingTime::getCurrentTime(&now);
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            LoggingTime::getCurrentTime(&now);
            const pid_t pid = fork();
            if (pid == 0) {
                close(ready[0]);
                close(go[1]);
                exit(runWriter(w, ready[1], go[0], inherited));
            }
            children[static_cast<size_t>(k)].pid = pid;
        } else {
            std::vector<std::string> args = writerArguments(w);
            args.insert(args.begin(), self);
            std::vector<char*> argv;
            for (std::string& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init(&actions);
            posix_spawn_file_actions_adddup2(&actions, ready[1], kReadyFd);
            posix_spawn_file_actions_adddup2(&actions, go[0], kGoFd);
            pid_t pid = -1;
            if (posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
            posix_spawn_file_actions_destroy(&actions);
            children[static_cast<size_t>(k)].pid = pid;
        }
    }
    close(ready[1]);
    close(go[0]);
    if (parentMade) {
        log->removeAppender(*parentMade);
        parentMade->close();
        parentMade.reset();
    }

    // Every writer has its file open before any writes.
    const auto started = std::chrono::steady_clock::now();
    const auto deadline = started + std::chrono::seconds(o.timeoutSeconds);
    int readyCount = 0;
    while (readyCount < o.processes && std::chrono::steady_clock::now() < deadline) {
        pollfd p{ready[0], POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        char buf[64];
        const ssize_t got = read(ready[0], buf, sizeof buf);
        if (got > 0) readyCount += static_cast<int>(got);
        if (got == 0) break;  // every writer gone
    }
    close(ready[0]);
    const auto go_time = std::chrono::steady_clock::now();
    close(go[1]);
    reap(children, deadline);
    out.seconds = secondsSince(go_time);
    if (readyCount < o.processes) out.note = std::to_string(o.processes - readyCount) + " writer(s) never got ready";

    const CheckResult check = checkRound(dir, round, o.processes, o.records, backups, limit);
    out.files = check.files;
    out.largest = check.largest;

    printf("\n== %s: %d x %ld records, %zu file(s), %.1f MB, largest %llu bytes",
           out.name.c_str(), o.processes, o.records, check.files, check.bytes / 1048576.0, check.largest);
    if (round.kind == Kind::Rolling) printf(", MaxFileSize %llu, MaxBackupIndex %d", limit, backups);
    printf(", %.2f s\n", out.seconds);
    printf("  %-6s %9s %7s %7s %7s %7s %8s  %s\n", "writer", "found", "torn", "lost", "dup", "order", "misdated",
           "exit");
    bool clean = readyCount == o.processes && check.problems.empty() && check.unattributed.torn == 0;
    for (int k = 0; k < o.processes; ++k) {
        const Counts& c = check.writers[static_cast<size_t>(k)];
        const std::string exit = describeExit(children[static_cast<size_t>(k)]);
        printf("  P%-5d %9llu %7llu %7llu %7llu %7llu %8llu  %s\n", k, (unsigned long long)c.found,
               (unsigned long long)c.torn, (unsigned long long)c.lost, (unsigned long long)c.duplicated,
               (unsigned long long)c.reordered, (unsigned long long)c.misdated, exit.c_str());
        out.total.add(c);
        if (!(c == expectedCounts(o, round, k)) || exit != "ok") clean = false;
    }
    out.total.add(check.unattributed);
    if (check.unattributed.torn)
        printf("  %-6s %9s %7llu\n", "?", "", (unsigned long long)check.unattributed.torn);
    printf("  %-6s %9llu %7llu %7llu %7llu %7llu %8llu\n", "all", (unsigned long long)out.total.found,
           (unsigned long long)out.total.torn, (unsigned long long)out.total.lost,
           (unsigned long long)out.total.duplicated, (unsigned long long)out.total.reordered,
           (unsigned long long)out.total.misdated);
    for (const std::string& p : check.problems) printf("  problem: %s\n", p.c_str());
    for (const std::string& s : check.samples) printf("  sample: %s\n", s.c_str());
    if (!out.note.empty()) printf("  problem: %s\n", out.note.c_str());
    out.clean = clean;
    if (o.inject)
        printf("  %s\n", clean ? "the planted faults, and only they, were found" : "CHECKER OR LIBRARY FAULT");
    else
        printf("  %s\n", clean ? "clean" : "DEFECTS FOUND");
    if (clean && !o.keep) {
        // Remove the round's files and directory.
        if (DIR* d = opendir(dir.c_str())) {
            while (dirent* e = readdir(d))
                if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                    unlink((dir + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(dir.c_str());
    } else {
        printf("  files kept in %s\n", dir.c_str());
    }
    fflush(stdout);
    return out;
}

// ---------------------------------------------------------------- options

void usage(FILE* to) {
    fprintf(to,
            "usage: zvlog_stress [options]\n"
            "Several processes log into one file through the file appenders at once;\n"
            "every record is then read back from the file, its backups or dated files.\n"
            "\n"
            "  -p, --processes N      writer processes per round (default 4)\n"
            "  -r, --records M        records per writer (default 5000)\n"
            "      --appenders LIST   file,rolling,daily (default all three)\n"
            "      --io LIST          buffered,unbuffered (default both)\n"
            "      --open LIST        append,truncate (default both; daily only appends)\n"
            "      --spawn LIST       fork,exec (default both)\n"
            "      --delivery LIST    direct,async (default direct)\n"
            "      --setup LIST       child,parent: who makes and opens the appender in fork\n"
            "                         rounds, each writer or the parent before it forks\n"
            "                         (\"inherited\" rounds); exec rounds are always child\n"
            "                         (default both)\n"
            "      --max-file-size T  MaxFileSize of the rolling rounds (default 256KB);\n"
            "                         MaxBackupIndex is chosen so that nothing is deleted\n"
            "      --buffer-size N    BufferSize of the buffered rounds (default 4096)\n"
            "      --daily-seconds S  the daily rounds spread their records over at least S\n"
            "                         seconds, so that the file changes while all write (default 3)\n"
            "      --timeout S        seconds per round before writers are killed (default 600)\n"
            "      --dir PATH         where round directories are made (default $TMPDIR or /tmp)\n"
            "      --keep             keep the files of clean rounds too\n"
            "      --list             print the rounds that would run and exit\n"
            "      --inject           checks the checker: writer P0 skips record 5, logs 7 twice,\n"
            "                         11 before 10, one torn line, and in daily rounds one record\n"
            "                         dated two hours back; a round then passes only when its\n"
            "                         table shows exactly these faults\n"
            "  -h, --help             this text\n"
            "\n"
            "Records read \"INFO  stress P<k> #<n> t<time> <padding>\". Per writer the table\n"
            "counts records found, torn lines (not exactly a record, or cut at a file's end),\n"
            "lost and duplicated numbers, records out of the writer's order (backups .N are\n"
            "older than .N-1 and the live file; dated files go by their time) and, for the\n"
            "daily rounds, records in a file of another second than they were logged in.\n"
            "Files of rounds with defects are kept. Exit status: 0 when every round is\n"
            "clean, 1 when any count but \"found\" is off or a writer failed, 2 on bad usage.\n");
}

bool splitList(const char* text, const std::vector<std::string>& words, std::vector<int>& picked) {
    picked.clear();
    std::string s = text;
    size_t start = 0;
    while (start <= s.size()) {
        size_t comma = s.find(',', start);
        if (comma == std::string::npos) comma = s.size();
        const std::string word = s.substr(start, comma - start);
        auto it = std::find(words.begin(), words.end(), word);
        if (it == words.end()) return false;
        const int index = static_cast<int>(it - words.begin());
        if (std::find(picked.begin(), picked.end(), index) == picked.end()) picked.push_back(index);
        start = comma + 1;
    }
    return !picked.empty();
}

bool pickBools(const char* text, const char* yes, const char* no, std::vector<bool>& out) {
    std::vector<int> picked;
    if (!splitList(text, {yes, no}, picked)) return false;
    out.clear();
    for (int i : picked) out.push_back(i == 0);
    return true;
}

bool parseOptions(int argc, char** argv, Options& o) {
    enum { Appenders = 1000, Io, Open, Spawn, Delivery, Setup, MaxFileSize, BufferSize, DailySeconds, Timeout, Dir, Keep,
           List, Inject };
    static const option longOptions[] = {{"processes", required_argument, nullptr, 'p'},
                                         {"records", required_argument, nullptr, 'r'},
                                         {"appenders", required_argument, nullptr, Appenders},
                                         {"io", required_argument, nullptr, Io},
                                         {"open", required_argument, nullptr, Open},
                                         {"spawn", required_argument, nullptr, Spawn},
                                         {"delivery", required_argument, nullptr, Delivery},
                                         {"setup", required_argument, nullptr, Setup},
                                         {"max-file-size", required_argument, nullptr, MaxFileSize},
                                         {"buffer-size", required_argument, nullptr, BufferSize},
                                         {"daily-seconds", required_argument, nullptr, DailySeconds},
                                         {"timeout", required_argument, nullptr, Timeout},
                                         {"dir", required_argument, nullptr, Dir},
                                         {"keep", no_argument, nullptr, Keep},
                                         {"list", no_argument, nullptr, List},
                                         {"inject", no_argument, nullptr, Inject},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    auto positive = [](const char* text, long max, long& out) {
        char* end = nullptr;
        errno = 0;
        const long v = strtol(text, &end, 10);
        if (errno || !end || *end || v < 1 || v > max) return false;
        out = v;
        return true;
    };
    int c;
    long v;
    std::vector<int> picked;
    while ((c = getopt_long(argc, argv, "p:r:h", longOptions, nullptr)) != -1) {
        switch (c) {
        case 'p':
            if (!positive(optarg, 999, v)) return false;
            o.processes = static_cast<int>(v);
            break;
        case 'r':
            if (!positive(optarg, 100000000, v)) return false;
            o.records = v;
            break;
        case Appenders:
            if (!splitList(optarg, {"file", "rolling", "daily"}, picked)) return false;
            o.kinds.clear();
            for (int i : picked) o.kinds.push_back(static_cast<Kind>(i));
            break;
        case Io:
            if (!pickBools(optarg, "buffered", "unbuffered", o.buffered)) return false;
            break;
        case Open:
            if (!pickBools(optarg, "append", "truncate", o.append)) return false;
            break;
        case Spawn:
            if (!pickBools(optarg, "exec", "fork", o.exec)) return false;
            break;
        case Delivery:
            if (!pickBools(optarg, "async", "direct", o.async)) return false;
            break;
        case Setup:
            if (!pickBools(optarg, "parent", "child", o.inherited)) return false;
            break;
        case MaxFileSize: {
            o.maxFileSize = optarg;
            RollingFileAppender probe("probe");
            probe.setMaxFileSize("0");
            probe.setMaxFileSize(optarg);
            o.maxFileBytes = probe.getMaxFileSize();
            if (o.maxFileBytes < 16384) {
                fprintf(stderr, "zvlog_stress: --max-file-size must be a valid size of at least 16KB\n");
                return false;
            }
            break;
        }
        case BufferSize:
            if (!positive(optarg, 1L << 30, v)) return false;
            o.bufferSize = static_cast<unsigned long long>(v);
            break;
        case DailySeconds:
            if (!positive(optarg, 3600, v)) return false;
            o.dailySeconds = static_cast<int>(v);
            break;
        case Inject:
            o.inject = true;
            break;
        case Timeout:
            if (!positive(optarg, 86400, v)) return false;
            o.timeoutSeconds = static_cast<int>(v);
            break;
        case Dir:
            o.baseDir = optarg;
            break;
        case Keep:
            o.keep = true;
            break;
        case List:
            o.list = true;
            break;
        case 'h':
            usage(stdout);
            exit(0);
        default:
            return false;
        }
    }
    if (optind != argc) return false;
    if (o.baseDir.empty()) {
        const char* t = getenv("TMPDIR");
        o.baseDir = t && *t ? t : "/tmp";
    }
    return true;
}

std::vector<Round> rounds(const Options& o) {
    std::vector<Round> out;
    for (Kind kind : o.kinds)
        for (bool buffered : o.buffered)
            for (bool append : o.append)
                for (bool exec : o.exec)
                    for (bool async : o.async)
                        for (bool inherited : o.inherited) {
                            if (kind == Kind::Daily && !append) continue;
                            if (exec && inherited) continue;
                            out.push_back({kind, buffered, append, exec, async, inherited});
                        }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--writer") == 0) return writerMain(argc, argv);
    Options o;
    if (!parseOptions(argc, argv, o)) {
        usage(stderr);
        return 2;
    }
    const std::vector<Round> all = rounds(o);
    if (o.list || all.empty()) {
        for (const Round& r : all) printf("%s\n", r.name().c_str());
        if (all.empty()) fprintf(stderr, "zvlog_stress: no round left (daily rounds only append)\n");
        return all.empty() ? 2 : 0;
    }
    // The library runs in this process before any writer is forked: the
    // children of fork() go on with its repository, logger and clock.
    Logger* log = Logger::getRepository()->getLogger(kLoggerName);
    log->setLevel(LEVEL_ALL);
    log->setAdditivity(false);
    timeval32_t now;
    LoggingTime::getCurrentTime(&now);

    std::vector<RoundOutcome> outcomes;
    for (const Round& r : all) outcomes.push_back(runRound(o, r));

    printf("\n%-46s %9s %6s %6s %6s %6s %8s %6s %9s  %s\n", "round", "found", "torn", "lost", "dup", "order",
           "misdated", "files", "seconds", "verdict");
    bool clean = true;
    for (const RoundOutcome& r : outcomes) {
        printf("%-46s %9llu %6llu %6llu %6llu %6llu %8llu %6zu %9.2f  %s\n", r.name.c_str(),
               (unsigned long long)r.total.found, (unsigned long long)r.total.torn,
               (unsigned long long)r.total.lost, (unsigned long long)r.total.duplicated,
               (unsigned long long)r.total.reordered, (unsigned long long)r.total.misdated, r.files, r.seconds,
               r.clean ? "clean" : "DEFECTS");
        clean = clean && r.clean;
    }
    printf("%s\n", clean ? "all rounds clean" : "DEFECTS FOUND");
    return clean ? 0 : 1;
}
