// The command table: every command of kelputil, in the order --help lists
// them, with its arguments and what runs it. The command line, the
// dispatch, the help and the shell's completion are all made from it, so a
// command is added in one place.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "actions.h"
#include "invocation.h"
#include "outcome.h"
#include "reporter.h"

// Where a command or an argument exists: as a command of its own, under
// fleet, or both.
enum scope : unsigned { at_top = 1, in_fleet = 2, anywhere = 3 };

// What the shell offers for an argument (a choice offers its words).
enum class completes { nothing, file, folder, host };

// One argument of a command: NAME, a positional, or --name, an option.
struct argument {
    enum kind_t { text, flag, choice, ipv4, duration, size, count };
    kind_t kind;
    const char* name;
    const char* help;
    std::variant<std::string command_args::*, int command_args::*, bool command_args::*> field;
    bool required = false;
    std::vector<std::string> choices = {};  // choice
    long long min = 0, max = 0;             // duration (ms), size (bytes), count
    const char* what = "";                  // count: "batch size", for its message
    const char* type_name = nullptr;        // as --help shows the value, when not the default
    completes completion = completes::nothing;
    const char* fleet_help = nullptr;  // under fleet, when it says more
    unsigned where = anywhere;
    bool binary_stdout = false;  // "-" is standard output, where binary must not reach a terminal

    bool is_option() const { return name[0] == '-'; }
    argument needed() const;
    argument offers(completes c) const;
    argument only(unsigned s) const;
    argument in_fleet_says(const char* text) const;
    argument binary_to_stdout() const;
    argument shown_as(const char* type) const;
};

// What a device command does once connected to one device (each host of a
// fleet in turn); host names the device in file names ("{host}").
using device_step = outcome (*)(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
// A command run as a whole: an offline one, or a fleet run of its own.
using whole_run = outcome (*)(const invocation& inv);

struct command_row {
    const char* name;
    const char* summary;
    unsigned where;
    std::vector<argument> arguments = {};
    device_step on_device = nullptr;
    whole_run run = nullptr;              // at top: instead of a device step
    whole_run fleet_run = nullptr;        // under fleet: instead of the device step on every host
    const char* helper = nullptr;         // the program that runs it in kelputil's place
    const char* fleet_summary = nullptr;  // under fleet, when it says otherwise
    bool group = false;                   // fleet: the rows in_fleet are its commands
    bool helper_parses = false;           // the words after it are its helper's to check
};

const std::vector<command_row>& command_table();
// The row of a command as typed ("report", "fleet backup"); nullptr when none.
const command_row* find_command(const std::string& typed);
