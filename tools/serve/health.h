// What the service knows of its own health beside the schedule: commits,
// the repository's writability, pushes, hooks and reloads. Each event is
// counted here as it happens, under a lock of its own that no backup holds
// across slow work, so /healthz and /metrics answer at once.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "push.h"

class scheduler;

// Commits that fail in a row before the service calls itself failing.
constexpr int failing_commits = 3;

struct health_figures {
    long long commit_failures = 0, push_failures = 0;
    double push_last_success = 0;  // Unix seconds, 0: never
    bool repository_writable = true;
    bool reload_ok = true;
    double reload_last_success = 0;
    std::map<std::string, long long> hook_failures;  // by hook: on-change, on-failure, on-recovery
};

class service_health : public push_listener {
public:
    explicit service_health(double started) { f_.reload_last_success = started; }

    // A host's backup reached the repository (committed, or nothing to commit).
    void repository_ok();
    // Writing it failed: unwritable for a full disk or missing permission.
    void repository_failed(const std::string& message, bool unwritable);
    void push_ok(double when) override;
    void push_failed(const std::string& message) override;
    void hook_result(const std::string& hook, bool ok);
    void reload_result(bool ok, double when);
    void stopping() {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }

    health_figures figures() const;
    // Why the service is not healthy, the worst first; empty when it is.
    std::vector<std::string> reasons(const scheduler& s, const std::string& repository) const;

private:
    mutable std::mutex lock_;
    health_figures f_;
    int failed_in_row_ = 0;
    std::string last_failure_;
    bool stopping_ = false;
};
