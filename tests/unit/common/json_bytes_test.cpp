// JSON output of bytes: UTF-8 as it is; anything else as Latin-1 with the
// exact bytes beside it in base64, in every place a string can sit.
#include <gtest/gtest.h>

#include "json_bytes.h"

namespace {

using nlohmann::json;

TEST(json_bytes, printable) {
    // what the command found | the line printed
    const std::pair<json, std::string> rows[] = {
        {{{"text", "plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"}}, R"({"text":"plain ä € 😀"})"},
        {{{"text", "a\xFF" "b\n"}}, R"({"text":"aÿb\n","text_base64":"Yf9iCg=="})"},
        {{{"n", "\xC3"}}, R"({"n":"Ã","n_base64":"ww=="})"},
        {{{"n", "\xE2\xA8"}}, R"({"n":"â¨","n_base64":"4qg="})"},
        {{{"n", "\xC3\xA4\xBF"}}, R"({"n":"Ã¤¿","n_base64":"w6S/"})"},
        {{{"n", "\xC0\xAF"}}, R"({"n":"À¯","n_base64":"wK8="})"},
        // Surrogates, code points above U+10FFFF and overlong forms are not UTF-8 either.
        {{{"n", "\xED\xA0\x80"}}, "{\"n\":\"\xC3\xAD\xC2\xA0\xC2\x80\",\"n_base64\":\"7aCA\"}"},
        {{{"n", "\xF4\x90\x80\x80"}}, "{\"n\":\"\xC3\xB4\xC2\x90\xC2\x80\xC2\x80\",\"n_base64\":\"9JCAgA==\"}"},
        {{{"n", "\xE0\x80\xAF"}}, "{\"n\":\"\xC3\xA0\xC2\x80\xC2\xAF\",\"n_base64\":\"4ICv\"}"},
        {{{"lines", {"ok", "J\xF6rg", ""}}}, R"({"lines":["ok","Jörg",""],"lines_base64":["b2s=","SvZyZw==",""]})"},
        {{{"batches", {{"r1"}, {"r\xE9", "r3"}}}},
         R"({"batches":[["r1"],["ré","r3"]],"batches_base64":[["cjE="],["cuk=","cjM="]]})"},
        {{{"data", {{{"user", "\xE9t\xE9"}, {"bytes", 3}}}}},
         R"({"data":[{"bytes":3,"user":"été","user_base64":"6XTp"}]})"},
        {{{"data", {{"n", nullptr}, {"ok", true}}}}, R"({"data":{"n":null,"ok":true}})"},
    };
    for (const auto& [in, out] : rows)
        EXPECT_EQ(printable(in).dump(), out) << in.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace
