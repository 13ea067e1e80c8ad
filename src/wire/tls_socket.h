// The socket under an mbedTLS session, for both ends: the daemon's blocking
// one (wait_ms < 0) and the client's, which waits at most wait_ms for each
// read or write. A peer that closed is an error, never a zero, so a read
// cannot turn into an endless run of empty records.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct tls_socket {
    int fd = -1;
    int wait_ms = -1;
    // The first bytes the peer sent, to tell the plain protocol's greeting
    // from a broken handshake.
    uint8_t first[8] = {};
    size_t first_len = 0;
};

// mbedtls_ssl_set_bio(ssl, &socket, tls_socket_send, nullptr, tls_socket_recv)
int tls_socket_send(void* socket, const unsigned char* data, size_t length);
int tls_socket_recv(void* socket, unsigned char* data, size_t length, uint32_t unused_timeout);
