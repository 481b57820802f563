// A capture appender attached to one logger at a level for the life of the
// object, keeping each event's location as "module|method|line".
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "support/CaptureAppender.h"

namespace zvtest {

class LoggerCapture {
public:
    LoggerCapture(const char* name, unsigned char level)
        : logger_(zvs::zvlib::zvlog::Logger::getRepository()->getLogger(name)) {
        logger_->setLevel(level);
        appender_.onAppend = [this](const zvs::zvlib::zvlog::LoggingEvent* e) {
            const zvs::zvlib::zvlog::LocationRecord* l = e->attributes.location;
            std::lock_guard<std::mutex> lock(mutex_);
            locations_.push_back(std::string(l->module) + "|" + l->method + "|" + std::to_string(l->line));
        };
        logger_->addAppender(appender_);
    }
    ~LoggerCapture() {
        logger_->removeAppender(appender_);
        logger_->setLevel(zvs::zvlib::zvlog::LEVEL_INHERIT);
    }
    LoggerCapture(const LoggerCapture&) = delete;
    LoggerCapture& operator=(const LoggerCapture&) = delete;

    std::vector<CapturedEvent> events() const { return appender_.events(); }
    std::vector<std::string> messages() const {
        std::vector<std::string> out;
        for (const CapturedEvent& e : appender_.events()) out.push_back(e.message);
        return out;
    }
    size_t size() const { return appender_.size(); }
    std::vector<std::string> locations() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return locations_;
    }

private:
    zvs::zvlib::zvlog::Logger* logger_;
    CaptureAppender appender_{"logger-capture"};
    mutable std::mutex mutex_;
    std::vector<std::string> locations_;
};

}  // namespace zvtest
