// TLS for the front of the connection: the greeting, the login and the
// request travel inside TLS; every later byte is plain on the socket.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>

#include "session.h"

namespace kelp {

struct tls_state;  // the mbedTLS contexts, kept out of this header

// A TLS client session on a connected socket it does not own. Each send is
// one record. Destroying it abandons the session without a close-notify, as
// that record would land in the plain stream that follows the request.
class tls_transport : public transport {
public:
    ~tls_transport() override;
    // Runs the handshake on fd. pin_sha256: the device certificate's SHA-256
    // fingerprint in hex (colons and case ignored), or empty to accept any.
    static status open(int fd, const std::string& pin_sha256, int timeout_ms, std::unique_ptr<tls_transport>* out);

    status send(const uint8_t* p, size_t n) override;
    status recv_some(uint8_t* p, size_t cap, size_t* got, int wait_ms) override;
    // Lowercase hex SHA-256 of the device certificate (DER).
    const std::string& peer_sha256() const { return peer_sha256_; }
    const std::string& version() const { return version_; }
    const std::string& cipher() const { return cipher_; }

private:
    tls_transport();
    std::unique_ptr<tls_state> state_;
    std::string peer_sha256_, version_, cipher_;
};

// What the handshake agreed, for the operator's eyes.
struct tls_facts {
    std::string version, cipher, peer_sha256;
};

// Runs the handshake on the connected session, within its wait, and routes
// its front through TLS.
status start_tls(session& s, const std::string& pin_sha256, tls_facts* facts = nullptr);

// "AB:cd:..." -> "abcd..."; empty when text is not 32 bytes of hex.
std::string normalize_sha256(const std::string& text);

}  // namespace kelp
