#include <gtest/gtest.h>

#include <string>

#include "core/program_name.h"
#include "core/tokens.h"

static std::string base(const char* name) {
    std::string copy = name;
    return program_basename(copy.data());
}

TEST(ProgramBasename, SeparatorsAndExeSuffix) {
    EXPECT_EQ(base("kelputild"), "kelputild");
    EXPECT_EQ(base("/usr/sbin/kelputild"), "kelputild");
    EXPECT_EQ(base("C:\\bin\\kelputild.exe"), "kelputild");
    // A backslash before the last slash does not count.
    EXPECT_EQ(base("a\\b/kelputild"), "kelputild");
    EXPECT_EQ(base("a/b\\kelputild"), "b\\kelputild");
    EXPECT_EQ(base("kelputild.exe.old"), "kelputild");
    EXPECT_EQ(base("kelputild.EXE"), "kelputild");
    // ".exe" wins over an earlier ".EXE".
    EXPECT_EQ(base("k.EXE.exe"), "k.EXE");
    EXPECT_EQ(base("dir/"), "");
    EXPECT_EQ(base(""), "");
}

TEST(ProgramBasename, CutsInPlaceAndPointsIntoTheString) {
    char name[] = "/x/kelputild.exe";
    char* b = program_basename(name);
    EXPECT_EQ(b, name + 3);
    EXPECT_EQ(name[12], '\0');
}

struct token_case {
    const char* text;
    int position;
    const char* delimiters;
    const char* token;
    int end;
};

TEST(NextToken, DelimiterRules) {
    const token_case cases[] = {
        {"admin:abc:0", 0, "\n\r:", "admin", 5},
        {"admin:abc:0", 5, "\n\r:", "abc", 9},
        // An empty field is skipped: the next field becomes the token.
        {"admin::0:0", 5, "\n\r:", "0", 8},
        {"admin", 5, "\n\r:", "", 5},
        {"", 0, "\n\r:", "", 0},
        {"x:hash\n", 1, "\n\r:", "hash", 6},
        // Default set: blanks, tabs, '=', brackets, parentheses and quotes.
        {"  key = \"value\"", 0, nullptr, "key", 5},
        {"  key = \"value\"", 5, nullptr, "value", 14},
        {"[a](b)'c'\td", 0, nullptr, "a", 2},
        {"\t\r\n", 0, nullptr, "", 3},
    };
    for (const token_case& c : cases) {
        char out[64];
        int end = next_token(c.text, c.position, out, c.delimiters);
        EXPECT_STREQ(out, c.token) << c.text << " @" << c.position;
        EXPECT_EQ(end, c.end) << c.text << " @" << c.position;
    }
}
