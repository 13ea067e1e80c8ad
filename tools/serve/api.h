// The HTTP API: hosts with their state, history, diffs and files, search,
// a backup out of turn, /metrics and /healthz. JSON answers; errors as
// {"error": "..."} with their status. With a token, everything but
// /healthz and /metrics needs "Authorization: Bearer TOKEN".
#pragma once

#include <memory>

#include "http_server.h"
#include "service.h"

class api_server {
public:
    explicit api_server(service& s);
    ~api_server();
    // Binds the address (an error names it) and serves.
    kelp::status start();
    // Answers the clients still waiting (503) and closes the connections.
    void stop();

private:
    service& s_;
    std::unique_ptr<http_server> http_;
};
