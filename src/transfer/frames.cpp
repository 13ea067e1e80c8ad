#include "transfer/frames.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/files.h"
#include "core/protocol.h"
#include "core/state.h"

bool send_chunk(int fd, const uint8_t* data, int count) {
    uint8_t frame[frame_len];
    put_le16(frame, (uint16_t)count);
    memcpy(frame + 2, data, (size_t)count);
    // The tail carries no meaning; clearing it keeps stack bytes off the wire.
    memset(frame + 2 + count, 0, frame_payload_len - (size_t)count);
    return send_all(fd, frame, (int)frame_len) == (int)frame_len;
}

bool receive_chunk(int fd, uint8_t* buffer, int* count) {
    uint8_t frame[frame_len];
    if (recv_all(fd, frame, (int)frame_len) != (int)frame_len) return false;
    int length = get_le16(frame);
    // A frame cannot carry more than its payload; such a frame is a failed read.
    if (length == 0 || length > (int)frame_payload_len) return false;
    memcpy(buffer, frame + 2, (size_t)length);
    *count = length;
    return true;
}

bool send_file(int fd, const char* path) {
    uint32_t remaining = file_size(path);
    FILE* f = fopen(path, "r");
    if (!f) return false;
    uint8_t data[frame_payload_len];
    while (remaining != 0) {
        // Sizes of 2 GiB and more would be negative here; they take full frames
        // instead of overrunning the frame buffer.
        int32_t signed_remaining = (int32_t)remaining;
        size_t want = signed_remaining > 0 && signed_remaining < (int32_t)frame_payload_len + 1
                          ? (size_t)signed_remaining
                          : frame_payload_len;
        size_t got = fread(data, 1, want, f);
        remaining -= (uint32_t)got;
        if (got == 0) break;  // the file shrank: the client gets fewer bytes
        if (!send_chunk(fd, data, (int)got)) {
            fclose(f);
            return false;
        }
    }
    fclose(f);
    return true;
}

bool receive_file(int fd, const char* path) {
    uint32_t remaining = act_pkt.size;
    FILE* f = fopen(path, "w");
    if (!f) return false;
    uint8_t data[frame_payload_len];
    while (remaining != 0) {
        int count;
        if (!receive_chunk(fd, data, &count)) {
            puts("read failed..");
            fclose(f);
            unlink(path);
            return false;
        }
        // Unsigned on purpose: a client that sends more than it declared wraps
        // the count and the transfer only ends with a failed read.
        remaining -= (uint32_t)count;
        if (fwrite(data, 1, (size_t)count, f) != (size_t)count) {
            // A full disk does not stop the transfer.
        }
    }
    fclose(f);
    return true;
}
