#include "StreamFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace zvdump {

using namespace zvs::zvlib::zvlog;

volatile sig_atomic_t stopRequested = 0;

namespace {

// A block's stream is at most 1 MiB; a few blocks per read keep the re-read
// of a stream cut by the end of a read small.
constexpr size_t kChunk = 4u << 20;

void onStop(int) { stopRequested = 1; }

void sleepMilliseconds(unsigned ms) {
    struct timespec t{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    nanosleep(&t, nullptr);  // a stop signal ends it early
}

}  // namespace

void installStopHandlers() {
    struct sigaction action{};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the signal wakes the poll's sleep
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

StreamFile::StreamFile(std::string path, EventSink events, ErrorSink errors)
    : path_(std::move(path)), events_(std::move(events)), errors_(std::move(errors)) {}

StreamFile::~StreamFile() {
    if (fd_ >= 0) close(fd_);
}

bool StreamFile::open() {
    fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    return fd_ >= 0;
}

// The reader's own text for a file it cannot read: it meets the same failure
// when it tries.
bool StreamFile::failWithReaderText() {
    const int error = errno;
    const DecodeResult r = decodeFile(path_.c_str());
    if (!r.errors.empty() && r.events.empty()) {
        for (const std::string& e : r.errors) errors_(e);
    } else {
        char text[256];
        snprintf(text, sizeof text, "Failed to read '%s', error %d - %s\n", path_.c_str(), error, strerror(error));
        errors_(text);
    }
    return false;
}

bool StreamFile::readMore(size_t limit, size_t& got) {
    got = 0;
    const size_t old = buffer_.size();
    buffer_.resize(old + limit);
    bool ok = true;
    while (got < limit) {
        const ssize_t n = ::read(fd_, buffer_.data() + old + got, limit - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            ok = false;
            break;
        } else if (stopRequested) {
            break;
        }
    }
    const int error = errno;
    buffer_.resize(old + got);
    errno = error;
    return ok;
}

StreamFile::Step StreamFile::decodeBuffered(bool final) {
    if (buffer_.empty()) return Step::Done;
    DecodeResult r = decodeStreams(buffer_.data(), buffer_.size(), path_.c_str(), origin_);
    if (r.truncated && !final) {
        // The last stream is not whole yet: hand over the streams before it
        // and keep its bytes for the next round. Its events come then.
        if (r.consumed == 0) return Step::More;
        if (r.errors.size() > 1) {
            // Some diagnostics may be the partial stream's own.
            r = decodeStreams(buffer_.data(), r.consumed, path_.c_str(), origin_);
        } else {
            r.errors.clear();
        }
        const uint64_t end = origin_ + r.consumed;
        for (const DecodedEvent& e : r.events)
            if (e.offset < end) events_(e);
        for (const std::string& e : r.errors) errors_(e);
        buffer_.erase(0, r.consumed);
        origin_ = end;
        return Step::More;
    }
    for (const DecodedEvent& e : r.events) events_(e);
    for (const std::string& e : r.errors) errors_(e);
    if (r.consumed < buffer_.size()) return Step::Damaged;  // an error stopped the reader
    origin_ += buffer_.size();
    buffer_.clear();
    return Step::More;
}

bool StreamFile::readAll() {
    if (!open()) return failWithReaderText();
    for (;;) {
        size_t got = 0;
        if (!readMore(kChunk, got)) return failWithReaderText();
        const bool final = got < kChunk;
        if (decodeBuffered(final) == Step::Damaged) return false;
        if (final) return true;
    }
}

void StreamFile::restart() {
    fprintf(stderr, "zvlog-dump: '%s' was replaced or cut shorter; reading it from the start\n", path_.c_str());
    origin_ = 0;
    buffer_.clear();
}

void StreamFile::reopenIfReplaced() {
    struct stat open {}, named {};
    if (fstat(fd_, &open) != 0) return;
    if (stat(path_.c_str(), &named) == 0 && (named.st_ino != open.st_ino || named.st_dev != open.st_dev)) {
        const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;  // gone again: keep the old one and look later
        close(fd_);
        fd_ = fd;
        restart();
    } else if (static_cast<uint64_t>(open.st_size) < origin_ + buffer_.size()) {
        lseek(fd_, 0, SEEK_SET);
        restart();
    }
}

bool StreamFile::follow(unsigned pollMilliseconds, const std::function<void()>& afterRound) {
    if (!open()) return failWithReaderText();
    for (;;) {
        size_t got = 0;
        if (!readMore(kChunk, got)) return failWithReaderText();
        if (got > 0 && decodeBuffered(false) == Step::Damaged) return false;
        afterRound();
        if (stopRequested) return true;
        if (got == kChunk) continue;  // more is there already
        reopenIfReplaced();
        sleepMilliseconds(pollMilliseconds);
    }
}

}  // namespace zvdump
