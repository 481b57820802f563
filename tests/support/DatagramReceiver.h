// A datagram socket of a test's own, bound to a free loopback port or to a
// path, from which the test reads what was sent to it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace zvtest {

class Receiver {
public:
    explicit Receiver(int family = AF_INET) {
        fd_ = socket(family, SOCK_DGRAM, 0);
        sockaddr_storage address{};
        socklen_t length;
        if (family == AF_INET6) {
            auto* a = reinterpret_cast<sockaddr_in6*>(&address);
            a->sin6_family = AF_INET6;
            a->sin6_addr = in6addr_loopback;
            length = sizeof *a;
        } else {
            auto* a = reinterpret_cast<sockaddr_in*>(&address);
            a->sin_family = AF_INET;
            a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *a;
        }
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                 getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        port_ = ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                         : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    }
    explicit Receiver(const std::string& path) : path_(path) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Receiver() {
        close(fd_);
        if (!path_.empty()) unlink(path_.c_str());
    }
    bool bound() const { return bound_; }
    int port() const { return port_; }
    // The next datagram, or "" after a second without one.
    std::string next() {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 1000) != 1) return "";
        char buffer[65536];
        const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }

private:
    int fd_ = -1;
    int port_ = 0;
    bool bound_ = false;
    std::string path_;
};

}  // namespace zvtest
