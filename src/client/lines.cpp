#include "lines.h"

namespace kelp {

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string trim(std::string_view text) {
    const char blanks[] = " \t\r\n\v\f";
    size_t first = text.find_first_not_of(blanks), last = text.find_last_not_of(blanks);
    return first == std::string_view::npos ? "" : std::string(text.substr(first, last - first + 1));
}

}  // namespace kelp
