#include "harness.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "rc4.h"

std::string show(const bytes& b) {
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size(); i++) s.append(buf, (size_t)snprintf(buf, sizeof buf, i ? " %02X" : "%02X", b[i]));
    return s;
}

bytes frame(const bytes& payload) {
    return bytes{(uint8_t)payload.size(), (uint8_t)(payload.size() >> 8)} + payload + bytes(1460 - payload.size(), 0);
}

bytes frames(const bytes& body) {
    bytes out;
    for (size_t at = 0; at < body.size(); at += 1460)
        out = out + frame(bytes(body.begin() + at, body.begin() + std::min(body.size(), at + 1460)));
    return out;
}

bytes auth_reply(const bytes& greeting, const std::string& pw, uint16_t tag) {
    bytes reply(34, 0);
    reply[0] = (uint8_t)tag;
    reply[1] = (uint8_t)(tag >> 8);
    memcpy(reply.data() + 2, pw.data(), std::min<size_t>(pw.size(), 32));
    if (greeting.size() == 35) do_rc4(reply.data() + 2, 32, greeting.data() + 25, 8);
    return reply;
}

bytes act_pkt(int action, int script, int flags, uint32_t size) {
    bytes p(42, 0);
    p[3] = (uint8_t)action;
    p[4] = (uint8_t)script;
    p[5] = (uint8_t)flags;
    for (int i = 0; i < 4; i++) p[38 + i] = (uint8_t)(size >> (8 * i));
    return p;
}

std::vector<std::string> emulator_prefix() { return router::split_list(KELP_EMULATOR); }

bytes kick_request(const std::string& name) {
    return bytes{(uint8_t)name.size(), (uint8_t)(name.size() >> 8), 0, 0} + text(name);
}

double now_s() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

void raw_client::close_now() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void raw_client::shutdown_write() { shutdown(fd_, SHUT_WR); }

bool raw_client::connect_to(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return connect(fd_, (struct sockaddr*)&a, sizeof a) == 0;
}

bool raw_client::send_bytes(const bytes& b) {
    for (size_t done = 0; done < b.size();) {
        ssize_t n = send(fd_, b.data() + done, b.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += (size_t)n;
    }
    return true;
}

bytes raw_client::receive(size_t n, int timeout_ms) {
    bytes out;
    double deadline = now_s() + timeout_ms / 1000.0;
    while (out.size() < n) {
        int left = (int)((deadline - now_s()) * 1000);
        struct pollfd p = {fd_, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0) break;
        uint8_t buf[65536];
        ssize_t got = recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
        reset_ = got < 0 && errno == ECONNRESET;
        if (got <= 0) break;
        out.insert(out.end(), buf, buf + got);
    }
    return out;
}

bool raw_client::closed_by_peer(int timeout_ms) {
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    uint8_t b;
    return recv(fd_, &b, 1, MSG_DONTWAIT) <= 0;
}

void daemon_test::TearDown() {
    tls.reset();
    client.close_now();
    if (daemon.pid > 0 && router::wait_exit(daemon, 0) == router::still_running) router::kill_process(daemon);
}

void daemon_test::fresh_router(const router::options& o) {
    TearDown();
    ASSERT_EQ(router::enter(o), "");
    router::set_admin_password(password);
    install_helpers();
}

void daemon_test::start(const std::string& argv0, int port) {
    daemon = router::start(KELP_DAEMON, argv0, emulator_prefix());
    ASSERT_GT(daemon.pid, 0);
    ASSERT_TRUE(router::wait_for_listener(port, 10000)) << "daemon did not listen on " << port << "\n" << out();
}

void daemon_test::connect_and_greet(int port) {
    ASSERT_TRUE(client.connect_to(port));
    greeting = client.receive(35);
    ASSERT_EQ(greeting.size(), 35u);
}

void daemon_test::login() {
    ASSERT_TRUE(client.send_bytes(auth_reply(greeting, password)));
    EXPECT_BYTES(client.receive(3), "01 01 01");
}

strings daemon_test::out_lines() {
    strings lines;
    std::istringstream in(out());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void daemon_test::expect_log(int priority, const std::string& ident, const std::string& text) {
    std::vector<router::log_line> lines;
    for (int i = 0; i < 30; i++) {  // up to 3 s
        lines = router::syslog_lines(lines.size() + 1, 100);
        for (const router::log_line& l : lines)
            if (l.text == text) {
                EXPECT_EQ(l.priority, priority) << text;
                EXPECT_EQ(l.ident, ident) << text;
                return;
            }
    }
    std::string seen;
    for (const router::log_line& l : lines)
        seen += "<" + std::to_string(l.priority) + "> " + l.ident + ": " + l.text + "\n";
    ADD_FAILURE() << "no syslog line \"" << text << "\"; got:\n" << seen;
}

// Greeting, login and request: through TLS once it is up, else plain.
bool daemon_test::front_send(const bytes& b) {
    return tls ? bool(tls->send(b.data(), b.size())) : client.send_bytes(b);
}

bytes daemon_test::front_receive(size_t n, int timeout_ms) {
    if (!tls) return client.receive(n, timeout_ms);
    bytes out(n);
    size_t done = 0, got = 0;
    while (done < n && tls->recv_some(out.data() + done, n - done, &got, timeout_ms)) done += got;
    out.resize(done);
    return out;
}

// /tmp as "name", or "name=content" where the row names it with content,
// and "path=content" for every full path the row names.
static strings leftovers(const strings& want) {
    auto with_content = [&](const std::string& name) {
        return std::any_of(want.begin(), want.end(), [&](const std::string& w) { return w.rfind(name + "=", 0) == 0; });
    };
    strings seen;
    for (const std::string& name : router::list_dir("/tmp"))
        seen.push_back(with_content(name) ? name + "=" + router::read_file("/tmp/" + name) : name);
    for (const std::string& w : want)
        if (w[0] == '/') seen.push_back(w.substr(0, w.find('=') + 1) + router::read_file(w.substr(0, w.find('='))));
    std::sort(seen.begin(), seen.end());
    return seen;
}

// Long contents are shown by their start and size.
static std::string brief(const strings& list) {
    std::string s;
    for (const std::string& e : list)
        s += "\n  " + e.substr(0, 60) + (e.size() > 60 ? "... " + std::to_string(e.size()) : "");
    return s;
}

static std::string first_difference(const bytes& got, const bytes& want) {
    size_t at = 0;
    while (at < got.size() && at < want.size() && got[at] == want[at]) at++;
    auto from = [at](const bytes& b) {
        return show(bytes(b.begin() + (long)std::min(at, b.size()), b.begin() + (long)std::min(at + 16, b.size())));
    };
    return "got " + std::to_string(got.size()) + " bytes, want " + std::to_string(want.size()) + "; at byte " +
           std::to_string(at) + ": " + from(got) + " instead of " + from(want);
}

void daemon_test::run(const exchange& x) {
    SCOPED_TRACE(x.name);
    fresh_router();
    for (auto& [path, content] : x.files) router::write_file(path, content);
    for (auto& [name, body] : x.helpers) router::install_helper(name, body);
    if (x.setup) x.setup();
    bool plain = x.argv0 == "kelputild";
    int port = plain ? 856 : 857;
    start(x.argv0, port);
    if (x.started) x.started(daemon.pid);
    ASSERT_TRUE(client.connect_to(port));
    if (!plain) {
        kelp::status st = kelp::tls_transport::open(client.fd(), "", 5000, &tls);
        ASSERT_TRUE(st) << st.message;
    }
    greeting = front_receive(35);
    ASSERT_EQ(greeting.size(), 35u);
    // The text and its NUL, the marker, the challenge, the tag.
    EXPECT_BYTES(greeting, "6B656C702D7633 207574696C697479 207365727665720A 00 FF " +
                               show(bytes(&greeting[25], &greeting[33])) + " 02 01");
    bytes reply = auth_reply(greeting, x.typed, x.tag);
    reply.resize(x.auth_len);
    if (x.one_record) reply = reply + x.request;
    if (x.empty_records) front_send({});
    if (!reply.empty()) front_send(reply);
    if (x.answer.empty() && !x.quiet_ms) client.shutdown_write();  // nothing more to say
    EXPECT_BYTES(front_receive(3, x.answer.empty() ? 500 : 5000), x.answer);
    if (x.empty_records) front_send({});
    if (!x.request.empty() && !x.one_record) front_send(x.request);
    if (x.hang_up) client.close_now();
    bytes got;
    if (!x.body.empty()) {
        got = client.receive(7);
        client.send_bytes(x.body);
    }
    if (x.quiet_ms) {
        EXPECT_EQ(exit_status(x.quiet_ms), router::still_running) << "ended before " << x.quiet_ms << " ms";
    } else if (!x.hang_up) {
        client.shutdown_write();
    }
    if (!x.hang_up) got = got + client.receive(SIZE_MAX, 15000);
    EXPECT_TRUE(got == x.replies) << first_difference(got, x.replies);
    EXPECT_TRUE(!x.unread || client.was_reset()) << "the daemon read beyond what it needed";
    EXPECT_EQ(exit_status(x.status == router::still_running ? 300 : 15000), x.status) << out();
    for (auto& [priority, line] : x.logs) expect_log(priority, plain ? "kelputild" : "kelputild/ssl", line);
    strings lines = out_lines();
    if (lines.size() >= x.out.size()) lines.erase(lines.begin(), lines.end() - (long)x.out.size());
    EXPECT_EQ(lines, x.out);
    strings calls = router::helper_calls(), want_calls = x.calls;
    std::sort(calls.begin(), calls.end());
    std::sort(want_calls.begin(), want_calls.end());
    EXPECT_EQ(calls, want_calls);
    strings want = x.left, seen = leftovers(want);
    std::sort(want.begin(), want.end());
    // A reboot request is written after the daemon has hung up.
    for (int i = 0; i < 100 && seen != want; i++) usleep(20000), seen = leftovers(want);
    EXPECT_TRUE(seen == want) << "left:" << brief(seen) << "\ninstead of:" << brief(want);
}
