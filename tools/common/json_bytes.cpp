#include "json_bytes.h"

#include <stdint.h>

#include <algorithm>

// Strict UTF-8, as JSON readers take it: no overlong forms, no surrogates,
// nothing above U+10FFFF.
bool valid_utf8(const std::string& s) {
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = (unsigned char)s[i];
        size_t n = c < 0x80 ? 0 : c < 0xC2 ? 9 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : c < 0xF5 ? 3 : 9;
        if (n == 9 || i + n >= s.size() + (n ? 0 : 1)) return false;
        // The second byte's range narrows for the first bytes that could start an invalid form.
        unsigned char second = (unsigned char)s[i + (n ? 1 : 0)];
        unsigned char low = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
        unsigned char high = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
        if (n && (second < low || second > high)) return false;
        for (size_t k = 2; k <= n; k++)
            if (((unsigned char)s[i + k] >> 6) != 2) return false;
        i += n + 1;
    }
    return true;
}

std::string latin1_text(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c < 0x80) {
            out += (char)c;
        } else {
            out += (char)(0xC0 | (c >> 6));
            out += (char)(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string base64(const std::string& bytes) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        size_t n = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (size_t k = 0; k < 3; k++) group = group << 8 | (k < n ? (unsigned char)bytes[i + k] : 0);
        for (size_t k = 0; k < 4; k++) out += k <= n ? digits[group >> (18 - 6 * k) & 63] : '=';
    }
    return out;
}

namespace {

// A string, or a list (of lists) of strings, with bytes that are not UTF-8.
bool needs_base64(const json& v) {
    if (v.is_string()) return !valid_utf8(v.get_ref<const std::string&>());
    if (!v.is_array()) return false;
    for (const json& e : v)
        if (needs_base64(e)) return true;
    return false;
}

json base64_of(const json& v) {
    if (v.is_string()) return base64(v.get_ref<const std::string&>());
    json out = json::array();
    for (const json& e : v) out.push_back(e.is_string() || e.is_array() ? base64_of(e) : json(nullptr));
    return out;
}

}  // namespace

json printable(const json& j) {
    if (j.is_string()) {
        const std::string& s = j.get_ref<const std::string&>();
        return valid_utf8(s) ? j : json(latin1_text(s));
    }
    if (j.is_array()) {
        json out = json::array();
        for (const json& e : j) out.push_back(printable(e));
        return out;
    }
    if (!j.is_object()) return j;
    json out = json::object();
    for (auto it = j.begin(); it != j.end(); ++it) {
        out[it.key()] = printable(it.value());
        if (needs_base64(it.value())) out[it.key() + "_base64"] = base64_of(it.value());
    }
    return out;
}
