// --push: after commits, the branch goes to a remote from a child process
// (kelputil-serve started again in an internal mode, in a process group of
// its own) that opens the repository itself, so that the service holds no
// lock while a remote takes its time. libgit2 1.5 has no time-out for a
// transfer, and a remote that accepts and never answers would hold the
// thread for good: as git keeps its transports in processes apart, the
// child is killed with its group after --push-timeout. A failure is retried
// with a growing pause; a remote that is down never holds up the schedule.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <sys/types.h>

#include "options.h"
#include "status.h"

// What the metrics show of the pushes.
struct push_report {
    double last_success = 0;  // Unix seconds; 0: none yet
    long long failures = 0;   // every failed push since the start
    std::string last_error;   // empty after a success
};

// Told of each push's end, on the pusher's thread.
class push_listener {
public:
    virtual ~push_listener() = default;
    virtual void push_ok(double time) = 0;
    virtual void push_failed(const std::string& message) = 0;
};

class pusher {
public:
    // Pushes once at the start too: what a stop left unpushed goes then.
    explicit pusher(const serve_options& o, push_listener* listener = nullptr);
    ~pusher();
    // There is something new to push.
    void notify();
    // Ends a push under way at once (its group is killed), then the thread.
    void stop();
    push_report report() const;

private:
    void work();
    // *tried: false when there was nothing to push (no commit yet).
    kelp::status push_once(bool* tried);
    std::string dir_, remote_, branch_;
    long long timeout_ms_;
    push_listener* listener_;
    mutable std::mutex lock_;
    std::condition_variable wake_;
    bool pending_ = true, stopping_ = false;
    pid_t child_ = 0;
    push_report report_;
    std::thread thread_;
};

// A remote as the log shows it: a URL's password left out.
std::string shown_remote(const std::string& remote);

// kelputil-serve --internal-push, the child's side: reads the repository,
// remote, branch, time-out and parent from standard input (a remote URL may
// hold a secret: never in the arguments), pushes, and says what failed on
// standard error. Returns the exit status.
int run_push_child();
