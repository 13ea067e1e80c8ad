// The command line: every command and option, checked before anything runs.
// The commands and their arguments come from the command table.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "invocation.h"

namespace CLI {
class App;
}

// Fills *out from argv. Returns nothing to go on, or the outcome to end
// with: the help or the version, or a usage error (as JSON under --json).
std::optional<outcome> parse_command_line(int argc, char** argv, invocation* out);

// Every command as the parser knows it, fleet's included, each with its
// path as typed ("", "fleet", "fleet backup"): for the shell's completion.
using command_visitor = std::function<void(const std::string& path, const CLI::App& app)>;
void visit_command_tree(const command_visitor& fn);
