// Text taken line by line, as the files and reports here are written:
// a line ends at '\n', the last one needs none, and nothing follows a
// final '\n'.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelp {

// "a\nb\n" and "a\nb" -> {"a", "b"}; "" -> {}. The views point into text.
std::vector<std::string_view> lines_of(std::string_view text);

// Python's str.strip(): blanks (space, \t, \r, \n, \v, \f) off both ends.
std::string trim(std::string_view text);

}  // namespace kelp
