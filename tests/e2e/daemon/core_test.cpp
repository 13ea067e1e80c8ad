// The service core end to end: the listener, the greeting, the login, the
// request, and action 0 with the common ending and its post-actions.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "harness.h"

class Core : public daemon_test {};

static files passwd(const std::string& content) { return {{"/etc/passwd", content}}; }

TEST_F(Core, Login) {
    const std::string forty = "abcdefghijklmnopqrstuvwxyz0123456789ABCD", rest = ":0:0::/:/bin/sh\n";
    const std::pair<int, std::string> refused = {alert, "127.0.0.1 - authentication failed"},
                                      no_request = {err, "127.0.0.1 - protocol error"},
                                      scan = {err, "127.0.0.1 - protocol error during auth (probable port scan)"};
    const strings no_password = {"Waiting for tcp port 856 to become available: Ok"};
    run({
        {.name = "right password, no request", .status = 1, .logs = {no_request},
         .out = {"Password received: secret", "act size: 42, struct act_pkt 42"}},
        {.name = "wrong password", .typed = "Secret", .answer = "01 01 00", .status = 2, .logs = {refused},
         .out = {"Password received: Secret", "authentication failed."}},
        // Any name but "kelputild", case included, is the TLS daemon.
        {.name = "wrong password over TLS", .argv0 = "KELPUTILD", .typed = "Secret", .answer = "01 01 00", .status = 2,
         .logs = {refused}},
        {.name = "password cut to 31 characters",
         .files = passwd("admin:" + router::des_hash(forty.substr(0, 31)) + rest), .typed = forty, .status = 1,
         .out = {"Password received: " + forty.substr(0, 31), "act size: 42, struct act_pkt 42"}},
        // The empty field is skipped: the next one is taken as the hash.
        {.name = "empty password field", .files = passwd("admin::" + rest), .typed = "", .answer = "01 01 00",
         .status = 2},
        {.name = "no admin line", .files = passwd("root:" + router::des_hash("secret") + rest), .answer = "01 01 00",
         .status = 2},
        {.name = "other hash form", .files = passwd("admin:$6$salt$abc" + rest), .answer = "01 01 00", .status = 2},
        {.name = "no passwd file", .setup = [] { unlink("/etc/passwd"); }, .answer = "01 01 00", .status = 2},
        // Opening fails even for root: a write-only kernel setting in its place.
        {.name = "unreadable passwd",
         .setup = [] { mount("/proc/sys/net/ipv4/route/flush", "/etc/passwd", nullptr, MS_BIND, nullptr); },
         .answer = "01 01 00", .status = 2},
        // Opening succeeds and every read fails.
        {.name = "directory as passwd", .setup = [] { unlink("/etc/passwd"); mkdir("/etc/passwd", 0755); },
         .answer = "01 01 00", .status = 2},
        {.name = "wrong tag", .tag = 0x0201, .answer = "", .status = 1, .logs = {scan}, .out = no_password},
        {.name = "connect and close", .auth_len = 0, .answer = "", .status = 1, .logs = {scan}, .out = no_password},
        {.name = "short reply", .auth_len = 4, .answer = "", .status = 1, .logs = {scan}, .out = no_password},
        {.name = "short request", .request = bytes(41, 0), .status = 1, .logs = {no_request}},
        {.name = "silent client, 10 s", .auth_len = 0, .answer = "", .quiet_ms = 8000, .status = 1, .logs = {scan}},
    });
}

TEST_F(Core, ActionZeroAndTheCommonEnding) {
    const std::pair<int, std::string> reboot = {info, "127.0.0.1 - rebooting the system"};
    const files temporaries = {{"/tmp/saved-configs", "x"}, {"/tmp/saved-configs.dat", "y"}};
    run({
        {.name = "action 0", .files = temporaries, .request = act_pkt(0), .replies = ok + ok},
        {.name = "apply", .request = act_pkt(0, 0, 0x01), .replies = ok + ok,
         .left = {"all.dirty=", "monitor=apply\n"}},
        {.name = "reboot", .request = act_pkt(0, 0, 0x02), .replies = ok + ok, .status = router::still_running,
         .logs = {reboot}, .left = {"monitor=reboot\n"}},
        {.name = "reboot wins over apply", .request = act_pkt(0, 0, 0x03), .replies = ok + ok,
         .status = router::still_running, .logs = {reboot}, .left = {"monitor=reboot\n"}},
        {.name = "request printed", .request = hex("12 34 07 00 09 0C") + bytes(32, 0xEE) + hex("10 00 00 80"),
         .replies = ok + ok,
         .out = {"act size: 42, struct act_pkt 42", "req: 1234", "mode: 7", "action: 0", "script: 9", "flags: 0C",
                 "size: -2147483632"}},
        // A refusal skips the common ending: no post-action, nothing removed.
        {.name = "action 5", .files = temporaries, .request = act_pkt(5, 0, 0x03),
         .replies = hex("03 01 04 00 00 00 00"), .status = 1, .logs = {{err, "127.0.0.1 - Action not supported"}},
         .left = {"saved-configs", "saved-configs.dat"}},
        {.name = "action 255", .request = act_pkt(255, 0, 0x01), .replies = hex("03 01 04 00 00 00 00"), .status = 1},
    });
}

// Every connection has its own challenge; without /dev/urandom it is a fixed
// one, and the login still works. (Every run() checks the greeting's bytes.)
TEST_F(Core, Challenges) {
    for (bool urandom : {true, false}) {
        bytes challenges[2];
        for (bytes& challenge : challenges) {
            fresh_router({.with_urandom = urandom});
            start();
            connect_and_greet();
            challenge.assign(greeting.begin() + 25, greeting.begin() + 33);
            login();
        }
        EXPECT_EQ(challenges[0] == challenges[1], !urandom);
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
