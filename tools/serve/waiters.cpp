#include "waiters.h"

#include <vector>

#include "scheduler.h"

void run_waiters::add(const std::string& host, long long ticket, run_waiter w) {
    waiting_.emplace(host, std::make_pair(ticket, std::move(w)));
}

void run_waiters::finished(const std::string& host, long long runs, const host_state& state, const host_run& run) {
    auto [it, last] = waiting_.equal_range(host);
    while (it != last) {
        if (it->second.first > runs) {
            ++it;
            continue;
        }
        run_waiter w = std::move(it->second.second);
        it = waiting_.erase(it);
        w(wait_end::finished, state, run);
    }
}

void run_waiters::host_left(const std::string& host) { end(host, wait_end::host_left); }

void run_waiters::stop() {
    while (!waiting_.empty()) end(waiting_.begin()->first, wait_end::stopping);
}

void run_waiters::end(const std::string& host, wait_end why) {
    auto [first, last] = waiting_.equal_range(host);
    std::vector<run_waiter> told;
    for (auto it = first; it != last; ++it) told.push_back(std::move(it->second.second));
    waiting_.erase(first, last);
    for (run_waiter& w : told) w(why, {}, {});
}
