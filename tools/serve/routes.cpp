#include "routes.h"

#include <time.h>

#include <regex>

#include "clock.h"
#include "json_bytes.h"
#include "log.h"
#include "metrics.h"
#include "search.h"
#include "web_assets.h"

using nlohmann::json;

namespace {

// One answer of /changes lists at most this many hosts' commits; a host's
// page, its newest changes (at most max_history when asked for more).
constexpr size_t max_changes = 1000;
constexpr int default_history = 100, max_history = 10000;
// /changes without since: this many days back.
constexpr int default_changes_days = 7;

json seconds_or_null(double t) { return t > 0 ? json((long long)t) : json(nullptr); }

json text_or_null(const std::string& s) { return s.empty() ? json(nullptr) : json(s); }

// A path inside the host's folder, as every answer gives it.
std::string in_host(const std::string& host, const std::string& path) {
    return path.rfind(host + "/", 0) == 0 ? path.substr(host.size() + 1) : path;
}

json files_in_host(const std::string& host, const json& files) {
    json out = json::array();
    for (json f : files) {
        f["path"] = in_host(host, f["path"].get<std::string>());
        out.push_back(f);
    }
    return out;
}

json history_json(const std::string& host, const json& entries) {
    json out = json::array();
    for (const json& e : entries) {
        out.push_back({{"rev", e["commit"]},
                       {"time", e["time"]},
                       {"message", e["subject"]},
                       {"files", files_in_host(host, e["files"])}});
    }
    return out;
}

// Unix seconds from a query, or fallback when absent; false when not a number.
bool seconds_param(const std::string& text, double fallback, double* out) {
    if (text.empty()) return *out = fallback, true;
    char* end = nullptr;
    *out = strtod(text.c_str(), &end);
    return *end == '\0' && *out >= 0;
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
// The host the path names, or a 404 answer. A host that left the inventory
// can still be read (its files stay): with retired, it is found too.
static bool find_host(service& s, const http_request& req, http_answer& res, host_state* out, bool retired = false) {
    const std::string& name = req.matches[1];
    if (s.schedule().find(name, out)) return true;
    if (retired)
        for (const auto& [folder, change] : s.retired_hosts()) {
            if (folder != name) continue;
            *out = host_state{};
            out->name = name, out->retired = true;
            out->last_commit = change.commit, out->last_change = change.time;
            return true;
        }
    answer_error(res, 404, "no host " + name + " is served");
    return false;
}

void answer(http_answer& res, int status, const json& body) {
    res.status = status;
    // A router's bytes that are not UTF-8 travel as kelputil --json gives them.
    res.set_content(printable(body).dump(), "application/json");
}

void answer_error(http_answer& res, int status, const std::string& message) {
    answer(res, status, {{"error", message}});
}

json host_json(const host_state& h, double now, double interval) {
    return {{"name", h.name},
            {"address", h.address},
            {"state", scheduler::verdict(h)},
            {"overdue", is_overdue(h, now, interval)},
            {"since", seconds_or_null(h.since)},
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

static json host_json(service& s, const host_state& h) {
    return host_json(h, s.schedule().wall_now(), s.schedule().interval());
}

void get_healthz(service& s, const http_request&, http_answer& res) {
    std::vector<std::string> reasons = s.health().reasons(s.schedule(), s.options().into);
    if (reasons.empty()) return answer(res, 200, {{"status", "ok"}});
    answer(res, 503, {{"status", "failing"}, {"error", reasons[0]}, {"reasons", reasons}});
}

void get_metrics(service& s, const http_request&, http_answer& res) {
    res.set_content(metrics_text(s.schedule(), s.health().figures(), !s.options().push.empty()),
                    "text/plain; version=0.0.4");
}

void get_hosts(service& s, const http_request&, http_answer& res) {
    json hosts = json::array();
    for (const host_state& st : s.schedule().hosts()) hosts.push_back(host_json(s, st));
    json retired = json::array();
    for (const auto& [name, c] : s.retired_hosts())
        retired.push_back(
            {{"name", name}, {"last_commit", text_or_null(c.commit)}, {"last_change", seconds_or_null(c.time)}});
    answer(res, 200,
           {{"interval", s.schedule().interval()},
            {"started", (long long)s.schedule().started()},
            {"hosts", hosts},
            {"retired", retired}});
}

// The host with its newest changes: ?history=N of them (100 by default);
// history_more says that older ones exist.
void get_host(service& s, const http_request& req, http_answer& res) {
    host_state st;
    double wanted = 0;
    if (!find_host(s, req, res, &st, true)) return;
    if (!seconds_param(query(req, "history"), default_history, &wanted) || wanted < 1 || wanted > max_history)
        return answer_error(res, 400, "history is a number of changes, 1 to " + std::to_string(max_history));
    size_t max = (size_t)wanted;
    json history;
    kelp::status r = s.store().reading([&](git_store& git) { return git.history(st.name, &history, max + 1); });
    if (!r) return answer_error(res, 500, r.message);
    json out = host_json(s, st);
    out["history_more"] = history.size() > max;
    if (history.size() > max) history.erase(history.size() - 1);
    out["history"] = history_json(st.name, history);
    answer(res, 200, out);
}

// Without from and to: the host's last change, from the change before it
// (the same patch as from the commit's parent, for this host's folder).
void get_diff(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::string from = query(req, "from"), to = query(req, "to"), patch;
    if (!find_host(s, req, res, &st, true)) return;
    if (!plain_revision(from) || !plain_revision(to))
        return answer_error(res, 400, "from and to are commit ids (or HEAD, HEAD~N)");
    json files, history;
    kelp::status r = s.store().reading([&](git_store& git) {
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
    json out = {{"host", st.name},
                {"to", to.empty() ? "HEAD" : to},
                {"files", files_in_host(st.name, files)},
                {"patch", patch}};
    if (!from.empty()) out["from"] = from;
    answer(res, 200, out);
}

// A host never backed up has no files yet: an empty list with its state.
void get_file_list(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::string rev = query(req, "rev");
    std::vector<git_store::file_size> sizes;
    if (!find_host(s, req, res, &st, true)) return;
    if (!plain_revision(rev)) return answer_error(res, 400, "rev is a commit id (or HEAD, HEAD~N)");
    json files = json::array();
    if (!st.last_commit.empty() || !rev.empty()) {
        kelp::status r = s.store().reading([&](git_store& git) { return git.files_at(rev, st.name, &sizes); });
        if (!r) return answer_error(res, 404, r.message);
        for (const auto& f : sizes) files.push_back({{"path", f.path}, {"size", f.size}});
    }
    answer(
        res, 200,
        {{"host", st.name}, {"rev", rev.empty() ? "HEAD" : rev}, {"state", scheduler::verdict(st)}, {"files", files}});
}

void get_file(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::string rev = query(req, "rev"), path = req.matches[2], content;
    if (!find_host(s, req, res, &st, true)) return;
    if (!plain_revision(rev) || path.find("..") != std::string::npos)
        return answer_error(res, 400, "rev is a commit id (or HEAD, HEAD~N); PATH a file of the host");
    kelp::status r =
        s.store().reading([&](git_store& git) { return git.read_at(rev, st.name + "/" + path, &content); });
    if (!r) return answer_error(res, 404, r.message);
    res.set_content(content, "application/octet-stream");
}

void post_backup(service& s, const http_request& req, http_answer& res) {
    std::string name = req.matches[1], wait = query(req, "wait");
    long long ticket = 0, bound = wait_bound_ms(s.options());
    if (wait != "" && wait != "0" && wait != "1") return answer_error(res, 400, "wait is 0 or 1");
    if (!s.schedule().running()) return answer_error(res, 409, "the service is stopping");
    // A place among the waiting clients first: without one, nothing is queued.
    http_answer late;
    answer_error(late, 504, name + "'s backup did not finish in " + kelp::seconds_text(bound / 1000.0));
    std::shared_ptr<http_later> later = wait == "1" ? res.later(bound, late) : nullptr;
    if (wait == "1" && !later) return;
    if (!s.schedule().run_now(name, &ticket)) {
        answer_error(res, 404, "no host " + name + " is served");
        if (later) later->answer(res);
        return;
    }
    log_event(name + ": backup asked for through the API");
    if (!later) return answer(res, 202, {{"host", name}, {"queued", true}});
    double interval = s.schedule().interval();
    s.schedule().when_done(name, ticket,
                           [later, name, interval](wait_end end, const host_state& st, const host_run& r) {
                               http_answer res;
                               if (end == wait_end::stopping) answer_error(res, 503, "the service is stopping");
                               if (end == wait_end::host_left) answer_error(res, 404, "no host " + name + " is served");
                               if (end != wait_end::finished) return later->answer(std::move(res));
                               json out = host_json(st, kelp::wall_seconds(), interval);
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
    json matches = s.store().reading([&](git_store& git) { return search_files(git, names, q); });
    answer(res, 200, {{"q", q}, {"matches", matches}});
}

void get_attempts(service& s, const http_request& req, http_answer& res) {
    host_state st;
    std::vector<attempt> list;
    if (!find_host(s, req, res, &st)) return;
    kelp::status r = s.state().attempts(st.name, &list);
    if (!r) return answer_error(res, 500, r.message);
    json out = json::array();
    for (const attempt& a : list)
        out.push_back({{"time", seconds_or_null(a.time)},
                       {"duration", a.duration},
                       {"result", a.result},
                       {"error", text_or_null(a.error)},
                       {"commit", text_or_null(a.commit)}});
    answer(res, 200, {{"host", st.name}, {"attempts", out}});
}

// Every host's commits in a time range, newest first.
void get_changes(service& s, const http_request& req, http_answer& res) {
    double now = s.schedule().wall_now(), since = 0, until = 0;
    if (!seconds_param(query(req, "since"), now - default_changes_days * 24 * 3600, &since) ||
        !seconds_param(query(req, "until"), now, &until) || since > until)
        return answer_error(res, 400,
                            "since and until are Unix seconds, since before until (default: the last " +
                                std::to_string(default_changes_days) + " days)");
    json changes;
    std::string host = query(req, "host");
    kelp::status r = s.store().reading(
        [&](git_store& git) { return git.changes_between(since, until, host, max_changes, &changes); });
    if (!r) return answer_error(res, 500, r.message);
    json out = {{"since", (long long)since}, {"until", (long long)until}, {"changes", changes}};
    if (!host.empty()) out["host"] = host;
    answer(res, 200, out);
}

void get_page_file(service&, const http_request& req, http_answer& res) {
    const web_asset* asset = find_web_asset(req.path);
    if (!asset) return answer_error(res, 404, "no such resource: " + req.path);
    for (const web_header& h : web_security_headers) res.set_header(h.name, h.value);
    res.set_content((const char*)asset->data, asset->size, asset->content_type);
}
