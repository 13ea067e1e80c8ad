#include "search.h"

#include <string.h>

#include "lines.h"

namespace {

void search_one(const std::string& host, const std::string& file, std::string_view content, const std::string& text,
                size_t max_matches, json* out) {
    int number = 0;
    for (std::string_view line : kelp::lines_of(content)) {
        if (out->size() >= max_matches) return;
        number++;
        if (line.find(text) != std::string::npos)
            out->push_back({{"host", host}, {"path", file}, {"line", number}, {"text", std::string(line)}});
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
