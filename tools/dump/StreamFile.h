// Reads a file of binary streams piece by piece and hands over the events of
// each whole stream, so that a large file never sits in memory at once and a
// file still being written is read as it grows.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>

#include "zvlog/BinaryReader.h"

namespace zvdump {

// Set by SIGINT and SIGTERM while a file is followed.
extern volatile sig_atomic_t stopRequested;
void installStopHandlers();

class StreamFile {
public:
    using EventSink = std::function<void(const zvs::zvlib::zvlog::DecodedEvent&)>;
    using ErrorSink = std::function<void(const std::string&)>;

    StreamFile(std::string path, EventSink events, ErrorSink errors);
    ~StreamFile();
    StreamFile(const StreamFile&) = delete;
    StreamFile& operator=(const StreamFile&) = delete;

    // Reads the file to its end. Returns false when it could not be read or
    // holds damage; the reader's texts have gone to the error sink and the
    // events decoded before the damage to the event sink.
    bool readAll();

    // Reads the file, then keeps reading what is appended to it, every
    // `pollMilliseconds`, until stopRequested is set or damage is found
    // (false). A stream is handed over once it is whole; the bytes of one
    // still being written wait for the rest.
    bool follow(unsigned pollMilliseconds, const std::function<void()>& afterRound);

private:
    enum class Step { More, Done, Damaged };
    bool open();
    // Reads up to `limit` more bytes; false on a read error.
    bool readMore(size_t limit, size_t& got);
    // Decodes the whole streams in the buffer; `final` when no more bytes
    // will come, so that a stream cut short is damage.
    Step decodeBuffered(bool final);
    bool failWithReaderText();
    // A followed file that was replaced (rolled, written anew) or cut
    // shorter is read again from its start.
    void reopenIfReplaced();
    void restart();

    std::string path_;
    EventSink events_;
    ErrorSink errors_;
    int fd_ = -1;
    uint64_t origin_ = 0;  // file offset of buffer_[0]
    std::string buffer_;  // from the start of the first stream not yet whole
};

}  // namespace zvdump
