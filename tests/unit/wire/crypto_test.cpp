// RC4 against published vectors. (MD5 is the TLS library's; the bundle
// tests check its digests.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rc4.h"
#include "hex.h"

TEST(Rc4, PublishedVectors) {
    struct { std::string key, plain; const char* cipher; } vectors[] = {
        {"Key", "Plaintext", "bbf316e8d940af0ad3"}, {"Wiki", "pedia", "1021bf0420"},
        {"Secret", "Attack at dawn", "45a01f645fc35b383552544b9bf5"},
    };
    for (auto& v : vectors) {
        std::vector<uint8_t> data(v.plain.begin(), v.plain.end());
        do_rc4(data.data(), (int)data.size(), (const uint8_t*)v.key.data(), (int)v.key.size());
        EXPECT_EQ(data, hex(v.cipher)) << v.key;
    }
}

TEST(Rc4, KeystreamContinuesAcrossCalls) {
    // RFC 6229, 40-bit key 0102030405: keystream bytes 0-31, drawn as 5, 11 and 16.
    const uint8_t key[] = {1, 2, 3, 4, 5};
    rc4_key state;
    prepare_key(key, 5, &state);
    std::vector<uint8_t> stream(32, 0);
    rc4(stream.data(), 5, &state);
    rc4(stream.data() + 5, 11, &state);
    rc4(stream.data() + 16, 16, &state);
    EXPECT_EQ(stream, hex("b2396305f03dc027ccc3524a0a1118a8 6982944f18fc82d589c403a47a0d0919"));
}
