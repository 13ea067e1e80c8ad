// Bytes in JSON strings. Device and file content (scripts, reports, diffs,
// names) is held as the bytes it came as; on output every string that is
// not UTF-8 is shown as Latin-1, the routers' own character set, and its
// exact bytes travel beside it as base64, so a JSON round trip loses nothing.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

using json = nlohmann::json;

bool valid_utf8(const std::string& bytes);
std::string latin1_text(const std::string& bytes);
std::string base64(const std::string& bytes);

// j ready to print: under an object's key K, a string (or a list of them)
// that is not UTF-8 becomes its Latin-1 reading, and K_base64 gets the same
// shape with each string's exact bytes in base64.
nlohmann::json printable(const nlohmann::json& j);
