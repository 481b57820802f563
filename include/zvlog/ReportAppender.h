// The report appender and the process's report stream.
//
// A program that writes a report opens it once; from then on every
// ReportAppender writes there instead of to standard output:
//
//   std::string path = openReportFile("%A-%P.rpt");  // in DirProcessReport
//   ...                                                // appenders write to it
//   closeReportFile();                                 // back to standard output
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "zvlog/Layout.h"
#include "zvlog/WriterAppender.h"

namespace zvs::zvlib::zvlog {

// Writes its lines, tagged with its name, to the report stream when the
// process has one and to standard output otherwise. The stream is looked up
// on every write, so output moves as soon as a report is opened or closed.
class ZVLOG_API ReportAppender : public WriterAppender {
public:
    // The layout pattern is name + ": " + pattern, or the pattern alone for
    // an empty name; immediate flush is on.
    ReportAppender(const char* name, const char* pattern);
    ~ReportAppender() override;

    void write(const void* data, unsigned long long length) override;
    // The pattern the appender was built with (without the name's tag).
    const std::string& getPattern() const { return pattern_; }

private:
    std::string pattern_;
    PatternLayout* ownLayout_;
};

// Opens the process's report stream, truncating the file, and returns its
// path; "" when it cannot be opened (errno tells why). A name without "/" or
// "\" is placed in the process's report directory (context item
// DirProcessReport, created when missing); "%P", "%A", "%D" and "%I" in the
// name are replaced as in file appender names. A report already open is
// closed first.
ZVLOG_API std::string openReportFile(const char* name);

// Closes the report stream; standard output takes over. False when none was
// open.
ZVLOG_API bool closeReportFile();

// The report stream, or null. Only for inspection: a stream another thread
// may close must be written through writeReport.
ZVLOG_API FILE* getReportStream();

// Writes the bytes to the report stream, or to standard output when there is
// none, and flushes. Writers and open/close are serialised, so a record is
// never split and never goes to a closed stream.
ZVLOG_API void writeReport(const void* data, size_t length);

}  // namespace zvs::zvlib::zvlog
