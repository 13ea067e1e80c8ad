// Outcome of every client operation: a kind the caller can branch on and a
// message for the operator. Bad input from the network is always reported
// here, never thrown or aborted on.
#pragma once

#include <errno.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace kelp {

using bytes = std::vector<uint8_t>;

enum class error_kind {
    none,
    local,             // bad arguments or input on this side
    refused_password,  // the device answered the login with 0
    connect_failed,    // refused, unreachable, unknown host
    timed_out,         // nothing arrived (or could be sent) within the limit
    closed,            // the device closed the connection early
    protocol,          // the device sent something we cannot make sense of
    wrong_protocol,    // plain on the TLS port, or TLS on the plain port
    certificate,       // TLS set-up or certificate check failed
    device,            // the device answered a result code other than 1 (see code)
};

struct status {
    error_kind kind = error_kind::none;
    int code = 0;  // the device's result code when kind == device; errno, when known, when kind == local
    std::string message;

    explicit operator bool() const { return kind == error_kind::none; }
};

inline status ok() { return {}; }
status fail(error_kind kind, std::string message);
// A result packet's code as an error ("device answered 2: File too large").
status device_error(uint8_t code);
// A local file or folder that a system call failed on: "cannot WHAT PATH:
// the reason", kind local, the errno in code.
status cannot(const std::string& what, const std::string& path, int err = errno);

// Bytes done and total of a transfer, called after every frame.
using progress_fn = std::function<void(uint64_t done, uint64_t total)>;

}  // namespace kelp
