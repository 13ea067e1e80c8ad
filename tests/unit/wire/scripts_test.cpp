#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "scripts.h"

// A backup names each script by its file: it must be the device's own name.
TEST(Scripts, FileIsThePathsLastPartAndLookupsAgree) {
    for (const script_entry& s : script_table) {
        EXPECT_EQ(std::string(s.file), strrchr(s.path, '/') + 1) << s.word;
        EXPECT_EQ(script_by_number(s.number), &s) << s.word;
        EXPECT_EQ(script_by_word(s.word), &s) << s.word;
    }
    for (int number : {0, 4, 5, 6, 8, 255}) EXPECT_EQ(script_by_number(number), nullptr) << number;
    for (const char* word : {"", "dhcpd", "FW", "fw.scr"}) EXPECT_EQ(script_by_word(word), nullptr) << word;
}
