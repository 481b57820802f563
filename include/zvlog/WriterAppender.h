// Appenders that write text to a stdio stream.
#pragma once

#include <cstdio>
#include <string>

#include "zvlog/Appender.h"

namespace zvs::zvlib::zvlog {

class ZVLOG_API WriterAppender : public Appender {
public:
    explicit WriterAppender(const char* name);
    ~WriterAppender() override;

    void reset() override;
    void close() override;
    bool requiresLayout() const override;
    void append(const void* data, unsigned int length) override;
    void append(const LoggingEvent* event) override;
    // Writes the bytes under the file's first-byte lock, at its end.
    virtual void write(const void* data, unsigned long long length);

    void writeHeader();
    void writeFooter();
    bool getImmediateFlush() const { return immediateFlush_; }
    void setImmediateFlush(bool on) { immediateFlush_ = on; }
    FILE* getStream() const { return stream_; }

protected:
    // Adopts an open stream; lockable says whether it is a regular file that
    // other processes may share (locked and sought for every write).
    void setStream(FILE* stream, bool lockable);
    template <class Fill>
    void writeText(Fill&& fill);

    FILE* stream_ = nullptr;
    std::string scratch_;
    bool immediateFlush_ = false;
    bool lockable_ = false;
};

// Writes to a stream it is given, standard output or standard error; never
// closes it.
class ZVLOG_API ConsoleAppender : public WriterAppender {
public:
    explicit ConsoleAppender(FILE* stream = stdout);
    ~ConsoleAppender() override;
    void close() override;
    void activateOptions() override;
};

}  // namespace zvs::zvlib::zvlog
