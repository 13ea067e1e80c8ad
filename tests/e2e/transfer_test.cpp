// Files in frames, the configuration bundle (actions 1 and 3) and the
// script exchange (actions 2 and 4), checked on the wire.
#include <sys/mount.h>
#include <unistd.h>

#include "bundle.h"
#include "harness.h"

constexpr int info = 86, err = 83;

static std::string text(const bytes& b) { return std::string(b.begin(), b.end()); }
static bytes data(const std::string& s) { return bytes(s.begin(), s.end()); }
static bool contains(const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
}

class Transfer : public daemon_test {
protected:
    void SetUp() override {
        daemon_test::SetUp();
        router::install_helper("do-prepconfigs", "printf 'hello router\\n' > /tmp/saved-configs");
        // Keeps what it was handed, as the real helper installs it.
        router::install_helper("do-saveconfigs", "cp /tmp/saved-configs /run/sandbox/installed");
        router::install_helper("save-configs");
        router::install_helper("do-advnet");
    }
};

TEST_F(Transfer, BackupSendsTheLiteralBundle) {
    begin(1);
    EXPECT_BYTES(reply(), "03 01 01 3D 00 00 00");
    bytes f = client.receive(1462);
    ASSERT_EQ(f.size(), 1462u);
    EXPECT_BYTES(bytes(f.begin(), f.begin() + 2 + 61),
                 "3D 00"
                 " 6B 65 6C 70 2D 76 33 20 63 6F 6E 66 69 67 75 72 61 74 69 6F 6E 00 00 00"
                 " C8 65 E7 50 83 F1 D4 D0 BF 75 79 15 38 9C 80 8D"
                 " 01 00 00 20 3D 00 00 00"
                 " 44 8D DC 85 FA 26 12 7B 1A 50 65 43 57");
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(router::helper_calls(), std::vector<std::string>{"do-prepconfigs"});
    EXPECT_TRUE(contains(out_lines(), "Sending client the configuration"));
    EXPECT_TRUE(contains(out_lines(), "done.."));
    expect_log(info, "kelputild", "127.0.0.1 - configuration being sent to client");
    EXPECT_EQ(tmp_files(), std::vector<std::string>{});
}

TEST_F(Transfer, BackupOfLargeConfigurationDeciphersFromTheFirstByte) {
    router::install_helper("do-prepconfigs", "head -c 5000 /dev/zero > /tmp/saved-configs");
    begin(1);
    EXPECT_BYTES(reply(), "03 01 01 B8 13 00 00");  // 5048
    bytes b = download(5048);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    // Body of zeros = the keystream of 5e13c07a9d4b2268 (independent RC4).
    EXPECT_BYTES(bytes(b.begin() + 48, b.begin() + 52), "2C E8 B0 E9");
    EXPECT_BYTES(bytes(b.begin() + 48 + 1020, b.begin() + 48 + 1025), "9A 9A AD 7F 01");
    bytes plain;
    EXPECT_TRUE(kelp::unpack_bundle(b, &plain));
    EXPECT_EQ(plain, bytes(5000, 0));
}

TEST_F(Transfer, BackupWithoutConfigurationFails) {
    for (const char* helper : {": > /tmp/saved-configs", "true"}) {
        SCOPED_TRACE(helper);
        router::install_helper("do-prepconfigs", helper);
        begin(1, 0, 0x01);
        EXPECT_BYTES(reply(), "03 01 00 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        expect_log(err, "kelputild", "127.0.0.1 - Action Failed");
        EXPECT_FALSE(router::exists("/tmp/all.dirty"));
        EXPECT_EQ(tmp_files(), std::vector<std::string>{});
        client.close_now();
    }
}

TEST_F(Transfer, RestoreSizeLimitsComeBeforeAnyFrame) {
    struct {
        uint32_t size;
        const char* answer;
        int status;
    } cases[] = {
        {1023, "03 01 03 00 00 00 00", 1},
        {524289, "03 01 02 00 00 00 00", 1},
        {1024, "03 01 01 00 00 00 00", router::still_running},
        {524288, "03 01 01 00 00 00 00", router::still_running},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.size);
        begin(3, 0, 0, c.size);
        EXPECT_BYTES(reply(), c.answer);
        EXPECT_EQ(exit_status(c.status == 1 ? 5000 : 200), c.status);
        expect_log(info, "kelputild", "127.0.0.1 - client uploading new configuration");
        client.close_now();
        exit_status();
        router::forget_syslog();
    }
}

// A bundle built by the client library, checked against literals in the
// unit tests; here it exercises the daemon's verifier end to end.
static bytes bundle_of(size_t plain_size, char fill = 'c') { return kelp::pack_bundle(bytes(plain_size, (uint8_t)fill)); }

TEST_F(Transfer, RestoreInstallsAGoodBundle) {
    bytes b = bundle_of(2000);
    begin(3, 0, 0x01, (uint32_t)b.size());
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    upload(b);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(router::read_file("/run/sandbox/installed"), std::string(2000, 'c'));
    std::vector<std::string> lines = out_lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()),
              (std::vector<std::string>{"verifying file..", "ok.."}));
    EXPECT_EQ(router::read_file("/tmp/monitor"), "apply\n");
    EXPECT_EQ(tmp_files(), (std::vector<std::string>{"all.dirty", "monitor"}));
}

TEST_F(Transfer, RestoreRejectsDamagedBundles) {
    struct {
        const char* name;
        void (*alter)(bytes&);
        const char* tag;
        bool accepted;
    } cases[] = {
        {"flipped body byte", [](bytes& b) { b[1500] ^= 0x40; }, "!md5(1)", false},
        {"one byte longer", [](bytes& b) { b.push_back(0); }, "!size", false},
        {"format word", [](bytes& b) { b[40] = 0x20; b[43] = 0x01; }, "!ver", false},
        {"altered title", [](bytes& b) { b[3] = 'X'; }, "ok..", true},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        unlink("/run/sandbox/installed");
        bytes b = bundle_of(2000);
        c.alter(b);
        begin(3, 0, 0x01, (uint32_t)b.size());
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        upload(b);
        EXPECT_BYTES(reply(), c.accepted ? "03 01 01 00 00 00 00" : "03 01 00 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        std::vector<std::string> lines = out_lines();
        EXPECT_TRUE(contains(lines, c.tag));
        EXPECT_EQ(contains(lines, "failed.."), !c.accepted);
        EXPECT_EQ(router::exists("/run/sandbox/installed"), c.accepted);
        // No apply after a rejected bundle; nothing left behind either way.
        EXPECT_EQ(router::exists("/tmp/monitor"), c.accepted);
        unlink("/tmp/monitor");
        unlink("/tmp/all.dirty");
        EXPECT_EQ(tmp_files(), std::vector<std::string>{});
        client.close_now();
    }
}

TEST_F(Transfer, ScriptDownloads) {
    struct {
        int script;
        const char* path;
        const char* word;
    } cases[] = {
        {1, "/etc/config/cbq.scr", "cbq"},
        {2, "/etc/config/fw.scr", "fw"},
        {3, "/etc/config/nat.scr", "nat"},
        {7, "/etc/config/dhcpd.conf", "dhcp"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.word);
        std::string body = std::string(c.word) + " script\n";
        router::write_file(c.path, body);
        begin(2, c.script);
        bytes size = reply();
        EXPECT_EQ(size, (bytes{3, 1, 1, (uint8_t)body.size(), 0, 0, 0}));
        EXPECT_EQ(text(download((uint32_t)body.size())), body);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        expect_log(info, "kelputild", "127.0.0.1 - " + std::string(c.word) + " script sent to client");
        client.close_now();
    }
}

TEST_F(Transfer, FrameBoundaries) {
    router::write_file("/etc/config/fw.scr", std::string(1461, 'f'));
    begin(2, 2);
    EXPECT_BYTES(reply(), "03 01 01 B5 05 00 00");
    bytes f1 = client.receive(1462), f2 = client.receive(1462);
    EXPECT_BYTES(bytes(f1.begin(), f1.begin() + 3), "B4 05 66");
    EXPECT_BYTES(bytes(f2.begin(), f2.begin() + 3), "01 00 66");
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    client.close_now();
    exit_status();

    router::write_file("/etc/config/fw.scr", "");
    begin(2, 2);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");  // size 0, no frame
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");  // result
    EXPECT_EQ(exit_status(), 0);
}

TEST_F(Transfer, ScriptNumbersOutsideTheTable) {
    for (int script : {4, 5, 6}) {
        begin(2, script);
        EXPECT_BYTES(reply(), "03 01 04 00 00 00 00");
        EXPECT_EQ(exit_status(), 1);
        client.close_now();
    }
    for (int script : {0, 8, 255}) {
        SCOPED_TRACE(script);
        router::forget_syslog();
        begin(2, script);
        EXPECT_TRUE(client.closed_by_peer());
        EXPECT_EQ(exit_status(), 1);
        EXPECT_EQ(out_lines().back(), "Unknown script: " + std::to_string(script));
        expect_log(err, "kelputild", "127.0.0.1 - requested script is unknown");
        client.close_now();
    }
}

TEST_F(Transfer, MissingScriptSendsSizeZeroThenCloses) {
    begin(2, 3);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_TRUE(client.closed_by_peer());
    EXPECT_EQ(exit_status(), 1);
}

TEST_F(Transfer, ScriptUploadChecks) {
    router::write_file("/tmp/busy", "");
    begin(4, 200, 0, 10);  // busy wins over an unknown script
    EXPECT_BYTES(reply(), "03 01 04 00 00 00 00");
    EXPECT_EQ(exit_status(), 1);
    client.close_now();
    unlink("/tmp/busy");

    struct {
        uint32_t size;
        const char* answer;
    } cases[] = {{0, "03 01 03 00 00 00 00"}, {524289, "03 01 02 00 00 00 00"}};
    for (auto& c : cases) {
        begin(4, 1, 0, c.size);
        EXPECT_BYTES(reply(), c.answer);
        EXPECT_EQ(exit_status(), 1);
        client.close_now();
    }
    EXPECT_EQ(router::helper_calls(), std::vector<std::string>{});
}

TEST_F(Transfer, ScriptUploadInstallsAndApplies) {
    struct {
        int script;
        const char* path;
        std::vector<std::string> calls;
        const char* monitor;
    } cases[] = {
        {1, "/etc/config/cbq.scr", {"save-configs", "do-advnet"}, nullptr},
        {7, "/etc/config/dhcpd.conf", {"save-configs"}, "apply\n"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.script);
        router::write_file("/run/sandbox/calls", "");
        bytes body(524288);
        for (size_t i = 0; i < body.size(); i++) body[i] = (uint8_t)(i * 7 + c.script);
        begin(4, c.script, 0x01, (uint32_t)body.size());
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        upload(body);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        EXPECT_EQ(data(router::read_file(c.path)), body);
        EXPECT_EQ(router::helper_calls(), c.calls);
        EXPECT_EQ(router::exists("/tmp/ips.dirty"), c.monitor != nullptr);
        EXPECT_FALSE(router::exists("/tmp/kelputil.dat"));
        client.close_now();
    }
    EXPECT_EQ(router::read_file("/tmp/monitor"), "apply\n");
}

TEST_F(Transfer, BadFramesAbortTheUpload) {
    struct {
        const char* name;
        bytes second;
    } cases[] = {
        {"length 0", frame({})},
        {"length above 1460", [] { bytes f = frame({}); f[0] = 0xB5; f[1] = 0x05; return f; }()},
        {"more than declared", frame(bytes(1460, 'x'))},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        router::write_file("/etc/config/fw.scr", "keep\n");
        begin(4, 2, 0, 2000);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        client.send_bytes(frame(bytes(1000, 'a')));
        client.send_bytes(c.second);
        client.shutdown_write();
        EXPECT_TRUE(client.closed_by_peer(12000));
        EXPECT_EQ(exit_status(), 1);
        EXPECT_EQ(out_lines().back(), "read failed..");
        EXPECT_EQ(router::read_file("/etc/config/fw.scr"), "keep\n");
        EXPECT_EQ(tmp_files(), std::vector<std::string>{});
        client.close_now();
    }
}

// Writes to a full /tmp are not checked: the transfer goes on and succeeds,
// installing what fitted.
TEST_F(Transfer, FullTmpDuringUpload) {
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k"), 0);
    begin(4, 2, 0, 200000);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    upload(bytes(200000, 'z'));
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
    EXPECT_EQ(router::read_file("/etc/config/fw.scr").size(), 65536u);
    EXPECT_FALSE(router::exists("/tmp/kelputil.dat"));
}
