#include "serve_routes.h"

#include <time.h>

#include <regex>

#include "serve_log.h"
#include "serve_metrics.h"
#include "serve_search.h"
#include "web_assets.h"

using nlohmann::json;

namespace {

json seconds_or_null(double t) { return t > 0 ? json((long long)t) : json(nullptr); }

json text_or_null(const std::string& s) { return s.empty() ? json(nullptr) : json(s); }

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
        out.push_back({{"rev", e["commit"]},
                       {"time", unix_time(e["date"].get<std::string>())},
                       {"message", e["subject"]},
                       {"files", e["files"]}});
    }
    return out;
}

std::string query(const http_request& req, const char* key) {
    return req.has_param(key) ? req.get_param_value(key) : "";
}

// A revision or path from outside never reaches libgit2's revision parser
// with its own syntax (ranges, reflogs, ':').
bool plain_revision(const std::string& rev) {
    static const std::regex form(R"(([0-9a-fA-F]{4,40}|HEAD)(~[0-9]{1,4})?)");
    return rev.empty() || std::regex_match(rev, form);
}

}  // namespace

// The host the path names, or a 404 answer.
static bool find_host(service& s, const http_request& req, http_answer& res, host_state* out) {
    if (s.schedule().find(req.matches[1], out)) return true;
    answer_error(res, 404, "no host " + std::string(req.matches[1]) + " is served");
    return false;
}

void answer(http_answer& res, int status, const json& body) {
    res.status = status;
    // A router's bytes that are not UTF-8 show as U+FFFD rather than fail the answer.
    res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

void answer_error(http_answer& res, int status, const std::string& message) {
    answer(res, status, {{"error", message}});
}

json host_json(const host_state& h) {
    return {{"name", h.name},
            {"address", h.address},
            {"state", scheduler::verdict(h)},
            {"last_attempt", seconds_or_null(h.last_attempt)},
            {"last_success", seconds_or_null(h.last_success)},
            {"last_change", seconds_or_null(h.last_change)},
            {"last_commit", text_or_null(h.last_commit)},
            {"failures", h.consecutive_failures},
            {"attempts_total", h.attempts},
            {"failures_total", h.failures},
            {"last_error", text_or_null(h.last_error)},
            {"last_duration", h.last_attempt > 0 ? json(h.last_duration) : json(nullptr)},
            {"next_due", seconds_or_null(h.next_due)},
            {"model", text_or_null(h.model)},
            {"firmware", text_or_null(h.firmware)}};
}

void get_healthz(service& s, const http_request&, http_answer& res) {
    if (s.schedule().running())
        res.set_content("ok\n", "text/plain");
    else
        answer_error(res, 503, "the scheduler is not running");
}

void get_metrics(service& s, const http_request&, http_answer& res) {
    res.set_content(metrics_text(s.schedule(), now_seconds(), s.options().interval_ms / 1000.0),
                    "text/plain; version=0.0.4");
}

void get_hosts(service& s, const http_request&, http_answer& res) {
    json hosts = json::array();
    for (const host_state& st : s.schedule().hosts()) hosts.push_back(host_json(st));
    answer(res, 200, {{"interval", s.options().interval_ms / 1000.0}, {"hosts", hosts}});
}

void get_host(service& s, const http_request& req, http_answer& res) {
    host_state st;
    if (!find_host(s, req, res, &st)) return;
    json history;
    kelp::status r = s.store().read([&](git_store& git) { return git.history(st.name, &history); });
    if (!r) return answer_error(res, 500, r.message);
    json out = host_json(st);
    out["history"] = history_json(history);
    answer(res, 200, out);
}

// Without from and to: the host's last change, from the change before it
// (the same patch as from the commit's parent, for this host's folder).
void get_diff(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::string from = query(req, "from"), to = query(req, "to"), patch;
    if (!find_host(s, req, res, &st)) return;
    if (!plain_revision(from) || !plain_revision(to))
        return answer_error(res, 400, "from and to are commit ids (or HEAD, HEAD~N)");
    json files, history;
    kelp::status r = s.store().read([&](git_store& git) {
        kelp::status h = from.empty() ? git.history(st.name, &history) : kelp::ok();
        // Without from: the change to made (the last one without to), from the one before it.
        for (size_t i = 0; h && i < history.size(); i++) {
            if (!to.empty() && history[i]["commit"].get<std::string>().rfind(to, 0) != 0) continue;
            to = history[i]["commit"];
            if (i + 1 < history.size()) from = history[i + 1]["commit"];
            break;
        }
        return h ? git.diff(st.name, from, to, &patch, &files) : h;
    });
    if (!r) return answer_error(res, 404, r.message);
    json out = {{"host", st.name}, {"to", to.empty() ? "HEAD" : to}, {"files", files}, {"patch", patch}};
    if (!from.empty()) out["from"] = from;
    answer(res, 200, out);
}

void get_file_list(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::string rev = query(req, "rev");
    std::vector<std::string> paths;
    if (!find_host(s, req, res, &st)) return;
    if (!plain_revision(rev)) return answer_error(res, 400, "rev is a commit id (or HEAD, HEAD~N)");
    kelp::status r = s.store().read([&](git_store& git) { return git.files_at(rev, st.name, &paths); });
    if (!r) return answer_error(res, 404, r.message);
    json files = json::array();
    s.store().read([&](git_store& git) {
        for (const std::string& p : paths) {
            std::string content;
            git.read_at(rev, st.name + "/" + p, &content);
            files.push_back({{"path", p}, {"size", content.size()}});
        }
        return 0;
    });
    answer(res, 200, {{"host", st.name}, {"rev", rev.empty() ? "HEAD" : rev}, {"files", files}});
}

void get_file(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::string rev = query(req, "rev"), path = req.matches[2], content;
    if (!find_host(s, req, res, &st)) return;
    if (!plain_revision(rev) || path.find("..") != std::string::npos)
        return answer_error(res, 400, "rev is a commit id (or HEAD, HEAD~N); PATH a file of the host");
    kelp::status r = s.store().read([&](git_store& git) { return git.read_at(rev, st.name + "/" + path, &content); });
    if (!r) return answer_error(res, 404, r.message);
    res.set_content(content, "application/octet-stream");
}

void post_backup(service& s, const http_request& req, http_answer& res) {
    std::string name = req.matches[1], wait = query(req, "wait");
    long long ticket = 0, bound = 4LL * s.options().conn.timeout_ms + 30000;
    if (wait != "" && wait != "0" && wait != "1") return answer_error(res, 400, "wait is 0 or 1");
    if (!s.schedule().running()) return answer_error(res, 409, "the service is stopping");
    // A place among the waiting clients first: without one, nothing is queued.
    http_answer late;
    answer_error(late, 504, name + "'s backup did not finish in " + seconds_text(bound / 1000.0));
    std::shared_ptr<http_later> later = wait == "1" ? res.later(bound, late) : nullptr;
    if (wait == "1" && !later) return;
    if (!s.schedule().run_now(name, &ticket)) {
        answer_error(res, 404, "no host " + name + " is served");
        if (later) later->answer(res);
        return;
    }
    log_event(name + ": backup asked for through the API");
    if (!later) return answer(res, 202, {{"host", name}, {"queued", true}});
    s.schedule().when_done(name, ticket, [later, name](wait_end end, const host_state& st, const host_run& r) {
        http_answer res;
        if (end == wait_end::stopping) answer_error(res, 503, "the service is stopping");
        if (end == wait_end::host_left) answer_error(res, 404, "no host " + name + " is served");
        if (end != wait_end::finished) return later->answer(std::move(res));
        json out = host_json(st);
        out["ok"] = r.error.empty();
        out["changed"] = !r.commit.empty();
        out["commit"] = text_or_null(r.commit);
        out["message"] = !r.error.empty() ? r.error : r.commit.empty() ? "unchanged" : "changed";
        answer(res, 200, out);
        later->answer(std::move(res));
    });
}

void get_search(service& s, const http_request& req, http_answer& res) {
    std::string q = query(req, "q");
    if (q.empty()) return answer_error(res, 400, "search needs q=TEXT");
    std::vector<std::string> names;
    for (const host_state& st : s.schedule().hosts()) names.push_back(st.name);
    json matches = s.store().read([&](git_store& git) { return search_files(git, names, q); });
    answer(res, 200, {{"q", q}, {"matches", matches}});
}

void get_page_file(service&, const http_request& req, http_answer& res) {
    const web_asset* asset = find_web_asset(req.path);
    if (!asset) return answer_error(res, 404, "no such resource: " + req.path);
    for (const web_header& h : web_security_headers) res.set_header(h.name, h.value);
    res.set_content((const char*)asset->data, asset->size, asset->content_type);
}
