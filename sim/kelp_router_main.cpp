// kelp-router: a simulated router, or a fleet of them, on a laptop. Builds
// each router's file system in fresh namespaces, starts its init (plain and
// TLS daemons, syslogd, monitor), then runs a command (a shell by default):
// inside the router, or for a fleet on the workstation side of their bridge.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "fleet.h"
#include "init.h"
#include "router.h"

static const char usage[] =
    "usage: kelp-router [--fleet N] [--password PW] [--fault KIND:LIST]... [--reboot-seconds S]\n"
    "                   [--daemon PATH] [--helpers DIR] [-- COMMAND ARGS...]\n"
    "Runs COMMAND (default: an interactive shell) inside a simulated router whose\n"
    "daemons listen on 127.0.0.1 ports 856 (plain) and 857 (TLS); with --fleet, N\n"
    "routers (at most 1023) at 198.18.0.2, 198.18.0.3, ... and COMMAND beside them\n"
    "at 198.18.0.1, with their inventory in $KELP_INVENTORY and router K's /run/sim\n"
    "at /run/fleet/routerK. The admin password defaults to \"admin\" (the demo's).\n"
    "Faults for the routers numbered in LIST (e.g. down:3,7): down (no daemon),\n"
    "silent (connections hang before the greeting), password (another password),\n"
    "upgrade-fails (the flash upgrade reports an error and does not reboot),\n"
    "no-return (does not come back from a reboot), odd-archive (its configuration\n"
    "archive holds a member both a file and a folder, and a 300-character name).\n"
    "A reboot takes S seconds (default 1).\n";

namespace {

struct faults {
    bool down = false, silent = false, password = false, upgrade_fails = false, no_return = false, odd_archive = false;
};

const std::pair<const char*, bool faults::*> fault_kinds[] = {
    {"down", &faults::down},           {"silent", &faults::silent},
    {"password", &faults::password},   {"upgrade-fails", &faults::upgrade_fails},
    {"no-return", &faults::no_return}, {"odd-archive", &faults::odd_archive},
};

struct settings {
    int fleet = 0;  // 0: one router, with the command inside it
    std::string password = "admin";
    std::string daemon = KELP_DAEMON;
    std::string helpers = KELP_HELPERS;
    std::vector<std::pair<bool faults::*, int>> fault_list;
    int reboot_ms = 1000;
    std::vector<std::string> command;

    int routers() const { return fleet ? fleet : 1; }
    faults of(int k) const {
        faults f;
        for (const auto& [kind, router] : fault_list)
            if (router == k) f.*kind = true;
        return f;
    }
};

bool whole_number(const std::string& text, long max, long* out) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    *out = strtol(text.c_str(), nullptr, 10);
    return *out <= max;
}

// "KIND:1,2,3"; the router numbers are checked once every option is read.
std::string parse_fault(const std::string& arg, settings* s) {
    size_t colon = arg.find(':');
    std::string kind = arg.substr(0, colon);
    bool faults::*field = nullptr;
    for (const auto& [name, f] : fault_kinds)
        if (kind == name) field = f;
    if (!field || colon == std::string::npos)
        return "--fault takes KIND:LIST, KIND one of down, silent, password, upgrade-fails, no-return, odd-archive";
    std::string list = arg.substr(colon + 1) + ",";
    for (size_t at = 0, comma; (comma = list.find(',', at)) != std::string::npos; at = comma + 1) {
        long k;
        if (!whole_number(list.substr(at, comma - at), fleet::max_routers, &k) || k < 1)
            return "--fault " + arg + ": router numbers are 1, 2, ...";
        s->fault_list.push_back({field, (int)k});
    }
    return "";
}

// Seconds with up to three decimals, 0 allowed.
bool parse_seconds(const std::string& text, int* ms) {
    size_t dot = text.find('.');
    std::string whole = text.substr(0, dot), part = dot == std::string::npos ? "" : text.substr(dot + 1);
    long w, p = 0;
    if (!whole_number(whole, 86400, &w) || part.size() > 3 || (!part.empty() && !whole_number(part, 999, &p)))
        return false;
    for (size_t i = part.size(); i < 3; i++) p *= 10;
    *ms = (int)(w * 1000 + p);
    return true;
}

std::string parse(int argc, char** argv, settings* s) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        bool has_value = i + 1 < argc;
        if (a == "--") {
            s->command.assign(argv + i + 1, argv + argc);
            break;
        } else if (a == "--password" && has_value) {
            s->password = argv[++i];
            // Blank it in our arguments, which every user can read in ps.
            memset(argv[i], 'x', strlen(argv[i]));
        } else if (a == "--daemon" && has_value) {
            s->daemon = argv[++i];
        } else if (a == "--helpers" && has_value) {
            s->helpers = argv[++i];
        } else if (a == "--fleet" && has_value) {
            long n;
            if (!whole_number(argv[++i], fleet::max_routers, &n) || n < 1)
                return "--fleet takes a number of routers from 1 to " + std::to_string(fleet::max_routers);
            s->fleet = (int)n;
        } else if (a == "--fault" && has_value) {
            std::string error = parse_fault(argv[++i], s);
            if (!error.empty()) return error;
        } else if (a == "--reboot-seconds" && has_value) {
            if (!parse_seconds(argv[++i], &s->reboot_ms)) return "--reboot-seconds takes seconds, e.g. 0, 1 or 2.5";
        } else {
            return a == "-h" || a == "--help" ? "help" : "usage";
        }
    }
    for (const auto& [kind, k] : s->fault_list)
        if (k > s->routers())
            return "--fault names router " + std::to_string(k) + " of " + std::to_string(s->routers());
    for (int k = 1; k <= s->routers(); k++)
        if (s->of(k).down && s->of(k).silent) return "router " + std::to_string(k) + " cannot be both down and silent";
    return "";
}

long long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

std::vector<std::pair<std::string, std::string>> read_helpers(const std::string& dir) {
    std::vector<std::pair<std::string, std::string>> files;
    for (const std::string& name : router::list_dir(dir)) files.push_back({name, router::read_file(dir + "/" + name)});
    return files;
}

// A password whose DES hash differs from the given one's (the hash reads
// eight characters only).
std::string other_password(const std::string& password) {
    for (std::string other : {"not-" + password, std::string("changed!"), std::string("changed?")})
        if (router::des_hash(other) != router::des_hash(password)) return other;
    return "";
}

// The router's own files, inside its namespaces: today's single router, with
// its number in its configuration and its faults.
void furnish(int k, const settings& s, const std::vector<std::pair<std::string, std::string>>& helpers) {
    faults f = s.of(k);
    router::set_admin_password(f.password ? other_password(s.password) : s.password);
    for (const auto& [name, body] : helpers)
        router::write_file(std::string(router::helper_dir) + "/" + name, body, 0755);
    mkdir("/run/sim", 0755);
    router::write_file("/etc/config/system.conf", "hostname router" + std::to_string(k) + "\n");
    router::write_file("/etc/config/cbq.scr",
                       "#!/bin/sh\n# traffic shaping\ntc qdisc add dev eth0 root handle 1: htb\n");
    router::write_file("/etc/config/fw.scr",
                       "#!/bin/sh\n# firewall\niptables -P INPUT DROP\niptables -A INPUT -i lo -j ACCEPT\n");
    router::write_file("/etc/config/nat.scr",
                       "#!/bin/sh\n# address translation\niptables -t nat -A POSTROUTING -o eth0 -j MASQUERADE\n");
    router::write_file("/etc/config/dhcpd.conf",
                       "subnet 10.0.0.0 netmask 255.255.255.0 {\n  range 10.0.0.100 10.0.0.200;\n}\n");
    router::write_file("/run/pppoe/info.ppp0", "PPP=ppp0\nTYPE=pppoe\nREMOTE=10.64.0.1\nCBQRULE=12\nNAME=alice\n");
    router::write_file("/run/pppoe/info.ppp1", "PPP=ppp1\nTYPE=pptp\nREMOTE=10.64.0.2\nCBQRULE=-1\nNAME=bob\n");
    router::write_file("/run/sim/hotspot",
                       "carol|10.0.0.101|00:11:22:33:44:55|1048576|5242880|3600|12\n"
                       "dave|10.0.0.102|00:11:22:33:44:66|2048|4096|60|3\n");
    router::write_file("/run/sim/events", "");
    std::string kinds;
    for (const auto& [name, field] : fault_kinds)
        if (f.*field) kinds += std::string(name) + "\n";
    // The helpers look here (the flash upgrade's failure, the odd archive).
    router::write_file(std::string(router::state_dir) + "/faults", kinds);
}

router::init_options init_for(int k, const settings& s, int ready_fd) {
    faults f = s.of(k);
    router::init_options o;
    o.daemon = s.daemon;
    o.down = f.down;
    o.silent = f.silent;
    o.no_return = f.no_return;
    o.reboot_ms = s.reboot_ms;
    o.ready_fd = ready_fd;
    o.number = k;
    return o;
}

void quiet_stdin() {
    int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, 0);  // dup2 clears close-on-exec on 0
    close(null);
}

// Reads one fixed-size record per router from fd until all arrived, every
// writer closed, or the deadline passed. Returns the routers that reported
// failure, or the missing ones, as text ("" when all is well).
std::string collect(int fd, int routers, long long deadline, const char* what) {
    std::vector<int> state(routers + 1, -1);
    int seen = 0;
    while (seen < routers) {
        int left = (int)(deadline - now_ms());
        struct pollfd p = {fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0) break;
        router::ready_record r;
        ssize_t n = read(fd, &r, sizeof r);
        if (n < 0 && errno == EINTR) continue;
        if (n != (ssize_t)sizeof r) break;
        if (r.number < 1 || r.number > routers || state[r.number] >= 0) continue;
        state[r.number] = r.ok;
        seen++;
    }
    std::string bad;
    for (int k = 1; k <= routers; k++)
        if (state[k] != 1) bad += (bad.empty() ? "" : ", ") + std::to_string(k) + (state[k] < 0 ? " (no answer)" : "");
    return bad.empty() ? "" : std::string(what) + ": router " + bad;
}

void complain(const std::string& what) { fprintf(stderr, "kelp-router: %s\n", what.c_str()); }

// The command, as the sandbox's first process: reaps whatever else ends
// here meanwhile, returns its exit status.
int run_command(std::vector<std::string> command, const char* prompt) {
    if (command.empty()) command = {"/bin/bash", "--norc", "-i"};
    setenv("PS1", prompt, 1);
    pid_t child = fork();
    if (child == 0) {
        std::vector<char*> args;
        for (std::string& a : command) args.push_back(a.data());
        args.push_back(nullptr);
        execvp(args[0], args.data());
        perror(args[0]);
        _exit(127);
    }
    int status = 0;
    for (pid_t p; (p = wait(&status)) != child;)
        if (p < 0 && errno != EINTR) return 1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int one_router(const settings& s) {
    std::string error = router::enter({.with_urandom = true, .own_proc = true});
    if (!error.empty()) return complain(error), 1;
    furnish(1, s, read_helpers(s.helpers));
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return complain("pipe"), 1;
    if (fork() == 0) {
        close(ready[0]);
        quiet_stdin();
        router::run_init(init_for(1, s, ready[1]));
    }
    close(ready[1]);
    error = collect(ready[0], 1, now_ms() + 60000, "the daemons did not start");
    if (!error.empty()) complain(error);
    close(ready[0]);
    mkdir("/run/sim/config", 0755);
    setenv("XDG_CONFIG_HOME", "/run/sim/config", 1);
    return run_command(s.command, "[kelp-router] \\w# ");
}

// Router K of a fleet, in a fork of the workstation: its own namespaces
// and files, then its init, which sets up its network once the workstation
// has linked it.
[[noreturn]] void fleet_router(int k, const settings& s,
                               const std::vector<std::pair<std::string, std::string>>& helpers, int up_fd, int link_fd,
                               int ready_fd) {
    quiet_stdin();
    std::string error = router::new_namespaces(false);
    if (error.empty()) fleet::no_ipv6();
    router::ready_record r{k, error.empty() ? 1 : 0};
    if (write(up_fd, &r, sizeof r) != (ssize_t)sizeof r || !error.empty()) _exit(1);
    close(up_fd);
    // Held before the router's own /run hides it; opened in this mount
    // namespace, since a mount can only be bound from the caller's.
    std::string own = "/run/fleet/router" + std::to_string(k);
    int run_sim = open(own.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    error = router::lay_out({});
    // The workstation sees this router's /run/sim at /run/fleet/routerK.
    mkdir("/run/sim", 0755);
    if (error.empty() &&
        mount(("/proc/self/fd/" + std::to_string(run_sim)).c_str(), "/run/sim", nullptr, MS_BIND, nullptr) != 0)
        error = "bind " + own + ": " + strerror(errno);
    close(run_sim);
    if (!error.empty()) {
        complain("router" + std::to_string(k) + ": " + error);
        r.ok = 0;
        if (write(ready_fd, &r, sizeof r) < 0) _exit(1);
        _exit(1);
    }
    furnish(k, s, helpers);
    router::init_options o = init_for(k, s, ready_fd);
    o.link_fd = link_fd;
    o.network = [k] { return fleet::configure_router(k); };
    router::run_init(o);
}

int fleet_of_routers(const settings& s) {
    long long began = now_ms();
    int n = s.fleet;
    std::string error = router::new_namespaces(true);
    if (error.empty()) error = router::private_tmp_and_run();
    if (error.empty() && !router::interface_up("lo")) error = "loopback up";
    if (!error.empty()) return complain(error), 1;
    fleet::no_ipv6();
    mkdir("/run/sim", 0755);
    mkdir("/run/sim/config", 0755);
    mkdir("/run/fleet", 0755);
    for (int k = 1; k <= n; k++) mkdir(("/run/fleet/router" + std::to_string(k)).c_str(), 0755);
    auto helpers = read_helpers(s.helpers);
    // start: the routers wait until all are forked, or they would take the
    // processors from the forking. up: each has its namespaces. linked: the
    // veth pairs exist. ready: each router's daemons listen.
    int start[2], up[2], linked[2], ready[2];
    for (int* p : {start, up, linked, ready})
        if (pipe2(p, O_CLOEXEC) != 0) return complain("pipe"), 1;
    std::vector<pid_t> pids;
    for (int k = 1; k <= n; k++) {
        pid_t pid = fork();
        if (pid < 0) return complain(std::string("fork: ") + strerror(errno)), 1;
        if (pid == 0) {
            for (int fd : {start[1], up[0], linked[1], ready[0]}) close(fd);
            char byte;
            while (read(start[0], &byte, 1) < 0 && errno == EINTR) {}
            close(start[0]);
            fleet_router(k, s, helpers, up[1], linked[0], ready[1]);
        }
        pids.push_back(pid);
    }
    for (int fd : {start[0], start[1], up[1], linked[0], ready[1]}) close(fd);
    long long deadline = now_ms() + 60000 + 100LL * n;
    error = collect(up[0], n, deadline, "no namespaces");
    if (error.empty()) error = fleet::link_routers(pids);
    if (!error.empty()) return complain(error), 1;
    close(linked[1]);
    error = collect(ready[0], n, deadline, "the daemons did not start");
    if (!error.empty()) complain(error);
    close(up[0]);
    close(ready[0]);
    if (!router::write_file(fleet::inventory_path, fleet::inventory(n)))
        return complain("cannot write the inventory"), 1;
    setenv("KELP_INVENTORY", fleet::inventory_path, 1);
    setenv("XDG_CONFIG_HOME", "/run/sim/config", 1);
    if (s.command.empty())
        fprintf(stderr, "kelp-router: %d routers ready in %.1f s at %s to %s; inventory in $KELP_INVENTORY\n", n,
                (now_ms() - began) / 1000.0, fleet::dotted(fleet::router_address(1)).c_str(),
                fleet::dotted(fleet::router_address(n)).c_str());
    return run_command(s.command, "[kelp-fleet] \\w# ");
}

}  // namespace

int main(int argc, char** argv) {
    settings s;
    std::string error = parse(argc, argv, &s);
    if (!error.empty()) {
        bool help = error == "help";
        if (!help && error != "usage") complain(error);
        fputs(usage, help ? stdout : stderr);
        return help ? 0 : 1;
    }
    // The sandbox is a pid namespace: when its first process ends, the
    // kernel ends every other one, daemons and stray helpers alike.
    if (unshare(CLONE_NEWPID) != 0) return complain(std::string("unshare (needs root): ") + strerror(errno)), 1;
    pid_t first = fork();
    if (first < 0) return complain(std::string("fork: ") + strerror(errno)), 1;
    if (first == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(s.fleet ? fleet_of_routers(s) : one_router(s));
    }
    // As system() does: the terminal's ^C and ^\ are the command's to take.
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    int status = 0;
    while (waitpid(first, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
