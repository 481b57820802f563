#include "zvlog/FileAppender.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "zvlog/appenders/FileNames.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/FileLock.h"
#include "zvstd/LogFile.h"
#include "zvstd/MutexInline.h"

namespace zvs::zvlib::zvlog {

using MultiThreading::Mutex;
using MultiThreading::MutexLock;

// Open file appenders, so that what they buffer reaches the file when the
// process exits without closing them, as a stdio stream's buffer would.
struct OpenFileRegistry {
    Mutex mutex{Mutex::Recursive};
    std::vector<FileAppender*> open;

    static OpenFileRegistry& get() {
        static OpenFileRegistry* registry = [] {
            auto* r = new OpenFileRegistry();  // outlives every appender
            std::atexit(flushAll);
            return r;
        }();
        return *registry;
    }

    void add(FileAppender* a) {
        MutexLock lock(mutex);
        open.push_back(a);
    }
    void remove(FileAppender* a) {
        MutexLock lock(mutex);
        open.erase(std::remove(open.begin(), open.end(), a), open.end());
    }

    // A thread that is in the middle of a write gets a moment to finish it;
    // one that never lets go (waiting for another process's lock) is skipped
    // rather than hanging the exit. The exiting thread may itself be inside
    // an append (exit() from a message action): its buffer is flushed as is.
    static void flushAll() {
        OpenFileRegistry& r = get();
        MutexLock lock(r.mutex);
        for (FileAppender* a : r.open) {
            Mutex& m = a->mutex();
            const bool held = m.heldByCurrentThread();
            bool locked = false;
            for (int i = 0; !held && i < 200 && !(locked = m.tryLock()); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (!held && !locked) continue;
            a->flushBuffer(a->followRenames_);
            if (locked) m.unlock();
        }
    }
};

FileAppender::FileAppender(const char* name) : WriterAppender(name) {}

FileAppender::~FileAppender() {
    setAsynchronous(false);
    FileHold hold(*this);
    // Like a stdio stream closed without the appender's close(): what is
    // buffered goes out, the footer does not.
    if (fd_ >= 0) zvCloseLogFile(detachFile(followRenames_));
}

// An empty name stays empty (no file) rather than naming the log directory.
void FileAppender::setFile(const char* file) {
    fileName_ = expandFileName(file, false);
    needsResolving_ = fileName_.find('%') != std::string::npos;
}

std::string FileAppender::getFile() const {
    return needsResolving_ ? expandFileName(fileName_.c_str(), true) : fileName_;
}

void FileAppender::adopt(int fd, const std::string& name) {
    fd_ = fd;
    openName_ = name;
    LogFileFacts facts;
    if (zvLogFileFacts(fd, facts)) {
        device_ = facts.device;
        inode_ = facts.inode;
        size_ = facts.size;
    } else {
        device_ = inode_ = size_ = 0;
    }
    buffer_.clear();
    capacity_ = bufferedIO_ && bufferSize_ != 0 ? static_cast<size_t>(bufferSize_) : 0;
    // A huge configured size is a limit, not an allocation up front.
    buffer_.reserve(std::min<size_t>(capacity_, size_t(1) << 20));
    if (!registered_) {
        OpenFileRegistry::get().add(this);
        registered_ = true;
    }
}

int FileAppender::detachFile(bool follow) {
    flushBuffer(follow);
    const int fd = fd_;
    fd_ = -1;
    if (registered_) {
        OpenFileRegistry::get().remove(this);
        registered_ = false;
    }
    return fd;
}

void FileAppender::activateOptions() {
    FileHold hold(*this);
    const std::string name = getFile();
    if (name.empty()) return;
    if (fd_ >= 0) zvCloseLogFile(detachFile(followRenames_));
    const bool truncate = !append_ && !keepExisting_;
    keepExisting_ = false;
    const int fd = zvOpenLogFile(name.c_str(), truncate);
    if (fd < 0) {
        if (name == lastFailedName_) return;
        lastFailedName_ = name;
        detail::raiseMessage(
            1525, {"zvlog.std", "zvlog/zvlog", "zvs::zvlib::zvlog::FileAppender::activateOptions", 3366}, {name});
        return;
    }
    adopt(fd, name);
    putLayoutText(true);
}

void FileAppender::reset() {
    setAsynchronous(false);
    FileHold hold(*this);
    if (fd_ < 0) activateOptions();
    if (fd_ < 0) return;
    buffer_.clear();
    zvTruncateFile(fd_);
    size_ = 0;
}

void FileAppender::close() {
    setAsynchronous(false);
    FileHold hold(*this);
    closeFile();
}

void FileAppender::closeFile() {
    if (fd_ < 0) return;
    putLayoutText(false);
    zvCloseLogFile(detachFile(followRenames_));
}

void FileAppender::flush() {
    FileHold hold(*this);
    flushBuffer(followRenames_);
}

FileAppender::FileHold::FileHold(FileAppender& a)
    : m_(a.mutex()), took_(MultiThreading::detail::MutexAccess::lockUnlessHeld(m_)) {}

FileAppender::FileHold::~FileHold() {
    if (took_) MultiThreading::detail::MutexAccess::unlock(m_);
}

void FileAppender::write(const void* data, unsigned long long length) {
    FileHold hold(*this);
    if (fd_ < 0) activateOptions();
    if (fd_ < 0) return;
    put(data, static_cast<size_t>(length));
}

// The buffer holds whole records before `at` and the newest one after it.
// Mostly the newest just stays there; otherwise spillRecords writes.
[[gnu::always_inline]] inline void FileAppender::placeLastRecord(size_t at) {
    if (ZVLOG_UNLIKELY(buffer_.size() > capacity_ || buffer_.size() - at >= capacity_ || immediateFlush_))
        spillRecords(at);
}

// When the newest record does not fit behind the others they go out first, a
// record as large as the buffer (every record when unbuffered) is written by
// itself, and immediate flush writes what remains.
void FileAppender::spillRecords(size_t at) {
    const size_t n = buffer_.size() - at;
    if (buffer_.size() > capacity_ || n >= capacity_) {
        if (at != 0) {
            writeOut(buffer_.data(), at, followRenames_);
            buffer_.erase(0, at);
        }
        if (n >= capacity_) {
            writeOut(buffer_.data(), n, followRenames_);
            buffer_.clear();
        }
    }
    if (immediateFlush_) flushBuffer(followRenames_);
}

void FileAppender::append(const LoggingEvent* event) {
    Layout* layout = getLayout();
    if (!recordsInPlace_ || !layout) {
        WriterAppender::append(event);
        return;
    }
    // What FileHold does, inline on the path every record takes.
    MultiThreading::detail::InlineMutexHold hold(mutex());
    if (fd_ < 0) activateOptions();
    if (fd_ < 0) return;
    const size_t at = buffer_.size();
    layout->format(event, buffer_);
    placeLastRecord(at);
}

// Header and footer go straight into the file's buffer: they never trigger
// a roll of their own.
void FileAppender::putLayoutText(bool header) {
    Layout* layout = getLayout();
    if (!layout) return;
    std::string text;
    if (header)
        layout->getHeader(text);
    else
        layout->getFooter(text);
    if (!text.empty()) put(text.data(), text.size());
}

void FileAppender::put(const void* data, size_t length) {
    const size_t at = buffer_.size();
    buffer_.append(static_cast<const char*>(data), length);
    placeLastRecord(at);
}

void FileAppender::flushBuffer(bool follow) {
    if (buffer_.empty() || fd_ < 0) return;
    writeOut(buffer_.data(), buffer_.size(), follow);
    buffer_.clear();
}

// One write() of whole records: O_APPEND puts them at the file's end in one
// piece. Write errors are not reported.
void FileAppender::writeOut(const void* data, size_t length, bool follow) {
    if (follow) followName();
    if (fd_ < 0) return;
    zvWriteLogFile(fd_, data, length);
    size_ += length;
}

bool FileAppender::nameIsOpenFile() const {
    LogFileFacts now;
    return zvLogFileFacts(openName_.c_str(), now) && now.device == device_ && now.inode == inode_;
}

void FileAppender::followName() {
    if (fd_ < 0) return;
    LogFileFacts now;
    if (zvLogFileFacts(openName_.c_str(), now) && now.device == device_ && now.inode == inode_) {
        size_ = now.size;
        return;
    }
    // Rolled by another process, or removed: continue in the file the name
    // refers to now, never truncating it. If it cannot be opened, the old
    // file takes the records.
    const int fd = zvOpenLogFile(openName_.c_str(), false);
    if (fd < 0) return;
    LogFileFacts facts;
    if (!zvLogFileFacts(fd, facts)) {
        zvCloseLogFile(fd);
        return;
    }
    zvCloseLogFile(fd_);
    fd_ = fd;
    device_ = facts.device;
    inode_ = facts.inode;
    size_ = facts.size;
}

}  // namespace zvs::zvlib::zvlog
