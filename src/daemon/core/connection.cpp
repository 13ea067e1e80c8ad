#include "core/connection.h"

#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/tls.h"

int tls_active = 1;

int select_one(int fd, bool for_write, int seconds) {
    if (fd < 0 || fd >= FD_SETSIZE) return -1;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval timeout = {seconds, 0};
    return select(fd + 1, for_write ? nullptr : &set, for_write ? &set : nullptr, nullptr, &timeout);
}

static int wait_ready(int fd, bool for_write) {
    int n = select_one(fd, for_write, 10);
    return n > 0 ? n : -1;
}

int wait_writable(int fd) { return wait_ready(fd, true); }
int wait_readable(int fd) { return wait_ready(fd, false); }

int conn_write(int fd, const void* buffer, int length) {
    if (wait_writable(fd) < 0) return -1;
    if (!tls_active) return (int)write(fd, buffer, (size_t)length);
    int n = tls_write(buffer, length);
    return n < 1 ? -1 : n;
}

int conn_read(int fd, void* buffer, int length) {
    if (wait_readable(fd) < 0) return -1;
    if (!tls_active) return (int)read(fd, buffer, (size_t)length);
    const unsigned char* record;
    int n;
    while ((n = tls_read(&record)) == 0) {}
    if (n < 0) return -1;
    // One record per call; what does not fit is dropped, as the peer must not
    // pack two messages into one record.
    int count = n < length ? n : length;
    memcpy(buffer, record, (size_t)count);
    return count;
}

// Moves exactly n bytes, each single call under a 30-second alarm.
static int move_all(int fd, char* p, int n, bool writing) {
    if (n < 1) return 0;
    int done = 0;
    int remaining = n;
    for (;;) {
        alarm(30);
        int got = writing ? conn_write(fd, p + done, remaining) : conn_read(fd, p + done, remaining);
        alarm(0);
        if (got < 1) return -1;
        done += got;
        remaining -= got;
        if (remaining < 1) return done;
    }
}

int send_all(int fd, const void* buffer, int n) { return move_all(fd, (char*)buffer, n, true); }

int recv_all(int fd, void* buffer, int n) { return move_all(fd, (char*)buffer, n, false); }

// Plain bytes only: the transfers that look ahead run after the request,
// when the connection no longer speaks TLS.
int peek_waiting(int fd, void* buffer, int length) {
    alarm(30);
    int got = wait_readable(fd) < 0 ? -1 : (int)recv(fd, buffer, (size_t)length, MSG_PEEK);
    alarm(0);
    return got;
}
