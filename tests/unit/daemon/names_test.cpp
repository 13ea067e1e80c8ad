// The program name that chooses the mode, and the tokens of a passwd line.
#include <gtest/gtest.h>

#include <string>

#include "core/program_name.h"
#include "core/tokens.h"

TEST(ProgramBasename, SeparatorsAndExeSuffix) {
    const char* cases[][2] = {
        {"kelputild", "kelputild"},
        {"/usr/sbin/kelputild", "kelputild"},
        {"C:\\bin\\kelputild.exe", "kelputild"},
        {"a\\b/kelputild", "kelputild"},  // a backslash before the last slash does not count
        {"a/b\\kelputild", "b\\kelputild"},
        {"kelputild.exe.old", "kelputild"},
        {"kelputild.EXE", "kelputild"},
        {"k.EXE.exe", "k.EXE"},  // ".exe" wins over an earlier ".EXE"
        {"dir/", ""},
        {"", ""},
    };
    for (auto& c : cases) {
        std::string name = c[0];
        const char* base = program_basename(name.data());
        // Cut in place: the result points into the name.
        EXPECT_TRUE(base >= name.data() && base <= name.data() + name.size()) << c[0];
        EXPECT_STREQ(base, c[1]) << c[0];
    }
}

TEST(NextToken, DelimiterRules) {
    struct { const char* text; int position; const char* delimiters; const char* token; int end; } cases[] = {
        {"admin:abc:0", 0, "\n\r:", "admin", 5}, {"admin:abc:0", 5, "\n\r:", "abc", 9},
        // An empty field is skipped: the next field becomes the token.
        {"admin::0:0", 5, "\n\r:", "0", 8}, {"admin", 5, "\n\r:", "", 5}, {"", 0, "\n\r:", "", 0},
        {"x:hash\n", 1, "\n\r:", "hash", 6},
        // Default set: blanks, tabs, '=', brackets, parentheses and quotes.
        {"  key = \"value\"", 0, nullptr, "key", 5}, {"  key = \"value\"", 5, nullptr, "value", 14},
        {"[a](b)'c'\td", 0, nullptr, "a", 2}, {"\t\r\n", 0, nullptr, "", 3},
    };
    for (auto& c : cases) {
        char out[64];
        EXPECT_EQ(next_token(c.text, c.position, out, c.delimiters), c.end) << c.text << " @" << c.position;
        EXPECT_STREQ(out, c.token) << c.text << " @" << c.position;
    }
}
