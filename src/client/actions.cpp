#include "actions.h"

#include <arpa/inet.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "core/protocol.h"
#include "tls_transport.h"

namespace kelp {

uint8_t script_by_name(const std::string& name) {
    if (name == "cbq") return script_cbq;
    if (name == "fw") return script_fw;
    if (name == "nat") return script_nat;
    if (name == "dhcp") return script_dhcp;
    return 0;
}

status open_session(session& s, const target& t, const request& r) {
    s.timeout_ms = t.timeout_ms;
    status st = s.connect(t.host, t.port);
    if (!st) return st;
    if (t.tls) {
        st = start_tls(s, t.pin_sha256);
        if (!st) return st;
    }
    if (!(st = s.read_greeting())) return st;
    if (!(st = s.login(t.password))) return st;
    return s.send_request(r);
}

static request make(uint8_t action, uint8_t flags, uint8_t script = 0, uint32_t size = 0) {
    request r;
    r.action = action;
    r.flags = flags;
    r.script = script;
    r.size = size;
    return r;
}

status trigger(const target& t, uint8_t flags) {
    session s;
    status st = open_session(s, t, make(action_nothing, flags));
    if (st) st = s.expect_ready();
    return st ? s.expect_ok() : st;
}

static status download_action(const target& t, const request& r, bytes* body, const progress_fn& p) {
    session s;
    status st = open_session(s, t, r);
    uint32_t size = 0;
    if (st) st = s.read_size(&size);
    if (st) st = s.download(size, body, p);
    if (st) st = s.expect_ok();
    return st;
}

static status upload_action(const target& t, const request& r, const bytes& body, const progress_fn& p) {
    session s;
    status st = open_session(s, t, r);
    if (st) st = s.expect_ready();
    if (st) st = s.upload(body, p);
    if (st) st = s.expect_ok();
    return st;
}

status backup_config(const target& t, uint8_t flags, bytes* bundle, const progress_fn& p) {
    return download_action(t, make(action_send_config, flags), bundle, p);
}

status restore_config(const target& t, uint8_t flags, const bytes& bundle, const progress_fn& p) {
    if (bundle.size() < bundle_min_upload) return fail(error_kind::local, "a bundle is at least 1024 bytes");
    if (bundle.size() > upload_max) return fail(error_kind::local, "a bundle is at most 524288 bytes");
    status st = upload_action(t, make(action_receive_config, flags, 0, (uint32_t)bundle.size()), bundle, p);
    if (st.kind == error_kind::device && st.code == code_failed)
        st.message = "the device rejected the bundle (damaged, or not a configuration bundle)";
    return st;
}

status get_script(const target& t, uint8_t script, uint8_t flags, bytes* body, const progress_fn& p) {
    status st = download_action(t, make(action_send_script, flags, script), body, p);
    if (st.kind == error_kind::closed && body->empty()) st.message = "the device has no such script";
    return st;
}

status put_script(const target& t, uint8_t script, uint8_t flags, const bytes& body, const progress_fn& p) {
    if (body.empty()) return fail(error_kind::local, "an empty script cannot be uploaded");
    if (body.size() > upload_max) return fail(error_kind::local, "a script is at most 524288 bytes");
    return upload_action(t, make(action_receive_script, flags, script, (uint32_t)body.size()), body, p);
}

status fetch_report(const target& t, uint8_t action, uint8_t flags, bytes* text) {
    return download_action(t, make(action, flags), text, nullptr);
}

template <size_t record_len, typename T, typename Decode>
static status list_action(const target& t, uint8_t action, uint8_t flags, std::vector<T>* out, Decode decode) {
    session s;
    status st = open_session(s, t, make(action, flags));
    if (st) st = s.expect_ready();
    uint8_t record[record_len];
    while (st) {
        st = s.receive_exact(record, sizeof record);
        if (!st || is_end_record(record)) break;
        out->push_back(decode(record));
    }
    return st ? s.expect_ok() : st;
}

status list_ppp(const target& t, uint8_t flags, std::vector<ppp_session>* out) {
    return list_action<ppp_rec_len>(t, action_ppp_list, flags, out, decode_ppp);
}

status list_hotspot(const target& t, uint8_t flags, std::vector<hotspot_session>* out) {
    return list_action<hotspot_rec_len>(t, action_hotspot_list, flags, out, decode_hotspot);
}

static status kick(const target& t, uint8_t action, uint8_t flags, const bytes& payload) {
    session s;
    status st = open_session(s, t, make(action, flags));
    if (st) st = s.expect_ready();
    // The device reads the whole request in one read: one write.
    if (st) st = s.send_raw(payload.data(), payload.size());
    return st ? s.expect_ok() : st;
}

static status kick_name(const target& t, uint8_t action, uint8_t flags, const std::string& name) {
    if (name.empty() || name.size() > (size_t)kick_name_max)
        return fail(error_kind::local, "a user name has 1 to 255 characters");
    bytes p(4 + name.size());
    put_le32(p.data(), (uint32_t)name.size());
    memcpy(p.data() + 4, name.data(), name.size());
    return kick(t, action, flags, p);
}

status kick_ppp_user(const target& t, uint8_t flags, const std::string& name) {
    return kick_name(t, action_kick_ppp_user, flags, name);
}

status kick_hotspot_user(const target& t, uint8_t flags, const std::string& name) {
    return kick_name(t, action_kick_hotspot_user, flags, name);
}

status kick_hotspot_ip(const target& t, uint8_t flags, const std::string& dotted) {
    struct in_addr a;
    if (inet_pton(AF_INET, dotted.c_str(), &a) != 1) return fail(error_kind::local, "not an IPv4 address: " + dotted);
    bytes p(4);
    memcpy(p.data(), &a.s_addr, 4);  // network order, first number first
    return kick(t, action_kick_hotspot_ip, flags, p);
}

status upload_firmware(const target& t, const bytes& image, bool start_upgrade, const progress_fn& p,
                       const line_fn& on_line) {
    session s;
    status st = open_session(s, t, make(action_firmware, start_upgrade ? flag_apply : 0, 0, (uint32_t)image.size()));
    if (st) st = s.expect_ready();
    if (st) st = s.upload(image, p);
    if (st) st = s.expect_ok();
    if (!st || !start_upgrade) return st;
    s.timeout_ms = 10 * 60 * 1000;  // flashing takes its time between lines
    bytes payload;
    for (;;) {
        if (!(st = s.receive_frame(&payload))) return st;
        std::string line((const char*)payload.data(), strnlen((const char*)payload.data(), payload.size()));
        if (on_line) on_line(line);
        if (line == "done") break;
    }
    return s.expect_ok();
}

static double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

status throughput(const target& t, bool receive, double seconds, uint8_t flags, throughput_result* out,
                  const tick_fn& each_second) {
    session s;
    status st = open_session(s, t, make(receive ? action_throughput_rx : action_throughput_tx, flags));
    if (st) st = s.expect_ready();
    if (!st) return st;
    static uint8_t block[throughput_block];
    double start = now_s(), next_tick = start + 1;
    int fd = s.socket_fd();
    for (;;) {
        double now = now_s();
        if (now - start >= seconds) break;
        if (each_second && now >= next_tick) {
            each_second(now - start, out->bytes);
            next_tick += 1;
        }
        struct pollfd pfd = {fd, (short)(receive ? POLLIN : POLLOUT), 0};
        if (poll(&pfd, 1, 200) <= 0) continue;
        ssize_t n = receive ? recv(fd, block, sizeof block, 0) : send(fd, block, sizeof block, MSG_NOSIGNAL);
        if (n <= 0) break;  // the device ended the test
        out->bytes += (uint64_t)n;
    }
    out->seconds = now_s() - start;
    if (!receive) shutdown(fd, SHUT_WR);
    s.close();
    return {};
}

}  // namespace kelp
