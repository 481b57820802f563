#include "zvlog/ReportAppender.h"

#include <cerrno>

#include "zvlog/AppContext.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/appenders/FileNames.h"
#include "zvstd/Files.h"

namespace zvs::zvlib::zvlog {

namespace {

using MultiThreading::Mutex;
using MultiThreading::MutexLock;

struct ReportFacility {
    Mutex mutex{Mutex::NonRecursive};
    FILE* stream = nullptr;
};

// Never destroyed: appenders may still write while the process ends.
ReportFacility& facility() {
    static ReportFacility* f = new ReportFacility();
    return *f;
}

std::string layoutPattern(const char* name, const char* pattern) {
    std::string text;
    if (name && *name) {
        text = name;
        text += ": ";
    }
    text += pattern ? pattern : "";
    return text;
}

bool hasSeparator(const char* name) {
    for (const char* p = name; *p; ++p)
        if (*p == '/' || *p == '\\') return true;
    return false;
}

// Creates the directory and any missing parents; true when it exists after.
bool makeDirectories(const std::string& path) {
    if (path.empty() || zvIsDirectory(path)) return true;
    std::string trimmed = path;
    while (trimmed.size() > 1 && (trimmed.back() == '/' || trimmed.back() == '\\')) trimmed.pop_back();
    const size_t cut = trimmed.find_last_of("/\\");
    if (cut != std::string::npos && cut > 0 && !makeDirectories(trimmed.substr(0, cut))) return false;
    const int error = zvMakeDirectory(trimmed);
    if (error != 0 && error != EEXIST) {
        errno = error;
        return false;
    }
    return true;
}

}  // namespace

ReportAppender::ReportAppender(const char* name, const char* pattern)
    : WriterAppender(name), pattern_(pattern ? pattern : ""),
      ownLayout_(new PatternLayout(layoutPattern(name, pattern).c_str())) {
    setLayout(ownLayout_);
    immediateFlush_ = true;
}

ReportAppender::~ReportAppender() {
    setAsynchronous(false);
    // The base deletes whatever layout is set; ours only if it was replaced.
    if (getLayout() != ownLayout_) delete ownLayout_;
}

void ReportAppender::write(const void* data, unsigned long long length) { writeReport(data, length); }

std::string openReportFile(const char* name) {
    if (!name || !*name) {
        errno = EINVAL;
        return std::string();
    }
    std::string path;
    if (hasSeparator(name)) {
        path = replaceFileNameTokens(name, true);
    } else {
        const std::string directory = getAppContextText(DirProcessReport);
        if (!makeDirectories(directory)) return std::string();
        path = joinPath(directory, replaceFileNameTokens(name, true).c_str());
    }
    FILE* stream = fopen(path.c_str(), "we");
    if (!stream) return std::string();

    ReportFacility& f = facility();
    FILE* previous;
    {
        MutexLock lock(f.mutex);
        previous = f.stream;
        f.stream = stream;
    }
    if (previous) fclose(previous);
    return path;
}

bool closeReportFile() {
    ReportFacility& f = facility();
    FILE* stream;
    {
        MutexLock lock(f.mutex);
        stream = f.stream;
        f.stream = nullptr;
    }
    if (!stream) return false;
    fclose(stream);
    return true;
}

FILE* getReportStream() {
    ReportFacility& f = facility();
    MutexLock lock(f.mutex);
    return f.stream;
}

void writeReport(const void* data, size_t length) {
    ReportFacility& f = facility();
    MutexLock lock(f.mutex);
    FILE* stream = f.stream ? f.stream : stdout;
    fwrite(data, 1, length, stream);
    fflush(stream);
}

}  // namespace zvs::zvlib::zvlog
