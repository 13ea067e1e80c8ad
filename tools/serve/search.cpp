#include "search.h"

#include <string.h>

namespace {

void search_one(const std::string& host, const std::string& file, std::string_view content, const std::string& text,
                size_t max_matches, json* out) {
    size_t at = 0;
    for (int number = 1; at < content.size() && out->size() < max_matches; number++) {
        size_t end = content.find('\n', at);
        if (end == std::string::npos) end = content.size();
        std::string_view line = content.substr(at, end - at);
        if (line.find(text) != std::string::npos)
            out->push_back({{"host", host}, {"path", file}, {"line", number}, {"text", std::string(line)}});
        at = end + 1;
    }
}

}  // namespace

json search_files(git_store& git, const std::vector<std::string>& hosts, const std::string& text, size_t max_matches) {
    json out = json::array();
    git.read_files("", hosts, [&](const std::string& host, const std::string& path, std::string_view content) {
        if (!memchr(content.data(), 0, content.size())) search_one(host, path, content, text, max_matches, &out);
        return out.size() < max_matches;
    });
    return out;
}
