#include "tls_transport.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/sha256.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>

#include "tls_socket.h"

namespace kelp {

struct tls_state {
    tls_socket socket;
    mbedtls_entropy_context entropy;
    mbedtls_ctr_drbg_context drbg;
    mbedtls_ssl_config config;
    mbedtls_ssl_context ssl;
    tls_state() {
        mbedtls_entropy_init(&entropy);
        mbedtls_ctr_drbg_init(&drbg);
        mbedtls_ssl_config_init(&config);
        mbedtls_ssl_init(&ssl);
    }
    // Frees memory only: mbedtls_ssl_free sends nothing to the peer.
    ~tls_state() {
        mbedtls_ssl_free(&ssl);
        mbedtls_ssl_config_free(&config);
        mbedtls_ctr_drbg_free(&drbg);
        mbedtls_entropy_free(&entropy);
    }
};

static bool peer_closed(int r) {
    return r == MBEDTLS_ERR_SSL_CONN_EOF || r == MBEDTLS_ERR_NET_CONN_RESET || r == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY;
}

static std::string tls_error(int r) {
    char text[160];
    mbedtls_strerror(r, text, sizeof text);
    return text;
}

static std::string to_hex(const uint8_t* data, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; i++) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

std::string normalize_sha256(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == ':' || c == ' ') continue;
        if (c >= 'A' && c <= 'F') c = (char)(c - 'A' + 'a');
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return "";
        out += c;
    }
    return out.size() == 64 ? out : "";
}

tls_transport::tls_transport() : state_(std::make_unique<tls_state>()) {}
tls_transport::~tls_transport() = default;

status tls_transport::open(int fd, const std::string& pin_sha256, int timeout_ms, std::unique_ptr<tls_transport>* out) {
    std::string pin;
    if (!pin_sha256.empty() && (pin = normalize_sha256(pin_sha256)).empty())
        return fail(error_kind::local, "not a SHA-256 fingerprint: " + pin_sha256);
    std::unique_ptr<tls_transport> t(new tls_transport());
    tls_state& s = *t->state_;
    s.socket.fd = fd;
    s.socket.wait_ms = timeout_ms;
    static const unsigned char personal[] = "kelputil";
    int r = mbedtls_ctr_drbg_seed(&s.drbg, mbedtls_entropy_func, &s.entropy, personal, sizeof personal - 1);
    if (r == 0)
        r = mbedtls_ssl_config_defaults(&s.config, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                                        MBEDTLS_SSL_PRESET_DEFAULT);
    if (r != 0) return fail(error_kind::local, "TLS set-up failed: " + tls_error(r));
    // The device's certificate is self-signed: trust comes from the pin.
    mbedtls_ssl_conf_authmode(&s.config, MBEDTLS_SSL_VERIFY_NONE);
    mbedtls_ssl_conf_rng(&s.config, mbedtls_ctr_drbg_random, &s.drbg);
    mbedtls_ssl_conf_read_timeout(&s.config, (uint32_t)timeout_ms);
    if ((r = mbedtls_ssl_setup(&s.ssl, &s.config)) != 0)
        return fail(error_kind::local, "TLS set-up failed: " + tls_error(r));
    mbedtls_ssl_set_bio(&s.ssl, &s.socket, tls_socket_send, nullptr, tls_socket_recv);

    while ((r = mbedtls_ssl_handshake(&s.ssl)) != 0) {
        if (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        if (s.socket.first_len >= 4 && memcmp(s.socket.first, greeting_text, 4) == 0)
            return fail(error_kind::wrong_protocol, "the device speaks the plain protocol on this port, not TLS");
        if (r == MBEDTLS_ERR_SSL_TIMEOUT)
            return fail(error_kind::timed_out,
                        "no answer to the TLS handshake within " + std::to_string(timeout_ms) + " ms");
        if (peer_closed(r))
            return fail(error_kind::closed, "the device closed the connection during the TLS handshake");
        return fail(error_kind::certificate, "TLS handshake failed: " + tls_error(r));
    }
    t->version_ = mbedtls_ssl_get_version(&s.ssl);
    t->cipher_ = mbedtls_ssl_get_ciphersuite(&s.ssl);
    const mbedtls_x509_crt* peer = mbedtls_ssl_get_peer_cert(&s.ssl);
    if (!peer) return fail(error_kind::certificate, "the device presented no certificate");
    uint8_t digest[32];
    mbedtls_sha256_ret(peer->raw.p, peer->raw.len, digest, 0);
    t->peer_sha256_ = to_hex(digest, sizeof digest);
    // Checked before anything secret travels: on a mismatch nothing is sent.
    if (!pin.empty() && pin != t->peer_sha256_)
        return fail(error_kind::certificate, "the certificate does not match the pin: it has SHA-256 " +
                                                 t->peer_sha256_ + ", the pin is " + pin);
    *out = std::move(t);
    return {};
}

status tls_transport::send(const uint8_t* data, size_t n) {
    // n == 0 sends an empty record.
    size_t done = 0;
    do {
        int r = mbedtls_ssl_write(&state_->ssl, data + done, n - done);
        if (r == MBEDTLS_ERR_SSL_WANT_WRITE || r == MBEDTLS_ERR_SSL_WANT_READ) continue;
        if (r == MBEDTLS_ERR_SSL_TIMEOUT) return fail(error_kind::timed_out, "the device stopped reading");
        if (r < 0 || (r == 0 && n > 0)) return fail(error_kind::closed, "the device closed the connection");
        done += (size_t)r;
    } while (done < n);
    return {};
}

status tls_transport::recv_some(uint8_t* p, size_t cap, size_t* got, int wait_ms) {
    state_->socket.wait_ms = wait_ms;
    for (;;) {
        int r = mbedtls_ssl_read(&state_->ssl, p, cap);
        if (r > 0) {
            *got = (size_t)r;
            return {};
        }
        // Zero: an empty record (mbedTLS fails after a few in a row).
        if (r == 0 || r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        if (r == MBEDTLS_ERR_SSL_TIMEOUT) return fail(error_kind::timed_out, "the device stopped answering");
        if (peer_closed(r)) return fail(error_kind::closed, "the device closed the connection");
        return fail(error_kind::protocol, "TLS record error: " + tls_error(r));
    }
}

status start_tls(session& s, const std::string& pin_sha256, tls_facts* facts) {
    int wait = s.wait_ms();
    if (wait <= 0) return fail(error_kind::timed_out, "the time allowed for this device ran out");
    std::unique_ptr<tls_transport> t;
    status st = tls_transport::open(s.fd(), pin_sha256, wait, &t);
    if (!st) return st;
    if (facts) *facts = {t->version(), t->cipher(), t->peer_sha256()};
    s.set_front(std::move(t));
    return {};
}

}  // namespace kelp
