// Literal wire bytes in tests: "03 01 01", "5e13c07a" or a mix.
#pragma once

#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

// Whitespace-separated words; a word of even length is read two digits to a
// byte, an odd one as one value ("3D 00", "0a0b", "7").
inline std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    for (size_t i = 0, end; i < text.size(); i = end) {
        while (i < text.size() && isspace((unsigned char)text[i])) i++;
        for (end = i; end < text.size() && !isspace((unsigned char)text[end]);) end++;
        std::string word = text.substr(i, end - i);
        if (word.size() % 2)
            out.push_back((uint8_t)strtoul(word.c_str(), nullptr, 16));
        else
            for (size_t k = 0; k < word.size(); k += 2)
                out.push_back((uint8_t)strtoul(word.substr(k, 2).c_str(), nullptr, 16));
    }
    return out;
}

// A string's bytes, then that many zero bytes.
inline std::vector<uint8_t> text(const std::string& s, size_t zeros = 0) {
    std::vector<uint8_t> b(s.begin(), s.end());
    b.resize(b.size() + zeros, 0);
    return b;
}

// One run of bytes after another: hex("03 01 01") + payload.
inline std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
