// Every host once per interval, spread evenly over it, at most -j at once
// and never two runs of one host together; a failed host is retried sooner,
// with a back-off that grows and stays below the interval. Hosts asked for
// through the API go first.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "inventory.h"
#include "serve_state.h"
#include "serve_waiters.h"

// What one run of a host gives: an error, or the new commit (empty when
// nothing changed) and the core report's lines.
struct host_run {
    std::string error;
    std::string commit, model, firmware;
};
using host_runner = std::function<host_run(const inventory_host& host)>;
// Called after each run with the host's new state and whether it changed.
using run_listener = std::function<void(const host_state& state, const host_run& r)>;

// How long a host that failed `failures` times in a row waits before the
// next try: from a sixteenth of the interval, doubling, at most half of it.
double retry_delay(double interval, int failures);

class scheduler {
public:
    scheduler(double interval, int jobs, host_runner runner, run_listener listener);
    ~scheduler();

    // The hosts to serve, with what was saved of them. Hosts not yet known
    // are spread over one interval from now, as are known ones already due,
    // so that neither a start nor a restart is a burst; hosts missing from
    // the new list leave the schedule (a run in flight finishes).
    void set_hosts(const std::vector<inventory_host>& hosts, const std::map<std::string, host_state>& saved,
                   double now);

    void start();
    // No new runs; waits for the runs in flight up to deadline_ms. False
    // when some were still running.
    bool stop(long long deadline_ms);
    bool running() const;

    std::vector<host_state> hosts() const;
    bool find(const std::string& name, host_state* out) const;
    // "ok", "failed" or "pending" (never tried yet).
    static std::string verdict(const host_state& h);
    // Puts the host at the front of the queue. *ticket: the run count that
    // will include this request. False when there is no such host.
    bool run_now(const std::string& name, long long* ticket);
    // Calls w once when that run has finished (at once if it has), when the
    // host leaves, or at stop; under the scheduler's lock (serve_waiters.h).
    void when_done(const std::string& name, long long ticket, run_waiter w);
    // Waits for that run; false on time-out or when the host left.
    bool wait_for(const std::string& name, long long ticket, long long timeout_ms, host_state* out, host_run* r);
    // How far behind its due time the most overdue waiting host is, in s.
    double lag(double now) const;

private:
    struct entry {
        inventory_host host;
        host_state state;
        bool running = false;
        long long front = 0;  // when asked for out of turn: its place in that queue, else 0
        long long runs = 0;
        host_run last;
    };
    void work();
    entry* pick(double now, double* wake);
    void finish(entry& e, double start, const host_run& r);

    double interval_;
    int jobs_;
    host_runner runner_;
    run_listener listener_;
    mutable std::mutex lock_;
    std::condition_variable wake_, done_;
    std::map<std::string, entry> hosts_;
    std::vector<std::thread> workers_;
    bool stopping_ = false, started_ = false;
    int in_flight_ = 0;
    long long front_order_ = 0;  // the last place given in the out-of-turn queue
    run_waiters waiters_;
};

double now_seconds();
