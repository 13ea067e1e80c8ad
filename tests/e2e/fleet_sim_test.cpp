// The simulated fleet from its workstation's side: kelp-router --fleet with
// faulty routers among healthy ones, probed with raw sockets made in the
// fleet's network namespace and files read through the sandbox's root.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "harness.h"

namespace {

long long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

std::string address_of(int router) {
    in_addr a{htonl(0xC6120001u + (uint32_t)router)};  // 198.18.0.1 + K
    return inet_ntoa(a);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// kelp-router with a command that prints its environment and waits for its
// standard input to close; the test works beside it meanwhile.
class fleet_run {
public:
    ~fleet_run() {
        if (pid_ > 0) finish(0);
        if (net_ >= 0) close(net_);
    }

    void start(const std::vector<std::string>& options) {
        int in[2], out[2];
        ASSERT_EQ(pipe2(in, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            setpgid(0, 0);  // one group to kill
            dup2(in[0], 0);
            dup2(out[1], 1);
            std::vector<std::string> args = {"kelp-router"};
            args.insert(args.end(), options.begin(), options.end());
            for (const char* a :
                 {"--", "/bin/sh", "-c", "echo \"$KELP_INVENTORY $XDG_CONFIG_HOME\"; cat >/dev/null; exit 7"})
                args.push_back(a);
            std::vector<char*> argv;
            for (std::string& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(KELP_ROUTER, argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to_command_ = in[1];
        // Until the command speaks, the routers are not all up.
        char c;
        long long deadline = now_ms() + 20000;
        for (struct pollfd p = {out[0], POLLIN, 0};
             poll(&p, 1, (int)std::max(0LL, deadline - now_ms())) == 1 && read(out[0], &c, 1) == 1 && c != '\n';)
            first_line += c;
        close(out[0]);
        ASSERT_FALSE(first_line.empty()) << "the fleet did not start within 20 s";
        std::string children =
            router::read_file("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) + "/children");
        workstation = atoi(children.c_str());
        ASSERT_GT(workstation, 0);
        net_ = open(("/proc/" + std::to_string(workstation) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(net_, 0);
    }

    // Ends the command; kelp-router's exit status, or -1 after the wait.
    int finish(int timeout_ms) {
        close(to_command_);
        long long deadline = now_ms() + timeout_ms;
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (now_ms() >= deadline) {
                kill(-pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                pid_ = -1;
                return -1;
            }
            usleep(10000);
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // A file as the workstation's side sees it.
    std::string file(const std::string& path) const {
        return router::read_file("/proc/" + std::to_string(workstation) + "/root" + path);
    }

    // A TCP socket made in the fleet's network, used from here.
    int socket_there() const {
        int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        int fd = -1;
        if (setns(net_, CLONE_NEWNET) == 0) {
            fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            setns(home, CLONE_NEWNET);
        }
        close(home);
        return fd;
    }

    ino_t net_inode() const {
        struct stat st;
        return fstat(net_, &st) == 0 ? st.st_ino : 0;
    }

    pid_t workstation = -1;  // the sandbox's first process, as the host numbers it
    std::string first_line;

private:
    pid_t pid_ = -1;
    int to_command_ = -1;
    int net_ = -1;
};

// 0 once connected, else why not (ETIMEDOUT after the wait).
int connect_within(int fd, const std::string& address, int port, int timeout_ms) {
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    int error = 0;
    socklen_t size = sizeof error;
    if (connect(fd, (sockaddr*)&a, sizeof a) != 0) {
        if (errno != EINPROGRESS) return errno;
        struct pollfd p = {fd, POLLOUT, 0};
        if (poll(&p, 1, timeout_ms) != 1) return ETIMEDOUT;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    }
    fcntl(fd, F_SETFL, 0);
    return error;
}

// Connects to router K's port: "" once connected, else why not. With
// patience, a refusal is tried again for a while: the daemon that served
// the last connection may not be back yet.
std::string open_to(const fleet_run& f, int router, int port, raw_client& c, int patience_ms = 0) {
    for (long long until = now_ms() + patience_ms;; usleep(10000)) {
        int fd = f.socket_there();
        int error = connect_within(fd, address_of(router), port, 5000);
        if (error == 0) return c.adopt(fd), "";
        close(fd);
        if (error != ECONNREFUSED) return strerror(error);
        if (now_ms() >= until) return "refused";
    }
}

// What a router shows on a connection: 856 must greet in plain text; 857
// waits for a TLS client, so it is sent something else and must answer or
// hang up.
std::string shows(raw_client& c, int port, int wait_ms, bytes* greeting = nullptr) {
    if (port == 857) c.send_bytes(bytes{'G', 'E', 'T', ' ', '/', '\r', '\n', '\r', '\n'});
    long long began = now_ms();
    bytes got = c.receive(35, wait_ms);
    if (greeting) *greeting = got;
    bool hung_up = now_ms() - began < wait_ms;
    if (port == 856) {
        std::string text(got.begin(), got.end());
        if (got.size() == 35 && text.rfind("kelp-v3 utility server\n", 0) == 0) return "greets";
    } else if (!got.empty() || hung_up) {
        return "answers";
    }
    return got.empty() && !hung_up ? "silent" : "other: " + show(got);
}

std::string probe(const fleet_run& f, int router, int port, int wait_ms = 5000) {
    raw_client c;
    std::string error = open_to(f, router, port, c);
    return error.empty() ? shows(c, port, wait_ms) : error;
}

class Fleet : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string(KELP_EMULATOR) != "") GTEST_SKIP() << "the simulator runs natively only";
    }
};

struct faulty {
    int router;
    const char* kind;
    const char* shows;  // on both ports
};

const faulty faults[] = {
    {3, "down", "refused"},         {5, "silent", "silent"},     {7, "password", "greets"},
    {9, "upgrade-fails", "greets"}, {11, "no-return", "greets"},
};

TEST_F(Fleet, FiftyRoutersAsTheirFaultsSay) {
    constexpr int routers = 50;
    std::vector<std::string> options = {"--fleet", std::to_string(routers), "--password", "fleet-pw"};
    for (const faulty& f : faults)
        options.insert(options.end(), {"--fault", std::string(f.kind) + ":" + std::to_string(f.router)});
    fleet_run fleet;
    fleet.start(options);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(fleet.first_line, "/run/sim/fleet.ini /run/sim/config");

    std::vector<std::string> inventory = lines_of(fleet.file("/run/sim/fleet.ini"));
    ASSERT_EQ(inventory.size(), routers + 1u);
    EXPECT_EQ(inventory[0], "[routers]");
    EXPECT_EQ(inventory[1], "router1 ansible_host=198.18.0.2");
    EXPECT_EQ(inventory[50], "router50 ansible_host=198.18.0.51");
    for (int k = 1; k <= routers; k++)
        EXPECT_EQ(inventory[k], "router" + std::to_string(k) + " ansible_host=" + address_of(k));

    // Every connection first, then what each shows: the daemons restart
    // meanwhile, which is slow under the sanitizers. Port 857 on the faulty
    // routers and two healthy ones only: a TLS daemon is slower still.
    struct probed {
        int router, port;
        std::string expected, error;
        raw_client c;
    };
    std::vector<probed> probes;
    for (int k = 1; k <= routers; k++) {
        std::string want = "greets";
        std::vector<int> ports = {856};
        for (const faulty& f : faults)
            if (f.router == k) want = f.shows, ports.push_back(857);
        if (k == 1 || k == routers) ports.push_back(857);
        for (int port : ports) probes.push_back({k, port, port == 857 && want == "greets" ? "answers" : want, "", {}});
    }
    for (probed& p : probes) p.error = open_to(fleet, p.router, p.port, p.c);
    for (probed& p : probes) {
        SCOPED_TRACE("router" + std::to_string(p.router) + " port " + std::to_string(p.port));
        EXPECT_EQ(p.error.empty() ? shows(p.c, p.port, p.expected == "silent" ? 500 : 5000) : p.error, p.expected);
        p.c.close_now();
    }

    // Each router's /run/sim at /run/fleet/routerK: router 1 logged the probe
    // above, from the workstation's address.
    for (int k = 1; k <= routers; k++)
        EXPECT_TRUE(router::exists("/proc/" + std::to_string(fleet.workstation) + "/root/run/fleet/router" +
                                   std::to_string(k) + "/events"))
            << k;
    auto logged = [&] { return fleet.file("/run/fleet/router1/messages").find("198.18.0.1 - protocol error"); };
    for (long long deadline = now_ms() + 5000; logged() == std::string::npos && now_ms() < deadline;) usleep(20000);
    EXPECT_NE(logged(), std::string::npos);

    struct {
        int router;
        const char* password;
        const char* answer;
    } logins[] = {
        {1, "fleet-pw", "01 01 01"},
        {50, "fleet-pw", "01 01 01"},
        {7, "fleet-pw", "01 01 00"},
        {2, "admin", "01 01 00"},
    };
    for (const auto& l : logins) {
        SCOPED_TRACE("router" + std::to_string(l.router) + " with " + l.password);
        raw_client c;
        bytes greeting;
        ASSERT_EQ(open_to(fleet, l.router, 856, c, 5000), "");
        ASSERT_EQ(shows(c, 856, 5000, &greeting), "greets");
        c.send_bytes(auth_reply(greeting, l.password));
        EXPECT_BYTES(c.receive(3), l.answer);
    }

    // Every router has a configuration of its own (its backups differ).
    std::set<std::string> hostnames;
    std::string children = router::read_file("/proc/" + std::to_string(fleet.workstation) + "/task/" +
                                             std::to_string(fleet.workstation) + "/children");
    std::istringstream pids(children);
    for (std::string pid; pids >> pid;) {
        std::string conf = router::read_file("/proc/" + pid + "/root/etc/config/system.conf");
        if (!conf.empty()) hostnames.insert(conf);
    }
    EXPECT_EQ(hostnames.size(), (size_t)routers);
    EXPECT_EQ(hostnames.count("hostname router50\n"), 1u);

    // The command's status is kelp-router's, and nothing is left in the
    // fleet's network once it has ended.
    ino_t net = fleet.net_inode();
    EXPECT_EQ(fleet.finish(20000), 7);
    std::string left;
    for (const std::string& pid : router::list_dir("/proc")) {
        struct stat st;
        if (isdigit((unsigned char)pid[0]) && stat(("/proc/" + pid + "/ns/net").c_str(), &st) == 0 && st.st_ino == net)
            left += pid + " ";
    }
    EXPECT_EQ(left, "");
}

TEST_F(Fleet, UpgradeRebootsUnlessItFailsOrNeverReturns) {
    fleet_run fleet;
    fleet.start({"--fleet", "3", "--fault", "upgrade-fails:2", "--fault", "no-return:3", "--reboot-seconds", "2"});
    ASSERT_FALSE(HasFatalFailure());
    struct row {
        int router;
        std::vector<std::string> progress;
        // Port 857, whose daemon the upgrade did not use: at once, while a
        // reboot would last, and once every router has done what it does.
        std::string after_done;
        std::string after_reboot;
        std::string events;
        raw_client c;
    } rows[] = {
        {1,
         {"checking image (100 bytes)", "writing flash 10%", "writing flash 25%", "writing flash 50%",
          "writing flash 75%", "writing flash 100%", "done"},
         "refused",
         "answers",
         "image written\nrebooted\n",
         {}},
        {2,
         {"checking image (100 bytes)", "error: image check failed", "done"},
         "answers",
         "answers",
         "upgrade failed: image check\n",
         {}},
        {3,
         {"checking image (100 bytes)", "writing flash 10%", "writing flash 25%", "writing flash 50%",
          "writing flash 75%", "writing flash 100%", "done"},
         "refused",
         "refused",
         "image written\ndid not come back after the reboot\n",
         {}},
    };
    // All three upgrades at once: each takes about a second.
    for (row& r : rows) {
        SCOPED_TRACE(r.router);
        bytes greeting;
        ASSERT_EQ(open_to(fleet, r.router, 856, r.c, 5000), "");
        ASSERT_EQ(shows(r.c, 856, 5000, &greeting), "greets");
        r.c.send_bytes(auth_reply(greeting, "admin"));
        EXPECT_BYTES(r.c.receive(3), "01 01 01");
        r.c.send_bytes(act_pkt(241, 0, 0x01, 100));
        EXPECT_BYTES(r.c.receive(7), "03 01 01 00 00 00 00");
        r.c.send_bytes(frame(bytes(100, 0x5A)));
        EXPECT_BYTES(r.c.receive(7), "03 01 01 00 00 00 00");
    }
    for (row& r : rows) {
        SCOPED_TRACE(r.router);
        std::vector<std::string> progress;
        while (progress.size() < 10 && (progress.empty() || progress.back() != "done")) {
            bytes f = r.c.receive(1462, 10000);
            ASSERT_EQ(f.size(), 1462u);
            size_t length = f[0] | (f[1] << 8);
            ASSERT_GE(length, 1u);
            progress.emplace_back(f.begin() + 2, f.begin() + 2 + length - 1);
        }
        EXPECT_EQ(progress, r.progress);
        // The reboot waits for the daemon that relayed the upgrade.
        EXPECT_BYTES(r.c.receive(7), "03 01 01 00 00 00 00");
    }
    for (row& r : rows) EXPECT_EQ(probe(fleet, r.router, 857), r.after_done) << r.router;
    auto events = [&](const row& r) { return fleet.file("/run/fleet/router" + std::to_string(r.router) + "/events"); };
    for (long long deadline = now_ms() + 15000; now_ms() < deadline; usleep(20000))
        if (std::all_of(std::begin(rows), std::end(rows), [&](const row& r) { return events(r) == r.events; })) break;
    for (row& r : rows) {
        SCOPED_TRACE(r.router);
        EXPECT_EQ(events(r), r.events);
        EXPECT_EQ(probe(fleet, r.router, 857), r.after_reboot);
    }
    EXPECT_EQ(fleet.finish(20000), 7);
}

// Refused before anything is built.
TEST_F(Fleet, OptionsOutOfRange) {
    const struct {
        std::vector<std::string> options;
        const char* says;
        int exit = 1;
    } rows[] = {
        {{"--help"}, "usage: kelp-router", 0},
        {{"--fleet", "0"}, "--fleet takes a number of routers from 1 to 1023"},
        {{"--fleet", "1024"}, "--fleet takes a number"},
        {{"--fleet", "2x"}, "--fleet takes a number"},
        {{"--fleet", "50", "--fault", "down:51"}, "--fault names router 51 of 50"},
        {{"--fault", "down:2"}, "--fault names router 2 of 1"},
        {{"--fleet", "5", "--fault", "down:0"}, "router numbers are 1, 2"},
        {{"--fleet", "5", "--fault", "down:1,,2"}, "router numbers are 1, 2"},
        {{"--fleet", "5", "--fault", "sleepy:1"}, "KIND one of down, silent"},
        {{"--fleet", "5", "--fault", "down"}, "--fault takes KIND:LIST"},
        {{"--fleet", "5", "--fault", "down:2", "--fault", "silent:1,2"}, "router 2 cannot be both down and silent"},
        {{"--reboot-seconds", "-1"}, "--reboot-seconds takes seconds"},
        {{"--reboot-seconds", "0.1234"}, "--reboot-seconds takes seconds"},
        {{"--frobnicate"}, "usage: kelp-router"},
    };
    for (const auto& r : rows) {
        std::string command = std::string(KELP_ROUTER);
        for (const std::string& o : r.options) command += " '" + o + "'";
        SCOPED_TRACE(command);
        FILE* p = popen((command + " -- true 2>&1").c_str(), "r");
        ASSERT_NE(p, nullptr);
        std::string out;
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        int status = pclose(p);
        EXPECT_EQ(WEXITSTATUS(status), r.exit) << out;
        EXPECT_NE(out.find(r.says), std::string::npos) << out;
    }
}

}  // namespace
