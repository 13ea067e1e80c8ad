// Session list records from untrusted text: hotspot lines and PPP info files.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "private_dirs.h"
#include "reports/hotspot_list.h"
#include "reports/ppp_list.h"

using bytes = std::vector<uint8_t>;

static int parse(std::string line, uint8_t* record) { return parse_hotspot_line(line.data(), record); }

static bytes slice(const uint8_t* r, size_t offset, size_t n) { return bytes(r + offset, r + offset + n); }

TEST(HotspotLine, FieldsAndLittleEndianNumbers) {
    uint8_t r[316];
    memset(r, 0xAA, sizeof r);
    ASSERT_EQ(parse("alice|10.0.0.5|00:11:22:33:44:55|1000|2000|30|40", r), 0);
    EXPECT_EQ(r[0], 0);
    EXPECT_EQ(r[1], 0);
    EXPECT_STREQ((const char*)r + 2, "alice");
    EXPECT_EQ(slice(r, 7, 251), bytes(251, 0));
    EXPECT_STREQ((const char*)r + 258, "10.0.0.5");
    EXPECT_EQ(slice(r, 274, 18), (bytes{'0', '0', ':', '1', '1', ':', '2', '2', ':', '3', '3', ':', '4', '4', ':',
                                        '5', '5', 0}));
    EXPECT_EQ(slice(r, 292, 8), (bytes{0xE8, 0x03, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(slice(r, 300, 8), (bytes{0xD0, 0x07, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(slice(r, 308, 4), (bytes{0x1E, 0, 0, 0}));
    EXPECT_EQ(slice(r, 312, 4), (bytes{0x28, 0, 0, 0}));
}

TEST(HotspotLine, ForcedZerosInsideALongName) {
    uint8_t r[316] = {};
    ASSERT_EQ(parse("ABCDEFGHIJKLMNOPQRST|1.2.3.4|m|1|2|3|4", r), 0);
    EXPECT_EQ(slice(r, 2, 15), bytes({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O'}));
    EXPECT_EQ(r[17], 0);
    EXPECT_EQ(r[18], 'Q');
    EXPECT_EQ(r[19], 0);
    EXPECT_EQ(r[20], 'S');
    EXPECT_EQ(r[21], 'T');
    EXPECT_EQ(slice(r, 22, 236), bytes(236, 0));
    // A full-width name loses its last byte to the forced zero at 257.
    std::string name(300, 'n');
    ASSERT_EQ(parse(name + "|ip|mac|1|2|3|4", r), 0);
    EXPECT_EQ(r[256], 'n');
    EXPECT_EQ(r[257], 0);
    // Full-width address fields keep no terminator.
    ASSERT_EQ(parse("u|1234567890123456789|123456789012345678901|1|2|3|4", r), 0);
    EXPECT_EQ(slice(r, 258, 16), bytes({'1', '2', '3', '4', '5', '6', '7', '8', '9', '0', '1', '2', '3', '4', '5', '6'}));
    EXPECT_EQ(r[291], '8');
}

TEST(HotspotLine, MalformedLinesAndOddNumbers) {
    uint8_t r[316] = {};
    EXPECT_EQ(parse("a|b|c|1|2|3", r), 1);  // five separators
    EXPECT_EQ(parse("", r), 1);
    EXPECT_EQ(parse("no separators at all", r), 1);
    ASSERT_EQ(parse("u|i|m|18446744073709551615|99999999999999999999|4294967296|7|extra", r), 0);
    EXPECT_EQ(slice(r, 292, 8), bytes(8, 0xFF));
    EXPECT_EQ(slice(r, 300, 8), bytes(8, 0xFF));  // saturates
    EXPECT_EQ(slice(r, 308, 4), bytes(4, 0xFF));
    EXPECT_EQ(slice(r, 312, 4), (bytes{7, 0, 0, 0}));  // stops at the seventh '|'
    ASSERT_EQ(parse("u|i|m| 5|+6|-1|12abc", r), 0);
    EXPECT_EQ(slice(r, 292, 8), (bytes{5, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(slice(r, 300, 8), (bytes{6, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(slice(r, 308, 4), bytes(4, 0xFF));
    EXPECT_EQ(slice(r, 312, 4), (bytes{12, 0, 0, 0}));
}

TEST(HotspotLine, UnconvertedNumberKeepsBufferBytesReversed) {
    uint8_t r[316] = {};
    ASSERT_EQ(parse("u|i|m|1|2|3|4", r), 0);
    ASSERT_EQ(parse("v|j|n|x|2|3|", r), 0);
    EXPECT_EQ(slice(r, 292, 8), (bytes{0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(slice(r, 312, 4), (bytes{0, 0, 0, 4}));
    EXPECT_STREQ((const char*)r + 2, "v");
}

class PppInfo : public ::testing::Test {
protected:
    void SetUp() override {
        enter_private_dirs();
        mkdir("/run/pppoe", 0755);
    }
    static void info(int unit, const std::string& text) {
        char path[64];
        snprintf(path, sizeof path, "/var/run/pppoe/info.ppp%d", unit);
        FILE* f = fopen(path, "w");
        ASSERT_NE(f, nullptr);
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
    }
};

TEST_F(PppInfo, KeysFieldsAndTheLastCharacterRule) {
    uint8_t r[326];
    memset(r, 0xAA, sizeof r);
    EXPECT_EQ(read_ppp_info(r, 0), 0);
    EXPECT_EQ(bytes(r, r + 326), bytes(326, 0));

    info(0, "PPP=ppp0\nTYPE=pppoe\nREMOTE=10.1.1.1\nCBQRULE=12\nIGNORED=1\nno equals sign\nNAME=alice");
    memset(r, 0xAA, sizeof r);
    EXPECT_EQ(read_ppp_info(r, 0), 1);
    EXPECT_EQ(r[0], 0);
    EXPECT_EQ(r[1], 0);
    EXPECT_STREQ((const char*)r + 2, "alic");
    EXPECT_STREQ((const char*)r + 258, "pppoe");
    EXPECT_STREQ((const char*)r + 274, "ppp0");
    EXPECT_STREQ((const char*)r + 282, "10.1.1.1");
    EXPECT_EQ(slice(r, 298, 4), (bytes{0x00, 0x00, 0x00, 0x0C}));
    EXPECT_EQ(slice(r, 302, 24), bytes(24, 0));
}

TEST_F(PppInfo, ValuesCutAtWidthLastOccurrenceWins) {
    uint8_t r[326];
    info(1, "NAME=a=b\nPPP=ppp12345678\nCBQRULE=-1\nTYPE=first-long-type-value\nTYPE=x\n");
    ASSERT_EQ(read_ppp_info(r, 1), 1);
    EXPECT_STREQ((const char*)r + 2, "a=b");
    EXPECT_EQ(slice(r, 274, 8), (bytes{'p', 'p', 'p', '1', '2', '3', '4', '5'}));
    EXPECT_EQ(r[282], 0);  // no terminator spilled into REMOTE
    EXPECT_EQ(slice(r, 298, 4), (bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(slice(r, 258, 16), (bytes{'x', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    info(2, "CBQRULE=abc\nCBQRULE= +7x\n");
    ASSERT_EQ(read_ppp_info(r, 2), 1);
    EXPECT_EQ(slice(r, 298, 4), (bytes{0, 0, 0, 7}));
    info(3, "CBQRULE=abc\n");
    ASSERT_EQ(read_ppp_info(r, 3), 1);
    EXPECT_EQ(slice(r, 298, 4), bytes(4, 0));
    info(4, "CBQRULE=99999999999\n");
    ASSERT_EQ(read_ppp_info(r, 4), 1);
    EXPECT_EQ(slice(r, 298, 4), (bytes{0x7F, 0xFF, 0xFF, 0xFF}));
}

TEST_F(PppInfo, LongLinesAndNulBytesStayInsideTheRecord) {
    uint8_t r[326 + 16];
    memset(r, 0x5A, sizeof r);
    std::string long_name = "NAME=" + std::string(3000, 'z') + "\n";
    std::string with_nul("TYPE=ab\0cd\nPPP", 15);
    info(5, long_name + with_nul + "\n=\nREMOTE=\n");
    ASSERT_EQ(read_ppp_info(r, 5), 1);
    EXPECT_EQ(slice(r, 2, 256), bytes(256, 'z'));
    EXPECT_STREQ((const char*)r + 258, "a");  // the NUL hides the real end
    EXPECT_EQ(slice(r, 326, 16), bytes(16, 0x5A));
}
