// The client's side of the conversations, against a scripted device that
// speaks literal bytes. Every read on the device side is bounded.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "hex.h"
#include "session.h"
#include "transfer.h"

using kelp::bytes;
using kelp::error_kind;

namespace {

void put(int fd, const bytes& b) { send(fd, b.data(), b.size(), MSG_NOSIGNAL); }
void put(int fd, const std::string& h) { put(fd, hex(h)); }
bytes take(int fd, size_t n) {
    bytes b(n);
    size_t got = 0;
    for (ssize_t r; got < n && (r = recv(fd, b.data() + got, n - got, 0)) > 0;) got += (size_t)r;
    b.resize(got);
    return b;
}
bytes greeting(const std::string& tag = "02 01") {
    return text("kelp-v3 utility server\n") + hex("00 FF 01 23 45 67 89 AB CD EF " + tag);
}

using script = std::function<void(int)>;

// Runs the device's script on one end of a socketpair while the client does
// its part on the other, with the given time-out.
kelp::status converse(const script& device, const std::function<kelp::status(kelp::session&)>& client,
                      int timeout_ms = 1000) {
    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    timeval tv{2, 0};
    setsockopt(fds[1], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::thread t([&] { device(fds[1]), shutdown(fds[1], SHUT_RDWR); });
    kelp::status st;
    {
        kelp::session s;
        s.adopt(fds[0], timeout_ms);
        st = client(s);
    }
    t.join();
    close(fds[1]);
    return st;
}

}  // namespace

TEST(ClientConversation, FailuresByKind) {
    auto login = [](kelp::session& s) { return s.login("pw"); };
    auto download = [](kelp::session& s) { bytes got; return kelp::download(s, &got); };
    auto upload = [](kelp::session& s) { return kelp::upload(s, bytes(10, 1)); };
    bytes answered;  // what the device heard after a greeting with a wrong tag
    struct {
        const char* name;
        script device;
        std::function<kelp::status(kelp::session&)> client;
        error_kind want;
        int code = 0;          // for error_kind::device
        const char* says = "";
    } rows[] = {
        {"password refused", [](int fd) { put(fd, greeting()), take(fd, 34), put(fd, "01 01 00"); }, login,
         error_kind::refused_password},
        // Closing instead of answering: the daemon did not like our tag.
        {"closed after the reply", [](int fd) { put(fd, greeting()), take(fd, 34); }, login, error_kind::protocol},
        {"greeting cut", [](int fd) { put(fd, "6B 65 6C 70"); }, login, error_kind::closed},
        {"odd verdict", [](int fd) { put(fd, greeting()), take(fd, 34), put(fd, "01 01 07"); }, login,
         error_kind::protocol},
        // A wrong tag in the greeting: the client answers nothing.
        {"wrong tag", [&](int fd) { put(fd, greeting("01 02")), answered = take(fd, 34); }, login,
         error_kind::protocol},
        {"code 0", [](int fd) { put(fd, "03 01 00 00 00 00 00"); }, download, error_kind::device, 0,
         "device answered 0: Action Failed"},
        {"code 4", [](int fd) { put(fd, "03 01 04 00 00 00 00"); }, download, error_kind::device, 4,
         "device answered 4: Action not supported (or the device is busy)"},
        // 10 bytes announced, a 20-byte frame sent.
        {"frame too long", [](int fd) { put(fd, "03 01 01 0A 00 00 00"), put(fd, hex("14 00") + bytes(1460, 1)); },
         download, error_kind::protocol},
        {"frame cut", [](int fd) { put(fd, "03 01 01 0A 00 00 00"), put(fd, bytes(100, 0)); }, download,
         error_kind::closed},
        {"a size where the ready packet belongs", [](int fd) { put(fd, "03 01 01 05 00 00 00"); }, upload,
         error_kind::protocol},
    };
    for (auto& r : rows) {
        kelp::status st = converse(r.device, r.client);
        EXPECT_EQ(st.kind, r.want) << r.name;
        EXPECT_TRUE(st.kind != error_kind::device || st.code == r.code) << r.name;
        EXPECT_NE(st.message.find(r.says), std::string::npos) << r.name << ": " << st.message;
    }
    EXPECT_TRUE(answered.empty());
}

TEST(ClientConversation, SilentDeviceTimesOutWithinTheLimit) {
    auto start = std::chrono::steady_clock::now();
    kelp::status st = converse([](int fd) { take(fd, 1); }, [](kelp::session& s) { return s.login("pw"); }, 200);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(st.kind, error_kind::timed_out);
    EXPECT_GE(ms, 150);
    EXPECT_LT(ms, 1000);
}
