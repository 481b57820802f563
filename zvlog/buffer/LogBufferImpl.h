// The per-thread event buffer: events and arguments encoded into the thread's
// current block.
#pragma once

#include <cstddef>
#include <cstdint>

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

    // Closes the current block if it holds an event; the next event starts a
    // fresh block.
    void flush();
    // Room left for stream bytes in the current block (0 without a block).
    unsigned int remaining() const;

private:
    struct State;
    void startBlock();
    void closeBlock();
    static void finishBlock(unsigned char* block);
    bool writeEventHeader();
    void continueInNewBlock();
    unsigned int addArgumentSlow(unsigned char type, const void* data, unsigned int length);
    size_t freshBlockHeadSize() const;

    State* state_;
};

}  // namespace zvs::zvlib::zvlog
