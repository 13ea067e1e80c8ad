#include "tool_harness.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "router.h"

using nlohmann::json;

void tool_test::SetUp() {
    if (std::string(KELP_EMULATOR) != "") GTEST_SKIP() << "the tool and the router run natively only";
}

run_result in_router(const std::string& script, const std::vector<std::string>& router_args,
                     const std::string& password, const std::function<void()>& meanwhile, int limit_ms) {
    char path[] = "/tmp/kelputil-test-XXXXXX";
    int fd = mkstemp(path);
    std::string tool_dir = KELPUTIL;
    tool_dir.erase(tool_dir.rfind('/'));
    std::string env_path = tool_dir + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
    std::vector<std::string> args = {"kelp-router", "--password", password};
    args.insert(args.end(), router_args.begin(), router_args.end());
    // The trust file stays in the sandbox, whatever the router exports.
    args.insert(args.end(), {"--", "/bin/sh", "-c", "export XDG_CONFIG_HOME=/run/sim/config\n" + script});
    pid_t pid = fork();
    if (pid == 0) {
        setsid();  // no terminal to prompt on, and one group to kill
        dup2(open("/dev/null", O_RDONLY), 0), dup2(fd, 1), dup2(fd, 2);
        setenv("PATH", env_path.c_str(), 1);
        setenv("KELPUTIL_PASSWORD", password.c_str(), 1);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(KELP_ROUTER, argv.data());
        _exit(127);
    }
    close(fd);
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; waited += 20) {
        if (waited >= limit_ms) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "the router ran too long: " << script;
            break;
        }
        if (meanwhile) meanwhile();
        usleep(20000);
    }
    run_result r{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), router::read_file(path)};
    unlink(path);
    return r;
}

namespace {

// Checks every line against the schema with a real validator, all lines of
// a test in one run; prints each line that fails and why.
const char validator[] = R"(
import json, sys, jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft202012Validator.check_schema(schema)
check = jsonschema.Draft202012Validator(schema, format_checker=jsonschema.FormatChecker())
bad = 0
for line in open(sys.argv[2], encoding="utf-8"):
    e = jsonschema.exceptions.best_match(check.iter_errors(json.loads(line)))
    if e:
        bad += 1
        print("%s\n  at /%s: %s" % (line.rstrip(), "/".join(map(str, e.absolute_path)), e.message))
sys.exit(bad > 0)
)";

void validate(const std::vector<std::string>& lines) {
    char path[] = "/tmp/kelputil-json-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string all;
    for (const std::string& l : lines) all += l + "\n";
    ASSERT_EQ(write(fd, all.data(), all.size()), (ssize_t)all.size());
    close(fd);
    std::string command =
        std::string("timeout 60 /usr/bin/python3 -c '") + validator + "' '" KELP_JSON_SCHEMA "' " + path + " 2>&1";
    FILE* p = popen(command.c_str(), "r");
    std::string said;
    char buffer[4096];
    for (size_t n; p && (n = fread(buffer, 1, sizeof buffer, p)) > 0;) said.append(buffer, n);
    int status = p ? pclose(p) : -1;
    unlink(path);
    EXPECT_EQ(status, 0) << "JSON lines not in " KELP_JSON_SCHEMA ":\n" << said;
}

// Every line that is a JSON object, for the validator; the last result, for
// the step's own checks.
void collect_json(const std::string& out, std::vector<std::string>* lines, json* last) {
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] != '{') continue;
        json j = json::parse(line, nullptr, false);
        ASSERT_FALSE(j.is_discarded()) << "not JSON: " << line;
        lines->push_back(line);
        if (!j.contains("event")) *last = j;
    }
}

// Each run of blanks as one: a table's cells, whatever their columns' widths.
std::string squeezed(const std::string& text) {
    std::string out;
    for (char c : text)
        if (c != ' ' || out.empty() || out.back() != ' ') out += c;
    return out;
}

void check_output(const step& s, const std::string& out, std::vector<std::string>* lines) {
    json last;
    collect_json(out, lines, &last);
    for (const std::string& w : s.want) {
        if (w[0] == '~') {
            EXPECT_NE(squeezed(out).find(squeezed(w.substr(1))), std::string::npos) << "missing " << w << "\n" << out;
        } else if (w[0] == '!') {
            EXPECT_EQ(out.find(w.substr(1)), std::string::npos) << "unwanted " << w.substr(1);
        } else if (w[0] == '/') {
            size_t op = w.find_first_of("=>:");
            json::json_pointer at(w.substr(0, op));
            ASSERT_TRUE(last.is_object() && last.contains(at)) << "no " << w.substr(0, op) << " in " << last.dump();
            const json& v = last[at];
            std::string want = w.substr(op + 1);
            if (w[op] == '>') {
                EXPECT_GT(v.get<double>(), atof(want.c_str())) << w;
            } else if (w[op] == ':') {
                std::vector<std::string> keys, wanted;  // an object's keys come sorted
                for (auto it = v.begin(); it != v.end(); ++it) keys.push_back(it.key());
                std::istringstream in(want);
                for (std::string k; std::getline(in, k, ',');) wanted.push_back(k);
                std::sort(wanted.begin(), wanted.end());
                EXPECT_EQ(keys, wanted) << w;
            } else {
                EXPECT_EQ(v, json::parse(want)) << w;
            }
        } else {
            EXPECT_NE(out.find(w), std::string::npos) << "missing " << w << " in:\n" << out;
        }
    }
}

}  // namespace

void run_steps(const std::vector<step>& steps, const std::vector<std::string>& router_args, int limit_ms) {
    std::string script =
        "cd \"$(mktemp -d /run/steps.XXXXXX)\"\n"
        "until_in() { n=0; until grep -q \"$1\" \"$2\"; do n=$((n+1)); [ $n -lt 100 ] || return 1; sleep 0.1; done; }\n"
        // A table on stdin: each row with the header's number of cells starts
        // every cell where the header starts its name.
        "aligned() { awk 'NR == 1 { n = NF; for (i = 1; i <= length($0); i++) "
        "if (substr($0, i, 1) != \" \" && substr(\" \" $0, i, 1) == \" \") at[++k] = i; next } "
        "NF == n { for (j = 1; j <= k; j++) if (substr($0, at[j], 1) == \" \" || substr(\" \" $0, at[j], 1) != \" \") "
        "{ print \"out of line: \" $0; bad = 1; next } } END { if (!bad) print \"columns line up\" }'; }\n";
    for (size_t i = 0; i < steps.size(); i++)
        script += "echo '@@" + std::to_string(i) + "'; (" + steps[i].command + ") 2>&1; printf '\\n@@ %d\\n' $?\n";
    run_result r = in_router(script, router_args, "pw", {}, limit_ms);
    ASSERT_EQ(r.status, 0) << r.out;
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t i = 0; i < steps.size(); i++) {
        SCOPED_TRACE(steps[i].command);
        std::string begin = "@@" + std::to_string(i) + "\n";
        size_t b = r.out.find(begin, at), e = r.out.find("\n@@ ", b);
        ASSERT_TRUE(b != std::string::npos && e != std::string::npos) << r.out;
        at = e + 4;
        std::string out = r.out.substr(b + begin.size(), e - b - begin.size());
        EXPECT_EQ(atoi(r.out.c_str() + at), steps[i].exit) << out;
        check_output(steps[i], out, &lines);
    }
    if (!lines.empty()) validate(lines);
}
