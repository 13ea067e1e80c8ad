// What one run of kelputil was asked to do, as the command line chose it
// and checked it.
#pragma once

#include <stdint.h>

#include <string>

struct invocation {
    // Where and how to reach the device.
    std::string host = "127.0.0.1";
    int port = 0;  // 0: the mode's own port
    bool plain = false;
    std::string pin;
    std::string known_hosts;  // empty: the default file
    std::string password_file;
    int timeout_ms = 15000;
    uint8_t flags = 0;  // apply / reboot after success

    // How to talk to the operator.
    bool json = false;
    bool quiet = false;
    int verbose = 0;

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
    std::string inventory, limit, into, rev_from, rev_to;
    int jobs = 16;
    bool scripts = false;
    bool init = false;  // fleet backup --into a folder that holds other files
    int canary = 1, batch = 10;
    int settle_ms = 120000;
    bool dry_run = false;
    bool list_hosts = false;

    bool is_fleet() const { return command.rfind("fleet", 0) == 0; }
    // The device command itself: "fleet ppp" -> "ppp".
    std::string device_command() const {
        return !is_fleet() ? command : command == "fleet" ? "" : command.substr(command.find(' ') + 1);
    }
};
