#include "serve_options.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>

#include "cli.h"
#include "files.h"
#include "outcome.h"
#include "password.h"

namespace {

struct serve_line {
    CLI::App app{"kelputil serve: back up every host of an inventory on a schedule, with an HTTP API and metrics",
                 "kelputil serve"};
    serve_options& o;
    std::string listen = "127.0.0.1:8750", interval = "1h", timeout = "15", hook_timeout = "30", push_timeout = "60",
                token_file;
    bool tls = false;
    explicit serve_line(serve_options& opts) : o(opts) {}
};

void add_connection_options(serve_line& s) {
    invocation& inv = s.o.conn;
    s.app.add_option("--password-file", inv.password_file, "the admin password of hosts without their own source")
        ->type_name("FILE");
    s.app.add_option("--timeout", s.timeout, "give up on a silent host after this long (default 15 s)")
        ->type_name("DURATION");
    s.app.add_flag("--plain", inv.plain, "the plain protocol on port 856 for hosts that do not say");
    s.app.add_flag("--tls", s.tls, "TLS on port 857 (the default)");
    s.app.add_option("--pin", inv.pin, "accept only the certificate with this SHA-256 fingerprint")
        ->type_name("SHA256");
    s.app.add_option("--known-hosts", inv.known_hosts, "remembered certificates")->type_name("FILE");
    s.app.add_flag("-v,--verbose", inv.verbose, "log every connection's steps");
}

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
    s.app.add_option("-j,--jobs", o.jobs, "hosts at a time (default 16)")->check(CLI::Range(1, 256))->type_name("N");
    s.app.add_option("--limit", o.limit, "hosts and groups to serve")->type_name("PATTERN");
    s.app.add_option("--token-file", s.token_file, "the API's bearer token (mode 600)")->type_name("FILE");
    s.app.add_option("--tls-cert", o.tls_cert, "serve HTTPS with this certificate")->type_name("FILE");
    s.app.add_option("--tls-key", o.tls_key, "and this key")->type_name("FILE");
    s.app.add_option("--on-change", o.on_change, "run CMD when a host's configuration changed")->type_name("CMD");
    s.app.add_option("--on-failure", o.on_failure, "run CMD when a host's backup failed")->type_name("CMD");
    s.app.add_option("--hook-timeout", s.hook_timeout, "end a hook after this long (default 30 s)")
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

std::string duration_of(const char* option, const std::string& text, long long min_ms, long long* out) {
    long long ms = parse_duration_ms(text);
    if (ms < min_ms)
        return std::string(option) + " " + text + ": give a duration of at least " + std::to_string(min_ms / 1000) +
               " s (e.g. 90s, 15m, 1h)";
    *out = ms;
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
    if (wrong.empty()) wrong = duration_of("--interval", s.interval, 1000, &o.interval_ms);
    long long timeout = 0;
    if (wrong.empty()) wrong = duration_of("--timeout", s.timeout, 100, &timeout);
    o.conn.timeout_ms = (int)timeout;
    if (wrong.empty()) wrong = duration_of("--hook-timeout", s.hook_timeout, 100, &o.hook_timeout_ms);
    if (wrong.empty()) wrong = duration_of("--push-timeout", s.push_timeout, 1000, &o.push_timeout_ms);
    if (wrong.empty() && s.tls && o.conn.plain) wrong = "--plain and --tls exclude each other";
    if (wrong.empty()) wrong = check_security(s);
    if (wrong.empty() && !s.token_file.empty()) wrong = read_token(s.token_file, &o.token);
    o.conn.jobs = o.jobs;
    o.conn.inventory = o.inventory;
    o.conn.command = "fleet serve";  // hosts' notes name the host
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

}  // namespace

bool is_loopback(const std::string& host) {
    struct in_addr v4;
    struct in6_addr v6;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return host == "localhost";
}

int parse_serve_command_line(int argc, char** argv, serve_options* out) {
    serve_line s(*out);
    add_connection_options(s);
    add_serve_options(s);
    s.app.add_flag("--json", out->conn.json, "usage errors as JSON");
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--json") == 0) out->conn.json = true;
    try {
        std::vector<char*> args = without_command(argc, argv);
        s.app.parse((int)args.size(), args.data());
    } catch (const CLI::CallForHelp& e) {
        return s.app.exit(e);
    } catch (const CLI::ParseError& e) {
        print_usage_error(out->conn.json, std::string("serve: ") + e.what(),
                          "kelputil serve -i INVENTORY --into DIR [OPTIONS]");
        return exit_usage;
    }
    std::string wrong = settle(s);
    if (!wrong.empty()) {
        print_usage_error(out->conn.json, "serve: " + wrong, "kelputil serve -i INVENTORY --into DIR [OPTIONS]");
        return exit_usage;
    }
    return -1;
}
