#include "connection.h"

#include "known_hosts.h"

host_settings command_line_host(const invocation& inv) {
    host_settings h;
    h.name = inv.host;
    h.address = inv.host;
    return h;
}

password_source password_source_for(const invocation& inv, const host_settings& h) {
    password_source src;
    if (!h.password_file.empty()) src.file = h.password_file;
    else if (!h.password_env.empty()) src.env = h.password_env;
    else src.file = inv.password_file;
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
            notes.note("first contact with " + where + ": its certificate has SHA-256 " + sha256 +
                       "; remembered in " + file);
        return s;
    };
}

kelp::target make_target(const invocation& inv, const host_settings& h, kelp::password_fn password, reporter& notes) {
    kelp::target t;
    t.host = h.address.empty() ? h.name : h.address;
    t.tls = h.tls >= 0 ? h.tls == 1 : !inv.plain;
    t.port = h.port ? h.port : inv.port ? inv.port : t.tls ? tls_port : plain_port;
    t.pin_sha256 = h.pin.empty() ? inv.pin : h.pin;
    t.timeout_ms = h.timeout_ms ? h.timeout_ms : inv.timeout_ms;
    t.password = std::move(password);
    if (t.tls && t.pin_sha256.empty()) t.trust = known_hosts_trust(inv.known_hosts, notes);
    if (inv.verbose) {
        std::string prefix = inv.is_fleet() ? h.name + ": " : "";
        t.log = [prefix, &notes](const std::string& line) { notes.note(prefix + line); };
    }
    return t;
}
