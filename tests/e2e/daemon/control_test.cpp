// Session kicks (48, 53, 54), firmware upload and the upgrade relay (241),
// and the throughput test (32, 33).
#include <sys/mount.h>
#include <unistd.h>

#include "harness.h"

class Control : public daemon_test {
protected:
    void install_helpers() override {
        for (const char* kick : {"do-pppkick", "do-hotkick"}) router::install_helper(kick, "exit 0");
        router::install_helper("spawn", "\"$@\" </dev/null >/dev/null 2>&1 &");
    }
};

// A failed kick is code 6 through the common ending: exit 0, and no
// post-action although every failing row asks for one.
TEST_F(Control, Kicks) {
    const std::string name(255, 'n');
    const bytes no_such_user = ok + hex("03 01 06 00 00 00 00");
    const std::pair<int, std::string> failed = {err, "127.0.0.1 - No such user was found"};
    run({
        {.name = "ppp user of 255 bytes", .request = act_pkt(48), .body = kick_request(name), .replies = ok + ok,
         .logs = {{info, "127.0.0.1 - kicking ppp user"}},
         .out = {"kick ppp user", "size: 259", "size of username: 255", "ppp user name to kick: " + name},
         .calls = {"do-pppkick"}, .left = {"kick-user=" + name + "\n"}},
        {.name = "256 bytes", .request = act_pkt(48, 0, 0x01), .body = kick_request(std::string(256, 'u')),
         .replies = no_such_user, .logs = {failed},
         .out = {"user name length of 256 is too long (max 255 characters)"}},
        // All four bytes FF: the length reads as -1.
        {.name = "length ffffffff", .request = act_pkt(48, 0, 0x01), .body = hex("FF FF FF FF 61 62"),
         .replies = no_such_user, .out = {"packet size mismatch.  6 != 3"}},
        {.name = "length alone", .request = act_pkt(48, 0, 0x01), .body = kick_request(""), .replies = no_such_user,
         .out = {"size: 4", "short packet, unable to find user name to kick"}},
        {.name = "hotspot user, helper exits 1", .helpers = {{"do-hotkick", "exit 1"}}, .request = act_pkt(53, 0, 0x01),
         .body = kick_request("b"), .replies = no_such_user,
         .logs = {{info, "127.0.0.1 - kicking hotspot user"}, failed},
         .out = {"kick hotspot user", "size: 5", "size of username: 1", "hotspot user name to kick: b"},
         .calls = {"do-hotkick user"}, .left = {"hotspot.user2kick=b\n"}},
        {.name = "helper exits 2", .helpers = {{"do-hotkick", "exit 2"}}, .request = act_pkt(53, 0, 0x01),
         .body = kick_request("bob"), .replies = no_such_user, .calls = {"do-hotkick user"},
         .left = {"hotspot.user2kick=bob\n"}},
        {.name = "helper missing", .setup = [] { unlink((std::string(router::helper_dir) + "/do-hotkick").c_str()); },
         .request = act_pkt(53, 0, 0x01), .body = kick_request("bob"), .replies = no_such_user,
         .left = {"hotspot.user2kick=bob\n"}},
        {.name = "hotspot address", .request = act_pkt(54, 0, 0x01), .body = hex("0A 00 00 07"), .replies = ok + ok,
         .logs = {{info, "127.0.0.1 - kicking hotspot ip"}},
         .out = {"kick hotspot ip", "hotspot ip name to kick: 10.0.0.7"},
         .calls = {"do-hotkick ip 10.0.0.7"}, .left = {"all.dirty=", "monitor=apply\n"}},
    });
}

// Action 241 never asks for a post-action, whatever the flags.
TEST_F(Control, Firmware) {
    bytes image(3000);
    for (size_t i = 0; i < image.size(); i++) image[i] = (uint8_t)(i * 13);
    run({
        {.name = "busy", .files = {{"/tmp/busy", ""}}, .request = act_pkt(241, 0, 0, 10),
         .replies = hex("03 01 04 00 00 00 00"), .status = 1, .logs = {{err, "127.0.0.1 - Action not supported"}},
         .left = {"busy"}},
        {.name = "does not fit", .setup = [] { mount("tmpfs", "/tmp", "tmpfs", 0, "size=256k"); },
         .request = act_pkt(241, 0, 0, 1 << 20), .replies = hex("03 01 02 00 00 00 00"), .status = 1,
         .logs = {{err, "127.0.0.1 - File too large"}}},
        {.name = "beyond a signed 32-bit size", .request = act_pkt(241, 0, 0, 0x80000000u),
         .replies = hex("03 01 02 00 00 00 00"), .status = 1},
        {.name = "empty image", .request = act_pkt(241, 0, 0x02, 0), .replies = ok + ok,
         .logs = {{info, "127.0.0.1 - firmware received from client"}}, .left = {"firmware.bin="}},
        {.name = "image", .request = act_pkt(241, 0, 0x02, 3000), .body = frames(image), .replies = ok + ok,
         .left = {"firmware.bin=" + std::string(image.begin(), image.end())}},
        // What follows the image is never read.
        {.name = "image and a frame more", .request = act_pkt(241, 0, 0, 3000),
         .body = frames(image) + frame(bytes(10, 1)), .replies = ok + ok, .unread = true,
         .left = {"firmware.bin=" + std::string(image.begin(), image.end())}},
    });
}

TEST_F(Control, UpgradeProgressIsRelayed) {
    std::string long_line(1030, 'L');
    for (int i = 0; i < 1030; i++) long_line[(size_t)i] = (char)('a' + i % 26);
    router::write_file("/run/sandbox/progress", "50%\n\n" + long_line + "\ndone.\n done\ndone\nnever sent\n");
    router::install_helper("flash-upgrade", "cat /run/sandbox/progress > /tmp/upgrade");
    start();
    connect_and_greet();
    login();
    client.send_bytes(act_pkt(241, 0, 0x03, 100));
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    client.send_bytes(frame(bytes(100, 'i')));
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    strings lines;
    for (int i = 0; i < 10 && (lines.empty() || lines.back() != "done"); i++) {
        bytes f = client.receive(1462, 10000);
        ASSERT_EQ(f.size(), 1462u);
        size_t length = f[0] | (f[1] << 8);
        if (i == 0) {
            EXPECT_BYTES(bytes(f.begin(), f.begin() + 6), "04 00 35 30 25 00");
        }
        ASSERT_GE(length, 1u);
        EXPECT_EQ(f[2 + length - 1], 0);
        lines.emplace_back(f.begin() + 2, f.begin() + 2 + length - 1);
    }
    EXPECT_EQ(lines, (strings{"50%", long_line.substr(0, 1024), long_line.substr(1025), "done.", " done", "done"}));
    EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(tmp_files(), strings{"firmware.bin"});
    EXPECT_EQ(router::helper_calls(), (strings{"spawn flash-upgrade x y z", "flash-upgrade x y z"}));
}

// Raw bytes until the client goes or stalls for 3 s; the socket is closed
// by then, so no result packet ever arrives, yet the post-action runs.
TEST_F(Control, Throughput) {
    struct {
        const char* name;
        int action, flags;
        std::function<void(raw_client&)> client_does;
        double min_s, max_s;  // from the ready packet to the daemon's exit
        int status;
        strings left;
    } rows[] = {
        {"reads 4 MiB and closes", 32, 0x02, [](raw_client& c) { c.receive(4 << 20), c.close_now(); }, 0, 5,
         router::still_running, {"monitor"}},
        {"stops reading", 32, 0, [](raw_client& c) { c.receive(1 << 20); }, 2.5, 7, 0, {}},
        {"sends 8 MiB and shuts down", 33, 0x01, [](raw_client& c) {
             EXPECT_TRUE(c.send_bytes(bytes(8 << 20, 'x')));
             c.shutdown_write();
             EXPECT_TRUE(c.closed_by_peer());
         }, 0, 5, 0, {"all.dirty", "monitor"}},
        {"sends nothing", 33, 0, [](raw_client& c) { EXPECT_TRUE(c.closed_by_peer(6000)); }, 2.5, 7, 0, {}},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.name);
        fresh_router();
        start();
        connect_and_greet();
        login();
        client.send_bytes(act_pkt(r.action, 0, r.flags));
        EXPECT_BYTES(client.receive(7), "03 01 01 00 00 00 00");
        double t0 = now_s();
        r.client_does(client);
        EXPECT_EQ(exit_status(r.status ? 300 : 8000), r.status);
        EXPECT_GE(now_s() - t0, r.min_s);
        EXPECT_LT(now_s() - t0, r.max_s);
        for (int i = 0; i < 100 && tmp_files() != r.left; i++) usleep(20000);
        EXPECT_EQ(tmp_files(), r.left);
    }
}
