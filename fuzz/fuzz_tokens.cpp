// next_token() walking a whole text the way its callers do. Input: a mode
// byte (odd: default delimiters), then the delimiter set up to a NUL, then
// the text.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "core/tokens.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const char* rest = (const char*)data + 1;
    size_t left = size - 1;
    char* set = nullptr;
    if (!(data[0] & 1)) {
        const char* nul = (const char*)memchr(rest, 0, left);
        size_t n = nul ? (size_t)(nul - rest) : left;
        set = strndup(rest, n);
        rest += nul ? n + 1 : n;
        left -= nul ? n + 1 : n;
    }
    char* text = strndup(rest, left);
    size_t length = strlen(text);
    char* out = (char*)malloc(length + 1);  // "as large as text"
    int position = 0;
    while (text[position] != '\0') {
        int end = next_token(text, position, out, set);
        if (end <= position || (size_t)end > length) abort();
        size_t got = strlen(out);
        if (got > (size_t)(end - position)) abort();
        if (memcmp(out, text + end - got, got) != 0) abort();  // the token ends where it stopped
        position = end;
    }
    free(out);
    free(text);
    free(set);
    return 0;
}
