// What one run of kelputil was asked to do, as the command line chose it
// and checked it.
#pragma once

#include <stdint.h>

#include <string>

#include "connection.h"
#include "outcome.h"

struct invocation {
    connection_options conn;
    output_options output;
    uint8_t flags = 0;  // apply / reboot after success

    // The command and its arguments: "backup", "fleet backup", ...
    std::string command;
    std::string file, out;      // the command's files
    std::string name;           // script name, or the host of fleet history/diff
    std::string user, address;  // kick targets
    std::string kind;           // report: full, core, kernel
    std::string direction;      // throughput: rx, tx
    int seconds_ms = 10000;     // throughput duration
    int window = 0;             // throughput socket buffers, 0: the kernel's
    bool upgrade = false;

    // Fleets.
    fleet_options fleet;
    std::string into, rev_from, rev_to;
    bool scripts = false;
    bool init = false;  // fleet backup --into a folder that holds other files
    int canary = 1, batch = 10;
    int settle_ms = 120000;
    bool dry_run = false;

    bool is_fleet() const { return command.rfind("fleet", 0) == 0; }
    // The device command itself: "fleet ppp" -> "ppp".
    std::string device_command() const {
        return !is_fleet() ? command : command == "fleet" ? "" : command.substr(command.find(' ') + 1);
    }
};
