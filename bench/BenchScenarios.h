// The loggers, appenders and sinks the benchmark programs share, so that the
// Google Benchmark figures and the callgrind counts measure the same thing.
//
// Every zvlog scenario logs "iteration %d value %s" with an int and a short
// text; the spdlog ones log the same record with "{}" placeholders. The
// formatting cases render a full line (date with milliseconds, level, logger
// name, message) into a reused string and throw it away, so what is compared
// is the cost of producing the text, not of writing it anywhere.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "zvlog/zvlog.h"

#ifdef ZVLOG_BENCH_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace zvbench {

namespace zl = zvs::zvlib::zvlog;

// "%d" prints "%Y-%m-%d %a %Z %H:%M:%S.mmm" with the zone as +hhmm, which is
// what the spdlog pattern below prints as well.
inline constexpr const char* kZvlogPattern = "%d %p %c - %m%n";
inline constexpr const char* kSpdlogPattern = "%Y-%m-%d %a %z %H:%M:%S.%e %l %n - %v";

// Formats every event with its pattern layout into a reused string and drops
// the text. Blocks in raw delivery are ignored.
class DiscardAppender : public zl::Appender {
public:
    explicit DiscardAppender(const char* name) : zl::Appender(name) { setLayout(new zl::PatternLayout(kZvlogPattern)); }
    ~DiscardAppender() override { setAsynchronous(false); }

    void append(const void*, unsigned int) override {}
    void append(const zl::LoggingEvent* event) override {
        text_.clear();
        getLayout()->format(event, text_);
        bytes_ += text_.size();
    }

    const std::string& lastText() const { return text_; }
    unsigned long long bytes() const { return bytes_; }

private:
    std::string text_;
    unsigned long long bytes_ = 0;
};

// The zvlog side: one logger per scenario, none of them additive, so that the
// root's appenders (if a configuration gave it any) never join in.
struct ZvlogSetup {
    zl::Logger* disabled;   // at WARN: a DEBUG call is the inline test alone
    zl::Logger* bufferOnly;  // at INFO, no appender on its path
    zl::Logger* formatting;  // at INFO, one synchronous DiscardAppender
    zl::Logger* async;       // at INFO, one asynchronous DiscardAppender
    DiscardAppender formatAppender{"bench.format.discard"};
    DiscardAppender asyncAppender{"bench.async.discard"};

    ZvlogSetup() {
        zl::LoggerRepository* repo = zl::Logger::getRepository();
        disabled = repo->getLogger("bench.disabled");
        bufferOnly = repo->getLogger("bench.buffer");
        formatting = repo->getLogger("bench.format");
        async = repo->getLogger("bench.async");
        for (zl::Logger* l : {disabled, bufferOnly, formatting, async}) {
            l->setAdditivity(false);
            l->removeAllAppenders();
        }
        disabled->setLevel(zl::LEVEL_WARN);
        bufferOnly->setLevel(zl::LEVEL_INFO);
        formatting->setLevel(zl::LEVEL_INFO);
        async->setLevel(zl::LEVEL_INFO);
        formatting->addAppender(formatAppender);
        async->addAppender(asyncAppender);
    }
    ~ZvlogSetup() {
        formatting->removeAppender(formatAppender);
        async->removeAppender(asyncAppender);
        asyncAppender.setAsynchronous(false);
    }
};

// Waits until the appender has issued `target` events; false after 30 s.
inline bool waitForIssued(const zl::Appender& appender, unsigned long long target) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (appender.getEventsIssued() < target) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

#ifdef ZVLOG_BENCH_HAVE_SPDLOG

// The spdlog counterpart of DiscardAppender: formats with the sink's
// formatter into a reused buffer and drops the text. The count is published
// with a plain store so that a drain can be awaited from another thread
// without making the synchronous case pay for an atomic increment.
class DiscardSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    unsigned long long count() const { return published_.load(std::memory_order_acquire); }
    std::string lastText() const { return std::string(buffer_.data(), buffer_.size()); }
    unsigned long long bytes() const { return bytes_; }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        buffer_.clear();
        formatter_->format(msg, buffer_);
        bytes_ += buffer_.size();
        published_.store(++count_, std::memory_order_release);
    }
    void flush_() override {}

private:
    spdlog::memory_buf_t buffer_;
    unsigned long long bytes_ = 0;
    unsigned long long count_ = 0;
    std::atomic<unsigned long long> published_{0};
};

struct SpdlogSetup {
    std::shared_ptr<DiscardSink> syncSink = std::make_shared<DiscardSink>();
    std::shared_ptr<DiscardSink> asyncSink = std::make_shared<DiscardSink>();
    std::shared_ptr<spdlog::logger> disabled;
    std::shared_ptr<spdlog::logger> formatting;
    std::shared_ptr<spdlog::async_logger> async;

    SpdlogSetup() {
        disabled = std::make_shared<spdlog::logger>("bench.disabled", syncSink);
        formatting = std::make_shared<spdlog::logger>("bench.format", syncSink);
        disabled->set_level(spdlog::level::warn);
        formatting->set_level(spdlog::level::info);
        formatting->set_pattern(kSpdlogPattern);  // sets the sink's formatter
        // The default queue (8192 slots, blocking when full) and one worker.
        spdlog::init_thread_pool(spdlog::details::default_async_q_size, 1);
        async = std::make_shared<spdlog::async_logger>("bench.async", asyncSink, spdlog::thread_pool());
        async->set_level(spdlog::level::info);
        async->set_pattern(kSpdlogPattern);
    }
    ~SpdlogSetup() {
        async.reset();
        spdlog::shutdown();
    }
};

inline bool waitForSunk(const DiscardSink& sink, unsigned long long target) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (sink.count() < target) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

#endif  // ZVLOG_BENCH_HAVE_SPDLOG

}  // namespace zvbench
