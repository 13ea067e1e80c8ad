// The command line: every command and option, checked before anything runs.
#pragma once

#include <string>
#include <vector>

#include "invocation.h"

// Fills *out from argv. Returns -1 to go on, or the exit status to end with
// (after --help or --version, or a usage error, already printed: as JSON
// under --json).
int parse_command_line(int argc, char** argv, invocation* out);

// "15", "2.5", "500ms", "2m", "1h" -> milliseconds; -1 when not a duration.
long long parse_duration_ms(const std::string& text);
// A device's --timeout, in every program and the inventory's timeout=.
constexpr long long timeout_min_ms = 100, timeout_max_ms = 3600 * 1000;
// "" when text is a duration from min_ms to max_ms; else what is wrong,
// the same words for every option of every program.
std::string duration_problem(const std::string& text, long long min_ms, long long max_ms);
// "65536", "64K", "1M" (binary units) -> bytes; -1 when not a size.
long long parse_size(const std::string& text);
// The closest of names to typed when it is close enough to be a typo, for
// "did you mean" hints; "" when none is.
std::string closest(const std::string& typed, const std::vector<std::string>& names);
