// The service core end to end: names and modes, the listener, the greeting,
// the password check, the request and action 0 with its post-actions.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "harness.h"

constexpr int info = 86, notice = 85, err = 83, alert = 81;

class Core : public daemon_test {};

TEST_F(Core, PlainModeNames) {
    for (const char* name : {"kelputild", "/x/y/kelputild", "kelputild.exe", "kelputild.exe.old"}) {
        SCOPED_TRACE(name);
        start(name, 856);
        connect_and_greet(856);
        client.send_bytes(auth_reply(greeting, "wrong"));
        EXPECT_BYTES(client.receive(3), "01 01 00");
        EXPECT_EQ(exit_status(), 2);
        expect_log(alert, "kelputild", "127.0.0.1 - authentication failed");
        client.close_now();
        router::forget_syslog();
    }
}

TEST_F(Core, OtherNamesChooseTlsPortAndIdent) {
    for (const char* name : {"KELPUTILD", "kelputild-tls"}) {
        SCOPED_TRACE(name);
        start(name, 857);
        ASSERT_TRUE(client.connect_to(857));
        client.send_bytes(hex("16 03 01 00 05 01 00 00 01 00 ff ff ff ff ff ff ff ff ff ff ff ff"));
        EXPECT_EQ(exit_status(), 1);
        expect_log(err, "kelputild/ssl", "127.0.0.1 - ssl negotiation failed");
        client.close_now();
    }
}

TEST_F(Core, WaitsWhileThePortIsBusy) {
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(856);
    ASSERT_EQ(bind(blocker, (struct sockaddr*)&a, sizeof a), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    daemon = router::start(KELP_DAEMON, "kelputild", emulator_prefix());
    usleep(1500 * 1000);
    EXPECT_EQ(out(), "Waiting for tcp port 856 to become available: ");
    close(blocker);
    for (int i = 0; i < 300 && out().find("Ok") == std::string::npos; i++) usleep(10000);
    EXPECT_EQ(out(), "Waiting for tcp port 856 to become available: Ok\n");
    EXPECT_TRUE(router::wait_for_listener(856, 1000));
}

TEST_F(Core, GreetingBytesAndFreshChallenges) {
    bytes challenges[2];
    for (bytes& challenge : challenges) {
        start();
        connect_and_greet();
        EXPECT_EQ(std::string(greeting.begin(), greeting.begin() + 23), "kelp-v3 utility server\n");
        EXPECT_BYTES(bytes(greeting.begin() + 23, greeting.begin() + 25), "00 FF");
        EXPECT_BYTES(bytes(greeting.begin() + 33, greeting.end()), "02 01");
        challenge.assign(greeting.begin() + 25, greeting.begin() + 33);
        login();
        request(0);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
        EXPECT_EQ(exit_status(), 0);
        client.close_now();
    }
    EXPECT_NE(challenges[0], challenges[1]);
}

TEST_F(Core, PasswordIsCheckedAndPrinted) {
    start();
    connect_and_greet();
    login();
    EXPECT_EQ(out_lines().at(1), "Password received: secret");
    client.close_now();
    EXPECT_EQ(exit_status(), 1);
    expect_log(err, "kelputild", "127.0.0.1 - protocol error");
}

TEST_F(Core, WrongPasswordIsRefused) {
    start();
    connect_and_greet();
    client.send_bytes(auth_reply(greeting, "Secret"));
    EXPECT_BYTES(client.receive(3), "01 01 00");
    EXPECT_TRUE(client.closed_by_peer());
    EXPECT_EQ(exit_status(), 2);
    auto lines = out_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "Password received: Secret");
    EXPECT_EQ(lines[2], "authentication failed.");
    expect_log(alert, "kelputild", "127.0.0.1 - authentication failed");
}

TEST_F(Core, LongPasswordIsCutTo31Characters) {
    std::string forty(40, 'p');
    for (int i = 0; i < 40; i++) forty[(size_t)i] = (char)('a' + i % 26);
    router::set_admin_password(forty.substr(0, 31));
    start();
    connect_and_greet();
    login(forty);
    EXPECT_EQ(out_lines().at(1), "Password received: " + forty.substr(0, 31));
}

TEST_F(Core, PasswdFileProblemsRefuse) {
    struct {
        const char* name;
        std::string passwd;  // empty: no file
        const char* typed;
    } cases[] = {
        {"empty password field", "admin::0:0::/:/bin/sh\n", ""},
        {"missing file", "", "secret"},
        {"no admin line", "root:" + router::des_hash("secret") + ":0:0::/:/bin/sh\n", "secret"},
        {"other hash form", "admin:$6$salt$abc:0:0::/:/bin/sh\n", "secret"},
        // Opening fails even for root: a write-only kernel setting in its place.
        {"unreadable file", "<write-only>", "secret"},
        // Opening succeeds and every read fails.
        {"directory in its place", "<directory>", "secret"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        umount2("/etc/passwd", MNT_DETACH);
        rmdir("/etc/passwd");
        if (c.passwd.empty()) {
            unlink("/etc/passwd");
        } else if (c.passwd == "<write-only>") {
            router::set_admin_password("secret");
            ASSERT_EQ(mount("/proc/sys/net/ipv4/route/flush", "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
        } else if (c.passwd == "<directory>") {
            unlink("/etc/passwd");
            ASSERT_EQ(mkdir("/etc/passwd", 0755), 0);
        } else {
            router::write_file("/etc/passwd", c.passwd);
        }
        start();
        connect_and_greet();
        client.send_bytes(auth_reply(greeting, c.typed));
        EXPECT_BYTES(client.receive(3), "01 01 00");
        EXPECT_EQ(exit_status(), 2);
        client.close_now();
    }
}

TEST_F(Core, ProtocolErrorsDuringAuth) {
    struct {
        const char* name;
        bytes sent;
    } cases[] = {
        {"wrong tag", hex("01 02")},
        {"connect and close", {}},
        {"short reply", hex("02 01 00 00")},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        start();
        connect_and_greet();
        if (c.sent.size() == 2) {
            bytes reply = auth_reply(greeting, password);
            reply[0] = c.sent[0];
            reply[1] = c.sent[1];
            client.send_bytes(reply);
        } else {
            client.send_bytes(c.sent);
            client.shutdown_write();
        }
        EXPECT_TRUE(client.closed_by_peer());
        EXPECT_EQ(exit_status(), 1);
        expect_log(err, "kelputild", "127.0.0.1 - protocol error during auth (probable port scan)");
        EXPECT_EQ(out().find("Password received"), std::string::npos);
        client.close_now();
    }
}

TEST_F(Core, ShortRequestIsAProtocolError) {
    start();
    connect_and_greet();
    login();
    client.send_bytes(bytes(41, 0));
    client.shutdown_write();
    EXPECT_TRUE(client.closed_by_peer());
    EXPECT_EQ(exit_status(), 1);
    expect_log(err, "kelputild", "127.0.0.1 - protocol error");
}

TEST_F(Core, RequestDebugLines) {
    start();
    connect_and_greet();
    login();
    bytes req = act_pkt(0, 9, 0, 0);
    req[0] = 0x12;
    req[1] = 0x34;
    req[2] = 0x07;
    req[38] = 0x10;
    req[41] = 0x80;
    client.send_bytes(req);
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");
    EXPECT_EQ(exit_status(), 0);
    std::vector<std::string> lines = out_lines();
    std::vector<std::string> tail(lines.end() - 7, lines.end());
    EXPECT_EQ(tail, (std::vector<std::string>{"act size: 42, struct act_pkt 42", "req: 1234", "mode: 7", "action: 0",
                                              "script: 9", "flags: 00", "size: -2147483632"}));
}

TEST_F(Core, ActionZeroPostActions) {
    struct {
        int flags;
        const char* monitor;
        bool all_dirty;
        bool reboots;
    } cases[] = {
        {0x00, nullptr, false, false},
        {0x01, "apply\n", true, false},
        {0x02, "reboot\n", false, true},
        {0x03, "reboot\n", false, true},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.flags);
        unlink("/tmp/monitor");
        unlink("/tmp/all.dirty");
        router::write_file("/tmp/saved-configs", "x");
        router::write_file("/tmp/saved-configs.dat", "y");
        start();
        connect_and_greet();
        login();
        request(0, 0, c.flags);
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");  // ready
        EXPECT_BYTES(reply(), "03 01 01 00 00 00 00");  // result
        EXPECT_TRUE(client.closed_by_peer());
        if (c.reboots) {
            expect_log(info, "kelputild", "127.0.0.1 - rebooting the system");
            for (int i = 0; i < 100 && router::read_file("/tmp/monitor").empty(); i++) usleep(20000);
            EXPECT_EQ(exit_status(300), router::still_running);
            router::kill_process(daemon);
        } else {
            EXPECT_EQ(exit_status(), 0);
        }
        bool monitor_exists;
        std::string monitor = router::read_file("/tmp/monitor", &monitor_exists);
        EXPECT_EQ(monitor_exists, c.monitor != nullptr);
        if (c.monitor) {
            EXPECT_EQ(monitor, c.monitor);
        }
        EXPECT_EQ(router::exists("/tmp/all.dirty"), c.all_dirty);
        EXPECT_FALSE(router::exists("/tmp/saved-configs"));
        EXPECT_FALSE(router::exists("/tmp/saved-configs.dat"));
        client.close_now();
    }
}

TEST_F(Core, UnknownActionsAreNotSupported) {
    for (int action : {5, 20, 100, 255}) {
        SCOPED_TRACE(action);
        start();
        connect_and_greet();
        login();
        request(action, 0, 0x03);
        EXPECT_BYTES(reply(), "03 01 04 00 00 00 00");
        EXPECT_EQ(exit_status(), 1);
        expect_log(err, "kelputild", "127.0.0.1 - Action not supported");
        EXPECT_FALSE(router::exists("/tmp/monitor"));
        client.close_now();
    }
}


class CoreWithoutUrandom : public daemon_test {
    router::options sandbox_options() const override {
        router::options o;
        o.with_urandom = false;
        return o;
    }
};

TEST_F(CoreWithoutUrandom, FixedFallbackChallengeStillAuthenticates) {
    bytes challenges[2];
    for (bytes& challenge : challenges) {
        start();
        connect_and_greet();
        challenge.assign(greeting.begin() + 25, greeting.begin() + 33);
        login();
        client.close_now();
        exit_status();
    }
    EXPECT_EQ(challenges[0], challenges[1]);
}

TEST_F(Core, SilentClientTimesOutAfterTenSeconds) {
    start();
    connect_and_greet();
    EXPECT_EQ(exit_status(8000), router::still_running);
    EXPECT_EQ(exit_status(5000), 1);
    expect_log(err, "kelputild", "127.0.0.1 - protocol error during auth (probable port scan)");
}
