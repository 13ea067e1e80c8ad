// Running one job on many hosts: at most -j at a time, each host with its
// own settings, password source and time-outs, so that a host that is down,
// silent or refusing never holds up the others. While it runs, one status
// line on a terminal, and each finished host's findings (its lines under its
// name) or its JSON line; at the end an outcome with a row per host.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "actions.h"
#include "connection.h"
#include "inventory.h"
#include "outcome.h"

struct host_result {
    std::string host;
    outcome result;
    double seconds = 0;
    bool touched = true;  // false: a halted roll-out never reached it
};

using host_job = std::function<outcome(const inventory_host& host, const kelp::target& t, reporter& r)>;

class fleet_runner {
public:
    fleet_runner(const connection_options& conn, const output_options& out, const fleet_options& fleet);
    ~fleet_runner();

    // Every password source the hosts use must be there before anything
    // connects; a prompt is asked here, once, before the status line.
    kelp::status check_passwords(const std::vector<const inventory_host*>& hosts);
    // From here on SIGINT, SIGTERM and SIGHUP stop the run, not the process:
    // no host starts after one, the running ones end (within their
    // time-outs) and run() returns; a second signal ends the process.
    void stop_on_signals();
    // The signal that stopped the run, or 0.
    int stopped_by() const;
    // No host starts once stop() is true.
    void stop_when(std::function<bool()> stop);
    // Runs job on each host, at most `parallel` at a time (0: -j). Hosts a
    // stop left out come back untouched.
    std::vector<host_result> run(const std::vector<const inventory_host*>& hosts, const host_job& job,
                                 int parallel = 0);
    // Clears the status line, for a message in its place.
    void end_status_line();
    // Ends the status line and sums the run up: "WHAT: N hosts, ..." with
    // the hosts that succeeded and failed (and extra) as data, each host's
    // row for the table, and exit_some_hosts_failed when not all succeeded.
    outcome summary(const std::vector<host_result>& results, const std::string& what, json extra = nullptr);

    // A target for one host, for jobs that connect more than once.
    kelp::target target_for(const inventory_host& host, reporter& notes);
    reporter& notes();

private:
    struct state;
    std::unique_ptr<state> s_;
};
