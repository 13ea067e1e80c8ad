#include "service.h"

#include <stdlib.h>

#include <algorithm>

#include "clock.h"
#include "facts.h"
#include "log.h"

namespace {

// Notes of a connection (first contacts, --verbose), one log line each.
class log_notes : public reporter {
public:
    void note(const std::string& text) override { log_event(text); }
};
log_notes notes;

std::string time_text(double t) { return std::to_string((long long)t); }

bool same_commit(const std::string& a, const std::string& b) {
    return !a.empty() && !b.empty() && (a.rfind(b, 0) == 0 || b.rfind(a, 0) == 0);
}

attempt attempt_of(const host_state& s, const host_run& r) {
    return {s.last_attempt, s.last_duration,
            !r.error.empty()   ? "failed"
            : r.commit.empty() ? "unchanged"
                               : "changed",
            r.error, r.commit};
}

}  // namespace

std::string state_path(const serve_options& o) {
    if (!o.state.empty()) return o.state;
    const char* dir = getenv("STATE_DIRECTORY");
    if (dir && *dir) return std::string(dir) + "/serve.db";
    return o.into + "/.kelputil-serve.db";
}

service::service(const serve_options& o)
    : o_(o), targets_(o_), health_(kelp::wall_seconds()), hooks_(o.hook_timeout_ms) {}

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

kelp::status service::open() {
    std::vector<inventory_host> hosts;
    std::map<std::string, host_state> saved;
    std::string note;
    kelp::status st = read_hosts(&hosts);
    std::vector<std::string> names;
    for (const inventory_host& h : hosts) names.push_back(h.name);
    if (st) st = backup_store::open_repository(o_, state_path(o_), names, &store_);
    if (st) st = state_db::open(state_path(o_), &db_, &note);
    if (st && !note.empty()) log_event(note);
    if (st) st = db_->load(&saved);
    if (st) st = take_truth_from_git(hosts, &saved, !note.empty());
    if (!st) return st;
    schedule_ = std::make_unique<scheduler>(
        o_.interval_ms / 1000.0, o_.jobs,
        [this](const inventory_host& h, const host_state& before) { return run_host(h, before); },
        [this](const host_state& s, const host_run& r, int failures_before) { after_run(s, r, failures_before); });
    schedule_->set_run_bound(run_bound_ms(o_) / 1000.0);
    schedule_->set_hosts(hosts, saved);
    find_retired(hosts);
    return kelp::ok();
}

void service::start() {
    if (!o_.push.empty()) push_ = std::make_unique<pusher>(o_, &health_);
    schedule_->start();
    log_event("serving " + std::to_string(schedule_->hosts().size()) + " hosts every " +
              kelp::seconds_text(o_.interval_ms / 1000.0) + " into " + o_.into);
    run_missed_hooks();
}

void service::run_missed_hooks() {
    for (const auto& [name, change] : replay_) {
        host_state s;
        if (schedule_->find(name, &s)) run_change_hook(s, change.commit, change.time);
    }
    replay_.clear();
}

// The state is a cache of what git holds: a crash between a commit and the
// state's save, a lost state file or a repository brought from elsewhere
// all show what git has. Commits whose change hook may not have run are
// queued for it: for a host the state knows, those after its last hooked
// commit; for one it does not, those made since the state file was made
// (a state made anew replays nothing of the past).
kelp::status service::take_truth_from_git(const std::vector<inventory_host>& hosts,
                                          std::map<std::string, host_state>* saved, bool rebuilt) {
    std::vector<std::string> names;
    for (const inventory_host& h : hosts) names.push_back(h.name);
    bool had_state = !saved->empty();
    std::map<std::string, git_store::folder_change> last;
    std::string base, head = store_->reading([&](git_store&git) { return git.head_commit(); });
    bool present = false;
    kelp::status st = store_->reading([&](git_store& git) { return git.last_changes(names, &last); });
    if (st) st = db_->get_meta("created_head", &base, &present);
    if (st && !present) st = db_->set_meta("created_head", base = head);
    if (!st) return st;
    for (const std::string& name : names) {
        host_state& s = (*saved)[name];
        s.name = name;
        auto g = last.find(name);
        if (g == last.end()) {
            s.last_commit.clear(), s.hooked_commit.clear(), s.last_change = 0;
            continue;
        }
        const git_store::folder_change& c = g->second;
        if (!same_commit(s.last_commit, c.commit)) {
            s.last_commit = c.commit;
            s.last_change = c.time;
            s.last_success = std::max(s.last_success, c.time);
        }
        std::string from = s.hooked_commit.empty() ? base : s.hooked_commit;
        s.hooked_commit = c.commit;
        if (o_.on_change.empty() || same_commit(from, c.commit)) continue;
        std::vector<git_store::folder_change> missed;
        bool found = false;
        st = store_->reading([&](git_store& git) { return git.changes_after(name, from, &missed, &found); });
        if (!st) return st;
        if (!found) {
            log_event(name + ": the commit " + from + " is not in the backups' history; no change hook is run again");
            continue;
        }
        if (missed.empty()) continue;
        s.hooked_commit = from;  // until the hooks below have run
        for (const git_store::folder_change& m : missed) replay_.emplace_back(name, m);
    }
    if ((rebuilt || !had_state) && !last.empty())
        log_event("the hosts' last changes are taken from the backups' history");
    if (!replay_.empty())
        log_event(std::to_string(replay_.size()) + " change hooks did not run before the last stop: they run now");
    return kelp::ok();
}

void service::find_retired(const std::vector<inventory_host>& hosts) {
    std::vector<std::string> folders, gone;
    std::map<std::string, git_store::folder_change> last;
    store_->reading([&](git_store& git) { return git.folders(&folders); });
    for (const std::string& f : folders)
        if (std::none_of(hosts.begin(), hosts.end(), [&](const inventory_host& h) { return h.name == f; }))
            gone.push_back(f);
    std::sort(gone.begin(), gone.end(), natural_less);
    if (!gone.empty()) store_->reading([&](git_store& git) { return git.last_changes(gone, &last); });
    std::lock_guard<std::mutex> hold(retired_lock_);
    retired_.clear();
    for (const std::string& name : gone) retired_.emplace_back(name, last[name]);
    if (!gone.empty())
        log_event(plural(gone.size(), "folder") +
                  " of the backups belong to no host of the inventory; "
                  "they stay as they are");
}

std::vector<std::pair<std::string, git_store::folder_change>> service::retired_hosts() {
    std::lock_guard<std::mutex> hold(retired_lock_);
    return retired_;
}

kelp::status service::reload() {
    std::vector<inventory_host> hosts;
    kelp::status st = read_hosts(&hosts);
    health_.reload_result((bool)st, kelp::wall_seconds());
    if (!st) return st;
    // A host that comes back (or is new) starts from what was saved of it
    // and what git holds, as at a start; hosts already served keep theirs.
    std::map<std::string, host_state> saved;
    std::vector<inventory_host> arriving;
    host_state ignored;
    for (const inventory_host& h : hosts)
        if (!schedule_->find(h.name, &ignored)) arriving.push_back(h);
    if (st) st = db_->load(&saved);
    if (st) st = take_truth_from_git(arriving, &saved, false);
    if (!st) return st;
    targets_.forget_passwords();
    schedule_->set_hosts(hosts, saved);
    find_retired(hosts);
    run_missed_hooks();
    log_event("inventory and passwords read again: " + std::to_string(hosts.size()) + " hosts");
    return kelp::ok();
}

bool service::stop() {
    if (!schedule_) return true;
    health_.stopping();
    long long deadline = kelp::monotonic_ms() + o_.stop_deadline_ms;
    if (push_) push_->stop();  // a push in flight is abandoned: the next start pushes again
    if (!schedule_->stop(o_.stop_deadline_ms)) {
        store_->freeze();
        log_event("hosts still running at the deadline are left: their last good files stay");
        hooks_.stop(0);
        return false;
    }
    hooks_.stop(std::max(0LL, deadline - kelp::monotonic_ms()));
    return true;
}

host_run service::run_host(const inventory_host& host, const host_state& before) {
    host_run r;
    kelp::target t;
    kelp::status st = targets_.target_for(host, notes, &t);
    backup_result b;
    if (st) b = store_->back_up(host.name, t);
    if (st) st = b.st;
    r.commit = b.commit;
    if (!st) {
        r.error = st.message;
        r.repository_failure = b.repository_failure;
        r.repository_unwritable = b.unwritable;
        return r;
    }
    router_facts facts;
    if (facts_due(before, !r.commit.empty(), kelp::wall_seconds()) && read_facts(t, &facts)) {
        r.reports_read = true;
        r.model = facts.model, r.firmware = facts.firmware, r.uptime = facts.uptime;
    }
    return r;
}

void service::save(const host_state& s, const attempt* a) {
    kelp::status st = db_->save(s, a);
    if (!st) log_event(st.message);
}

// The failure hook pages someone about a host: once per streak, and only
// for the host's own failures (a full disk is the service's, and /healthz
// and its alert say so once rather than once per host); the recovery hook
// answers it.
void service::after_run(const host_state& done, const host_run& r, int failures_before) {
    bool host_failed = !r.error.empty() && !r.repository_failure;
    bool page = host_failed && !done.failure_hooked, recover = r.error.empty() && done.failure_hooked;
    host_state s = done;
    if (page || recover)
        schedule_->update(
            done.name, [&](host_state& h) { h.failure_hooked = page; }, &s);
    attempt a = attempt_of(s, r);
    save(s, &a);
    std::map<std::string, std::string> vars = {
        {"HOST", s.name}, {"ADDRESS", s.address}, {"TIME", time_text(s.last_attempt)}};
    if (r.repository_failure)
        health_.repository_failed(r.error, r.repository_unwritable);
    else if (r.error.empty())
        health_.repository_ok();
    if (!r.error.empty()) {
        log_event(s.name + ": failed (" + r.error + "), " + std::to_string(s.consecutive_failures) +
                  " in a row; next try in " +
                  kelp::seconds_text(retry_delay(o_.interval_ms / 1000.0, s.consecutive_failures)));
        if (!page) return;
        vars["ERROR"] = r.error;
        vars["FAILURES"] = std::to_string(s.consecutive_failures);
        hooks_.start(s.name + " on-failure", o_.on_failure, vars, hook_counter("on-failure"));
        return;
    }
    if (failures_before > 0)
        log_event(s.name + ": backed up again after " + std::to_string(failures_before) + " failures");
    if (recover) {
        vars["FAILURES"] = std::to_string(failures_before);
        hooks_.start(s.name + " on-recovery", o_.on_recovery, vars, hook_counter("on-recovery"));
    }
    if (r.commit.empty()) {
        log_event(s.name + ": backed up, unchanged");
        return;
    }
    log_event(s.name + ": backed up, changed: commit " + r.commit);
    run_change_hook(s, r.commit, s.last_success);
    if (push_) push_->notify();
}

// Counts a hook's failures for the metrics (a hook that is not set runs
// nothing, and fails nothing).
hook_runner::done_fn service::hook_counter(const std::string& hook) {
    return [this, hook](hook_runner::end how) {
        if (how != hook_runner::end::stopped) health_.hook_result(hook, how == hook_runner::end::ok);
    };
}

void service::run_change_hook(const host_state& s, const std::string& commit, double time) {
    std::map<std::string, std::string> vars = {
        {"HOST", s.name}, {"ADDRESS", s.address}, {"COMMIT", commit}, {"TIME", time_text(time)}};
    std::string host = s.name;
    hook_runner::done_fn count = hook_counter("on-change");
    hooks_.start(s.name + " on-change", o_.on_change, vars, [this, host, commit, count](hook_runner::end how) {
        count(how);
        // Run again at the next start if the stop cut it short.
        if (how != hook_runner::end::stopped) hooked(host, commit);
    });
}

// Marks the host's change hook as run up to commit, when that is still its
// last commit (a later one's hook is still to come).
void service::hooked(const std::string& host, const std::string& commit) {
    host_state now;
    bool changed = false;
    bool found = schedule_->update(
        host,
        [&](host_state& s) {
            if (!same_commit(s.last_commit, commit) || same_commit(s.hooked_commit, commit)) return;
            s.hooked_commit = s.last_commit;
            changed = true;
        },
        &now);
    if (found && changed) save(now);
}
