#include "health.h"

#include "clock.h"
#include "log.h"
#include "scheduler.h"

void service_health::repository_ok() {
    std::lock_guard<std::mutex> hold(lock_);
    failed_in_row_ = 0;
    f_.repository_writable = true;
}

void service_health::repository_failed(const std::string& message, bool unwritable) {
    std::lock_guard<std::mutex> hold(lock_);
    f_.commit_failures++;
    failed_in_row_++;
    last_failure_ = message;
    if (unwritable) f_.repository_writable = false;
}

void service_health::push_ok(double when) {
    std::lock_guard<std::mutex> hold(lock_);
    f_.push_last_success = when;
}

void service_health::push_failed(const std::string&) {
    std::lock_guard<std::mutex> hold(lock_);
    f_.push_failures++;
}

void service_health::hook_result(const std::string& hook, bool ok) {
    std::lock_guard<std::mutex> hold(lock_);
    long long& n = f_.hook_failures[hook];  // listed from the first run on, failed or not
    if (!ok) n++;
}

void service_health::reload_result(bool ok, double when) {
    std::lock_guard<std::mutex> hold(lock_);
    f_.reload_ok = ok;
    if (ok) f_.reload_last_success = when;
}

health_figures service_health::figures() const {
    std::lock_guard<std::mutex> hold(lock_);
    return f_;
}

std::vector<std::string> service_health::reasons(const scheduler& s, const std::string& repository) const {
    std::vector<std::string> out;
    double lag = 0;
    std::string host = s.most_lagging(&lag);
    std::lock_guard<std::mutex> hold(lock_);
    if (stopping_ || !s.running()) out.push_back("the service is stopping");
    if (lag > s.interval())
        out.push_back("the schedule is stuck: " + host + " is " + kelp::seconds_text(lag) +
                      " past its due time, more than one interval");
    if (!f_.repository_writable)
        out.push_back("cannot write the backups in " + repository + ": " + last_failure_);
    else if (failed_in_row_ >= failing_commits)
        out.push_back("the last " + std::to_string(failed_in_row_) + " commits failed: " + last_failure_);
    return out;
}
