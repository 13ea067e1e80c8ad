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

namespace {

bytes text(const std::string& s) { return bytes(s.begin(), s.end()); }
bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
bytes greeting() { return cat({text("kelp-v3 utility server\n"), hex("00 FF 01 23 45 67 89 AB CD EF 02 01")}); }

}  // namespace

TEST(ClientWire, GreetingTextMarkerAndTagAreChecked) {
    uint8_t challenge[8];
    ASSERT_TRUE(kelp::parse_greeting(greeting().data(), challenge));
    EXPECT_EQ(bytes(challenge, challenge + 8), hex("01 23 45 67 89 AB CD EF"));
    for (size_t offset : {0, 22, 23, 24, 33, 34}) {
        bytes g = greeting();
        g[offset] ^= 0x03;
        EXPECT_EQ(kelp::parse_greeting(g.data(), challenge).kind, error_kind::protocol) << "byte " << offset;
    }
}

TEST(ClientWire, AuthReplyIsThePasswordUnderRc4KeyedByTheChallenge) {
    const uint8_t challenge[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    uint8_t out[34], cut[34];
    // An empty password leaves the published keystream of key 0123456789ABCDEF.
    kelp::encode_auth_reply(challenge, "", out);
    EXPECT_EQ(bytes(out, out + 10), hex("02 01 74 94 C2 E7 10 4B 08 79"));
    kelp::encode_auth_reply(challenge, "secret", out);
    EXPECT_EQ(bytes(out, out + 34), hex("02 01 07 F1 A1 95 75 3F 08 79 0D 4B D5 53 32 8F 1E FC"
                                        " 9B 1A E8 48 8E 80 3C 77 52 35 48 B7 76 8C CB D9"));
    // Over 31 characters: cut, and the last byte stays the terminator (bare keystream D9).
    kelp::encode_auth_reply(challenge, std::string(40, 'x'), out);
    kelp::encode_auth_reply(challenge, std::string(31, 'x'), cut);
    EXPECT_EQ(out[33], 0xD9);
    EXPECT_EQ(bytes(out, out + 34), bytes(cut, cut + 34));
}

TEST(ClientWire, RequestAndReplies) {
    kelp::request r;
    r.action = 241, r.script = 7, r.flags = 0x03, r.size = 0x00080123;
    uint8_t out[42];
    memset(out, 0xAA, sizeof out);
    kelp::encode_request(r, out);
    EXPECT_EQ(bytes(out, out + 42), cat({hex("00 00 00 F1 07 03"), bytes(32, 0), hex("23 01 08 00")}));

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
    bytes full(1460, 0x5A);
    kelp::encode_frame(full.data(), full.size(), f);
    EXPECT_EQ(bytes(f, f + 3), hex("B4 05 5A"));
    EXPECT_EQ(f[1461], 0x5A);
    memset(f, 0xEE, sizeof f);
    kelp::encode_frame(hex("41").data(), 1, f);
    EXPECT_EQ(bytes(f, f + 1462), cat({hex("01 00 41"), bytes(1459, 0)}));

    size_t n = 0;
    EXPECT_TRUE(kelp::decode_frame(cat({hex("B4 05"), full}).data(), &n));
    EXPECT_EQ(n, 1460u);
    for (const char* bad : {"00 00", "B5 05", "FF FF"})  // 0, 1461, 65535
        EXPECT_EQ(kelp::decode_frame(cat({hex(bad), full}).data(), &n).kind, error_kind::protocol) << bad;
}

TEST(ClientWire, PppRecord) {
    bytes rec(326, 0);
    memcpy(&rec[2], "alice", 5);
    memcpy(&rec[258], "pppoe", 5);
    memcpy(&rec[274], "ppp12345", 8);  // full width: no NUL
    memcpy(&rec[282], "10.1.2.3", 8);
    memcpy(&rec[298], hex("00 00 00 0C").data(), 4);
    ASSERT_FALSE(kelp::is_end_record(rec.data()));
    kelp::ppp_session p = kelp::decode_ppp(rec.data());
    EXPECT_EQ(p.name, "alice");
    EXPECT_EQ(p.type, "pppoe");
    EXPECT_EQ(p.ppp, "ppp12345");
    EXPECT_EQ(p.remote, "10.1.2.3");
    EXPECT_EQ(p.cbq_rule, 12);
    memcpy(&rec[298], hex("FF FF FF FF").data(), 4);
    memset(&rec[2], 'n', 256);
    p = kelp::decode_ppp(rec.data());
    EXPECT_EQ(p.cbq_rule, -1);
    EXPECT_EQ(p.name, std::string(256, 'n'));
    EXPECT_EQ(p.type, "pppoe");
    rec[1] = 1;
    EXPECT_TRUE(kelp::is_end_record(rec.data()));
}

TEST(ClientWire, HotspotRecord) {
    bytes rec(316, 0);
    // The daemon zeroes record bytes 17 and 19: a long name reads as 15 chars.
    memcpy(&rec[2], "abcdefghijklmnopqrstu", 21);
    rec[17] = rec[19] = 0;
    memcpy(&rec[258], "10.0.0.7", 8);
    memcpy(&rec[274], "00:11:22:33:44:55", 17);
    bytes numbers = hex("E8 03 00 00 00 00 00 00  01 00 00 00 00 00 00 80  78 56 34 12  FF FF FF FF");
    memcpy(&rec[292], numbers.data(), numbers.size());
    kelp::hotspot_session h = kelp::decode_hotspot(rec.data());
    EXPECT_EQ(h.user, "abcdefghijklmno");
    EXPECT_EQ(h.ip, "10.0.0.7");
    EXPECT_EQ(h.mac, "00:11:22:33:44:55");
    EXPECT_EQ(h.counter1, 1000u);
    EXPECT_EQ(h.counter2, 0x8000000000000001ull);
    EXPECT_EQ(h.value1, 0x12345678u);
    EXPECT_EQ(h.value2, 0xFFFFFFFFu);
}

namespace {

// "hostname=kelp\n" packed by hand: its MD5, and the text XORed with the RC4
// keystream of key 5E 13 C0 7A 9D 4B 22 68.
bytes hand_built_bundle() {
    return cat({text("kelp-v3 configuration"), bytes(3, 0), hex("8B 87 76 28 16 EE 62 EF 07 7F 7C 10 BE 51 85 F5"),
                hex("01 00 00 20 3E 00 00 00"), hex("44 87 C3 9D FB 67 0D 71 52 4F 65 5D 2D 4D")});
}

}  // namespace

TEST(ClientBundle, HandBuiltBundleBothWays) {
    bytes plain;
    ASSERT_TRUE(kelp::unpack_bundle(hand_built_bundle(), &plain));
    EXPECT_EQ(plain, text("hostname=kelp\n"));
    EXPECT_EQ(kelp::pack_bundle(text("hostname=kelp\n")), hand_built_bundle());
    // Empty: header only, with the MD5 of nothing.
    bytes empty = kelp::pack_bundle({});
    EXPECT_EQ(empty, cat({text("kelp-v3 configuration"), bytes(3, 0),
                          hex("D4 1D 8C D9 8F 00 B2 04 E9 80 09 98 EC F8 42 7E 01 00 00 20 30 00 00 00")}));
    EXPECT_TRUE(kelp::unpack_bundle(empty, &plain));
    EXPECT_TRUE(plain.empty());
}

TEST(ClientBundle, NamesTheFailingCheck) {
    auto failure = [](size_t offset, size_t size) {
        bytes b = hand_built_bundle(), plain;
        if (offset < b.size()) b[offset] ^= 0x01;
        b.resize(size);
        kelp::status s = kelp::unpack_bundle(b, &plain);
        EXPECT_EQ(plain.empty(), !s);
        return s ? std::string("accepted") : s.message;
    };
    EXPECT_NE(failure(43, 62).find("format"), std::string::npos);
    EXPECT_NE(failure(99, 63).find("size"), std::string::npos);
    EXPECT_NE(failure(99, 47).find("size"), std::string::npos);  // shorter than a header
    EXPECT_NE(failure(61, 62).find("digest"), std::string::npos);
    EXPECT_EQ(failure(0, 62), "accepted");  // the title is never checked
}
