// The connection options, declared once for every program that reaches
// devices: kelputil (with -H and -p for its single device) and the service
// (whose hosts come from the inventory). The same names, help and bounds
// in both.
#pragma once

#include <functional>
#include <string>

#include "connection.h"

namespace CLI {
class App;
class Validator;
}  // namespace CLI

// A validator from a rule that says what is wrong with a value as typed
// ("" when nothing is), so that every program refuses it in the same words.
CLI::Validator checked_by(std::function<std::string(const std::string&)> problem);

// What needs checking before it becomes a number, as typed.
struct connection_words {
    std::string port, timeout;  // empty: not given
    bool tls = false;
};

// Adds them to app, writing into conn and words; with single_device also
// -H and -p.
void add_connection_options(CLI::App& app, connection_options& conn, connection_words& words, bool single_device);

// After the parse: the port and the time-out into conn, when given. "" or
// what is wrong, naming the option.
std::string settle_connection(const connection_words& words, connection_options* conn);
