// Errors reported as (number, code, text, level), the error log "zvserr.log",
// and the fatal-error path.
#pragma once

#include <exception>
#include <string>

#include "zvlog/Export.h"

// The fatal-error action: 1 return to the caller after shutting logging
// down, 2 exit with status 1, 3 exit with status 1 without message 1668.
enum FATALERROR_ACTION : int {
    FATALERROR_RETURN = 1,
    FATALERROR_EXIT = 2,
    FATALERROR_EXIT_QUIET = 3,
};

ZVLOG_API void zvSetFatalErrorAction(FATALERROR_ACTION action);
ZVLOG_API void zvSetFatalErrorCallback(void (*callback)(unsigned int number, const char* text));
ZVLOG_API void zvSetIDLFatalErrorCallback(void (*callback)(const char* text));
ZVLOG_API void zvSetVAMFatalErrorCallback(void (*callback)());
// Called with the exit status just before the library ends the process
// (fatal errors, the "End" action, fatal system errors); none by default.
ZVLOG_API void zvSetExitFunction(void (*function)(int));

// Console line and error-log entry; the level code names the entry:
// "INFO" below 223, "WARNING" to 238, "ERROR" from 239.
ZVLOG_API void issueMessage(unsigned int number, const char* code, const char* text, unsigned char level);
// Error-log entry only.
ZVLOG_API void issueMessageNoReport(unsigned int number, const char* code, const char* text, unsigned char level);

// Raised by a message whose severity throws.
class ZVLOG_API ZVException : public std::exception {
public:
    ZVException(const char* text, unsigned int number, const char* code, const char* sourceFile = "",
                unsigned short line = 0, const char* detail = "");
    const char* what() const noexcept override { return text_.c_str(); }
    unsigned int GetNumber() const { return number_; }
    const char* GetCode() const { return code_; }

private:
    std::string text_;
    unsigned int number_;
    char code_[10];
};
