// The command line: every command and option, checked before anything runs.
#pragma once

#include <string>
#include <vector>

#include "invocation.h"

// Fills *out from argv. Returns -1 to go on, or the exit status to end with
// (after --help or --version, or a usage error, already printed: as JSON
// under --json).
int parse_command_line(int argc, char** argv, invocation* out);

