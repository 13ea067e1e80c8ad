// --on-change and --on-failure: a shell command per event, with what
// happened in KELPUTIL_* variables and nothing else of the service's
// environment (which may hold passwords). They run on threads of their own,
// a few at a time (a first start changes every host at once), each ended
// when it outlives its time, so a hook never holds up the schedule.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>

class hook_runner {
public:
    explicit hook_runner(long long timeout_ms) : timeout_ms_(timeout_ms) {}
    // Starts command with vars (names without the KELPUTIL_ prefix); what
    // names the event in the log.
    void start(const std::string& what, const std::string& command, const std::map<std::string, std::string>& vars);
    // Waits until every hook has ended, or deadline_ms have passed.
    void drain(long long deadline_ms);

private:
    struct job {
        std::string what, command;
        std::map<std::string, std::string> vars;
    };
    void work();
    void run(const job& j);
    long long timeout_ms_;
    std::mutex lock_;
    std::condition_variable ended_;
    std::deque<job> waiting_;
    int workers_ = 0, busy_ = 0;
};
