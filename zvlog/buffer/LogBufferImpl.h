// The per-thread event buffer: events and arguments encoded into the thread's
// current block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zvlog/Log.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/LoggingEvent.h"
#include "zvlog/buffer/BinaryFormat.h"

namespace zvs::zvlib::zvlog {

struct ThreadRecord;

class ZVLOG_API LogBufferImpl final : public LogBuffer {
public:
    // The thread record supplies the "b" token: number, OS id and name.
    explicit LogBufferImpl(const ThreadRecord* thread);
    ~LogBufferImpl() override;  // closes the current block

    unsigned short addEvent(const LoggingEvent* event) override;
    unsigned int addArgument(unsigned char type, const void* data, unsigned int length) override;
    // The arguments of the event just added, as addArgument writes them one
    // by one, and the event's argument types and values pointing at them.
    // Fixed-size values and short texts that all fit in the block go in one
    // pass; anything else takes addArgument's way.
    void addArguments(const detail::ArgRef* args, unsigned short count, LoggingEvent& event);

    // Closes the current block if it holds an event; the next event starts a
    // fresh block.
    void flush();
    // For a flush on another thread, while this buffer's thread is outside
    // logging: ends the current block if it holds an event and returns it
    // (null otherwise); the thread's next event starts a fresh block.
    // handOn then does what closing does with it.
    unsigned char* detachBlock();
    static void handOn(unsigned char* block);
    // Room left for stream bytes in the current block (0 without a block).
    unsigned int remaining() const;

    // Writes the buffered blocks to the dump file DirProcessLog/zvlog-%I.dmp,
    // or DirProcessLog/zvlog-%I-%P.dmp when the first cannot be opened or
    // another process is writing its dump there at that moment. Buffered
    // means: the closed blocks still in the free pool, then the recent closed
    // blocks oldest first, then the complete events of the calling thread's
    // current block (read in place, the block stays open). Other threads'
    // current blocks are being written and are left out. Does nothing unless
    // the library is started. True when a dump was written; a failure is
    // printed to standard error.
    static bool saveAllToFile();

    // For a crash dump: the current block's stream up to its last complete
    // event, without the ">" that would end it; false when it holds none.
    // `settled`: the buffer's thread is outside logging (held there by a
    // claim) or is the caller, so the state holds still. Otherwise the thread
    // may be writing: what precedes the event it is on is read, and nothing
    // when the block changes meanwhile. No allocation, no lock.
    bool crashView(bool settled, const unsigned char*& stream, uint32_t& length) const;

private:
    // The logging call encodes its event inline (LogBufferImpl.cpp).
    friend void detail::logEvent(Logger* logger, unsigned char level, CallSite& site, const char* format,
                                 const detail::ArgRef* args, unsigned short count);
    struct State;
    unsigned short beginEvent(const LoggingEvent* event);
    void putArguments(const detail::ArgRef* args, unsigned short count, LoggingEvent& event);
    void startBlock();
    void closeBlock();
    unsigned char* sealBlock();
    static void finishBlock(unsigned char* block);
    bool writeEventHeader();
    void continueInNewBlock();
    unsigned int addArgumentSlow(unsigned char type, const void* data, unsigned int length);
    // addArguments' careful path: each argument through addArgument.
    [[gnu::noinline]] void addArgumentsOneByOne(const detail::ArgRef* args, unsigned short count, LoggingEvent& event);
    size_t freshBlockHeadSize() const;
    // An event has begun whose arguments are still to come.
    bool eventPending() const;

    State* state_;
};

}  // namespace zvs::zvlib::zvlog
