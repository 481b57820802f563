#include "zvlog/WriterAppender.h"

#include <cstdio>

#include "zvstd/FileLock.h"

namespace zvs::zvlib::zvlog {

WriterAppender::WriterAppender(const char* name) : Appender(name) {}

WriterAppender::~WriterAppender() {
    setAsynchronous(false);
    if (stream_) {
        fclose(stream_);
        stream_ = nullptr;
    }
}

void WriterAppender::setStream(FILE* stream, bool lockable) {
    stream_ = stream;
    lockable_ = lockable && stream && zvIsRegularFile(fileno(stream));
}

void WriterAppender::reset() {
    setAsynchronous(false);
    if (stream_) {
        fflush(stream_);
        zvTruncateFile(fileno(stream_));
        rewind(stream_);
    }
}

void WriterAppender::close() {
    setAsynchronous(false);
    if (stream_) {
        writeFooter();
        fclose(stream_);
        stream_ = nullptr;
    }
}

bool WriterAppender::requiresLayout() const { return false; }

void WriterAppender::append(const void* data, unsigned int length) { write(data, length); }

void WriterAppender::append(const LoggingEvent* event) {
    scratch_.clear();
    if (Layout* layout = getLayout()) {
        layout->format(event, scratch_);
    } else {
        renderMessage(event, scratch_);
        scratch_ += "\r\n";
    }
    write(scratch_.data(), scratch_.size());
}

// Several processes may append to one file: the record goes to the file's
// end under the lock on its first byte.
void WriterAppender::write(const void* data, unsigned long long length) {
    if (!stream_) activateOptions();
    if (!stream_) return;
    const int fd = lockable_ ? fileno(stream_) : -1;
    const bool locked = fd >= 0 && zvLockFileFirstByte(fd);
    if (locked) fseeko(stream_, 0, SEEK_END);
    fwrite(data, 1, length, stream_);
    if (immediateFlush_) fflush(stream_);
    if (locked) zvUnlockFileFirstByte(fd);
}

template <class Fill>
void WriterAppender::writeText(Fill&& fill) {
    std::string text;
    fill(text);
    if (!text.empty()) write(text.data(), text.size());
}

void WriterAppender::writeHeader() {
    if (Layout* layout = getLayout()) writeText([layout](std::string& t) { layout->getHeader(t); });
}

void WriterAppender::writeFooter() {
    if (Layout* layout = getLayout()) writeText([layout](std::string& t) { layout->getFooter(t); });
}

ConsoleAppender::ConsoleAppender(FILE* stream) : WriterAppender("") {
    setStream(stream, false);
    immediateFlush_ = true;
}

ConsoleAppender::~ConsoleAppender() {
    setAsynchronous(false);
    stream_ = nullptr;  // the console stream is never closed
}

void ConsoleAppender::close() {
    setAsynchronous(false);
    writeFooter();
}

void ConsoleAppender::activateOptions() {}

}  // namespace zvs::zvlib::zvlog
