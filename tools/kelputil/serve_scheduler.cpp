#include "serve_scheduler.h"

#include <math.h>
#include <time.h>

#include <algorithm>
#include <chrono>

double now_seconds() {
    struct timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

double retry_delay(double interval, int failures) {
    double delay = interval / 16 * pow(2, std::max(failures, 1) - 1);
    return std::min(delay, interval / 2);
}

scheduler::scheduler(double interval, int jobs, host_runner runner, run_listener listener)
    : interval_(interval), jobs_(jobs), runner_(std::move(runner)), listener_(std::move(listener)) {}

scheduler::~scheduler() { stop(0); }

void scheduler::set_hosts(const std::vector<inventory_host>& hosts, const std::map<std::string, host_state>& saved,
                          double now) {
    std::lock_guard<std::mutex> hold(lock_);
    std::map<std::string, entry> next;
    std::vector<entry*> to_spread;
    for (const inventory_host& h : hosts) {
        auto known = hosts_.find(h.name);
        if (known != hosts_.end()) {
            next[h.name] = std::move(known->second);
            next[h.name].host = h;
            continue;
        }
        entry& e = next[h.name];
        e.host = h;
        auto s = saved.find(h.name);
        if (s != saved.end()) e.state = s->second;
        e.state.name = h.name;
        if (e.state.next_due <= now) to_spread.push_back(&e);
    }
    // The longest waiting first, each a step of interval / n later.
    std::stable_sort(to_spread.begin(), to_spread.end(),
                     [](const entry* a, const entry* b) { return a->state.next_due < b->state.next_due; });
    for (size_t i = 0; i < to_spread.size(); i++) to_spread[i]->state.next_due = now + interval_ * i / to_spread.size();
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
        if (e.state.next_due > now) {
            *wake = std::min(*wake, e.state.next_due);
            continue;
        }
        if (!best || (!best->front && e.state.next_due < best->state.next_due)) best = &e;
    }
    return best;
}

void scheduler::work() {
    std::unique_lock<std::mutex> hold(lock_);
    while (!stopping_) {
        double now = now_seconds(), wake = 0;
        entry* e = pick(now, &wake);
        if (!e) {
            auto until = std::chrono::system_clock::time_point(std::chrono::microseconds((long long)(wake * 1e6)));
            wake_.wait_until(hold, until);
            continue;
        }
        e->running = true;
        e->front = 0;
        in_flight_++;
        inventory_host host = e->host;
        hold.unlock();
        host_run r;
        try {
            r = runner_(host);
        } catch (const std::exception& ex) {
            r.error = std::string("internal error: ") + ex.what();
        }
        hold.lock();
        auto it = hosts_.find(host.name);
        if (it != hosts_.end()) finish(it->second, now, r);
        in_flight_--;
        done_.notify_all();
    }
}

void scheduler::finish(entry& e, double start, const host_run& r) {
    double now = now_seconds();
    host_state& s = e.state;
    s.address = e.host.vars.count("ansible_host") ? e.host.vars.at("ansible_host") : e.host.name;
    s.last_attempt = start;
    s.last_duration = now - start;
    s.attempts++;
    if (r.error.empty()) {
        s.last_success = now;
        s.consecutive_failures = 0;
        s.last_error.clear();
        if (!r.commit.empty()) s.last_change = now, s.last_commit = r.commit;
        if (!r.model.empty()) s.model = r.model;
        if (!r.firmware.empty()) s.firmware = r.firmware;
        // Keep the host's place in the interval; a run out of turn does not move it.
        double due = s.next_due <= start ? s.next_due + interval_ : s.next_due;
        s.next_due = due > now ? due : now + interval_;
    } else {
        s.failures++;
        s.consecutive_failures++;
        s.last_error = r.error;
        s.next_due = now + retry_delay(interval_, s.consecutive_failures);
    }
    e.running = false;
    e.runs++;
    e.last = r;
    listener_(s, r);
    waiters_.finished(e.host.name, e.runs, s, r);
    wake_.notify_all();
}

std::vector<host_state> scheduler::hosts() const {
    std::lock_guard<std::mutex> hold(lock_);
    std::vector<host_state> out;
    for (const auto& [name, e] : hosts_) out.push_back(e.state);
    return out;
}

bool scheduler::find(const std::string& name, host_state* out) const {
    std::lock_guard<std::mutex> hold(lock_);
    auto it = hosts_.find(name);
    if (it == hosts_.end()) return false;
    *out = it->second.state;
    return true;
}

std::string scheduler::verdict(const host_state& h) {
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
    if (it->second.runs >= ticket) return w(wait_end::finished, it->second.state, it->second.last);
    waiters_.add(name, ticket, std::move(w));
}

bool scheduler::wait_for(const std::string& name, long long ticket, long long timeout_ms, host_state* out,
                         host_run* r) {
    std::unique_lock<std::mutex> hold(lock_);
    bool done = done_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] {
        auto it = hosts_.find(name);
        return stopping_ || it == hosts_.end() || it->second.runs >= ticket;
    });
    auto it = hosts_.find(name);
    if (!done || it == hosts_.end() || it->second.runs < ticket) return false;
    *out = it->second.state;
    *r = it->second.last;
    return true;
}

double scheduler::lag(double now) const {
    std::lock_guard<std::mutex> hold(lock_);
    double worst = 0;
    for (const auto& [name, e] : hosts_)
        if (!e.running) worst = std::max(worst, now - e.state.next_due);
    return worst;
}
