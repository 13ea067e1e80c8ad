// The HTTP API: hosts with their state, history, diffs and files, search,
// a backup out of turn, /metrics and /healthz. JSON answers; errors as
// {"error": "..."} with their status. With a token, everything but
// /healthz and /metrics needs "Authorization: Bearer TOKEN".
#pragma once

#include <memory>
#include <thread>

#include "serve_service.h"

namespace httplib {
class Server;
}

class api_server {
public:
    explicit api_server(service& s);
    ~api_server();
    // Binds the address (an error names it) and serves on a thread.
    kelp::status start();
    void stop();

private:
    void add_routes();
    service& s_;
    std::unique_ptr<httplib::Server> http_;
    std::thread thread_;
};
