// Files in frames, the configuration bundle (actions 1 and 3) and the
// script exchange (actions 2 and 4), checked on the wire.
#include <sys/mount.h>

#include "bundle.h"
#include "harness.h"

class Transfer : public daemon_test {
protected:
    void install_helpers() override {
        router::install_helper("do-prepconfigs", "printf 'hello router\\n' > /tmp/saved-configs");
        // Keeps what it was handed, as the real helper installs it.
        router::install_helper("do-saveconfigs", "cp /tmp/saved-configs /tmp/installed");
        router::install_helper("save-configs");
        router::install_helper("do-advnet");
    }
};

static std::pair<int, std::string> log_info(const std::string& text) { return {info, "127.0.0.1 - " + text}; }
static std::pair<int, std::string> log_err(const std::string& text) { return {err, "127.0.0.1 - " + text}; }

// The daemon's bundle bytes are checked against literals in the unit tests;
// here the client library's packer stands for them.
TEST_F(Transfer, Configuration) {
    const bytes good = kelp::pack_bundle(bytes(2000, 'c'));
    bytes damaged = good;
    damaged[1500] ^= 0x40;
    const std::string failed = "read failed..";
    run({
        {.name = "backup", .request = act_pkt(1),
         .replies = hex("03 01 01 3D 00 00 00") + frame(kelp::pack_bundle(text("hello router\n"))) + ok,
         .logs = {log_info("configuration being sent to client")},
         .out = {"Sending client the configuration", "done.."}, .calls = {"do-prepconfigs"}},
        {.name = "backup of nothing", .helpers = {{"do-prepconfigs", ": > /tmp/saved-configs"}},
         .request = act_pkt(1, 0, 0x01), .replies = hex("03 01 00 00 00 00 00"), .logs = {log_err("Action Failed")},
         .calls = {"do-prepconfigs"}},
        {.name = "restore of 1023 bytes", .request = act_pkt(3, 0, 0, 1023), .replies = hex("03 01 03 00 00 00 00"),
         .status = 1, .logs = {log_info("client uploading new configuration"), log_err("File too small")}},
        {.name = "restore of 524289 bytes", .request = act_pkt(3, 0, 0, 524289), .replies = hex("03 01 02 00 00 00 00"),
         .status = 1, .logs = {log_err("File too large")}},
        // Accepted sizes: the ready packet, then the upload fails as nothing comes.
        {.name = "restore of 1024 bytes", .request = act_pkt(3, 0, 0, 1024), .replies = ok, .status = 1,
         .out = {failed}},
        {.name = "restore of 524288 bytes", .request = act_pkt(3, 0, 0, 524288), .replies = ok, .status = 1,
         .out = {failed}},
        {.name = "restore", .request = act_pkt(3, 0, 0x01, (uint32_t)good.size()), .body = frames(good),
         .replies = ok + ok, .out = {"verifying file..", "ok.."}, .calls = {"do-saveconfigs"},
         .left = {"installed=" + std::string(2000, 'c'), "all.dirty=", "monitor=apply\n"}},
        {.name = "restore of a damaged bundle", .request = act_pkt(3, 0, 0x01, (uint32_t)damaged.size()),
         .body = frames(damaged), .replies = ok + hex("03 01 00 00 00 00 00"), .logs = {log_err("Action Failed")},
         .out = {"verifying file..", "!md5(1)", "failed.."}},
    });
}

TEST_F(Transfer, ScriptDownloads) {
    const bytes unknown = hex("03 01 04 00 00 00 00");
    run({
        {.name = "cbq", .files = {{"/etc/config/cbq.scr", "cbq script\n"}}, .request = act_pkt(2, 1),
         .replies = hex("03 01 01 0B 00 00 00") + frame(text("cbq script\n")) + ok,
         .logs = {log_info("cbq script sent to client")}, .out = {"Sending client the script"}},
        // 1461 bytes: a full frame and a frame of one.
        {.name = "fw", .files = {{"/etc/config/fw.scr", std::string(1461, 'f')}}, .request = act_pkt(2, 2),
         .replies = hex("03 01 01 B5 05 00 00 B4 05") + bytes(1460, 'f') + hex("01 00 66") + bytes(1459, 0) + ok,
         .logs = {log_info("fw script sent to client")}},
        {.name = "nat", .files = {{"/etc/config/nat.scr", "n"}}, .request = act_pkt(2, 3),
         .replies = hex("03 01 01 01 00 00 00") + frame(text("n")) + ok,
         .logs = {log_info("nat script sent to client")}},
        // Size 0 and no frame; the apply follows even a download.
        {.name = "empty dhcp", .files = {{"/etc/config/dhcpd.conf", ""}}, .request = act_pkt(2, 7, 0x01),
         .replies = ok + ok, .logs = {log_info("dhcp script sent to client")},
         .left = {"all.dirty=", "monitor=apply\n"}},
        {.name = "missing script", .request = act_pkt(2, 3), .replies = ok, .status = 1},
        {.name = "script 4", .request = act_pkt(2, 4), .replies = unknown, .status = 1,
         .logs = {log_err("Action not supported")}},
        {.name = "script 6", .request = act_pkt(2, 6), .replies = unknown, .status = 1},
        {.name = "script 0", .request = act_pkt(2, 0), .status = 1, .logs = {log_err("requested script is unknown")},
         .out = {"Unknown script: 0"}},
        {.name = "script 8", .request = act_pkt(2, 8), .status = 1, .out = {"Unknown script: 8"}},
    });
}

TEST_F(Transfer, ScriptUploads) {
    bytes big(524288);
    for (size_t i = 0; i < big.size(); i++) big[i] = (uint8_t)(i * 7);
    const bytes first = frame(bytes(1000, 'a'));
    bytes too_long = frame({});
    too_long[0] = 0xB5, too_long[1] = 0x05;
    const files fw = {{"/etc/config/fw.scr", "keep\n"}};
    run({
        {.name = "busy beats an unknown script", .files = {{"/tmp/busy", ""}}, .request = act_pkt(4, 200, 0, 10),
         .replies = hex("03 01 04 00 00 00 00"), .status = 1, .left = {"busy"}},
        {.name = "0 bytes", .request = act_pkt(4, 1, 0, 0), .replies = hex("03 01 03 00 00 00 00"), .status = 1,
         .logs = {log_info("cbq script received from client"), log_err("File too small")}},
        {.name = "524289 bytes", .request = act_pkt(4, 1, 0, 524289), .replies = hex("03 01 02 00 00 00 00"),
         .status = 1},
        {.name = "cbq of 524288 bytes", .request = act_pkt(4, 1, 0x01, 524288), .body = frames(big), .replies = ok + ok,
         .out = {"Saving client the script"}, .calls = {"save-configs", "do-advnet"},
         .left = {"/etc/config/cbq.scr=" + std::string(big.begin(), big.end())}},
        {.name = "dhcp of 1 byte", .request = act_pkt(4, 7, 0x01, 1), .body = frame(text("d")), .replies = ok + ok,
         .logs = {log_info("dhcp script received from client")}, .calls = {"save-configs"},
         .left = {"ips.dirty=", "monitor=apply\n", "/etc/config/dhcpd.conf=d"}},
        // Bad frames: the upload is dropped, the script in place kept, though
        // the frames would add up to the declared size.
        {.name = "frame of length 0", .files = fw, .request = act_pkt(4, 2, 0, 2000),
         .body = first + frame({}) + frame(bytes(1000, 'b')), .replies = ok, .unread = true, .status = 1,
         .out = {"read failed.."},
         .left = {"/etc/config/fw.scr=keep\n"}},
        {.name = "frame of length 1461", .files = fw, .request = act_pkt(4, 2, 0, 2461), .body = first + too_long,
         .replies = ok, .status = 1, .out = {"read failed.."}, .left = {"/etc/config/fw.scr=keep\n"}},
        {.name = "more than declared", .files = fw, .request = act_pkt(4, 2, 0, 2000),
         .body = first + frame(bytes(1460, 'x')),
         .replies = ok, .status = 1, .out = {"read failed.."}, .left = {"/etc/config/fw.scr=keep\n"}},
        // Writes to a full /tmp are not checked: what fitted is installed.
        {.name = "full /tmp", .setup = [] { mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k"); },
         .request = act_pkt(4, 2, 0, 200000), .body = frames(bytes(200000, 'z')), .replies = ok + ok,
         .calls = {"save-configs"}, .left = {"/etc/config/fw.scr=" + std::string(65536, 'z')}},
    });
}
