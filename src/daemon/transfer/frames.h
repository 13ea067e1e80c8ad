// File bodies travel as 1462-byte frames: le16 length + 1460 payload bytes.
#pragma once

#include <stdint.h>

bool send_chunk(int fd, const uint8_t* data, int count);
bool send_file(int fd, const char* path);
// Receives size bytes into path; the target is removed on failure: a short
// receive, a length of 0 or a length above 1460.
bool receive_file(int fd, const char* path, uint32_t size);
