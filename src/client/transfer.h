// File bodies in 1462-byte frames (le16 length + 1460 payload bytes), in
// both directions, after the request.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "frame_codec.h"
#include "protocol.h"
#include "session.h"
#include "status.h"

namespace kelp {

// The frame's length, checked to be 1..1460 (frames are encoded with the
// shared encode_frame).
status decode_frame(const uint8_t frame[frame_len], size_t* length);

// Receives `size` bytes of frames into *out.
status receive_body(session& s, uint32_t size, bytes* out, const progress_fn& progress = nullptr);
// Sends the body as full frames with a short one only at the end; nothing for 0 bytes.
status send_body(session& s, const bytes& body, const progress_fn& progress = nullptr);

// Size packet then frames (the result that follows is left to the caller).
status download(session& s, bytes* out, const progress_fn& progress = nullptr);
// Ready packet then frames.
status upload(session& s, const bytes& body, const progress_fn& progress = nullptr);

// One firmware progress frame: a line and its NUL.
status read_progress_line(session& s, std::string* line);

}  // namespace kelp
