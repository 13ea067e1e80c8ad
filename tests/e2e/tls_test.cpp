// Port 857: the greeting, login and request inside TLS, every later byte
// plain; broken handshakes end the process cleanly; the served certificate
// is the one built in.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "actions.h"
#include "harness.h"
#include "tls_transport.h"

constexpr int err = 83, alert = 81;
constexpr const char* ident = "kelputild/ssl";

static std::vector<std::string> emulator() {
    std::vector<std::string> out;
    std::string list = KELP_EMULATOR, item;
    for (char c : list + ";") {
        if (c != ';') {
            item += c;
        } else if (!item.empty()) {
            out.push_back(item);
            item.clear();
        }
    }
    return out;
}

// The fingerprint openssl printed for a PEM certificate at build time.
static std::string expected_sha256(const char* path) {
    std::string line = router::read_file(path);
    return kelp::normalize_sha256(line.substr(line.find('=') + 1, 95));
}

static bytes greeting_prefix() {
    return hex("6B 65 6C 70 2D 76 33 20 75 74 69 6C 69 74 79 20 73 65 72 76 65 72 0A 00 FF");  // "kelp-v3 utility server\n"
}

class Tls : public daemon_test {
protected:
    std::unique_ptr<kelp::tls_transport> tls;

    void start_tls(const char* binary = KELP_DAEMON) {
        router::forget_syslog();
        daemon = router::start(binary, "kelputild-tls", emulator());
        ASSERT_GT(daemon.pid, 0);
        ASSERT_TRUE(router::wait_for_listener(857, 10000)) << out();
    }
    kelp::status handshake(const std::string& pin = "") {
        tls.reset();
        if (!client.connect_to(857)) return kelp::fail(kelp::error_kind::connect_failed, "no connection");
        return kelp::tls_transport::open(client.fd(), pin, 5000, &tls);
    }
    bytes tls_receive(size_t n) {
        bytes out(n);
        size_t done = 0, got = 0;
        while (done < n && tls->recv_some(out.data() + done, n - done, &got, 5000)) done += got;
        out.resize(done);
        return out;
    }
    void tls_send(const bytes& b) {
        kelp::status st = tls->send(b.data(), b.size());
        ASSERT_TRUE(st) << st.message;
    }
    void tls_greet() {
        greeting = tls_receive(35);
        ASSERT_EQ(greeting.size(), 35u);
    }
    void expect_negotiation_failed() {
        EXPECT_EQ(exit_status(), 1);
        expect_log(err, ident, "127.0.0.1 - ssl negotiation failed");
    }
};

TEST_F(Tls, LoginAndApplyThenPlainReplies) {
    start_tls();
    kelp::status st = handshake();
    ASSERT_TRUE(st) << st.message;
    tls_greet();
    EXPECT_BYTES(bytes(greeting.begin(), greeting.begin() + 25), show(greeting_prefix()).c_str());
    EXPECT_BYTES(bytes(greeting.begin() + 33, greeting.end()), "02 01");
    tls_send(auth_reply(greeting, password));
    EXPECT_BYTES(tls_receive(3), "01 01 01");
    tls_send(act_pkt(0, 0, 0x01));
    // The daemon has dropped TLS: ready and result arrive as plain bytes.
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    EXPECT_TRUE(client.closed_by_peer());
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(router::read_file("/tmp/monitor"), "apply\n");
}

TEST_F(Tls, ClientLibraryTriggersOverTls) {
    kelp::target t;
    t.port = 857;
    t.tls = true;
    t.pin_sha256 = expected_sha256(KELP_DEFAULT_CERT_SHA256);
    t.password = kelp::fixed_password(password);
    t.timeout_ms = 5000;
    start_tls();
    kelp::status st = kelp::trigger(t, 0x01);
    EXPECT_TRUE(st) << st.message;
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(router::read_file("/tmp/monitor"), "apply\n");
}

TEST_F(Tls, EmptyRecordsAreReadPast) {
    start_tls();
    ASSERT_TRUE(handshake());
    tls_greet();
    tls_send({});
    tls_send({});
    tls_send(auth_reply(greeting, password));
    EXPECT_BYTES(tls_receive(3), "01 01 01");
    tls_send({});
    tls_send(act_pkt(0));
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
}

TEST_F(Tls, WrongPasswordIsRefused) {
    start_tls();
    ASSERT_TRUE(handshake());
    tls_greet();
    tls_send(auth_reply(greeting, "Secret"));
    EXPECT_BYTES(tls_receive(3), "01 01 00");
    EXPECT_EQ(exit_status(), 2);
    expect_log(alert, ident, "127.0.0.1 - authentication failed");
}

TEST_F(Tls, ServedCertificateAndPins) {
    std::string builtin = expected_sha256(KELP_DEFAULT_CERT_SHA256);
    std::string custom = expected_sha256(KELP_CUSTOM_CERT_SHA256);
    ASSERT_EQ(builtin.size(), 64u);
    ASSERT_EQ(custom.size(), 64u);
    ASSERT_NE(builtin, custom);

    start_tls();
    ASSERT_TRUE(handshake());
    EXPECT_EQ(tls->peer_sha256(), builtin);
    client.close_now();
    EXPECT_EQ(exit_status(), 1);

    // A firmware builder's own pair, embedded at build time.
    start_tls(KELP_CUSTOM_CERT_DAEMON);
    std::string upper_with_colons;
    for (size_t i = 0; i < custom.size(); i += 2)
        upper_with_colons += (i ? ":" : "") + std::string(1, (char)toupper(custom[i])) + (char)toupper(custom[i + 1]);
    kelp::status st = handshake(upper_with_colons);
    ASSERT_TRUE(st) << st.message;
    EXPECT_EQ(tls->peer_sha256(), custom);
    tls_greet();
    tls_send(auth_reply(greeting, password));
    EXPECT_BYTES(tls_receive(3), "01 01 01");
    client.close_now();
    EXPECT_EQ(exit_status(), 1);

    // The pin does not match: nothing is sent, the error names both.
    start_tls();
    st = handshake(custom);
    EXPECT_EQ(st.kind, kelp::error_kind::certificate);
    EXPECT_NE(st.message.find(builtin), std::string::npos) << st.message;
    EXPECT_NE(st.message.find(custom), std::string::npos) << st.message;
    EXPECT_FALSE(tls);
    client.close_now();
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(Tls, BytesThatAreNotAHandshakeFailNegotiation) {
    bytes large = hex("16 03 01 40 01");
    large.resize(5 + 16385, 0x01);
    struct {
        const char* name;
        bytes sent;
    } cases[] = {
        {"a plain client's auth reply", auth_reply(bytes(35, 0), password)},
        {"text", hex("47 45 54 20 2F 20 48 54 54 50 2F 31 2E 30 0D 0A 0D 0A")},  // GET / HTTP/1.0
        {"application data first", hex("17 03 03 00 05 68 65 6C 6C 6F")},
        {"record length 65535", hex("16 03 01 FF FF 01 00 00 01")},
        {"record length 16385", large},
        {"empty ClientHello", hex("16 03 01 00 04 01 00 00 00")},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        start_tls();
        ASSERT_TRUE(client.connect_to(857));
        // The connection stays open: the daemon must give up on the bytes alone.
        client.send_bytes(c.sent);
        expect_negotiation_failed();
        client.close_now();
    }
}

// A real client whose handshake bytes pass through a relay that forwards the
// first `limit` of them to the daemon and then either closes the connection
// or, with `then`, sends those bytes instead and keeps it open.
struct cut {
    const char* name;
    long after_hello;  // limit relative to the end of the ClientHello record
    bytes then;
    bool daemon_waits = false;  // for the rest of a record: no handshake time-out
};

static void relay_and_cut(raw_client& daemon_side, const cut& c) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    std::thread client_thread([fd = pair[0]] {
        std::unique_ptr<kelp::tls_transport> t;
        kelp::tls_transport::open(fd, "", 3000, &t);  // fails once the relay stops
    });
    bytes from_client;
    size_t forwarded = 0;
    long limit = -1;
    bool cut_done = false;
    for (int rounds = 0; rounds < 200 && !cut_done; rounds++) {
        struct pollfd p[2] = {{pair[1], POLLIN, 0}, {daemon_side.fd(), POLLIN, 0}};
        if (poll(p, 2, 3000) <= 0) break;
        uint8_t buf[16384];
        if (p[1].revents) {
            ssize_t n = recv(daemon_side.fd(), buf, sizeof buf, 0);
            if (n <= 0) break;
            send(pair[1], buf, (size_t)n, MSG_NOSIGNAL);
        }
        if (p[0].revents) {
            ssize_t n = recv(pair[1], buf, sizeof buf, 0);
            if (n <= 0) break;
            from_client.insert(from_client.end(), buf, buf + n);
        }
        if (limit < 0 && from_client.size() >= 5)
            limit = 5 + (from_client[3] << 8 | from_client[4]) + c.after_hello;
        if (limit < 0) continue;
        size_t upto = std::min(from_client.size(), (size_t)limit);
        if (upto > forwarded) {
            daemon_side.send_bytes(bytes(from_client.begin() + (long)forwarded, from_client.begin() + (long)upto));
            forwarded = upto;
        }
        if (forwarded == (size_t)limit) {
            cut_done = true;
            if (c.then.empty())
                daemon_side.close_now();
            else
                daemon_side.send_bytes(c.then);
        }
    }
    EXPECT_TRUE(cut_done);
    close(pair[1]);
    client_thread.join();
    close(pair[0]);
}

TEST_F(Tls, HandshakesCutShortFailNegotiation) {
    cut cases[] = {
        {"closed inside the ClientHello", -20, {}},
        {"closed after the ClientHello", 0, {}},
        {"closed inside the key exchange", 20, {}},
        {"application data after the ClientHello", 0, hex("17 03 03 00 05 68 65 6C 6C 6F")},
        {"half a record, then silence", 0, hex("16 03 03 00 30 01 00 00 2C 03 03"), true},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        start_tls();
        ASSERT_TRUE(client.connect_to(857));
        relay_and_cut(client, c);
        if (c.daemon_waits) {
            EXPECT_EQ(exit_status(300), router::still_running);
            client.close_now();
        }
        expect_negotiation_failed();
        client.close_now();
    }
}

TEST_F(Tls, AuthAndRequestInOneRecordLoseTheRequest) {
    start_tls();
    ASSERT_TRUE(handshake());
    tls_greet();
    bytes both = auth_reply(greeting, password);
    bytes request = act_pkt(0, 0, 0x01);
    both.insert(both.end(), request.begin(), request.end());
    tls_send(both);
    EXPECT_BYTES(tls_receive(3), "01 01 01");
    // The rest of the record was dropped; the daemon waits 10 s for a request.
    EXPECT_EQ(exit_status(8000), router::still_running);
    EXPECT_EQ(exit_status(5000), 1);
    expect_log(err, ident, "127.0.0.1 - protocol error");
    EXPECT_FALSE(router::exists("/tmp/monitor"));
}

// openssl s_client with its stdin and stdout on pipes; every read bounded.
class s_client {
public:
    explicit s_client(std::vector<std::string> options) {
        int out[2], in[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 2);
            options.insert(options.begin(), {"openssl", "s_client", "-connect", "127.0.0.1:857"});
            std::vector<char*> argv;
            for (std::string& a : options) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(KELP_OPENSSL, argv.data());
            _exit(127);
        }
        close(out[1]);
        close(in[0]);
        out_ = out[0];
        in_ = in[1];
    }
    ~s_client() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_);
        close(in_);
    }
    // Output so far, reading until `enough` holds or 5 s pass.
    const std::string& read_until(bool (*enough)(const std::string&)) {
        struct pollfd p = {out_, POLLIN, 0};
        while (!enough(got_) && poll(&p, 1, 5000) > 0) {
            char buf[4096];
            ssize_t n = read(out_, buf, sizeof buf);
            if (n <= 0) break;
            got_.append(buf, (size_t)n);
        }
        return got_;
    }
    bytes take(size_t n) {
        bytes b(got_.begin(), got_.begin() + (long)std::min(n, got_.size()));
        got_.erase(0, b.size());
        return b;
    }
    void write_bytes(const bytes& b) { EXPECT_EQ(write(in_, b.data(), b.size()), (ssize_t)b.size()); }

private:
    pid_t pid_ = -1;
    int out_ = -1, in_ = -1;
    std::string got_;
};

TEST_F(Tls, OpenSslClientLogsIn) {
    // TLS 1.0 with a CBC suite: OpenSSL puts an empty record before each
    // write, which the daemon reads past.
    const std::vector<std::string> runs[] = {{"-quiet", "-tls1_2"},
                                             {"-quiet", "-tls1", "-cipher", "ECDHE-ECDSA-AES128-SHA:@SECLEVEL=0"}};
    for (auto& options : runs) {
        SCOPED_TRACE(options[1]);
        start_tls();
        {
            s_client c(options);
            c.read_until([](const std::string& s) { return s.size() >= 35; });
            bytes g = c.take(35);
            ASSERT_EQ(g.size(), 35u) << show(g);
            EXPECT_BYTES(bytes(g.begin(), g.begin() + 25), show(greeting_prefix()).c_str());
            EXPECT_BYTES(bytes(g.begin() + 33, g.end()), "02 01");
            c.write_bytes(auth_reply(g, password));
            c.read_until([](const std::string& s) { return s.size() >= 3; });
            EXPECT_BYTES(c.take(3), "01 01 01");
        }
        EXPECT_EQ(exit_status(), 1);  // s_client went away before the request
        expect_log(err, ident, "127.0.0.1 - protocol error");
    }
}

TEST_F(Tls, CheapCurvesArePreferred) {
    auto done = [](const std::string& s) { return s.find("Verify return code") != std::string::npos; };
    // The client lists P-521 first; the daemon's own order decides.
    start_tls();
    {
        s_client c({"-groups", "P-521:P-384:P-256:X25519"});
        std::string out = c.read_until(done);
        EXPECT_NE(out.find("Server Temp Key: X25519"), std::string::npos) << out;
    }
    EXPECT_EQ(exit_status(), 1);
    start_tls();
    s_client c({"-groups", "P-521:P-384:P-256"});
    std::string out = c.read_until(done);
    EXPECT_NE(out.find("Server Temp Key: ECDH, prime256v1"), std::string::npos) << out;
}
