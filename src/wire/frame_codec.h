// One transfer frame, 1462 bytes: le16 length, then the payload. The one
// encoder and decoder, shared by the daemon and the client.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "protocol.h"

// n is 1..1460; the unused payload is cleared, so no stale bytes travel.
void encode_frame(const uint8_t* payload, size_t n, uint8_t out[frame_len]);
// The frame's length when it is 1..1460, else 0: a frame cannot carry more
// than its payload, and a length of 0 is never sent.
size_t frame_length(const uint8_t frame[frame_len]);
