// The configuration bundle against bytes computed outside this code base.
#include <gtest/gtest.h>

#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/protocol.h"
#include "crypto/md5.h"
#include "crypto/rc4.h"
#include "private_dirs.h"
#include "transfer/config_bundle.h"

using bytes = std::vector<uint8_t>;

static void write_file(const char* path, const bytes& data) {
    FILE* f = fopen(path, "w");
    ASSERT_NE(f, nullptr);
    if (!data.empty()) fwrite(data.data(), 1, data.size(), f);
    fclose(f);
}

static bytes read_file(const char* path) {
    bytes out;
    FILE* f = fopen(path, "r");
    if (!f) return out;
    int c;
    while ((c = fgetc(f)) != EOF) out.push_back((uint8_t)c);
    fclose(f);
    return out;
}

static bytes capture_stdout(bool (*fn)(), bool* result) {
    fflush(stdout);
    int saved = dup(1);
    FILE* sink = tmpfile();
    dup2(fileno(sink), 1);
    *result = fn();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    rewind(sink);
    bytes out;
    int c;
    while ((c = fgetc(sink)) != EOF) out.push_back((uint8_t)c);
    fclose(sink);
    return out;
}

static std::string verify_output(bool* ok) {
    bytes out = capture_stdout(verify_config_bundle, ok);
    return std::string(out.begin(), out.end());
}

// "hello router\n" packed by hand: title, MD5 of the text, format word,
// total size 61, and the text under the fixed key's keystream.
static const bytes hand_made = {
    'k', 'e', 'l', 'p', '-', 'v', '3', ' ', 'c', 'o', 'n', 'f', 'i', 'g', 'u', 'r', 'a', 't', 'i', 'o', 'n', 0, 0, 0,
    0xc8, 0x65, 0xe7, 0x50, 0x83, 0xf1, 0xd4, 0xd0, 0xbf, 0x75, 0x79, 0x15, 0x38, 0x9c, 0x80, 0x8d,
    0x01, 0x00, 0x00, 0x20, 61, 0, 0, 0,
    0x44, 0x8d, 0xdc, 0x85, 0xfa, 0x26, 0x12, 0x7b, 0x1a, 0x50, 0x65, 0x43, 0x57,
};

class Bundle : public ::testing::Test {
protected:
    void SetUp() override { enter_private_dirs(); }
};

TEST_F(Bundle, BuildMatchesHandMadeBytes) {
    const char text[] = "hello router\n";
    write_file("/tmp/saved-configs", bytes(text, text + 13));
    ASSERT_TRUE(build_config_bundle());
    EXPECT_EQ(read_file("/tmp/saved-configs.dat"), hand_made);
}

TEST_F(Bundle, VerifyUnpacksHandMadeBundle) {
    write_file("/tmp/saved-configs.dat", hand_made);
    bool ok;
    EXPECT_EQ(verify_output(&ok), "");
    EXPECT_TRUE(ok);
    bytes plain = read_file("/tmp/saved-configs");
    EXPECT_EQ(std::string(plain.begin(), plain.end()), "hello router\n");
}

// One keystream over the whole body: chunk boundaries at 1024 bytes must
// not restart it. Keystream bytes 1020-1027 come from an independent RC4.
TEST_F(Bundle, OneKeystreamAcrossChunks) {
    for (size_t size : {1024u, 1025u, 3000u}) {
        write_file("/tmp/saved-configs", bytes(size, 0));
        ASSERT_TRUE(build_config_bundle());
        bytes b = read_file("/tmp/saved-configs.dat");
        ASSERT_EQ(b.size(), size + 48);
        EXPECT_EQ(get_le32(b.data() + 44), size + 48);
        const bytes expect_head = {0x2c, 0xe8, 0xb0, 0xe9};
        EXPECT_EQ(bytes(b.begin() + 48, b.begin() + 52), expect_head);
        const bytes expect_1020 = {0x9a, 0x9a, 0xad, 0x7f};
        EXPECT_EQ(bytes(b.begin() + 48 + 1020, b.begin() + 48 + 1024), expect_1020) << size;
        if (size > 1024) {
            EXPECT_EQ(b[48 + 1024], 0x01) << size;
        }
        bool ok;
        verify_output(&ok);
        EXPECT_TRUE(ok) << size;
        EXPECT_EQ(read_file("/tmp/saved-configs"), bytes(size, 0));
    }
}

TEST_F(Bundle, VerifierChecksInOrder) {
    struct {
        const char* name;
        void (*alter)(bytes&);
        const char* output;
        bool ok;
    } cases[] = {
        {"intact", [](bytes&) {}, "", true},
        {"title altered", [](bytes& b) { b[0] = 'X'; b[22] = 'y'; }, "", true},
        {"format word", [](bytes& b) { b[43] = 0x21; }, "!ver\n", false},
        {"format word read as le32", [](bytes& b) { b[40] = 0x20; b[43] = 0x01; }, "!ver\n", false},
        {"one byte longer", [](bytes& b) { b.push_back(0); }, "!size\n", false},
        {"size field", [](bytes& b) { b[44] = 60; }, "!size\n", false},
        {"flipped body byte", [](bytes& b) { b[50] ^= 1; }, "!md5(1)\n", false},
        {"digest", [](bytes& b) { b[39] ^= 0x80; }, "!md5(1)\n", false},
    };
    for (auto& c : cases) {
        unlink("/tmp/saved-configs");
        bytes b = hand_made;
        c.alter(b);
        write_file("/tmp/saved-configs.dat", b);
        bool ok;
        EXPECT_EQ(verify_output(&ok), c.output) << c.name;
        EXPECT_EQ(ok, c.ok) << c.name;
        // Nothing is unpacked from a bundle that failed its checks.
        if (!c.ok) {
            EXPECT_NE(access("/tmp/saved-configs", F_OK), 0) << c.name;
        }
    }
}

TEST_F(Bundle, EmptyBodyNeedsTheDigestOfNothing) {
    bytes b(hand_made.begin(), hand_made.begin() + 48);
    b[44] = 48;
    write_file("/tmp/saved-configs.dat", b);
    bool ok;
    EXPECT_EQ(verify_output(&ok), "!md5(1)\n");
    const bytes empty_md5 = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                             0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};
    std::copy(empty_md5.begin(), empty_md5.end(), b.begin() + 24);
    write_file("/tmp/saved-configs.dat", b);
    EXPECT_EQ(verify_output(&ok), "");
    EXPECT_TRUE(ok);
    EXPECT_EQ(read_file("/tmp/saved-configs"), bytes{});
}
