// The TLS server of port 857. Only tls.cpp knows which TLS library serves it.
#pragma once

// Creates the process's server context; returns 1, or 0 on failure.
int tls_context_new();
// Runs the server handshake on the accepted socket: 0 when complete, -1 on
// failure or when application data arrives before completion.
int tls_server_handshake(int fd);
// Reads one record: its application bytes (>0) with *data pointing into the
// adapter's own buffer, 0 for a record without application data, -1 on error.
int tls_read(const unsigned char** data);
// Writes length bytes as application data; the count written or -1.
int tls_write(const void* buffer, int length);
