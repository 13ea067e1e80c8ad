// --push: after commits, the branch goes to a remote on a thread of its
// own, retried with a growing pause when it fails, so that a remote that is
// down never holds up the schedule.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class backup_store;

class pusher {
public:
    pusher(backup_store& store, std::string remote, std::string branch);
    ~pusher();
    // There is something new to push.
    void notify();
    // Pushes what is left once more, then ends the thread.
    void stop();

private:
    void work();
    backup_store& store_;
    std::string remote_, branch_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool pending_ = false, stopping_ = false;
    std::thread thread_;
};
