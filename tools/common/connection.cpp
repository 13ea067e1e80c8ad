#include "connection.h"

#include <stdlib.h>

#include "durations.h"
#include "known_hosts.h"
#include "words.h"

host_settings settings_of(const inventory_host& host) {
    host_settings h;
    h.name = host.name;
    auto get = [&](const char* key) {
        auto it = host.vars.find(key);
        return it == host.vars.end() ? std::string() : it->second;
    };
    h.address = get("ansible_host");
    std::string port = get("port").empty() ? get("ansible_port") : get("port");
    if (!port.empty()) h.port = atoi(port.c_str());
    bool yes = false;
    if (boolean_word(get("tls"), &yes)) h.tls = yes ? 1 : 0;
    if (boolean_word(get("plain"), &yes)) h.tls = yes ? 0 : 1;
    h.pin = get("pin");
    h.password_file = get("password_file");
    h.password_env = get("password_env");
    if (!get("timeout").empty()) h.timeout_ms = (int)parse_duration_ms(get("timeout"));
    return h;
}

host_settings command_line_host(const connection_options& c) {
    host_settings h;
    h.name = c.host;
    h.address = c.host;
    return h;
}

password_source password_source_for(const connection_options& c, const host_settings& h) {
    password_source src;
    if (!h.password_file.empty())
        src.file = h.password_file;
    else if (!h.password_env.empty())
        src.env = h.password_env;
    else
        src.file = c.password_file;
    return src;
}

static kelp::trust_fn known_hosts_trust(const std::string& chosen, reporter& notes) {
    std::string file = chosen.empty() ? kelp::default_known_hosts_file() : chosen;
    return [file, &notes](const std::string& where, const std::string& sha256) -> kelp::status {
        if (file.empty())
            return kelp::fail(kelp::error_kind::local,
                              "nowhere to remember certificates: set HOME or XDG_CONFIG_HOME, or give --known-hosts "
                              "FILE or --pin");
        bool first = false;
        kelp::status s = kelp::check_known_host(file, where, sha256, &first);
        if (s && first)
            notes.note("first contact with " + where + ": its certificate has SHA-256 " + sha256 + "; remembered in " +
                       file);
        return s;
    };
}

kelp::target make_target(const connection_options& c, const host_settings& h, kelp::password_fn password,
                         reporter& notes, bool verbose, bool named) {
    kelp::target t;
    t.host = h.address.empty() ? h.name : h.address;
    t.tls = h.tls >= 0 ? h.tls == 1 : !c.plain;
    t.port = h.port ? h.port : c.port ? c.port : t.tls ? tls_port : plain_port;
    t.pin_sha256 = h.pin.empty() ? c.pin : h.pin;
    t.timeout_ms = h.timeout_ms ? h.timeout_ms : c.timeout_ms;
    t.password = std::move(password);
    if (t.tls && t.pin_sha256.empty()) t.trust = known_hosts_trust(c.known_hosts, notes);
    if (verbose) {
        std::string prefix = named ? h.name + ": " : "";
        t.log = [prefix, &notes](const std::string& line) { notes.note(prefix + line); };
    }
    return t;
}
