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

    // Switches the crash flight recorder on; it is off until this is called.
    // When the process then dies of SIGSEGV, SIGBUS, SIGILL, SIGFPE or
    // SIGABRT, the signal handler writes what saveAllToFile would, and also
    // every thread's open block up to its last complete event, to the same
    // dump file ("zvlog-<instance>.dmp" in the log directory, or
    // "zvlog-<instance>-<pid>.dmp" when another dump holds that name), prints
    // "zvlog: signal N (SIGxxx): recent events saved to '<file>'" (or the
    // failure, as saveAllToFile does) on standard error, and then hands the
    // signal to the handler that was installed before this call, or to the
    // default action, so that a core dump, the program's own handler and
    // the exit status by the signal still follow. The handler allocates
    // nothing, takes no lock that a crashing thread could hold (a lock of the
    // block store held elsewhere is waited for 0.1 s, then passed by; a
    // thread in the middle of a logging call is waited for 50 ms, then its
    // events before the one it is writing are taken) and writes one dump per
    // process, however many threads crash. The calling thread, and every
    // thread from the next event block it starts, runs the handler on an
    // alternate signal stack of its own (unless it has one already), so that
    // a stack overflow is recorded too. Install handlers of the program's
    // own before this call to have them chained. Calling it again changes
    // nothing; false when the handlers could not be installed.
    static bool installCrashHandler();

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
