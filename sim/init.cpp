#include "init.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "router.h"

namespace router {
namespace {

constexpr int restart_delay_ms = 10;   // the port is free again at once (SO_REUSEADDR)
constexpr int listen_wait_ms = 30000;  // generous: hundreds of routers start at once
constexpr int relay_grace_ms = 10000;  // for the daemon finishing an upgrade's conversation
constexpr int monitor_look_ms = 200;

long long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

void record(const std::string& event) {
    int fd = open("/run/sim/events", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    std::string line = event + "\n";
    if (fd >= 0 && write(fd, line.data(), line.size()) < 0) {
        // The events file is best effort.
    }
    if (fd >= 0) close(fd);
}

struct daemon_slot {
    const char* argv0;
    const char* log;
    process p;
    long long restart_at = -1;
    long long spare_until = -1;  // still relaying an upgrade through a reboot
};

// A socket that completes every handshake in the kernel and is never
// accepted from: a router whose daemon hangs before its greeting.
int listen_only(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    if (bind(fd, (struct sockaddr*)&a, sizeof a) != 0 || listen(fd, 128) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The daemon that relays an upgrade holds the progress FIFO open.
bool relays_upgrade(pid_t pid) {
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    for (const std::string& fd : list_dir(dir)) {
        char target[64];
        ssize_t n = readlink((dir + "/" + fd).c_str(), target, sizeof target - 1);
        if (n > 0 && std::string(target, (size_t)n) == "/tmp/upgrade") return true;
    }
    return false;
}

class init {
public:
    explicit init(const init_options& o) : o_(o), ready_fd_(o.ready_fd), link_fd_(o.link_fd) {}
    [[noreturn]] void run();

private:
    const init_options& o_;
    daemon_slot slots_[2] = {{"kelputild", "/run/sim/kelputild.log", {}},
                             {"kelputild-tls", "/run/sim/kelputild-tls.log", {}}};
    int ready_fd_;
    int link_fd_;
    long long listen_deadline_ = -1;  // waiting for both ports to listen
    int listen_poll_ms_ = 1;
    bool announce_reboot_ = false;
    bool rebooting_ = false, halted_ = false;
    bool failed_ = false;
    long long reboot_over_ = 0;
    int reboot_requests_ = 0;
    long long next_look_ = -1;  // without inotify

    bool supervises() const { return !o_.down && !o_.silent; }
    void start_daemons();
    void ended(daemon_slot& s);
    void kill_now(daemon_slot& s);
    void reap();
    void begin_reboot(bool after_upgrade);
    void take_monitor();
    void tick();
    int next_timeout() const;
};

void init::start_daemons() {
    for (daemon_slot& s : slots_) {
        s.p = start(o_.daemon, s.argv0, o_.emulator);
        s.restart_at = -1;
    }
}

void init::ended(daemon_slot& s) {
    int log = open(s.log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    for (const std::string& path : {s.p.out_path, s.p.err_path}) {
        std::string text = read_file(path);
        if (log >= 0 && !text.empty() && write(log, text.data(), text.size()) < 0) {
            // The log is best effort.
        }
        unlink(path.c_str());
    }
    if (log >= 0) close(log);
    s.p.pid = -1;
    s.spare_until = -1;
    s.restart_at = rebooting_ ? -1 : now_ms() + restart_delay_ms;
}

void init::kill_now(daemon_slot& s) {
    kill(s.p.pid, SIGKILL);
    while (waitpid(s.p.pid, nullptr, 0) < 0 && errno == EINTR) {}
    ended(s);
}

void init::reap() {
    pid_t pid;
    while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0)
        for (daemon_slot& s : slots_)
            if (s.p.pid == pid) ended(s);
}

void init::begin_reboot(bool after_upgrade) {
    if (!rebooting_) {
        rebooting_ = true;
        reboot_over_ = now_ms() + o_.reboot_ms;
        listen_deadline_ = -1;
        announce_reboot_ = false;
        for (daemon_slot& s : slots_) {
            s.restart_at = -1;
            if (s.p.pid <= 0) continue;
            if (after_upgrade && relays_upgrade(s.p.pid))
                s.spare_until = now_ms() + relay_grace_ms;
            else
                kill_now(s);
        }
    }
    // The reboot helper returns once this count moves: the reboot has begun.
    write_file(std::string(state_dir) + "/reboots", std::to_string(++reboot_requests_) + "\n");
}

void init::take_monitor() {
    std::string word = read_file("/tmp/monitor");
    while (!word.empty() && word.back() == '\n') word.pop_back();
    if (word.empty()) return;
    if (truncate("/tmp/monitor", 0) != 0) return;
    record("monitor: " + word);
    if (word == "reboot") begin_reboot(false);
}

void init::tick() {
    long long now = now_ms();
    struct stat st;
    if (next_look_ >= 0 && now >= next_look_) {
        if (stat("/tmp/monitor", &st) == 0 && st.st_size > 0) take_monitor();
        next_look_ = now + monitor_look_ms;
    }
    for (daemon_slot& s : slots_) {
        if (s.restart_at >= 0 && now >= s.restart_at) {
            s.p = start(o_.daemon, s.argv0, o_.emulator);
            s.restart_at = -1;
        }
        if (s.p.pid > 0 && s.spare_until >= 0 && now >= s.spare_until) kill_now(s);
    }
    if (rebooting_ && !halted_ && now >= reboot_over_ &&
        std::all_of(std::begin(slots_), std::end(slots_), [](const daemon_slot& s) { return s.p.pid <= 0; })) {
        if (o_.no_return) {
            halted_ = true;
            record("did not come back after the reboot");
        } else {
            rebooting_ = false;
            if (supervises()) {
                start_daemons();
                listen_deadline_ = now + listen_wait_ms;
                listen_poll_ms_ = 1;
                announce_reboot_ = true;
            } else {
                record("rebooted");
            }
        }
    }
    if (listen_deadline_ >= 0) {
        bool up = !failed_ && (!supervises() || (is_listening(856) && is_listening(857)));
        listen_poll_ms_ = std::min(50, listen_poll_ms_ * 2);
        if (up || failed_ || now >= listen_deadline_) {
            if (ready_fd_ >= 0) {
                ready_record r{o_.number, up ? 1 : 0};
                if (write(ready_fd_, &r, sizeof r) != (ssize_t)sizeof r) {
                    // The simulator has gone; so will we.
                }
                close(ready_fd_);
                ready_fd_ = -1;
            }
            if (announce_reboot_) record("rebooted");
            announce_reboot_ = false;
            listen_deadline_ = -1;
        }
    }
}

int init::next_timeout() const {
    long long now = now_ms(), next = -1;
    auto consider = [&](long long at) {
        if (at >= 0 && (next < 0 || at < next)) next = at;
    };
    for (const daemon_slot& s : slots_) {
        consider(s.restart_at);
        if (s.p.pid > 0) consider(s.spare_until);
    }
    if (rebooting_ && !halted_) consider(reboot_over_);
    consider(next_look_);
    // Listeners are looked up, not announced: soon at first, then less
    // often, for hundreds of routers starting at once share the processors.
    if (listen_deadline_ >= 0) consider(now + listen_poll_ms_);
    return next < 0 ? -1 : (int)std::max(0LL, next - now);
}

void init::run() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // the helpers' background programs end here
    sigset_t signals;
    sigemptyset(&signals);
    for (int sig : {SIGCHLD, SIGUSR1, SIGUSR2, SIGTERM, SIGHUP, SIGINT, SIGQUIT}) sigaddset(&signals, sig);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int signal_fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    // Inotify instances are few per user (128 by default), and a fleet has
    // more routers: the rest look at /tmp/monitor five times a second.
    if (watch >= 0 && inotify_add_watch(watch, "/tmp", IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        close(watch);
        watch = -1;
    }
    if (watch < 0) next_look_ = now_ms();
    int messages = open("/run/sim/messages", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    write_file(std::string(state_dir) + "/init.pid", std::to_string(getpid()) + "\n");

    if (o_.silent) failed_ = listen_only(856) < 0 || listen_only(857) < 0;
    if (supervises()) start_daemons();
    // In a fleet, the wait for listeners begins with the network: the
    // workstation links every router first, which takes its time.
    if (link_fd_ < 0) listen_deadline_ = now_ms() + listen_wait_ms;

    for (;;) {
        tick();
        struct pollfd fds[4] = {
            {signal_fd, POLLIN, 0}, {watch, POLLIN, 0}, {syslog_socket(), POLLIN, 0}, {link_fd_, POLLIN, 0}};
        if (poll(fds, 4, next_timeout()) < 0 && errno != EINTR) _exit(1);
        char byte;
        if (fds[3].revents && read(link_fd_, &byte, 1) <= 0) {
            close(link_fd_);
            link_fd_ = -1;
            std::string error = o_.network ? o_.network() : "";
            listen_deadline_ = now_ms() + listen_wait_ms;
            listen_poll_ms_ = 1;
            if (!error.empty()) {
                fprintf(stderr, "kelp-router: router%d: %s\n", o_.number, error.c_str());
                failed_ = true;
            }
        }
        if (fds[2].revents & POLLIN) relay_syslog(messages);
        if (fds[1].revents & POLLIN) {
            alignas(inotify_event) char buf[4096];
            ssize_t n = read(watch, buf, sizeof buf);
            bool monitor = false;
            for (ssize_t at = 0; at < n;) {
                const inotify_event* e = (const inotify_event*)(buf + at);
                monitor |= e->len > 0 && strcmp(e->name, "monitor") == 0;
                at += (ssize_t)(sizeof *e + e->len);
            }
            if (monitor) take_monitor();
        }
        struct signalfd_siginfo info;
        while (read(signal_fd, &info, sizeof info) == (ssize_t)sizeof info) {
            switch (info.ssi_signo) {
            case SIGCHLD: reap(); break;
            case SIGUSR1: begin_reboot(false); break;
            case SIGUSR2: begin_reboot(true); break;
            case SIGTERM:
            case SIGHUP:
                for (daemon_slot& s : slots_)
                    if (s.p.pid > 0) kill(s.p.pid, SIGKILL);
                _exit(0);
            default: break;  // a terminal's ^C or ^\ is for the command, not the router
            }
        }
    }
}

}  // namespace

void run_init(const init_options& opts) { init(opts).run(); }

}  // namespace router
