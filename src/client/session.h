// One connection to the daemon: connect, greeting, login, the action request
// and the 7-byte replies that follow.
//
// Transport seam (for TLS): the front of the connection -- greeting, auth
// reply, auth answer and the action request -- goes through a `transport`.
// By default that is `plain_transport` on the socket; TLS replaces it with
// `session::set_front()` after connect() and before login(). The daemon drops
// TLS right after the request, so every later byte (replies, frames, records,
// throughput data) is plain on the socket and goes through send_raw/recv_raw,
// never through the front transport. A front transport must therefore not
// read ahead past the auth answer, and must send each send() as one record.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include "protocol.h"
#include "status.h"

namespace kelp {

class transport {
public:
    virtual ~transport() = default;
    // Sends the whole buffer as one write (one record under TLS).
    virtual status send(const uint8_t* p, size_t n) = 0;
    // Receives 1..cap bytes within wait_ms, or fails (closed, timed out, ...).
    virtual status recv_some(uint8_t* p, size_t cap, size_t* got, int wait_ms) = 0;
};

class plain_transport : public transport {
public:
    plain_transport(int fd, int timeout_ms) : fd_(fd), timeout_ms_(timeout_ms) {}
    status send(const uint8_t* p, size_t n) override;
    status recv_some(uint8_t* p, size_t cap, size_t* got, int wait_ms) override;

private:
    int fd_;
    int timeout_ms_;
};

// The act_pkt fields the client chooses; req and mode are always sent as 0.
struct request {
    uint8_t action = 0;
    uint8_t script = 0;
    uint8_t flags = 0;  // flag_apply / flag_reboot; for the firmware, bit 0 starts the upgrade
    uint32_t size = 0;  // declared upload size
};

// Wire codecs, free of I/O.
// Checks text, marker and tag; copies the 8 challenge bytes.
status parse_greeting(const uint8_t greeting[greeting_len], uint8_t challenge[challenge_len]);
// 02 01 + the password (at most 31 chars, NUL-padded to 32) under RC4 keyed by the challenge.
void encode_auth_reply(const uint8_t challenge[challenge_len], const std::string& password,
                       uint8_t out[auth_reply_len]);
void encode_request(const request& r, uint8_t out[act_pkt_len]);

// A 7-byte reply: 03 01 CODE then either zeros (result) or a LE size (size packet, code 1).
struct reply {
    uint8_t code = 0;
    uint32_t size = 0;  // bytes 3..6 little-endian; meaningful for code 1 only
};
status parse_reply(const uint8_t packet[reply_packet_len], reply* out);

class session {
public:
    session() = default;
    ~session();
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    status connect(const std::string& host, int port, int timeout_ms);
    // Takes over an already connected socket (tests, or a caller's own connect).
    void adopt(int fd, int timeout_ms);
    void close();

    int fd() const { return fd_; }
    int timeout_ms() const { return timeout_ms_; }
    // An absolute limit (CLOCK_MONOTONIC, ms) on every wait; 0 for none.
    void set_deadline(long long monotonic_ms) { deadline_ms_ = monotonic_ms; }
    // What the next wait may take: the time-out, cut at the deadline; 0 when
    // the deadline has passed.
    int wait_ms() const;
    // Hears, on close, how many bytes moved after the request (--verbose).
    void set_trail(std::function<void(const std::string&)> trail) { trail_ = std::move(trail); }
    // The TLS seam: replaces the plain front transport.
    void set_front(std::unique_ptr<transport> t) { front_ = std::move(t); }

    // The greeting, within max_wait_ms (or the usual wait when 0).
    status read_greeting(uint8_t challenge[challenge_len], int max_wait_ms = 0);
    // Auth reply and auth answer.
    status authenticate(const uint8_t challenge[challenge_len], const std::string& password);
    // Both, through the front transport.
    status login(const std::string& password);
    // The act_pkt through the front transport, as one write.
    status send_request(const request& r);

    // Everything after the request: plain on the socket.
    status send_raw(const uint8_t* p, size_t n);
    status recv_raw(uint8_t* p, size_t n);
    status recv_some_raw(uint8_t* p, size_t cap, size_t* got);
    void shutdown_send();

    status read_reply(reply* out);
    // Result packet: ok for code 1, device_error otherwise.
    status expect_result();
    // The ready packet (a size packet of 0); a result code other than 1 is a device error.
    status expect_ready();
    // A size packet; a result code other than 1 is a device error.
    status expect_size(uint32_t* size);

private:
    status front_recv_exact(uint8_t* p, size_t n, int wait_ms);

    int fd_ = -1;
    int timeout_ms_ = 15000;
    long long deadline_ms_ = 0;
    uint64_t sent_ = 0, received_ = 0;
    std::function<void(const std::string&)> trail_;
    std::unique_ptr<transport> front_;
};

}  // namespace kelp
