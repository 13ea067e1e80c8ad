#include "api.h"

#include "log.h"
#include "routes.h"

namespace {

// Only this process's tokens are compared: equal time whatever matches.
bool same_secret(const std::string& a, const std::string& b) {
    unsigned char diff = a.size() != b.size();
    for (size_t i = 0; i < a.size() && i < b.size(); i++) diff |= (unsigned char)(a[i] ^ b[i]);
    return diff == 0;
}

// The page's own files hold nothing of the routers: the page asks for the
// token and sends it with its API requests.
bool public_path(const std::string& path) {
    return path == "/healthz" || path == "/metrics" || path.rfind("/api/", 0) != 0;
}

// Each route's handler with the service it answers for.
http_handler with(service& s, void (*f)(service&, const http_request&, http_answer&)) {
    return [&s, f](const http_request& req, http_answer& res) { f(s, req, res); };
}

std::vector<http_route> routes(service& s) {
    return {
        {"GET", "/healthz", with(s, get_healthz), true},
        {"GET", "/metrics", with(s, get_metrics), true},
        {"GET", "/api/v1/hosts", with(s, get_hosts)},
        {"GET", R"(/api/v1/hosts/([^/]+))", with(s, get_host)},
        {"GET", R"(/api/v1/hosts/([^/]+)/diff)", with(s, get_diff)},
        {"GET", R"(/api/v1/hosts/([^/]+)/files)", with(s, get_file_list)},
        {"GET", R"(/api/v1/hosts/([^/]+)/files/(.+))", with(s, get_file)},
        {"POST", R"(/api/v1/hosts/([^/]+)/backup)", with(s, post_backup)},
        {"GET", R"(/api/v1/hosts/([^/]+)/attempts)", with(s, get_attempts)},
        {"GET", "/api/v1/search", with(s, get_search)},
        {"GET", "/api/v1/changes", with(s, get_changes)},
        {"GET", R"(/(?!api/).*)", with(s, get_page_file), true},
    };
}

http_settings settings(service& s) {
    const serve_options& o = s.options();
    http_settings h;
    h.host = o.listen_host;
    h.port = o.listen_port;
    h.tls_cert = o.tls_cert;
    h.tls_key = o.tls_key;
    h.error = [](int status, const std::string& message) {
        http_answer a;
        answer_error(a, status, message);
        return a;
    };
    h.before = [&s](const http_request& req, http_answer& res) {
        const std::string& token = s.options().token;
        if (token.empty() || public_path(req.path) ||
            same_secret(req.get_header_value("Authorization"), "Bearer " + token))
            return false;
        res.set_header("WWW-Authenticate", "Bearer");
        answer_error(res, 401, "this API needs Authorization: Bearer TOKEN (the service's --token-file)");
        return true;
    };
    return h;
}

}  // namespace

api_server::api_server(service& s) : s_(s) {}

api_server::~api_server() { stop(); }

kelp::status api_server::start() {
    const serve_options& o = s_.options();
    http_ = std::make_unique<http_server>(settings(s_), routes(s_));
    kelp::status st = http_->start();
    if (!st) return st;
    std::string host = o.listen_host.find(':') != std::string::npos ? "[" + o.listen_host + "]" : o.listen_host;
    log_event(std::string("API on ") + (o.tls_cert.empty() ? "http://" : "https://") + host + ":" +
              std::to_string(o.listen_port) + (o.token.empty() ? "" : " (token required)"));
    return kelp::ok();
}

void api_server::stop() {
    if (http_) http_->stop();
}
