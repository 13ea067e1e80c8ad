// The client's side of the conversations, against a scripted device that
// speaks literal bytes. Every read on the device side is bounded.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "actions.h"
#include "hex.h"
#include "transfer.h"

using kelp::bytes;
using kelp::error_kind;

namespace {

void put(int fd, const bytes& b) { send(fd, b.data(), b.size(), MSG_NOSIGNAL); }
void put(int fd, const std::string& h) { put(fd, hex(h)); }
bytes take(int fd, size_t n) {
    bytes b(n);
    size_t got = 0;
    for (ssize_t r; got < n && (r = recv(fd, b.data() + got, n - got, 0)) > 0;) got += (size_t)r;
    b.resize(got);
    return b;
}
bytes greeting(const std::string& tag = "02 01") {
    std::string text = "kelp-v3 utility server\n";
    bytes g(text.begin(), text.end()), rest = hex("00 FF 01 23 45 67 89 AB CD EF " + tag);
    g.insert(g.end(), rest.begin(), rest.end());
    return g;
}
bytes frame(const bytes& payload) {
    bytes f(1462, 0);
    f[0] = (uint8_t)payload.size(), f[1] = (uint8_t)(payload.size() >> 8);
    std::copy(payload.begin(), payload.end(), f.begin() + 2);
    return f;
}

// The device runs `script` in a thread on its end of a socketpair (or, with
// tcp, of one connection accepted on a loopback port).
class device {
public:
    explicit device(std::function<void(int)> script, bool tcp = false) {
        int fds[2];
        if (tcp) {
            fds[1] = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t len = sizeof a;
            bind(fds[1], (sockaddr*)&a, len);
            getsockname(fds[1], (sockaddr*)&a, &len);
            listen(fds[1], 1);
            port_ = ntohs(a.sin_port);
            fds[0] = -1;
        } else {
            socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        }
        client_ = fds[0], dev_ = fds[1];
        bound(dev_);
        thread_ = std::thread([this, script, tcp] {
            int fd = tcp ? accept(dev_, nullptr, nullptr) : dev_;
            if (fd < 0) return;
            bound(fd);
            script(fd);
            shutdown(fd, SHUT_RDWR);
            if (tcp) close(fd);
        });
    }
    ~device() { finish(); }
    void finish() {
        if (thread_.joinable()) thread_.join();
        for (int fd : {client_, dev_})
            if (fd >= 0) close(fd);
        client_ = dev_ = -1;
    }
    // A session on the client end, with the given time-out.
    void attach(kelp::session& s, int timeout_ms = 1000) {
        s.adopt(client_, timeout_ms);
        client_ = -1;
    }
    kelp::target target() const {
        kelp::target t;
        t.port = port_;
        t.password = kelp::fixed_password("pw");
        t.tls = false;
        t.timeout_ms = 1000;
        return t;
    }

private:
    static void bound(int fd) {
        timeval tv{2, 0};  // also bounds accept()
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    int client_ = -1, dev_ = -1, port_ = 0;
    std::thread thread_;
};

}  // namespace

TEST(ClientLogin, FailuresByKind) {
    struct {
        std::function<void(int)> script;
        error_kind want;
    } cases[] = {
        {[](int fd) { put(fd, greeting()), take(fd, 34), put(fd, "01 01 00"); }, error_kind::refused_password},
        // Closing instead of answering: the daemon did not like our tag.
        {[](int fd) { put(fd, greeting()), take(fd, 34); }, error_kind::protocol},
        {[](int fd) { put(fd, "6B 65 6C 70"); }, error_kind::closed},
        {[](int fd) { put(fd, greeting()), take(fd, 34), put(fd, "01 01 07"); }, error_kind::protocol},
    };
    for (auto& c : cases) {
        device dev(c.script);
        kelp::session s;
        dev.attach(s);
        EXPECT_EQ(s.login("pw").kind, c.want);
    }
    // A wrong tag in the greeting: the client answers nothing.
    bytes sent;
    device dev([&](int fd) { put(fd, greeting("01 02")), sent = take(fd, 34); });
    kelp::session s;
    dev.attach(s);
    EXPECT_EQ(s.login("pw").kind, error_kind::protocol);
    s.close();
    dev.finish();
    EXPECT_TRUE(sent.empty());
}

TEST(ClientLogin, SilentDeviceTimesOutWithinTheLimit) {
    device dev([](int fd) { take(fd, 1); });
    kelp::session s;
    dev.attach(s, 200);
    auto start = std::chrono::steady_clock::now();
    kelp::status st = s.login("pw");
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(st.kind, error_kind::timed_out);
    EXPECT_GE(ms, 150);
    EXPECT_LT(ms, 1000);
    s.close();
}

TEST(ClientTransfer, BadAnswersAreErrorsNotCrashes) {
    auto download = [](std::function<void(int)> script) {
        device dev(script);
        kelp::session s;
        dev.attach(s);
        bytes got;
        return kelp::download(s, &got);
    };
    kelp::status st = download([](int fd) { put(fd, "03 01 00 00 00 00 00"); });
    EXPECT_EQ(st.kind, error_kind::device);
    EXPECT_EQ(st.code, 0);
    // 10 bytes announced, a 20-byte frame sent.
    EXPECT_EQ(download([](int fd) { put(fd, "03 01 01 0A 00 00 00"), put(fd, frame(bytes(20, 1))); }).kind,
              error_kind::protocol);
    EXPECT_EQ(download([](int fd) { put(fd, "03 01 01 0A 00 00 00"), put(fd, bytes(100, 0)); }).kind,
              error_kind::closed);

    // A size packet where the ready packet belongs.
    device dev([](int fd) { put(fd, "03 01 01 05 00 00 00"); });
    kelp::session s;
    dev.attach(s);
    EXPECT_EQ(kelp::upload(s, bytes(10, 1)).kind, error_kind::protocol);
}
