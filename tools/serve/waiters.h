// Clients waiting for a host's run (a backup asked for with wait=1), each
// told once: when that run has finished, when the host leaves the
// schedule, or when the service stops. Nobody blocks a thread to wait.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "state.h"

struct host_run;

enum class wait_end { finished, host_left, stopping };
// state and run are the host's after that run (empty unless finished).
using run_waiter = std::function<void(wait_end end, const host_state& state, const host_run& run)>;

// Not locked itself: the scheduler calls it under its own lock, and the
// waiters are called there too, so they must not call the scheduler.
class run_waiters {
public:
    // Waits for the host's run number ticket (see scheduler::run_now).
    void add(const std::string& host, long long ticket, run_waiter w);
    // The host's run number runs has finished.
    void finished(const std::string& host, long long runs, const host_state& state, const host_run& run);
    void host_left(const std::string& host);
    void stop();

private:
    void end(const std::string& host, wait_end why);
    std::multimap<std::string, std::pair<long long, run_waiter>> waiting_;
};
