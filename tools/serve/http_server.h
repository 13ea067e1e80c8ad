// The service's HTTP server, on libmicrohttpd: a table of routes whose
// handlers run on a few threads of their own while one thread does all the
// network work. A handler may answer later: its connection then waits
// without holding any thread, until the answer comes from whatever thread
// has it, or its deadline passes, or the server stops. Connections are
// bounded in all and per client address, and so are the clients waiting.
#pragma once

#include <strings.h>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "status.h"

struct http_request {
    std::string method, path;                   // path: decoded, without the query
    std::vector<std::string> matches;           // the route's pattern: [0] the whole path, then its groups
    std::map<std::string, std::string> params;  // the query, decoded
    struct no_case {
        bool operator()(const std::string& a, const std::string& b) const {
            return strcasecmp(a.c_str(), b.c_str()) < 0;
        }
    };
    std::map<std::string, std::string, no_case> headers;
    std::string body;

    bool has_param(const char* key) const { return params.count(key) != 0; }
    std::string get_param_value(const char* key) const;
    std::string get_header_value(const char* name) const;
};

class http_later;

struct http_answer {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string content_type, body;

    void set_header(const std::string& name, const std::string& value) { headers.emplace_back(name, value); }
    void set_content(std::string content, const std::string& type) {
        body = std::move(content);
        content_type = type;
    }
    void set_content(const char* data, size_t size, const std::string& type) { set_content({data, size}, type); }

    // This request is answered later, through the handle, by any thread;
    // on_deadline is sent if that has not happened within deadline_ms.
    // nullptr when too many clients wait already or the server is stopping:
    // this answer then says so (503), and the handler just returns.
    std::shared_ptr<http_later> later(long long deadline_ms, http_answer on_deadline);

private:
    friend class http_server;
    std::function<std::shared_ptr<http_later>(long long, http_answer, http_answer*)> defer_;
    bool deferred_ = false;
};

// A request answered later. The first answer is sent; any later one, or
// one after the server has stopped, does nothing.
class http_later {
public:
    virtual ~http_later() = default;
    virtual void answer(http_answer a) = 0;
};

using http_handler = std::function<void(const http_request& req, http_answer& res)>;

struct http_route {
    const char* method;   // GET routes answer HEAD too
    const char* pattern;  // ECMAScript regex over the whole path
    http_handler handler;
    // Answered on the network thread itself: only for answers made from
    // memory in a moment, that neither wait nor read the disk (nor answer
    // later: later() is not offered there).
    bool quick = false;
};

struct http_settings {
    std::string host;  // an address or a name; IPv6 without brackets
    int port = 0;
    std::string tls_cert, tls_key;  // PEM files: HTTPS when given
    unsigned max_connections = 512, max_per_address = 384;
    unsigned max_waiting = 256;  // answers given later, not yet sent
    int retry_after_s = 5;
    unsigned idle_timeout_s = 30;
    int threads = 4;  // the handlers' threads
    // The server's own errors (404, 405, 413, 414, 503) in the API's form.
    std::function<http_answer(int status, const std::string& message)> error;
    // Runs before routing (token checks): true when it answered.
    std::function<bool(const http_request& req, http_answer& res)> before;
};

class http_server {
public:
    http_server(http_settings settings, std::vector<http_route> routes);
    ~http_server();
    // Listens (an error names --listen, or both TLS files) and serves.
    kelp::status start();
    // The port listened on (the system's choice for port 0).
    int port() const;
    // Takes no new connections, answers every waiting client with 503
    // "the service is stopping", lets the answers go out (a moment at
    // most) and closes the rest.
    void stop();

    struct core;

private:
    std::unique_ptr<core> core_;
};
