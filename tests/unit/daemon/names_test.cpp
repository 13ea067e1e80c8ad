// The program name that chooses the mode, and the tokens of a passwd line.
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "core/program_name.h"
#include "core/tokens.h"

// Started as "kelputild" from any folder (".exe" cut off), the daemon serves
// plain; by any other name, TLS (the packages install both names).
TEST(ProgramName, ChoosesTheMode) {
    struct { const char* argv0; bool plain; } rows[] = {
        {"kelputild", true}, {"/usr/sbin/kelputild", true}, {"kelputild.exe", true},
        {"kelputild-tls", false}, {"/usr/sbin/kelputild-tls", false}, {"/opt/kelputild/bin/daemon", false},
    };
    for (auto& r : rows) {
        std::string name = r.argv0;
        EXPECT_EQ(strcmp(program_basename(name.data()), "kelputild") == 0, r.plain) << r.argv0;
    }
}

// The user is a line's first field and the hash its second, between ':'
// and up to the line's end.
TEST(NextToken, PasswdFields) {
    struct { const char* text; int position; const char* token; int end; } cases[] = {
        {"admin:abc:0", 0, "admin", 5}, {"admin:abc:0", 5, "abc", 9}, {"x:hash\n", 1, "hash", 6},
        // An empty field is skipped: an empty password field is never an empty hash.
        {"admin::0:0", 5, "0", 8},
        // The text's end ends the token, and nothing past it is read.
        {"admin", 5, "", 5},
    };
    for (auto& c : cases) {
        char out[64];
        EXPECT_EQ(next_token(c.text, c.position, out, "\n\r:"), c.end) << c.text << " @" << c.position;
        EXPECT_STREQ(out, c.token) << c.text << " @" << c.position;
    }
}
