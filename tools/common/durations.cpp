#include "durations.h"

#include <ctype.h>
#include <errno.h>
#include <math.h>
#include <stdlib.h>

#include <map>

#include "clock.h"

namespace {

long long parse_number_with_suffix(const std::string& text, const std::map<std::string, double>& units) {
    if (text.empty() || !(isdigit((unsigned char)text[0]) || text[0] == '.')) return -1;
    char* end = nullptr;
    double value = strtod(text.c_str(), &end);
    auto unit = units.find(end);
    if (unit == units.end() || !isfinite(value)) return -1;
    double scaled = value * unit->second;
    if (scaled > 9e15) return -1;
    return (long long)llround(scaled);
}

// 4096 -> "4K", as sizes are typed.
std::string typed_size(long long bytes) {
    if (bytes % (1 << 20) == 0) return std::to_string(bytes >> 20) + "M";
    if (bytes % 1024 == 0) return std::to_string(bytes >> 10) + "K";
    return std::to_string(bytes);
}

}  // namespace

long long parse_duration_ms(const std::string& text) {
    return parse_number_with_suffix(text, {{"", 1000}, {"s", 1000}, {"ms", 1}, {"m", 60000}, {"h", 3600000}});
}

long long parse_size(const std::string& text) {
    long long n = parse_number_with_suffix(text, {{"", 1}, {"K", 1024}, {"k", 1024}, {"M", 1 << 20}, {"m", 1 << 20}});
    return n;
}

std::string size_text(long long bytes) {
    static const char* const units[] = {"bytes", "KiB", "MiB", "GiB"};
    int unit = 0;
    while (unit < 3 && bytes >= 1024 && bytes % 1024 == 0) bytes /= 1024, unit++;
    return std::to_string(bytes) + " " + units[unit];
}

std::string whole_number_problem(const std::string& text, long long min, long long max, const char* what) {
    char* end = nullptr;
    errno = 0;
    long long n = text.empty() || !isdigit((unsigned char)text[0]) ? -1 : strtoll(text.c_str(), &end, 10);
    std::string range = std::to_string(min) + " to " + std::to_string(max);
    if (n < 0 || errno || *end) return "'" + text + "' is not a " + what + " (a whole number " + range + ")";
    if (n < min || n > max) return "'" + text + "' is out of range: " + range;
    return "";
}

std::string size_problem(const std::string& text, long long min, long long max) {
    long long n = parse_size(text);
    if (n < 0) return "'" + text + "' is not a size (e.g. 65536, 64K, 1M)";
    if (n < min || n > max) return "'" + text + "' is out of range: " + typed_size(min) + " to " + typed_size(max);
    return "";
}

std::string duration_problem(const std::string& text, long long min_ms, long long max_ms) {
    long long ms = parse_duration_ms(text);
    if (ms < 0) return "'" + text + "' is not a duration (e.g. 15, 2.5, 500ms, 2m)";
    if (ms < min_ms || ms > max_ms)
        return "'" + text + "' is out of range: " + kelp::seconds_text(min_ms / 1000.0) + " to " +
               kelp::seconds_text(max_ms / 1000.0);
    return "";
}
