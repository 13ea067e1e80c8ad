// What one run of kelputil was asked to do, as the command line chose it
// and checked it.
#pragma once

#include <stdint.h>

#include <string>

#include "connection.h"
#include "inventory.h"
#include "outcome.h"

// A command's own arguments. Each field means one thing, whichever command
// sets it; the command table (commands.h) says which command has which.
struct command_args {
    std::string file;     // the file the command reads or writes: FILE, IMAGE, PLAIN ({host} in a fleet run)
    std::string out;      // the file an offline command writes: OUT
    std::string script;   // get-script, put-script: cbq, fw, nat or dhcp
    std::string report;   // full, core or kernel
    std::string user;     // kick-ppp, kick-hotspot
    std::string address;  // kick-ip
    // throughput
    std::string direction;   // rx or tx
    int seconds_ms = 10000;  // how long
    int window = 0;          // our socket buffers; 0: the kernel's
    // firmware, and a fleet's staged roll-out of it
    bool upgrade = false;
    int canary = 1, batch = 10;
    int settle_ms = 120000;
    bool dry_run = false;
    // a fleet's backups
    std::string into;  // the repository's folder
    std::string host;  // history, diff: the host whose backups
    std::string rev_from, rev_to;
    bool scripts = false;  // backup: the four scripts too
    bool init = false;     // backup: a repository in a folder that holds other files
};

struct command_row;  // commands.h

struct invocation {
    connection_options conn;
    output_options output;
    uint8_t flags = 0;  // apply / reboot after success
    fleet_options fleet;

    // The command as typed ("backup", "fleet backup", ...), its row of the
    // command table, and its arguments.
    std::string command;
    const command_row* row = nullptr;
    command_args args;

    bool is_fleet() const { return command.rfind("fleet", 0) == 0; }
    // The command without fleet: "fleet ppp" -> "ppp".
    std::string device_command() const {
        return !is_fleet() ? command : command == "fleet" ? "" : command.substr(command.find(' ') + 1);
    }
};
