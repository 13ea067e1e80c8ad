#pragma once

#include <stdint.h>

// Binds (waiting while the port is busy) and listens with a backlog of 1.
// address is in network order, port in host order. Returns the descriptor,
// -1 when a socket buffer size cannot be set; other failures end the process.
int open_listener(uint32_t address, int port);
