// The result of one command on one device, and its one JSON schema:
//   {"ok": bool, "exit": int, "code": int|null, "message": str, "data": ...}
// A fleet run adds "host" and "seconds" to each host's object.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "json_bytes.h"
#include "status.h"

// How a command talks to the operator.
struct output_options {
    bool json = false;
    bool quiet = false;
    int verbose = 0;
};

// One host's row in the table that ends a fleet run.
struct host_row {
    std::string host;
    bool ok = false;
    bool touched = true;  // false: the run stopped before the host
    double seconds = 0;
    std::string message;
};

struct outcome {
    int exit = 0;
    int code = -1;  // the device's result code, -1 when it gave none
    std::string message;
    json data;  // null when the command has nothing more to say
    // For people, what goes to stdout before the message: a table; or, when
    // content is set, a report or script that stands alone, without it.
    std::string text;
    bool content = false;
    // The message is the answer asked for (a count): said even under --quiet.
    bool answer = false;
    // A command line that cannot run: the usage said after the message.
    std::string usage;
    // A fleet run's table for people, one row per host (JSON has had a line
    // per host already).
    std::optional<std::vector<host_row>> hosts;

    bool ok() const { return exit == 0; }
};

// Exit statuses: every program's status is one of these, and --help lists
// them from exit_meanings.
constexpr int exit_ok = 0;
constexpr int exit_usage = 1;  // usage or local error
constexpr int exit_password = 2;
constexpr int exit_unreachable = 3;  // could not connect, connection lost or timed out
constexpr int exit_protocol = 4;
constexpr int exit_tls = 5;      // certificate or TLS failure
constexpr int exit_device = 10;  // + the device's result code
constexpr int exit_some_hosts_failed = 20;
constexpr int exit_signal = 128;  // + the signal that stopped a run, as shells report it

struct exit_meaning {
    int status;
    const char* meaning;
};
extern const exit_meaning exit_meanings[8];
// "Exit status: 0 success; 1 usage or local error; ...", one line.
std::string exit_status_help();

// The exit status of a failure of this kind.
int exit_status(const kelp::status& s);

outcome success(const std::string& message, json data = nullptr);
outcome failure(const kelp::status& s, json data = nullptr);
outcome local_failure(const std::string& message);
outcome usage_failure(const std::string& message, const std::string& usage);

json outcome_json(const outcome& o);
// One line of JSON: strings that are not UTF-8 (bytes from a device or a
// file go into json as they are) shown as Latin-1, with their exact bytes
// beside them in base64 (json_bytes.h).
std::string json_line(const json& j);
// Text as a JSON array of its lines (without their newlines).
json json_lines(const std::string& text);
// The same text for a terminal: control characters shown as '?', so that a
// device cannot drive the operator's terminal.
std::string terminal_text(const std::string& bytes);

// Prints a finished command: the JSON object; or for people, a fleet's
// table, then the text and the message (stderr for a failure, with its
// usage; stdout for a success unless quiet). Under quiet a fleet's table
// shows only the hosts that failed, and only when one did.
void print_outcome(const outcome& o, bool as_json, bool quiet);
void print_usage_error(bool as_json, const std::string& message, const std::string& usage);

// Standard output is where the findings go: a write to it that fails (a
// full disk, /dev/full) must fail the run. Every flush goes through
// flush_stdout, which keeps the first error; close_stdout flushes and
// closes at the end and returns that error's errno, or 0.
void flush_stdout();
int close_stdout();

// A program's whole run: body's exit status, an exception as an internal
// error (nothing ends a program by an exception: every failure is an
// answer), and standard output closed and checked, so that findings that
// did not reach it fail the run whatever the device said.
int run_program(const char* program, const std::function<int()>& body);

// Seconds for JSON: to the millisecond, as measured.
double json_seconds(double seconds);
// "1 host", "2 hosts".
std::string plural(size_t n, const std::string& word);
