// Blocking-style socket I/O with a time-out on every wait. The socket itself
// is non-blocking; each call polls for at most timeout_ms before giving up.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "clock.h"  // every deadline of the client is on its monotonic_ms()
#include "status.h"

namespace kelp {

// Resolves host (name or address) and connects once, giving up after
// timeout_ms. A refusal is kind connect_failed with *refused set.
status connect_tcp(const std::string& host, int port, int timeout_ms, int* fd_out, bool* refused = nullptr);
// Writes all n bytes; a single send() when the socket buffer allows.
status send_all(int fd, const uint8_t* p, size_t n, int timeout_ms);
// Reads 1..cap bytes; a closed connection is error_kind::closed.
status recv_some(int fd, uint8_t* p, size_t cap, size_t* got, int timeout_ms);
// Reads exactly n bytes.
status recv_exact(int fd, uint8_t* p, size_t n, int timeout_ms);

}  // namespace kelp
