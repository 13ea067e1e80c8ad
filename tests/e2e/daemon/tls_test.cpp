// Port 857: the greeting, login and request inside TLS, every later byte
// plain; broken handshakes end the process cleanly; the served certificate
// is the one built in.
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "actions.h"
#include "harness.h"

class Tls : public daemon_test {};

TEST_F(Tls, Conversations) {
    run({
        {.name = "login and apply", .argv0 = "kelputild-tls", .request = act_pkt(0, 0, 0x01), .replies = ok + ok,
         .left = {"all.dirty=", "monitor=apply\n"}},
        {.name = "empty records are read past", .argv0 = "kelputild-tls", .request = act_pkt(0), .empty_records = true,
         .replies = ok + ok},
        // Each read takes one record: the request behind the auth reply is
        // lost, and the daemon waits 10 s for it.
        {.name = "login and request in one record", .argv0 = "kelputild-tls", .request = act_pkt(0, 0, 0x01),
         .quiet_ms = 8000, .one_record = true, .status = 1, .logs = {{err, "127.0.0.1 - protocol error"}}},
    });
}

// The first record our TLS client sends: its ClientHello.
static bytes client_hello() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return {};
    std::thread client([fd = pair[0]] {
        std::unique_ptr<kelp::tls_transport> t;
        kelp::tls_transport::open(fd, "", 3000, &t);  // fails once we hang up
    });
    struct timeval wait = {5, 0};
    setsockopt(pair[1], SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    bytes hello(5);
    bool whole = recv(pair[1], hello.data(), 5, MSG_WAITALL) == 5;
    if (whole) {
        hello.resize(5 + (hello[3] << 8 | hello[4]));
        whole = recv(pair[1], hello.data() + 5, hello.size() - 5, MSG_WAITALL) == (ssize_t)hello.size() - 5;
    }
    close(pair[1]);
    client.join();
    close(pair[0]);
    return whole ? hello : bytes{};
}

TEST_F(Tls, BrokenHandshakesFailNegotiation) {
    const bytes hello = client_hello(), app_data = hex("17 03 03 00 05 68 65 6C 6C 6F");
    ASSERT_GT(hello.size(), 40u);
    // waits_ms: the daemon must still wait this long
    struct { const char* name; bytes sent; bool hang_up; int waits_ms; } rows[] = {
        // The connection stays open: the daemon must give up on the bytes alone.
        {"a plain client's auth reply", auth_reply(bytes(35, 0), password), false, 0},
        {"text", text("GET / HTTP/1.0\r\n\r\n"), false, 0}, {"application data first", app_data, false, 0},
        {"record length 65535", hex("16 03 01 FF FF 01 00 00 01"), false, 0},
        {"record length 16385", hex("16 03 01 40 01") + bytes(16385, 0x01), false, 0},
        {"empty ClientHello", hex("16 03 01 00 04 01 00 00 00"), false, 0},
        {"application data after the ClientHello", hello + app_data, false, 0},
        {"ClientHello cut short", bytes(hello.begin(), hello.end() - 20), true, 0},
        {"ClientHello, then nothing more", hello, true, 0},
        // No time-out inside the handshake: the rest of a record is awaited.
        {"half a record, then silence", hello + hex("16 03 03 00 30 01 00 00 2C 03 03"), true, 300},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.name);
        fresh_router();
        start("kelputild-tls", 857);
        ASSERT_TRUE(client.connect_to(857));
        client.send_bytes(r.sent);
        if (r.waits_ms) {
            EXPECT_EQ(exit_status(r.waits_ms), router::still_running);
        }
        if (r.hang_up) client.close_now();
        EXPECT_EQ(exit_status(), 1);
        expect_log(err, "kelputild/ssl", "127.0.0.1 - ssl negotiation failed");
    }
}

// The fingerprint openssl printed for a PEM certificate at build time.
static std::string expected_sha256(const char* path) {
    std::string line = router::read_file(path);
    return kelp::normalize_sha256(line.substr(line.find('=') + 1, 95));
}

// The client library pins the served certificate: the built-in one, or a
// firmware builder's own pair embedded at build time.
TEST_F(Tls, ServedCertificateAndPins) {
    const std::string builtin = expected_sha256(KELP_DEFAULT_CERT_SHA256),
                      custom = expected_sha256(KELP_CUSTOM_CERT_SHA256);
    ASSERT_EQ(builtin.size(), 64u);
    ASSERT_EQ(custom.size(), 64u);
    ASSERT_NE(builtin, custom);
    std::string upper_with_colons;
    for (size_t i = 0; i < custom.size(); i += 2)
        upper_with_colons += (i ? ":" : "") + std::string(1, (char)toupper(custom[i])) + (char)toupper(custom[i + 1]);
    struct { const char* daemon; std::string pin, served; int status; } rows[] = {
        {KELP_DAEMON, builtin, builtin, 0}, {KELP_CUSTOM_CERT_DAEMON, upper_with_colons, custom, 0},
        {KELP_DAEMON, custom, builtin, 1},  // the error names both
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.pin);
        fresh_router();
        daemon = router::start(r.daemon, "kelputild-tls", emulator_prefix());
        ASSERT_TRUE(router::wait_for_listener(857, 10000));
        kelp::target t;
        t.pin_sha256 = r.pin;
        t.password = kelp::fixed_password(password);
        t.timeout_ms = 5000;
        kelp::status st = kelp::trigger(t, 0x01);
        EXPECT_EQ(st.kind, r.status ? kelp::error_kind::certificate : kelp::error_kind::none) << st.message;
        if (!st) {
            EXPECT_NE(st.message.find(r.pin), std::string::npos) << st.message;
            EXPECT_NE(st.message.find(r.served), std::string::npos) << st.message;
        }
        EXPECT_EQ(exit_status(), r.status);
        EXPECT_EQ(tmp_files(), r.status ? strings{} : strings({"all.dirty", "monitor"}));
    }
}

// openssl s_client, an independent client, agrees on TLS 1.2 and 1.0, and
// the daemon's own curve order decides, though the client lists P-521 first.
TEST_F(Tls, OpenSslClient) {
    const char* rows[][2] = {
        {"-tls1_2", "Protocol version: TLSv1.2"},
        {"-tls1 -cipher ECDHE-ECDSA-AES128-SHA:@SECLEVEL=0", "Protocol version: TLSv1\n"},
        {"-groups P-521:P-384:P-256:X25519", "Server Temp Key: X25519"},
        {"-groups P-521:P-384:P-256", "Server Temp Key: ECDH, prime256v1"},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r[0]);
        fresh_router();
        start("kelputild-tls", 857);
        std::string command =
            std::string("timeout 10 ") + KELP_OPENSSL + " s_client -brief -connect 127.0.0.1:857 " + r[0] +
            " </dev/null 2>&1";
        FILE* p = popen(command.c_str(), "r");
        ASSERT_NE(p, nullptr);
        std::string out;
        for (int c; (c = fgetc(p)) != EOF;) out += (char)c;
        pclose(p);
        EXPECT_NE(out.find(r[1]), std::string::npos) << out;
    }
}
