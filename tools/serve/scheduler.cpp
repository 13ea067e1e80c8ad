#include "scheduler.h"

#include <math.h>

#include <algorithm>
#include <chrono>

#include "clock.h"
#include "retry.h"

namespace {

std::string address_of(const inventory_host& h) {
    auto a = h.vars.find("ansible_host");
    return a != h.vars.end() ? a->second : h.name;
}

}  // namespace

schedule_clock real_clock() { return {kelp::monotonic_seconds, kelp::wall_seconds}; }

double retry_delay(double interval, int failures) { return kelp::backoff(interval / 16, interval / 2, failures); }

bool is_overdue(const host_state& h, double now, double interval) {
    if (h.retired) return false;  // nobody backs it up any more
    return now - std::max(h.last_success, h.since) > 2 * interval;
}

scheduler::scheduler(double interval, int jobs, host_runner runner, run_listener listener, schedule_clock clock)
    : interval_(interval),
      jobs_(jobs),
      runner_(std::move(runner)),
      listener_(std::move(listener)),
      clock_(std::move(clock)) {
    started_wall_ = clock_.wall();
}

scheduler::~scheduler() { stop(0); }

void scheduler::set_hosts(const std::vector<inventory_host>& hosts, const std::map<std::string, host_state>& saved) {
    std::lock_guard<std::mutex> hold(lock_);
    double now = clock_.monotonic(), wall = clock_.wall();
    std::map<std::string, entry> next;
    std::vector<entry*> to_spread;
    for (const inventory_host& h : hosts) {
        auto known = hosts_.find(h.name);
        if (known != hosts_.end()) {
            entry& e = next[h.name] = std::move(known->second);
            e.host = h;
            e.state.address = address_of(h);
            continue;
        }
        entry& e = next[h.name];
        e.host = h;
        auto s = saved.find(h.name);
        if (s != saved.end()) e.state = s->second;
        e.state.name = h.name;
        e.state.address = address_of(h);
        if (e.state.since == 0) e.state.since = wall;                              // kept from then on, across restarts
        e.due = e.state.next_due > 0 ? e.state.next_due - wall + now : -HUGE_VAL;  // never run: first
        // Saved further ahead than one interval (a shorter --interval now, or
        // a clock that was ahead at the stop): due now, with the others.
        if (e.due > now + interval_) e.due = now;
        if (e.due <= now) to_spread.push_back(&e);
    }
    // The longest waiting first, each a step of interval / n later.
    std::stable_sort(to_spread.begin(), to_spread.end(),
                     [](const entry* a, const entry* b) { return a->due < b->due; });
    for (size_t i = 0; i < to_spread.size(); i++) to_spread[i]->due = now + interval_ * i / to_spread.size();
    for (const auto& [name, e] : hosts_)
        if (!next.count(name)) waiters_.host_left(name);
    hosts_ = std::move(next);
    wake_.notify_all();
}

void scheduler::start() {
    std::lock_guard<std::mutex> hold(lock_);
    started_ = true;
    for (int i = 0; i < jobs_; i++) workers_.emplace_back([this] { work(); });
}

bool scheduler::stop(long long deadline_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    stopping_ = true;
    waiters_.stop();
    wake_.notify_all();
    done_.notify_all();
    bool all = done_.wait_for(hold, std::chrono::milliseconds(deadline_ms), [&] { return in_flight_ == 0; });
    std::vector<std::thread> workers = std::move(workers_);
    hold.unlock();
    for (std::thread& t : workers) {
        if (all)
            t.join();
        else
            t.detach();  // it ends with its host's time-out; the process will not wait
    }
    return all;
}

bool scheduler::running() const {
    std::lock_guard<std::mutex> hold(lock_);
    return started_ && !stopping_;
}

// The host to run now: one asked for first, else the most overdue. *wake:
// when to look again otherwise.
scheduler::entry* scheduler::pick(double now, double* wake) {
    entry* best = nullptr;
    *wake = now + interval_;
    for (auto& [name, e] : hosts_) {
        if (e.running) continue;
        if (e.front) {
            if (!best || !best->front || e.front < best->front) best = &e;
            continue;
        }
        if (e.due > now) {
            *wake = std::min(*wake, e.due);
            continue;
        }
        if (!best || (!best->front && e.due < best->due)) best = &e;
    }
    return best;
}

void scheduler::work() {
    std::unique_lock<std::mutex> hold(lock_);
    while (!stopping_) {
        double now = clock_.monotonic(), wake = 0;
        entry* e = pick(now, &wake);
        if (!e) {
            wake_.wait_for(hold, std::chrono::microseconds((long long)((wake - now) * 1e6) + 1));
            continue;
        }
        e->running = true;
        e->run_start = now;
        e->front = 0;
        in_flight_++;
        inventory_host host = e->host;
        host_state before = shown(*e);
        hold.unlock();
        host_run r;
        try {
            r = runner_(host, before);
        } catch (const std::exception& ex) {
            r.error = std::string("internal error: ") + ex.what();
        }
        hold.lock();
        finish(hold, host.name, now, r);
        in_flight_--;
        done_.notify_all();
    }
}

// The new state under the lock; the listener (which saves it, and may take
// an fsync) outside it; only then may the host run again.
void scheduler::finish(std::unique_lock<std::mutex>& hold, const std::string& name, double start, const host_run& r) {
    auto it = hosts_.find(name);
    if (it == hosts_.end()) return;  // it left the schedule while running
    double now = clock_.monotonic(), wall = clock_.wall();
    entry& e = it->second;
    host_state& s = e.state;
    int failures_before = s.consecutive_failures;
    s.last_attempt = wall - (now - start);
    s.last_duration = now - start;
    s.attempts++;
    if (r.error.empty()) {
        s.last_success = wall;
        s.consecutive_failures = 0;
        s.last_error.clear();
        if (!r.commit.empty()) s.last_change = wall, s.last_commit = r.commit;
        if (r.reports_read) {
            if (!r.model.empty()) s.model = r.model;
            if (!r.firmware.empty()) s.firmware = r.firmware;
            s.uptime = r.uptime;
            s.reports_time = wall;
        }
        // Keep the host's place in the interval; a run out of turn does not move it.
        double due = e.due <= start ? e.due + interval_ : e.due;
        e.due = due > now ? due : now + interval_;
    } else {
        s.failures++;
        s.consecutive_failures++;
        s.last_error = r.error;
        e.due = now + retry_delay(interval_, s.consecutive_failures);
    }
    e.last = r;
    host_state snapshot = shown(e);
    hold.unlock();
    listener_(snapshot, r, failures_before);
    hold.lock();
    it = hosts_.find(name);
    if (it == hosts_.end()) return;
    it->second.running = false;
    it->second.runs++;
    waiters_.finished(name, it->second.runs, snapshot, r);
    wake_.notify_all();
}

// The state as shown: due and arrival times in wall time.
host_state scheduler::shown(const entry& e) const {
    host_state s = e.state;
    double offset = clock_.wall() - clock_.monotonic();
    s.next_due = e.due + offset;
    return s;
}

std::vector<host_state> scheduler::hosts() const {
    std::vector<host_state> out;
    {
        std::lock_guard<std::mutex> hold(lock_);
        for (const auto& [name, e] : hosts_) out.push_back(shown(e));
    }
    std::sort(out.begin(), out.end(),
              [](const host_state& a, const host_state& b) { return natural_less(a.name, b.name); });
    return out;
}

bool scheduler::find(const std::string& name, host_state* out) const {
    std::lock_guard<std::mutex> hold(lock_);
    auto it = hosts_.find(name);
    if (it == hosts_.end()) return false;
    *out = shown(it->second);
    return true;
}

bool scheduler::update(const std::string& name, const std::function<void(host_state&)>& change, host_state* out) {
    std::lock_guard<std::mutex> hold(lock_);
    auto it = hosts_.find(name);
    if (it == hosts_.end()) return false;
    change(it->second.state);
    *out = shown(it->second);
    return true;
}

std::string scheduler::verdict(const host_state& h) {
    if (h.retired) return "retired";
    if (h.attempts == 0 && h.last_attempt == 0) return "pending";
    return h.consecutive_failures ? "failed" : "ok";
}

bool scheduler::run_now(const std::string& name, long long* ticket) {
    std::lock_guard<std::mutex> hold(lock_);
    auto it = hosts_.find(name);
    if (it == hosts_.end()) return false;
    entry& e = it->second;
    // A run already going started before the request: wait for the next.
    *ticket = e.runs + (e.running ? 2 : 1);
    if (!e.front) e.front = ++front_order_;
    wake_.notify_all();
    return true;
}

void scheduler::when_done(const std::string& name, long long ticket, run_waiter w) {
    std::lock_guard<std::mutex> hold(lock_);
    auto it = hosts_.find(name);
    if (stopping_) return w(wait_end::stopping, {}, {});
    if (it == hosts_.end()) return w(wait_end::host_left, {}, {});
    if (it->second.runs >= ticket) return w(wait_end::finished, shown(it->second), it->second.last);
    waiters_.add(name, ticket, std::move(w));
}

bool scheduler::wait_for(const std::string& name, long long ticket, long long timeout_ms, host_state* out,
                         host_run* r) {
    std::unique_lock<std::mutex> hold(lock_);
    bool done = done_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] {
        auto it = hosts_.find(name);
        return stopping_ || it == hosts_.end() || (it->second.runs >= ticket && !it->second.running);
    });
    auto it = hosts_.find(name);
    if (!done || it == hosts_.end() || it->second.runs < ticket) return false;
    *out = shown(it->second);
    *r = it->second.last;
    return true;
}

double scheduler::lag_of(const entry& e, double now) const {
    if (!e.running) return std::max(0.0, now - e.due);
    // A run may take its bound; beyond it, the host is stuck.
    return std::max(0.0, now - e.run_start - run_bound_);
}

std::string scheduler::most_lagging(double* lag) const {
    std::lock_guard<std::mutex> hold(lock_);
    double now = clock_.monotonic();
    std::string worst;
    *lag = 0;
    for (const auto& [name, e] : hosts_) {
        double l = lag_of(e, now);
        if (l > *lag) *lag = l, worst = name;
    }
    return worst;
}

double scheduler::lag() const {
    double l = 0;
    most_lagging(&l);
    return l;
}
