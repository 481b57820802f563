// An appender that records what reaches it, for tests.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "zvlog/Appender.h"
#include "zvlog/Logger.h"

namespace zvtest {

struct CapturedEvent {
    std::string message;      // rendered message
    std::string threadName;   // thread that ran append
    unsigned char level;
    unsigned int sequence;
    unsigned int threadNumber;
    std::string loggerName;
};

class CaptureAppender : public zvs::zvlib::zvlog::Appender {
public:
    explicit CaptureAppender(const char* name = "capture") : Appender(name) {}
    ~CaptureAppender() override { setAsynchronous(false); }

    void append(const zvs::zvlib::zvlog::LoggingEvent* event) override;
    void append(const void* data, unsigned int length) override;

    std::vector<CapturedEvent> events() const {
        std::lock_guard<std::mutex> l(m_);
        return events_;
    }
    std::vector<std::string> rawBlocks() const {
        std::lock_guard<std::mutex> l(m_);
        return raw_;
    }
    size_t size() const {
        std::lock_guard<std::mutex> l(m_);
        return events_.size();
    }
    void clear() {
        std::lock_guard<std::mutex> l(m_);
        events_.clear();
        raw_.clear();
    }

    // Runs inside append, on the appending thread, when set.
    std::function<void(const zvs::zvlib::zvlog::LoggingEvent*)> onAppend;

private:
    mutable std::mutex m_;
    std::vector<CapturedEvent> events_;
    std::vector<std::string> raw_;
};

}  // namespace zvtest
