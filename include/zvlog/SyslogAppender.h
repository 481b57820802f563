// Sends each event to syslog: as an RFC 5424 datagram to a remote collector
// over UDP when a host is set, otherwise to the local syslog socket in the
// form the C library's syslog(3) writes.
#pragma once

#include <string>

#include "zvlog/Appender.h"

namespace zvs::zvlib::zvlog {

// Which log the events belong to. Security events go to the "authpriv"
// facility (priority base 80), every other value to "user" (base 8).
enum Facility : int { FACILITY_APPLICATION = 0, FACILITY_SECURITY = 1 };

class ZVLOG_API SyslogAppender : public Appender {
public:
    explicit SyslogAppender(const char* name);
    ~SyslogAppender() override;

    void reset() override;
    void close() override;
    bool requiresLayout() const override;
    void append(const void* data, unsigned int length) override;  // raw blocks are ignored
    void append(const LoggingEvent* event) override;

    // "host", "host:port" or "host:service", "[v6-address]:port" or a bare
    // IPv6 address; without a port the service is "syslog". The first
    // address that connects is kept; failures are silent and send nothing.
    void setSyslogHost(const char* host);
    const char* getSyslogHost() const { return host_.c_str(); }
    void setFacility(Facility facility);
    int getFacility() const { return facility_; }

    // The local syslog socket used without a host; "/dev/log" by default.
    void setLocalSocket(const char* path);
    const char* getLocalSocket() const { return localPath_.c_str(); }

    // The syslog severity of a level: FATAL 1, ERROR 3, WARN 4, INFO 6,
    // anything else 7.
    static int severityOf(unsigned char level);

private:
    void sendRemote(const LoggingEvent* event);
    void sendLocal(const LoggingEvent* event);
    void openLocal(bool report);
    void closeSockets();

    int facility_ = FACILITY_APPLICATION;
    std::string text_;
    std::string datagram_;
    std::string host_;
    int socket_ = -1;       // connected datagram socket to the collector
    int localSocket_ = -1;  // connected to the local syslog socket
    bool localOpened_ = false;
    std::string localPath_ = "/dev/log";
};

}  // namespace zvs::zvlib::zvlog
