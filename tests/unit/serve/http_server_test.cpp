// The HTTP server on loopback: answers now, later from another thread, at
// their deadline, refused beyond the waiting limit, and at stop.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "http_server.h"

namespace {

// One request on a connection of its own, sent at once; answer() reads
// until the server closes (the request says Connection: close).
struct client {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    client(int port, const std::string& request) {
        timeval limit{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::string text = request + "\r\nHost: t\r\nConnection: close\r\n\r\n";
        if (connect(fd, (sockaddr*)&a, sizeof a) == 0) send(fd, text.data(), text.size(), 0);
    }
    ~client() { close(fd); }
    std::string answer() {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) out.append(buf, n);
        return out;
    }
};

http_answer text(int status, const std::string& body) {
    http_answer a;
    a.status = status;
    a.set_content(body, "text/plain");
    return a;
}

std::vector<http_route> routes() {
    return {
        {"GET", "/now", [](const http_request&, http_answer& res) { res = text(200, std::string(2000, 'a')); }},
        {"POST", "/post", [](const http_request&, http_answer& res) { res = text(202, "queued"); }},
        {"GET", "/later",
         [](const http_request&, http_answer& res) {
             std::shared_ptr<http_later> later = res.later(5000, text(504, "late"));
             std::thread([later] { later->answer(text(200, "from another thread")); }).detach();
         }},
        {"GET", "/never", [](const http_request& req, http_answer& res) {
             res.later(atoi(req.get_param_value("ms").c_str()), text(504, "deadline passed"));
         }},
    };
}

TEST(http_server, answers_now_later_and_at_the_deadline) {
    http_settings s;
    s.host = "127.0.0.1";
    http_server server(s, routes());
    ASSERT_TRUE(server.start());
    struct row {
        const char* request;
        std::vector<const char*> want;
    } rows[] = {
        {"GET /now HTTP/1.1\r\nAccept-Encoding: br, gzip", {"HTTP/1.1 200", "Content-Encoding: gzip"}},
        {"GET /now HTTP/1.1\r\nAccept-Encoding: gzip;q=0, br", {"HTTP/1.1 200", "!Content-Encoding"}},
        {"POST /post HTTP/1.1", {"HTTP/1.1 202", "queued"}},
        {"GET /later HTTP/1.1", {"HTTP/1.1 200", "from another thread"}},
        {"GET /never?ms=50 HTTP/1.1", {"HTTP/1.1 504", "deadline passed"}},
        {"DELETE /now HTTP/1.1", {"HTTP/1.1 405", "Allow: GET, HEAD"}},
        {"GET /nothing HTTP/1.1", {"HTTP/1.1 404"}},
    };
    for (const row& r : rows) {
        std::string got = client(server.port(), r.request).answer();
        for (std::string w : r.want) {  // "!text": must not appear
            bool absent = w[0] == '!';
            EXPECT_EQ(got.find(absent ? w.substr(1) : w) == std::string::npos, absent) << r.request << "\n" << got;
        }
    }
}

TEST(http_server, waiting_clients_are_limited_and_told_of_the_stop) {
    http_settings s;
    s.host = "127.0.0.1";
    s.max_waiting = 2;
    http_server server(s, routes());
    ASSERT_TRUE(server.start());
    client first(server.port(), "GET /never?ms=60000 HTTP/1.1"), second(server.port(), "GET /never?ms=60000 HTTP/1.1");
    usleep(200000);
    std::string third = client(server.port(), "GET /never?ms=60000 HTTP/1.1").answer();
    EXPECT_NE(third.find("HTTP/1.1 503"), std::string::npos) << third;
    EXPECT_NE(third.find("Retry-After: 5"), std::string::npos) << third;
    std::thread stop([&] { server.stop(); });
    for (client* c : {&first, &second}) EXPECT_NE(c->answer().find("503"), std::string::npos);
    stop.join();
}

}  // namespace
