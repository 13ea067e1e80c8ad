// The configuration bundle against bytes computed outside this code base.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "protocol.h"
#include "hex.h"
#include "private_dirs.h"
#include "transfer/config_bundle.h"

// The verifier's verdict, with what it printed.
static std::string verify(bool* ok) {
    testing::internal::CaptureStdout();
    *ok = verify_config_bundle();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// "hello router\n" packed by hand: title, MD5 of the text, format word,
// total size 61, and the text under the fixed key's keystream.
static const bytes hand_made = hex("6B656C702D7633 20 636F6E66696775726174696F6E 000000"
                                   " C865E75083F1D4D0BF757915389C808D 01000020 3D000000"
                                   " 448DDC85FA26127B1A50654357");

class Bundle : public ::testing::Test {
protected:
    void SetUp() override { enter_private_dirs(); }
};

TEST_F(Bundle, BuildMatchesHandMadeBytes) {
    write_file("/tmp/saved-configs", hex("68656C6C6F20726F757465720A"));
    ASSERT_TRUE(build_config_bundle());
    EXPECT_EQ(read_file("/tmp/saved-configs.dat"), hand_made);
}

// One keystream over the whole body: chunk boundaries at 1024 bytes must
// not restart it. Keystream bytes 1020-1024 come from an independent RC4.
TEST_F(Bundle, OneKeystreamAcrossChunks) {
    const bytes at_1020 = hex("9A9AAD7F01");
    for (size_t size : {1024u, 1025u, 3000u}) {
        SCOPED_TRACE(size);
        write_file("/tmp/saved-configs", bytes(size, 0));
        ASSERT_TRUE(build_config_bundle());
        bytes b = read_file("/tmp/saved-configs.dat");
        ASSERT_EQ(b.size(), size + 48);
        EXPECT_EQ(get_le32(b.data() + 44), size + 48);
        EXPECT_EQ(bytes(b.begin() + 48, b.begin() + 52), hex("2CE8B0E9"));
        bytes from_1020(b.begin() + 48 + 1020, b.begin() + 48 + (long)std::min<size_t>(size, 1025));
        EXPECT_EQ(from_1020, bytes(at_1020.begin(), at_1020.begin() + (long)from_1020.size()));
        bool ok;
        EXPECT_EQ(verify(&ok), "");
        EXPECT_TRUE(ok);
        EXPECT_EQ(read_file("/tmp/saved-configs"), bytes(size, 0));
    }
}

// Nothing is unpacked from a bundle that fails a check.
TEST_F(Bundle, VerifierChecksInOrder) {
    // unpacked nullptr: no plain file
    struct { const char* name; void (*alter)(bytes&); const char* output; const char* unpacked; } cases[] = {
        {"intact", [](bytes&) {}, "", "hello router\n"},
        {"title altered", [](bytes& b) { b[0] = 'X', b[22] = 'y'; }, "", "hello router\n"},
        {"format word", [](bytes& b) { b[43] = 0x21; }, "!ver\n", nullptr},
        {"format word read as le32", [](bytes& b) { b[40] = 0x20, b[43] = 0x01; }, "!ver\n", nullptr},
        {"one byte longer", [](bytes& b) { b.push_back(0); }, "!size\n", nullptr},
        {"size field", [](bytes& b) { b[44] = 60; }, "!size\n", nullptr},
        {"flipped body byte", [](bytes& b) { b[50] ^= 1; }, "!md5(1)\n", nullptr},
        {"digest", [](bytes& b) { b[39] ^= 0x80; }, "!md5(1)\n", nullptr},
        // An empty body needs the digest of nothing.
        {"empty body", [](bytes& b) { b.resize(48), b[44] = 48; }, "!md5(1)\n", nullptr},
        {"empty body, digest of nothing",
         [](bytes& b) { b.resize(24), b = b + hex("D41D8CD98F00B204E9800998ECF8427E 01000020 30000000"); }, "", ""},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        unlink("/tmp/saved-configs");
        bytes b = hand_made;
        c.alter(b);
        write_file("/tmp/saved-configs.dat", b);
        bool ok;
        EXPECT_EQ(verify(&ok), c.output);
        EXPECT_EQ(ok, c.unpacked != nullptr);
        EXPECT_EQ(access("/tmp/saved-configs", F_OK) == 0, c.unpacked != nullptr);
        if (c.unpacked) {
            EXPECT_EQ(read_file("/tmp/saved-configs"), bytes(c.unpacked, c.unpacked + strlen(c.unpacked)));
        }
    }
}
