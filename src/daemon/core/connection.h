// Byte transport of the connection: every single read or write waits at most
// 10 seconds for readiness and runs under a 30-second alarm.
#pragma once

#include <stddef.h>

// Non-zero: conn_read/conn_write go through the TLS session. Starts at 1;
// plain mode clears it before accepting, TLS mode after the action request.
extern int tls_active;

// select() on one descriptor for at most seconds: select's own result.
int select_one(int fd, bool for_write, int seconds);
int wait_writable(int fd);
int wait_readable(int fd);
int conn_write(int fd, const void* buffer, int length);
int conn_read(int fd, void* buffer, int length);
int send_all(int fd, const void* buffer, int n);
int recv_all(int fd, void* buffer, int n);
// Copies up to length waiting bytes without taking them off the socket, with
// the same wait and alarm as a read: >0 bytes seen, 0 the peer's end, -1 error.
int peek_waiting(int fd, void* buffer, int length);
