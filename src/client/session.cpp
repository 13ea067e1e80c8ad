#include "session.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "core/protocol.h"
#include "crypto/rc4.h"

namespace kelp {

status fail(error_kind kind, const std::string& message) {
    status s;
    s.kind = kind;
    s.message = message;
    return s;
}

std::string result_text(int code) {
    switch (code) {
    case code_failed: return "action failed";
    case code_ok: return "ok";
    case code_too_large: return "file too large";
    case code_too_small: return "file too small";
    case code_not_supported: return "action not supported (or the device is busy)";
    case code_no_hdd: return "no disk available";
    case code_no_such_user: return "no such user was found";
    default: return "unknown result code " + std::to_string(code);
    }
}

// Waits for the socket, then one recv; -2 on time-out, -1 on error.
static long receive_on(int fd, uint8_t* data, size_t n, int timeout_ms) {
    struct pollfd p = {fd, POLLIN, 0};
    int r = poll(&p, 1, timeout_ms);
    if (r == 0) return -2;
    if (r < 0) return -1;
    ssize_t got = recv(fd, data, n, 0);
    return got < 0 ? -1 : got;
}

namespace {
class plain_transport : public transport {
public:
    explicit plain_transport(session* s) : s_(s) {}
    status send(const uint8_t* data, size_t n) override { return s_->send_raw(data, n); }
    long receive_some(uint8_t* data, size_t n, int timeout_ms) override {
        return receive_on(s_->socket_fd(), data, n, timeout_ms);
    }

private:
    session* s_;
};
}  // namespace

session::~session() { close(); }

void session::close() {
    front_.reset();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

static long long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

// One attempt; errno tells why it failed.
static int connect_once(int fd, const struct sockaddr* addr, socklen_t len, int timeout_ms) {
    fcntl(fd, F_SETFL, O_NONBLOCK);  // so the time-out covers an unreachable host
    int c = ::connect(fd, addr, len);
    if (c != 0 && errno == EINPROGRESS) {
        struct pollfd p = {fd, POLLOUT, 0};
        if (poll(&p, 1, timeout_ms) <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        int err = 0;
        socklen_t elen = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &elen);
        errno = err;
        c = err ? -1 : 0;
    }
    fcntl(fd, F_SETFL, 0);
    return c;
}

status session::connect(const std::string& host, int port) {
    struct addrinfo hints = {}, *found = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0) return fail(error_kind::connect_failed, "cannot resolve " + host + ": " + gai_strerror(rc));
    std::string where = host + " port " + std::to_string(port);
    // The daemon serves one connection per process: between two clients its
    // supervisor is starting the next one, so a refusal is retried briefly.
    long long deadline = now_ms() + std::min(timeout_ms, 3000);
    for (;;) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (connect_once(fd_, found->ai_addr, found->ai_addrlen, timeout_ms) == 0) break;
        int err = errno;
        close();
        if (err == ECONNREFUSED && now_ms() < deadline) {
            usleep(20 * 1000);
            continue;
        }
        freeaddrinfo(found);
        if (err == ETIMEDOUT) return fail(error_kind::timed_out, "no answer from " + where);
        return fail(error_kind::connect_failed, "cannot connect to " + where + ": " + strerror(err));
    }
    freeaddrinfo(found);
    front_ = std::make_unique<plain_transport>(this);
    return {};
}

status session::front_receive(uint8_t* data, size_t n) {
    size_t done = 0;
    while (done < n) {
        long got = front_->receive_some(data + done, n - done, timeout_ms);
        if (got == 0) return fail(error_kind::closed, "the device closed the connection");
        if (got == -2) return fail(error_kind::timed_out, "the device stopped answering");
        if (got < 0) return fail(error_kind::closed, "connection error");
        done += (size_t)got;
    }
    return {};
}

status session::read_greeting() {
    uint8_t g[greeting_len];
    status s = front_receive(g, sizeof g);
    if (!s) return s;
    if (memcmp(g, greeting_text, greeting_text_len + 1) != 0 || g[greeting_marker_offset] != 0xFF ||
        get_le16(g + greeting_tag_offset) != protocol_tag)
        return fail(error_kind::protocol, "not a kelp-v3 utility server greeting");
    challenge_.assign(g + challenge_offset, g + challenge_offset + challenge_len);
    return {};
}

status session::login(const std::string& password) {
    if (challenge_.size() != challenge_len) return fail(error_kind::protocol, "no greeting read");
    uint8_t reply[auth_reply_len] = {};
    put_le16(reply, protocol_tag);
    memcpy(reply + auth_password_offset, password.data(), std::min(password.size(), auth_password_len - 1));
    do_rc4(reply + auth_password_offset, (int)auth_password_len, challenge_.data(), (int)challenge_len);
    status s = front_->send(reply, sizeof reply);
    if (!s) return s;
    uint8_t answer[auth_answer_len];
    s = front_receive(answer, sizeof answer);
    if (s.kind == error_kind::closed)
        return fail(error_kind::protocol, "the device closed the connection during login (protocol mismatch)");
    if (!s) return s;
    if (answer[0] != 0x01 || answer[1] != 0x01 || answer[2] > 1)
        return fail(error_kind::protocol, "unexpected login answer");
    if (answer[2] == 0) return fail(error_kind::refused_password, "wrong password for admin");
    return {};
}

bytes encode_request(const request& r) {
    bytes p(act_pkt_len, 0);
    p[act_req_offset] = (uint8_t)(r.req >> 8);
    p[act_req_offset + 1] = (uint8_t)r.req;
    p[act_mode_offset] = r.mode;
    p[act_action_offset] = r.action;
    p[act_script_offset] = r.script;
    p[act_flags_offset] = r.flags;
    put_le32(p.data() + act_size_offset, r.size);
    return p;
}

status session::send_request(const request& r) {
    bytes p = encode_request(r);
    status s = front_->send(p.data(), p.size());
    front_.reset();  // the rest of the connection is plain bytes on the socket
    return s;
}

status session::send_raw(const uint8_t* data, size_t n) {
    size_t done = 0;
    while (done < n) {
        struct pollfd p = {fd_, POLLOUT, 0};
        if (poll(&p, 1, timeout_ms) <= 0) return fail(error_kind::timed_out, "the device stopped reading");
        ssize_t got = send(fd_, data + done, n - done, MSG_NOSIGNAL);
        if (got <= 0) return fail(error_kind::closed, "the device closed the connection");
        done += (size_t)got;
    }
    return {};
}

status session::receive_exact(uint8_t* data, size_t n) {
    size_t done = 0;
    while (done < n) {
        long got = receive_on(fd_, data + done, n - done, timeout_ms);
        if (got == 0) return fail(error_kind::closed, "the device closed the connection");
        if (got == -2) return fail(error_kind::timed_out, "the device stopped answering");
        if (got < 0) return fail(error_kind::closed, std::string("connection error: ") + strerror(errno));
        done += (size_t)got;
    }
    return {};
}

status session::read_reply(uint8_t packet[7]) {
    status s = receive_exact(packet, reply_packet_len);
    if (s && (packet[0] != 0x03 || packet[1] != 0x01)) return fail(error_kind::protocol, "malformed reply packet");
    return s;
}

static status device_error(int code) {
    status s = fail(error_kind::device, "the device answered: " + result_text(code));
    s.code = code;
    return s;
}

status session::read_size(uint32_t* size) {
    uint8_t p[reply_packet_len];
    status s = read_reply(p);
    if (!s) return s;
    // A refusal comes as a result packet in place of the size packet.
    if (p[2] != code_ok) return device_error(p[2]);
    *size = get_le32(p + 3);
    return {};
}

status session::expect_ready() {
    uint32_t size = 0;
    status s = read_size(&size);
    if (s && size != 0) return fail(error_kind::protocol, "expected the ready packet");
    return s;
}

status session::read_result(int* code) {
    uint8_t p[reply_packet_len];
    status s = read_reply(p);
    if (s) *code = p[2];
    return s;
}

status session::expect_ok() {
    int code = -1;
    status s = read_result(&code);
    if (!s) return s;
    return code == code_ok ? status{} : device_error(code);
}

status session::receive_frame(bytes* payload) {
    uint8_t f[frame_len];
    status s = receive_exact(f, sizeof f);
    if (!s) return s;
    uint16_t length = get_le16(f);
    if (length == 0 || length > frame_payload_len) return fail(error_kind::protocol, "bad frame length");
    payload->assign(f + 2, f + 2 + length);
    return {};
}

status session::send_frame(const uint8_t* data, size_t n) {
    uint8_t f[frame_len] = {};
    put_le16(f, (uint16_t)n);
    memcpy(f + 2, data, n);
    return send_raw(f, sizeof f);
}

status session::download(uint32_t size, bytes* out, const progress_fn& progress) {
    out->clear();
    out->reserve(size);
    bytes payload;
    while (out->size() < size) {
        status s = receive_frame(&payload);
        if (!s) return s;
        if (out->size() + payload.size() > size) return fail(error_kind::protocol, "more data than announced");
        out->insert(out->end(), payload.begin(), payload.end());
        if (progress) progress(out->size(), size);
    }
    return {};
}

status session::upload(const bytes& data, const progress_fn& progress) {
    for (size_t done = 0; done < data.size();) {
        size_t n = std::min(frame_payload_len, data.size() - done);
        status s = send_frame(data.data() + done, n);
        if (!s) return s;
        done += n;
        if (progress) progress(done, data.size());
    }
    return {};
}

}  // namespace kelp
