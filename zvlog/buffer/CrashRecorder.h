// The crash flight recorder: on a fatal signal the event buffer goes to the
// dump file before the signal takes its course (LogBuffer::installCrashHandler).
#pragma once

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog {

// Switches the recorder on (once; later calls only refresh the file names).
bool installCrashRecorder();
ZVLOG_API bool crashRecorderInstalled();

// The application context's instance, executable name or log directory
// changed: the dump's names, fixed in advance for the signal handler, are
// made again.
void crashRecorderNamesChanged();

// On a thread that logs, once the recorder is on: gives the thread an
// alternate signal stack, so that a stack overflow still reaches the handler
// (unless the thread has one of its own already).
void prepareThreadForCrashes();
// On a thread that ends: takes its alternate stack away again.
void crashRecorderThreadEnds();

// The dump file names in force: "zvlog-%I.dmp" in the log directory, and the
// stem of this process's own name "zvlog-%I-" (the process id and ".dmp"
// follow). Empty until the recorder is on. For tests.
ZVLOG_API const char* crashDumpSharedName();
ZVLOG_API const char* crashDumpOwnNameStem();

}  // namespace zvs::zvlib::zvlog
