// The client's codecs against literal wire bytes.
#include <gtest/gtest.h>
#include <string.h>

#include "bundle.h"
#include "hex.h"
#include "records.h"
#include "session.h"
#include "transfer.h"

using kelp::bytes;
using kelp::error_kind;

TEST(ClientWire, GreetingTextMarkerAndTagAreChecked) {
    const bytes greeting = text("kelp-v3 utility server\n") + hex("00 FF 01 23 45 67 89 AB CD EF 02 01");
    uint8_t challenge[8];
    ASSERT_TRUE(kelp::parse_greeting(greeting.data(), challenge));
    EXPECT_EQ(bytes(challenge, challenge + 8), hex("01 23 45 67 89 AB CD EF"));
    for (size_t offset : {0, 22, 23, 24, 33, 34}) {
        bytes g = greeting;
        g[offset] ^= 0x03;
        EXPECT_EQ(kelp::parse_greeting(g.data(), challenge).kind, error_kind::protocol) << "byte " << offset;
    }
}

TEST(ClientWire, AuthReplyIsThePasswordUnderRc4KeyedByTheChallenge) {
    const uint8_t challenge[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    // reply: an empty password leaves the published keystream of key 0123456789ABCDEF
    struct { std::string password; const char* reply; } rows[] = {
        {"", "02 01 74 94 C2 E7 10 4B 08 79 0D 4B D5 53 32 8F 1E FC 9B 1A E8 48 8E 80 3C 77 52 35 48 B7 76 8C CB D9"},
        {"secret",
         "02 01 07 F1 A1 95 75 3F 08 79 0D 4B D5 53 32 8F 1E FC 9B 1A E8 48 8E 80 3C 77 52 35 48 B7 76 8C CB D9"},
        // Over 31 characters: cut, and the last byte stays the terminator.
        {std::string(40, 'x'),
         "02 01 0C EC BA 9F 68 33 70 01 75 33 AD 2B 4A F7 66 84 E3 62 90 30 F6 F8 44 0F 2A 4D 30 CF 0E F4 B3 D9"},
    };
    for (auto& r : rows) {
        uint8_t out[34];
        kelp::encode_auth_reply(challenge, r.password, out);
        EXPECT_EQ(bytes(out, out + 34), hex(r.reply)) << r.password;
    }
}

TEST(ClientWire, RequestAndReplies) {
    kelp::request r;
    r.action = 241, r.script = 7, r.flags = 0x03, r.size = 0x00080123;
    uint8_t out[42];
    memset(out, 0xAA, sizeof out);
    kelp::encode_request(r, out);
    EXPECT_EQ(bytes(out, out + 42), hex("00 00 00 F1 07 03") + bytes(32, 0) + hex("23 01 08 00"));

    kelp::reply rep;
    ASSERT_TRUE(kelp::parse_reply(hex("03 01 04 00 00 00 00").data(), &rep));
    EXPECT_EQ(rep.code, 4);
    ASSERT_TRUE(kelp::parse_reply(hex("03 01 01 10 27 00 00").data(), &rep));
    EXPECT_EQ(rep.size, 10000u);
    EXPECT_EQ(kelp::parse_reply(hex("01 01 01 00 00 00 00").data(), &rep).kind, error_kind::protocol);
    EXPECT_EQ(kelp::parse_reply(hex("03 02 01 00 00 00 00").data(), &rep).kind, error_kind::protocol);
}

TEST(ClientWire, Frames) {
    uint8_t f[1462];
    const bytes full(1460, 0x5A);
    encode_frame(full.data(), full.size(), f);
    EXPECT_EQ(bytes(f, f + 1462), hex("B4 05") + full);
    memset(f, 0xEE, sizeof f);
    encode_frame(hex("41").data(), 1, f);
    EXPECT_EQ(bytes(f, f + 1462), hex("01 00 41") + bytes(1459, 0));
    size_t n = 0;
    EXPECT_TRUE(kelp::decode_frame((hex("B4 05") + full).data(), &n));
    EXPECT_EQ(n, 1460u);
    for (const char* bad : {"00 00", "B5 05", "FF FF"})  // 0, 1461, 65535
        EXPECT_EQ(kelp::decode_frame((hex(bad) + full).data(), &n).kind, error_kind::protocol) << bad;
}

TEST(ClientWire, Records) {
    // PPP: a full-width PPP field has no NUL; CBQRULE is big-endian.
    bytes ppp = hex("00 00") + text("alice") + bytes(251, 0) + text("pppoe") + bytes(11, 0) + text("ppp12345") +
                text("10.1.2.3") + bytes(8, 0) + hex("FF FF FF F4") + bytes(24, 0);
    ASSERT_FALSE(kelp::is_end_record(ppp.data()));
    kelp::ppp_session p = kelp::decode_ppp(ppp.data());
    EXPECT_EQ(p.name + "|" + p.type + "|" + p.ppp + "|" + p.remote, "alice|pppoe|ppp12345|10.1.2.3");
    EXPECT_EQ(p.cbq_rule, -12);
    memset(&ppp[2], 'n', 256);
    EXPECT_EQ(kelp::decode_ppp(ppp.data()).name, std::string(256, 'n'));
    ppp[1] = 1;
    EXPECT_TRUE(kelp::is_end_record(ppp.data()));

    // Hotspot: the daemon zeroes bytes 17 and 19, so a long name reads as
    // 15 characters; the numbers are little-endian.
    bytes hotspot = hex("00 00") + text("abcdefghijklmno") + hex("00 71 00") + bytes(238, 0x74) + text("10.0.0.7") +
                    bytes(8, 0) + text("00:11:22:33:44:55") + bytes(1, 0) +
                    hex("E8 03 00 00 00 00 00 00  01 00 00 00 00 00 00 80  78 56 34 12  FF FF FF FF");
    kelp::hotspot_session h = kelp::decode_hotspot(hotspot.data());
    EXPECT_EQ(h.user + "|" + h.ip + "|" + h.mac, "abcdefghijklmno|10.0.0.7|00:11:22:33:44:55");
    EXPECT_EQ(h.counter1, 1000u);
    EXPECT_EQ(h.counter2, 0x8000000000000001ull);
    EXPECT_EQ(h.value1, 0x12345678u);
    EXPECT_EQ(h.value2, 0xFFFFFFFFu);
}

// "hostname=kelp\n" packed by hand: its MD5, and the text XORed with the RC4
// keystream of key 5E 13 C0 7A 9D 4B 22 68.
static const bytes hand_built = text("kelp-v3 configuration") + hex("000000 8B877628 16EE62EF 077F7C10 BE5185F5") +
                                hex("01 00 00 20 3E 00 00 00 44 87 C3 9D FB 67 0D 71 52 4F 65 5D 2D 4D");

TEST(ClientBundle, HandBuiltBundleBothWays) {
    bytes plain;
    ASSERT_TRUE(kelp::unpack_bundle(hand_built, &plain));
    EXPECT_EQ(plain, text("hostname=kelp\n"));
    EXPECT_EQ(kelp::pack_bundle(text("hostname=kelp\n")), hand_built);
    // Empty: the header alone, with the MD5 of nothing.
    bytes empty = kelp::pack_bundle({});
    EXPECT_EQ(empty, text("kelp-v3 configuration") + hex("000000 D41D8CD98F00B204E9800998ECF8427E 01000020 30000000"));
    EXPECT_TRUE(kelp::unpack_bundle(empty, &plain));
    EXPECT_TRUE(plain.empty());
}

TEST(ClientBundle, NamesTheFailingCheck) {
    struct { size_t flipped, size; const char* names; } rows[] = {
        {43, 62, "format"}, {99, 63, "size"}, {99, 47, "size"},  // shorter than a header
        {61, 62, "digest"}, {0, 62, ""},  // the title is never checked
    };
    for (auto& r : rows) {
        bytes b = hand_built, plain;
        if (r.flipped < b.size()) b[r.flipped] ^= 0x01;
        b.resize(r.size);
        kelp::status s = kelp::unpack_bundle(b, &plain);
        EXPECT_EQ(bool(s), !*r.names) << r.flipped;
        EXPECT_EQ(plain.empty(), !s);
        EXPECT_NE(s.message.find(r.names), std::string::npos) << s.message;
    }
}
