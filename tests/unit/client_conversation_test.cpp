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
#include "transfer.h"

using kelp::bytes;
using kelp::error_kind;

namespace {

bytes hex(const std::string& t) {
    bytes out;
    for (size_t i = 0; i < t.size(); i += (t[i] == ' ' ? 1 : 2))
        if (t[i] != ' ') out.push_back((uint8_t)std::stoul(t.substr(i, 2), nullptr, 16));
    return out;
}
void put(int fd, const bytes& b) { send(fd, b.data(), b.size(), MSG_NOSIGNAL); }
void put(int fd, const std::string& h) { put(fd, hex(h)); }
bytes take(int fd, size_t n) {
    bytes b(n);
    size_t got = 0;
    for (ssize_t r; got < n && (r = recv(fd, b.data() + got, n - got, 0)) > 0;) got += (size_t)r;
    b.resize(got);
    return b;
}
const char* ready = "03 01 01 00 00 00 00";  // also result 1
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
        t.password = "pw";
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

bytes accept_login(int fd) {
    put(fd, greeting());
    take(fd, 34);
    put(fd, "01 01 01");
    return take(fd, 42);
}
bytes request_bytes(const std::string& head, const std::string& size = "00 00 00 00") {
    bytes r = hex(head), s = hex(size);
    r.resize(38, 0);
    r.insert(r.end(), s.begin(), s.end());
    return r;
}

}  // namespace

TEST(ClientLogin, AuthReplyThenRequest) {
    bytes auth, req;
    device dev([&](int fd) {
        put(fd, greeting());
        auth = take(fd, 34);
        put(fd, "01 01 01");
        req = take(fd, 42);
    });
    kelp::session s;
    dev.attach(s);
    ASSERT_TRUE(s.login("secret"));
    kelp::request r;
    r.action = 64, r.flags = flag_apply;
    ASSERT_TRUE(s.send_request(r));
    dev.finish();
    EXPECT_EQ(auth, hex("02 01 07 F1 A1 95 75 3F 08 79 0D 4B D5 53 32 8F 1E FC"
                        " 9B 1A E8 48 8E 80 3C 77 52 35 48 B7 76 8C CB D9"));
    EXPECT_EQ(req, request_bytes("00 00 00 40 00 01"));
}

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

TEST(ClientActions, WholeConnectionsOverTcp) {
    bytes req, addr;
    device trig([&](int fd) { req = accept_login(fd), put(fd, ready), put(fd, ready); }, true);
    EXPECT_TRUE(kelp::trigger(trig.target(), flag_reboot));
    trig.finish();
    EXPECT_EQ(req, request_bytes("00 00 00 00 00 02"));

    device kick([&](int fd) { req = accept_login(fd), put(fd, ready), addr = take(fd, 4), put(fd, ready); }, true);
    EXPECT_TRUE(kelp::kick_hotspot_ip(kick.target(), 0, "10.0.0.7"));
    kick.finish();
    EXPECT_EQ(req, request_bytes("00 00 00 36 00 00"));
    EXPECT_EQ(addr, hex("0A 00 00 07"));

    // A missing script: size 0, then the device hangs up.
    device script([&](int fd) { req = accept_login(fd), put(fd, ready); }, true);
    bytes body;
    EXPECT_EQ(kelp::get_script(script.target(), kelp::script_dhcp, 0, &body).kind, error_kind::closed);
    script.finish();
    EXPECT_EQ(req, request_bytes("00 00 00 02 07 00"));

    kelp::target nobody = trig.target();  // its listener is closed now
    EXPECT_EQ(kelp::trigger(nobody, 0).kind, error_kind::connect_failed);
    EXPECT_EQ(kelp::kick_ppp_user(nobody, 0, std::string(256, 'u')).kind, error_kind::local);
    EXPECT_EQ(kelp::put_script(nobody, kelp::script_cbq, 0, bytes(524289, 0)).kind, error_kind::local);
}

TEST(ClientActions, ThroughputSendShutsDownAndWaitsForTheClose) {
    bytes req;
    uint64_t received = 0;
    device dev(
        [&](int fd) {
            req = accept_login(fd);
            put(fd, ready);
            uint8_t buf[65536];
            for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) received += (uint64_t)n;
        },
        true);
    kelp::throughput_result r;
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(kelp::throughput(dev.target(), false, 0.3, 0, &r));
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 1.5);
    dev.finish();
    EXPECT_EQ(req, request_bytes("00 00 00 21 00 00"));
    EXPECT_GE(r.seconds, 0.3);
    EXPECT_GT(r.bytes, 0u);
    EXPECT_EQ(r.bytes, received);
}
