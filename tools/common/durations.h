// Durations, sizes and whole numbers as operators write them ("15", "2.5",
// "500ms", "2m", "1h"; "64K", "1M"), checked with the same words by every
// program.
#pragma once

#include <string>

// -> milliseconds; -1 when not a duration.
long long parse_duration_ms(const std::string& text);
// -> bytes (binary units); -1 when not a size.
long long parse_size(const std::string& text);
// "64 KiB", "1 MiB", "1000 bytes": a size limit for a message, in the
// largest binary unit that holds it whole.
std::string size_text(long long bytes);

// A device's --timeout, in every program and the inventory's timeout=.
constexpr long long timeout_min_ms = 100, timeout_max_ms = 3600 * 1000;
// "" when text is a duration from min_ms to max_ms; else what is wrong.
std::string duration_problem(const std::string& text, long long min_ms, long long max_ms);
// "" when text is a size from min to max bytes; else what is wrong.
std::string size_problem(const std::string& text, long long min, long long max);
// "" when text is a whole number from min to max; else what is wrong, what
// naming the number ("port").
std::string whole_number_problem(const std::string& text, long long min, long long max, const char* what);
