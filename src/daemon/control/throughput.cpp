#include "control/throughput.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/connection.h"
#include "protocol.h"

static int wait_three_seconds(int fd, bool for_write) {
    int n = select_one(fd, for_write, 3);
    if (n < 0) perror("select failed");
    return n < 0 ? -1 : n > 0;
}

// The send itself must not wait: a blocking send of a whole block would sit
// in the kernel for ever once the client stops reading, and the 3-second
// wait could never notice the stall. It sends what fits now.
int timed_send(int fd, const void* buffer, size_t count) {
    for (;;) {
        int ready = wait_three_seconds(fd, true);
        if (ready <= 0) return ready;
        ssize_t n = send(fd, buffer, count, MSG_DONTWAIT);
        if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return (int)n;
    }
}

int timed_recv(int fd, void* buffer, size_t count) {
    int ready = wait_three_seconds(fd, false);
    if (ready <= 0) return ready;
    return (int)recv(fd, buffer, count, 0);
}

// Ends the process like the router's allocator when the heap is exhausted.
static void* allocate_block() {
    void* p = malloc(throughput_block);
    if (!p) {
        fputs("out of memory\n", stderr);
        abort();
    }
    return p;
}

int throughput_send(int fd) {
    // The content is never looked at by the client; it is sent as it comes.
    char* buffer = (char*)allocate_block();
    if (buffer) {
        if (tls_active) {
            while (send_all(fd, buffer, (int)throughput_block) == (int)throughput_block) {}
        } else {
            while (timed_send(fd, buffer, throughput_block) > 0) {}
        }
        free(buffer);
    }
    return close(fd);
}

int throughput_receive(int fd) {
    char* buffer = (char*)allocate_block();
    if (buffer) {
        if (tls_active) {
            while (recv_all(fd, buffer, (int)throughput_block) == (int)throughput_block) {}
        } else {
            while (timed_recv(fd, buffer, throughput_block) > 0) {}
        }
        free(buffer);
    }
    return close(fd);
}
