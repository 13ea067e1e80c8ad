// End-to-end harness: every test runs the real daemon binary inside its own
// simulated router (fresh namespaces) and talks to it byte by byte.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "hex.h"
#include "router.h"

using bytes = std::vector<uint8_t>;

// The emulator that runs a cross-built daemon, empty for a native build.
std::vector<std::string> emulator_prefix();

std::string show(const bytes& b);

// A raw TCP client on 127.0.0.1 with bounded waits.
class raw_client {
public:
    ~raw_client();
    bool connect_to(int port, int timeout_ms = 5000);
    bool send_bytes(const bytes& b);
    // Exactly n bytes, or fewer when the peer closed or the wait ran out.
    bytes receive(size_t n, int timeout_ms = 5000);
    // True when the peer closes (or resets) within the wait, with no data.
    bool closed_by_peer(int timeout_ms = 5000);
    void close_now();
    void shutdown_write();
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

constexpr const char* password = "secret";

bytes auth_reply(const bytes& greeting, const std::string& pw, uint16_t tag = 0x0102);
bytes act_pkt(int action, int script = 0, int flags = 0, uint32_t size = 0);
bytes frame(const bytes& payload);

class daemon_test : public ::testing::Test {
protected:
    router::process daemon;
    raw_client client;
    bytes greeting;

    void SetUp() override;
    void TearDown() override;
    virtual router::options sandbox_options() const { return {}; }

    // Starts the daemon under a program name and waits for its listener.
    void start(const std::string& argv0 = "kelputild", int port = 856);
    // Connects and reads the greeting; then, when pw is given, logs in and
    // checks the answer 01 01 01.
    void connect_and_greet(int port = 856);
    void login(const std::string& pw = password);
    void request(int action, int script = 0, int flags = 0, uint32_t size = 0);
    bytes reply(int timeout_ms = 5000) { return client.receive(7, timeout_ms); }
    int exit_status(int timeout_ms = 5000) { return router::wait_exit(daemon, timeout_ms); }
    std::string out() { return router::output(daemon); }
    std::vector<std::string> out_lines();
    // The syslog lines that have arrived, waiting for at least want.
    std::vector<router::log_line> logs(size_t want = 1, int timeout_ms = 3000) {
        return router::syslog_lines(want, timeout_ms);
    }
    void expect_log(int priority, const std::string& ident, const std::string& text);
    // Reads frames carrying size bytes; checks each is 1462 bytes long.
    bytes download(uint32_t size);
    void upload(const bytes& data);
    // Logs in and sends the request; the usual start of every action test.
    void begin(int action, int script = 0, int flags = 0, uint32_t size = 0) {
        start();
        connect_and_greet();
        login();
        request(action, script, flags, size);
    }
    // Files under /tmp, sorted.
    std::vector<std::string> tmp_files() { return router::list_dir("/tmp"); }
};

#define EXPECT_BYTES(actual, literal) EXPECT_EQ(show(actual), show(hex(literal)))
