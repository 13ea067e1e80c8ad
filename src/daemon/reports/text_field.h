#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

// Session list text fields take the value up to their width, zero-filled,
// with no terminator when the value fills them.
inline void copy_text_field(uint8_t* field, size_t width, const char* value) {
    memset(field, 0, width);
    size_t n = strlen(value);
    memcpy(field, value, n < width ? n : width);
}
