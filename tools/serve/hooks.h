// --on-change, --on-failure and --on-recovery: a shell command per event,
// with what happened in KELPUTIL_* variables and nothing else of the
// service's environment (which may hold passwords). They run on the
// runner's own threads, a few at a time (a first start changes every host
// at once), each in its own process group, ended with that group when it
// outlives its time or the service stops, so a hook never holds up the
// schedule and none outlives the service.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

class hook_runner {
public:
    // How a hook ended: ran and exited 0, failed (or ran out of time, or
    // could not start), or did not run to its end because the service
    // stopped (and may run it again at its next start).
    enum class end { ok, failed, stopped };
    using done_fn = std::function<void(end how)>;

    explicit hook_runner(long long timeout_ms) : timeout_ms_(timeout_ms) {}
    ~hook_runner() { stop(0); }
    // Queues command with vars (names without the KELPUTIL_ prefix); what
    // names the event in the log. An empty command is not run, and done is
    // told it ran.
    void start(const std::string& what, const std::string& command, const std::map<std::string, std::string>& vars,
               done_fn done = {});
    // Hooks not yet started are dropped; running ones get until deadline_ms,
    // then are ended with their process groups; both are told `stopped`. Returns once every thread
    // of the runner has ended.
    void stop(long long deadline_ms);

private:
    struct job {
        std::string what, command;
        std::map<std::string, std::string> vars;
        done_fn done;
    };
    void work();
    end run(const job& j);
    int wait_bounded(pid_t pid);

    long long timeout_ms_;
    std::mutex lock_;
    std::condition_variable wake_, ended_;
    std::deque<job> waiting_;
    std::vector<std::thread> workers_;
    std::set<pid_t> running_;
    int busy_ = 0;
    bool stopping_ = false, ending_ = false;
};
