#include "connection_cli.h"

#include <stdlib.h>

#include <CLI/CLI.hpp>

#include "clock.h"
#include "durations.h"

namespace {

constexpr long long port_min = 1, port_max = 65535;

std::string port_problem(const std::string& text) { return whole_number_problem(text, port_min, port_max, "port"); }

std::string timeout_problem(const std::string& text) { return duration_problem(text, timeout_min_ms, timeout_max_ms); }

}  // namespace

CLI::Validator checked_by(std::function<std::string(const std::string&)> problem) {
    return CLI::Validator([problem](std::string& text) { return problem(text); }, "");
}

void add_connection_options(CLI::App& app, connection_options& conn, connection_words& words, bool single_device) {
    if (single_device) {
        app.add_option("-H,--host", conn.host, "device address (default " + conn.host + ")")->type_name("HOST");
        app.add_option("-p,--port", words.port, "port (default 857, or 856 with --plain)")
            ->check(checked_by(port_problem))
            ->type_name("PORT");
    }
    app.add_flag("--plain", conn.plain, "the plain protocol on port 856: a captured login reveals the password");
    app.add_flag("--tls", words.tls, "TLS on port 857 (the default)");
    app.add_option("--pin", conn.pin, "accept only the certificate with this SHA-256 fingerprint")->type_name("SHA256");
    app.add_option("--known-hosts", conn.known_hosts,
                   "remembered certificates (default $XDG_CONFIG_HOME/kelputil/known_hosts)")
        ->type_name("FILE");
    app.add_option("--password-file", conn.password_file, "read the admin password from FILE (first line)")
        ->type_name("FILE");
    app.add_option(
           "--timeout", words.timeout,
           "give up on a silent device after this long (default " + kelp::seconds_text(conn.timeout_ms / 1000.0) + ")")
        ->check(checked_by(timeout_problem))
        ->type_name("DURATION");
}

std::string settle_connection(const connection_words& words, connection_options* conn) {
    if (conn->plain && words.tls) return "--plain and --tls exclude each other";
    if (!words.port.empty()) conn->port = atoi(words.port.c_str());
    if (!words.timeout.empty()) conn->timeout_ms = (int)parse_duration_ms(words.timeout);
    return "";
}
