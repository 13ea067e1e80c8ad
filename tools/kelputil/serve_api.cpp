#include "serve_api.h"

#include <httplib.h>
#include <time.h>

#include "serve_log.h"
#include "serve_metrics.h"
#include "serve_search.h"

using nlohmann::json;

namespace {

void answer(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_content(body.dump(), "application/json");
}

void error(httplib::Response& res, int status, const std::string& message) { answer(res, status, {{"error", message}}); }

json seconds_or_null(double t) { return t > 0 ? json((long long)t) : json(nullptr); }

json text_or_null(const std::string& s) { return s.empty() ? json(nullptr) : json(json_text(s)); }

// Only this process's tokens are compared: equal time whatever matches.
bool same_secret(const std::string& a, const std::string& b) {
    unsigned char diff = a.size() != b.size();
    for (size_t i = 0; i < a.size() && i < b.size(); i++) diff |= (unsigned char)(a[i] ^ b[i]);
    return diff == 0;
}

bool public_path(const std::string& path) { return path == "/healthz" || path == "/metrics"; }

// The one method each path answers; anything else is 405.
const char* method_for(const std::string& path) {
    static const std::regex backup(R"(/api/v1/hosts/[^/]+/backup)");
    return std::regex_match(path, backup) ? "POST" : "GET";
}

// "2026-11-24 05:12:00", local time as git_store writes it, in Unix seconds.
long long unix_time(const std::string& text) {
    struct tm t {};
    if (!strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &t)) return 0;
    t.tm_isdst = -1;
    return (long long)mktime(&t);
}

json history_json(const json& entries) {
    json out = json::array();
    for (const json& e : entries) {
        json files = json::array();
        for (const json& f : e["files"]) files.push_back(f["path"]);
        out.push_back({{"revision", e["commit"]},
                       {"time", unix_time(e["date"].get<std::string>())},
                       {"message", e["subject"]},
                       {"files", files}});
    }
    return out;
}

std::string query(const httplib::Request& req, const char* key) {
    return req.has_param(key) ? req.get_param_value(key) : "";
}

// A revision or path from outside never reaches libgit2's revision parser
// with its own syntax (ranges, reflogs, ':').
bool plain_revision(const std::string& rev) {
    static const std::regex form(R"([0-9a-fA-F]{4,40}|HEAD(~[0-9]{1,4})?)");
    return rev.empty() || std::regex_match(rev, form);
}

}  // namespace

json host_json(const host_state& h) {
    return {{"name", h.name},
            {"address", h.address},
            {"state", scheduler::verdict(h)},
            {"last_attempt", seconds_or_null(h.last_attempt)},
            {"last_success", seconds_or_null(h.last_success)},
            {"last_change", seconds_or_null(h.last_change)},
            {"commit", text_or_null(h.last_commit)},
            {"consecutive_failures", h.consecutive_failures},
            {"attempts", h.attempts},
            {"failures", h.failures},
            {"last_error", text_or_null(h.last_error)},
            {"last_duration", h.last_attempt > 0 ? json(h.last_duration) : json(nullptr)},
            {"next_due", seconds_or_null(h.next_due)},
            {"model", text_or_null(h.model)},
            {"firmware", text_or_null(h.firmware)}};
}

api_server::api_server(service& s) : s_(s) {}

api_server::~api_server() { stop(); }

kelp::status api_server::start() {
    const serve_options& o = s_.options();
    if (o.tls_cert.empty()) http_ = std::make_unique<httplib::Server>();
    else http_ = std::make_unique<httplib::SSLServer>(o.tls_cert.c_str(), o.tls_key.c_str());
    if (!http_->is_valid())
        return kelp::fail(kelp::error_kind::local, "cannot serve HTTPS with --tls-cert " + o.tls_cert + " and --tls-key " +
                                                       o.tls_key + ": check that both are PEM and belong together");
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
        const std::string& token = s.options().token;
        if (!token.empty() && !public_path(req.path) &&
            !same_secret(req.get_header_value("Authorization"), "Bearer " + token)) {
            res.set_header("WWW-Authenticate", "Bearer");
            error(res, 401, "this API needs Authorization: Bearer TOKEN (the service's --token-file)");
            return httplib::Server::HandlerResponse::Handled;
        }
        const char* allowed = method_for(req.path);
        if (req.method != allowed) {
            res.set_header("Allow", allowed);
            error(res, 405, req.method + " is not allowed on " + req.path + ": use " + allowed);
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    h.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return;
        if (res.status == 404) error(res, 404, "no such resource: " + req.path);
        // cpp-httplib refuses a POST without a length before our handler sees it.
        else if (req.method == "POST") error(res, res.status, "send the POST with a body or Content-Length: 0 (curl -d '')");
        else error(res, res.status, "the request could not be read");
    });
    h.Get("/healthz", [&s](const httplib::Request&, httplib::Response& res) {
        if (s.schedule().running()) res.set_content("ok\n", "text/plain");
        else error(res, 503, "the scheduler is not running");
    });
    h.Get("/metrics", [&s](const httplib::Request&, httplib::Response& res) {
        res.set_content(metrics_text(s.schedule(), now_seconds(), s.options().interval_ms / 1000.0), "text/plain; version=0.0.4");
    });
    h.Get("/api/v1/hosts", [&s](const httplib::Request&, httplib::Response& res) {
        json hosts = json::array();
        for (const host_state& st : s.schedule().hosts()) hosts.push_back(host_json(st));
        answer(res, 200, {{"hosts", hosts}});
    });
    h.Get(R"(/api/v1/hosts/([^/]+))", [&s](const httplib::Request& req, httplib::Response& res) {
        host_state st;
        if (!s.schedule().find(req.matches[1], &st)) return error(res, 404, "no host " + std::string(req.matches[1]) + " is served");
        json history;
        kelp::status r = s.store().read([&](git_store& git) { return git.history(st.name, &history); });
        if (!r) return error(res, 500, r.message);
        json out = host_json(st);
        out["history"] = history_json(history);
        answer(res, 200, out);
    });
    h.Get(R"(/api/v1/hosts/([^/]+)/diff)", [&s](const httplib::Request& req, httplib::Response& res) {
        host_state st;
        std::string from = query(req, "from"), to = query(req, "to"), patch;
        if (!s.schedule().find(req.matches[1], &st)) return error(res, 404, "no host " + std::string(req.matches[1]) + " is served");
        if (!plain_revision(from) || !plain_revision(to)) return error(res, 400, "from and to are commit ids (or HEAD, HEAD~N)");
        if (from.empty() && !to.empty()) return error(res, 400, "to needs from");
        json files;
        kelp::status r = s.store().read([&](git_store& git) { return git.diff(st.name, from, to, &patch, &files); });
        if (!r) return error(res, 404, r.message);
        answer(res, 200, {{"host", st.name}, {"files", files}, {"patch", json_text(patch)}});
    });
    h.Get(R"(/api/v1/hosts/([^/]+)/files)", [&s](const httplib::Request& req, httplib::Response& res) {
        host_state st;
        std::string rev = query(req, "rev");
        std::vector<std::string> paths;
        if (!s.schedule().find(req.matches[1], &st)) return error(res, 404, "no host " + std::string(req.matches[1]) + " is served");
        if (!plain_revision(rev)) return error(res, 400, "rev is a commit id (or HEAD, HEAD~N)");
        kelp::status r = s.store().read([&](git_store& git) { return git.files_at(rev, st.name, &paths); });
        if (!r) return error(res, 404, r.message);
        answer(res, 200, {{"host", st.name}, {"revision", rev.empty() ? "HEAD" : rev}, {"files", paths}});
    });
    h.Get(R"(/api/v1/hosts/([^/]+)/files/(.+))", [&s](const httplib::Request& req, httplib::Response& res) {
        host_state st;
        std::string rev = query(req, "rev"), path = req.matches[2], content;
        if (!s.schedule().find(req.matches[1], &st)) return error(res, 404, "no host " + std::string(req.matches[1]) + " is served");
        if (!plain_revision(rev) || path.find("..") != std::string::npos) return error(res, 400, "rev is a commit id (or HEAD, HEAD~N); PATH a file of the host");
        kelp::status r = s.store().read([&](git_store& git) { return git.read_at(rev, st.name + "/" + path, &content); });
        if (!r) return error(res, 404, r.message);
        res.set_content(content, "application/octet-stream");
    });
    h.Post(R"(/api/v1/hosts/([^/]+)/backup)", [&s](const httplib::Request& req, httplib::Response& res) {
        std::string name = req.matches[1], wait = query(req, "wait");
        long long ticket = 0;
        if (wait != "" && wait != "0" && wait != "1") return error(res, 400, "wait is 0 or 1");
        if (!s.schedule().running()) return error(res, 409, "the service is stopping");
        if (!s.schedule().run_now(name, &ticket)) return error(res, 404, "no host " + name + " is served");
        log_event(name + ": backup asked for through the API");
        if (wait != "1") return answer(res, 202, {{"host", name}, {"queued", true}});
        host_state st;
        host_run r;
        long long bound = 4LL * s.options().conn.timeout_ms + 30000;
        if (!s.schedule().wait_for(name, ticket, bound, &st, &r))
            return error(res, 504, name + "'s backup did not finish in " + seconds_text(bound / 1000.0));
        json out = host_json(st);
        out["result"] = !r.error.empty() ? "failed" : r.commit.empty() ? "unchanged" : "changed";
        answer(res, 200, out);
    });
    h.Get("/api/v1/search", [&s](const httplib::Request& req, httplib::Response& res) {
        std::string q = query(req, "q");
        if (q.empty()) return error(res, 400, "search needs q=TEXT");
        std::vector<std::string> names;
        for (const host_state& st : s.schedule().hosts()) names.push_back(st.name);
        json matches = s.store().read([&](git_store& git) { return search_files(git, names, q); });
        answer(res, 200, {{"query", json_text(q)}, {"matches", matches}});
    });
}
