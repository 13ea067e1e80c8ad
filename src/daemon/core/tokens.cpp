#include "core/tokens.h"

#include <string.h>

static const char default_delimiters[] = "\n\t\r =[]()\"'";

static bool is_delimiter(char c, const char* set) { return c != '\0' && strchr(set, c) != nullptr; }

int next_token(const char* text, int position, char* out, const char* delimiters) {
    const char* set = delimiters ? delimiters : default_delimiters;
    int i = position;
    while (is_delimiter(text[i], set)) i++;
    int n = 0;
    while (text[i] != '\0' && !is_delimiter(text[i], set)) out[n++] = text[i++];
    out[n] = '\0';
    return i;
}
