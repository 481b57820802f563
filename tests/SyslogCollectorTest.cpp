// The syslog appender against a real collector: an rsyslogd of the test's
// own on loopback, with UDP and TCP inputs, writing every message it parsed
// as "pri|host|app|procid|msgid|structured-data|msg" to a file.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "zvlog/AppContext.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/SyslogAppender.h"

extern char** environ;

using namespace zvs::zvlib::zvlog;
namespace fs = std::filesystem;

namespace {

// A port nobody listens on now, of the given socket type.
int freePort(int type) {
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    close(fd);
    return ntohs(a.sin_port);
}

class Collector {
public:
    Collector() : dir_(zvtest::temporaryPath("zvrsyslog")), udp_(freePort(SOCK_DGRAM)), tcp_(freePort(SOCK_STREAM)) {
        fs::create_directories(dir_);
        std::ofstream(dir_ + "/rsyslog.conf")
            << "global(workDirectory=\"" << dir_ << "\")\n"
            << "module(load=\"imudp\")\nmodule(load=\"imtcp\")\n"
            << "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" << udp_ << "\")\n"
            << "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" << tcp_ << "\")\n"
            << "template(name=\"fields\" type=\"string\" string=\"%pri%|%hostname%|%app-name%|%procid%|"
               "%msgid%|%structured-data%|%msg%\\n\")\n"
            << "*.* action(type=\"omfile\" file=\"" << dir_ << "/out.log\" template=\"fields\")\n";
    }
    ~Collector() {
        stop();
        fs::remove_all(dir_);
    }

    // Starts rsyslogd and waits until a probe sent over UDP was written.
    bool start() {
        const std::string conf = dir_ + "/rsyslog.conf", pid = dir_ + "/rsyslogd.pid";
        const char* argv[] = {"rsyslogd", "-n", "-f", conf.c_str(), "-i", pid.c_str(), nullptr};
        if (posix_spawnp(&pid_, "rsyslogd", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return false;
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(udp_));
        const std::string probe = "<14>1 - - - - probe - ready";
        bool ready = false;
        for (int i = 0; i < 100 && !ready; ++i) {
            sendto(fd, probe.data(), probe.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ready = lines().size() > skip_;
        }
        close(fd);
        skip_ = lines().size();  // the probes
        return ready;
    }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        std::ifstream in(dir_ + "/out.log");
        for (std::string line; std::getline(in, line);) all.push_back(line);
        return all;
    }
    // The lines written since start(), once there are `count` of them (or
    // after five seconds).
    std::vector<std::string> received(size_t count) const {
        std::vector<std::string> got;
        for (int i = 0; i < 100; ++i) {
            got = lines();
            got.erase(got.begin(), got.begin() + static_cast<long>(std::min(skip_, got.size())));
            if (got.size() >= count) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return got;
    }

    int udp() const { return udp_; }
    int tcp() const { return tcp_; }

private:
    std::string dir_;
    int udp_, tcp_;
    pid_t pid_ = -1;
    size_t skip_ = 0;
};

class SyslogCollectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(collector_.start()) << "rsyslogd (Debian package rsyslog) did not start";
        logger_ = Logger::getRepository()->getLogger("collector.test");
        logger_->setAdditivity(false);
        logger_->setLevel(LEVEL_ALL);
    }
    void TearDown() override {
        if (logger_) {
            logger_->removeAllAppenders();
            logger_->setLevel(LEVEL_OFF);
        }
    }
    std::string head(int pri, unsigned sequence) const {
        return std::to_string(pri) + "|" + getAppContextText(ProcessHostName) + "|" +
               getAppContextText(ProcessExecutableBase) + "|" + getAppContextText(ProcessID) + "|" +
               std::to_string(sequence) + "|";
    }
    Collector collector_;
    Logger* logger_ = nullptr;
};

// Names holding every character the structured data reserves still give a
// message the collector parses into the same fields.
TEST_F(SyslogCollectorTest, UdpMessagesParseWithReservedCharactersInEveryParameter) {
    SyslogAppender syslog("udp");
    syslog.setSyslogHost(("127.0.0.1:" + std::to_string(collector_.udp())).c_str());
    Logger* odd = Logger::getRepository()->getLogger("collector.test.a]b\"c\\d");
    odd->addAppender(syslog);
    LoggerRepository::setThreadName("worker [1] \"x\"");
    ZVLOG_LOG_AT(odd, LEVEL_WARN, "dir\\file].cpp", "Class::method\"q\"", 77, "moved %d rows", 12);
    const std::vector<std::string> got = collector_.received(1);
    ASSERT_EQ(got.size(), 1u);
    const std::string& line = got[0];
    const size_t sd = line.find("|[zvlog@");
    ASSERT_NE(sd, std::string::npos) << line;
    const std::string sequence = line.substr(sd + 8, line.find(' ', sd) - sd - 8);
    EXPECT_EQ(line, head(12, std::stoul(sequence)) + "[zvlog@" + sequence +
                        " category=\"collector.test.a\\]b\\\"c\\\\d\" thread=\"worker [1\\] \\\"x\\\"\""
                        " method=\"Class::method\\\"q\\\"\" module=\"dir\\\\file\\].cpp\" line=\"77\"]"
                        "|\xEF\xBB\xBFmoved 12 rows");
    EXPECT_EQ(syslog.getSentCount(), 1u);
    odd->removeAllAppenders();
}

// Over TCP every message arrives whole and in order, each frame read by the
// length it carries.
TEST_F(SyslogCollectorTest, TcpFramesArriveWholeAndInOrder) {
    SyslogAppender syslog("tcp");
    syslog.setSyslogHost(("tcp://127.0.0.1:" + std::to_string(collector_.tcp())).c_str());
    logger_->addAppender(syslog);
    constexpr int kCount = 300;
    for (int i = 0; i < kCount; ++i) ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "message %d", i);
    const std::vector<std::string> got = collector_.received(kCount);
    ASSERT_EQ(got.size(), static_cast<size_t>(kCount));
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(got[i].substr(got[i].rfind('|')), "|\xEF\xBB\xBFmessage " + std::to_string(i)) << got[i];
    EXPECT_EQ(syslog.getSentCount(), static_cast<unsigned long long>(kCount));
    EXPECT_EQ(syslog.getDroppedCount(), 0u);
}

// The collector goes away: logging threads are held no longer than the
// bound, what cannot be sent is counted, and once the collector is back the
// appender reconnects (at most once a second) and starts on a fresh frame.
TEST_F(SyslogCollectorTest, TcpReconnectsAfterTheCollectorComesBack) {
    SyslogAppender syslog("tcp-again");
    syslog.setSyslogHost(("tcp://127.0.0.1:" + std::to_string(collector_.tcp())).c_str());
    logger_->addAppender(syslog);
    ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "before");
    ASSERT_EQ(collector_.received(1).size(), 1u);

    collector_.stop();
    long long slowest = 0;
    for (int i = 0; i < 20; ++i) {
        const auto start = std::chrono::steady_clock::now();
        ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "while away %d", i);
        slowest = std::max<long long>(
            slowest, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
                         .count());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_LE(slowest, 2 * SyslogAppender::kTcpWaitMs);
    EXPECT_EQ(syslog.getSentCount(), 1u);
    EXPECT_EQ(syslog.getDroppedCount(), 20u);

    ASSERT_TRUE(collector_.start());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // past the reconnect interval
    for (int i = 0; i < 3; ++i) ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "after %d", i);
    const std::vector<std::string> got = collector_.received(3);
    ASSERT_EQ(got.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(got[i].substr(got[i].rfind('|')), "|\xEF\xBB\xBF" "after " + std::to_string(i));
    // Everything counted as sent arrived; the dropped are exactly the missing.
    EXPECT_EQ(syslog.getSentCount(), 4u);
    EXPECT_EQ(syslog.getDroppedCount(), 20u);
}

}  // namespace
