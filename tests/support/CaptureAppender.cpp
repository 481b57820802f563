#include "support/CaptureAppender.h"

namespace zvtest {

using namespace zvs::zvlib::zvlog;

void CaptureAppender::append(const LoggingEvent* event) {
    CapturedEvent e;
    renderMessage(event, e.message);
    e.threadName = LoggerRepository::getThreadName();
    e.level = event->attributes.level;
    e.sequence = event->attributes.sequence;
    e.threadNumber = event->attributes.threadNumber;
    const char* name = Logger::getRepository()->getLoggerName(event->attributes.loggerIndex);
    e.loggerName = name ? name : "<unknown>";
    if (onAppend) onAppend(event);
    std::lock_guard<std::mutex> l(m_);
    events_.push_back(std::move(e));
}

void CaptureAppender::append(const void* data, unsigned int length) {
    std::lock_guard<std::mutex> l(m_);
    raw_.emplace_back(static_cast<const char*>(data), length);
}

}  // namespace zvtest
