// Every host once per interval, spread evenly over it, at most -j at once
// and never two runs of one host together; a failed host is retried sooner,
// with a back-off that grows and stays below the interval. Hosts asked for
// through the API go first. Due times run on the monotonic clock, so a
// clock stepped back delays nobody; they are shown and saved in wall time.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "inventory.h"
#include "natural_order.h"
#include "state.h"
#include "waiters.h"

// What one run of a host gives: an error, or the new commit (empty when
// nothing changed) and what the reports said.
struct host_run {
    std::string error;
    std::string commit, model, firmware;
    double uptime = 0;  // the router's uptime in s, 0: not read this time
    bool reports_read = false;
    // The failure was in writing the repository, not in the host; and then
    // whether the repository cannot be written at all (a full disk).
    bool repository_failure = false, repository_unwritable = false;
};
using host_runner = std::function<host_run(const inventory_host& host, const host_state& before)>;
// Called after each run, outside the schedule's lock, with the host's new
// state, the run, and the failures in a row before it. The host runs again
// only once this has returned.
using run_listener = std::function<void(const host_state& state, const host_run& r, int failures_before)>;

// Seconds on the two clocks; tests give their own.
struct schedule_clock {
    std::function<double()> monotonic, wall;
};
schedule_clock real_clock();

// How long a host that failed `failures` times in a row waits before the
// next try: from a sixteenth of the interval, doubling, at most half of it.
double retry_delay(double interval, int failures);

// Overdue, the one definition the API, the page and the alert rule share:
// no success within two intervals of the host's arrival in the schedule
// (h.since: the service's first start on this state, or the host's
// addition to the inventory; a restart keeps it, so it hides no outage).
bool is_overdue(const host_state& h, double now, double interval);

class scheduler {
public:
    scheduler(double interval, int jobs, host_runner runner, run_listener listener,
              schedule_clock clock = real_clock());
    ~scheduler();

    // The hosts to serve, with what was saved of them. Hosts not yet known
    // are spread over one interval from now, as are known ones already due,
    // so that neither a start nor a restart is a burst; hosts missing from
    // the new list leave the schedule (a run in flight finishes). A known
    // host takes the inventory's new address at once.
    void set_hosts(const std::vector<inventory_host>& hosts, const std::map<std::string, host_state>& saved);

    void start();
    // No new runs; waits for the runs in flight up to deadline_ms. False
    // when some were still running.
    bool stop(long long deadline_ms);
    bool running() const;

    // Every host, sorted naturally, next_due and since in wall time.
    std::vector<host_state> hosts() const;
    bool find(const std::string& name, host_state* out) const;
    // Changes a host's state outside a run (e.g. its hooked commit); false
    // when there is no such host. *out: the state after the change.
    bool update(const std::string& name, const std::function<void(host_state&)>& change, host_state* out);
    // "ok", "failed", "pending" (never tried yet) or "retired" (not served).
    static std::string verdict(const host_state& h);
    // Puts the host at the front of the queue. *ticket: the run count that
    // will include this request. False when there is no such host.
    bool run_now(const std::string& name, long long* ticket);
    // Calls w once when that run has finished (at once if it has), when the
    // host leaves, or at stop; under the scheduler's lock (serve_waiters.h).
    void when_done(const std::string& name, long long ticket, run_waiter w);
    // Waits for that run; false on time-out or when the host left.
    bool wait_for(const std::string& name, long long ticket, long long timeout_ms, host_state* out, host_run* r);

    // How far behind its due time the most overdue host is, in s: a host
    // waiting for its turn, or one whose run outlives run_bound.
    double lag() const;
    // The host that lags most, with lag(); "" when none lags.
    std::string most_lagging(double* lag) const;
    void set_run_bound(double seconds) { run_bound_ = seconds; }
    double interval() const { return interval_; }
    double started() const { return started_wall_; }
    double wall_now() const { return clock_.wall(); }

private:
    struct entry {
        inventory_host host;
        host_state state;
        double due = 0;        // monotonic
        double run_start = 0;  // monotonic, while running
        bool running = false;
        long long front = 0;  // when asked for out of turn: its place in that queue, else 0
        long long runs = 0;
        host_run last;
    };
    void work();
    entry* pick(double now, double* wake);
    void finish(std::unique_lock<std::mutex>& hold, const std::string& name, double start, const host_run& r);
    host_state shown(const entry& e) const;
    double lag_of(const entry& e, double now) const;

    double interval_;
    int jobs_;
    host_runner runner_;
    run_listener listener_;
    schedule_clock clock_;
    double run_bound_ = 120;
    double started_wall_ = 0;
    mutable std::mutex lock_;
    std::condition_variable wake_, done_;
    std::map<std::string, entry> hosts_;
    std::vector<std::thread> workers_;
    bool stopping_ = false, started_ = false;
    int in_flight_ = 0;
    long long front_order_ = 0;  // the last place given in the out-of-turn queue
    run_waiters waiters_;
};
