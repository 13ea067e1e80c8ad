// Durations, sizes and whole numbers as an operator types them.
#include <gtest/gtest.h>

#include "durations.h"

namespace {

TEST(durations, what_is_read) {
    // text | milliseconds (-1: not a duration)
    const std::pair<const char*, long long> durations[] = {
        {"15", 15000}, {"2.5", 2500}, {".5s", 500}, {"500ms", 500}, {"2m", 120000}, {"1h", 3600000},
        {"0", 0}, {"5x", -1}, {"5 s", -1}, {"ms", -1}, {"", -1}, {"-1", -1}, {"1e400", -1}, {"3e9h", -1},
    };
    for (const auto& [text, ms] : durations) EXPECT_EQ(parse_duration_ms(text), ms) << text;
    // text | bytes (-1: not a size)
    const std::pair<const char*, long long> sizes[] = {
        {"4096", 4096}, {"64K", 65536}, {"64k", 65536}, {"1M", 1 << 20}, {"1.5K", 1536}, {"2G", -1}, {"K", -1},
    };
    for (const auto& [text, bytes] : sizes) EXPECT_EQ(parse_size(text), bytes) << text;
}

TEST(durations, what_is_said) {
    const std::pair<std::string, std::string> rows[] = {
        {size_text(65536), "64 KiB"}, {size_text(1 << 20), "1 MiB"}, {size_text(1000), "1000 bytes"},
        {size_text(1536), "1536 bytes"},
        {duration_problem("2.5", timeout_min_ms, timeout_max_ms), ""},
        {duration_problem("0.05", timeout_min_ms, timeout_max_ms), "'0.05' is out of range: 0.1 s to 3600 s"},
        {duration_problem("2h", timeout_min_ms, timeout_max_ms), "'2h' is out of range: 0.1 s to 3600 s"},
        {duration_problem("soon", 0, 1), "'soon' is not a duration (e.g. 15, 2.5, 500ms, 2m)"},
        {size_problem("64K", 4 << 10, 64 << 20), ""},
        {size_problem("2K", 4 << 10, 64 << 20), "'2K' is out of range: 4K to 64M"},
        {size_problem("1000", 1000, 1536), ""},
        {size_problem("2K", 1000, 1536), "'2K' is out of range: 1000 to 1536"},
        {size_problem("big", 4 << 10, 64 << 20), "'big' is not a size (e.g. 65536, 64K, 1M)"},
        {whole_number_problem("856", 1, 65535, "port"), ""},
        {whole_number_problem("65536", 1, 65535, "port"), "'65536' is out of range: 1 to 65535"},
        {whole_number_problem("0", 1, 65535, "port"), "'0' is out of range: 1 to 65535"},
        {whole_number_problem("85x", 1, 65535, "port"), "'85x' is not a port (a whole number 1 to 65535)"},
        {whole_number_problem("99999999999999999999", 1, 65535, "port"),
         "'99999999999999999999' is not a port (a whole number 1 to 65535)"},
    };
    for (const auto& [said, want] : rows) EXPECT_EQ(said, want);
}

}  // namespace
