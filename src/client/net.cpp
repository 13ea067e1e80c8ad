#include "net.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace kelp {

namespace {

// 1 ready, 0 timed out, -1 error (errno set).
int wait_for(int fd, short events, int timeout_ms) {
    pollfd p{fd, events, 0};
    for (;;) {
        int r = poll(&p, 1, timeout_ms);
        if (r >= 0) return r;
        if (errno != EINTR) return -1;
    }
}

std::string errno_text(const char* what) { return std::string(what) + ": " + strerror(errno); }

// Forms of address an operator may well try that the router cannot take:
// it listens on IPv4 only, and the port is given on its own.
status check_address_form(const std::string& host) {
    bool bracketed = host.size() > 2 && host.front() == '[';
    std::string bare = bracketed ? host.substr(1, host.find(']') - 1) : host;
    in6_addr ipv6;
    if (bracketed || inet_pton(AF_INET6, bare.c_str(), &ipv6) == 1)
        return fail(error_kind::local,
                    host + " is an IPv6 address: the router speaks IPv4 only; give its IPv4 address or name");
    size_t colon = host.rfind(':');
    if (colon != std::string::npos && colon + 1 < host.size() &&
        host.find_first_not_of("0123456789", colon + 1) == std::string::npos)
        return fail(error_kind::local, host + " looks like HOST:PORT: give the host alone and the port on its own " +
                                           "(-H " + host.substr(0, colon) + " -p " + host.substr(colon + 1) +
                                           ", or port= in an inventory)");
    return ok();
}

}  // namespace

status connect_tcp(const std::string& host, int port, int timeout_ms, int* fd_out, bool* refused) {
    *fd_out = -1;
    bool ignored = false;
    if (!refused) refused = &ignored;
    *refused = false;
    status form = check_address_form(host);
    if (!form) return form;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    std::string service = std::to_string(port);
    int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
    if (rc != 0) return fail(error_kind::connect_failed, "cannot resolve " + host + ": " + gai_strerror(rc));

    status last = fail(error_kind::connect_failed, host + ": no usable address");
    for (addrinfo* a = list; a; a = a->ai_next) {
        int fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            last = fail(error_kind::connect_failed, errno_text("socket"));
            continue;
        }
        int r = connect(fd, a->ai_addr, a->ai_addrlen);
        if (r < 0 && errno == EINPROGRESS) {
            int w = wait_for(fd, POLLOUT, timeout_ms);
            if (w == 0) {
                close(fd);
                last = fail(error_kind::timed_out, "connecting to " + host + ":" + service + " timed out");
                continue;
            }
            int err = 0;
            socklen_t len = sizeof err;
            if (w < 0)
                err = errno;
            else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0)
                err = errno;
            if (err != 0)
                errno = err, r = -1;
            else
                r = 0;
        }
        if (r < 0) {
            if (errno == ECONNREFUSED) *refused = true;
            // Accepted into the backlog, then reset before we looked: the
            // queue of a listener that has just closed.
            error_kind kind = errno == ECONNRESET ? error_kind::closed : error_kind::connect_failed;
            last = fail(kind, *refused ? host + ":" + service + " refused the connection"
                                       : "connecting to " + host + ":" + service + ": " + strerror(errno));
            close(fd);
            continue;
        }
        // Requests and replies are small and strictly alternating.
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        freeaddrinfo(list);
        *fd_out = fd;
        return ok();
    }
    freeaddrinfo(list);
    return last;
}

status send_all(int fd, const uint8_t* p, size_t n, int timeout_ms) {
    while (n > 0) {
        ssize_t w = send(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w > 0) {
            p += w;
            n -= (size_t)w;
            continue;
        }
        if (w < 0 && errno == EINTR) continue;
        if (w < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            if (errno == EPIPE || errno == ECONNRESET)
                return fail(error_kind::closed, "the device closed the connection");
            return fail(error_kind::closed, errno_text("send"));
        }
        int r = wait_for(fd, POLLOUT, timeout_ms);
        if (r == 0) return fail(error_kind::timed_out, "the device stopped accepting data");
        if (r < 0) return fail(error_kind::closed, errno_text("poll"));
    }
    return ok();
}

status recv_some(int fd, uint8_t* p, size_t cap, size_t* got, int timeout_ms) {
    *got = 0;
    for (;;) {
        ssize_t r = recv(fd, p, cap, MSG_DONTWAIT);
        if (r > 0) {
            *got = (size_t)r;
            return ok();
        }
        if (r == 0) return fail(error_kind::closed, "the device closed the connection");
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            if (errno == ECONNRESET) return fail(error_kind::closed, "the device reset the connection");
            return fail(error_kind::closed, errno_text("recv"));
        }
        int w = wait_for(fd, POLLIN, timeout_ms);
        if (w == 0)
            return fail(error_kind::timed_out,
                        "no answer from the device within " + std::to_string(timeout_ms) + " ms");
        if (w < 0) return fail(error_kind::closed, errno_text("poll"));
    }
}

status recv_exact(int fd, uint8_t* p, size_t n, int timeout_ms) {
    while (n > 0) {
        size_t got = 0;
        status s = recv_some(fd, p, n, &got, timeout_ms);
        if (!s) return s;
        p += got;
        n -= got;
    }
    return ok();
}

}  // namespace kelp
