// End-to-end harness: every test runs the real daemon binary inside its own
// simulated router (fresh namespaces) and talks to it byte by byte.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hex.h"
#include "router.h"
#include "tls_transport.h"

using bytes = std::vector<uint8_t>;
using strings = std::vector<std::string>;
using files = std::vector<std::pair<std::string, std::string>>;
constexpr int alert = 81, err = 83, notice = 85, info = 86;  // authpriv + level

// The emulator that runs a cross-built daemon, empty for a native build.
std::vector<std::string> emulator_prefix();

std::string show(const bytes& b);
bytes frame(const bytes& payload);
// A body in frames: full ones, a short one last.
bytes frames(const bytes& body);
bytes auth_reply(const bytes& greeting, const std::string& pw, uint16_t tag = 0x0102);
bytes act_pkt(int action, int script = 0, int flags = 0, uint32_t size = 0);
// A kick's body: the name's length, 32 bits little-endian, then the name.
bytes kick_request(const std::string& name);
double now_s();  // a monotonic clock
inline const bytes ok = hex("03 01 01 00 00 00 00");  // the result 1, and the ready packet

// A raw TCP client on 127.0.0.1 with bounded waits.
class raw_client {
public:
    ~raw_client() { close_now(); }
    bool connect_to(int port);
    bool send_bytes(const bytes& b);
    // Exactly n bytes, or fewer when the peer closed or the wait ran out.
    bytes receive(size_t n, int timeout_ms = 5000);
    // True when the peer closes (or resets) within the wait, with no data.
    bool closed_by_peer(int timeout_ms = 5000);
    // The last receive ended in a reset: the peer closed with our bytes unread.
    bool was_reset() const { return reset_; }
    void close_now();
    void shutdown_write();
    int fd() const { return fd_; }

private:
    int fd_ = -1;
    bool reset_ = false;
};

constexpr const char* password = "secret";

// One connection to a fresh daemon in a fresh router, and what it leaves.
// Any program name but "kelputild" serves TLS on 857, where the greeting,
// login and request go through TLS and everything after them is plain.
struct exchange {
    std::string name = {};
    std::string argv0 = "kelputild";
    ::files files = {};    // path, content
    ::files helpers = {};  // name, shell body
    std::function<void()> setup = {};
    std::function<void(pid_t)> started = {};
    std::string typed = password;
    uint16_t tag = 0x0102;
    size_t auth_len = 34;  // how much of the auth reply goes out
    std::string answer = "01 01 01";
    bytes request = {};
    bytes body = {};       // sent once the first reply is in
    bool hang_up = false;  // close right after the request
    int quiet_ms = 0;      // keep the line open and quiet; the daemon must live this long
    bool empty_records = false;  // TLS: an empty record before the auth reply and the request
    bool one_record = false;     // TLS: the request in the auth reply's record
    bytes replies = {};    // every byte after the request, until the daemon closes
    bool unread = false;   // the daemon must end with bytes of the body unread (we see a reset)
    int status = 0;
    std::vector<std::pair<int, std::string>> logs = {};
    strings out = {};    // the last lines of stdout
    strings calls = {};  // helper calls, in any order
    // /tmp exactly, as "name" or "name=content"; a full path as "path=content".
    strings left = {};
};

class daemon_test : public ::testing::Test {
protected:
    router::process daemon;
    raw_client client;
    bytes greeting;
    std::unique_ptr<kelp::tls_transport> tls;

    void SetUp() override { fresh_router(); }
    void TearDown() override;
    // A new sandbox: /tmp, /run, /dev, /etc and the network start anew.
    void fresh_router(const router::options& o = {});
    virtual void install_helpers() {}

    // Waits for the listener too.
    void start(const std::string& argv0 = "kelputild", int port = 856);
    void connect_and_greet(int port = 856);
    void login();
    int exit_status(int timeout_ms = 5000) { return router::wait_exit(daemon, timeout_ms); }
    std::string out() { return router::output(daemon); }
    strings out_lines();
    void expect_log(int priority, const std::string& ident, const std::string& text);
    strings tmp_files() { return router::list_dir("/tmp"); }
    void run(const exchange& x);
    void run(std::initializer_list<exchange> rows) { for (const exchange& x : rows) run(x); }

private:
    bool front_send(const bytes& b);
    bytes front_receive(size_t n, int timeout_ms = 5000);
};

#define EXPECT_BYTES(actual, literal) EXPECT_EQ(show(actual), show(hex(literal)))
