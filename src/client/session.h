// The client side of one management connection: connect, greeting, login,
// the action request, replies and transfer frames. Errors are values.
#pragma once

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelp {

using bytes = std::vector<uint8_t>;

enum class error_kind {
    none,
    connect_failed,    // connection refused or unreachable
    timed_out,         // the device stopped answering
    closed,            // the device closed the connection early
    protocol,          // bytes that do not belong to the protocol
    refused_password,  // the device answered 01 01 00
    device,            // the device answered with a result code other than 1
    local,             // a local file or argument problem
    certificate,       // TLS certificate mismatch or TLS failure
};

struct status {
    error_kind kind = error_kind::none;
    std::string message;
    int code = -1;  // the result code, for error_kind::device
    explicit operator bool() const { return kind == error_kind::none; }
};

status fail(error_kind kind, const std::string& message);
std::string result_text(int code);

// Carries the greeting, the auth reply and the request: plain bytes, or a
// TLS session on the same socket. Every later byte is plain on the socket.
class transport {
public:
    virtual ~transport() = default;
    virtual status send(const uint8_t* data, size_t n) = 0;
    // Up to n bytes; 0 when the peer closed; negative on error or time-out.
    virtual long receive_some(uint8_t* data, size_t n, int timeout_ms) = 0;
};

struct request {
    uint16_t req = 0;
    uint8_t mode = 0;
    uint8_t action = 0;
    uint8_t script = 0;
    uint8_t flags = 0;
    uint32_t size = 0;
};
bytes encode_request(const request& r);

using progress_fn = std::function<void(uint64_t done, uint64_t total)>;

class session {
public:
    session() = default;
    ~session();
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    int timeout_ms = 15000;

    status connect(const std::string& host, int port);
    // Replaces the plain transport for the greeting, login and request.
    void use_transport(std::unique_ptr<transport> t) { front_ = std::move(t); }
    int socket_fd() const { return fd_; }

    status read_greeting();
    const bytes& challenge() const { return challenge_; }
    status login(const std::string& password);
    status send_request(const request& r);

    // After the request: plain bytes on the socket.
    status read_reply(uint8_t packet[7]);
    status expect_ready();
    status read_size(uint32_t* size);
    status read_result(int* code);
    // A result packet whose code must be 1; other codes become errors.
    status expect_ok();

    status receive_frame(bytes* payload);
    status send_frame(const uint8_t* data, size_t n);
    status download(uint32_t size, bytes* out, const progress_fn& progress = nullptr);
    status upload(const bytes& data, const progress_fn& progress = nullptr);

    status send_raw(const uint8_t* data, size_t n);
    status receive_exact(uint8_t* data, size_t n);
    void close();

private:
    status front_receive(uint8_t* data, size_t n);
    int fd_ = -1;
    std::unique_ptr<transport> front_;
    bytes challenge_;
};

}  // namespace kelp
