#include "router.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace router {

const char* const state_dir = "/run/sandbox";
const char* const helper_dir = "/run/sandbox/bin";
static const char calls_log[] = "/run/sandbox/calls";
static int log_socket = -1;
static std::vector<log_line> received;

static std::string fail(const std::string& what) { return what + ": " + strerror(errno); }

static bool mount_tmpfs(const char* target, const char* options = nullptr) {
    return mount("tmpfs", target, "tmpfs", 0, options) == 0;
}

static bool bind_node(const std::string& from, const std::string& to) {
    int fd = open(to.c_str(), O_CREAT | O_WRONLY, 0666);
    if (fd < 0) return false;
    close(fd);
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

static std::string private_dev(const options& opts) {
    std::string old_dev = std::string(state_dir) + "/host-dev";
    mkdir(old_dev.c_str(), 0755);
    if (mount("/dev", old_dev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) return fail("bind /dev");
    if (!mount_tmpfs("/dev", "mode=0755")) return fail("tmpfs /dev");
    std::vector<std::string> nodes = {"null", "zero", "full", "random", "tty"};
    if (opts.with_urandom) nodes.push_back("urandom");
    for (const std::string& node : nodes)
        if (access((old_dev + "/" + node).c_str(), F_OK) == 0 && !bind_node(old_dev + "/" + node, "/dev/" + node))
            return fail("bind /dev/" + node);
    mkdir("/dev/pts", 0755);
    mount((old_dev + "/pts").c_str(), "/dev/pts", nullptr, MS_BIND | MS_REC, nullptr);
    // A bound /dev/ptmx cannot find its devpts from here ("script" fails);
    // the devpts instance's own multiplexer can.
    if (symlink("pts/ptmx", "/dev/ptmx") != 0) return fail("link /dev/ptmx");
    mkdir("/dev/shm", 01777);
    mount_tmpfs("/dev/shm");
    return "";
}

static std::string open_log_socket() {
    if (log_socket >= 0) close(log_socket);
    received.clear();
    // syslog() blocks once the queue is full (ten datagrams by default, taken
    // when the socket is made): room for a reader that looks now and then.
    write_file("/proc/sys/net/unix/max_dgram_qlen", "4096\n");
    log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (bind(log_socket, (struct sockaddr*)&addr, sizeof addr) != 0) return fail("bind /dev/log");
    int size = 4 << 20;
    setsockopt(log_socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    chmod("/dev/log", 0666);
    return "";
}

bool interface_up(const char* name) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr = {};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", name);
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
    ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    close(s);
    return ok;
}

// The daemon empties the page cache before every firmware upload; inside the
// simulator that would empty the host's, slowing everything else down.
static const char drop_caches[] = "/proc/sys/vm/drop_caches";

// A second sandbox in the same process replaces the first: the kernel
// refuses an overlay stacked on an overlay more than once.
static void leave_previous() {
    for (const char* m : {drop_caches, "/etc", "/dev", "/run", "/tmp"}) umount2(m, MNT_DETACH);
}

static std::string host_path() {
    static std::string path = getenv("PATH") ? getenv("PATH") : "/usr/sbin:/usr/bin:/sbin:/bin";
    return path;
}

static bool laid_out = false;

std::string new_namespaces(bool own_proc) {
    host_path();  // before the helpers join it
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return fail("unshare (needs root)");
    if (laid_out) leave_previous();
    laid_out = false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("private mounts");
    // Pids in pid files and /proc must agree for the router's own scripts.
    if (own_proc && mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        return fail("mount /proc");
    return "";
}

std::string private_tmp_and_run() {
    if (!mount_tmpfs("/tmp", "mode=1777")) return fail("tmpfs /tmp");
    if (!mount_tmpfs("/run", "mode=0755")) return fail("tmpfs /run");
    return "";
}

std::string lay_out(const options& opts) {
    laid_out = true;
    std::string dirs = private_tmp_and_run();
    if (!dirs.empty()) return dirs;
    mkdir(state_dir, 0755);
    mkdir(helper_dir, 0755);
    std::string upper = std::string(state_dir) + "/etc-upper", work = std::string(state_dir) + "/etc-work";
    mkdir(upper.c_str(), 0755);
    mkdir(work.c_str(), 0755);
    std::string overlay = "lowerdir=/etc,upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", "/etc", "overlay", 0, overlay.c_str()) != 0) return fail("overlay /etc");
    mkdir("/etc/config", 0755);
    mkdir("/run/pppoe", 0755);  // /var/run is /run
    std::string dev = private_dev(opts);
    if (!dev.empty()) return dev;
    mount("/dev/null", drop_caches, nullptr, MS_BIND, nullptr);  // best effort
    std::string log = open_log_socket();
    if (!log.empty()) return log;
    if (!interface_up("lo")) return fail("loopback up");
    write_file(calls_log, "");
    std::string path = std::string(helper_dir) + ":" + host_path();
    setenv("PATH", path.c_str(), 1);
    return "";
}

std::string enter(const options& opts) {
    std::string error = new_namespaces(opts.own_proc);
    return error.empty() ? lay_out(opts) : error;
}

bool write_file(const std::string& path, const std::string& content, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    bool ok = write(fd, content.data(), content.size()) == (ssize_t)content.size();
    fchmod(fd, mode);
    close(fd);
    return ok;
}

std::string read_file(const std::string& path, bool* exists) {
    std::string out;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (exists) *exists = fd >= 0;
    if (fd < 0) return out;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, (size_t)n);
    close(fd);
    return out;
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> list_dir(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (struct dirent* e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string des_hash(const std::string& password, const std::string& salt) {
    const char* h = crypt(password.c_str(), salt.c_str());
    return h ? h : "";
}

void set_admin_password(const std::string& password, const std::string& salt) {
    write_file("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\nadmin:" + des_hash(password, salt) +
                                  ":0:0:Administrator:/:/bin/sh\nnobody:x:65534:65534::/:/bin/false\n");
}

void install_helper(const std::string& name, const std::string& body) {
    std::string script = "#!/bin/sh\necho \"" + name + "${*:+ $*}\" >> " + calls_log + "\n" + body + "\n";
    write_file(std::string(helper_dir) + "/" + name, script, 0755);
}

std::vector<std::string> helper_calls() {
    std::vector<std::string> lines;
    std::string text = read_file(calls_log);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// "<PRI>Mmm dd hh:mm:ss ident: text"
static log_line parse_log(const std::string& raw) {
    log_line l;
    size_t close = raw.find('>');
    if (raw.empty() || raw[0] != '<' || close == std::string::npos) {
        l.text = raw;
        return l;
    }
    l.priority = atoi(raw.c_str() + 1);
    size_t rest = close + 1 + 16;
    size_t colon = raw.find(": ", rest);
    if (rest > raw.size() || colon == std::string::npos) {
        l.text = raw.substr(close + 1);
        return l;
    }
    l.ident = raw.substr(rest, colon - rest);
    l.text = raw.substr(colon + 2);
    return l;
}

static long long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

std::vector<log_line> syslog_lines(size_t want, int timeout_ms) {
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        int left = (int)std::max(0LL, deadline - now_ms());
        if (received.size() >= want) left = 0;
        struct pollfd p = {log_socket, POLLIN, 0};
        if (poll(&p, 1, left) <= 0) break;
        char buf[2048];
        ssize_t n = recv(log_socket, buf, sizeof buf, 0);
        if (n <= 0) break;
        received.push_back(parse_log(std::string(buf, (size_t)n)));
    }
    return received;
}

// One datagram from /dev/log as a line of the messages file.
static std::string received_line(int flags) {
    char buf[2048];
    ssize_t n = recv(log_socket, buf, sizeof buf, flags);
    if (n <= 0) return "";
    log_line l = parse_log(std::string(buf, (size_t)n));
    return "<" + std::to_string(l.priority) + "> " + l.ident + ": " + l.text + "\n";
}

int syslog_socket() { return log_socket; }

void relay_syslog(int out) {
    for (std::string line; !(line = received_line(MSG_DONTWAIT)).empty();)
        if (write(out, line.data(), line.size()) < 0) return;  // the log is best effort
}

pid_t serve_syslog(const std::string& path) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    int out = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    for (;;) {
        std::string line = received_line(0);
        if (!line.empty() && write(out, line.data(), line.size()) < 0) _exit(1);
    }
}

void forget_syslog() {
    syslog_lines(0, 0);
    received.clear();
}

std::vector<std::string> split_list(const std::string& list) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < list.size()) {
        size_t end = list.find(';', start);
        if (end == std::string::npos) end = list.size();
        if (end > start) out.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

process start(const std::string& binary, const std::string& argv0, const std::vector<std::string>& emulator) {
    process p;
    std::string base = argv0.substr(argv0.find_last_of('/') == std::string::npos ? 0 : argv0.find_last_of('/') + 1);
    std::string link_dir = std::string(state_dir) + "/programs";
    mkdir(link_dir.c_str(), 0755);
    std::string link = link_dir + "/" + (base.empty() ? "unnamed" : base);
    unlink(link.c_str());
    if (symlink(binary.c_str(), link.c_str()) != 0) return p;
    static int serial = 0;
    serial++;
    std::string tag = std::to_string(getpid()) + "." + std::to_string(serial);
    p.out_path = std::string(state_dir) + "/stdout." + tag;
    p.err_path = std::string(state_dir) + "/stderr." + tag;
    std::vector<std::string> args = emulator;
    args.push_back(emulator.empty() ? argv0 : link);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const char* program = emulator.empty() ? link.c_str() : emulator[0].c_str();
    // posix_spawn: a fleet starts hundreds of daemons, and a fork would copy
    // the caller's page tables only for exec to drop them.
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, p.out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 2, p.err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    // Nothing of the caller's (listening sockets, the log socket) leaks in.
    posix_spawn_file_actions_addclosefrom_np(&files, 3);
    posix_spawn_file_actions_addchdir_np(&files, "/");
    // A caller that takes its signals through a signalfd blocks them.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    if (posix_spawn(&p.pid, program, &files, &attributes, argv.data(), environ) != 0) p.pid = -1;
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    return p;
}

// Sleeps until the process ends or the wait runs out, through a pidfd where
// the kernel has one: polling in steps would add its step to every run.
static void sleep_until_exit(pid_t pid, long long left_ms) {
    static bool no_pidfd = false;
#ifdef SYS_pidfd_open
    int fd = no_pidfd ? -1 : (int)syscall(SYS_pidfd_open, pid, 0);
#else
    int fd = -1;
    errno = ENOSYS;
#endif
    if (fd < 0) {
        no_pidfd = no_pidfd || errno == ENOSYS;
        usleep(1000);
        return;
    }
    pollfd pf{fd, POLLIN, 0};
    poll(&pf, 1, (int)std::max(1LL, left_ms));  // never -1: that would wait for good
    close(fd);
}

int wait_exit(const process& p, int timeout_ms) {
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        int status;
        pid_t r = waitpid(p.pid, &status, WNOHANG);
        if (r == p.pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        long long left = deadline - now_ms();
        if (r < 0 || left <= 0) return still_running;
        sleep_until_exit(p.pid, left);
    }
}

void kill_process(const process& p) {
    if (p.pid <= 0) return;
    kill(p.pid, SIGKILL);
    int status;
    waitpid(p.pid, &status, 0);
}

std::string output(const process& p) { return read_file(p.out_path); }

// One message of a netlink answer, by hand: the header's NLMSG_OK compares
// signed with unsigned, which clang's -Wsign-compare refuses.
static const nlmsghdr* next_message(const char* buffer, size_t size, size_t* offset) {
    if (*offset > size || size - *offset < sizeof(nlmsghdr)) return nullptr;
    const nlmsghdr* h = (const nlmsghdr*)(buffer + *offset);
    if (h->nlmsg_len < sizeof(nlmsghdr) || h->nlmsg_len > size - *offset) return nullptr;
    *offset += NLMSG_ALIGN(h->nlmsg_len);
    return h;
}

// Asks the kernel for listening TCP sockets only (sock_diag): /proc/net/tcp
// lists every connection, and after thousands of short runs the closed ones
// waiting out their time make each read slow. -1 when sock_diag is missing,
// as under qemu-user, which has no such netlink family.
static int listening_by_diag(int port) {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) return -1;
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = AF_INET;
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = 1u << 10;  // TCP_LISTEN
    int found = -1;
    if (send(fd, &message, sizeof message, 0) == (ssize_t)sizeof message) {
        found = 0;
        alignas(nlmsghdr) char buffer[8192];
        for (bool done = false; !done;) {
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            size_t offset = 0;
            while (const nlmsghdr* h = next_message(buffer, (size_t)n, &offset)) {
                if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) {
                    if (h->nlmsg_type == NLMSG_ERROR && !found) found = -1;
                    done = true;
                    break;
                }
                if (h->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) continue;
                const inet_diag_msg* m = (const inet_diag_msg*)NLMSG_DATA(h);
                if (ntohs(m->id.idiag_sport) == port) found = 1;
            }
        }
    }
    close(fd);
    return found;
}

// Sets *slow when the answer came from /proc/net/tcp, which is worth
// reading less often.
static bool listening(int port, bool* slow) {
    int by_diag = listening_by_diag(port);
    *slow = by_diag < 0;
    if (by_diag >= 0) return by_diag == 1;
    std::string table = read_file("/proc/net/tcp");
    char needle[32];
    snprintf(needle, sizeof needle, ":%04X 00000000:0000 0A", port);
    return table.find(needle) != std::string::npos;
}

bool is_listening(int port) {
    bool slow;
    return listening(port, &slow);
}

bool wait_for_listener(int port, int timeout_ms) {
    long long deadline = now_ms() + timeout_ms;
    bool slow = false;
    while (!listening(port, &slow)) {
        if (now_ms() >= deadline) return false;
        usleep(slow ? 5000 : 1000);
    }
    return true;
}

}  // namespace router
