#include "serve_hooks.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "net.h"
#include "serve_log.h"

namespace {

// Hooks at once, and waiting: enough for a fleet's first start, bounded
// against a hook that always hangs.
constexpr int max_running = 4;
constexpr size_t max_waiting = 10000;

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
    return pid;
}

// The hook's status, or -1 when it ran out of time and was ended.
int wait_bounded(pid_t pid, long long timeout_ms) {
    long long deadline = kelp::monotonic_ms() + timeout_ms;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (kelp::monotonic_ms() >= deadline) {
            kill(-pid, SIGTERM);
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return status;
}

}  // namespace

void hook_runner::start(const std::string& what, const std::string& command,
                        const std::map<std::string, std::string>& vars) {
    if (command.empty()) return;
    std::lock_guard<std::mutex> hold(lock_);
    if (waiting_.size() >= max_waiting) {
        log_event(what + ": the hook is not run: " + std::to_string(max_waiting) + " hooks are waiting already");
        return;
    }
    waiting_.push_back({what, command, vars});
    if (workers_ - busy_ > 0 || workers_ >= max_running) return;
    workers_++;
    std::thread([this] { work(); }).detach();
}

void hook_runner::work() {
    std::unique_lock<std::mutex> hold(lock_);
    while (!waiting_.empty()) {
        job j = std::move(waiting_.front());
        waiting_.pop_front();
        busy_++;
        hold.unlock();
        run(j);
        hold.lock();
        busy_--;
    }
    workers_--;
    ended_.notify_all();
}

void hook_runner::run(const job& j) {
    pid_t pid = spawn(j.command, hook_environment(j.vars));
    if (pid < 0) {
        log_event(j.what + ": cannot start the hook: out of processes");
        return;
    }
    int status = wait_bounded(pid, timeout_ms_);
    if (status == -1)
        log_event(j.what + ": the hook ran longer than " + seconds_text(timeout_ms_ / 1000.0) +
                  " and was ended (--hook-timeout)");
    else if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        log_event(j.what + ": the hook failed with exit status " + std::to_string(WEXITSTATUS(status)));
    else if (WIFSIGNALED(status))
        log_event(j.what + ": the hook was killed by signal " + std::to_string(WTERMSIG(status)));
}

void hook_runner::drain(long long deadline_ms) {
    std::unique_lock<std::mutex> hold(lock_);
    ended_.wait_for(hold, std::chrono::milliseconds(deadline_ms), [&] { return workers_ == 0; });
}
