// The syslog appender against a real collector: an rsyslogd of the test's
// own, listening on loopback UDP and TCP and on a unix socket of the test
// (never the machine's /dev/log), writing every message it parsed, field by
// field and with its structured data taken apart by mmpstrucdata, to a file.
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
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/DatagramReceiver.h"
#include "zvlog/AppContext.h"
#include "zvlog/Layout.h"
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
            << "module(load=\"imudp\")\nmodule(load=\"imtcp\")\nmodule(load=\"mmpstrucdata\")\n"
            << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
            << "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" << udp_ << "\")\n"
            << "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" << tcp_ << "\")\n"
            << "input(type=\"imuxsock\" Socket=\"" << socket() << "\" RateLimit.Interval=\"0\")\n"
            << "template(name=\"fields\" type=\"string\" string=\"%pri%|%protocol-version%|"
               "%timereported:::date-rfc3339%|%hostname%|%app-name%|%procid%|%msgid%|%structured-data%|"
               "%$!rfc5424-sd%|%msg%\\n\")\n"
            << "action(type=\"mmpstrucdata\")\n"
            << "action(type=\"omfile\" file=\"" << dir_ << "/out.log\" template=\"fields\")\n";
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
        const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(udp_));
        const std::string probe = "<14>1 - - - - probe - ready";
        const size_t probes = countProbes();
        bool ready = false;
        for (int i = 0; i < 100 && !ready; ++i) {
            sendto(fd, probe.data(), probe.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ready = countProbes() > probes;
        }
        close(fd);
        return ready;
    }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    // The lines the collector wrote since the last consume(), the probes
    // left out, once there are `count` of them (or after `seconds`).
    std::vector<std::string> received(size_t count, int seconds = 5) const {
        std::vector<std::string> got;
        for (int i = 0; i < 20 * seconds; ++i) {
            got.clear();
            const std::vector<std::string> all = lines();
            for (size_t n = consumed_; n < all.size(); ++n)
                if (!isProbe(all[n])) got.push_back(all[n]);
            if (got.size() >= count) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return got;
    }
    void consume() { consumed_ = lines().size(); }

    int udp() const { return udp_; }
    int tcp() const { return tcp_; }
    std::string socket() const { return dir_ + "/log.sock"; }

private:
    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        std::ifstream in(dir_ + "/out.log");
        for (std::string line; std::getline(in, line);) all.push_back(line);
        return all;
    }
    static bool isProbe(const std::string& line) { return line.find("|probe|") != std::string::npos; }
    size_t countProbes() const {
        const std::vector<std::string> all = lines();
        return static_cast<size_t>(std::count_if(all.begin(), all.end(), isProbe));
    }

    std::string dir_;
    int udp_, tcp_;
    pid_t pid_ = -1;
    size_t consumed_ = 0;
};

// One line of the collector's output, field by field.
struct Parsed {
    std::string pri, version, time, host, app, procid, msgid, sd, msg;
    std::string sdId;                           // from mmpstrucdata
    std::map<std::string, std::string> params;  // its parameters, unescaped
};

// The JSON that mmpstrucdata makes of one SD-ELEMENT,
// { "id": { "name": "value", ... } }, with JSON's string escapes.
bool parseStructuredJson(const std::string& json, Parsed& out) {
    size_t i = 0;
    auto string = [&](std::string& text) {
        text.clear();
        i = json.find('"', i);
        if (i == std::string::npos) return false;
        for (++i; i < json.size() && json[i] != '"'; ++i) {
            if (json[i] == '\\' && ++i < json.size()) {
                const char c = json[i];
                text += c == 'n' ? '\n' : c == 't' ? '\t' : c;  // \" \\ \/ as themselves
            } else {
                text += json[i];
            }
        }
        return i++ < json.size();
    };
    if (!string(out.sdId)) return false;
    for (std::string name, value;;) {
        const size_t next = json.find_first_of("\"}", i);
        if (next == std::string::npos || json[next] == '}') return true;
        if (!string(name) || !string(value)) return false;
        out.params[name] = value;
    }
}

Parsed parse(const std::string& line) {
    Parsed p;
    std::string* fields[] = {&p.pri, &p.version, &p.time, &p.host, &p.app, &p.procid, &p.msgid, &p.sd};
    size_t at = 0;
    for (std::string* field : fields) {
        const size_t bar = line.find('|', at);
        if (bar == std::string::npos) return Parsed{};
        *field = line.substr(at, bar - at);
        at = bar + 1;
    }
    const size_t bar = line.find('|', line.find(" } }", at) == std::string::npos ? at : line.find(" } }", at));
    if (bar == std::string::npos) return Parsed{};
    if (bar > at && !parseStructuredJson(line.substr(at, bar - at), p)) return Parsed{};
    p.msg = line.substr(bar + 1);
    return p;
}

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
    std::string udpHost() const { return "127.0.0.1:" + std::to_string(collector_.udp()); }
    std::string tcpHost() const { return "tcp://127.0.0.1:" + std::to_string(collector_.tcp()); }
    Collector collector_;
    Logger* logger_ = nullptr;
};

const std::string kBom = "\xEF\xBB\xBF";

// What the collector's parser made of each field is what the appender put
// into the datagram (captured beside it on a socket of the test), and the
// structured data comes back as the names the event held, even when they hold
// every character the structured data reserves.
TEST_F(SyslogCollectorTest, EveryFieldAsTheCollectorParsedIt) {
    struct Case {
        Facility facility;
        int level;
        const char* pattern;  // a layout, or none
        const char *logger, *thread;
        bool oddSite;  // a call site whose module and method need escaping
        int pri;
        const char* msg;
    };
    const Case cases[] = {
        {FACILITY_APPLICATION, LEVEL_ERROR, nullptr, "collector.test", "main", false, 11, "moved 12 rows"},
        {FACILITY_SECURITY, LEVEL_ERROR, nullptr, "collector.test", "main", false, 83, "moved 12 rows"},
        {FACILITY_APPLICATION, 100, nullptr, "collector.test", "main", false, 15, "moved 12 rows"},
        {FACILITY_SECURITY, LEVEL_INFO, "%p [%c] %m", "collector.test", "main", false, 86,
         "INFO [collector.test] moved 12 rows"},
        {FACILITY_APPLICATION, LEVEL_WARN, nullptr, "collector.test.a]b\"c\\d", "worker [1] \"x\"", true, 12, "moved 12 rows"},
    };
    const std::string thread = LoggerRepository::getThreadName();
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.logger) + " level " + std::to_string(c.level) + " pri " + std::to_string(c.pri));
        zvtest::Receiver capture;
        ASSERT_TRUE(capture.bound());
        SyslogAppender toCollector("collector"), toTest("capture");
        toCollector.setSyslogHost(udpHost().c_str());
        toTest.setSyslogHost(("127.0.0.1:" + std::to_string(capture.port())).c_str());
        for (SyslogAppender* a : {&toCollector, &toTest}) {
            a->setFacility(c.facility);
            if (c.pattern) a->setLayout(new PatternLayout(c.pattern));
        }
        Logger* logger = Logger::getRepository()->getLogger(c.logger);
        logger->setLevel(LEVEL_ALL);
        logger->addAppender(toCollector);
        logger->addAppender(toTest);
        LoggerRepository::setThreadName(c.thread);
        // A call site keeps the module and method of its first event.
        if (c.oddSite)
            ZVLOG_LOG_AT(logger, c.level, "dir\\file].cpp", "Class::method\"q\"", 77, "moved %d rows", 12);
        else
            ZVLOG_LOG_AT(logger, c.level, "m.cpp", "A::f", 77, "moved %d rows", 12);
        LoggerRepository::setThreadName(thread.c_str());
        logger->removeAllAppenders();

        const std::string datagram = capture.next();
        std::smatch d;
        ASSERT_TRUE(std::regex_match(datagram, d, std::regex("<(\\d+)>(1) (\\S+) (\\S+) (\\S+) (\\S+) (\\S+) (\\[.*\\]) " +
                                                             kBom + "(.*)")))
            << datagram;
        const std::vector<std::string> got = collector_.received(1);
        ASSERT_EQ(got.size(), 1u);
        const Parsed p = parse(got[0]);
        EXPECT_EQ(p.pri, std::to_string(c.pri)) << got[0];
        EXPECT_EQ(p.pri, d[1].str());
        EXPECT_EQ(p.version, "1");
        EXPECT_EQ(p.time, d[3].str());
        EXPECT_EQ(p.host, getAppContextText(ProcessHostName));
        EXPECT_EQ(p.host, d[4].str());
        EXPECT_EQ(p.app, getAppContextText(ProcessExecutableBase));
        EXPECT_EQ(p.procid, getAppContextText(ProcessID));
        EXPECT_EQ(p.procid, d[6].str());
        EXPECT_EQ(p.msgid, d[7].str());
        EXPECT_EQ(p.sd, d[8].str());
        EXPECT_EQ(p.sdId, "zvlog@" + p.msgid);
        const std::map<std::string, std::string> params = {
            {"category", c.logger},
            {"thread", c.thread},
            {"method", c.oddSite ? "Class::method\"q\"" : "A::f"},
            {"module", c.oddSite ? "dir\\file].cpp" : "m.cpp"},
            {"line", "77"}};
        EXPECT_EQ(p.params, params);
        EXPECT_EQ(p.msg, kBom + c.msg);
        EXPECT_EQ(toCollector.getSentCount(), 1u);
        collector_.consume();
    }
}

// Without a host the appender writes to the local syslog socket, here the
// collector's own: the facility and severity arrive as the priority, the
// program and process as the tag.
TEST_F(SyslogCollectorTest, LocalPathReachesTheCollectorsSocket) {
    const struct {
        Facility facility;
        int level;
        int pri;
    } cases[] = {{FACILITY_SECURITY, LEVEL_ERROR, 83},   // authpriv.err
                 {FACILITY_APPLICATION, LEVEL_ERROR, 11}, // user.err
                 {FACILITY_APPLICATION, LEVEL_WARN, 12},
                 {FACILITY_APPLICATION, 100, 15},
                 {FACILITY_SECURITY, LEVEL_FATAL, 81}};   // authpriv.alert
    int sent = 0;
    for (const auto& c : cases) {
        SyslogAppender local("local");
        local.setLocalSocket(collector_.socket().c_str());
        local.setFacility(c.facility);
        logger_->addAppender(local);
        ZVLOG_LOG_AT(logger_, c.level, "m", "f", 1, "local %d", sent++);
        logger_->removeAllAppenders();
    }
    const std::vector<std::string> got = collector_.received(std::size(cases));
    ASSERT_EQ(got.size(), std::size(cases));
    for (size_t i = 0; i < got.size(); ++i) {
        const Parsed p = parse(got[i]);
        EXPECT_EQ(p.pri, std::to_string(cases[i].pri)) << got[i];
        EXPECT_EQ(p.app, getAppContextText(ProcessExecutableBase)) << got[i];
        EXPECT_EQ(p.procid, getAppContextText(ProcessID)) << got[i];
        // The collector keeps the blank after the tag's colon in the text.
        EXPECT_EQ(p.msg, " local " + std::to_string(i)) << got[i];
    }
}

// 100 000 messages over TCP with the collector stopped and started again
// midway: every frame arrives whole, once and in order, logging threads are
// held no longer than the bound while it is away, and the dropped count is
// exactly what is missing. Bytes already in the kernel's buffers when a
// collector dies are lost to any plain TCP sender (the framing has no
// acknowledgement), so the collector is let catch up before it is stopped.
TEST_F(SyslogCollectorTest, TcpOutageMidwayDroppedCountIsWhatIsMissing) {
    SyslogAppender syslog("tcp");
    syslog.setSyslogHost(tcpHost().c_str());
    logger_->addAppender(syslog);
    constexpr int kCount = 100000, kStop = 50000, kAway = 2000;
    int i = 0;
    for (; i < kStop; ++i) ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "message %d", i);
    ASSERT_EQ(collector_.received(syslog.getSentCount(), 60).size(), syslog.getSentCount());

    collector_.stop();
    long long slowest = 0;
    for (; i < kStop + kAway; ++i) {
        const auto start = std::chrono::steady_clock::now();
        ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "message %d", i);
        slowest = std::max<long long>(
            slowest, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
                         .count());
    }
    EXPECT_LE(slowest, 2 * SyslogAppender::kTcpWaitMs);
    const unsigned long long droppedWhileAway = syslog.getDroppedCount();
    EXPECT_GE(droppedWhileAway, static_cast<unsigned long long>(kAway));

    ASSERT_TRUE(collector_.start());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // past the reconnect interval
    for (; i < kCount; ++i) ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "message %d", i);
    EXPECT_EQ(syslog.getSentCount() + syslog.getDroppedCount(), static_cast<unsigned long long>(kCount));

    const std::vector<std::string> got = collector_.received(syslog.getSentCount(), 60);
    std::set<int> seen;
    int last = -1;
    const std::regex whole("\\d+\\|1\\|[^|]+\\|[^|]+\\|[^|]+\\|\\d+\\|\\d+\\|\\[zvlog@\\d+ [^|]*\\]\\|[^|]*\\|" + kBom +
                           "message (\\d+)");
    for (const std::string& line : got) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, whole)) << "cut or damaged: " << line;
        const int n = std::stoi(m[1].str());
        ASSERT_GT(n, last) << "out of order or twice: " << line;
        last = n;
        seen.insert(n);
    }
    EXPECT_EQ(seen.size(), syslog.getSentCount());
    EXPECT_EQ(static_cast<unsigned long long>(kCount) - seen.size(), syslog.getDroppedCount());
    for (int n = kStop; n < kStop + kAway; ++n) EXPECT_EQ(seen.count(n), 0u) << n;
    // Nothing is dropped but while the collector is away.
    EXPECT_EQ(syslog.getDroppedCount(), droppedWhileAway);
}

}  // namespace
