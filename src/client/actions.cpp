#include "actions.h"

#include <unistd.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>

#include "bundle.h"
#include "clock.h"
#include "transfer.h"

namespace kelp {

namespace {

// A list longer than this is a device gone wrong, not a busy router.
constexpr size_t max_records = 100000;

request make_request(uint8_t action, uint8_t flags, uint8_t script = 0, uint32_t size = 0) {
    request r;
    r.action = action;
    r.script = script;
    r.flags = flags;
    r.size = size;
    return r;
}

status check_upload_size(size_t n) {
    if (n > upload_max)
        return fail(error_kind::local, "file too large: at most " + std::to_string(upload_max) + " bytes");
    return ok();
}

// Size packet, frames, result.
status download_with_result(session& s, bytes* out, const progress_fn& p) {
    status st = download(s, out, p);
    if (!st) return st;
    return s.expect_result();
}

template <typename Record, typename Decode>
status read_records(session& s, size_t rec_len, Decode decode, std::vector<Record>* out) {
    out->clear();
    status st = s.expect_ready();
    if (!st) return st;
    uint8_t rec[ppp_rec_len > hotspot_rec_len ? ppp_rec_len : hotspot_rec_len];
    for (;;) {
        if (!(st = s.recv_raw(rec, rec_len))) return st;
        if (is_end_record(rec)) break;
        if (out->size() >= max_records) return fail(error_kind::protocol, "the device's list does not end");
        out->push_back(decode(rec));
    }
    return s.expect_result();
}

double since(double start) { return monotonic_seconds() - start; }

}  // namespace

const char* const no_such_script = "the device has no such script";

bool is_missing_script(const status& s) { return s.kind == error_kind::closed && s.message == no_such_script; }

uint8_t script_by_name(const std::string& name) {
    const script_entry* script = script_by_word(name.c_str());
    return script ? script->number : 0;
}

status trigger(const target& t, uint8_t flags) {
    session s;
    status st = open_session(s, t, make_request(action_nothing, flags));
    if (st) st = s.expect_ready();
    if (st) st = s.expect_result();
    return st;
}

status backup_config(const target& t, uint8_t flags, bytes* bundle, const progress_fn& p) {
    session s;
    status st = open_session(s, t, make_request(action_send_config, flags));
    if (!st) return st;
    return download_with_result(s, bundle, p);
}

status restore_config(const target& t, uint8_t flags, const bytes& bundle, const progress_fn& p) {
    // Nothing travels that the device would refuse.
    status st = check_bundle_for_device(bundle);
    if (!st) return st;
    session s;
    if (!(st = open_session(s, t, make_request(action_receive_config, flags, 0, (uint32_t)bundle.size())))) return st;
    if (!(st = upload(s, bundle, p))) return st;
    st = s.expect_result();
    if (st.kind == error_kind::device && st.code == code_failed) st.message = "the device rejected the bundle";
    return st;
}

status get_script(const target& t, uint8_t script, uint8_t flags, bytes* body, const progress_fn& p) {
    // The daemon hangs up without a word on these numbers.
    if (script == 0 || script > script_dhcp) return fail(error_kind::local, "unknown script number");
    session s;
    status st = open_session(s, t, make_request(action_send_script, flags, script));
    if (!st) return st;
    uint32_t size = 0;
    if (!(st = s.expect_size(&size))) return st;
    if (!(st = receive_body(s, size, body, p))) return st;
    st = s.expect_result();
    // A missing script is announced as 0 bytes and then the connection closes.
    if (size == 0 && st.kind == error_kind::closed) return fail(error_kind::closed, no_such_script);
    return st;
}

status put_script(const target& t, uint8_t script, uint8_t flags, const bytes& body, const progress_fn& p) {
    if (script == 0 || script > script_dhcp) return fail(error_kind::local, "unknown script number");
    status st = check_upload_size(body.size());
    if (!st) return st;
    session s;
    if (!(st = open_session(s, t, make_request(action_receive_script, flags, script, (uint32_t)body.size()))))
        return st;
    if (!(st = upload(s, body, p))) return st;
    return s.expect_result();
}

status fetch_report(const target& t, uint8_t action, uint8_t flags, bytes* text) {
    if (action != action_sysinfo && action != action_core_sysinfo && action != action_kernlog)
        return fail(error_kind::local, "not a report action");
    session s;
    status st = open_session(s, t, make_request(action, flags));
    if (!st) return st;
    return download_with_result(s, text, nullptr);
}

status converse_list_ppp(session& s, std::vector<ppp_session>* out) {
    return read_records<ppp_session>(s, ppp_rec_len, decode_ppp, out);
}

status converse_list_hotspot(session& s, std::vector<hotspot_session>* out) {
    return read_records<hotspot_session>(s, hotspot_rec_len, decode_hotspot, out);
}

status list_ppp(const target& t, uint8_t flags, std::vector<ppp_session>* out) {
    session s;
    status st = open_session(s, t, make_request(action_ppp_list, flags));
    if (!st) return st;
    return converse_list_ppp(s, out);
}

status list_hotspot(const target& t, uint8_t flags, std::vector<hotspot_session>* out) {
    session s;
    status st = open_session(s, t, make_request(action_hotspot_list, flags));
    if (!st) return st;
    return converse_list_hotspot(s, out);
}

status converse_kick_name(session& s, const std::string& name) {
    status st = s.expect_ready();
    if (!st) return st;
    // One write: the daemon reads the length and the name together.
    bytes msg(4 + name.size());
    put_le32(msg.data(), (uint32_t)name.size());
    memcpy(msg.data() + 4, name.data(), name.size());
    if (!(st = s.send_raw(msg.data(), msg.size()))) return st;
    return s.expect_result();
}

static status kick_name(const target& t, uint8_t action, uint8_t flags, const std::string& name) {
    if (name.empty() || name.size() > (size_t)kick_name_max)
        return fail(error_kind::local, "the name must be 1 to " + std::to_string(kick_name_max) + " bytes");
    session s;
    status st = open_session(s, t, make_request(action, flags));
    if (!st) return st;
    return converse_kick_name(s, name);
}

status kick_ppp_user(const target& t, uint8_t flags, const std::string& name) {
    return kick_name(t, action_kick_ppp_user, flags, name);
}

status kick_hotspot_user(const target& t, uint8_t flags, const std::string& name) {
    return kick_name(t, action_kick_hotspot_user, flags, name);
}

status kick_hotspot_ip(const target& t, uint8_t flags, const std::string& dotted) {
    in_addr a{};
    if (inet_pton(AF_INET, dotted.c_str(), &a) != 1) return fail(error_kind::local, "not an IPv4 address: " + dotted);
    session s;
    status st = open_session(s, t, make_request(action_kick_hotspot_ip, flags));
    if (!st) return st;
    if (!(st = s.expect_ready())) return st;
    // in_addr already holds network order.
    if (!(st = s.send_raw((const uint8_t*)&a.s_addr, 4))) return st;
    return s.expect_result();
}

status converse_firmware(session& s, const bytes& image, bool start_upgrade, const progress_fn& p,
                         const line_fn& on_line) {
    status st = upload(s, image, p);
    if (!st) return st;
    if (!(st = s.expect_result()) || !start_upgrade) return st;
    for (;;) {
        std::string line;
        if (!(st = read_progress_line(s, &line))) return st;
        if (on_line) on_line(line);
        if (line == "done") break;
    }
    return s.expect_result();
}

status upload_firmware(const target& t, const bytes& image, bool start_upgrade, const progress_fn& p,
                       const line_fn& on_line, const line_fn& on_phase) {
    // Firmware is bounded by the device's free space, not by the script limit;
    // the device reads sizes of 2 GiB and more as negative and refuses them.
    if (image.size() >= 0x80000000u)
        return fail(error_kind::local, "the image is 2 GiB or larger; the device takes smaller images only");
    session s;
    uint8_t flags = start_upgrade ? 0x01 : 0x00;
    status st = open_session(s, t, make_request(action_firmware, flags, 0, (uint32_t)image.size()));
    if (!st) return st;
    // The device writes as many bytes as the image to its /tmp before it
    // answers: with a large image that is a noticeable pause.
    if (on_phase) on_phase("the device is checking that " + std::to_string(image.size()) + " bytes fit");
    return converse_firmware(s, image, start_upgrade, p, on_line);
}

// Sending waits in the kernel for room, at most 50 ms at a time: failing,
// polling and trying again cost a third more CPU per byte, and on a busy
// machine the CPU is the limit. Sends of 1 MiB keep the socket's buffer full
// between the waits, so the device finds data at every read.
constexpr int send_wait_us = 50000;
constexpr size_t send_chunk = 1 << 20;

static status prepare_sending(int fd) {
    timeval wait{0, send_wait_us};
    if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) < 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) < 0)
        return fail(error_kind::local, std::string("preparing the socket for the test: ") + strerror(errno));
    return ok();
}

// Set once connected: set before, the smaller buffer also shrinks the window
// scale agreed in the handshake, and on loopback the test then ran at half
// the speed.
static status fix_socket_buffers(int fd, int window) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof window) < 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &window, sizeof window) < 0)
        return fail(error_kind::local, std::string("setting the socket buffers: ") + strerror(errno));
    return ok();
}

status throughput(const target& t, bool receive, double seconds, uint8_t flags, throughput_result* out,
                  const tick_fn& each_second, int window) {
    *out = throughput_result{};
    if (!(seconds > 0)) return fail(error_kind::local, "the test needs a positive duration");
    session s;
    uint8_t action = receive ? action_throughput_rx : action_throughput_tx;
    status st = open_session(s, t, make_request(action, flags));
    if (!st) return st;
    if (!(st = s.expect_ready())) return st;
    if (window > 0 && !(st = fix_socket_buffers(s.fd(), window))) return st;
    if (!receive && !(st = prepare_sending(s.fd()))) return st;

    // Contents don't matter: zeros. Received in the device's block size.
    static uint8_t block[std::max(send_chunk, throughput_block)];
    const size_t chunk = receive ? throughput_block : send_chunk;
    double start = monotonic_seconds();
    double next_tick = 1;
    double idle = 0;  // seconds without progress, against the time-out
    double last_progress = 0;
    for (;;) {
        double now = since(start);
        if (each_second && now >= next_tick && next_tick < seconds) {
            each_second(next_tick, out->bytes);
            next_tick += 1;
        }
        if (now >= seconds) break;
        // Receive until the socket would block, and wait only then: a wait
        // before every call costs as much as the call itself on a fast link.
        // A send waits by itself (prepare_sending), one per look at the clock.
        bool would_block = false, ended = false;
        for (int calls = 0; calls < (receive ? 64 : 1) && !would_block && !ended; calls++) {
            ssize_t n = receive ? recv(s.fd(), block, chunk, MSG_DONTWAIT) : send(s.fd(), block, chunk, MSG_NOSIGNAL);
            if (n > 0) {
                out->bytes += (uint64_t)n;
                last_progress = since(start);
            } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                would_block = true;
            } else {
                ended = true;  // the device ended the test early: report what got through
            }
        }
        if (ended) break;
        if (would_block && receive) {
            int wait_ms = (int)((seconds - since(start)) * 1000) + 1;
            if (wait_ms > 100) wait_ms = 100;
            pollfd pf{s.fd(), POLLIN, 0};
            if (poll(&pf, 1, wait_ms) < 0 && errno != EINTR)
                return fail(error_kind::closed, "poll failed during the test");
        }
        idle = since(start) - last_progress;
        if (idle * 1000 > t.timeout_ms) return fail(error_kind::timed_out, "no data moved during the test");
    }
    out->seconds = since(start);
    if (each_second) each_second(out->seconds, out->bytes);  // the last interval, however short
    if (!receive) {
        // Our side is done; the device closes once it has read everything.
        s.shutdown_send();
        uint8_t sink[4096];
        size_t got = 0;
        while ((st = s.recv_some_raw(sink, sizeof sink, &got))) {}
        if (st.kind != error_kind::closed) return st;
    }
    return ok();
}

}  // namespace kelp
