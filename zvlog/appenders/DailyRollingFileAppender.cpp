#include <ctime>
#include <string>

#include "zvlog/FileAppender.h"
#include "zvlog/LoggingTime.h"

namespace zvs::zvlib::zvlog {


// Reopening after a restart continues the period's file.
DailyRollingFileAppender::DailyRollingFileAppender(const char* name) : FileAppender(name) {
    append_ = true;
    recordsInPlace_ = false;
}

DailyRollingFileAppender::~DailyRollingFileAppender() { setAsynchronous(false); }

uint32_t DailyRollingFileAppender::now() const {
    if (clock_) return clock_();
    timeval32_t t;
    LoggingTime::getCurrentTime(&t);
    return t.tv_sec + t.tv_usec / 1000000;
}

std::string DailyRollingFileAppender::getFileFor(uint32_t seconds) const {
    std::string name = FileAppender::getFile();
    if (datePattern_.empty()) return name;
    const time_t t = seconds;
    struct tm local;
    if (!localtime_r(&t, &local)) return name;
    char text[260];
    const size_t n = strftime(text, sizeof text, datePattern_.c_str(), &local);
    name.append(text, n);
    return name;
}

std::string DailyRollingFileAppender::getFile() const {
    return currentName_.empty() ? getFileFor(now()) : currentName_;
}

// The name is worked out at most once per second; the file changes on the
// first record after its text does.
void DailyRollingFileAppender::write(const void* data, unsigned long long length) {
    FileHold hold(*this);
    const uint32_t t = now();
    if (t != lastSecond_) {
        lastSecond_ = t;
        std::string name = getFileFor(t);
        if (name != currentName_) {
            currentName_ = std::move(name);
            // A file opened before the first record already has that name.
            if (isOpen() && openName() != currentName_) closeFile();
        }
    }
    FileAppender::write(data, length);
}

}  // namespace zvs::zvlib::zvlog
