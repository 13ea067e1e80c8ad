// Session kicks (48, 53, 54), firmware upload and the upgrade relay (241),
// and the throughput test (32, 33).
#include <sys/mount.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "harness.h"

constexpr int err = 83;

static bytes kick_request(const std::string& name, size_t extra = 0) {
    bytes p(4 + name.size() + extra, '!');
    p[0] = (uint8_t)name.size();
    p[1] = (uint8_t)(name.size() >> 8);
    p[2] = p[3] = 0;
    std::copy(name.begin(), name.end(), p.begin() + 4);
    return p;
}

static double now_s() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

class Kick : public daemon_test {
protected:
    void SetUp() override {
        daemon_test::SetUp();
        router::install_helper("do-pppkick", "exit 0");
        router::install_helper("do-hotkick", "exit 0");
    }
    void kick(int action, const bytes& packet, const char* result, int flags = 0) {
        begin(action, 0, flags);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        client.send_bytes(packet);
        EXPECT_BYTES(reply(), result);
        EXPECT_EQ(exit_status(), 0);
    }
};

TEST_F(Kick, LongestNameIsHandedOver) {
    std::string name(255, 'n');
    kick(48, kick_request(name), "03 01 01 00 00 00 00");
    EXPECT_EQ(router::read_file("/tmp/kick-user"), name + "\n");
    EXPECT_EQ(router::helper_calls(), std::vector<std::string>{"do-pppkick"});
    std::vector<std::string> lines = out_lines();
    EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end()),
              (std::vector<std::string>{"kick ppp user", "size: 259", "size of username: 255",
                                        "ppp user name to kick: " + name}));
}

TEST_F(Kick, MalformedRequestsAreNoSuchUser) {
    struct {
        const char* name;
        bytes packet;
        const char* last_line;
    } cases[] = {
        {"256 bytes", kick_request(std::string(256, 'u')), "user name length of 256 is too long (max 255 characters)"},
        {"trailing byte", kick_request("a", 1), "packet size mismatch.  6 != 5"},
        {"length only", kick_request(""), "short packet, unable to find user name to kick"},
        {"length ffffffff", hex("FF FF FF FF 61 62"), "packet size mismatch.  6 != 3"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        router::forget_syslog();
        kick(48, c.packet, "03 01 06 00 00 00 00", 0x01);
        EXPECT_EQ(out_lines().back(), c.last_line);
        expect_log(err, "kelputild", "127.0.0.1 - No such user was found");
        client.close_now();
    }
    EXPECT_EQ(router::helper_calls(), std::vector<std::string>{});
    EXPECT_FALSE(router::exists("/tmp/all.dirty"));  // no post-action after code 6
}

TEST_F(Kick, HelperFailureIsNoSuchUser) {
    for (const char* status : {"1", "2", "missing"}) {
        SCOPED_TRACE(status);
        if (std::string(status) == "missing")
            unlink((std::string(router::helper_dir) + "/do-hotkick").c_str());  // the shell's 127
        else
            router::install_helper("do-hotkick", std::string("exit ") + status);
        kick(53, kick_request("bob"), "03 01 06 00 00 00 00", 0x01);
        EXPECT_EQ(router::read_file("/tmp/hotspot.user2kick"), "bob\n");
        EXPECT_FALSE(router::exists("/tmp/monitor"));
        client.close_now();
    }
    EXPECT_EQ(router::helper_calls(), (std::vector<std::string>{"do-hotkick user", "do-hotkick user"}));
}

TEST_F(Kick, HotspotAddress) {
    kick(54, hex("0A 00 00 07"), "03 01 01 00 00 00 00", 0x01);
    EXPECT_EQ(router::helper_calls(), std::vector<std::string>{"do-hotkick ip 10.0.0.7"});
    EXPECT_EQ(out_lines().back(), "hotspot ip name to kick: 10.0.0.7");
    EXPECT_EQ(router::read_file("/tmp/monitor"), "apply\n");
}

class Firmware : public daemon_test {
protected:
    void SetUp() override {
        daemon_test::SetUp();
        router::install_helper("spawn", "\"$@\" </dev/null >/dev/null 2>&1 &");
    }
    // A fake flash-upgrade that writes these lines into the FIFO.
    void upgrade_writes(const std::string& lines) {
        router::write_file("/run/sandbox/progress", lines);
        router::install_helper("flash-upgrade", "cat /run/sandbox/progress > /tmp/upgrade");
    }
};

TEST_F(Firmware, BusyRefusesBeforeTheProbe) {
    router::write_file("/tmp/busy", "");
    begin(241, 0, 0, 10);
    EXPECT_BYTES(reply(), "03 01 04 00 00 00 00");
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(tmp_files(), std::vector<std::string>{"busy"});
}

TEST_F(Firmware, ImageThatDoesNotFitIsRefused) {
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=256k"), 0);
    begin(241, 0, 0, 1 << 20);
    EXPECT_BYTES(reply(), "03 01 02 00 00 00 00");
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(tmp_files(), std::vector<std::string>{});
    client.close_now();
    begin(241, 0, 0, 0x80000000u);  // beyond a signed 32-bit size
    EXPECT_BYTES(reply(), "03 01 02 00 00 00 00");
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(Firmware, StoredWithoutUpgrade) {
    for (uint32_t size : {0u, 3000u}) {
        SCOPED_TRACE(size);
        bytes image(size);
        for (size_t i = 0; i < image.size(); i++) image[i] = (uint8_t)(i * 13);
        begin(241, 0, 0x02, size);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        upload(image);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        EXPECT_TRUE(client.closed_by_peer());
        EXPECT_EQ(exit_status(), 0);
        std::string stored = router::read_file("/tmp/firmware.bin");
        EXPECT_EQ(bytes(stored.begin(), stored.end()), image);
        EXPECT_FALSE(router::exists("/tmp/monitor"));  // 241 never asks for a reboot
        client.close_now();
    }
}

TEST_F(Firmware, UpgradeProgressIsRelayed) {
    std::string long_line(1030, 'L');
    for (int i = 0; i < 1030; i++) long_line[(size_t)i] = (char)('a' + i % 26);
    upgrade_writes("50%\n\n" + long_line + "\ndone.\n done\ndone\nnever sent\n");
    begin(241, 0, 0x03, 100);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    upload(bytes(100, 'i'));
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    std::vector<std::string> lines;
    for (int i = 0; i < 10; i++) {
        bytes f = client.receive(1462, 10000);
        ASSERT_EQ(f.size(), 1462u);
        size_t length = f[0] | (f[1] << 8);
        if (i == 0) {
            EXPECT_BYTES(bytes(f.begin(), f.begin() + 6), "04 00 35 30 25 00");
        }
        ASSERT_GE(length, 1u);
        EXPECT_EQ(f[2 + length - 1], 0);
        lines.emplace_back(f.begin() + 2, f.begin() + 2 + length - 1);
        if (lines.back() == "done") break;
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"50%", long_line.substr(0, 1024), long_line.substr(1025), "done.",
                                               " done", "done"}));
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
    EXPECT_FALSE(router::exists("/tmp/upgrade"));
    EXPECT_FALSE(router::exists("/tmp/monitor"));
    EXPECT_EQ(router::helper_calls(), (std::vector<std::string>{"spawn flash-upgrade x y z", "flash-upgrade x y z"}));
}

class Throughput : public daemon_test {};

TEST_F(Throughput, DaemonSendsUntilTheClientCloses) {
    begin(32, 0, 0x02);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    size_t got = client.receive(4 << 20).size();
    EXPECT_EQ(got, 4u << 20);
    client.close_now();
    EXPECT_EQ(exit_status(5000), router::still_running);  // the reboot loop
    expect_log(86, "kelputild", "127.0.0.1 - rebooting the system");
}

TEST_F(Throughput, DaemonGivesUpOnAClientThatStopsReading) {
    begin(32);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    client.receive(1 << 20);
    double t0 = now_s();
    EXPECT_EQ(exit_status(8000), 0);
    EXPECT_LT(now_s() - t0, 6.0);
}

TEST_F(Throughput, DaemonReceivesUntilShutdownWithoutResult) {
    begin(33, 0, 0x01);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    bytes block(1 << 20, 'x');
    for (int i = 0; i < 8; i++) ASSERT_TRUE(client.send_bytes(block));
    client.shutdown_write();
    EXPECT_TRUE(client.closed_by_peer(5000));
    EXPECT_EQ(client.receive(1, 200).size(), 0u);  // no result packet
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(router::read_file("/tmp/monitor"), "apply\n");
}

TEST_F(Throughput, DaemonStopsAfterThreeQuietSeconds) {
    begin(33);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    double t0 = now_s();
    EXPECT_TRUE(client.closed_by_peer(6000));
    EXPECT_GT(now_s() - t0, 2.5);
    EXPECT_EQ(exit_status(), 0);
}
