#include "serve_api.h"

#include <httplib.h>

#include "serve_log.h"
#include "serve_routes.h"

using nlohmann::json;

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

// The one method each path answers; anything else is 405.
const char* method_for(const std::string& path) {
    static const std::regex backup(R"(/api/v1/hosts/[^/]+/backup)");
    return std::regex_match(path, backup) ? "POST" : "GET";
}

}  // namespace

api_server::api_server(service& s) : s_(s) {}

api_server::~api_server() { stop(); }

kelp::status api_server::start() {
    const serve_options& o = s_.options();
    if (o.tls_cert.empty())
        http_ = std::make_unique<httplib::Server>();
    else
        http_ = std::make_unique<httplib::SSLServer>(o.tls_cert.c_str(), o.tls_key.c_str());
    if (!http_->is_valid())
        return kelp::fail(kelp::error_kind::local, "cannot serve HTTPS with --tls-cert " + o.tls_cert +
                                                       " and --tls-key " + o.tls_key +
                                                       ": check that both are PEM and belong together");
    add_routes();
    if (!http_->bind_to_port(o.listen_host.c_str(), o.listen_port))
        return kelp::fail(kelp::error_kind::local, "cannot listen on " + o.listen_host + ":" +
                                                       std::to_string(o.listen_port) +
                                                       ": the address is in use or not this machine's (--listen)");
    thread_ = std::thread([this] { http_->listen_after_bind(); });
    log_event(std::string("API on ") + (o.tls_cert.empty() ? "http://" : "https://") + o.listen_host + ":" +
              std::to_string(o.listen_port) + (o.token.empty() ? "" : " (token required)"));
    return kelp::ok();
}

void api_server::stop() {
    if (http_) http_->stop();
    if (thread_.joinable()) thread_.join();
}

void api_server::add_routes() {
    httplib::Server& h = *http_;
    service& s = s_;
    h.set_pre_routing_handler([&s](const httplib::Request& req, httplib::Response& res) {
        // cpp-httplib's brotli runs at its slowest quality: half a second for
        // a 1000-host answer, which gzip makes in milliseconds. The request is
        // the server's own object, handed to us as const.
        httplib::Headers& headers = const_cast<httplib::Request&>(req).headers;
        auto accept = headers.find("Accept-Encoding");
        if (accept != headers.end() && accept->second.find("br") != std::string::npos)
            accept->second = accept->second.find("gzip") != std::string::npos ? "gzip" : "identity";
        const std::string& token = s.options().token;
        if (!token.empty() && !public_path(req.path) &&
            !same_secret(req.get_header_value("Authorization"), "Bearer " + token)) {
            res.set_header("WWW-Authenticate", "Bearer");
            answer_error(res, 401, "this API needs Authorization: Bearer TOKEN (the service's --token-file)");
            return httplib::Server::HandlerResponse::Handled;
        }
        const char* allowed = method_for(req.path);
        if (req.method != allowed && !(req.method == "HEAD" && std::string(allowed) == "GET")) {
            res.set_header("Allow", allowed);
            answer_error(res, 405, req.method + " is not allowed on " + req.path + ": use " + allowed);
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    h.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return;
        if (res.status == 404) answer_error(res, 404, "no such resource: " + req.path);
        // cpp-httplib refuses a POST without a length before our handler sees it.
        else if (req.method == "POST")
            answer_error(res, res.status, "send the POST with a body or Content-Length: 0 (curl -d '')");
        else
            answer_error(res, res.status, "the request could not be read");
    });
    struct route {
        const char* method;
        const char* pattern;
        void (*handler)(service&, const httplib::Request&, httplib::Response&);
    };
    static const route routes[] = {
        {"GET", "/healthz", get_healthz},
        {"GET", "/metrics", get_metrics},
        {"GET", "/api/v1/hosts", get_hosts},
        {"GET", R"(/api/v1/hosts/([^/]+))", get_host},
        {"GET", R"(/api/v1/hosts/([^/]+)/diff)", get_diff},
        {"GET", R"(/api/v1/hosts/([^/]+)/files)", get_file_list},
        {"GET", R"(/api/v1/hosts/([^/]+)/files/(.+))", get_file},
        {"POST", R"(/api/v1/hosts/([^/]+)/backup)", post_backup},
        {"GET", R"(/api/v1/hosts/([^/]+)/attempts)", get_attempts},
        {"GET", "/api/v1/search", get_search},
        {"GET", "/api/v1/changes", get_changes},
        {"GET", R"(/(?!api/).*)", get_page_file},
    };
    for (const route& r : routes) {
        auto handler = [&s, f = r.handler](const httplib::Request& req, httplib::Response& res) { f(s, req, res); };
        if (std::string(r.method) == "POST")
            h.Post(r.pattern, handler);
        else
            h.Get(r.pattern, handler);
    }
}
