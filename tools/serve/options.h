// What kelputil serve was asked to do: the command line, or the same keys
// in a configuration file (--config, INI or TOML), checked before anything
// starts.
#pragma once

#include <string>

#include "connection.h"
#include "outcome.h"

struct serve_options {
    connection_options conn;  // how hosts are reached: timeout, TLS, trust, password file
    output_options out;
    std::string inventory, limit, into, state;
    std::string listen_host = "127.0.0.1";
    int listen_port = 8750;
    long long interval_ms = 3600 * 1000;
    int jobs = 16;
    std::string token;  // from --token-file; empty: no token asked
    std::string tls_cert, tls_key;
    std::string on_change, on_failure, on_recovery;
    long long hook_timeout_ms = 30000;
    bool scripts = false;  // also the four scripts of each host
    std::string push, push_branch;
    long long push_timeout_ms = 60000;
    // How long a stop lets backups in flight finish: below systemd's
    // TimeoutStopSec=30 of the unit, with room for the commit and the exit.
    long long stop_deadline_ms = 10000;
};

// The longest one host's backup may take (a session per report, each
// bounded by --timeout, and the commit): past it a running host counts as
// stuck.
long long run_bound_ms(const serve_options& o);
// How long a wait=1 request waits for its backup: a run's bound, with one
// --timeout of slack.
long long wait_bound_ms(const serve_options& o);

// Fills *out from argv ("kelputil [OPTIONS] serve [OPTIONS]"). Returns -1
// to go on, or the exit status to end with (its message already printed).
int parse_serve_command_line(int argc, char** argv, serve_options* out);

// A listening address that only this machine can reach.
bool is_loopback(const std::string& host);
