#include "transfer.h"

#include <string.h>

#include <algorithm>
#include <vector>

namespace kelp {

status decode_frame(const uint8_t frame[frame_len], size_t* length) {
    size_t n = frame_length(frame);
    if (n == 0)
        return fail(error_kind::protocol, "bad frame length " + std::to_string(get_le16(frame)) + " from the device");
    *length = n;
    return ok();
}

status receive_body(session& s, uint32_t size, bytes* out, const progress_fn& progress) {
    out->clear();
    // The size comes from the device: grow as data arrives rather than trusting it up front.
    out->reserve(size < upload_max ? size : upload_max);
    uint8_t frame[frame_len];
    while (out->size() < size) {
        status st = s.recv_raw(frame, sizeof frame);
        if (!st) return st;
        size_t n = 0;
        if (!(st = decode_frame(frame, &n))) return st;
        if (n > size - out->size()) return fail(error_kind::protocol, "the device sent more bytes than announced");
        out->insert(out->end(), frame + 2, frame + 2 + n);
        if (progress) progress(out->size(), size);
    }
    return ok();
}

status send_body(session& s, const bytes& body, const progress_fn& progress) {
    // Frames go out many to one send: the device reads a frame at a time
    // whatever arrives, and a send per frame cost more than the frames' bytes.
    constexpr size_t frames_per_send = 44;  // about 64 KiB
    std::vector<uint8_t> batch(frames_per_send * frame_len);
    size_t done = 0;
    while (done < body.size()) {
        size_t filled = 0;
        for (; filled < batch.size() && done < body.size(); filled += frame_len) {
            size_t n = std::min(body.size() - done, frame_payload_len);
            encode_frame(body.data() + done, n, batch.data() + filled);
            done += n;
        }
        status st = s.send_raw(batch.data(), filled);
        if (!st) return st;
        if (progress) progress(done, body.size());
    }
    return ok();
}

status download(session& s, bytes* out, const progress_fn& progress) {
    uint32_t size = 0;
    status st = s.expect_size(&size);
    if (!st) return st;
    return receive_body(s, size, out, progress);
}

status upload(session& s, const bytes& body, const progress_fn& progress) {
    status st = s.expect_ready();
    if (!st) return st;
    return send_body(s, body, progress);
}

status read_progress_line(session& s, std::string* line) {
    uint8_t frame[frame_len];
    status st = s.recv_raw(frame, sizeof frame);
    if (!st) return st;
    size_t n = 0;
    if (!(st = decode_frame(frame, &n))) return st;
    const char* text = (const char*)frame + 2;
    line->assign(text, strnlen(text, n));
    return ok();
}

}  // namespace kelp
