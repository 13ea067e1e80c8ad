// Time as the client and the programs keep it: the monotonic clock every
// deadline is on, the wall clock of logs and records, and a duration as an
// operator reads it.
#pragma once

#include <string>

namespace kelp {

// CLOCK_MONOTONIC: deadlines and measured durations.
long long monotonic_ms();
double monotonic_seconds();
// CLOCK_REALTIME, Unix seconds with a fraction: what a log or a record says.
double wall_seconds();

// "0.375 s", "15 s", "3600 s": three significant digits, whole seconds from
// 100 on.
std::string seconds_text(double seconds);

// "2026-11-24T23:59:01.123+01:00": a moment in local time with its offset,
// as a log line starts.
std::string iso_time(double unix_seconds);
// "2026-11-24 23:59:01", local time: a moment for a table.
std::string local_time(long long unix_seconds);

}  // namespace kelp
