// TLS for the front of the connection: the greeting, the login and the
// request travel inside TLS; every later byte is plain on the socket.
#pragma once

#include <string>

#include "session.h"

namespace kelp {

// Runs the TLS handshake on the connected session and routes its front
// through TLS. pin_sha256: hex SHA-256 of the device certificate, or empty
// to accept any.
status start_tls(session& s, const std::string& pin_sha256);

}  // namespace kelp
