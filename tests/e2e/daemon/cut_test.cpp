// The connection cut after every byte a client sends. Every conversation
// starts with the same auth reply and a 42-byte request, read whole whatever
// the action: those 76 bytes are cut once; then the bytes that follow the
// request are cut for each action that reads any. After every cut the daemon
// must end at once with the expected status, leave no temporary, install
// nothing, and run no post-action (every request asks for "apply").
//
// Each cut starts a daemon. Every upload reads its frames through the same
// receiver: one upload is cut after every byte, the others at each frame's
// edges and a few offsets inside. Under sanitizers and emulators a start
// costs many times as much; there the login, the request and every upload
// are cut at the edges and a sample.
#include <algorithm>

#include "bundle.h"
#include "harness.h"

namespace {

// body: what follows the request
struct conversation { int action, script; uint32_t size; bytes body; };

class Cut : public daemon_test {
protected:
    void SetUp() override {
        daemon_test::SetUp();
        for (const char* h : {"do-saveconfigs", "save-configs", "do-advnet", "do-pppkick", "spawn"})
            router::install_helper(h);
        router::install_helper("do-hotkick", "exit 1");  // a success would apply
        router::write_file("/etc/config/nat.scr", "original\n");
        // The firmware size probe syncs first: the host's disks, at every
        // start, for as long as a busy host takes. Not recorded as a call.
        router::write_file(std::string(router::helper_dir) + "/sync", "#!/bin/sh\n", 0755);
    }

    enum class coverage { every_byte, edges };

    static bool slow_starts() { return KELP_SANITIZED || !emulator_prefix().empty(); }
    static coverage in_full_where_cheap() { return slow_starts() ? coverage::edges : coverage::every_byte; }

    // A cut `at` bytes into a message the daemon reads with one call (the
    // auth reply, the request, a frame): the bytes around its edges one by
    // one, its inner bytes at a stride; 3 inner cuts where starts are slow.
    static bool worth_cutting(size_t at, size_t length, coverage cover) {
        size_t edge = std::min<size_t>(8, length / 8);
        if (cover == coverage::every_byte || at < edge || at + edge >= length) return true;
        return at % (length / (slow_starts() ? 4 : 10)) == 0;
    }

    // Sends the first `cut` bytes of auth reply, request and body, then
    // closes our side; returns the daemon's exit status.
    int cut_after(const conversation& c, size_t cut) {
        start();
        connect_and_greet();
        bytes talk = auth_reply(greeting, password) + act_pkt(c.action, c.script, 0x01, c.size) + c.body;
        client.send_bytes(bytes(talk.begin(), talk.begin() + (long)cut));
        client.shutdown_write();
        int status = exit_status(5000);  // nothing waits for its 10 s after a close
        client.close_now();
        return status;
    }

    void expect_nothing_done(const std::string& where) {
        EXPECT_EQ(tmp_files(), std::vector<std::string>{}) << where;
        EXPECT_EQ(router::read_file("/etc/config/nat.scr"), "original\n") << where;
    }

    // Cuts inside the body of c; every such cut must end with body_status.
    void cut_body(const conversation& c, int body_status, coverage cover, bool helper_may_run = false) {
        size_t body_start = auth_reply_len + act_pkt_len, end = body_start + c.body.size();
        for (size_t cut = body_start; cut < end; cut++) {
            if (!worth_cutting((cut - body_start) % 1462, 1462, cover)) continue;
            std::string where = "action " + std::to_string(c.action) + ", cut after " + std::to_string(cut);
            ASSERT_EQ(cut_after(c, cut), body_status) << where << "\n" << out();
            expect_nothing_done(where);
            if (!helper_may_run) {
                ASSERT_EQ(router::helper_calls(), std::vector<std::string>{}) << where;
            }
            if (HasFailure()) return;
        }
    }

    static constexpr size_t auth_reply_len = 34, act_pkt_len = 42;
};

TEST_F(Cut, LoginAndRequest) {
    conversation c{4, 3, 10, {}};
    for (size_t cut = 0; cut < auth_reply_len + act_pkt_len; cut++) {
        bool in_auth = cut < auth_reply_len;
        if (!worth_cutting(in_auth ? cut : cut - auth_reply_len, in_auth ? auth_reply_len : act_pkt_len,
                           in_full_where_cheap()))
            continue;
        std::string where = "cut after " + std::to_string(cut);
        ASSERT_EQ(cut_after(c, cut), 1) << where << "\n" << out();
        std::vector<std::string> lines = out_lines();
        ASSERT_FALSE(lines.empty()) << where;
        EXPECT_EQ(lines.back(), in_auth ? "Waiting for tcp port 856 to become available: Ok"
                                       : "act size: 42, struct act_pkt 42")
            << where;
        expect_nothing_done(where);
        if (HasFailure()) return;
    }
    EXPECT_EQ(router::helper_calls(), std::vector<std::string>{});
}

// A cut anywhere in the frames fails the upload: exit 1, the partial file
// removed, the installed copy untouched. Two frames, so that a cut right
// after a whole first frame is among them.
TEST_F(Cut, ScriptUpload) {
    cut_body({4, 3, 2000, frames(text(std::string(2000, 'n')))}, 1, coverage::edges);
}

// One frame and nothing run before it: the cheapest upload to cut in full.
TEST_F(Cut, ConfigurationUpload) {
    bytes bundle = kelp::pack_bundle(text(std::string(1200, 'c')));
    ASSERT_LE(bundle.size(), 1460u);
    cut_body({3, 0, (uint32_t)bundle.size(), frame(bundle)}, 1, in_full_where_cheap());
}

TEST_F(Cut, FirmwareUpload) {
    bytes image(1460, 0xA5);
    cut_body({241, 0, (uint32_t)image.size(), frame(image)}, 1, coverage::edges);
}

// The kick request is one read of whatever has arrived: a cut name is a
// length mismatch, code 6 through the common ending (exit 0), no helper and,
// being a failure, no post-action. The address of action 54 is read the same
// way into a cleared buffer, so a cut address is handed on as it arrived.
TEST_F(Cut, Kicks) {
    cut_body({48, 0, 0, kick_request("alice")}, 0, coverage::every_byte);
    cut_body({53, 0, 0, kick_request("bob")}, 0, coverage::every_byte);
    cut_body({54, 0, 0, {10, 0, 0, 7}}, 0, coverage::every_byte, true);
    std::vector<std::string> calls = router::helper_calls();
    EXPECT_EQ(calls, (std::vector<std::string>{"do-hotkick ip 0.0.0.0", "do-hotkick ip 10.0.0.0",
                                               "do-hotkick ip 10.0.0.0", "do-hotkick ip 10.0.0.0"}));
}

}  // namespace
