#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "crypto/md5.h"
#include "crypto/rc4.h"
#include "hex.h"


static std::vector<uint8_t> bytes(const char* text) { return std::vector<uint8_t>(text, text + strlen(text)); }

TEST(Rc4, PublishedVectors) {
    struct {
        const char* key;
        const char* plain;
        const char* cipher;
    } vectors[] = {
        {"Key", "Plaintext", "bbf316e8d940af0ad3"},
        {"Wiki", "pedia", "1021bf0420"},
        {"Secret", "Attack at dawn", "45a01f645fc35b383552544b9bf5"},
    };
    for (auto& v : vectors) {
        std::vector<uint8_t> data = bytes(v.plain);
        std::vector<uint8_t> key = bytes(v.key);
        do_rc4(data.data(), (int)data.size(), key.data(), (int)key.size());
        EXPECT_EQ(data, hex(v.cipher)) << v.key;
    }
}

TEST(Rc4, KeystreamContinuesAcrossCalls) {
    // RFC 6229, 40-bit key 0102030405: keystream bytes 0-15 and 16-31.
    const uint8_t key[] = {1, 2, 3, 4, 5};
    rc4_key state;
    prepare_key(key, 5, &state);
    std::vector<uint8_t> a(16, 0), b(16, 0);
    rc4(a.data(), 5, &state);
    rc4(a.data() + 5, 11, &state);
    rc4(b.data(), 16, &state);
    EXPECT_EQ(a, hex("b2396305f03dc027ccc3524a0a1118a8"));
    EXPECT_EQ(b, hex("6982944f18fc82d589c403a47a0d0919"));
}

TEST(Rc4, BundleKeyKeystream) {
    // The configuration key's keystream, from an independent RC4.
    const uint8_t key[] = {0x5e, 0x13, 0xc0, 0x7a, 0x9d, 0x4b, 0x22, 0x68};
    std::vector<uint8_t> stream(1028, 0);
    do_rc4(stream.data(), (int)stream.size(), key, 8);
    EXPECT_EQ(std::vector<uint8_t>(stream.begin(), stream.begin() + 16), hex("2ce8b0e9950660146f2400315d4729ba"));
    EXPECT_EQ(std::vector<uint8_t>(stream.begin() + 1020, stream.end()), hex("9a9aad7f0136b5ed"));
}

static std::vector<uint8_t> md5_of(const std::string& text, size_t split) {
    md5_state s;
    uint8_t digest[16];
    md5_init(&s);
    md5_add(&s, (const uint8_t*)text.data(), split);
    md5_add(&s, (const uint8_t*)text.data() + split, text.size() - split);
    md5_finish(&s, digest);
    return std::vector<uint8_t>(digest, digest + 16);
}

TEST(Md5, Rfc1321Vectors) {
    struct {
        const char* text;
        const char* digest;
    } vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (auto& v : vectors) {
        std::string text = v.text;
        EXPECT_EQ(md5_of(text, 0), hex(v.digest)) << v.text;
        EXPECT_EQ(md5_of(text, text.size() / 2), hex(v.digest)) << "split " << v.text;
    }
}
