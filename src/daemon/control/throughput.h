// Actions 32 and 33: raw bytes for the client to time.
#pragma once

#include <stddef.h>

int timed_send(int fd, const void* buffer, size_t count);
int timed_recv(int fd, void* buffer, size_t count);
int throughput_send(int fd);
int throughput_receive(int fd);
