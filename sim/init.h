// The router's init: one process per router that keeps the plain and TLS
// daemons running as the router's init would (a new process after every
// exit), serves /dev/log into /run/sim/messages, takes "apply" and "reboot"
// from /tmp/monitor, and carries out reboots.
//
// A reboot comes from the monitor or from the reboot helper (SIGUSR1; SIGUSR2
// after a flash upgrade). It ends every daemon at once, except, after an
// upgrade, the one still relaying it, which may send its last packet; no
// daemon runs again until the reboot time is over and the survivor has
// ended. Then both start again and "rebooted" goes to /run/sim/events.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace router {

struct init_options {
    std::string daemon;  // the daemon binary
    std::vector<std::string> emulator;
    bool down = false;       // no daemon at all
    bool silent = false;     // both ports listen, nothing ever answers
    bool no_return = false;  // the daemons stay down after a reboot
    int reboot_ms = 1000;
    // Gets the ready record once both ports listen (or at once for a down
    // router) and the network is set up, then is closed.
    int ready_fd = -1;
    int number = 1;  // the router's number in the ready record
    // In a fleet: ends (EOF) once the router's link exists; then network()
    // sets it up. The daemons start meanwhile: they listen on any address.
    int link_fd = -1;
    std::function<std::string()> network;
};

struct ready_record {
    int number;
    int ok;  // 0: the daemons did not listen in time, or the router failed
};

// Runs in the calling process (a fork of the simulator) and never returns.
[[noreturn]] void run_init(const init_options& opts);

}  // namespace router
