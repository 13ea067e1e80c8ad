#include "serve_service.h"

#include <stdlib.h>

#include "serve_log.h"

namespace {

// Notes of a connection (first contacts, --verbose), one log line each.
class log_notes : public reporter {
public:
    void note(const std::string& text) override { log_event(text); }
};
log_notes notes;

std::string time_text(double t) { return std::to_string((long long)t); }

}  // namespace

std::string state_path(const serve_options& o) {
    if (!o.state.empty()) return o.state;
    const char* dir = getenv("STATE_DIRECTORY");
    if (dir && *dir) return std::string(dir) + "/serve.db";
    return o.into + "/.kelputil-serve.db";
}

service::service(const serve_options& o) : o_(o), targets_(o_), hooks_(o.hook_timeout_ms) {}

service::~service() = default;

kelp::status service::read_hosts(std::vector<inventory_host>* out) {
    inventory file;
    std::vector<const inventory_host*> chosen;
    kelp::status st = load_inventory(o_.inventory, &file);
    if (st) st = select_hosts(file, o_.limit, &chosen);
    if (!st) return st;
    out->clear();
    for (const inventory_host* h : chosen) out->push_back(*h);
    return kelp::ok();
}

kelp::status service::start() {
    std::vector<inventory_host> hosts;
    std::map<std::string, host_state> saved;
    kelp::status st = read_hosts(&hosts);
    std::vector<std::string> names;
    for (const inventory_host& h : hosts) names.push_back(h.name);
    if (st) st = backup_store::open(o_, state_path(o_), names, &store_);
    if (st) st = state_db::open(state_path(o_), &db_);
    if (st) st = db_->load(&saved);
    if (!st) return st;
    if (!o_.push.empty()) push_ = std::make_unique<pusher>(o_);
    schedule_ = std::make_unique<scheduler>(
        o_.interval_ms / 1000.0, o_.jobs, [this](const inventory_host& h) { return run_host(h); },
        [this](const host_state& s, const host_run& r) { after_run(s, r); });
    schedule_->set_hosts(hosts, saved, now_seconds());
    schedule_->start();
    log_event("serving " + std::to_string(hosts.size()) + " hosts every " + seconds_text(o_.interval_ms / 1000.0) +
              " into " + o_.into);
    return kelp::ok();
}

kelp::status service::reload() {
    std::vector<inventory_host> hosts;
    kelp::status st = read_hosts(&hosts);
    if (!st) return st;
    std::map<std::string, host_state> saved;
    db_->load(&saved);
    schedule_->set_hosts(hosts, saved, now_seconds());
    log_event("inventory read again: " + std::to_string(hosts.size()) + " hosts");
    return kelp::ok();
}

bool service::stop() {
    if (push_) push_->stop();
    if (!schedule_) return true;
    if (!schedule_->stop(o_.stop_deadline_ms)) {
        store_->freeze();
        log_event("hosts still running at the deadline are left: their last good files stay");
        return false;
    }
    hooks_.drain(o_.stop_deadline_ms);
    return true;
}

host_run service::run_host(const inventory_host& host) {
    host_run r;
    kelp::target t;
    kelp::status st = targets_.target_for(host, notes, &t);
    backup_result b;
    if (st) b = store_->back_up(host.name, t);
    if (st) st = b.st;
    if (!st) r.error = st.message;
    r.commit = b.commit;
    r.model = b.model;
    r.firmware = b.firmware;
    return r;
}

void service::after_run(const host_state& s, const host_run& r) {
    kelp::status st = db_->save(s);
    if (!st) log_event(st.message);
    std::map<std::string, std::string> vars = {
        {"HOST", s.name}, {"ADDRESS", s.address}, {"TIME", time_text(s.last_attempt)}};
    if (!r.error.empty()) {
        log_event(s.name + ": failed (" + r.error + "), " + std::to_string(s.consecutive_failures) +
                  " in a row; next try in " +
                  seconds_text(retry_delay(o_.interval_ms / 1000.0, s.consecutive_failures)));
        vars["ERROR"] = r.error;
        hooks_.start(s.name + " on-failure", o_.on_failure, vars);
        return;
    }
    if (r.commit.empty()) {
        log_event(s.name + ": backed up, unchanged");
        return;
    }
    log_event(s.name + ": backed up, changed: commit " + r.commit);
    vars["COMMIT"] = r.commit;
    hooks_.start(s.name + " on-change", o_.on_change, vars);
    if (push_) push_->notify();
}
