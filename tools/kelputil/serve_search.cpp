#include "serve_search.h"

#include <string.h>

namespace {

void search_one(const std::string& host, const std::string& file, const std::string& content, const std::string& text,
                size_t max_matches, json* out) {
    size_t at = 0;
    for (int number = 1; at < content.size() && out->size() < max_matches; number++) {
        size_t end = content.find('\n', at);
        if (end == std::string::npos) end = content.size();
        std::string line = content.substr(at, end - at);
        if (line.find(text) != std::string::npos)
            out->push_back({{"host", host}, {"path", file}, {"line", number}, {"text", line}});
        at = end + 1;
    }
}

}  // namespace

json search_files(git_store& git, const std::vector<std::string>& hosts, const std::string& text, size_t max_matches) {
    json out = json::array();
    for (const std::string& host : hosts) {
        std::vector<std::string> files;
        if (!git.files_at("", host, &files)) continue;  // never backed up yet
        for (const std::string& f : files) {
            std::string content;
            if (!git.read_at("", host + "/" + f, &content) || memchr(content.data(), 0, content.size())) continue;
            search_one(host, f, content, text, max_matches, &out);
        }
    }
    return out;
}
