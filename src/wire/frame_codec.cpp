#include "frame_codec.h"

#include <string.h>

void encode_frame(const uint8_t* payload, size_t n, uint8_t out[frame_len]) {
    put_le16(out, (uint16_t)n);
    memcpy(out + 2, payload, n);
    memset(out + 2 + n, 0, frame_payload_len - n);
}

size_t frame_length(const uint8_t frame[frame_len]) {
    size_t n = get_le16(frame);
    return n <= frame_payload_len ? n : 0;
}
