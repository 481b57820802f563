// The syslog appender's datagrams, byte for byte, received on loopback
// sockets of the test's own: RFC 5424 over UDP to a collector (IPv4 and
// IPv6), and the syslog(3) form on a local socket.
#include <gtest/gtest.h>

#include <ctime>
#include <regex>
#include <string>

#include "support/ChildProcess.h"
#include "support/ConsoleText.h"
#include "support/DatagramReceiver.h"
#include "zvlog/AppContext.h"
#include "zvlog/Layout.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/SyslogAppender.h"

using namespace zvs::zvlib::zvlog;
using zvtest::Receiver;

namespace {

class SyslogAppenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        logger_ = Logger::getRepository()->getLogger("syslog.test");
        logger_->setAdditivity(false);
        logger_->setLevel(LEVEL_ALL);
    }
    void TearDown() override {
        logger_->removeAllAppenders();
        logger_->setLevel(LEVEL_OFF);
    }
    std::string processPart() const {
        return getAppContextText(ProcessHostName) + " " + getAppContextText(ProcessExecutableBase) + " " +
               getAppContextText(ProcessID);
    }
    Logger* logger_ = nullptr;
};

TEST(SyslogSeverity, LevelsMapWithTheirGaps) {
    const struct {
        unsigned char level;
        int severity;
    } cases[] = {{LEVEL_FATAL, 1}, {253, 7}, {LEVEL_ERROR, 3}, {240, 7}, {LEVEL_WARN, 4},
                 {LEVEL_INFO, 6}, {LEVEL_DEBUG, 7}, {100, 7},         {LEVEL_ALL, 7}};
    for (const auto& c : cases) EXPECT_EQ(SyslogAppender::severityOf(c.level), c.severity) << int(c.level);
}

// The whole datagram: priority and version, the local time with its
// fraction and offset, host, program, process, the sequence number twice,
// the five parameters (escaped) and the text behind the byte-order mark.
TEST_F(SyslogAppenderTest, RemoteDatagramByteForByte) {
    Receiver collector(AF_INET);
    ASSERT_TRUE(collector.bound());
    SyslogAppender syslog("remote");
    syslog.setSyslogHost(("127.0.0.1:" + std::to_string(collector.port())).c_str());
    EXPECT_EQ(std::string(syslog.getSyslogHost()), "127.0.0.1:" + std::to_string(collector.port()));
    EXPECT_FALSE(syslog.requiresLayout());
    logger_->addAppender(syslog);
    LoggerRepository::setThreadName("main \"one\"");

    const time_t before = time(nullptr);
    ZVLOG_LOG_AT(logger_, LEVEL_ERROR, "src/a\\b].cpp", "Reader::open", 42, "copied %d rows of %s", 7, "t");
    const std::string d = collector.next();
    const std::regex head("<11>1 (\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d)\\.\\d{6}[+-]\\d\\d:\\d\\d (.*)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(d, m, head)) << d;
    tm local{};
    ASSERT_NE(strptime(m[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &local), nullptr);
    local.tm_isdst = -1;
    EXPECT_LE(std::abs(static_cast<long>(mktime(&local) - before)), 2L);

    const std::string rest = m[2].str();
    const size_t blank = processPart().size() + 1;
    ASSERT_EQ(rest.substr(0, blank), processPart() + " ");
    const std::string seq = rest.substr(blank, rest.find(' ', blank) - blank);
    EXPECT_EQ(rest.substr(blank), seq + " [zvlog@" + seq +
                                      " category=\"syslog.test\" thread=\"main \\\"one\\\"\""
                                      " method=\"Reader::open\" module=\"src/a\\\\b\\].cpp\" line=\"42\"]"
                                      " \xEF\xBB\xBF" "copied 7 rows of t");

    // Security events: facility base 80; a layout's text replaces the message.
    EXPECT_EQ(zvtest::stdoutOf([&] { syslog.setFacility(FACILITY_SECURITY); }), "");
    EXPECT_EQ(syslog.getFacility(), FACILITY_SECURITY);
    syslog.setLayout(new PatternLayout("%p %m"));
    ZVLOG_LOG_AT(logger_, 100, "m", "f", 1, "odd level");
    const std::string second = collector.next();
    EXPECT_EQ(second.substr(0, 7), "<87>1 2");
    EXPECT_EQ(second.substr(second.size() - 26), "] \xEF\xBB\xBF<undefined> odd level");
    delete syslog.getLayout();
    syslog.setLayout(nullptr);
}

// The timestamp in zones east and west of UTC, whole and with minutes: the
// fields read back as UTC, less the offset, give the time of the call, and
// the offset is the zone's, sign and all.
TEST_F(SyslogAppenderTest, TimestampFieldsAndOffsetPerZone) {
    const struct {
        const char* tz;
        const char* offset;
        long seconds;  // east of UTC
    } zones[] = {{"UTC0", "+00:00", 0},
                 {"<+0530>-5:30", "+05:30", 19800},
                 {"<-0330>3:30", "-03:30", -12600},
                 {"<+0545>-5:45", "+05:45", 20700},
                 {"<+14>-14", "+14:00", 50400},
                 {"<-12>12", "-12:00", -43200}};
    Receiver collector(AF_INET);
    ASSERT_TRUE(collector.bound());
    SyslogAppender syslog("zones");
    syslog.setSyslogHost(("127.0.0.1:" + std::to_string(collector.port())).c_str());
    logger_->addAppender(syslog);
    const char* saved = getenv("TZ");
    const std::string savedTz = saved ? saved : "";
    const std::regex head("<14>1 (\\d{4})-(\\d\\d)-(\\d\\d)T(\\d\\d):(\\d\\d):(\\d\\d)\\.(\\d{6})([+-]\\d\\d:\\d\\d) .*");
    for (const auto& z : zones) {
        setenv("TZ", z.tz, 1);
        tzset();
        const time_t before = time(nullptr);
        ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "zone");
        const time_t after = time(nullptr);
        const std::string d = collector.next();
        std::smatch m;
        ASSERT_TRUE(std::regex_match(d, m, head)) << z.tz << ": " << d;
        EXPECT_EQ(m[8].str(), z.offset) << z.tz;
        tm fields{};
        fields.tm_year = std::stoi(m[1].str()) - 1900;
        fields.tm_mon = std::stoi(m[2].str()) - 1;
        fields.tm_mday = std::stoi(m[3].str());
        fields.tm_hour = std::stoi(m[4].str());
        fields.tm_min = std::stoi(m[5].str());
        fields.tm_sec = std::stoi(m[6].str());
        const time_t stamped = timegm(&fields) - z.seconds;
        EXPECT_GE(stamped, before) << z.tz << ": " << d;
        EXPECT_LE(stamped, after) << z.tz << ": " << d;
    }
    if (saved)
        setenv("TZ", savedTz.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST_F(SyslogAppenderTest, HostFormsAndUnreachableHosts) {
    Receiver v6(AF_INET6);
    ASSERT_TRUE(v6.bound());
    SyslogAppender syslog("v6");
    logger_->addAppender(syslog);
    const std::string host = "[::1]:" + std::to_string(v6.port());
    syslog.setSyslogHost(host.c_str());
    ZVLOG_LOG_AT(logger_, LEVEL_WARN, "m", "f", 1, "to %s", host.c_str());
    const std::string d = v6.next();
    EXPECT_EQ(d.substr(0, 6), "<12>1 ");
    EXPECT_EQ(d.substr(d.size() - host.size() - 3), "to " + host);
    // Unresolvable names and refused sends are silent and send nothing.
    const std::string out = zvtest::stdoutOf([&] {
        syslog.setSyslogHost("no-such-host.invalid:514");
        ZVLOG_LOG_AT(logger_, LEVEL_WARN, "m", "f", 1, "lost");
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(v6.next(), "");
}

// Without a host, events go to the local syslog socket as syslog(3) writes
// them; a socket that cannot be reached is told once, when the facility is
// set, and never per event.
TEST_F(SyslogAppenderTest, LocalSocketInTheSyslog3Form) {
    const std::string path = zvtest::temporaryPath("zvsyslog");
    Receiver local(path);
    ASSERT_TRUE(local.bound());
    SyslogAppender syslog("local");
    syslog.setLocalSocket(path.c_str());
    EXPECT_EQ(zvtest::stdoutOf([&] { syslog.setFacility(FACILITY_SECURITY); }), "");
    logger_->addAppender(syslog);
    // The local time as syslog(3) writes it, in the C locale.
    auto stamp = [] {
        const time_t now = time(nullptr);
        tm t{};
        localtime_r(&now, &t);
        char text[32];
        return std::string(text, strftime(text, sizeof text, "%b %e %T", &t));
    };
    const std::string before = stamp();
    ZVLOG_LOG_AT(logger_, LEVEL_WARN, "m", "f", 1, "local %d", 5);
    const std::string after = stamp();
    const std::regex form("<84>([A-Z][a-z]{2} [ 1-3]\\d \\d\\d:\\d\\d:\\d\\d) (\\S+)\\[(\\d+)\\]: local 5");
    std::smatch m;
    const std::string d = local.next();
    ASSERT_TRUE(std::regex_match(d, m, form)) << d;
    EXPECT_TRUE(m[1].str() == before || m[1].str() == after) << d << " at " << before << " to " << after;

    EXPECT_EQ(m[2].str(), getAppContextText(ProcessExecutableBase));
    EXPECT_EQ(m[3].str(), getAppContextText(ProcessID));

    SyslogAppender missing("missing");
    missing.setLocalSocket("/nonexistent/zvlog-syslog");
    EXPECT_EQ(zvtest::stdoutOf([&] { missing.setFacility(FACILITY_APPLICATION); }),
              "Failed to register event source. Error 2 - No such file or directory\n");
    logger_->addAppender(missing);
    EXPECT_EQ(zvtest::stdoutOf([&] {
                  for (int i = 0; i < 3; ++i) ZVLOG_LOG_AT(logger_, LEVEL_INFO, "m", "f", 1, "quiet");
              }),
              "");
}

}  // namespace
