#include "session.h"

#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net.h"
#include "rc4.h"

namespace kelp {

status plain_transport::send(const uint8_t* p, size_t n) { return send_all(fd_, p, n, timeout_ms_); }

status plain_transport::recv_some(uint8_t* p, size_t cap, size_t* got, int wait_ms) {
    return kelp::recv_some(fd_, p, cap, got, wait_ms);
}

status parse_greeting(const uint8_t g[greeting_len], uint8_t challenge[challenge_len]) {
    if (memcmp(g, greeting_text, greeting_text_len) != 0)
        return fail(error_kind::protocol, "not a kelp-v3 utility server (unexpected greeting)");
    if (g[greeting_text_len] != 0x00 || g[greeting_marker_offset] != 0xFF)
        return fail(error_kind::protocol, "malformed greeting");
    if (get_le16(g + greeting_tag_offset) != protocol_tag)
        return fail(error_kind::protocol, "unsupported protocol tag in the greeting");
    memcpy(challenge, g + challenge_offset, challenge_len);
    return ok();
}

void encode_auth_reply(const uint8_t challenge[challenge_len], const std::string& password,
                       uint8_t out[auth_reply_len]) {
    put_le16(out, protocol_tag);
    uint8_t* pw = out + auth_password_offset;
    memset(pw, 0, auth_password_len);
    // The daemon keeps 31 characters; the 32nd byte stays the terminator.
    size_t n = password.size() < auth_password_len - 1 ? password.size() : auth_password_len - 1;
    memcpy(pw, password.data(), n);
    do_rc4(pw, (int)auth_password_len, challenge, (int)challenge_len);
}

void encode_request(const request& r, uint8_t out[act_pkt_len]) {
    memset(out, 0, act_pkt_len);
    out[act_action_offset] = r.action;
    out[act_script_offset] = r.script;
    out[act_flags_offset] = r.flags;
    put_le32(out + act_size_offset, r.size);
}

status parse_reply(const uint8_t p[reply_packet_len], reply* out) {
    if (p[0] != 0x03 || p[1] != 0x01) return fail(error_kind::protocol, "malformed reply packet from the device");
    out->code = p[2];
    out->size = get_le32(p + 3);
    return ok();
}

session::~session() { close(); }

status session::connect(const std::string& host, int port, int timeout_ms) {
    close();
    int fd = -1;
    status s = connect_tcp(host, port, timeout_ms, &fd);
    if (s) adopt(fd, timeout_ms);
    return s;
}

void session::adopt(int fd, int timeout_ms) {
    close();
    fd_ = fd;
    timeout_ms_ = timeout_ms;
    front_ = std::make_unique<plain_transport>(fd, timeout_ms);
}

void session::close() {
    if (fd_ >= 0 && trail_)
        trail_("closed; " + std::to_string(sent_) + " bytes sent and " + std::to_string(received_) +
               " received after the request");
    sent_ = received_ = 0;
    front_.reset();  // before the socket: a TLS front may still refer to it
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

int session::wait_ms() const {
    if (deadline_ms_ == 0) return timeout_ms_;
    long long left = deadline_ms_ - monotonic_ms();
    if (left <= 0) return 0;
    return left < timeout_ms_ ? (int)left : timeout_ms_;
}

static status out_of_time() { return fail(error_kind::timed_out, "the time allowed for this device ran out"); }

status session::front_recv_exact(uint8_t* p, size_t n, int wait) {
    if (!front_) return fail(error_kind::local, "not connected");
    while (n > 0) {
        size_t got = 0;
        status s = front_->recv_some(p, n, &got, wait);
        if (!s) return s;
        p += got;
        n -= got;
    }
    return ok();
}

status session::read_greeting(uint8_t challenge[challenge_len], int max_wait_ms) {
    int wait = wait_ms();
    if (max_wait_ms > 0 && max_wait_ms < wait) wait = max_wait_ms;
    if (wait <= 0) return out_of_time();
    uint8_t g[greeting_len];
    status s = front_recv_exact(g, sizeof g, wait);
    if (!s) {
        if (s.kind == error_kind::closed) s.message = "the device closed the connection before its greeting";
        return s;
    }
    return parse_greeting(g, challenge);
}

status session::authenticate(const uint8_t challenge[challenge_len], const std::string& password) {
    uint8_t auth[auth_reply_len];
    encode_auth_reply(challenge, password, auth);
    status s = front_->send(auth, sizeof auth);
    if (!s) return s;
    uint8_t answer[auth_answer_len];
    int wait = wait_ms();
    if (wait <= 0) return out_of_time();
    s = front_recv_exact(answer, sizeof answer, wait);
    if (s.kind == error_kind::closed)
        return fail(error_kind::protocol, "the device closed the connection without answering the login");
    if (!s) return s;
    if (answer[0] != 0x01 || answer[1] != 0x01 || answer[2] > 1)
        return fail(error_kind::protocol, "malformed login answer from the device");
    if (answer[2] == 0) return fail(error_kind::refused_password, "the device refused the password");
    return ok();
}

status session::login(const std::string& password) {
    uint8_t challenge[challenge_len];
    status s = read_greeting(challenge);
    return s ? authenticate(challenge, password) : s;
}

status session::send_request(const request& r) {
    if (!front_) return fail(error_kind::local, "not connected");
    uint8_t pkt[act_pkt_len];
    encode_request(r, pkt);
    return front_->send(pkt, sizeof pkt);
}

status session::send_raw(const uint8_t* p, size_t n) {
    int wait = wait_ms();
    status s = wait > 0 ? send_all(fd_, p, n, wait) : out_of_time();
    if (s) sent_ += n;
    return s;
}
status session::recv_raw(uint8_t* p, size_t n) {
    int wait = wait_ms();
    status s = wait > 0 ? recv_exact(fd_, p, n, wait) : out_of_time();
    if (s) received_ += n;
    return s;
}
status session::recv_some_raw(uint8_t* p, size_t cap, size_t* got) {
    int wait = wait_ms();
    status s = wait > 0 ? kelp::recv_some(fd_, p, cap, got, wait) : out_of_time();
    if (s) received_ += *got;
    return s;
}
void session::shutdown_send() {
    if (fd_ >= 0) shutdown(fd_, SHUT_WR);
}

status session::read_reply(reply* out) {
    uint8_t p[reply_packet_len];
    status s = recv_raw(p, sizeof p);
    if (!s) return s;
    return parse_reply(p, out);
}

status session::expect_result() {
    reply r;
    status s = read_reply(&r);
    if (!s) return s;
    return r.code == code_ok ? ok() : device_error(r.code);
}

status session::expect_ready() {
    uint32_t size = 0;
    status s = expect_size(&size);
    if (s && size != 0) return fail(error_kind::protocol, "expected the ready packet, got a size packet");
    return s;
}

status session::expect_size(uint32_t* size) {
    reply r;
    status s = read_reply(&r);
    if (!s) return s;
    if (r.code != code_ok) return device_error(r.code);
    *size = r.size;
    return ok();
}

}  // namespace kelp
