// kelp-router: a simulated router on a laptop. Builds the router's file
// system in fresh namespaces, starts the plain and TLS daemons under a
// supervisor, then runs a command (a shell by default) inside it.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "router.h"
#include "supervisor.h"

static const char usage[] =
    "usage: kelp-router [--password PW] [--daemon PATH] [--helpers DIR] [-- COMMAND ARGS...]\n"
    "Runs COMMAND (default: an interactive shell) inside a simulated router whose\n"
    "daemons listen on 127.0.0.1 ports 856 (plain) and 857 (TLS). The admin\n"
    "password defaults to \"admin\" (the demo's; choose your own with --password).\n";

static void install_helpers(const std::string& dir) {
    for (const std::string& name : router::list_dir(dir)) {
        std::string body = router::read_file(dir + "/" + name);
        router::write_file(std::string(router::helper_dir) + "/" + name, body, 0755);
    }
}

static void sample_router() {
    mkdir("/run/sim", 0755);
    router::write_file("/etc/config/cbq.scr", "#!/bin/sh\n# traffic shaping\ntc qdisc add dev eth0 root handle 1: htb\n");
    router::write_file("/etc/config/fw.scr", "#!/bin/sh\n# firewall\niptables -P INPUT DROP\niptables -A INPUT -i lo -j ACCEPT\n");
    router::write_file("/etc/config/nat.scr", "#!/bin/sh\n# address translation\niptables -t nat -A POSTROUTING -o eth0 -j MASQUERADE\n");
    router::write_file("/etc/config/dhcpd.conf", "subnet 10.0.0.0 netmask 255.255.255.0 {\n  range 10.0.0.100 10.0.0.200;\n}\n");
    router::write_file("/run/pppoe/info.ppp0", "PPP=ppp0\nTYPE=pppoe\nREMOTE=10.64.0.1\nCBQRULE=12\nNAME=alice\n");
    router::write_file("/run/pppoe/info.ppp1", "PPP=ppp1\nTYPE=pptp\nREMOTE=10.64.0.2\nCBQRULE=-1\nNAME=bob\n");
    router::write_file("/run/sim/hotspot",
                       "carol|10.0.0.101|00:11:22:33:44:55|1048576|5242880|3600|12\n"
                       "dave|10.0.0.102|00:11:22:33:44:66|2048|4096|60|3\n");
    router::write_file("/run/sim/events", "");
}

int main(int argc, char** argv) {
    std::string password = "admin";
    std::string daemon = KELP_DAEMON;
    std::string helpers = KELP_HELPERS;
    std::vector<std::string> command;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--password" && i + 1 < argc) {
            password = argv[++i];
            // Blank it in our arguments, which every user can read in ps.
            memset(argv[i], 'x', strlen(argv[i]));
        } else if (a == "--daemon" && i + 1 < argc) daemon = argv[++i];
        else if (a == "--helpers" && i + 1 < argc) helpers = argv[++i];
        else if (a == "--") {
            command.assign(argv + i + 1, argv + argc);
            break;
        } else {
            fputs(usage, stderr);
            return a == "-h" || a == "--help" ? 0 : 1;
        }
    }
    std::string error = router::enter();
    if (!error.empty()) {
        fprintf(stderr, "kelp-router: %s\n", error.c_str());
        return 1;
    }
    router::set_admin_password(password);
    install_helpers(helpers);
    sample_router();
    std::vector<pid_t> children = {
        router::serve_syslog("/run/sim/messages"),
        router::supervise(daemon, "kelputild", "/run/sim/kelputild.log"),
        router::supervise(daemon, "kelputild-tls", "/run/sim/kelputild-tls.log"),
    };
    pid_t monitor = fork();
    if (monitor == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        execl("/bin/sh", "sh", (std::string(router::helper_dir) + "/monitor").c_str(), (char*)nullptr);
        _exit(127);
    }
    children.push_back(monitor);
    router::wait_for_listener(856, 10000);
    router::wait_for_listener(857, 10000);

    if (command.empty()) command = {"/bin/bash", "--norc", "-i"};
    setenv("PS1", "[kelp-router] \\w# ", 1);
    pid_t shell = fork();
    if (shell == 0) {
        std::vector<char*> args;
        for (std::string& a : command) args.push_back(a.data());
        args.push_back(nullptr);
        execvp(args[0], args.data());
        perror(args[0]);
        _exit(127);
    }
    int status = 0;
    waitpid(shell, &status, 0);
    // The supervisors take their daemons with them.
    for (pid_t c : children) kill(c, SIGTERM);
    for (pid_t c : children) waitpid(c, nullptr, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
