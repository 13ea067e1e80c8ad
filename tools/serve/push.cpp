#include "push.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "clock.h"
#include "git_store.h"
#include "log.h"
#include "retry.h"

extern char** environ;

namespace {

// The child's exit status when the repository has no commit yet: no push
// was tried, so it is neither a success nor a failure.
constexpr int nothing_to_push = 3;

const char child_flag[] = "--internal-push";

// A failed push is tried again after 5 s, then after twice as long each
// time, at most every 5 minutes: a remote that is down is not hammered.
constexpr double retry_first_s = 5, retry_max_s = 300;
// What the log keeps of the child's words: the last line says why.
constexpr size_t max_child_text = 65536;
// The child's own bound is --push-timeout and this: the service ends it
// first, unless the service itself is stuck.
constexpr unsigned child_alarm_slack_s = 5;

// The child in a group of its own, signals as a new program has them.
pid_t spawn_child(int in, int out) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, in, 0);
    posix_spawn_file_actions_adddup2(&files, out, 1);
    posix_spawn_file_actions_adddup2(&files, out, 2);
    posix_spawnattr_init(&attr);
    sigset_t none, reset;
    sigemptyset(&none);
    sigemptyset(&reset);
    for (int s : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) sigaddset(&reset, s);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &reset);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char name[] = "kelputil-serve", flag[sizeof child_flag];
    memcpy(flag, child_flag, sizeof child_flag);
    char* argv[] = {name, flag, nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/proc/self/exe", &files, &attr, argv, environ) != 0) pid = 0;
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attr);
    return pid;
}

// What the child wrote, until it closes its end or the deadline passes
// (*late).
std::string read_until(int fd, long long deadline_ms, bool* late) {
    std::string text;
    *late = false;
    for (;;) {
        long long left = deadline_ms - kelp::monotonic_ms();
        if (left <= 0) return *late = true, text;
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, (int)std::min(left, 1000LL)) <= 0) continue;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) return text;
        if (text.size() < max_child_text) text.append(buf, (size_t)n);
    }
}

std::string last_line(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    size_t nl = text.rfind('\n');
    return nl == std::string::npos ? text : text.substr(nl + 1);
}

}  // namespace

std::string shown_remote(const std::string& remote) {
    size_t scheme = remote.find("://");
    if (scheme == std::string::npos) return remote;
    size_t host = scheme + 3, at = remote.find('@', host), slash = remote.find('/', host);
    if (at == std::string::npos || (slash != std::string::npos && at > slash)) return remote;
    size_t colon = remote.find(':', host);
    if (colon == std::string::npos || colon > at) return remote;
    return remote.substr(0, colon) + ":***" + remote.substr(at);
}

pusher::pusher(const serve_options& o, push_listener* listener)
    : dir_(o.into), remote_(o.push), branch_(o.push_branch), timeout_ms_(o.push_timeout_ms), listener_(listener) {
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
        if (child_ > 0) kill(-child_, SIGKILL);
        wake_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

push_report pusher::report() const {
    std::lock_guard<std::mutex> hold(lock_);
    return report_;
}

kelp::status pusher::push_once(bool* tried) {
    *tried = true;
    std::string what = "pushing to " + shown_remote(remote_);
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return kelp::fail(kelp::error_kind::local, what + ": " + strerror(errno));
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]), close(in[1]);
        return kelp::fail(kelp::error_kind::local, what + ": " + strerror(errno));
    }
    pid_t pid = spawn_child(in[0], out[1]);
    close(in[0]), close(out[1]);
    // Small enough for the pipe's buffer: never blocks.
    std::string request = dir_ + "\n" + remote_ + "\n" + branch_ + "\n" + std::to_string(timeout_ms_) + "\n" +
                          std::to_string(getpid()) + "\n";
    if (pid > 0) (void)!write(in[1], request.data(), request.size());
    close(in[1]);
    if (pid <= 0) {
        close(out[0]);
        return kelp::fail(kelp::error_kind::local, what + ": cannot start " + std::string(child_flag));
    }
    {
        std::lock_guard<std::mutex> hold(lock_);
        child_ = pid;
        if (stopping_) kill(-pid, SIGKILL);
    }
    bool late = false;
    std::string said = read_until(out[0], kelp::monotonic_ms() + timeout_ms_, &late);
    if (late) kill(-pid, SIGKILL);
    close(out[0]);
    {
        std::lock_guard<std::mutex> hold(lock_);
        child_ = 0;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (late)
        return kelp::fail(kelp::error_kind::timed_out, what + ": no end within " +
                                                           kelp::seconds_text(timeout_ms_ / 1000.0) +
                                                           " (--push-timeout): the push was ended");
    *tried = !(WIFEXITED(status) && WEXITSTATUS(status) == nothing_to_push);
    if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || !*tried)) return kelp::ok();
    // = !(WIFEXITED(status) && WEXITSTATUS(status) == nothing_to_push);
    std::string why = last_line(said);
    if (why.empty()) why = WIFSIGNALED(status) ? "the push was ended" : "the push failed";
    return kelp::fail(kelp::error_kind::local, why);
}

void pusher::work() {
    std::unique_lock<std::mutex> hold(lock_);
    int failures = 0;  // in a row
    while (true) {
        wake_.wait(hold, [&] { return pending_ || stopping_; });
        if (stopping_) return;
        pending_ = false;
        hold.unlock();
        bool tried = true;
        kelp::status st = push_once(&tried);
        double now = kelp::wall_seconds();
        hold.lock();
        if (stopping_) return;  // ended by the stop, not by the remote
        if (!tried) continue;   // nothing committed yet: neither a success nor a failure
        if (st) {
            if (failures > 0) log_event("push to " + shown_remote(remote_) + " works again");
            failures = 0;
            report_.last_success = now;
            report_.last_error.clear();
            if (listener_) listener_->push_ok(now);
            continue;
        }
        double pause = kelp::backoff(retry_first_s, retry_max_s, ++failures);
        log_event(st.message + "; trying again in " + kelp::seconds_text(pause));
        pending_ = true;
        report_.failures++;
        report_.last_error = st.message;
        if (listener_) listener_->push_failed(st.message);
        wake_.wait_for(hold, std::chrono::milliseconds((long long)(pause * 1000)), [&] { return stopping_; });
    }
}

int run_push_child() {
    std::string dir, remote, branch, timeout, parent;
    std::getline(std::cin, dir), std::getline(std::cin, remote), std::getline(std::cin, branch);
    std::getline(std::cin, timeout), std::getline(std::cin, parent);
    // Ends with the service, however it ends, and bounds itself as well.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (std::to_string(getppid()) != parent) return 1;
    alarm((unsigned)(atoll(timeout.c_str()) / 1000) + child_alarm_slack_s);
    std::unique_ptr<git_store> store;
    kelp::status st = git_store::open_repository(dir, false, false, &store);
    if (st && store->head_commit().empty()) return nothing_to_push;
    if (st) st = store->push(remote, branch, shown_remote(remote));
    if (st) return 0;
    fprintf(stderr, "%s\n", st.message.c_str());
    return 1;
}
