#include "serve_push.h"

#include <algorithm>
#include <chrono>

#include "serve_backup.h"
#include "serve_log.h"

pusher::pusher(backup_store& store, std::string remote, std::string branch)
    : store_(store), remote_(std::move(remote)), branch_(std::move(branch)) {
    thread_ = std::thread([this] { work(); });
}

pusher::~pusher() { stop(); }

void pusher::notify() {
    std::lock_guard<std::mutex> hold(lock_);
    pending_ = true;
    wake_.notify_all();
}

void pusher::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
        wake_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

void pusher::work() {
    std::unique_lock<std::mutex> hold(lock_);
    double pause = 5;
    bool failing = false;
    while (true) {
        wake_.wait(hold, [&] { return pending_ || stopping_; });
        if (!pending_) return;
        pending_ = false;
        hold.unlock();
        kelp::status st = store_.read([&](git_store& git) { return git.push(remote_, branch_); });
        hold.lock();
        if (st) {
            if (failing) log_event("push to " + remote_ + " works again");
            failing = false;
            pause = 5;
            continue;
        }
        log_event(st.message + "; trying again in " + seconds_text(pause));
        failing = true;
        pending_ = true;
        if (stopping_) return;
        wake_.wait_for(hold, std::chrono::milliseconds((long long)(pause * 1000)), [&] { return stopping_; });
        pause = std::min(pause * 2, 300.0);
    }
}
