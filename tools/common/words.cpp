#include "words.h"

#include <strings.h>

#include <algorithm>

namespace {

size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++) row[j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

}  // namespace

std::string closest(const std::string& typed, const std::vector<std::string>& names) {
    std::string best;
    size_t best_distance = 3;
    for (const std::string& name : names) {
        size_t d = distance(typed, name);
        if (d < best_distance) best = name, best_distance = d;
    }
    return best;
}

bool boolean_word(const std::string& text, bool* value) {
    for (const char* yes : {"true", "yes", "on", "1"})
        if (strcasecmp(text.c_str(), yes) == 0) return *value = true, true;
    for (const char* no : {"false", "no", "off", "0"})
        if (strcasecmp(text.c_str(), no) == 0) return *value = false, true;
    return false;
}
