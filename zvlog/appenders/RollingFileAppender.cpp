#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "zvlog/FileAppender.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/FileLock.h"
#include "zvstd/Files.h"
#include "zvstd/LogFile.h"

namespace zvs::zvlib::zvlog {


namespace {

constexpr const char* kFile = "zvlog/zvlog";
constexpr const char* kRollOver = "zvs::zvlib::zvlog::RollingFileAppender::rollOver";
constexpr const char* kSetMaxFileSize = "zvs::zvlib::zvlog::RollingFileAppender::setMaxFileSize";

std::string backupName(const std::string& name, int index) { return name + "." + std::to_string(index); }

}  // namespace

// Failures of a roll are raised once the file lock is released: the
// message's actions may log, and must not wait for a lock this thread holds.
struct RollingFileAppender::RollFailure {
    unsigned int number;
    unsigned int line;
    std::string from;
    std::string to;
    std::string error;
};

namespace {

void raiseFailures(const std::vector<RollingFileAppender::RollFailure>& failures) {
    for (const RollingFileAppender::RollFailure& f : failures) {
        if (f.number == 1093)
            detail::raiseMessage(1093, {"zvlog.std", kFile, kRollOver, f.line}, {f.from, f.error});
        else
            detail::raiseMessage(1800, {"zvlog.std", kFile, kRollOver, f.line}, {f.from, f.to, f.error});
    }
}

}  // namespace

RollingFileAppender::RollingFileAppender(const char* name) : FileAppender(name) {
    followRenames_ = true;
    recordsInPlace_ = false;
}

RollingFileAppender::~RollingFileAppender() { setAsynchronous(false); }

// Strict on purpose: a unit letter must be followed by "b" or "B" and
// nothing else, so 10MB is accepted and 10M is not. Before each
// multiplication by 1024 the value must be below 4194304, which keeps the
// result within 32 bits.
void RollingFileAppender::setMaxFileSize(const char* text) {
    const char* const t = text ? text : "";
    const char* p = t;
    uint64_t value = 0;
    bool tooLong = false;
    for (; *p >= '0' && *p <= '9'; ++p) {
        if (tooLong) continue;
        value = value * 10 + static_cast<uint64_t>(*p - '0');
        if (value > 0xFFFFFFFFull) tooLong = true;
    }
    if (tooLong) value = 0;  // a number beyond 32 bits reads as 0
    int multiplications = 0;
    switch (*p) {
    case '\0':
        break;
    case 'G':
    case 'g':
        multiplications = 3;
        break;
    case 'M':
    case 'm':
        multiplications = 2;
        break;
    case 'K':
    case 'k':
        multiplications = 1;
        break;
    default:
        multiplications = -1;
        break;
    }
    if (multiplications > 0 && ((p[1] != 'b' && p[1] != 'B') || p[2] != '\0')) multiplications = -1;
    if (multiplications < 0) {
        detail::raiseMessage(1531, {"zvlog.std", kFile, kSetMaxFileSize, __LINE__}, {t});
        return;
    }
    for (int i = 0; i < multiplications; ++i) {
        if (value >= 4194304) {
            detail::raiseMessage(1530, {"zvlog.std", kFile, kSetMaxFileSize, __LINE__}, {t});
            return;
        }
        value *= 1024;
    }
    maxFileSize_ = static_cast<unsigned int>(value);
}

void RollingFileAppender::activateOptions() {
    FileHold hold(*this);
    // A restart without Append keeps the previous file as backup 1.
    if (!isOpen() && !append_) rollOver();
    FileAppender::activateOptions();
    if (maxFileSize_ != 0 && isOpen() && position() >= maxFileSize_) rollOver();
}

void RollingFileAppender::reset() {
    setAsynchronous(false);
    FileHold hold(*this);
    const bool wasOpen = isOpen();
    rollOver();
    if (!wasOpen) FileAppender::activateOptions();
}

// The check uses the live file's size as last seen (each write() refreshes
// it) plus what is buffered. A record never separates a file from its
// footer: with a footer the record goes into the old file before the roll,
// without one into the new file after it.
void RollingFileAppender::write(const void* data, unsigned long long length) {
    FileHold hold(*this);
    if (!isOpen()) activateOptions();
    if (!isOpen()) return;
    const unsigned long long n = length;
    const unsigned long long p = position();
    const unsigned long long limit = maxFileSize_;
    if (limit == 0 || p + 2 * n + 2048 < limit) {
        put(data, static_cast<size_t>(n));
        return;
    }
    const Layout* layout = getLayout();
    const unsigned long long footer = layout ? layout->getFooterLength() : 0;
    if (footer != 0) put(data, static_cast<size_t>(n));
    if (n + footer + p > limit) rollOver();
    if (footer == 0 && isOpen()) put(data, static_cast<size_t>(n));
}

bool RollingFileAppender::shiftBackups(const std::string& name, std::vector<RollFailure>& failures, bool moveLive) {
    const std::string last = backupName(name, maxBackupIndex_);
    int error = zvRemoveLogFile(last.c_str());
    if (error != 0 && error != ENOENT) failures.push_back({1093, 3556, last, std::string(), zvErrorText(error)});
    bool movedAway = !moveLive;
    for (int i = maxBackupIndex_; i >= (moveLive ? 1 : 2); --i) {
        const std::string from = i == 1 ? name : backupName(name, i - 1);
        const std::string to = backupName(name, i);
        error = zvRenameLogFile(from.c_str(), to.c_str());
        if (error != 0 && error != ENOENT) failures.push_back({1800, 3574, from, to, zvErrorText(error)});
        if (i == 1) movedAway = error == 0 || error == ENOENT;
    }
    return movedAway;
}

// Without a file of our own the live file is still locked around the
// renames, so that they never mix with another process's roll. When there is
// no live file this roll creates it, empty, to hold the lock, and moves only
// the backups: as if the missing file had been renamed, and the file that
// is then opened is this one.
void RollingFileAppender::rollWithoutFile(std::vector<RollFailure>& failures) {
    const std::string name = getFile();
    int fd = -1;
    bool created = false;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        created = false;
        fd = zvOpenLogFile(name.c_str(), false, true);
        if (fd < 0 && errno == ENOENT) {
            fd = zvCreateLogFile(name.c_str());
            if (fd < 0 && errno == EEXIST) continue;  // created meanwhile: open that one
            created = fd >= 0;
        }
        if (fd < 0) break;  // cannot be opened: nothing to lock, nobody to meet
        LogFileFacts mine, now;
        if (!zvLockFileFirstByte(fd)) {
            zvCloseLogFile(fd);
            fd = -1;
            break;
        }
        if (zvLogFileFacts(fd, mine) && zvLogFileFacts(name.c_str(), now) && mine.sameFile(now)) break;
        zvCloseLogFile(fd);  // rolled meanwhile: lock the new one
        fd = -1;
    }
    keepExisting_ = shiftBackups(name, failures, !created);
    zvCloseLogFile(fd);
}

void RollingFileAppender::rollOver() {
    FileHold hold(*this);
    if (rolling_ || fileName_.empty()) return;
    rolling_ = true;
    std::vector<RollFailure> failures;
    if (!isOpen()) {
        rollWithoutFile(failures);
        rolling_ = false;
        raiseFailures(failures);
        return;
    }
    // The lock goes through a descriptor of the roll's own: the open one may
    // be shared with other processes (children of fork()), which would all
    // hold a lock taken through it. Closing the own one releases the lock.
    const int openFd = fd();
    const int ownFd = zvReopenLogFile(openFd);
    const int lockFd = ownFd >= 0 ? ownFd : openFd;
    if (!zvLockFileFirstByte(lockFd)) {
        zvCloseLogFile(ownFd);
        rolling_ = false;
        return;
    }
    if (!nameIsOpenFile()) {
        // Another process rolled the file while we waited for the lock: our
        // pending records and the next ones go to the file it opened.
        flushBuffer(true);
        if (fd() == openFd) followName();
        if (ownFd >= 0)
            zvCloseLogFile(ownFd);
        else if (fd() == openFd)
            zvUnlockFileFirstByte(openFd);
        rolling_ = false;
        return;
    }
    const bool movedAway = shiftBackups(openName(), failures);
    // The footer and pending records end the old file; the new one is open
    // before the old descriptor, and with it the lock, goes.
    putLayoutText(false);
    const int oldFd = detachFile(false);
    keepExisting_ = movedAway;
    activateOptions();
    keepExisting_ = false;
    zvCloseLogFile(oldFd);
    zvCloseLogFile(ownFd);
    rolling_ = false;
    raiseFailures(failures);
}

}  // namespace zvs::zvlib::zvlog
