// The per-thread event buffer as the logging core sees it.
#pragma once

#include "zvlog/Export.h"
#include "zvlog/LoggingEvent.h"

namespace zvs::zvlib::zvlog {

class ZVLOG_API LogBuffer {
public:
    virtual ~LogBuffer();
    // Begins an event; returns the number of arguments its call site declares.
    virtual unsigned short addEvent(const LoggingEvent* event) = 0;
    // Appends one typed argument; returns the position of its data in the block.
    virtual unsigned int addArgument(unsigned char type, const void* data, unsigned int length) = 0;

    // Writes the buffered event blocks to the dump file "zvlog-<instance>.dmp"
    // in the process's log directory, readable by the binary reader; false
    // when nothing was written (the reason is printed to standard error).
    static bool saveAllToFile();

    // The current write record: the block, where the current event began and
    // where the buffer stands now. Every offset, and every position that
    // addArgument returns, counts from blockBase() (the block's first byte,
    // its 16-byte head included).
    const unsigned char* blockBase() const { return base_; }
    unsigned int eventOffset() const { return eventStart_; }
    unsigned int writeOffset() const { return position_; }
    unsigned int argumentsOffset() const { return argumentsStart_; }

protected:
    unsigned char* base_ = nullptr;
    unsigned int position_ = 0;
    unsigned int eventStart_ = 0;
    unsigned int argumentsStart_ = 0;
};

}  // namespace zvs::zvlib::zvlog
