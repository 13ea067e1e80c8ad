#include "transfer/frames.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/files.h"
#include "frame_codec.h"
#include "protocol.h"

bool send_chunk(int fd, const uint8_t* data, int count) {
    uint8_t frame[frame_len];
    encode_frame(data, (size_t)count, frame);
    return send_all(fd, frame, (int)frame_len) == (int)frame_len;
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

// Frames are taken as many at a time as have arrived (a read per frame cost
// more than the frame), yet never a byte beyond what a frame-at-a-time reader
// takes: a look at the waiting bytes finds the frame that completes the
// transfer or the first bad one, and the read stops there.
static uint8_t batch[44 * frame_len];  // about the socket's 64 KiB buffer

// Of the n bytes at frames (a frame boundary), how many a frame-at-a-time
// reader takes with remaining bytes due; a partial frame at the end is taken.
static size_t bytes_due(const uint8_t* frames, size_t n, uint32_t remaining) {
    for (size_t at = 0; at + frame_len <= n;) {
        size_t length = frame_length(frames + at);
        at += frame_len;
        // Unsigned on purpose: a client that sends more than it declared wraps
        // the count and the transfer only ends with a failed read.
        remaining -= (uint32_t)length;
        if (length == 0 || remaining == 0) return at;
    }
    return n;
}

// Reads the frames due that have arrived after the have bytes already in
// batch; false when the connection fails or ends.
static bool take_frames(int fd, size_t have, uint32_t remaining, size_t* now_have) {
    int seen = peek_waiting(fd, batch + have, (int)(sizeof batch - have));
    if (seen < 1) return false;
    int due = (int)(bytes_due(batch, have + (size_t)seen, remaining) - have);
    if (recv_all(fd, batch + have, due) != due) return false;
    *now_have = have + (size_t)due;
    return true;
}

static bool fail_receive(FILE* f, const char* path) {
    puts("read failed..");
    fclose(f);
    unlink(path);
    return false;
}

bool receive_file(int fd, const char* path, uint32_t size) {
    uint32_t remaining = size;
    FILE* f = fopen(path, "w");
    if (!f) return false;
    size_t have = 0;  // bytes in batch, whole frames first
    while (remaining != 0) {
        if (!take_frames(fd, have, remaining, &have)) return fail_receive(f, path);
        size_t at = 0;
        for (; at + frame_len <= have; at += frame_len) {
            size_t count = frame_length(batch + at);
            if (count == 0) return fail_receive(f, path);
            remaining -= (uint32_t)count;
            if (fwrite(batch + at + 2, 1, count, f) != count) {
                // A full disk does not stop the transfer.
            }
        }
        have -= at;
        memmove(batch, batch + at, have);
    }
    fclose(f);
    return true;
}
