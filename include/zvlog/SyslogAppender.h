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
    //
    // "tcp://host:port" sends the same messages over one TCP connection,
    // each framed by its length (octet counting). A logging thread waits for
    // the collector at most kTcpWaitMs per message (connecting, or a full
    // socket buffer); what cannot go out by then is dropped and counted. A
    // lost connection is tried again at most once a second; a message is
    // never cut inside a connection, and each connection starts on a frame.
    void setSyslogHost(const char* host);
    const char* getSyslogHost() const { return host_.c_str(); }
    void setFacility(Facility facility);
    int getFacility() const { return facility_; }

    // The local syslog socket used without a host; "/dev/log" by default.
    void setLocalSocket(const char* path);
    const char* getLocalSocket() const { return localPath_.c_str(); }

    static constexpr int kTcpWaitMs = 200;
    // Messages handed to the network (UDP datagrams, or TCP frames sent
    // whole) and messages dropped (no connection, a send that failed or
    // would have waited too long).
    unsigned long long getSentCount() const { return sent_; }
    unsigned long long getDroppedCount() const { return dropped_; }

    // The syslog severity of a level: FATAL 1, ERROR 3, WARN 4, INFO 6,
    // anything else 7.
    static int severityOf(unsigned char level);

private:
    void sendRemote(const LoggingEvent* event);
    void sendStream(const std::string& message);
    bool connectStream();
    bool writeWhole(const char* data, size_t size, long long deadlineMs);
    void sendLocal(const LoggingEvent* event);
    void openLocal(bool report);
    void closeSockets();

    int facility_ = FACILITY_APPLICATION;
    std::string text_;
    std::string datagram_;
    std::string host_;
    std::string node_, service_;  // the host text split, for reconnecting
    bool stream_ = false;         // "tcp://"
    long long lastConnectMs_ = -1000000;
    unsigned long long sent_ = 0, dropped_ = 0;
    int socket_ = -1;       // connected datagram socket (or TCP stream) to the collector
    int localSocket_ = -1;  // connected to the local syslog socket
    bool localOpened_ = false;
    std::string localPath_ = "/dev/log";
};

}  // namespace zvs::zvlib::zvlog
