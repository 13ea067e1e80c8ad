#include "hooks.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "clock.h"
#include "log.h"

namespace {

// Hooks at once, and waiting: enough for a fleet's first start, bounded
// against a hook that always hangs.
constexpr int max_running = 4;
constexpr size_t max_waiting = 10000;
// Between the polite and the final signal to a hook's group.
constexpr int grace_ms = 500;
// How often a running hook is looked at: its end, its time-out, a stop.
constexpr int look_every_ms = 20;

// The variables a hook sees: a clean environment, so that no password the
// service was given reaches it.
std::vector<std::string> hook_environment(const std::map<std::string, std::string>& vars) {
    std::vector<std::string> env = {"PATH=/usr/local/bin:/usr/bin:/bin"};
    for (const char* keep : {"HOME", "LANG", "TZ"})
        if (getenv(keep)) env.push_back(std::string(keep) + "=" + getenv(keep));
    for (const auto& [name, value] : vars) env.push_back("KELPUTIL_" + name + "=" + value);
    return env;
}

pid_t spawn(const std::string& command, const std::vector<std::string>& env) {
    std::vector<char*> envp;
    for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);  // its own group, so that ending it ends its children
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execle("/bin/sh", "sh", "-c", command.c_str(), (char*)nullptr, envp.data());
        _exit(127);
    }
    if (pid > 0) setpgid(pid, pid);  // also here: no kill may reach a group not yet made
    return pid;
}

void end_group(pid_t pid) {
    kill(-pid, SIGTERM);
    std::this_thread::sleep_for(std::chrono::milliseconds(grace_ms));
    kill(-pid, SIGKILL);
}

}  // namespace

void hook_runner::start(const std::string& what, const std::string& command,
                        const std::map<std::string, std::string>& vars, done_fn done) {
    if (command.empty()) {
        if (done) done(end::ok);
        return;
    }
    std::unique_lock<std::mutex> hold(lock_);
    if (stopping_ || waiting_.size() >= max_waiting) {
        if (!stopping_)
            log_event(what + ": the hook is not run: " + std::to_string(max_waiting) + " hooks are waiting already");
        end how = stopping_ ? end::stopped : end::failed;
        hold.unlock();
        if (done) done(how);
        return;
    }
    waiting_.push_back({what, command, vars, std::move(done)});
    if ((int)workers_.size() < max_running && busy_ == (int)workers_.size()) workers_.emplace_back([this] { work(); });
    wake_.notify_one();
}

void hook_runner::work() {
    std::unique_lock<std::mutex> hold(lock_);
    while (true) {
        wake_.wait(hold, [&] { return stopping_ || !waiting_.empty(); });
        if (stopping_) return;
        job j = std::move(waiting_.front());
        waiting_.pop_front();
        busy_++;
        hold.unlock();
        end how = run(j);
        if (j.done) j.done(how);
        hold.lock();
        busy_--;
        ended_.notify_all();
    }
}

hook_runner::end hook_runner::run(const job& j) {
    pid_t pid = spawn(j.command, hook_environment(j.vars));
    if (pid < 0) {
        log_event(j.what + ": cannot start the hook: out of processes");
        return end::failed;
    }
    int status = wait_bounded(pid);
    if (status == -1)
        log_event(j.what + ": the hook ran longer than " + kelp::seconds_text(timeout_ms_ / 1000.0) +
                  " and was ended (--hook-timeout)");
    else if (status == -2)
        log_event(j.what + ": the hook was ended: the service is stopping");
    else if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        log_event(j.what + ": the hook failed with exit status " + std::to_string(WEXITSTATUS(status)));
    else if (WIFSIGNALED(status))
        log_event(j.what + ": the hook was killed by signal " + std::to_string(WTERMSIG(status)));
    if (status == -2) return end::stopped;
    return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? end::ok : end::failed;
}

// The hook's status; -1 when it ran out of time, -2 when the service's stop
// ended it.
int hook_runner::wait_bounded(pid_t pid) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        running_.insert(pid);
    }
    long long deadline = kelp::monotonic_ms() + timeout_ms_;
    int status = 0, result = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        bool ending;
        {
            std::lock_guard<std::mutex> hold(lock_);
            ending = ending_;
        }
        if (ending || kelp::monotonic_ms() >= deadline) {
            end_group(pid);
            waitpid(pid, &status, 0);
            result = ending ? -2 : -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(look_every_ms));
    }
    std::lock_guard<std::mutex> hold(lock_);
    running_.erase(pid);
    return result ? result : status;
}

void hook_runner::stop(long long deadline_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    stopping_ = true;
    std::deque<job> dropped = std::move(waiting_);
    waiting_.clear();
    hold.unlock();
    for (job& j : dropped)
        if (j.done) j.done(end::stopped);
    hold.lock();
    wake_.notify_all();
    ended_.wait_for(hold, std::chrono::milliseconds(deadline_ms), [&] { return busy_ == 0; });
    ending_ = true;  // the hooks still running end with their groups
    std::vector<std::thread> workers = std::move(workers_);
    hold.unlock();
    for (std::thread& t : workers) t.join();
}
