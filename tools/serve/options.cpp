#include "options.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

#include "connection_cli.h"
#include "durations.h"
#include "files.h"
#include "lines.h"
#include "outcome.h"
#include "password.h"
#include "words.h"

namespace {

// Beyond a week a backup schedule is no schedule; below a second, a loop.
constexpr long long min_interval_ms = 1000, max_interval_ms = 7LL * 24 * 3600 * 1000;
// A stop, and a push, get a second at the least.
constexpr long long min_stop_ms = 1000, min_push_ms = 1000;

struct serve_line {
    CLI::App app{"kelputil serve: back up every host of an inventory on a schedule, with an HTTP API and metrics",
                 "kelputil serve"};
    serve_options& o;
    std::string listen = "127.0.0.1:8750", interval = "1h", hook_timeout = "30", stop_timeout = "10",
                push_timeout = "60", token_file;
    connection_words conn;
    explicit serve_line(serve_options& opts) : o(opts) {}
};

void add_serve_options(serve_line& s) {
    serve_options& o = s.o;
    s.app.set_config("--config", "", "read these options from FILE (INI or TOML: key = value)")->type_name("FILE");
    s.app.add_option("-i,--inventory", o.inventory, "INI inventory of hosts and groups")
        ->envname("KELP_INVENTORY")
        ->type_name("FILE")
        ->required();
    s.app.add_option("--into", o.into, "the backups' git repository (created if new)")->type_name("DIR")->required();
    s.app.add_option("--state", o.state, "the hosts' state (default $STATE_DIRECTORY/serve.db, else in DIR)")
        ->type_name("FILE");
    s.app.add_option("--listen", s.listen, "the HTTP API's address (default 127.0.0.1:8750)")->type_name("ADDR:PORT");
    s.app.add_option("--interval", s.interval, "back up each host this often (default 1h)")->type_name("DURATION");
    s.app.add_option("-j,--jobs", o.jobs, "hosts at a time (default " + std::to_string(o.jobs) + ")")
        ->check(checked_by([](const std::string& text) {
            return whole_number_problem(text, 1, fleet_options::max_jobs, "job count");
        }))
        ->type_name("N");
    s.app.add_option("--limit", o.limit, "hosts and groups to serve")->type_name("PATTERN");
    s.app.add_option("--token-file", s.token_file, "the API's bearer token (mode 600)")->type_name("FILE");
    s.app.add_option("--tls-cert", o.tls_cert, "serve HTTPS with this certificate")->type_name("FILE");
    s.app.add_option("--tls-key", o.tls_key, "and this key")->type_name("FILE");
    s.app.add_option("--on-change", o.on_change, "run CMD when a host's configuration changed")->type_name("CMD");
    s.app.add_option("--on-failure", o.on_failure, "run CMD when a host starts failing (once per failure streak)")
        ->type_name("CMD");
    s.app.add_option("--on-recovery", o.on_recovery, "run CMD when a failing host is backed up again")
        ->type_name("CMD");
    s.app.add_option("--hook-timeout", s.hook_timeout, "end a hook after this long (default 30 s)")
        ->type_name("DURATION");
    s.app.add_option("--stop-timeout", s.stop_timeout, "at a stop, how long backups in flight may take (default 10 s)")
        ->type_name("DURATION");
    s.app.add_flag("--scripts", o.scripts, "also back up each host's four scripts");
    s.app.add_option("--push", o.push, "push to this git remote after each commit")->type_name("REMOTE");
    s.app.add_option("--push-branch", o.push_branch, "the remote's branch (default: the same as here)")
        ->type_name("BRANCH");
    s.app.add_option("--push-timeout", s.push_timeout, "end a push after this long, and retry (default 60 s)")
        ->type_name("DURATION");
}

// "127.0.0.1:8750", "[::1]:8750", ":8750" (every address).
std::string split_listen(const std::string& text, std::string* host, int* port) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) return "--listen " + text + ": give ADDR:PORT, e.g. 127.0.0.1:8750";
    std::string h = text.substr(0, colon), p = text.substr(colon + 1);
    if (h.size() >= 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
    char* end = nullptr;
    long n = strtol(p.c_str(), &end, 10);
    if (p.empty() || *end || n < 1 || n > 65535) return "--listen " + text + ": the port must be 1 to 65535";
    *host = h.empty() ? "0.0.0.0" : h;
    *port = (int)n;
    return "";
}

std::string duration_of(const char* option, const std::string& text, long long min_ms, long long max_ms,
                        long long* out) {
    std::string wrong = duration_problem(text, min_ms, max_ms);
    if (!wrong.empty()) return std::string(option) + ": " + wrong;
    *out = parse_duration_ms(text);
    return "";
}

std::string read_token(const std::string& path, std::string* token) {
    kelp::status r = read_secret_line(path, "token", token);
    if (!r) return r.message;
    if (token->size() < 16) return "the token file " + path + " must hold a token of at least 16 characters";
    return "";
}

std::string check_security(const serve_line& s) {
    const serve_options& o = s.o;
    if (o.tls_cert.empty() != o.tls_key.empty()) return "--tls-cert and --tls-key go together: give both";
    if (is_loopback(o.listen_host)) return "";
    if (s.token_file.empty() || o.tls_cert.empty())
        return "--listen " + s.listen +
               " is reachable from other machines: it needs --token-file and "
               "--tls-cert with --tls-key, or listen on 127.0.0.1";
    return "";
}

std::string settle(serve_line& s) {
    serve_options& o = s.o;
    std::string wrong = split_listen(s.listen, &o.listen_host, &o.listen_port);
    if (wrong.empty()) wrong = duration_of("--interval", s.interval, min_interval_ms, max_interval_ms, &o.interval_ms);
    if (wrong.empty()) wrong = settle_connection(s.conn, &o.conn);
    if (wrong.empty())
        wrong = duration_of("--hook-timeout", s.hook_timeout, timeout_min_ms, timeout_max_ms, &o.hook_timeout_ms);
    if (wrong.empty())
        wrong = duration_of("--stop-timeout", s.stop_timeout, min_stop_ms, timeout_max_ms, &o.stop_deadline_ms);
    if (wrong.empty())
        wrong = duration_of("--push-timeout", s.push_timeout, min_push_ms, timeout_max_ms, &o.push_timeout_ms);
    if (wrong.empty()) wrong = check_security(s);
    if (wrong.empty() && !s.token_file.empty()) wrong = read_token(s.token_file, &o.token);
    return wrong;
}

// argv without the word "serve", so that the options before and after it
// are one set, as in the configuration file; "help serve" asks for --help.
std::vector<char*> without_command(int argc, char** argv) {
    static char help[] = "--help";
    std::vector<char*> args = {argv[0]};
    bool dropped = false;
    for (int i = 1; i < argc; i++) {
        if (!dropped && strcmp(argv[i], "help") == 0)
            args.push_back(help);
        else if (!dropped && strcmp(argv[i], "serve") == 0)
            dropped = true;
        else
            args.push_back(argv[i]);
    }
    return args;
}

// --config FILE's path in the arguments, "" without one.
std::string config_path(const std::vector<char*>& args) {
    for (size_t i = 1; i < args.size(); i++) {
        std::string a = args[i];
        if (a == "--config" && i + 1 < args.size()) return args[i + 1];
        if (a.rfind("--config=", 0) == 0) return a.substr(9);
    }
    return "";
}

// A key the service does not know is most likely a typo: an error naming
// FILE:LINE and the nearest key, rather than a setting silently lost.
std::string check_config_keys(const CLI::App& app, const std::string& path) {
    kelp::bytes data;
    if (path.empty() || !read_input(path, &data, settings_file_max)) return "";  // the parser names a missing file
    std::vector<std::string> known;
    for (const CLI::Option* o : app.get_options())
        for (const std::string& name : o->get_lnames()) known.push_back(name);
    std::string text(data.begin(), data.end());
    std::map<std::string, int> seen;
    int number = 0;
    for (std::string_view raw : kelp::lines_of(text)) {
        number++;
        std::string line = kelp::trim(raw);
        size_t eq = line.find('=');
        if (line.empty() || line[0] == '#' || line[0] == ';' || line[0] == '[' || eq == std::string::npos) continue;
        std::string key = kelp::trim(line.substr(0, eq));
        if (key.size() >= 2 && key.front() == '"' && key.back() == '"') key = key.substr(1, key.size() - 2);
        std::string where = path + ":" + std::to_string(number) + ": ";
        if (seen.count(key))
            return where + "the key '" + key + "' is given again (first on line " + std::to_string(seen[key]) +
                   "): keep one";
        seen[key] = number;
        if (std::find(known.begin(), known.end(), key) != known.end()) continue;
        std::string best = closest(key, known);
        return where + "unknown key '" + key + "'" + (best.empty() ? "" : " (did you mean '" + best + "'?)") +
               "; kelputil serve --help lists the keys";
    }
    return "";
}

// An option the service does not know: the nearest one it does.
std::string check_options(const CLI::App& app, const std::vector<char*>& args) {
    std::vector<std::string> known;
    for (const CLI::Option* o : app.get_options())
        for (const std::string& name : o->get_lnames()) known.push_back("--" + name);
    for (size_t i = 1; i < args.size(); i++) {
        std::string a = args[i];
        if (a == "--") break;
        if (a.rfind("--", 0) != 0) continue;
        a = a.substr(0, a.find('='));
        if (std::find(known.begin(), known.end(), a) != known.end()) continue;
        std::string best = closest(a, known);
        return "unknown option " + a + (best.empty() ? "" : " (did you mean " + best + "?)") +
               "; kelputil serve --help lists them";
    }
    return "";
}

}  // namespace

long long run_bound_ms(const serve_options& o) {
    constexpr int sessions = 3;             // the backup and two reports
    constexpr long long commit_ms = 30000;  // a commit on a slow disk
    return sessions * (long long)o.conn.timeout_ms + commit_ms;
}

long long wait_bound_ms(const serve_options& o) { return run_bound_ms(o) + o.conn.timeout_ms; }

bool is_loopback(const std::string& host) {
    struct in_addr v4;
    struct in6_addr v6;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return host == "localhost";
}

int parse_serve_command_line(int argc, char** argv, serve_options* out) {
    serve_line s(*out);
    add_connection_options(s.app, out->conn, s.conn, false);
    s.app.add_flag("-v,--verbose", out->out.verbose, "log every connection's steps");
    add_serve_options(s);
    s.app.add_flag("--json", out->out.json, "usage errors as JSON");
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--json") == 0) out->out.json = true;
    try {
        std::vector<char*> args = without_command(argc, argv);
        std::string wrong_key = check_options(s.app, args);
        if (wrong_key.empty()) wrong_key = check_config_keys(s.app, config_path(args));
        if (!wrong_key.empty()) {
            print_usage_error(out->out.json, "serve: " + wrong_key, "kelputil serve -i INVENTORY --into DIR [OPTIONS]");
            return exit_usage;
        }
        s.app.parse((int)args.size(), args.data());
    } catch (const CLI::CallForHelp& e) {
        return s.app.exit(e);
    } catch (const CLI::ParseError& e) {
        print_usage_error(out->out.json, std::string("serve: ") + e.what(),
                          "kelputil serve -i INVENTORY --into DIR [OPTIONS]");
        return exit_usage;
    }
    std::string wrong = settle(s);
    if (!wrong.empty()) {
        print_usage_error(out->out.json, "serve: " + wrong, "kelputil serve -i INVENTORY --into DIR [OPTIONS]");
        return exit_usage;
    }
    return -1;
}
