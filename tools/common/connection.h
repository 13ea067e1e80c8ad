// From what the operator asked for to a target the client library can reach:
// mode and port, the certificate's trust (pin or known hosts), the password
// source, and the --verbose trail.
#pragma once

#include <string>

#include "actions.h"
#include "inventory.h"
#include "password.h"
#include "reporter.h"

// How to reach a device when the inventory says nothing else.
struct connection_options {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: the mode's own port
    bool plain = false;
    std::string pin;
    std::string known_hosts;  // empty: the default file
    std::string password_file;
    int timeout_ms = 15000;
};

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

// What an inventory host's variables mean for kelputil.
host_settings settings_of(const inventory_host& host);

// The single device of the command line, as a host.
host_settings command_line_host(const connection_options& c);

// The password source a host uses: its own, or the command line's.
password_source password_source_for(const connection_options& c, const host_settings& h);

// notes receives first contacts and, when verbose, the connection's trail
// (each line under the host's name when named); it must outlive the target.
kelp::target make_target(const connection_options& c, const host_settings& h, kelp::password_fn password,
                         reporter& notes, bool verbose, bool named);
