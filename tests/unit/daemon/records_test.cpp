// Session list records from untrusted text: hotspot lines and PPP info files.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "hex.h"
#include "private_dirs.h"
#include "reports/hotspot_list.h"
#include "reports/ppp_list.h"

// Bytes expected at an offset of a record.
struct at { size_t offset; bytes want; };

static void expect_fields(const uint8_t* record, const std::vector<at>& fields) {
    for (const at& f : fields)
        EXPECT_EQ(bytes(record + f.offset, record + f.offset + f.want.size()), f.want) << "at " << f.offset;
}

// One buffer for all lines, as the daemon keeps it: a line rewrites the text
// fields, and a number that does not convert keeps the last one's bytes,
// reversed.
TEST(HotspotLine, Fields) {
    uint8_t r[316];
    memset(r, 0xAA, sizeof r);
    struct { std::string line; int result; std::vector<at> fields; } rows[] = {
        {"alice|10.0.0.5|00:11:22:33:44:55|1000|2000|30|40", 0,
         {{0, hex("00 00") + text("alice", 251) + text("10.0.0.5", 8) + text("00:11:22:33:44:55", 1) +
                  hex("E8 03 00 00 00 00 00 00  D0 07 00 00 00 00 00 00  1E 00 00 00  28 00 00 00")}}},
        // Bytes 17 and 19 are forced to zero inside a long name.
        {"ABCDEFGHIJKLMNOPQRST|1.2.3.4|m|1|2|3|4", 0,
         {{2, text("ABCDEFGHIJKLMNO") + hex("00 51 00 53 54") + bytes(236, 0)}}},
        // A full-width name loses its last byte to the forced zero at 257;
        // full-width addresses keep no terminator.
        {std::string(300, 'n') + "|1234567890123456789|123456789012345678901|1|2|3|4", 0,
         {{256, hex("6E 00") + text("1234567890123456") + text("123456789012345678")}}},
        {"a|b|c|1|2|3", 1, {}},  // five separators
        {"", 1, {}}, {"no separators at all", 1, {}},
        // Numbers saturate; a seventh separator ends the last one.
        {"u|i|m|18446744073709551615|99999999999999999999|4294967296|7|extra", 0,
         {{292, bytes(20, 0xFF) + hex("07 00 00 00")}}},
        {"u|i|m| 5|+6|-1|12abc", 0,
         {{292, hex("05 00 00 00 00 00 00 00  06 00 00 00 00 00 00 00  FF FF FF FF  0C 00 00 00")}}},
        {"u|i|m|1|2|3|4", 0, {}},
        {"v|j|n|x|2|3|", 0, {{2, text("v", 1)}, {292, hex("00 00 00 00 00 00 00 01")}, {312, hex("00 00 00 04")}}},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.line);
        std::string line = row.line;
        EXPECT_EQ(parse_hotspot_line(line.data(), r), row.result);
        expect_fields(r, row.fields);
    }
}

class PppInfo : public ::testing::Test {
protected:
    void SetUp() override { enter_private_dirs(), mkdir("/run/pppoe", 0755); }
};

// Every line loses its last character, newline or not; the record is
// cleared first, and nothing is written past its 326 bytes.
TEST_F(PppInfo, KeysFieldsAndTheLastCharacterRule) {
    // file empty: none
    struct { std::string file; std::vector<at> fields; } rows[] = {
        {"", {{0, bytes(326, 0)}}},
        {"PPP=ppp0\nTYPE=pppoe\nREMOTE=10.1.1.1\nCBQRULE=12\nIGNORED=1\nno equals sign\nNAME=alice",
         {{0, hex("00 00") + text("alic", 252) + text("pppoe", 11) + text("ppp0", 4) + text("10.1.1.1", 8) +
                  hex("00 00 00 0C") + bytes(24, 0)}}},
        // A value is cut at its field's width; the last of a key wins.
        {"NAME=a=b\nPPP=ppp12345678\nCBQRULE=-1\nTYPE=first-long-type-value\nTYPE=x\n",
         {{2, text("a=b", 1)}, {258, text("x", 15) + text("ppp12345") + hex("00")}, {298, hex("FF FF FF FF")}}},
        {"CBQRULE=abc\nCBQRULE= +7x\n", {{298, hex("00 00 00 07")}}}, {"CBQRULE=abc\n", {{298, hex("00 00 00 00")}}},
        {"CBQRULE=99999999999\n", {{298, hex("7F FF FF FF")}}},
        // Long lines come in pieces; a NUL hides the real end of a line.
        {"NAME=" + std::string(3000, 'z') + "\n" + std::string("TYPE=ab\0cd\nPPP", 15) + "\n=\nREMOTE=\n",
         {{2, bytes(256, 'z') + text("a", 15)}}},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.file.substr(0, 40));
        unlink("/var/run/pppoe/info.ppp7");
        if (!row.file.empty()) write_file("/var/run/pppoe/info.ppp7", text(row.file));
        uint8_t r[326 + 16];
        memset(r, 0x5A, sizeof r);
        EXPECT_EQ(read_ppp_info(r, 7), row.file.empty() ? 0 : 1);
        expect_fields(r, row.fields);
        EXPECT_EQ(bytes(r + 326, r + 342), bytes(16, 0x5A));
    }
}
