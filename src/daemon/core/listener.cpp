#include "core/listener.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/process_exit.h"

static void set_option_or_exit(int fd, int level, int name) {
    int one = 1;
    if (setsockopt(fd, level, name, &one, sizeof one) < 0) {
        perror("setsockopt()");
        end_process(1);
    }
}

static bool set_buffer(int fd, int name) {
    int size = 65535;
    if (setsockopt(fd, SOL_SOCKET, name, &size, sizeof size) < 0) {
        perror("setsockopt SO_SNDBUF failed");
        return false;
    }
    return true;
}

int open_listener(uint32_t address, int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        perror("socket()");
        end_process(1);
    }
    set_option_or_exit(fd, SOL_SOCKET, SO_REUSEADDR);
    set_option_or_exit(fd, IPPROTO_TCP, TCP_NODELAY);
    if (!set_buffer(fd, SO_RCVBUF) || !set_buffer(fd, SO_SNDBUF)) return -1;

    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons((uint16_t)port);
    local.sin_addr.s_addr = address;

    printf("Waiting for tcp port %d to become available: ", port);
    fflush(stdout);
    while (bind(fd, (struct sockaddr*)&local, sizeof local) < 0) sleep(1);
    puts("Ok");

    if (listen(fd, 1) < 0) {
        perror("listen()");
        end_process(1);
    }
    return fd;
}
