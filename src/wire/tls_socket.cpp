#include "tls_socket.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <mbedtls/net_sockets.h>
#include <mbedtls/ssl.h>

// 1 ready, 0 timed out, -1 interrupted or failed.
static int wait_for(const tls_socket* s, short events) {
    if (s->wait_ms < 0) return 1;
    struct pollfd p = {s->fd, events, 0};
    return poll(&p, 1, s->wait_ms);
}

int tls_socket_send(void* context, const unsigned char* data, size_t length) {
    const tls_socket* s = (const tls_socket*)context;
    int ready = wait_for(s, POLLOUT);
    if (ready == 0) return MBEDTLS_ERR_SSL_TIMEOUT;
    if (ready < 0) return errno == EINTR ? MBEDTLS_ERR_SSL_WANT_WRITE : MBEDTLS_ERR_NET_SEND_FAILED;
    ssize_t n = send(s->fd, data, length, MSG_NOSIGNAL);
    if (n >= 0) return (int)n;
    if (errno == EINTR || errno == EAGAIN) return MBEDTLS_ERR_SSL_WANT_WRITE;
    if (errno == EPIPE || errno == ECONNRESET) return MBEDTLS_ERR_NET_CONN_RESET;
    return MBEDTLS_ERR_NET_SEND_FAILED;
}

int tls_socket_recv(void* context, unsigned char* data, size_t length, uint32_t) {
    tls_socket* s = (tls_socket*)context;
    int ready = wait_for(s, POLLIN);
    if (ready == 0) return MBEDTLS_ERR_SSL_TIMEOUT;
    if (ready < 0) return errno == EINTR ? MBEDTLS_ERR_SSL_WANT_READ : MBEDTLS_ERR_NET_RECV_FAILED;
    ssize_t n = recv(s->fd, data, length, 0);
    if (n > 0) {
        for (ssize_t i = 0; i < n && s->first_len < sizeof s->first; i++) s->first[s->first_len++] = data[i];
        return (int)n;
    }
    if (n == 0) return MBEDTLS_ERR_NET_CONN_RESET;
    if (errno == EINTR || errno == EAGAIN) return MBEDTLS_ERR_SSL_WANT_READ;
    if (errno == ECONNRESET) return MBEDTLS_ERR_NET_CONN_RESET;
    return MBEDTLS_ERR_NET_RECV_FAILED;
}
