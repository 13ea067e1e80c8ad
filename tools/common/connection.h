// From what the operator asked for to a target the client library can reach:
// mode and port, the certificate's trust (pin or known hosts), the password
// source, and the --verbose trail.
#pragma once

#include <string>

#include "actions.h"
#include "invocation.h"
#include "password.h"
#include "reporter.h"

// What an inventory may set for one host, over the command line's choice.
struct host_settings {
    std::string name;     // how the operator calls it
    std::string address;  // empty: the name
    int port = 0;
    int tls = -1;  // 1 TLS, 0 plain, -1 as the command line says
    std::string pin;
    std::string password_file, password_env;
    int timeout_ms = 0;
};

// The single device of the command line, as a host.
host_settings command_line_host(const invocation& inv);

// The password source a host uses: its own, or the command line's.
password_source password_source_for(const invocation& inv, const host_settings& h);

// notes receives first contacts and the --verbose trail; it must outlive the
// target.
kelp::target make_target(const invocation& inv, const host_settings& h, kelp::password_fn password, reporter& notes);
