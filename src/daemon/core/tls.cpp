// The TLS server of port 857 on mbedTLS. The process serves one connection:
// every context is a static of this file, set up once and never freed, and
// the session is abandoned (no close-notify) once the request has arrived,
// as every later byte is plain on the socket.
#include "core/tls.h"

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/ecp.h>
#include <mbedtls/entropy.h>
#include <mbedtls/pk.h>
#include <mbedtls/ssl.h>
#include <mbedtls/ssl_cache.h>
#include <mbedtls/x509_crt.h>

#include "core/tls_pair.h"
#include "tls_socket.h"

static mbedtls_entropy_context entropy;
static mbedtls_ctr_drbg_context drbg;
static mbedtls_x509_crt certificate;
static mbedtls_pk_context private_key;
static mbedtls_ssl_cache_context cache;
static mbedtls_ssl_config config;
static mbedtls_ssl_context ssl;
static bool config_ready;
static tls_socket ssl_socket;  // blocking: the daemon waits in its own layer
// Our ECDHE choices first: x25519 and P-256 cost a fraction of the P-521
// that mbedTLS would otherwise pick; the rest in mbedTLS's order.
static mbedtls_ecp_group_id curves[MBEDTLS_ECP_DP_MAX + 3];
// One record's application data.
static unsigned char record[MBEDTLS_SSL_IN_CONTENT_LEN];

static void order_curves() {
    int n = 0;
    curves[n++] = MBEDTLS_ECP_DP_CURVE25519;
    curves[n++] = MBEDTLS_ECP_DP_SECP256R1;
    for (const mbedtls_ecp_group_id* id = mbedtls_ecp_grp_id_list(); *id != MBEDTLS_ECP_DP_NONE; id++)
        if (*id != MBEDTLS_ECP_DP_CURVE25519 && *id != MBEDTLS_ECP_DP_SECP256R1 && n < MBEDTLS_ECP_DP_MAX + 2)
            curves[n++] = *id;
    curves[n] = MBEDTLS_ECP_DP_NONE;
}

int tls_context_new() {
    mbedtls_entropy_init(&entropy);
    mbedtls_ctr_drbg_init(&drbg);
    mbedtls_x509_crt_init(&certificate);
    mbedtls_pk_init(&private_key);
    mbedtls_ssl_cache_init(&cache);
    mbedtls_ssl_config_init(&config);

    static const unsigned char personal[] = "kelputild/ssl";
    if (mbedtls_ctr_drbg_seed(&drbg, mbedtls_entropy_func, &entropy, personal, sizeof personal - 1) != 0) return 0;
    if (mbedtls_x509_crt_parse(&certificate, tls_cert_pem, tls_cert_pem_len) != 0) return 0;
    if (mbedtls_pk_parse_key(&private_key, tls_key_pem, tls_key_pem_len, nullptr, 0) != 0) return 0;
    if (mbedtls_ssl_config_defaults(&config, MBEDTLS_SSL_IS_SERVER, MBEDTLS_SSL_TRANSPORT_STREAM,
                                    MBEDTLS_SSL_PRESET_DEFAULT) != 0)
        return 0;
    mbedtls_ssl_conf_min_version(&config, MBEDTLS_SSL_MAJOR_VERSION_3, MBEDTLS_SSL_MINOR_VERSION_1);
    mbedtls_ssl_conf_max_version(&config, MBEDTLS_SSL_MAJOR_VERSION_3, MBEDTLS_SSL_MINOR_VERSION_3);
    mbedtls_ssl_conf_authmode(&config, MBEDTLS_SSL_VERIFY_NONE);
    mbedtls_ssl_conf_rng(&config, mbedtls_ctr_drbg_random, &drbg);
    order_curves();
    mbedtls_ssl_conf_curves(&config, curves);
    mbedtls_ssl_cache_set_max_entries(&cache, 1);
    mbedtls_ssl_conf_session_cache(&config, &cache, mbedtls_ssl_cache_get, mbedtls_ssl_cache_set);
    if (mbedtls_ssl_conf_own_cert(&config, &certificate, &private_key) != 0) return 0;
    config_ready = true;
    return 1;
}

int tls_server_handshake(int fd) {
    if (!config_ready) return -1;
    mbedtls_ssl_init(&ssl);
    if (mbedtls_ssl_setup(&ssl, &config) != 0) return -1;
    ssl_socket.fd = fd;
    mbedtls_ssl_set_bio(&ssl, &ssl_socket, tls_socket_send, nullptr, tls_socket_recv);
    // Application data before the handshake is over is an unexpected message:
    // mbedTLS fails the handshake on it.
    for (;;) {
        int r = mbedtls_ssl_handshake(&ssl);
        if (r == 0) return 0;
        if (r != MBEDTLS_ERR_SSL_WANT_READ && r != MBEDTLS_ERR_SSL_WANT_WRITE) return -1;
    }
}

int tls_read(const unsigned char** data) {
    // mbedTLS hands out at most the rest of the current record.
    int n = mbedtls_ssl_read(&ssl, record, sizeof record);
    if (n > 0) {
        *data = record;
        return n;
    }
    if (n == 0 || n == MBEDTLS_ERR_SSL_WANT_READ) return 0;
    return -1;
}

int tls_write(const void* buffer, int length) {
    if (length < 1) return -1;
    int n = mbedtls_ssl_write(&ssl, (const unsigned char*)buffer, (size_t)length);
    return n < 1 ? -1 : n;
}
