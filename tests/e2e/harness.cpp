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

#include <sstream>

#include "crypto/rc4.h"

std::string show(const bytes& b) {
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(buf, sizeof buf, i ? " %02X" : "%02X", b[i]);
        s += buf;
    }
    return s;
}

static long long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

raw_client::~raw_client() { close_now(); }

void raw_client::close_now() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void raw_client::shutdown_write() { shutdown(fd_, SHUT_WR); }

bool raw_client::connect_to(int port, int timeout_ms) {
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons((uint16_t)port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, (struct sockaddr*)&a, sizeof a) == 0) {
            int one = 1;
            setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            return true;
        }
        close_now();
        if (now_ms() >= deadline) return false;
        usleep(10000);
    }
}

bool raw_client::send_bytes(const bytes& b) {
    size_t done = 0;
    while (done < b.size()) {
        ssize_t n = send(fd_, b.data() + done, b.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += (size_t)n;
    }
    return true;
}

bytes raw_client::receive(size_t n, int timeout_ms) {
    bytes out;
    long long deadline = now_ms() + timeout_ms;
    while (out.size() < n) {
        int left = (int)(deadline - now_ms());
        struct pollfd p = {fd_, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0) break;
        uint8_t buf[65536];
        ssize_t got = recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
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
    p[38] = (uint8_t)size;
    p[39] = (uint8_t)(size >> 8);
    p[40] = (uint8_t)(size >> 16);
    p[41] = (uint8_t)(size >> 24);
    return p;
}

bytes frame(const bytes& payload) {
    bytes f(1462, 0);
    f[0] = (uint8_t)payload.size();
    f[1] = (uint8_t)(payload.size() >> 8);
    std::copy(payload.begin(), payload.end(), f.begin() + 2);
    return f;
}

std::vector<std::string> emulator_prefix() { return router::split_list(KELP_EMULATOR); }

void daemon_test::SetUp() {
    std::string error = router::enter(sandbox_options());
    ASSERT_EQ(error, "");
    router::set_admin_password(password);
}

void daemon_test::TearDown() {
    client.close_now();
    if (daemon.pid > 0 && router::wait_exit(daemon, 0) == router::still_running) router::kill_process(daemon);
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

void daemon_test::login(const std::string& pw) {
    ASSERT_TRUE(client.send_bytes(auth_reply(greeting, pw)));
    EXPECT_BYTES(client.receive(3), "01 01 01");
}

void daemon_test::request(int action, int script, int flags, uint32_t size) {
    ASSERT_TRUE(client.send_bytes(act_pkt(action, script, flags, size)));
}

std::vector<std::string> daemon_test::out_lines() {
    std::vector<std::string> lines;
    std::istringstream in(out());
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

void daemon_test::expect_log(int priority, const std::string& ident, const std::string& text) {
    auto lines = logs(1, 3000);
    for (size_t i = 0; i < 20 && std::none_of(lines.begin(), lines.end(), [&](const router::log_line& l) {
                                     return l.text == text;
                                 });
         i++)
        lines = logs(lines.size() + 1, 250);
    for (const router::log_line& l : lines)
        if (l.text == text) {
            EXPECT_EQ(l.priority, priority) << text;
            EXPECT_EQ(l.ident, ident) << text;
            return;
        }
    std::string seen;
    for (const router::log_line& l : lines) seen += "<" + std::to_string(l.priority) + "> " + l.ident + ": " + l.text + "\n";
    ADD_FAILURE() << "no syslog line \"" << text << "\"; got:\n" << seen;
}

bytes daemon_test::download(uint32_t size) {
    bytes out;
    while (out.size() < size) {
        bytes f = client.receive(1462);
        if (f.size() != 1462) {
            ADD_FAILURE() << "short frame after " << out.size() << " bytes";
            break;
        }
        size_t length = f[0] | (f[1] << 8);
        EXPECT_GE(length, 1u);
        EXPECT_LE(length, 1460u);
        out.insert(out.end(), f.begin() + 2, f.begin() + 2 + std::min<size_t>(length, 1460));
    }
    return out;
}

void daemon_test::upload(const bytes& data) {
    for (size_t done = 0; done < data.size(); done += 1460)
        client.send_bytes(frame(bytes(data.begin() + done, data.begin() + std::min(data.size(), done + 1460))));
}
