// Frames, replies and kick requests over a socket pair, checked byte by byte.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "control/kick.h"
#include "core/connection.h"
#include "core/replies.h"
#include "core/state.h"
#include "end_process_stub.h"
#include "private_dirs.h"
#include "transfer/frames.h"

using bytes = std::vector<uint8_t>;

class Wire : public ::testing::Test {
protected:
    int daemon_side = -1;
    int client_side = -1;
    void SetUp() override {
        enter_private_dirs();
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        daemon_side = sv[0];
        client_side = sv[1];
        tls_active = 0;
        memset(&act_pkt, 0, sizeof act_pkt);
    }
    void TearDown() override {
        close(daemon_side);
        if (client_side >= 0) close(client_side);
    }
    // Everything the daemon side has written so far.
    bytes drain() {
        bytes out;
        uint8_t buf[65536];
        struct pollfd p = {client_side, POLLIN, 0};
        while (poll(&p, 1, 50) > 0 && (p.revents & POLLIN)) {
            ssize_t n = read(client_side, buf, sizeof buf);
            if (n <= 0) break;
            out.insert(out.end(), buf, buf + n);
        }
        return out;
    }
    void feed(const bytes& b) { ASSERT_EQ(write(client_side, b.data(), b.size()), (ssize_t)b.size()); }
    static void write_file(const char* path, const bytes& data) {
        FILE* f = fopen(path, "w");
        if (!data.empty()) fwrite(data.data(), 1, data.size(), f);
        fclose(f);
    }
    static bytes frame(const bytes& payload, int length) {
        bytes f(1462, 0);
        f[0] = (uint8_t)length;
        f[1] = (uint8_t)(length >> 8);
        std::copy(payload.begin(), payload.end(), f.begin() + 2);
        return f;
    }
};

TEST_F(Wire, ReplyPackets) {
    send_result(daemon_side, 6);
    send_ready(daemon_side, nullptr);
    write_file("/tmp/f", bytes(0x01020304 & 0x3ff, 'x'));
    send_ready(daemon_side, "/tmp/f");
    send_ready(daemon_side, "/tmp/missing");
    EXPECT_EQ(drain(), (bytes{3, 1, 6, 0, 0, 0, 0, 3, 1, 1, 0, 0, 0, 0, 3, 1, 1, 0x04, 0x03, 0, 0, 3, 1, 1, 0, 0, 0, 0}));
}

TEST_F(Wire, SendFileFrames) {
    write_file("/tmp/a", bytes(1461, 'a'));
    ASSERT_TRUE(send_file(daemon_side, "/tmp/a"));
    bytes out = drain();
    ASSERT_EQ(out.size(), 2u * 1462);
    EXPECT_EQ(out[0], 0xB4);
    EXPECT_EQ(out[1], 0x05);
    EXPECT_EQ(out[1462], 0x01);
    EXPECT_EQ(out[1463], 0x00);
    EXPECT_EQ(out[1464], 'a');
    EXPECT_EQ(out[1465], 0);

    write_file("/tmp/empty", {});
    EXPECT_TRUE(send_file(daemon_side, "/tmp/empty"));
    EXPECT_FALSE(send_file(daemon_side, "/tmp/missing"));
    EXPECT_EQ(drain().size(), 0u);
}

TEST_F(Wire, ReceiveFileExactSize) {
    act_pkt.size = 1461;
    feed(frame(bytes(1460, 'b'), 1460));
    feed(frame({'c'}, 1));
    ASSERT_TRUE(receive_file(daemon_side, "/tmp/up"));
    FILE* f = fopen("/tmp/up", "r");
    ASSERT_NE(f, nullptr);
    fseek(f, 0, SEEK_END);
    EXPECT_EQ(ftell(f), 1461);
    fclose(f);

    act_pkt.size = 0;
    ASSERT_TRUE(receive_file(daemon_side, "/tmp/zero"));
    EXPECT_EQ(access("/tmp/zero", F_OK), 0);
}

TEST_F(Wire, ReceiveFileRejectsBadFramesAndRemovesTarget) {
    struct {
        const char* name;
        bytes first;
    } cases[] = {
        {"length 0", frame({}, 0)},
        {"length above 1460", frame({}, 1461)},
        {"length ffff", frame({}, 0xFFFF)},
        {"short frame then close", bytes(700, 1)},
    };
    for (auto& c : cases) {
        SetUp();
        act_pkt.size = 5000;
        write_file("/tmp/target", {'o', 'l', 'd'});
        feed(c.first);
        if (c.first.size() < 1462) {
            close(client_side);
            client_side = -1;
        } else {
            shutdown(client_side, SHUT_WR);
        }
        EXPECT_FALSE(receive_file(daemon_side, "/tmp/target")) << c.name;
        EXPECT_NE(access("/tmp/target", F_OK), 0) << c.name;
        TearDown();
    }
}

TEST_F(Wire, ReceiveFileMoreThanDeclaredNeverSucceeds) {
    act_pkt.size = 10;
    feed(frame(bytes(20, 'x'), 20));  // wraps the count past zero
    shutdown(client_side, SHUT_WR);
    EXPECT_FALSE(receive_file(daemon_side, "/tmp/over"));
    EXPECT_NE(access("/tmp/over", F_OK), 0);
}

static bytes kick_packet(const std::string& name, int extra = 0) {
    bytes p(4 + name.size() + (size_t)extra, '!');
    p[0] = (uint8_t)name.size();
    p[1] = (uint8_t)(name.size() >> 8);
    p[2] = p[3] = 0;
    std::copy(name.begin(), name.end(), p.begin() + 4);
    return p;
}

static std::string capture(const std::function<void()>& body) {
    fflush(stdout);
    int saved = dup(1);
    FILE* sink = tmpfile();
    dup2(fileno(sink), 1);
    body();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    rewind(sink);
    std::string out;
    int c;
    while ((c = fgetc(sink)) != EOF) out += (char)c;
    fclose(sink);
    return out;
}

TEST_F(Wire, KickRequestChecks) {
    struct {
        const char* name;
        bytes packet;
        const char* output;
    } cases[] = {
        {"trailing byte", kick_packet("a", 1), "size: 6\nsize of username: 1\npacket size mismatch.  6 != 5\n"},
        {"length only", kick_packet(""), "size: 4\nshort packet, unable to find user name to kick\n"},
        {"length ffffffff", {0xFF, 0xFF, 0xFF, 0xFF, 'x'}, "size: 5\nsize of username: -1\npacket size mismatch.  5 != 3\n"},
        {"256 bytes", kick_packet(std::string(256, 'u')),
         "size: 260\nsize of username: 256\nuser name length of 256 is too long (max 255 characters)\n"},
    };
    for (auto& c : cases) {
        feed(c.packet);
        int result = 0;
        std::string out = capture([&] { result = kick_ppp_user(daemon_side); });
        EXPECT_EQ(result, 1) << c.name;
        EXPECT_EQ(out, c.output) << c.name;
    }
    EXPECT_NE(access("/tmp/kick-user", F_OK), 0);
}

TEST(RunCommand, StatusMapping) {
    EXPECT_EQ(run_command("exit 0"), 0);
    EXPECT_EQ(run_command("exit 1"), 256);  // kept as the raw status
    EXPECT_EQ(run_command("exit 2"), 2);
    EXPECT_EQ(run_command("exit 255"), 255);
    EXPECT_NE(run_command("kill -9 $$"), 0);
}
