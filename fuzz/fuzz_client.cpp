// What kelputil reads from a device: the greeting and the login's answer,
// result and size packets, frames, session records, report text and upgrade
// progress. The first byte picks the conversation; the rest is what the
// device says, waiting in the socket before the client reads a byte.
#include <sys/socket.h>
#include <unistd.h>

#include "actions.h"
#include "fuzz_support.h"
#include "transfer.h"

namespace {

// A list may not outgrow what the device could have sent.
template <typename List>
void check_records(const List& list, size_t input, size_t record_len) {
    if (list.size() * record_len > input) invariant_failed("more records than bytes");
}

void converse(kelp::session& s, uint8_t pick, size_t input) {
    switch (pick % 7) {
    case 0: s.login("secret"); break;
    case 1: {
        kelp::bytes report;
        if (kelp::download(s, &report) && report.size() > input) invariant_failed("report longer than the input");
        break;
    }
    case 2: {
        std::vector<kelp::ppp_session> list;
        kelp::converse_list_ppp(s, &list);
        check_records(list, input, ppp_rec_len);
        break;
    }
    case 3: {
        std::vector<kelp::hotspot_session> list;
        kelp::converse_list_hotspot(s, &list);
        check_records(list, input, hotspot_rec_len);
        break;
    }
    case 4:
        kelp::converse_firmware(s, kelp::bytes(100, 0xA5), true, nullptr, [](const std::string& line) {
            if (line.size() > frame_payload_len) invariant_failed("progress line longer than a frame");
        });
        break;
    case 5: kelp::converse_kick_name(s, "alice"); break;
    case 6: s.expect_result(); break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) invariant_failed("no socket pair");
    // Inputs stay far below the socket's buffer, so this never waits.
    if (size > 1 && write(fds[1], data + 1, size - 1) != (ssize_t)(size - 1)) invariant_failed("short write");
    shutdown(fds[1], SHUT_WR);
    kelp::session s;
    s.adopt(fds[0], 50);
    converse(s, data[0], size - 1);
    s.close();
    close(fds[1]);
    return 0;
}
