#include "zvlog/SyslogAppender.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "zvlog/AppContext.h"
#include "zvlog/Layout.h"
#include "zvlog/Logger.h"
#include "zvlog/core/MessageRenderer.h"

namespace zvs::zvlib::zvlog {

namespace {

// RFC 5424 header fields: printable US-ASCII without blanks, of bounded
// length. A name that cannot be sent as it stands would make the whole
// message unparsable, so it goes out as the NILVALUE "-" instead; one that
// is only too long is cut to the limit.
std::string headerField(const std::string& value, size_t limit) {
    if (value.empty()) return "-";
    for (unsigned char c : value)
        if (c < 33 || c > 126) return "-";
    return value.size() > limit ? value.substr(0, limit) : value;
}

// What the datagrams say about the process, read once.
struct ProcessFacts {
    std::string host, program, pid;
};

const ProcessFacts& processFacts() {
    static const ProcessFacts facts = [] {
        ProcessFacts f;
        f.host = headerField(getAppContextText(ProcessHostName), 255);
        f.program = headerField(getAppContextText(ProcessExecutableBase), 48);
        f.pid = headerField(getAppContextText(ProcessID), 128);
        return f;
    }();
    return facts;
}

// A structured-data parameter value: '"', '\' and ']' are escaped with a
// backslash, as RFC 5424 requires inside PARAM-VALUE.
void appendParameter(std::string& out, const char* key, const char* value) {
    out += key;
    out += '"';
    const char* p = value ? value : "";
    for (;;) {
        const size_t plain = std::strcspn(p, "\"\\]");  // copied in one piece
        out.append(p, plain);
        p += plain;
        if (!*p) break;
        out += '\\';
        out += *p++;
    }
    out += '"';
}

// A number in decimal, as "%u" prints it (snprintf costs several times more).
void appendDecimal(std::string& out, unsigned long value) {
    char digits[24];
    const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, static_cast<size_t>(end - digits));
}

// `width` digits of value, zero-padded on the left.
char* putDigits(char* p, unsigned long value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) p[i] = static_cast<char>('0' + value % 10);
    return p + width;
}

// The event's time as local time in RFC 3339 form, with microseconds and the
// offset from UTC: "yyyy-mm-ddThh:mm:ss.uuuuuu+hh:mm". The offset's hours
// carry the sign ("%+03ld" of the whole minutes over 60), the minutes are
// the remainder of its magnitude. Written digit by digit: strftime and
// snprintf cost more than the rest of the datagram together.
void appendTimestamp(std::string& out, const timeval32_t& time) {
    const time_t seconds = static_cast<time_t>(time.tv_sec);
    tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    char* p = text;
    const long year = local.tm_year + 1900L;
    if (year >= 1000 && year <= 9999) {
        p = putDigits(p, static_cast<unsigned long>(year), 4);
        *p++ = '-';
        p = putDigits(p, static_cast<unsigned long>(local.tm_mon + 1), 2);
        *p++ = '-';
        p = putDigits(p, static_cast<unsigned long>(local.tm_mday), 2);
        *p++ = 'T';
        p = putDigits(p, static_cast<unsigned long>(local.tm_hour), 2);
        *p++ = ':';
        p = putDigits(p, static_cast<unsigned long>(local.tm_min), 2);
        *p++ = ':';
        p = putDigits(p, static_cast<unsigned long>(local.tm_sec), 2);
    } else {  // out of the four-digit years (never for a 32-bit time)
        p += strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    }
    *p++ = '.';
    p = putDigits(p, time.tv_usec % 1000000, 6);
    const long offset = local.tm_gmtoff / 60;
    const long hours = offset / 60;
    const unsigned long hourDigits = static_cast<unsigned long>(hours < 0 ? -hours : hours);
    *p++ = hours < 0 ? '-' : '+';
    p = hourDigits < 100 ? putDigits(p, hourDigits, 2) : std::to_chars(p, text + sizeof text, hourDigits).ptr;
    *p++ = ':';
    p = putDigits(p, static_cast<unsigned long>((offset < 0 ? -offset : offset) % 60), 2);
    out.append(text, static_cast<size_t>(p - text));
}

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Waits until fd can take more bytes, at most until deadline.
bool writable(int fd, long long deadlineMs) {
    for (;;) {
        const long long left = deadlineMs - nowMs();
        if (left <= 0) return false;
        pollfd p{fd, POLLOUT, 0};
        const int n = ::poll(&p, 1, static_cast<int>(left));
        if (n > 0) return (p.revents & (POLLERR | POLLHUP)) == 0;
        if (n < 0 && errno != EINTR) return false;
    }
}

void closeSocket(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

SyslogAppender::SyslogAppender(const char* name) : Appender(name) {}

SyslogAppender::~SyslogAppender() {
    setAsynchronous(false);
    closeSockets();
}

void SyslogAppender::reset() {}
void SyslogAppender::close() {}
bool SyslogAppender::requiresLayout() const { return false; }
void SyslogAppender::append(const void*, unsigned int) {}

int SyslogAppender::severityOf(unsigned char level) {
    switch (level) {
    case LEVEL_FATAL: return 1;
    case LEVEL_ERROR: return 3;
    case LEVEL_WARN: return 4;
    case LEVEL_INFO: return 6;
    default: return 7;
    }
}

void SyslogAppender::closeSockets() {
    closeSocket(socket_);
    closeSocket(localSocket_);
    localOpened_ = false;
}

void SyslogAppender::setSyslogHost(const char* text) {
    MultiThreading::MutexLock lock(mutex());
    closeSocket(socket_);
    host_ = text ? text : "";
    if (host_.empty()) return;

    // "tcp://" first; then "[v6]:port", "host:port", or a bare name or
    // address (an IPv6 address holds more than one ':').
    std::string rest = host_;
    stream_ = rest.rfind("tcp://", 0) == 0;
    if (stream_) rest.erase(0, 6);
    node_ = rest;
    service_ = "syslog";
    if (!rest.empty() && rest.front() == '[') {
        const size_t close = rest.find(']');
        node_ = rest.substr(1, close == std::string::npos ? std::string::npos : close - 1);
        if (close != std::string::npos && close + 1 < rest.size() && rest[close + 1] == ':')
            service_ = rest.substr(close + 2);
    } else if (const size_t colon = rest.find(':');
               colon != std::string::npos && rest.find(':', colon + 1) == std::string::npos) {
        node_ = rest.substr(0, colon);
        service_ = rest.substr(colon + 1);
    }
    if (stream_) {
        lastConnectMs_ = -1000000;
        connectStream();
        return;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(node_.c_str(), service_.c_str(), &hints, &list) != 0) return;
    for (addrinfo* a = list; a; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
            socket_ = fd;
            break;
        }
        ::close(fd);
    }
    freeaddrinfo(list);
}

// One attempt a second at most, each address in turn, every one bounded by
// the wait a logging thread accepts. The socket stays non-blocking.
bool SyslogAppender::connectStream() {
    const long long now = nowMs();
    if (now - lastConnectMs_ < 1000) return false;
    lastConnectMs_ = now;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(node_.c_str(), service_.c_str(), &hints, &list) != 0) return false;
    for (addrinfo* a = list; a && socket_ < 0; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) continue;
        int error = 0;
        socklen_t length = sizeof error;
        if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0 ||
            (errno == EINPROGRESS && writable(fd, nowMs() + kTcpWaitMs) &&
             getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0))
            socket_ = fd;
        else
            ::close(fd);
    }
    freeaddrinfo(list);
    return socket_ >= 0;
}

// Sends all bytes or reports that the connection cannot be trusted with the
// rest of a frame.
bool SyslogAppender::writeWhole(const char* data, size_t size, long long deadlineMs) {
    while (size > 0) {
        const ssize_t n = ::send(socket_, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            data += n;
            size -= static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!writable(socket_, deadlineMs)) return false;
        } else {
            return false;
        }
    }
    return true;
}

// Octet counting: the length, a blank, the message. A frame that could not
// be written whole ends its connection, so that the collector never reads
// the next message as the rest of this one.
void SyslogAppender::sendStream(const std::string& message) {
    // A collector that closed the connection would swallow the next frame
    // silently: look for its end first (a collector sends nothing else).
    if (socket_ >= 0) {
        char c;
        const ssize_t r = ::recv(socket_, &c, 1, MSG_PEEK | MSG_DONTWAIT);
        if (r == 0 || (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) closeSocket(socket_);
    }
    if (socket_ < 0 && !connectStream()) {
        ++dropped_;
        return;
    }
    const long long deadline = nowMs() + kTcpWaitMs;
    // Nothing of the frame may be written before the whole can be: wait for
    // room first, so that a stalled collector costs a drop, not a cut.
    char length[24];
    const int n = snprintf(length, sizeof length, "%zu ", message.size());
    const ssize_t first = ::send(socket_, length, static_cast<size_t>(n), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (first < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        ++dropped_;  // the connection stays on a frame boundary
        return;
    }
    if (first < 0 || !writeWhole(length + first, static_cast<size_t>(n - first), deadline) ||
        !writeWhole(message.data(), message.size(), deadline)) {
        ++dropped_;
        closeSocket(socket_);
        return;
    }
    ++sent_;
}

void SyslogAppender::setLocalSocket(const char* path) {
    MultiThreading::MutexLock lock(mutex());
    closeSocket(localSocket_);
    localOpened_ = false;
    localPath_ = path ? path : "";
}

// A local socket that cannot be reached is told once, here, as a failed
// registration; sends that fail later are told per event. An appender that
// sends to a collector never uses the local socket and says nothing of it.
void SyslogAppender::setFacility(Facility facility) {
    MultiThreading::MutexLock lock(mutex());
    const bool unchanged = facility == facility_ && localOpened_;
    facility_ = facility;
    if (unchanged || !host_.empty()) return;
    closeSocket(localSocket_);
    openLocal(true);
}

void SyslogAppender::openLocal(bool report) {
    localOpened_ = true;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    int error = ENAMETOOLONG;
    if (localPath_.size() < sizeof address.sun_path) {
        std::memcpy(address.sun_path, localPath_.c_str(), localPath_.size() + 1);
        localSocket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (localSocket_ >= 0 &&
            ::connect(localSocket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return;
        error = errno;
        closeSocket(localSocket_);
    }
    if (report) {
        printf("Failed to register event source. Error %d - %s\n", error, strerror(error));
        fflush(stdout);
    }
}

void SyslogAppender::append(const LoggingEvent* event) {
    text_.clear();
    if (Layout* layout = getLayout())
        layout->format(event, text_);
    else
        renderMessage(event, text_);
    if (!host_.empty())
        sendRemote(event);
    else
        sendLocal(event);
}

void SyslogAppender::sendRemote(const LoggingEvent* event) {
    if (socket_ < 0 && !stream_) {
        ++dropped_;
        return;
    }
    const ProcessFacts& facts = processFacts();
    const EventAttributes& a = event->attributes;
    const LocationRecord* site = a.location;
    std::string& d = datagram_;
    d.clear();
    d += '<';
    appendDecimal(d, static_cast<unsigned long>(severityOf(a.level) + (facility_ == FACILITY_SECURITY ? 80 : 8)));
    d += ">1 ";
    appendTimestamp(d, a.time);
    d += ' ';
    d += facts.host;
    d += ' ';
    d += facts.program;
    d += ' ';
    d += facts.pid;
    d += ' ';
    const size_t sequenceAt = d.size();
    appendDecimal(d, a.sequence);
    const size_t sequenceSize = d.size() - sequenceAt;
    d += " [zvlog@";
    d.append(d, sequenceAt, sequenceSize);
    appendParameter(d, " category=", Logger::getRepository()->getLoggerName(a.loggerIndex));
    appendParameter(d, " thread=", LoggerRepository::getThreadName());
    appendParameter(d, " method=", site ? site->method : "");
    appendParameter(d, " module=", site ? site->module : "");
    d += " line=\"";  // digits need no escaping
    appendDecimal(d, site ? site->line : 0u);
    d += '"';
    d += "] \xEF\xBB\xBF";
    d += text_;
    if (stream_)
        sendStream(d);
    else if (::send(socket_, d.data(), d.size(), MSG_NOSIGNAL) >= 0)
        ++sent_;
    else
        ++dropped_;
}

// The form syslog(3) writes to the local socket:
// "<priority>Mmm dd hh:mm:ss program[pid]: text".
void SyslogAppender::sendLocal(const LoggingEvent* event) {
    if (!localOpened_) openLocal(false);
    if (localSocket_ < 0) return;
    const ProcessFacts& facts = processFacts();
    const EventAttributes& a = event->attributes;
    const int facility = facility_ == FACILITY_SECURITY ? 10 : 1;
    std::string& d = datagram_;
    d.clear();
    d += '<';
    appendDecimal(d, static_cast<unsigned long>(facility * 8 + severityOf(a.level)));
    d += '>';
    // "Mmm dd hh:mm:ss " with English month names whatever the program's
    // locale, as syslog(3) writes it (the C locale's "%b %e %T ").
    static constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const time_t seconds = static_cast<time_t>(a.time.tv_sec);
    tm local{};
    localtime_r(&seconds, &local);
    const int month = local.tm_mon >= 0 && local.tm_mon < 12 ? local.tm_mon : 0;
    d.append(kMonths + 3 * month, 3);
    d += ' ';
    d += local.tm_mday < 10 ? ' ' : static_cast<char>('0' + local.tm_mday / 10);
    d += static_cast<char>('0' + local.tm_mday % 10);
    const int parts[3] = {local.tm_hour, local.tm_min, local.tm_sec};
    for (int i = 0; i < 3; ++i) {
        d += i == 0 ? ' ' : ':';
        d += static_cast<char>('0' + parts[i] / 10 % 10);
        d += static_cast<char>('0' + parts[i] % 10);
    }
    d += ' ';
    d += facts.program;
    d += '[';
    d += facts.pid;
    d += "]: ";
    d += text_;
    if (::send(localSocket_, d.data(), d.size(), MSG_NOSIGNAL) < 0) {
        const int error = errno;
        printf("Failed to report error, error %d - %s\n", error, strerror(error));
        fflush(stdout);
    }
}

}  // namespace zvs::zvlib::zvlog
