// The certificate and private key the TLS port serves, compiled in from PEM
// files (tls_pair.cmake). Each length counts the terminating NUL.
#pragma once

extern const unsigned char tls_cert_pem[];
extern const unsigned int tls_cert_pem_len;
extern const unsigned char tls_key_pem[];
extern const unsigned int tls_key_pem_len;
