// The operator's tool against the simulated router: each test runs a shell
// script inside its own kelp-router and checks exit statuses and output.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "router.h"

namespace {

struct result {
    int status = -1;
    std::string out;  // stdout and stderr together
};

// A process can end while its /proc files are read: no exception for that.
std::string slurp(const std::string& path) { return router::read_file(path); }

// Runs script in a fresh router; calls meanwhile every 20 ms while it runs.
// Kills the whole router after 60 s.
result in_router(const std::string& script, const std::string& password = "pw",
                 const std::function<void()>& meanwhile = {}) {
    char path[] = "/tmp/kelputil-test-XXXXXX";
    int fd = mkstemp(path);
    std::string tool_dir = KELPUTIL;
    tool_dir.erase(tool_dir.rfind('/'));
    std::string env_path = tool_dir + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
    pid_t pid = fork();
    if (pid == 0) {
        setsid();  // no terminal to prompt on, and one group to kill
        int null = open("/dev/null", O_RDONLY);
        dup2(null, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        setenv("PATH", env_path.c_str(), 1);
        setenv("KELPUTIL_PASSWORD", password.c_str(), 1);
        execl(KELP_ROUTER, "kelp-router", "--password", password.c_str(), "--", "/bin/sh", "-c", script.c_str(),
              (char*)nullptr);
        _exit(127);
    }
    close(fd);
    result r;
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; waited += 20) {
        if (waited >= 60000) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "the router ran too long: " << script;
            break;
        }
        if (meanwhile) meanwhile();
        usleep(20000);
    }
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = slurp(path);
    unlink(path);
    return r;
}

// A JSON value flattened to path -> scalar ("$.ok" -> "true", "$[0].user" ->
// "\"carol\""); well-formedness is the point, not the full grammar of numbers.
struct json_flat {
    const std::string& s;
    size_t i = 0;
    std::map<std::string, std::string> at;

    void ws() {
        while (i < s.size() && strchr(" \t\r\n", s[i])) i++;
    }
    bool string(std::string* v) {
        if (i >= s.size() || s[i] != '"') return false;
        size_t b = i++;
        while (i < s.size() && s[i] != '"') i += s[i] == '\\' ? 2 : 1;
        if (i >= s.size()) return false;
        *v = s.substr(b, ++i - b);
        return true;
    }
    bool value(const std::string& path) {
        ws();
        if (i >= s.size()) return false;
        char open = s[i], close = open == '{' ? '}' : ']';
        if (open == '{' || open == '[') {
            i++;
            ws();
            if (i < s.size() && s[i] == close) return ++i, true;
            for (int n = 0;; n++) {
                std::string key = "[" + std::to_string(n) + "]";
                if (open == '{') {
                    ws();
                    if (!string(&key)) return false;
                    key = "." + key.substr(1, key.size() - 2);
                    ws();
                    if (i >= s.size() || s[i++] != ':') return false;
                }
                if (!value(path + key)) return false;
                ws();
                if (i >= s.size()) return false;
                if (s[i] == close) return ++i, true;
                if (s[i++] != ',') return false;
            }
        }
        std::string token;
        if (open == '"') {
            if (!string(&token)) return false;
        } else {
            size_t b = i;
            while (i < s.size() && (isalnum((unsigned char)s[i]) || strchr("+-.", s[i]))) i++;
            token = s.substr(b, i - b);
            char* end = nullptr;
            if (token != "true" && token != "false" && token != "null" &&
                (token.empty() || (strtod(token.c_str(), &end), *end != '\0')))
                return false;
        }
        at[path] = token;
        return true;
    }
    bool parse() {
        bool ok = value("$");
        ws();
        return ok && i == s.size();
    }
};

struct step {
    std::string command;  // a shell fragment, run in a scratch directory
    int exit;
    // Each must appear in the output; "!x": x must not; "$path=v" and
    // "$path>0": the output is one JSON value with that field.
    std::vector<std::string> want;
};

void check_output(const step& s, const std::string& out) {
    json_flat json{out, 0, {}};
    bool is_json = false;
    for (const std::string& w : s.want) {
        if (w[0] == '!') {
            EXPECT_EQ(out.find(w.substr(1)), std::string::npos) << "unwanted " << w.substr(1);
        } else if (w[0] == '$') {
            if (!is_json && !(is_json = json.parse())) {
                ADD_FAILURE() << "not JSON";
                return;
            }
            size_t op = w.find_first_of("=>");
            std::string path = w.substr(0, op), value = w.substr(op + 1);
            ASSERT_TRUE(json.at.count(path)) << "no " << path;
            if (w[op] == '>')
                EXPECT_GT(atof(json.at[path].c_str()), atof(value.c_str())) << path;
            else
                EXPECT_EQ(json.at[path], value) << path;
        } else {
            EXPECT_NE(out.find(w), std::string::npos) << "missing " << w;
        }
    }
}

// Runs the steps in order in one router, each with its output framed by
// markers, and checks each step's exit status and output.
void run_steps(const std::vector<step>& steps) {
    std::string script =
        "cd \"$(mktemp -d)\"\n"
        "until_in() { n=0; until grep -q \"$1\" \"$2\"; do n=$((n+1)); [ $n -lt 50 ] || return 1; sleep 0.1; done; "
        "cat \"$2\"; }\n"
        // A reboot refuses logins until the router records it is back.
        "reboots() { n=0; until [ \"$(grep -c '^rebooted$' /run/sim/events)\" -ge $1 ]; do n=$((n+1)); "
        "[ $n -lt 50 ] || return 1; sleep 0.1; done; }\n";
    for (size_t i = 0; i < steps.size(); i++)
        script += "echo '@@" + std::to_string(i) + "'; (" + steps[i].command + ") 2>&1; printf '\\n@@ %d\\n' $?\n";
    result r = in_router(script);
    ASSERT_EQ(r.status, 0) << r.out;
    size_t at = 0;
    for (size_t i = 0; i < steps.size(); i++) {
        SCOPED_TRACE(steps[i].command);
        std::string begin = "@@" + std::to_string(i) + "\n";
        size_t b = r.out.find(begin, at), e = r.out.find("\n@@ ", b);
        ASSERT_TRUE(b != std::string::npos && e != std::string::npos) << r.out;
        at = e + 4;
        std::string out = r.out.substr(b + begin.size(), e - b - begin.size());
        EXPECT_EQ(atoi(r.out.c_str() + at), steps[i].exit) << out;
        check_output(steps[i], out);
    }
}

class kelputil : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string(KELP_EMULATOR) != "") GTEST_SKIP() << "the tool and the router run natively only";
    }
};

TEST_F(kelputil, every_command) {
    run_steps({
        {"kelputil check", 0, {"login ok"}},
        {"kelputil apply && until_in 'monitor: apply' /run/sim/events", 0, {"apply requested"}},
        {"kelputil backup b.dat", 0, {"saved ", " bytes to b.dat"}},
        // Offline: port 1 would refuse any connection.
        {"kelputil -p 1 bundle-verify b.dat && kelputil -p 1 bundle-unpack b.dat b.tar && tar -tf b.tar", 0,
         {"bundle ok: ", "config/fw.scr"}},
        {"kelputil -q restore b.dat && cat /run/sim/events", 0, {"configuration installed"}},
        {"kelputil get-script fw fw.scr && echo 'iptables -A INPUT -j LOG' >> fw.scr && "
         "kelputil put-script fw fw.scr && kelputil get-script fw",
         0,
         {"script fw installed\n", "iptables -A INPUT -i lo -j ACCEPT\niptables -A INPUT -j LOG\n"}},
        {"kelputil report full", 0, {"---[ Software Version ]", "firmware 3.2.1 (simulated)"}},
        {"kelputil report core", 0, {"model: simulated kelp-v3 router"}},
        {"kelputil report kernel", 0, {"---[ Kernel Message Log ]", "eth0: link up"}},
        {"kelputil ppp",
         0,
         {"NAME                 TYPE       IFACE    REMOTE           CBQ\n",
          "alice                pppoe      ppp0     10.64.0.1        12\n",
          "bob                  pptp       ppp1     10.64.0.2        -1\n2 session(s)"}},
        {"kelputil hotspot",
         0,
         {"USER             IP              MAC                   COUNTER1     COUNTER2   VALUE1   VALUE2\n",
          "carol            10.0.0.101      00:11:22:33:44:55      1048576      5242880     3600       12\n",
          "dave             10.0.0.102      00:11:22:33:44:66         2048         4096       60        3\n"}},
        {"kelputil kick-ppp alice && kelputil ppp", 0, {"kicked alice\n", "1 session(s)", "!alice  "}},
        {"kelputil kick-hotspot carol && kelputil kick-ip 10.0.0.102 && kelputil hotspot", 0,
         {"kicked carol\n", "kicked 10.0.0.102\n", "0 session(s)"}},
        // Without a terminal, no progress bar: only the final line.
        {"head -c 300000 /dev/urandom > fw.bin && kelputil firmware fw.bin", 0,
         {"firmware stored on the device\n", "!\r", "!%"}},
        {"script -qfec 'kelputil firmware fw.bin' /dev/null", 0, {"\r[", "100%", "firmware stored on the device"}},
        {"kelputil firmware fw.bin --upgrade && reboots 1",
         0,
         {"upgrade: checking image (300000 bytes)\n", "upgrade: writing flash 50%\n", "upgrade: done\nupgrade finished\n"}},
        {"kelputil throughput rx 1", 0, {"device to us: ", " Mbit/s\n"}},
        {"kelputil throughput tx 1", 0, {"us to device: ", " Mbit/s\n"}},
        // The router's init restarts the daemons the reboot ended.
        {"kelputil reboot && until_in 'monitor: reboot' /run/sim/events >/dev/null && reboots 2 && kelputil check", 0,
         {"reboot requested", "login ok"}},
    });
}

TEST_F(kelputil, exit_statuses_and_json) {
    run_steps({
        {"KELPUTIL_PASSWORD=wrong kelputil check", 2, {"refused the password"}},
        {"kelputil -p 1 check", 3, {"Connection refused"}},
        {"kelputil kick-ppp nobody", 16, {"No such user"}},
        {"kelputil get-script fw fw.scr && touch /tmp/busy && kelputil put-script fw fw.scr; r=$?; rm /tmp/busy; "
         "exit $r",
         14,
         {"busy"}},
        {"head -c 100 /dev/zero > small && kelputil restore small", 13, {"File too small"}},
        {"head -c 600000 /dev/zero > big && kelputil restore big", 1, {"file too large"}},
        {"kelputil -q backup b.dat && head -c 2000 b.dat > bad && head -c 9000 /dev/zero >> bad && "
         "kelputil restore bad",
         10,
         {"rejected the bundle"}},
        {"kelputil frobnicate", 1, {"unknown command"}},
        {"printf 'pw\\nrest\\n' > pwf && KELPUTIL_PASSWORD=wrong kelputil --password-file pwf check", 0, {"login ok"}},
        // The prompt on the terminal, without echo.
        {"unset KELPUTIL_PASSWORD; (sleep 1; echo pw) | script -qfec 'kelputil check' /dev/null", 0,
         {"admin password: ", "login ok", "!password: pw"}},
        {"kelputil --json check", 0, {"$.ok=true", "$.exit=0", "$.message=\"login ok\""}},
        {"KELPUTIL_PASSWORD=wrong kelputil --json check", 2, {"$.ok=false", "$.exit=2"}},
        {"kelputil --json kick-hotspot nobody", 16, {"$.ok=false", "$.exit=16", "$.code=6"}},
        {"kelputil --json ppp", 0, {"$[0].name=\"alice\"", "$[1].remote=\"10.64.0.2\"", "$[1].cbq_rule=-1"}},
        {"kelputil --json hotspot", 0, {"$[0].user=\"carol\"", "$[1].counter2=4096", "$[1].value1=60"}},
        {"kelputil --json --window 64K throughput tx 1", 0, {"$.ok=true", "$.direction=\"tx\"", "$.mbit_per_s>0"}},
        {"kelputil --window 64Q throughput rx 1", 1, {"--window needs a size"}},
    });
}

TEST_F(kelputil, password_never_in_a_command_line) {
    const std::string password = "pw-" + std::to_string(getpid()) + "-q7";
    int looked = 0;
    std::vector<std::string> leaks;
    auto scan = [&] {
        std::vector<std::string> lines;
        bool running = false;
        DIR* proc = opendir("/proc");
        while (dirent* e = proc ? readdir(proc) : nullptr) {
            if (!isdigit((unsigned char)e->d_name[0])) continue;
            std::string line = slurp(std::string("/proc/") + e->d_name + "/cmdline");
            running |= line.find(std::string("throughput\0rx", 13)) != std::string::npos;
            lines.push_back(line);
        }
        if (proc) closedir(proc);
        if (!running) return;  // kelp-router blanks its own copy only once started
        looked++;
        for (const std::string& l : lines)
            if (l.find(password) != std::string::npos) leaks.push_back(l);
    };
    result r = in_router("kelputil throughput rx 2", password, scan);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_GT(looked, 10);
    EXPECT_TRUE(leaks.empty()) << leaks[0];
}

}  // namespace
